// Layout of a caption: cue text wrapped into rows of screen cells, and the
// cue's WebVTT placement settings on the 15-row, 32-column caption grid.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "tolm_utils/caption_text.h"

namespace tolm_cc {

// The caption grid both caption sets place text on.
constexpr int screen_rows = 15;
constexpr int screen_columns = 32;

// ---------------------------------------------------------------------------
// Screen cells and layout
// ---------------------------------------------------------------------------

enum class cell_kind : uint8_t {
  basic,     // 608 basic character b0 (7 bits)
  special,   // 608 special character: code b0 b1 (0x11, 0x30..0x3F)
  extended,  // 608 extended character: basic `fallback`, then code b0 b1 (0x12/0x13)
  g0g1,      // 708 G0/G1 character byte b0
  ext1,      // 708 G2 character: EXT1 (0x10) then b1
};

// One screen cell of a caption row.
struct caption_cell {
  cell_kind kind = cell_kind::basic;
  uint8_t b0 = 0x20;
  uint8_t b1 = 0;
  uint8_t fallback = 0;
  bool italic = false;
  bool space = false;  // a word-separating space (U+0020)
};

enum class cc_target : uint8_t { cea608, cea708 };

struct caption_row {
  std::vector<caption_cell> cells;  // never empty, no leading/trailing space
  int width = 0;                    // screen cells, mid-row codes included (608)
};

struct caption_layout {
  std::vector<caption_row> rows;
  bool truncated = false;  // rows beyond max_rows were dropped
  int dropped_chars = 0;   // characters no set could show
};

// Lays cue text out in rows of at most wrap_width cells (1..32): greedy
// wrapping at spaces, longer words split, a cue newline forces a break, empty
// lines vanish. For CEA-608 a style change costs a cell (the mid-row code
// shows as a space) unless it falls on a space, and two identical special
// characters get a space between them (a decoder would take the second for
// the redundant copy of the first). Stops reading at the first row past
// max_rows, so a huge cue costs no more than the rows it can show.
caption_layout layout_cue_text(std::string_view text, int wrap_width, cc_target target,
                               const caption_options& opt);

// ---------------------------------------------------------------------------
// Placement: WebVTT settings on the 15-row, 32-column caption grid
// ---------------------------------------------------------------------------

enum class h_align : uint8_t { left, center, right };
enum class line_kind : uint8_t { automatic, number, percent };

// The placement settings of a cue, parsed. Invalid values count as absent,
// as a WebVTT parser ignores them.
struct cue_box {
  line_kind line = line_kind::automatic;
  int64_t line_number = 0;  // clamped to +-1000
  double line_pct = 0;      // 0..100
  int line_align = 0;       // 0 start, 1 center, 2 end
  bool has_position = false;
  double position_pct = 0;  // 0..100
  h_align position_align = h_align::center;
  h_align align = h_align::center;
  double size_pct = 100;  // 0..100
};

cue_box parse_cue_box(const std::map<std::string, std::string>& settings);
// Wrap width in cells: min(32, floor(size% * 32 / 100)), at least 1.
int box_wrap_width(const cue_box& b);
// Top row (1..16-n) of a caption of n rows.
int box_top_row(const cue_box& b, int n);
// Whether the caption hangs from the bottom (line auto, negative, >= 50%).
bool box_from_bottom(const cue_box& b);
// How rows line up horizontally: the position alignment when a position is
// given, else the text alignment.
h_align box_h_align(const cue_box& b);
// First column (0..32-w) of a row w cells wide.
int box_column(const cue_box& b, int w);
// Horizontal anchor of a CEA-708 window in percent of the caption area
// (0..99): the position, or 0/50/99 by alignment.
int box_anchor_h(const cue_box& b);

}  // namespace tolm_cc
