// Fetching playlists and segments over HTTP or HTTPS with libcurl, bounded
// in bytes and time, and given up as soon as the caller says stop.
#pragma once

#include <string>

typedef void CURL;
typedef void CURLM;

constexpr size_t fetch_bytes_max = 1 << 20;  // a playlist or a segment larger than this is refused
constexpr long fetch_connect_ms = 5000;      // to connect
constexpr long fetch_total_ms = 10000;       // for the whole request, redirects included

struct fetch_result {
  bool ok = false;
  bool stopped = false;   // given up because the caller asked
  std::string body;       // what was received, at most fetch_bytes_max bytes
  std::string final_url;  // after redirects: what relative references resolve against
  std::string problem;    // when not ok: "HTTP status 404", "larger than 1048576 bytes", libcurl's reason
};

// One fetcher per thread; `stop` is asked about ten times a second while a
// request is under way.
struct fetcher {
  CURLM* multi = nullptr;
  CURL* easy = nullptr;
  bool (*stop)() = nullptr;
};

// false when libcurl could not make its handles.
bool fetcher_start(fetcher& f, bool (*stop)());
void fetcher_end(fetcher& f);

fetch_result fetch_url(fetcher& f, const std::string& url);

// `ref` (absolute, or relative to `base`) as an absolute URL; false when it
// cannot be made one.
bool resolve_uri(const std::string& base, const std::string& ref, std::string& out);
