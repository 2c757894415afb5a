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
#include <map>
#include <random>
#include <set>

#include "tolm_utils/webvtt.h"
#include "v2/cc/cc608_decoder.h"

namespace {

struct word { std::string text; bool italic; bool operator==(const word&) const = default; };
// A row as read: the cells written (first..last, blanks included), the width from its first to its last glyph, its words.
struct shown_row { int row, first, last, width; std::vector<word> words; };
// A caption from the moment it shows to the moment it goes; its rows line up in `columns`: the screen (608) or
// its window (708), whose anchor point and horizontal anchor are kept.
struct caption { int64_t start = 0, end = -1; std::vector<shown_row> rows; int columns = 32, top = 0, point = -1, anchor_h = -1; };

int cells(const std::string& s) { return std::count_if(s.begin(), s.end(), [](char c) { return (c & 0xC0) != 0x80; }); }
std::string utf8(char32_t c) { return c < 0x80 ? std::string(1, char(c)) : std::string{char(0xC0 | c >> 6), char(0x80 | (c & 0x3F))}; }
bool blank(const cc608_cell& c) { return c.glyph.empty() || c.glyph == " "; }

shown_row read_row(int row, const std::vector<cc608_cell>& c) {
  shown_row r{row, -1, -1, 0, {}};
  for (int i = 0, lo = -1; i < static_cast<int>(c.size()); ++i) {
    if (c[i].glyph.empty()) continue;
    r.first = r.first < 0 ? i : r.first, r.last = i;
    if (blank(c[i])) continue;
    if (i == 0 || blank(c[i - 1])) r.words.push_back({"", c[i].italic});
    r.words.back().text += c[i].glyph + (c[i].italic == r.words.back().italic ? "" : "?");
    lo = lo < 0 ? i : lo, r.width = i - lo + 1;
  }
  return r;
}

// CEA-608 through pelvane-cc's decoder: a caption from each EOC to the EDM or the next EOC.
std::vector<caption> read_608(const cc608_map& pairs, std::vector<std::string>&) {
  cc608_decoder d;
  std::vector<caption> out;
  std::vector<srt_cue> unused;
  int64_t on_screen = -1;  // the EOC time of what shows
  for (const auto& [key, p] : pairs) {
    cc608_decode_pair(d, static_cast<int64_t>(key), p.b[0], p.b[1], unused);
    if ((d.showing ? d.shown_at : -1) == on_screen) continue;
    if (on_screen >= 0) out.back().end = static_cast<int64_t>(key);
    if ((on_screen = d.showing ? d.shown_at : -1) < 0) continue;
    out.emplace_back().start = on_screen;
    for (int r = 0; r < 15; ++r)
      if (shown_row row = read_row(r + 1, {d.shown[r].begin(), d.shown[r].end()}); row.first >= 0) out.back().rows.push_back(row);
    out.back().top = out.back().rows.empty() ? 0 : out.back().rows.front().row;
  }
  return out;
}

// A DTVCC reader for service 1 and the window commands of pop-on captions:
// packets in transmission order (sequence numbers checked), service blocks,
// windows. What the visible windows show is a caption until it changes.
const std::map<uint8_t, std::string> g2 = {
    {0x25, "…"}, {0x2A, "Š"}, {0x2C, "Œ"}, {0x30, "█"}, {0x31, "‘"}, {0x32, "’"}, {0x33, "“"}, {0x34, "”"},
    {0x35, "•"}, {0x39, "™"}, {0x3A, "š"}, {0x3C, "œ"}, {0x3D, "℠"}, {0x3F, "Ÿ"}, {0x76, "⅛"}, {0x77, "⅜"},
    {0x78, "⅝"}, {0x79, "⅞"}, {0x7A, "│"}, {0x7B, "┐"}, {0x7C, "└"}, {0x7D, "─"}, {0x7E, "┘"}, {0x7F, "┌"}};

struct window { bool defined = false, visible = false, italic = false; int rows = 0, cols = 0, anchor_v = 0, anchor_h = 0, point = 0, row = 0, col = 0; std::vector<std::vector<cc608_cell>> grid; };

std::vector<caption> read_708(const cc708_map& words, std::vector<std::string>& problems) {
  window win[8];
  int current = 0, last_seq = -1;
  std::string screen;
  std::vector<caption> out;
  const auto put = [&](const std::string& g) {
    window& w = win[current];
    if (g.empty() || !w.defined || w.row >= w.rows || w.col >= w.cols) return problems.push_back("glyph outside a window");
    w.grid[w.row][w.col++] = {g, w.italic};
  };
  const auto run_block = [&](const uint8_t* b, int n) {
    for (int i = 0; i < n;) {
      const uint8_t c = b[i], *p = b + i + 1;
      i += 1 + (c == 0x10 || (c >= 0x88 && c <= 0x8C) ? 1 : c == 0x90 || c == 0x92 ? 2 : c == 0x91 ? 3 : c == 0x97 ? 4 : c >= 0x98 && c < 0xA0 ? 6 : 0);
      if (i > n) return problems.push_back("command cut by its block's end");
      window& w = win[current];
      if (c == 0x10) put(g2.count(p[0]) ? g2.at(p[0]) : "");
      else if (c >= 0x20 && c < 0x80) put(c == 0x7F ? "♪" : std::string(1, char(c)));
      else if (c >= 0xA0) put(utf8(c));
      else if (c >= 0x80 && c <= 0x87) current = c & 7;
      else if (c == 0x90) w.italic = p[1] & 0x80;
      else if (c == 0x92) w.row = p[0] & 0x0F, w.col = p[1] & 0x3F;
      else if (c >= 0x98 && c < 0xA0) {
        window& d = win[current = c & 7];
        d.visible = p[0] & 0x20, d.anchor_v = p[1] & 0x7F, d.anchor_h = p[2], d.point = p[3] >> 4, d.italic = false;
        d.rows = (p[3] & 0x0F) + 1, d.cols = (p[4] & 0x3F) + 1, d.defined = true, d.grid.resize(d.rows);
        for (auto& row : d.grid) row.resize(d.cols);
      } else if (c >= 0x88 && c <= 0x8C) {  // CLW DSW HDW TGW DLW
        for (int x = 0; x < 8; ++x) {
          if (!(p[0] & (1 << x))) continue;
          if (c == 0x88) win[x].grid.assign(win[x].rows, std::vector<cc608_cell>(win[x].cols));
          win[x].visible = c == 0x89 || (c == 0x8B && !win[x].visible) || (c == 0x88 && win[x].visible);
          if (c == 0x8C) win[x] = window();
        }
      } else if (c != 0x03 && c != 0x91 && c != 0x97) problems.push_back("unknown code " + std::to_string(c));
    }
  };
  const auto show = [&](int64_t t) {
    caption now;
    std::string seen;
    for (const window& w : win) {
      if (!w.defined || !w.visible) continue;
      const int v = w.point / 3;  // 0: anchored by its top row, 2: by its bottom row
      now = {t, now.end, now.rows, w.cols, v == 0 ? int(std::lround(w.anchor_v * 0.15)) + 1 : v == 2 ? int(std::lround((w.anchor_v + 1) * 0.15)) - w.rows + 1 : -99, w.point, w.anchor_h};
      for (int i = 0; i < w.rows; ++i) now.rows.push_back(read_row(now.top + i, w.grid[i]));
      for (const auto& row : w.grid)
        for (const cc608_cell& c : row) seen += c.glyph + (c.italic ? "\1" : "\2");
    }
    if (seen == screen) return;
    if (!out.empty() && out.back().end < 0) out.back().end = t;
    if (seen.find_first_not_of("\1\2") != std::string::npos) out.push_back(now);
    screen = seen;
  };
  std::vector<uint8_t> pkt;
  size_t want = 0;
  for (const auto& [key, list] : words) {
    for (const q7ro_cea708_word& w : list) {
      const uint8_t hi = w.value >> 8, lo = w.value & 0xFF;
      if (w.type == 0xFF && last_seq >= 0 && hi >> 6 != ((last_seq + 1) & 3)) problems.push_back("sequence number skips");
      if (w.type == 0xFF) last_seq = hi >> 6, want = (hi & 0x3F) ? 2 * (hi & 0x3F) - 1 : 127, pkt.assign(1, lo);
      else if (w.type == 0xFE && pkt.size() < want) pkt.insert(pkt.end(), {hi, lo});
      else problems.push_back("data outside a packet");
      if (want == 0 || pkt.size() < want) continue;
      for (size_t i = 0; i < want && pkt[i] != 0; i += 1 + (pkt[i] & 0x1F))
        if (pkt[i] >> 5 != 1 || i + 1 + (pkt[i] & 0x1F) > want) problems.push_back("bad service block");
        else run_block(&pkt[i + 1], pkt[i] & 0x1F);
      want = 0;
      show(static_cast<int64_t>(key));
    }
  }
  return out;
}

// ---- generated cues ----

using token = std::pair<std::string, std::string>;  // cue text, what shows
// Characters no caption set holds, entities, codes avoided: cue text, what 608 and 708 show.
const char* const fallbacks[][3] = {{"…", "...", "…"}, {"—", "--", "-"}, {"–", "-", "-"}, {"„", "\"", "\""}, {"Ý", "Y", "Ý"},
                                    {"Š", "S", "Š"},   {"`", "‘", "`"},   {"&gt;", ">", ">"}, {"}", ")", "}"}};

// Every glyph the reader can show (the cue text escaped where needed), then the fallbacks.
std::vector<token> tokens_for(bool cea708) {
  std::map<std::string, std::string> m;
  const auto add = [&](const std::string& g) { m[g == "<" ? "&lt;" : g == "&" ? "&amp;" : g] = g; };
  if (cea708) {
    for (char32_t c = 0x21; c < 0x100; ++c) add(c == 0x7F ? "♪" : utf8(c > 0x7F && c <= 0xA0 ? '!' : c));
    for (const auto& [code, glyph] : g2) add(glyph);
  } else {  // what the decoder shows for each character code but the transparent space
    for (int a = 0x10; a < 0x14; ++a) {
      for (int b = a == 0x10 ? 0x21 : a == 0x11 ? 0x30 : 0x20; b < (a == 0x10 ? 0x80 : 0x40); ++b) {
        cc608_decoder d;
        std::vector<srt_cue> unused;
        for (auto [x, y] : {std::pair{0x14, 0x20}, {0x11, 0x40}, a == 0x10 ? std::pair{b, 0} : std::pair{a, b}, {0x14, 0x2F}})
          cc608_decode_pair(d, 0, x | (__builtin_parity(x) ? 0 : 0x80), y | (__builtin_parity(y) ? 0 : 0x80), unused);
        if (d.shown[0][0].glyph != "\u00A0") add(d.shown[0][0].glyph);
      }
    }
  }
  for (const auto& f : fallbacks) m[f[0]] = f[1 + cea708];
  return {m.begin(), m.end()};
}

// The cue, the words it shows, those that start a line of its text, its wrap width, alignment (0 left, 1 centre,
// 2 right), position; its line: kind 0 auto, 1 a number (row: the number), 2 a percentage (row: the row it names,
// align 0 start, 1 centre, 2 end); when it should show and go.
struct cue_case {
  WebVTTFileEvent_v1 cue;
  std::vector<word> words;
  std::set<size_t> breaks;
  int width, h, position = -1, kind, row, align;
  int64_t shown, gone;
};

// Cue number q: its line setting cycles through auto, -16..16 and 10, 50, 90 % (each aligned three ways), its
// first glyph through the set.
cue_case make_cue(std::mt19937& rng, const std::vector<token>& tokens, int q, int64_t start) {
  const auto pick = [&](int n) { return static_cast<int>(rng() % static_cast<unsigned>(n)); };
  cue_case k;
  k.cue.start = std::chrono::milliseconds(start), k.cue.end = std::chrono::milliseconds(start + 5000 + pick(3000));
  std::map<std::string, std::string>& s = k.cue.settings;
  const int l = q % 43, a = pick(6), tenths = pick(3) ? 30 + pick(971) : 1000;
  k.kind = l == 0 ? 0 : l < 34 ? 1 : 2, k.row = k.kind == 1 ? l - 17 : (l - 34) / 3 * 7 + 1, k.align = k.kind == 2 ? (l - 34) % 3 : 0;
  if (k.kind) s["line"] = k.kind == 1 ? std::to_string(k.row) : std::to_string(10 + (l - 34) / 3 * 40) + "%" + std::array{"", ",center", ",end"}[k.align];
  if (a) s["align"] = std::array{"", "start", "left", "center", "end", "right"}[a];
  k.h = "100122"[a] - '0', k.width = std::max(1, tenths * 32 / 1000);
  if (tenths < 1000) s["size"] = std::to_string(tenths / 10) + "." + std::to_string(tenths % 10) + "%";
  if (pick(3) == 0) k.h = pick(3), k.position = pick(101), s["position"] = std::to_string(k.position) + "%," + std::array{"line-left", "center", "line-right"}[k.h];
  for (int w = 0, budget = 20, words = 1 + pick(8); w < words && budget > 0; ++w) {
    const int target = pick(8) ? 1 + pick(std::min(k.width, 6)) : k.width;  // sometimes a word as wide as a row
    word shown{"", pick(3) == 0};
    std::string text;
    for (int last = -1, width = 0; width < target && budget > 0; --budget) {
      int t = w == 0 && last < 0 ? q % static_cast<int>(tokens.size()) : pick(static_cast<int>(tokens.size()));
      if (t == last || width + cells(tokens[t].second) > target) t = 0;  // "!"
      if (t == last || width + cells(tokens[t].second) > target) break;
      text += tokens[t].first, shown.text += tokens[t].second, width += cells(tokens[t].second), last = t;
    }
    if (text.empty()) break;
    const int sep = w ? pick(10) : 2;
    if (sep == 0) k.breaks.insert(k.words.size());
    k.cue.text += (w ? sep == 0 ? "\n" : sep == 1 ? "\t" : " " : "") + (shown.italic ? "<i>" + text + "</i>" : text);
    k.words.push_back(shown);
  }
  return k;
}

int64_t frame(int64_t ms) { return (60 * ms + 1001) / 2002; }  // the nearest frame at 29.97 fps
int64_t key(int64_t f) { return (2002 * f + 30) / 60; }

// What is wrong with caption c shown for cue k; "" when nothing.
std::string check(const caption& c, const cue_case& k, bool cea708) {
  std::vector<word> got;
  std::set<size_t> row_starts;
  for (size_t i = 0; i < c.rows.size(); ++i) {
    const shown_row& r = c.rows[i];
    int words = -1;
    for (const word& w : r.words) words += 1 + cells(w.text);
    const int w = r.last - r.first + 1, room = c.columns - w, a = (k.position * 32 + 50) / 100, h = k.h;
    const std::string at = "row " + std::to_string(i) + ": ";
    if (r.row != c.top + static_cast<int>(i) || r.width != words || r.width > k.width) return at + "misplaced, spaced wrongly or too wide";
    // A 608 row starting in italics at column 0 may take the cell its mid-row code would have used.
    if (k.position >= 0 && !cea708 ? std::abs(r.first - std::clamp(h == 0 ? a : h == 2 ? a - w : a - w / 2, 0, room)) > (r.first == 0 && r.words[0].italic)
                                   : h == 0 ? r.first != 0 : h == 2 ? r.last != c.columns - 1 : std::abs(2 * r.first - room) > 1)
      return at + "in columns " + std::to_string(r.first) + ".." + std::to_string(r.last) + " of " + std::to_string(c.columns);
    if (i > 0 && !k.breaks.count(got.size()) && c.rows[i - 1].width + 1 + cells(r.words.front().text) <= k.width) return at + "broken early";
    row_starts.insert(got.size());
    got.insert(got.end(), r.words.begin(), r.words.end());
  }
  if (got.size() > k.words.size() || !std::equal(got.begin(), got.end(), k.words.begin())) return "other words";
  if (got.size() < k.words.size() && c.rows.size() != 4) return "words missing";  // rows past the fourth are dropped
  for (size_t b : k.breaks)
    if (b < got.size() && !row_starts.count(b)) return "a line break lost";
  const int n = c.rows.size(), v = k.row;
  const int top = k.kind == 1 ? (v >= 0 ? v + 1 : 17 + v - n) : k.kind == 2 ? v - (k.align == 1 ? (n - 1) / 2 : k.align ? n - 1 : 0) : 16 - n;
  if (c.top != std::clamp(top, 1, 16 - n)) return "top row " + std::to_string(c.top);
  const bool bottom = k.kind == 0 || v < 0 || (k.kind == 2 && v >= 8);  // line auto, negative or 50% and more
  if (cea708 && (c.point != (bottom ? 6 : 0) + k.h || c.anchor_h != (k.position >= 0 ? std::min(k.position, 99) : k.h * 50 - (k.h == 2))))
    return "window anchored wrongly";
  return c.start != k.shown || c.end != k.gone ? "shown at the wrong time" : "";
}

// Runs of four cues, each run converted with one context as the relay does it,
// read back and checked cue by cue.
void check_target(bool cea708) {
  std::mt19937 rng(cea708 ? 708 : 608);
  std::vector<std::string> problems;
  const std::vector<token> tokens = tokens_for(cea708);
  for (int run = 0, q = 0, failures = 0; run < 120 && failures < 5; ++run) {
    WebVTTConvContext_v1 ctx = webvtt_conv_context_start();
    cc608_map all608, out608;
    cc708_map all708, out708;
    std::vector<cue_case> cues;
    for (int64_t i = 0, t = 5000; i < 4; ++i, ++q) {
      cue_case& k = cues.emplace_back(make_cue(rng, tokens, q, t));
      const vtt_cue_map m = {{k.cue.start, k.cue}};
      if (cea708) WebVTTTo708(out708, {1000, 1}, false, {}, m.begin(), m.end(), 1, ctx, {30000, 1001});
      else WebVTTTo608(out608, {1000, 1}, false, {}, m.begin(), m.end(), 1, ctx);
      all608.merge(out608), all708.merge(out708);  // what is left shares a frame with an earlier cue
      if (!out608.empty() || !out708.empty()) problems.push_back("two cues share a frame");
      // Shown in its start frame; after a cue ending there, a frame later (708) or two (608, after the erase).
      const int64_t s = frame(t), prev = i ? frame(cues[i - 1].cue.end.count()) : -9;
      k.shown = key(cea708 ? (s == prev ? s + 1 : s) : std::max(s, prev + 2)), k.gone = key(frame(k.cue.end.count()));
      if (i) cues[i - 1].gone = std::min(cues[i - 1].gone, k.shown);
      // Back to back, a frame apart, seconds apart; in CEA-708 also replacing the cue before its end.
      t = k.cue.end.count() + std::array<int64_t, 4>{0, 33, 3000, -2000}[rng() % (cea708 ? 4 : 3)];
    }
    const std::vector<caption> got = cea708 ? read_708(all708, problems) : read_608(all608, problems);
    for (size_t i = 0; i < cues.size(); ++i) {
      const std::string why = i < got.size() ? check(got[i], cues[i], cea708) : "not shown";
      std::string settings;
      for (const auto& [name, value] : cues[i].cue.settings) settings += name + ":" + value + " ";
      EXPECT_EQ(why, "") << (cea708 ? 708 : 608) << ", run " << run << ", cue " << i << ": " << settings << "'" << cues[i].cue.text << "'";
      failures += !why.empty();
    }
    EXPECT_EQ(got.size(), cues.size()) << "run " << run;
  }
  EXPECT_EQ(problems, std::vector<std::string>{});
}

TEST(CeaConverters, Cea608AsTheDecoderShowsIt) { check_target(false); }
TEST(CeaConverters, Cea708AsTheDtvccReaderShowsIt) { check_target(true); }

}  // namespace
