// The three RTSP requests over the probe's libcurl easy handle. libcurl's
// default writer appends header lines and body to one temporary file per
// request (no callbacks), which is dumped and then read by the answer readers.
// libcurl numbers the requests (CSeq) and keeps the connection between them.
#include <curl/curl.h>

#include "v2/rtsp/probe_rules.h"
#include "v2/rtsp/rtsp.h"
#include "v2/settings.h"

namespace {

// Makes one request for source_url with its answer captured in a new
// temporary file, dumped to standard error and rewound. 1 when no capture
// could be made. The transfer's own result is not examined: a failed one
// leaves an empty or partial capture, which fails the status-line test.
int capture_answer(CURL* curl, long request, const char* transport, const char* label, FILE*& capture) {
  capture = tmpfile();
  if (capture == nullptr) {
    fprintf(stderr, "tmpfile error\n");
    return 1;
  }
  curl_easy_setopt(curl, CURLOPT_HEADERDATA, capture);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, capture);
  curl_easy_setopt(curl, CURLOPT_RTSP_STREAM_URI, source_url.c_str());
  curl_easy_setopt(curl, CURLOPT_RTSP_REQUEST, request);
  if (transport != nullptr) curl_easy_setopt(curl, CURLOPT_RTSP_TRANSPORT, transport);
  curl_easy_perform(curl);
  fflush(capture);
  dump_tmpfile(label, capture);
  return 0;
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
