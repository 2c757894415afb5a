// Helpers shared by the caption converter tests.
#pragma once

#include <chrono>
#include <cstdio>
#include <cstdint>
#include <string>
#include <vector>

#include "tolm_utils/webvtt.h"

namespace cea_test {

inline WebVTTFileEvent_v1 cue(int64_t start, int64_t end, std::string text,
                              std::map<std::string, std::string> settings = {}) {
  WebVTTFileEvent_v1 c;
  c.start = std::chrono::milliseconds(start);
  c.end = std::chrono::milliseconds(end);
  c.text = std::move(text);
  c.settings = std::move(settings);
  return c;
}

// Converts one cue the way the relay does: a one-cue map, 1000/1, channel or
// service 1, and 29.97 fps for CEA-708.
inline cc608_map to608(const WebVTTFileEvent_v1& c, WebVTTConvContext_v1& ctx) {
  vtt_cue_map m;
  m.emplace(c.start, c);
  cc608_map out;
  WebVTTTo608(out, molvar_rational<long>{1000, 1}, false, WebVTTFile_v1{}, m.begin(), m.end(), 1, ctx);
  return out;
}

inline cc708_map to708(const WebVTTFileEvent_v1& c, WebVTTConvContext_v1& ctx) {
  vtt_cue_map m;
  m.emplace(c.start, c);
  cc708_map out;
  WebVTTTo708(out, molvar_rational<long>{1000, 1}, false, WebVTTFile_v1{}, m.begin(), m.end(), 1, ctx,
              molvar_rational<long>{30000, 1001});
  return out;
}

// Values as upper-case hex, two digits a byte, separated by spaces: "C8E9 942F", "98 18".
template <typename T>
std::string hex(const std::vector<T>& v) {
  std::string s;
  char buf[8];
  for (T x : v) {
    const int digits = static_cast<int>(2 * sizeof(T));
    snprintf(buf, sizeof buf, "%s%0*X", s.empty() ? "" : " ", digits, static_cast<unsigned>(x));
    s += buf;
  }
  return s;
}

inline uint16_t pair_value(const eia608_pair& p) { return static_cast<uint16_t>((p.b[0] << 8) | p.b[1]); }

// Frame of a key on the 29.97 grid (keys are exact grid points).
inline int64_t frame_of(uint64_t key) { return (static_cast<int64_t>(key) * 60 + 1001) / 2002; }
inline uint64_t key_of(int64_t frame) { return static_cast<uint64_t>((frame * 2002 + 30) / 60); }

// One DTVCC packet read back from a 708 map in time order.
struct dtvcc_packet_read {
  uint64_t key;                // key of its first word
  int seq;
  int size_code;
  std::vector<uint8_t> bytes;  // after the header, pad included
};

// Reassembles packets from words in key order. Sets `broken` when a packet
// start arrives before the previous packet is complete (interleaving) or a
// data word arrives outside a packet.
inline std::vector<dtvcc_packet_read> read_packets(const cc708_map& m, bool& broken) {
  std::vector<dtvcc_packet_read> out;
  int left = 0;  // bytes still owed to the current packet
  broken = false;
  for (const auto& [key, words] : m) {
    for (const q7ro_cea708_word& w : words) {
      const uint8_t b1 = static_cast<uint8_t>(w.value >> 8), b2 = static_cast<uint8_t>(w.value);
      if (w.type == 0xFF) {
        if (left > 0) broken = true;
        const int code = b1 & 0x3F;
        out.push_back({key, b1 >> 6, code, {b2}});
        left = (code == 0 ? 128 : code * 2) - 2;
      } else if (w.type == 0xFE && left > 0) {
        out.back().bytes.push_back(b1);
        out.back().bytes.push_back(b2);
        left -= 2;
      } else {
        broken = true;
      }
    }
  }
  if (left > 0) broken = true;
  return out;
}

// Length of the DTVCC command or character at p[0] (service block syntax).
inline int dtvcc_code_length(uint8_t b) {
  if (b == 0x10) return 2;                       // EXT1 + G2/G3 character
  if (b < 0x10) return 1;                        // C0 one-byte codes
  if (b < 0x18) return 2;                        // C0 0x11..0x17
  if (b < 0x20) return 3;                        // C0 0x18..0x1F (P16)
  if (b < 0x80 || b >= 0xA0) return 1;           // G0, G1
  if (b <= 0x87 || b == 0x8E || b == 0x8F) return 1;
  if (b <= 0x8D) return 2;                       // CLW DSW HDW TGW DLW DLY
  if (b == 0x90 || b == 0x92) return 3;          // SPA SPL
  if (b == 0x91) return 4;                       // SPC
  if (b == 0x97) return 5;                       // SWA
  if (b >= 0x98) return 7;                       // DF0..DF7
  return 1;
}

}  // namespace cea_test
