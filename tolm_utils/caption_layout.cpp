// Row wrapping and placement shared by the CEA-608 and CEA-708 converters.
#include <algorithm>
#include <cmath>

#include "tolm_utils/caption_layout.h"
#include "tolm_utils/cea608.h"
#include "tolm_utils/cea708.h"

namespace tolm_cc {

// ---------------------------------------------------------------------------
// Layout
// ---------------------------------------------------------------------------

namespace {

bool same_code(const caption_cell& a, const caption_cell& b) {
  return a.kind == cell_kind::special && b.kind == cell_kind::special && a.b0 == b.b0 && a.b1 == b.b1;
}

// Greedy word wrap fed one cell at a time. Spaces between words are held as
// a count and take the style of the word after them, so that a style change
// at a word boundary falls on a space, where a 608 mid-row code costs nothing.
struct layout_builder {
  int wrap_width;
  int max_rows;
  bool mrc_cost;
  caption_layout out;
  caption_row row;
  std::vector<caption_cell> word;
  int word_width = 0;
  size_t spaces = 0;

  bool full() const { return out.truncated; }

  void push_row() {
    if (row.cells.empty()) return;
    if (static_cast<int>(out.rows.size()) >= max_rows) {
      out.truncated = true;
    } else {
      out.rows.push_back(std::move(row));
    }
    row = caption_row{};
  }

  int step_cost(const caption_cell& prev, const caption_cell& next) const {
    return 1 + ((mrc_cost && prev.italic != next.italic) ? 1 : 0);
  }

  void commit_word() {
    if (word.empty()) return;
    const bool fits =
        !row.cells.empty() && static_cast<size_t>(row.width) + spaces + static_cast<size_t>(word_width) <=
                                  static_cast<size_t>(wrap_width);
    if (fits) {
      caption_cell sp;
      sp.space = true;
      sp.italic = word.front().italic;
      sp.kind = word.front().kind == cell_kind::g0g1 || word.front().kind == cell_kind::ext1 ? cell_kind::g0g1
                                                                                             : cell_kind::basic;
      row.cells.insert(row.cells.end(), spaces, sp);
      row.cells.insert(row.cells.end(), word.begin(), word.end());
      row.width += static_cast<int>(spaces) + word_width;
    } else {
      push_row();
      row.cells = std::move(word);
      row.width = word_width;
    }
    word.clear();
    word_width = 0;
    spaces = 0;
  }

  void put_space() {
    commit_word();
    if (!row.cells.empty() && spaces < static_cast<size_t>(wrap_width) + 1) ++spaces;
  }

  void put_cell(const caption_cell& c) {
    word_width = word.empty() ? 1 : word_width + step_cost(word.back(), c);
    word.push_back(c);
    if (word_width <= wrap_width) return;
    // The word alone is wider than a row: what fits goes out as a row of its
    // own, the cell that overflowed starts the rest.
    push_row();
    spaces = 0;
    const caption_cell last = word.back();
    word.pop_back();
    int w = 1;
    for (size_t i = 1; i < word.size(); ++i) w += step_cost(word[i - 1], word[i]);
    row.cells = std::move(word);
    row.width = w;
    push_row();
    word.assign(1, last);
    word_width = 1;
  }

  void end_line() {
    commit_word();
    push_row();
    spaces = 0;
  }
};

}  // namespace

caption_layout layout_cue_text(std::string_view text, int wrap_width, cc_target target,
                               const caption_options& opt) {
  const int width = std::clamp(wrap_width, 1, screen_columns);
  const int rows = std::clamp(opt.max_rows, 1, screen_rows);
  layout_builder b{width, rows, target == cc_target::cea608, {}, {}, {}, 0, 0};
  cue_text_reader r = make_cue_text_reader(text, opt.voice_prefix);
  text_item it;
  caption_cell cells[3];
  while (!b.full() && next_text_item(r, it)) {
    if (it.cp == U'\n') {
      b.end_line();
      continue;
    }
    if (it.cp == U' ') {
      b.put_space();
      continue;
    }
    const int n = target == cc_target::cea608 ? map_char_608(it.cp, opt, cells) : map_char_708(it.cp, opt, cells);
    if (n == 0) ++b.out.dropped_chars;
    for (int i = 0; i < n; ++i) {
      cells[i].italic = it.italic;
      if (!b.word.empty() && same_code(b.word.back(), cells[i])) b.put_space();
      b.put_cell(cells[i]);
    }
  }
  if (!b.full()) b.end_line();
  return std::move(b.out);
}

// ---------------------------------------------------------------------------
// Placement
// ---------------------------------------------------------------------------

namespace {

// WebVTT percentage: digits, optional fraction, '%', within 0..100.
bool parse_percent(std::string_view s, double& out) {
  if (s.empty() || s.back() != '%') return false;
  s.remove_suffix(1);
  double v = 0;
  size_t i = 0;
  bool digits = false;
  while (i < s.size() && s[i] >= '0' && s[i] <= '9') {
    v = std::min(v * 10 + (s[i] - '0'), 1000.0);
    ++i;
    digits = true;
  }
  if (i < s.size() && s[i] == '.') {
    ++i;
    double scale = 0.1;
    bool frac = false;
    while (i < s.size() && s[i] >= '0' && s[i] <= '9') {
      v += (s[i] - '0') * scale;
      scale /= 10;
      ++i;
      frac = true;
    }
    if (!frac) return false;
  }
  if (!digits || i != s.size() || v > 100) return false;
  out = v;
  return true;
}

bool parse_integer(std::string_view s, int64_t& out) {
  bool neg = false;
  if (!s.empty() && s[0] == '-') {
    neg = true;
    s.remove_prefix(1);
  }
  if (s.empty()) return false;
  int64_t v = 0;
  for (char c : s) {
    if (c < '0' || c > '9') return false;
    v = std::min<int64_t>(v * 10 + (c - '0'), 1000);
  }
  out = neg ? -v : v;
  return true;
}

// Splits "value,alignment".
void split_comma(std::string_view s, std::string_view& value, std::string_view& align) {
  const size_t comma = s.find(',');
  value = s.substr(0, comma);
  align = comma == std::string_view::npos ? std::string_view{} : s.substr(comma + 1);
}

const std::string* find_setting(const std::map<std::string, std::string>& m, const char* name) {
  const auto it = m.find(name);
  return it == m.end() ? nullptr : &it->second;
}

}  // namespace

cue_box parse_cue_box(const std::map<std::string, std::string>& settings) {
  cue_box b;
  if (const std::string* v = find_setting(settings, "align")) {
    if (*v == "start" || *v == "left") b.align = h_align::left;
    else if (*v == "end" || *v == "right") b.align = h_align::right;
    else b.align = h_align::center;
  }
  if (const std::string* v = find_setting(settings, "size")) {
    double p;
    if (parse_percent(*v, p)) b.size_pct = p;
  }
  if (const std::string* v = find_setting(settings, "line")) {
    std::string_view value, align;
    split_comma(*v, value, align);
    int lalign = 0;
    bool align_ok = true;
    if (align == "center") lalign = 1;
    else if (align == "end") lalign = 2;
    else if (!align.empty() && align != "start") align_ok = false;
    double p;
    int64_t k;
    if (align_ok && parse_percent(value, p)) {
      b.line = line_kind::percent;
      b.line_pct = p;
      b.line_align = lalign;
    } else if (align_ok && parse_integer(value, k)) {
      b.line = line_kind::number;
      b.line_number = k;
      b.line_align = lalign;
    }
  }
  if (const std::string* v = find_setting(settings, "position")) {
    std::string_view value, align;
    split_comma(*v, value, align);
    double p;
    bool align_ok = true;
    h_align pa = b.align;  // "auto" follows the text alignment
    if (align == "line-left") pa = h_align::left;
    else if (align == "center") pa = h_align::center;
    else if (align == "line-right") pa = h_align::right;
    else if (!align.empty() && align != "auto") align_ok = false;
    if (align_ok && parse_percent(value, p)) {
      b.has_position = true;
      b.position_pct = p;
      b.position_align = pa;
    }
  }
  return b;
}

int box_wrap_width(const cue_box& b) {
  const int w = static_cast<int>(std::floor(b.size_pct * screen_columns / 100));
  return std::clamp(w, 1, screen_columns);
}

int box_top_row(const cue_box& b, int n) {
  n = std::clamp(n, 1, screen_rows);
  int64_t top = screen_rows + 1 - n;
  if (b.line == line_kind::number) {
    top = b.line_number >= 0 ? b.line_number + 1 : screen_rows + 2 + b.line_number - n;
  } else if (b.line == line_kind::percent) {
    // The caption area is the middle 80 % of the picture, 15 rows high.
    int64_t r = static_cast<int64_t>(std::floor((b.line_pct - 10) * screen_rows / 80)) + 1;
    r = std::clamp<int64_t>(r, 1, screen_rows);
    if (b.line_align == 1) top = r - (n - 1) / 2;
    else if (b.line_align == 2) top = r - n + 1;
    else top = r;
  }
  return static_cast<int>(std::clamp<int64_t>(top, 1, screen_rows + 1 - n));
}

bool box_from_bottom(const cue_box& b) {
  switch (b.line) {
    case line_kind::automatic: return true;
    case line_kind::number: return b.line_number < 0;
    case line_kind::percent: return b.line_pct >= 50;
  }
  return true;
}

h_align box_h_align(const cue_box& b) { return b.has_position ? b.position_align : b.align; }

int box_column(const cue_box& b, int w) {
  w = std::clamp(w, 0, screen_columns);
  int col;
  const h_align k = box_h_align(b);
  if (b.has_position) {
    const int a = static_cast<int>(std::floor(b.position_pct * screen_columns / 100 + 0.5));
    col = k == h_align::left ? a : k == h_align::right ? a - w : a - w / 2;
  } else {
    const int room = screen_columns - w;
    col = k == h_align::left ? 0 : k == h_align::right ? room : room / 2;
  }
  return std::clamp(col, 0, screen_columns - w);
}

int box_anchor_h(const cue_box& b) {
  int a;
  if (b.has_position) {
    a = static_cast<int>(std::floor(b.position_pct + 0.5));
  } else {
    const h_align k = box_h_align(b);
    a = k == h_align::left ? 0 : k == h_align::right ? 99 : 50;
  }
  return std::clamp(a, 0, 99);
}

}  // namespace tolm_cc
