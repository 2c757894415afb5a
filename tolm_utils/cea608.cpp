// CEA-608 pop-on captions on CC1 (field 1): characters, codes, the load of
// one caption and its place on the frame grid.
#include <algorithm>

#include "tolm_utils/cea608.h"

namespace tolm_cc {

uint8_t odd_parity(uint8_t b) {
  b &= 0x7F;
  return (__builtin_popcount(b) & 1) ? b : static_cast<uint8_t>(b | 0x80);
}

eia608_pair pair_608(uint8_t a, uint8_t b) { return eia608_pair{{odd_parity(a), odd_parity(b)}}; }

eia608_pair control_608(uint8_t code) { return pair_608(0x14, code); }

namespace {

// Preamble address codes by row: first byte, and the base of the second
// byte (0x40 or 0x60).
constexpr uint8_t pac_first[16] = {0,    0x11, 0x11, 0x12, 0x12, 0x15, 0x15, 0x16,
                                   0x16, 0x17, 0x17, 0x10, 0x13, 0x13, 0x14, 0x14};
constexpr uint8_t pac_base[16] = {0,    0x40, 0x60, 0x40, 0x60, 0x40, 0x60, 0x40,
                                  0x60, 0x40, 0x60, 0x40, 0x40, 0x60, 0x40, 0x60};

int clamp_row(int row) { return std::clamp(row, 1, screen_rows); }

}  // namespace

eia608_pair pac_608(int row, int indent) {
  row = clamp_row(row);
  const int step = std::clamp(indent, 0, 31) / 4;
  return pair_608(pac_first[row], static_cast<uint8_t>(pac_base[row] + 0x10 + 2 * step));
}

eia608_pair pac_608_italic(int row) {
  row = clamp_row(row);
  return pair_608(pac_first[row], static_cast<uint8_t>(pac_base[row] + 0x0E));
}

eia608_pair tab_offset_608(int n) { return pair_608(0x17, static_cast<uint8_t>(0x20 + std::clamp(n, 1, 3))); }

eia608_pair mid_row_608(bool italic) { return pair_608(0x11, italic ? 0x2E : 0x20); }

// ---------------------------------------------------------------------------
// Characters
// ---------------------------------------------------------------------------

namespace {

// Basic-set positions whose glyph differs from ASCII.
struct basic_override {
  char32_t cp;
  uint8_t byte;
};
constexpr basic_override basic_overrides[] = {
    {U'\u2019', 0x27}, {U'á', 0x2A}, {U'é', 0x5C}, {U'í', 0x5E}, {U'ó', 0x5F},      {U'ú', 0x60},
    {U'ç', 0x7B},      {U'÷', 0x7C}, {U'Ñ', 0x7D}, {U'ñ', 0x7E}, {U'\u2588', 0x7F},
};

// Special set, second byte 0x30 + index after 0x11.
constexpr char32_t special_set[16] = {
    U'®', U'°', U'½', U'¿', U'\u2122', U'¢', U'£', U'\u266A', U'à', U'\u00A0', U'è', U'â', U'ê', U'î', U'ô', U'û',
};

// Extended sets: the code and the basic character an old decoder shows
// instead (the extended code backspaces over it).
struct extended_char {
  char32_t cp;
  uint8_t hi, lo;
  char fallback;
};
constexpr extended_char extended_set[] = {
    // 0x12: Spanish, miscellaneous, French (0x29 is never sent: decoders disagree on it)
    {U'Á', 0x12, 0x20, 'A'},
    {U'É', 0x12, 0x21, 'E'},
    {U'Ó', 0x12, 0x22, 'O'},
    {U'Ú', 0x12, 0x23, 'U'},
    {U'Ü', 0x12, 0x24, 'U'},
    {U'ü', 0x12, 0x25, 'u'},
    {U'\u2018', 0x12, 0x26, '\''},
    {U'¡', 0x12, 0x27, '!'},
    {U'*', 0x12, 0x28, ' '},
    {U'\u2014', 0x12, 0x2A, '-'},
    {U'©', 0x12, 0x2B, 'c'},
    {U'\u2120', 0x12, 0x2C, ' '},
    {U'\u2022', 0x12, 0x2D, '.'},
    {U'\u201C', 0x12, 0x2E, '"'},
    {U'\u201D', 0x12, 0x2F, '"'},
    {U'À', 0x12, 0x30, 'A'},
    {U'Â', 0x12, 0x31, 'A'},
    {U'Ç', 0x12, 0x32, 'C'},
    {U'È', 0x12, 0x33, 'E'},
    {U'Ê', 0x12, 0x34, 'E'},
    {U'Ë', 0x12, 0x35, 'E'},
    {U'ë', 0x12, 0x36, 'e'},
    {U'Î', 0x12, 0x37, 'I'},
    {U'Ï', 0x12, 0x38, 'I'},
    {U'ï', 0x12, 0x39, 'i'},
    {U'Ô', 0x12, 0x3A, 'O'},
    {U'Ù', 0x12, 0x3B, 'U'},
    {U'ù', 0x12, 0x3C, 'u'},
    {U'Û', 0x12, 0x3D, 'U'},
    {U'«', 0x12, 0x3E, '"'},
    {U'»', 0x12, 0x3F, '"'},
    // 0x13: Portuguese, German, Danish
    {U'Ã', 0x13, 0x20, 'A'},
    {U'ã', 0x13, 0x21, 'a'},
    {U'Í', 0x13, 0x22, 'I'},
    {U'Ì', 0x13, 0x23, 'I'},
    {U'ì', 0x13, 0x24, 'i'},
    {U'Ò', 0x13, 0x25, 'O'},
    {U'ò', 0x13, 0x26, 'o'},
    {U'Õ', 0x13, 0x27, 'O'},
    {U'õ', 0x13, 0x28, 'o'},
    {U'{', 0x13, 0x29, '('},
    {U'}', 0x13, 0x2A, ')'},
    {U'\\', 0x13, 0x2B, '/'},
    {U'^', 0x13, 0x2C, ' '},
    {U'_', 0x13, 0x2D, ' '},
    {U'|', 0x13, 0x2E, '!'},
    {U'~', 0x13, 0x2F, ' '},
    {U'Ä', 0x13, 0x30, 'A'},
    {U'ä', 0x13, 0x31, 'a'},
    {U'Ö', 0x13, 0x32, 'O'},
    {U'ö', 0x13, 0x33, 'o'},
    {U'ß', 0x13, 0x34, 's'},
    {U'¥', 0x13, 0x35, 'Y'},
    {U'¤', 0x13, 0x36, ' '},
    {U'¦', 0x13, 0x37, '!'},
    {U'Å', 0x13, 0x38, 'A'},
    {U'å', 0x13, 0x39, 'a'},
    {U'Ø', 0x13, 0x3A, 'O'},
    {U'ø', 0x13, 0x3B, 'o'},
    {U'\u250C', 0x13, 0x3C, '+'},
    {U'\u2510', 0x13, 0x3D, '+'},
    {U'\u2514', 0x13, 0x3E, '+'},
    {U'\u2518', 0x13, 0x3F, '+'},
};

bool is_basic_ascii(char32_t cp) {
  if (cp < 0x20 || cp > 0x7E) return false;
  switch (cp) {
    case '*':
    case '\\':
    case '^':
    case '_':
    case '`':
    case '{':
    case '|':
    case '}':
    case '~': return false;  // their positions show other glyphs
    default: return true;
  }
}

caption_cell basic_cell(uint8_t b) {
  caption_cell c;
  c.kind = cell_kind::basic;
  c.b0 = b;
  return c;
}

// One cell from the basic, special or extended sets, without fallbacks.
bool map_direct_608(char32_t cp, caption_cell& out) {
  if (is_basic_ascii(cp)) {
    out = basic_cell(static_cast<uint8_t>(cp));
    return true;
  }
  for (const auto& o : basic_overrides) {
    if (o.cp == cp) {
      out = basic_cell(o.byte);
      return true;
    }
  }
  for (int i = 0; i < 16; ++i) {
    if (special_set[i] == cp) {
      out = caption_cell{};
      out.kind = cell_kind::special;
      out.b0 = 0x11;
      out.b1 = static_cast<uint8_t>(0x30 + i);
      return true;
    }
  }
  for (const auto& x : extended_set) {
    if (x.cp == cp) {
      out = caption_cell{};
      out.kind = cell_kind::extended;
      out.b0 = x.hi;
      out.b1 = x.lo;
      out.fallback = static_cast<uint8_t>(x.fallback);
      return true;
    }
  }
  return false;
}

}  // namespace

// Codes with second byte 0x2A (— and }) make one widely used web decoder
// stop passing CC1 until the next control code, so by default — goes as
// "--" and } as ")".
int map_char_608(char32_t cp, const caption_options& opt, caption_cell out[3]) {
  if (!opt.true_2a_codes) {
    if (cp == U'\u2014') {
      out[0] = out[1] = basic_cell('-');
      return 2;
    }
    if (cp == U'}') {
      out[0] = basic_cell(')');
      return 1;
    }
  }
  if (map_direct_608(cp, out[0])) return 1;
  const std::u32string_view sub = typographic_substitute(cp);
  if (!sub.empty()) {
    int n = 0;
    for (char32_t c : sub)
      if (n < 3 && map_direct_608(c, out[n])) ++n;
    return n;
  }
  if (const char32_t base = base_letter(cp); base != 0 && map_direct_608(base, out[0])) return 1;
  if (opt.unmappable_as_question) {
    out[0] = basic_cell('?');
    return 1;
  }
  return 0;
}

// ---------------------------------------------------------------------------
// The load of one caption
// ---------------------------------------------------------------------------

namespace {

// Packs characters two to a pair; a code starts a new pair and goes twice.
struct load_writer {
  std::vector<load_unit> units;
  int pending_char = -1;

  void flush() {
    if (pending_char < 0) return;
    units.push_back({pair_608(static_cast<uint8_t>(pending_char), 0), 1});
    pending_char = -1;
  }
  void put_char(uint8_t b) {
    if (pending_char < 0) {
      pending_char = b;
      return;
    }
    units.push_back({pair_608(static_cast<uint8_t>(pending_char), b), 1});
    pending_char = -1;
  }
  void put_code(eia608_pair p) {
    flush();
    units.push_back({p, 2});
  }
};

}  // namespace

std::vector<load_unit> build_608_load(const caption_layout& lay, const cue_box& box) {
  load_writer w;
  w.units.reserve(8 + lay.rows.size() * 24);
  w.put_code(control_608(ctl_rcl));
  w.put_code(control_608(ctl_enm));
  const int n = static_cast<int>(lay.rows.size());
  const int top = box_top_row(box, n);
  for (int r = 0; r < n; ++r) {
    const caption_row& row = lay.rows[r];
    if (row.cells.empty()) continue;
    const int screen_row = top + r;
    // A row that starts in italics needs a mid-row code before its text,
    // which takes a cell, unless it starts at column 0 with the italic PAC.
    const bool lead_italic = row.cells.front().italic;
    const int col = box_column(box, std::min(screen_columns, row.width + (lead_italic ? 1 : 0)));
    if (lead_italic && col == 0) {
      w.put_code(pac_608_italic(screen_row));
    } else {
      w.put_code(pac_608(screen_row, col));
      if (col & 3) w.put_code(tab_offset_608(col & 3));
      if (lead_italic) w.put_code(mid_row_608(true));
    }
    bool italic = lead_italic;
    for (const caption_cell& c : row.cells) {
      if (c.italic != italic) {
        italic = c.italic;
        w.put_code(mid_row_608(italic));
        if (c.space) continue;  // the mid-row code shows as this space
      }
      switch (c.kind) {
        case cell_kind::basic: w.put_char(c.b0); break;
        case cell_kind::special: w.put_code(pair_608(c.b0, c.b1)); break;
        case cell_kind::extended:
          w.put_char(c.fallback);
          w.put_code(pair_608(c.b0, c.b1));
          break;
        default: break;
      }
    }
  }
  w.flush();
  return std::move(w.units);
}

// ---------------------------------------------------------------------------
// Scheduling
// ---------------------------------------------------------------------------

// One pair per frame. EOC goes in frames show and show+1, EDM in clear and
// clear+1. The load fills the frames before show backwards, a doubled code
// in two adjacent frames, skipping the pending EDM frames c and c+1 (the EDM
// does not touch the back buffer, so straddling it is fine) and never before
// nf. A caption due before the pending EDM has gone out waits for it (shown
// at c+2); one whose load cannot start at nf or later loads forwards from nf
// and shows right after. A caption left without display time is dropped.
schedule_608_result schedule_608(const std::vector<load_unit>& load, int64_t s, int64_t e, bool pending, int64_t c,
                                 int64_t nf) {
  schedule_608_result r;
  const auto reserved_in = [&](int64_t from, int64_t to) {  // any of [from, to] reserved
    return pending && from <= c + 1 && to >= c;
  };
  int64_t show = s;
  schedule_note note = schedule_note::on_time;
  if (pending && show < c + 2) {
    show = c + 2;
    note = schedule_note::delayed;
  }
  r.unit_frames.assign(load.size(), 0);
  int64_t f = show;
  for (size_t i = load.size(); i-- > 0;) {
    const int k = load[i].copies;
    int64_t start = f - k;
    if (reserved_in(start, start + k - 1)) start = c - k;  // end just before the EDM
    r.unit_frames[i] = start;
    f = start;
  }
  if (!load.empty() && r.unit_frames[0] < nf) {
    f = nf;
    for (size_t i = 0; i < load.size(); ++i) {
      const int k = load[i].copies;
      while (reserved_in(f, f + k - 1)) ++f;
      r.unit_frames[i] = f;
      f += k;
    }
    while (reserved_in(f, f + 1)) ++f;
    if (f > show) {
      show = f;
      note = schedule_note::late;
    }
  }
  if (e <= show) {
    r.note = schedule_note::dropped;
    r.unit_frames.clear();
    return r;
  }
  r.note = note;
  r.show = show;
  r.clear = std::max(e, show + 2);
  return r;
}

bool convert_cue_608(cc608_map& out, const WebVTTFileEvent_v1& cue, const frame_grid& g,
                     const caption_options& opt, WebVTTConvContext_v1& ctx) {
  int64_t s, e;
  if (!cue_frames(cue, g, s, e)) return false;
  const cue_box box = parse_cue_box(cue.settings);
  const caption_layout lay = layout_cue_text(cue.text, box_wrap_width(box), cc_target::cea608, opt);
  if (lay.rows.empty()) return false;
  const std::vector<load_unit> load = build_608_load(lay, box);
  // Worked on a copy: a dropped cue leaves the caller's context as it was.
  WebVTTConvContext_v1 cur = ctx;
  if (clock_jumped(g, s, cur)) cur = webvtt_conv_context_start();

  const bool pending = cur.pending_target >= 0;
  const int64_t c = pending ? grid_frame(g, context_time(cur.clear_at_ms)) : 0;
  const int64_t nf = grid_frame_at_or_after(g, context_time(cur.next_free_ms));
  const schedule_608_result r = schedule_608(load, s, e, pending, c, nf);
  if (r.note == schedule_note::dropped) return false;

  const auto put = [&](int64_t frame, eia608_pair p) { out[static_cast<uint64_t>(grid_key(g, frame))] = p; };
  for (size_t i = 0; i < load.size(); ++i)
    for (int k = 0; k < load[i].copies; ++k) put(r.unit_frames[i] + k, load[i].pair);
  const eia608_pair eoc = control_608(ctl_eoc);
  const eia608_pair edm = control_608(ctl_edm);
  put(r.show, eoc);
  put(r.show + 1, eoc);
  put(r.clear, edm);
  put(r.clear + 1, edm);

  cur.counter += 1;
  cur.pending_target = 0;
  cur.tag = static_cast<uint16_t>((edm.b[0] << 8) | edm.b[1]);
  cur.next_free_ms = static_cast<uint64_t>(grid_key(g, r.show + 2));
  cur.clear_at_ms = static_cast<uint64_t>(grid_key(g, r.clear));
  ctx = cur;
  return true;
}

}  // namespace tolm_cc
