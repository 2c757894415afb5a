// CEA-608 pop-on captions on CC1 (field 1): characters, codes, the load of
// one caption and its place on the frame grid.
#pragma once

#include <cstdint>
#include <vector>

#include "tolm_utils/caption_layout.h"
#include "tolm_utils/frame_grid.h"
#include "tolm_utils/webvtt.h"

namespace tolm_cc {

// Cells that show cp in the CEA-608 character sets, at most 3 (an
// ellipsis spelled out). Returns the count; 0 means unmappable (dropped) and
// is counted by the caller. italic is left false.
int map_char_608(char32_t cp, const caption_options& opt, caption_cell out[3]);

// 7-bit value with odd parity in bit 7.
uint8_t odd_parity(uint8_t b);
eia608_pair pair_608(uint8_t a, uint8_t b);  // both bytes with parity

// Miscellaneous control codes of CC1 (first byte 0x14) that pop-on uses:
// resume caption loading, erase displayed / non-displayed memory, end of
// caption (swap the memories).
enum : uint8_t { ctl_rcl = 0x20, ctl_edm = 0x2C, ctl_enm = 0x2E, ctl_eoc = 0x2F };
eia608_pair control_608(uint8_t code);
// Preamble address code: row 1..15, column indent rounded down to 4.
eia608_pair pac_608(int row, int indent);
eia608_pair pac_608_italic(int row);   // white italics, column 0
eia608_pair tab_offset_608(int n);     // TO1..TO3
eia608_pair mid_row_608(bool italic);  // white or white italics

// One step of a caption load: a pair sent once, or a two-byte code sent
// twice in adjacent frames.
struct load_unit {
  eia608_pair pair;
  uint8_t copies;
};

// RCL, ENM, then per row its PAC (and tab offset, mid-row italics) and
// characters. top_row and the column of each row come from the cue box.
std::vector<load_unit> build_608_load(const caption_layout& lay, const cue_box& box);

// Frame numbers for one 608 caption. pending: an EDM is scheduled in frames
// c and c+1 (reserved); nf: first frame this converter may use.
struct schedule_608_result {
  schedule_note note = schedule_note::dropped;
  int64_t show = 0;                  // EOC in show, show+1
  int64_t clear = 0;                 // EDM in clear, clear+1
  std::vector<int64_t> unit_frames;  // first frame of each load unit
};
schedule_608_result schedule_608(const std::vector<load_unit>& load, int64_t s, int64_t e, bool pending, int64_t c,
                                 int64_t nf);

// Converts one cue into out (keys on the grid) and updates the context.
// True when the cue produced data, false when it was skipped or dropped.
bool convert_cue_608(cc608_map& out, const WebVTTFileEvent_v1& cue, const frame_grid& g,
                     const caption_options& opt, WebVTTConvContext_v1& ctx);

}  // namespace tolm_cc
