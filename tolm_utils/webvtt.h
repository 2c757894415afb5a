// Cue records and the CEA-608/708 caption converters.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

// One WebVTT cue. Times are milliseconds on the source's caption clock.
struct WebVTTFileEvent_v1 {
  std::chrono::milliseconds start{0};
  std::chrono::milliseconds end{0};
  std::string identifier;
  std::map<std::string, std::string> settings;  // name -> value, byte-wise order
  std::string text;
};
using WebVTTFileEvent = WebVTTFileEvent_v1;

using vtt_cue_map = std::map<std::chrono::milliseconds, WebVTTFileEvent_v1>;

// A WebVTT file as the converters see it. The relay only ever passes an
// empty one.
struct WebVTTFile_v1 {
  vtt_cue_map cues;
  std::map<std::string, std::chrono::milliseconds> regions;
  std::string header;
};

// One CEA-608 byte pair, in transmission order, parity bits set.
struct eia608_pair {
  uint8_t b[2];
};
static_assert(sizeof(eia608_pair) == 2);

// One cc_data triplet of CEA-708 DTVCC data: the header byte (0xFF packet
// start, 0xFE packet data) and the two cc_data bytes as one number,
// (cc_data_1 << 8) | cc_data_2.
#pragma pack(push, 1)
struct q7ro_cea708_word {
  uint8_t type;
  uint16_t value;
};
#pragma pack(pop)
static_assert(sizeof(q7ro_cea708_word) == 3);

template <class T>
struct molvar_rational {
  T num;
  T den;
};

// State a converter carries from one cue to the next (26 bytes, packed).
// Start value: counter 0, pending_target -1, tag 0xFFFF, the rest zero.
// Packed, so a field may sit at any address: copy it out (uint64_t{ctx.f})
// before anything takes it by reference, as std::min and std::max do.
#pragma pack(push, 1)
struct WebVTTConvContext_v1 {
  uint32_t counter;
  int32_t pending_target;
  uint16_t tag;
  uint64_t next_free_ms;
  uint64_t clear_at_ms;
};
#pragma pack(pop)
static_assert(sizeof(WebVTTConvContext_v1) == 26);

inline WebVTTConvContext_v1 webvtt_conv_context_start() { return WebVTTConvContext_v1{0, -1, 0xFFFF, 0, 0}; }

using cc608_map = std::map<uint64_t, eia608_pair>;
using cc708_map = std::map<uint64_t, std::vector<q7ro_cea708_word>>;

// Pop-on CEA-608 on CC1 for the cues [first, end). `unit` is the unit of the
// cue times and of the output keys (1000/1: milliseconds); `roll_up` false
// selects pop-on; `channel` 1 is CC1 (other channels yield nothing).
void WebVTTTo608(cc608_map& out, molvar_rational<long> unit, bool roll_up, const WebVTTFile_v1& file,
                 vtt_cue_map::const_iterator first, vtt_cue_map::const_iterator end, unsigned channel,
                 WebVTTConvContext_v1& ctx);

// CEA-708 DTVCC service `service` data for the cues [first, end), paced on the
// frame grid of `frame_rate` (30000/1001 for 29.97 fps).
void WebVTTTo708(cc708_map& out, molvar_rational<long> unit, bool roll_up, const WebVTTFile_v1& file,
                 vtt_cue_map::const_iterator first, vtt_cue_map::const_iterator end, unsigned service,
                 WebVTTConvContext_v1& ctx, molvar_rational<long> frame_rate);
