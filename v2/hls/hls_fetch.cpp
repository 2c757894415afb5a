// libcurl's multi interface drives one request at a time, so that the wait
// for a slow server is cut into short polls between which the caller's stop
// question is asked: a run that ends never waits for a request to finish.
#include "v2/hls/hls_fetch.h"

#include <curl/curl.h>

namespace {

constexpr int poll_ms = 100;
constexpr long redirects_max = 5;

struct body_sink {
  std::string* body;
  bool too_large = false;
};

// Past fetch_bytes_max a short count makes libcurl end the transfer.
size_t take_body(char* data, size_t size, size_t count, void* opaque) {
  auto& sink = *static_cast<body_sink*>(opaque);
  const size_t n = size * count;
  if (sink.body->size() + n > fetch_bytes_max) {
    sink.too_large = true;
    return 0;
  }
  sink.body->append(data, n);
  return n;
}

// Runs the transfer on f.multi until it ends or f.stop() says stop.
CURLcode run_transfer(fetcher& f, bool& stopped) {
  if (curl_multi_add_handle(f.multi, f.easy) != CURLM_OK) return CURLE_FAILED_INIT;
  CURLcode result = CURLE_OK;
  for (;;) {
    int running = 0;
    if (curl_multi_perform(f.multi, &running) != CURLM_OK) {
      result = CURLE_FAILED_INIT;
      break;
    }
    int left = 0;
    if (const CURLMsg* m = curl_multi_info_read(f.multi, &left); m && m->msg == CURLMSG_DONE) {
      result = m->data.result;
      break;
    }
    if (f.stop && f.stop()) {
      stopped = true;
      result = CURLE_ABORTED_BY_CALLBACK;
      break;
    }
    curl_multi_poll(f.multi, nullptr, 0, poll_ms, nullptr);
  }
  curl_multi_remove_handle(f.multi, f.easy);
  return result;
}

}  // namespace

bool fetcher_start(fetcher& f, bool (*stop)()) {
  f.stop = stop;
  f.multi = curl_multi_init();
  f.easy = curl_easy_init();
  if (f.multi && f.easy) return true;
  fetcher_end(f);
  return false;
}

void fetcher_end(fetcher& f) {
  if (f.easy) curl_easy_cleanup(f.easy);
  if (f.multi) curl_multi_cleanup(f.multi);
  f.easy = nullptr;
  f.multi = nullptr;
}

fetch_result fetch_url(fetcher& f, const std::string& url) {
  fetch_result r;
  body_sink sink{&r.body};
  CURL* c = f.easy;
  curl_easy_reset(c);
  curl_easy_setopt(c, CURLOPT_URL, url.c_str());
  curl_easy_setopt(c, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(c, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(c, CURLOPT_FOLLOWLOCATION, 1L);
  curl_easy_setopt(c, CURLOPT_MAXREDIRS, redirects_max);
  curl_easy_setopt(c, CURLOPT_FAILONERROR, 1L);
  curl_easy_setopt(c, CURLOPT_NOSIGNAL, 1L);  // no SIGALRM for name look-ups: the watchdog owns it
  curl_easy_setopt(c, CURLOPT_CONNECTTIMEOUT_MS, fetch_connect_ms);
  curl_easy_setopt(c, CURLOPT_TIMEOUT_MS, fetch_total_ms);
  curl_easy_setopt(c, CURLOPT_ACCEPT_ENCODING, "");
  curl_easy_setopt(c, CURLOPT_USERAGENT, "pelvane");
  // HTTPS as the video's reader does it by default: encrypted, the server's
  // certificate not checked.
  curl_easy_setopt(c, CURLOPT_SSL_VERIFYPEER, 0L);
  curl_easy_setopt(c, CURLOPT_SSL_VERIFYHOST, 0L);
  curl_easy_setopt(c, CURLOPT_WRITEFUNCTION, take_body);
  curl_easy_setopt(c, CURLOPT_WRITEDATA, &sink);
  const CURLcode e = run_transfer(f, r.stopped);
  const char* final_url = nullptr;
  curl_easy_getinfo(c, CURLINFO_EFFECTIVE_URL, &final_url);
  r.final_url = final_url ? final_url : url;
  long status = 0;
  curl_easy_getinfo(c, CURLINFO_RESPONSE_CODE, &status);
  r.ok = e == CURLE_OK;
  if (sink.too_large) r.problem = "larger than " + std::to_string(fetch_bytes_max) + " bytes";
  else if (e == CURLE_HTTP_RETURNED_ERROR) r.problem = "HTTP status " + std::to_string(status);
  else if (!r.ok) r.problem = curl_easy_strerror(e);
  return r;
}

bool resolve_uri(const std::string& base, const std::string& ref, std::string& out) {
  CURLU* u = curl_url();
  if (!u) return false;
  char* s = nullptr;
  const bool ok = curl_url_set(u, CURLUPART_URL, base.c_str(), 0) == CURLUE_OK &&
                  curl_url_set(u, CURLUPART_URL, ref.c_str(), 0) == CURLUE_OK &&
                  curl_url_get(u, CURLUPART_URL, &s, 0) == CURLUE_OK;
  if (ok) out = s;
  curl_free(s);
  curl_url_cleanup(u);
  return ok;
}
