// Internal pieces of the CEA-608/708 caption converters (WebVTTTo608,
// WebVTTTo708): the cue text front end, placement, the frame grid, the
// CEA-608 and CEA-708 encoders and their schedulers. Shared by the
// converter sources and by the unit tests; not part of the library's
// interface.
//
// The pipeline for one cue:
//   cue text bytes --next_text_item--> code points with italics
//     --map_char_608/708--> screen cells --layout_builder--> wrapped rows
//     --build_608_load / build_708_load--> caption data
//     --schedule_608 / schedule_708--> frames on the grid --> keyed maps.
// Every step is a function of values; only convert_cue_608/708 touch the
// output map and the cross-cue context.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "tolm_utils/webvtt.h"

namespace tolm_cc {

// ---------------------------------------------------------------------------
// Frame grid
// ---------------------------------------------------------------------------

// Caption data sits only on a fixed frame grid anchored at time 0 of the cue
// clock. One frame lasts num/den key units: 1001/30 for milliseconds at
// 29.97 fps, so frame f has the key round(f * 1001 / 30).
struct frame_grid {
  int64_t num = 1001;
  int64_t den = 30;
};

// Cue times are clamped into [-time_limit, time_limit] key units before they
// are put on the grid, so that every key stays far inside 64 bits
// (2^61 ms is about 73 million years).
constexpr int64_t time_limit = int64_t(1) << 61;

// The grid for cue times in `unit` (ticks per second as num/den; 1000/1 for
// milliseconds) and frames at `rate` frames per second. Fails (returns 0)
// for non-positive or oversized terms and for frames shorter than one tick,
// which could not give every frame its own key.
int make_frame_grid(molvar_rational<long> unit, molvar_rational<long> rate, frame_grid& g);

// A time kept in the context, as a signed key within the clamp range. Takes
// the field by value: the context is a packed record and its 64-bit fields
// may sit at any address, so no reference may be bound to them.
inline int64_t context_time(uint64_t t) { return t > uint64_t(time_limit) ? time_limit : int64_t(t); }

// Key of frame f, round half up; f >= 0.
int64_t grid_key(const frame_grid& g, int64_t f);
// Nearest frame of time t (any sign), round half up.
int64_t grid_frame(const frame_grid& g, int64_t t);
// First frame whose key is at or after t.
int64_t grid_frame_at_or_after(const frame_grid& g, int64_t t);

// ---------------------------------------------------------------------------
// Cue text front end
// ---------------------------------------------------------------------------

struct caption_options {
  int max_rows = 4;                      // rows per caption, 1..15; more are dropped
  bool voice_prefix = false;             // <v Name> shows as "Name: "
  bool true_2a_codes = false;            // send — and } as their 608 codes (see map_char_608)
  bool unmappable_as_question = false;   // show '?' for a character no set holds
  int dtvcc_words_per_frame = 10;        // DTVCC triplets per frame at 29.97 fps, 1..15
};

// Decodes one UTF-8 sequence at pos and advances pos past it. Malformed,
// overlong, surrogate and truncated sequences give U+FFFD and advance by at
// least one byte, so a loop over any bytes ends.
char32_t decode_utf8(std::string_view s, size_t& pos);

// One displayable code point of cue text and its italics; cp == '\n' is a
// forced line break.
struct text_item {
  char32_t cp;
  bool italic;
};

// Reads cue text one item at a time: tags are removed (<i> counted for
// italics, <rt> text dropped, the rest keep their text), entities decoded,
// tab becomes a space, CR/LF break lines, other control characters and
// bidirectional marks vanish.
struct cue_text_reader {
  std::string_view text;
  size_t pos = 0;
  int italic_depth = 0;
  int ruby_text_depth = 0;
  bool voice_prefix = false;
  char32_t queued[40] = {};  // a voice name prefix waiting to be read
  int queued_len = 0;
  int queued_pos = 0;
};

cue_text_reader make_cue_text_reader(std::string_view text, bool voice_prefix);
// The next item, or 0 at the end of the text.
int next_text_item(cue_text_reader& r, text_item& item);

// Base letter of a Latin letter with diacritics (U+00C0..U+017F), from its
// canonical decomposition; 0 when it has none.
char32_t base_letter(char32_t cp);
// Plain replacement for typographic characters that neither caption set
// holds (dashes, ellipsis, low quotes, angle quotes); empty when none.
std::u32string_view typographic_substitute(char32_t cp);

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

// Cells that show cp in the target's character sets, at most 3 (an
// ellipsis spelled out). Returns the count; 0 means unmappable (dropped) and
// is counted by the caller. italic is left false.
int map_char_608(char32_t cp, const caption_options& opt, caption_cell out[3]);
int map_char_708(char32_t cp, const caption_options& opt, caption_cell out[3]);

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
  int64_t line_number = 0;   // clamped to +-1000
  double line_pct = 0;       // 0..100
  int line_align = 0;        // 0 start, 1 center, 2 end
  bool has_position = false;
  double position_pct = 0;   // 0..100
  h_align position_align = h_align::center;
  h_align align = h_align::center;
  double size_pct = 100;     // 0..100
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

// ---------------------------------------------------------------------------
// CEA-608, CC1 pop-on
// ---------------------------------------------------------------------------

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
eia608_pair pac_608_italic(int row);  // white italics, column 0
eia608_pair tab_offset_608(int n);    // TO1..TO3
eia608_pair mid_row_608(bool italic); // white or white italics

// One step of a caption load: a pair sent once, or a two-byte code sent
// twice in adjacent frames.
struct load_unit {
  eia608_pair pair;
  uint8_t copies;
};

// RCL, ENM, then per row its PAC (and tab offset, mid-row italics) and
// characters. top_row and the column of each row come from the cue box.
std::vector<load_unit> build_608_load(const caption_layout& lay, const cue_box& box);

enum class schedule_note : uint8_t { on_time, delayed, late, dropped };

// Frame numbers for one 608 caption. pending: an EDM is scheduled in frames
// c and c+1 (reserved); nf: first frame this converter may use.
struct schedule_608_result {
  schedule_note note = schedule_note::dropped;
  int64_t show = 0;                 // EOC in show, show+1
  int64_t clear = 0;                // EDM in clear, clear+1
  std::vector<int64_t> unit_frames; // first frame of each load unit
};
schedule_608_result schedule_608(const std::vector<load_unit>& load, int64_t s, int64_t e,
                                 bool pending, int64_t c, int64_t nf);

// Converts one cue into out (keys on the grid) and updates the context.
// Returns 1 when the cue produced data, 0 when it was skipped or dropped.
int convert_cue_608(cc608_map& out, const WebVTTFileEvent_v1& cue, const frame_grid& g,
                    const caption_options& opt, WebVTTConvContext_v1& ctx);

// ---------------------------------------------------------------------------
// CEA-708, service 1, pop-on with two windows
// ---------------------------------------------------------------------------

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
schedule_708_result schedule_708(const std::vector<int>& load_triplets, int64_t s, int64_t e,
                                 bool pending, int64_t c, int64_t nf, int cap);

// DTVCC triplets per frame for a frame rate: the configured cap scaled to
// the frame rate (about 300 triplets a second), 1..15.
int dtvcc_cap_for_rate(molvar_rational<long> rate, int configured);

int convert_cue_708(cc708_map& out, const WebVTTFileEvent_v1& cue, const frame_grid& g,
                    int service, int cap, const caption_options& opt, WebVTTConvContext_v1& ctx);

// ---------------------------------------------------------------------------
// Shared by both converters
// ---------------------------------------------------------------------------

// Start and end frames of a cue, or 0 (skip the cue) for FFmpeg's no-time
// start and for an end not after the start. Times are clamped to
// +-time_limit first.
int cue_frames(const WebVTTFileEvent_v1& cue, const frame_grid& g, int64_t& s, int64_t& e);

// Whether a cue starting in frame s means the cue clock jumped back (a
// restarted source): it starts more than a minute before the point the
// context has committed to. The converters then start from a fresh context,
// so captions resume instead of every later cue being dropped as late.
int clock_jumped(const frame_grid& g, int64_t s, const WebVTTConvContext_v1& ctx);

}  // namespace tolm_cc
