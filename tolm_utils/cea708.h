// CEA-708 pop-on captions in one DTVCC service: characters, window
// commands, service blocks and packets, and their place on the frame grid.
#pragma once

#include <cstdint>
#include <vector>

#include "tolm_utils/caption_layout.h"
#include "tolm_utils/frame_grid.h"
#include "tolm_utils/webvtt.h"

namespace tolm_cc {

// Cells that show cp in the CEA-708 character sets, at most 3 (an
// ellipsis spelled out). Returns the count; 0 means unmappable (dropped) and
// is counted by the caller. italic is left false.
int map_char_708(char32_t cp, const caption_options& opt, caption_cell out[3]);

constexpr uint8_t cc_dtvcc_start = 0xFF;  // cc_valid 1, cc_type 3
constexpr uint8_t cc_dtvcc_data = 0xFE;   // cc_valid 1, cc_type 2

// One command, character or EXT1 pair: never split across service blocks or
// packets.
struct dtvcc_atom {
  uint8_t len = 0;
  uint8_t b[7] = {};
};

// Bytes of one DTVCC packet after its header: service blocks, at most 127.
struct dtvcc_payload {
  uint8_t data[127] = {};
  int len = 0;
};

// Load commands of a caption in window w: [DLW all] DFw SWA SPA SPC, per row
// SPL and its text (SPA toggles italics), ETX.
std::vector<dtvcc_atom> build_708_load(const caption_layout& lay, const cue_box& box, int w,
                                       bool delete_all_first);
// Packs atoms into service blocks of at most 31 bytes and packets of at most
// 127 payload bytes. service is 1..6.
std::vector<dtvcc_payload> pack_service_blocks(const std::vector<dtvcc_atom>& atoms, int service);
// Triplets of one packet: header (seq, size code), payload, a zero byte when
// the length is odd. Appends to out.
void packet_words(const dtvcc_payload& p, int seq, std::vector<q7ro_cea708_word>& out);
// Triplet count of a packet with this payload (its size code, 1..64).
int packet_triplets(const dtvcc_payload& p);

struct frame_span {
  int64_t frame;
  int count;  // triplets of the packet in this frame
};

// Frames for one 708 caption: load packets (each a list of spans, ascending),
// show and end frames. pending: the previous caption's end packet sits in
// frame c, which nothing else may use and no packet may straddle.
struct schedule_708_result {
  schedule_note note = schedule_note::dropped;
  std::vector<std::vector<frame_span>> load;
  int64_t show = 0;
  int64_t end = 0;
};
schedule_708_result schedule_708(const std::vector<int>& load_triplets, int64_t s, int64_t e, bool pending,
                                 int64_t c, int64_t nf, int cap);

// DTVCC triplets per frame for a frame rate: the configured cap scaled to
// the frame rate (about 300 triplets a second), 1..15.
int dtvcc_cap_for_rate(molvar_rational<long> rate, int configured);

// Converts one cue into out (keys on the grid) and updates the context, as
// convert_cue_608 does.
bool convert_cue_708(cc708_map& out, const WebVTTFileEvent_v1& cue, const frame_grid& g, int service, int cap,
                     const caption_options& opt, WebVTTConvContext_v1& ctx);

}  // namespace tolm_cc
