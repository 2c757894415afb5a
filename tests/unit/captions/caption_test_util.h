// Helpers shared by the caption tests.
#pragma once

#include <cstdlib>
#include <string>
#include <vector>

#include "v2/captions/captions.h"

using bytes = std::vector<unsigned char>;

// "47 5F FE" -> {0x47, 0x5F, 0xFE}; a quoted run ("abc") adds its ASCII bytes.
inline bytes hex_bytes(const std::string& s) {
  bytes out;
  for (size_t i = 0; i < s.size(); ++i) {
    if (s[i] == '"') {
      const size_t close = s.find('"', i + 1);
      out.insert(out.end(), s.begin() + i + 1, s.begin() + close);
      i = close;
    } else if (isxdigit(static_cast<unsigned char>(s[i]))) {
      out.push_back(static_cast<unsigned char>(strtoul(s.substr(i++, 2).c_str(), nullptr, 16)));
    }
  }
  return out;
}

inline VPVTTEvent make_event(int64_t start, int64_t end, std::string text = "") {
  VPVTTEvent ev;
  ev.start = std::chrono::milliseconds(start), ev.end = std::chrono::milliseconds(end), ev.text = std::move(text);
  return ev;
}

// The packets vtt_event_ts_encode makes for `ev`.
inline bytes encode(const VPVTTEvent& ev) {
  size_t size = 0;
  const unsigned char* p = vtt_event_ts_encode(ev, size);
  return bytes(p, p + size);
}
