// The CEA-608 and CEA-708 converters as a viewer sees them. Runs of generated
// cues (every character the caption sets hold, every row, alignment and
// width) are converted as the relay does it, read back (CEA-608 by
// pelvane-cc's decoder, CEA-708 by the small DTVCC reader below) and compared
// with what each cue asks for: its words and italics, wrapped greedily at its
// width, on its rows and columns, from its start to its end.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <map>
#include <random>
#include <set>

#include "tolm_utils/webvtt.h"
#include "v2/cc/cc608_decoder.h"

namespace {

struct word {
  std::string text;
  bool italic;
  bool operator==(const word&) const = default;
};
// A row as read: the cells written (first..last, blanks included), the width
// from the first to the last visible glyph, and the words in it.
struct shown_row {
  int row, first, last, width;
  std::vector<word> words;
};
// A caption from the moment it shows to the moment it goes. rows[i].row is
// top + i when the rows are where they should be; columns is what they line up
// in: the screen for CEA-608, the window for CEA-708.
struct caption {
  int64_t start = 0, end = -1;
  std::vector<shown_row> rows;
  int columns = 32, top = 0;
  int point = -1, anchor_h = -1;  // CEA-708: the window's anchor point and horizontal anchor
};

int cells(const std::string& s) {
  return static_cast<int>(std::count_if(s.begin(), s.end(), [](char c) { return (c & 0xC0) != 0x80; }));
}

std::string utf8(char32_t c) {
  if (c < 0x80) return std::string(1, char(c));
  if (c < 0x800) return {char(0xC0 | c >> 6), char(0x80 | (c & 0x3F))};
  return {char(0xE0 | c >> 12), char(0x80 | ((c >> 6) & 0x3F)), char(0x80 | (c & 0x3F))};
}

shown_row read_row(int row, const cc608_cell* c, int n) {
  shown_row r{row, -1, -1, 0, {}};
  int lo = -1, hi = -1;
  for (int i = 0; i < n; ++i) {
    if (c[i].glyph.empty()) continue;
    r.first = r.first < 0 ? i : r.first, r.last = i;
    if (c[i].glyph != " ") lo = lo < 0 ? i : lo, hi = i;
  }
  for (int i = lo; lo >= 0 && i <= hi; ++i) {
    if (c[i].glyph.empty() || c[i].glyph == " ") continue;
    if (i == lo || c[i - 1].glyph.empty() || c[i - 1].glyph == " ") r.words.push_back({"", c[i].italic});
    r.words.back().text += c[i].glyph + (c[i].italic == r.words.back().italic ? "" : "?");
  }
  r.width = lo < 0 ? 0 : hi - lo + 1;
  return r;
}

// ---- CEA-608: pelvane-cc's decoder; a caption from each EOC to the EDM or next EOC ----

std::vector<caption> read_608(const cc608_map& pairs, std::vector<std::string>&) {
  cc608_decoder d;
  std::vector<caption> out;
  std::vector<srt_cue> unused;
  int64_t state = -1;  // the EOC time of what is on screen, -1 for nothing
  for (const auto& [key, p] : pairs) {
    cc608_decode_pair(d, static_cast<int64_t>(key), p.b[0], p.b[1], unused);
    const int64_t now = d.showing ? d.shown_at : -1;
    if (now == state) continue;
    if (state >= 0) out.back().end = static_cast<int64_t>(key);
    if ((state = now) < 0) continue;
    out.emplace_back().start = now;
    for (int r = 0; r < 15; ++r)
      if (shown_row row = read_row(r + 1, d.shown[r].data(), 32); row.first >= 0) out.back().rows.push_back(row);
    out.back().top = out.back().rows.empty() ? 0 : out.back().rows.front().row;
  }
  return out;
}

// ---- CEA-708: a DTVCC reader for service 1 and the commands pop-on captions use ----

struct window {
  bool defined = false, visible = false, italic = false;
  int rows = 0, cols = 0, anchor_v = 0, anchor_h = 0, point = 0, row = 0, col = 0;
  std::vector<std::vector<cc608_cell>> grid;
};
struct dtvcc_reader {
  window win[8];
  int current = 0, last_seq = -1;
  std::string screen;
  std::vector<caption> captions;
  std::vector<std::string>* problems;
};

// G2 after EXT1: each code followed by its glyph.
const std::map<uint8_t, std::string>& g2() {
  static const std::map<uint8_t, std::string> m = [] {
    const std::string t = "%…*Š,Œ0█1‘2’3“4”5•9™:š<œ=℠?Ÿv⅛w⅜x⅝y⅞z│{┐|└}─~┘\x7f┌";
    std::map<uint8_t, std::string> m;
    for (size_t i = 0, n; i < t.size(); i += 1 + n)
      for (n = 1; i + 1 + n < t.size() && (t[i + 1 + n] & 0xC0) == 0x80;) ++n, m[t[i]] = t.substr(i + 1, n);
    return m;
  }();
  return m;
}

void put_glyph(dtvcc_reader& r, const std::string& g) {
  window& w = r.win[r.current];
  if (g.empty() || !w.defined || w.row >= w.rows || w.col >= w.cols) return r.problems->push_back("glyph outside a window");
  w.grid[w.row][w.col++] = {g, w.italic};
}

void run_block(dtvcc_reader& r, const uint8_t* b, int n) {
  for (int i = 0; i < n;) {
    const uint8_t c = b[i];
    const int params = c == 0x10 || (c >= 0x88 && c <= 0x8C) ? 1 : c == 0x90 || c == 0x92 ? 2 : c == 0x91 ? 3
                       : c == 0x97 ? 4 : c >= 0x98 && c <= 0x9F ? 6 : 0;
    const uint8_t* p = b + i + 1;
    if ((i += 1 + params) > n) return r.problems->push_back("command cut by its block's end");
    window& w = r.win[r.current];
    if (c == 0x10) put_glyph(r, g2().count(p[0]) ? g2().at(p[0]) : "");
    else if (c >= 0x20 && c < 0x80) put_glyph(r, c == 0x7F ? "♪" : std::string(1, char(c)));
    else if (c >= 0xA0) put_glyph(r, utf8(c));
    else if (c >= 0x80 && c <= 0x87) r.current = c & 7;
    else if (c >= 0x88 && c <= 0x8C) {
      for (int x = 0; x < 8; ++x) {
        window& v = r.win[x];
        if (!(p[0] & (1 << x))) continue;
        if (c == 0x88) v.grid.assign(v.rows, std::vector<cc608_cell>(v.cols));
        v.visible = c == 0x89 || (c == 0x8B && !v.visible) || (c == 0x88 && v.visible);
        if (c == 0x8C) v = window();
      }
    } else if (c == 0x90) w.italic = p[1] & 0x80;
    else if (c == 0x92) w.row = p[0] & 0x0F, w.col = p[1] & 0x3F;
    else if (c >= 0x98 && c <= 0x9F) {
      window& d = r.win[r.current = c & 7];
      d.visible = p[0] & 0x20, d.anchor_v = p[1] & 0x7F, d.anchor_h = p[2], d.point = p[3] >> 4;
      d.rows = (p[3] & 0x0F) + 1, d.cols = (p[4] & 0x3F) + 1, d.defined = true;
      d.grid.resize(d.rows), d.italic = false;
      for (auto& row : d.grid) row.resize(d.cols);
    } else if (c != 0x03 && c != 0x91 && c != 0x97) r.problems->push_back("unknown code " + std::to_string(c));
  }
}

// The visible windows as one caption; a new caption whenever what shows changes.
void update_screen(dtvcc_reader& r, int64_t t) {
  caption now;
  now.start = t;
  std::string screen;
  bool any = false;
  for (const window& w : r.win) {
    if (!w.defined || !w.visible) continue;
    const int v = w.point / 3;  // 0: anchored at its top row, 2: at its bottom row
    now.columns = w.cols, now.point = w.point, now.anchor_h = w.anchor_h;
    now.top = v == 0 ? int(std::lround(w.anchor_v * 0.15)) + 1 : v == 2 ? int(std::lround((w.anchor_v + 1) * 0.15)) - w.rows + 1 : -99;
    for (int i = 0; i < w.rows; ++i) {
      now.rows.push_back(read_row(now.top + i, w.grid[i].data(), w.cols));
      for (const cc608_cell& c : w.grid[i]) screen += c.glyph + (c.italic ? "\1" : "\2"), any = any || !c.glyph.empty();
    }
  }
  if (screen == r.screen) return;
  if (!r.captions.empty() && r.captions.back().end < 0) r.captions.back().end = t;
  if (any) r.captions.push_back(now);
  r.screen = screen;
}

std::vector<caption> read_708(const cc708_map& words, std::vector<std::string>& problems) {
  dtvcc_reader r;
  r.problems = &problems;
  std::vector<uint8_t> pkt;
  size_t want = 0;
  for (const auto& [key, list] : words) {
    for (const q7ro_cea708_word& w : list) {
      const uint8_t hi = w.value >> 8, lo = w.value & 0xFF;
      if (w.type == 0xFF) {
        if (pkt.size() < want) problems.push_back("packet cut short");
        if (r.last_seq >= 0 && hi >> 6 != ((r.last_seq + 1) & 3)) problems.push_back("sequence number skips");
        r.last_seq = hi >> 6, want = (hi & 0x3F) ? 2 * (hi & 0x3F) - 1 : 127, pkt.assign(1, lo);
      } else if (w.type == 0xFE && pkt.size() < want) {
        pkt.insert(pkt.end(), {hi, lo});
      } else {
        problems.push_back("data outside a packet");
      }
      if (want == 0 || pkt.size() < want) continue;
      for (size_t i = 0; i < want && pkt[i] != 0; i += 1 + (pkt[i] & 0x1F)) {
        if (pkt[i] >> 5 != 1 || i + 1 + (pkt[i] & 0x1F) > want) problems.push_back("bad service block");
        else run_block(r, &pkt[i + 1], pkt[i] & 0x1F);
      }
      want = 0;
      update_screen(r, static_cast<int64_t>(key));
    }
  }
  return r.captions;
}

// ---- generated cues ----

struct token {
  std::string cue, shown;
};
// Characters no caption set holds, entities and codes the converter avoids: cue text, CEA-608, CEA-708.
const char* const fallbacks[][3] = {{"…", "...", "…"}, {"—", "--", "-"}, {"–", "-", "-"}, {"„", "\"", "\""},
                                    {"Ý", "Y", "Ý"},   {"Š", "S", "Š"},   {"`", "‘", "`"}, {"&gt;", ">", ">"},
                                    {"}", ")", "}"}};

// Every glyph the reader shows (as cue text, escaped where needed), then the fallbacks.
std::vector<token> tokens_for(const std::set<std::string>& glyphs, int target) {
  std::map<std::string, std::string> m;
  for (const std::string& g : glyphs) m[g == "<" ? "&lt;" : g == "&" ? "&amp;" : g] = g;
  for (const auto& f : fallbacks) m[f[0]] = f[1 + target];
  std::vector<token> v;
  for (const auto& [cue, shown] : m) v.push_back({cue, shown});
  return v;
}

uint8_t with_parity(uint8_t b) { return __builtin_parity(b) ? b : b | 0x80; }

std::set<std::string> glyphs_608() {
  std::vector<std::pair<uint8_t, uint8_t>> codes;
  for (int c = 0x21; c < 0x80; ++c) codes.emplace_back(c, 0);
  for (int c = 0x30; c < 0x40; ++c) codes.emplace_back(0x11, c);
  for (int c = 0x20; c < 0x40; ++c) codes.emplace_back(0x12, c), codes.emplace_back(0x13, c);
  std::set<std::string> out;
  for (const auto& [a, b] : codes) {
    cc608_decoder d;
    std::vector<srt_cue> unused;
    for (auto [x, y] : {std::pair<uint8_t, uint8_t>{0x14, 0x20}, {0x11, 0x40}, {a, b}, {0x14, 0x2F}})
      cc608_decode_pair(d, 0, with_parity(x), with_parity(y), unused);
    if (d.shown[0][0].glyph != "\u00A0") out.insert(d.shown[0][0].glyph);  // not the transparent space
  }
  return out;
}

std::set<std::string> glyphs_708() {
  std::set<std::string> out = {"♪"};
  for (char32_t c = 0x21; c < 0x100; ++c)
    if (c < 0x7F || c > 0xA0) out.insert(utf8(c));
  for (const auto& [code, glyph] : g2()) out.insert(glyph);
  return out;
}

struct line_setting {
  std::string text;
  int kind, value, align;  // kind 0: auto, 1: a row number, 2: a percentage (value: the row it names)
};

struct cue_case {
  WebVTTFileEvent_v1 cue;
  std::vector<word> words;
  std::set<size_t> breaks;  // words that start a line of the cue text
  int width, h;             // wrap width; 0 left, 1 centre, 2 right
  line_setting line;
  int position = -1;
};

std::vector<line_setting> line_settings() {
  std::vector<line_setting> v = {{"", 0, 0, 0}};
  for (int k = -16; k <= 16; ++k) v.push_back({"line:" + std::to_string(k), 1, k, 0});
  for (auto [pct, row] : {std::pair{10, 1}, {50, 8}, {90, 15}})
    for (int a = 0; a < 3; ++a) v.push_back({"line:" + std::to_string(pct) + "%" + (a ? a == 1 ? ",center" : ",end" : ""), 2, row, a});
  return v;
}

// Cue number q: its line setting cycles through all, its first token through the set.
cue_case make_cue(std::mt19937& rng, const std::vector<token>& tokens, int q, int64_t start) {
  static const std::vector<line_setting> lines = line_settings();
  static const char* const aligns[][2] = {{"", "1"}, {"start", "0"}, {"left", "0"}, {"center", "1"}, {"end", "2"}, {"right", "2"}};
  static const char* const position_aligns[] = {"line-left", "center", "line-right"};
  auto pick = [&](int n) { return static_cast<int>(rng() % static_cast<unsigned>(n)); };
  cue_case k;
  k.line = lines[q % lines.size()];
  const int a = pick(6), tenths = pick(3) ? 30 + pick(971) : 1000;
  k.h = aligns[a][1][0] - '0', k.width = std::max(1, tenths * 32 / 1000);
  std::map<std::string, std::string>& s = k.cue.settings;
  if (!k.line.text.empty()) s["line"] = k.line.text.substr(5);
  if (*aligns[a][0]) s["align"] = aligns[a][0];
  if (tenths < 1000) s["size"] = std::to_string(tenths / 10) + "." + std::to_string(tenths % 10) + "%";
  if (pick(3) == 0) k.h = pick(3), k.position = pick(101), s["position"] = std::to_string(k.position) + "%," + position_aligns[k.h];
  std::string& text = k.cue.text;
  for (int w = 0, budget = 20, words = 1 + pick(8); w < words && budget > 0; ++w) {
    const int target = pick(8) ? 1 + pick(std::min(k.width, 6)) : k.width;  // sometimes a word exactly as wide as a row
    word shown{"", pick(3) == 0};
    std::string cue_word;
    for (int last = -1, width = 0; width < target && budget > 0; --budget) {
      int t = w == 0 && last < 0 ? q % static_cast<int>(tokens.size()) : pick(static_cast<int>(tokens.size()));
      if (t == last || width + cells(tokens[t].shown) > target) t = 0;  // a plain one-cell glyph
      if (t == last || width + cells(tokens[t].shown) > target) break;
      cue_word += tokens[t].cue, shown.text += tokens[t].shown, width += cells(tokens[t].shown), last = t;
    }
    if (cue_word.empty()) break;
    const int sep = pick(10);
    if (w > 0) text += sep == 0 ? "\n" : sep == 1 ? "\t" : " ";
    if (w > 0 && sep == 0) k.breaks.insert(k.words.size());
    text += shown.italic ? "<i>" + cue_word + "</i>" : cue_word;
    k.words.push_back(shown);
  }
  k.cue.start = std::chrono::milliseconds(start);
  k.cue.end = std::chrono::milliseconds(start + 5000 + pick(3000));
  return k;
}

// The top row a caption of n rows should have.
int expected_top(const line_setting& l, int n) {
  int top = 16 - n;
  if (l.kind == 1) top = l.value >= 0 ? l.value + 1 : 17 + l.value - n;
  if (l.kind == 2) top = l.align == 0 ? l.value : l.align == 1 ? l.value - (n - 1) / 2 : l.value - n + 1;
  return std::clamp(top, 1, 16 - n);
}

int64_t frame(int64_t ms) { return (60 * ms + 1001) / 2002; }  // nearest frame at 29.97 fps
int64_t key(int64_t f) { return (2002 * f + 30) / 60; }

// What is wrong with caption c for cue k ("" when nothing), on a screen with a
// 32-column grid (608) or in a window (708).
std::string check(const caption& c, const cue_case& k, int64_t start, int64_t end, bool cea708) {
  std::vector<word> got;
  std::set<size_t> row_starts;
  for (size_t i = 0; i < c.rows.size(); ++i) {
    const shown_row& r = c.rows[i];
    int words = -1;
    for (const word& w : r.words) words += 1 + cells(w.text);
    if (r.row != c.top + static_cast<int>(i)) return "rows not one below the other";
    if (r.width != words || r.width > k.width) return "row " + std::to_string(i) + " spaced wrongly or too wide";
    const int w = r.last - r.first + 1, room = c.columns - w;
    const int a = k.position * 32 / 100 + (k.position * 32 % 100 >= 50), h = k.h;
    const bool placed = k.position >= 0 && !cea708 ? r.first == std::clamp(h == 0 ? a : h == 2 ? a - w : a - w / 2, 0, room)
                                                   : h == 0 ? r.first == 0 : h == 2 ? r.last == c.columns - 1 : std::abs(2 * r.first - room) <= 1;
    if (!placed) return "row " + std::to_string(i) + " in the wrong columns";
    row_starts.insert(got.size());
    if (i > 0 && !k.breaks.count(got.size()) && c.rows[i - 1].width + 1 + cells(r.words.front().text) <= k.width)
      return "row " + std::to_string(i) + " broken early";
    got.insert(got.end(), r.words.begin(), r.words.end());
  }
  if (got.size() > k.words.size() || !std::equal(got.begin(), got.end(), k.words.begin())) return "other words";
  if (got.size() < k.words.size() && c.rows.size() != 4) return "words missing";
  for (size_t b : k.breaks)
    if (b < got.size() && !row_starts.count(b)) return "a line break lost";
  const int n = static_cast<int>(c.rows.size());
  if (c.top != expected_top(k.line, n)) return "top row " + std::to_string(c.top);
  const bool bottom = k.line.kind == 0 || (k.line.kind == 1 && k.line.value < 0) || (k.line.kind == 2 && k.line.value >= 8);
  if (cea708 && (c.point != (bottom ? 6 : 0) + k.h || c.anchor_h != (k.position >= 0 ? std::min(k.position, 99) : k.h * 50 - (k.h == 2))))
    return "window anchored wrongly";
  if (c.start != start || c.end != end) return "shown at the wrong time";
  return "";
}

// Runs of four cues, each run converted with one context per target as the
// relay does it, read back and checked cue by cue.
void check_target(bool cea708) {
  std::mt19937 rng(cea708 ? 708 : 608);
  std::vector<std::string> problems;
  const std::vector<token> tokens = tokens_for(cea708 ? glyphs_708() : glyphs_608(), cea708);
  int failures = 0;
  for (int run = 0, q = 0; run < 120 && failures < 5; ++run) {
    WebVTTConvContext_v1 ctx = webvtt_conv_context_start();
    cc608_map all608;
    cc708_map all708;
    std::vector<cue_case> cues;
    std::vector<int64_t> starts;
    for (int64_t i = 0, t = 5000; i < 4; ++i, ++q) {
      const cue_case k = make_cue(rng, tokens, q, t);
      const vtt_cue_map m = {{k.cue.start, k.cue}};
      cc608_map out608;
      cc708_map out708;
      if (cea708) WebVTTTo708(out708, {1000, 1}, false, {}, m.begin(), m.end(), 1, ctx, {30000, 1001});
      else WebVTTTo608(out608, {1000, 1}, false, {}, m.begin(), m.end(), 1, ctx);
      const size_t before = all608.size() + all708.size();
      all608.insert(out608.begin(), out608.end()), all708.insert(out708.begin(), out708.end());
      if (all608.size() + all708.size() != before + out608.size() + out708.size()) problems.push_back("two cues share a frame");
      // Shown in its start frame; after a cue ending there, the frame after (708) or two (608, after the erase).
      const int64_t s = frame(t), prev = i ? frame(cues.back().cue.end.count()) : -9;
      starts.push_back(key(cea708 ? (s == prev ? s + 1 : s) : std::max(s, prev + 2)));
      cues.push_back(k);
      // Back to back, a frame apart, seconds apart; in CEA-708 also replaced before its end.
      t = k.cue.end.count() + std::array<int64_t, 4>{0, 33, 3000, -2000}[rng() % (cea708 ? 4 : 3)];
    }
    const std::vector<caption> got = cea708 ? read_708(all708, problems) : read_608(all608, problems);
    for (size_t i = 0; i < cues.size(); ++i) {
      const int64_t end = key(frame(cues[i].cue.end.count()));
      std::string settings;
      for (const auto& [name, value] : cues[i].cue.settings) settings += name + ":" + value + " ";
      const std::string why = i < got.size() ? check(got[i], cues[i], starts[i], i + 1 < cues.size() ? std::min(end, starts[i + 1]) : end, cea708) : "not shown";
      EXPECT_EQ(why, "") << (cea708 ? "708" : "608") << ", cue " << i << " of run " << run << ": " << settings
                         << "'" << cues[i].cue.text << "'";
      failures += !why.empty();
    }
    EXPECT_EQ(got.size(), cues.size()) << "run " << run;
  }
  EXPECT_EQ(problems, std::vector<std::string>{});
}

TEST(CeaConverters, Cea608AsTheDecoderShowsIt) { check_target(false); }
TEST(CeaConverters, Cea708AsTheDtvccReaderShowsIt) { check_target(true); }

// Frames of the 608 caption display (EOC 942F) and erasure (EDM 942C) per cue,
// -1 when the cue is dropped: a caption waits for the one before it to go.
TEST(CeaConverters, Cea608CrossCueRules) {
  struct step { int64_t start, end, eoc, edm; };
  const struct { const char* name; std::vector<step> steps; } cases[] = {
      {"overlap without display time left is dropped",
       {{1000, 3000, 30, 90}, {2000, 3050, -1, -1}, {4000, 5000, 120, 150}}},
      {"starts before 0: loaded from frame 0", {{-5000, 2000, 14, 60}}},
      {"entirely before 0 is dropped", {{-5000, -1000, -1, -1}}},
      {"a clock that jumps back two minutes starts afresh", {{200000, 202000, 5994, 6054}, {80000, 82000, 2398, 2458}}},
  };
  for (const auto& c : cases) {
    WebVTTConvContext_v1 ctx = webvtt_conv_context_start();
    for (const step& st : c.steps) {
      WebVTTFileEvent_v1 cue{std::chrono::milliseconds(st.start), std::chrono::milliseconds(st.end), "", {}, "Hello, world"};
      const vtt_cue_map m = {{cue.start, cue}};
      cc608_map out;
      WebVTTTo608(out, {1000, 1}, false, {}, m.begin(), m.end(), 1, ctx);
      int64_t eoc = -1, edm = -1;
      for (const auto& [k, p] : out) {
        const int64_t f = (static_cast<int64_t>(k) * 60 + 1001) / 2002;
        if (p.b[0] == 0x94 && p.b[1] == 0x2F && eoc < 0) eoc = f;
        if (p.b[0] == 0x94 && p.b[1] == 0x2C && edm < 0) edm = f;
      }
      EXPECT_EQ(std::make_pair(eoc, edm), std::make_pair(st.eoc, st.edm)) << c.name << ", cue at " << st.start;
    }
  }
}

}  // namespace
