// The three RTSP requests over the probe's libcurl easy handle. libcurl hands
// header lines and body to one writer that appends them to a temporary file
// per request, which is dumped and then read by the answer readers. libcurl
// numbers the requests (CSeq) and keeps the connection between them.
#include <curl/curl.h>

#include "v2/rtsp/probe_rules.h"
#include "v2/rtsp/rtsp_answers.h"
#include "v2/rtsp/rtsp_exchange.h"
#include "v2/settings.h"

namespace {

// One answer's capture: the file, and how much of the answer it holds.
struct capture_file {
  FILE* f = nullptr;
  size_t taken = 0;
  bool too_large = false;
};

// libcurl's writer for header lines and body alike. Past rtsp_answer_limit
// it keeps what fits and returns a short count, which makes libcurl end the
// transfer: a server cannot fill the disk, memory or standard error.
size_t append_to_capture(char* data, size_t size, size_t count, void* opaque) {
  auto& c = *static_cast<capture_file*>(opaque);
  const size_t n = size * count;
  const size_t room = rtsp_answer_limit - c.taken;
  const size_t kept = n < room ? n : room;
  if (fwrite(data, 1, kept, c.f) != kept) return 0;
  c.taken += kept;
  if (kept < n) c.too_large = true;
  return kept;
}

// Makes one request for source_url with its answer captured in a new
// temporary file, dumped to standard error and rewound. 1 when no capture
// could be made, or, after the dump of what was kept, when the answer was
// larger than rtsp_answer_limit or did not come within the request's time
// limits (a cut description must not be read as a whole one). The
// transfer's own result is not examined otherwise: a failed one leaves an
// empty or partial capture, which fails the status-line test.
int capture_answer(CURL* curl, long request, const char* transport, const char* label, FILE*& capture) {
  capture_file c;
  c.f = capture = tmpfile();
  if (capture == nullptr) {
    fprintf(stderr, "tmpfile error\n");
    return 1;
  }
  curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, append_to_capture);
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, append_to_capture);
  curl_easy_setopt(curl, CURLOPT_HEADERDATA, &c);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &c);
  curl_easy_setopt(curl, CURLOPT_RTSP_STREAM_URI, source_url.c_str());
  curl_easy_setopt(curl, CURLOPT_RTSP_REQUEST, request);
  if (transport != nullptr) curl_easy_setopt(curl, CURLOPT_RTSP_TRANSPORT, transport);
  const bool timed_out = curl_easy_perform(curl) == CURLE_OPERATION_TIMEDOUT;
  fflush(capture);
  dump_tmpfile(label, capture);
  if (!c.too_large && !timed_out) return 0;
  if (timed_out) fprintf(stderr, "%s answer not complete within %ld seconds\n", label, rtsp_silence_seconds);
  else fprintf(stderr, "%s answer larger than %zu bytes\n", label, rtsp_answer_limit);
  fclose(capture);
  capture = nullptr;
  return 1;
}

}  // namespace

void dump_tmpfile(const char* label, FILE* f) {
  fprintf(stderr, "---------<%s>--------\n", label);
  fseek(f, 0, SEEK_SET);
  char block[4096];
  size_t n;
  while ((n = fread(block, 1, sizeof block, f)) > 0) fwrite(block, 1, n, stderr);
  fprintf(stderr, "\n-----------------------------\n");
  fseek(f, 0, SEEK_SET);
}

int rtsp_options(CURL* curl) {
  FILE* capture;
  if (capture_answer(curl, CURL_RTSPREQ_OPTIONS, nullptr, "OPTIONS", capture) != 0) return 1;
  int result = read_options_answer(capture);
  fclose(capture);
  return result;
}

int rtsp_describe(std::vector<std::string>& lines, CURL* curl) {
  lines.clear();
  FILE* capture;
  if (capture_answer(curl, CURL_RTSPREQ_DESCRIBE, nullptr, "DESCRIBE", capture) != 0) return 1;
  int result = read_describe_answer(capture, lines);
  fclose(capture);
  return result;
}

int rtsp_setup(CURL* curl, const sockaddr_in& destination) {
  FILE* capture;
  if (capture_answer(curl, CURL_RTSPREQ_SETUP, setup_transport(destination), "SETUP", capture) != 0) return 1;
  int result = read_setup_answer(capture);
  fclose(capture);
  return result;
}
