// What the relay promises the programs that start it: which source addresses
// it takes, and the response head it writes first with --mime-type. pelvane
// itself and pelvane-channels, which answers for it, share these, so the two
// never disagree. Header only: pelvane-channels links no FFmpeg.
#pragma once

#include <string_view>

enum source_scheme { scheme_rtsp, scheme_relayed, scheme_refused };

// By the start of the address, case-sensitively: rtsp:// goes through the
// RTSP probe first, the other accepted schemes straight to FFmpeg.
inline source_scheme classify_source_url(std::string_view url) {
  if (url.starts_with("rtsp://")) return scheme_rtsp;
  for (const char* prefix : {"rtmp://", "rtmps://", "http://", "https://", "tcp://"})
    if (url.starts_with(prefix)) return scheme_relayed;
  return scheme_refused;
}

// The head of a relay's answer, lines ended by a single line feed.
inline const char* relay_response_head(bool mp4) {
  return mp4 ? "HTTP/1.0 200 OK\nContent-Type: video/mp4\n\n" : "HTTP/1.0 200 OK\nContent-Type: video/mp2t\n\n";
}
