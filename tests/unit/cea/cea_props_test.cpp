// Properties of the converters over random cue sequences (fixed seed), and
// their behaviour on hostile input.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>
#include <random>

#include "tests/unit/cea/cea_test_util.h"
#include "tolm_utils/cea_internal.h"

using namespace tolm_cc;
using namespace cea_test;

namespace {

struct random_cue {
  WebVTTFileEvent_v1 cue;
  std::string plain;  // the text as it should read on screen
};

std::vector<random_cue> random_cues(std::mt19937& rng) {
  static const char* words[] = {"alpha", "beta",  "gamma", "delta",         "caf\xC3\xA9",
                                "ni\xC3\xB1o", "\xE2\x99\xAA", "\xC3\xBC" "ber", "x", "<i>tilt</i>"};
  static const std::map<std::string, std::string> placements[] = {
      {}, {{"line", "0"}, {"align", "start"}}, {{"line", "90%"}}, {{"position", "10%,line-left"}},
      {{"line", "-2"}, {"align", "end"}}, {{"size", "50%"}}};
  static const int64_t gaps[] = {0, 0, 40, -300, 500, 2000, -1500};
  std::vector<random_cue> cues;
  int64_t t = 500 + static_cast<int64_t>(rng() % 2000);
  for (int i = 0; i < 8; ++i) {
    const int64_t start = t + gaps[rng() % 7];
    const int64_t dur = 300 + static_cast<int64_t>(rng() % 3000);
    std::string text, plain;
    const int n = 1 + static_cast<int>(rng() % 6);
    for (int k = 0; k < n; ++k) {
      const std::string w = words[rng() % 10];
      text += w + " ";
      plain += (w == "<i>tilt</i>" ? "tilt" : w) + " ";
    }
    text += "#" + std::to_string(i);
    plain += "#" + std::to_string(i);
    cues.push_back({cue(start, start + dur, text, placements[rng() % 6]), plain});
    t = std::max(t, start + dur);
  }
  std::stable_sort(cues.begin(), cues.end(),
                   [](const random_cue& a, const random_cue& b) { return a.cue.start < b.cue.start; });
  return cues;
}

bool is_code(const eia608_pair& p) { return (p.b[0] & 0x70) == 0x10; }

// A small pop-on CC1 reader: enough of the decoder model to tell what the
// screen shows after each EOC.
struct pop_on_reader {
  std::u32string mem[2][16];
  int shown = 0;
  int row = 15, col = 0;
  uint16_t last_code = 0;
  std::vector<std::pair<int64_t, std::string>> captions;  // frame of EOC, text shown

  void put(char32_t c) {
    std::u32string& r = mem[1 - shown][row];
    if (col < 0) col = 0;
    if (col > 31) col = 31;
    if (r.size() < 32) r.resize(32, U' ');
    r[col++] = c;
  }
  static char32_t basic(uint8_t b) {
    switch (b) {
      case 0x27: return U'\u2019';
      case 0x2A: return U'á';
      case 0x5C: return U'é';
      case 0x5E: return U'í';
      case 0x5F: return U'ó';
      case 0x60: return U'ú';
      case 0x7B: return U'ç';
      case 0x7C: return U'÷';
      case 0x7D: return U'Ñ';
      case 0x7E: return U'ñ';
      default: return b;
    }
  }
  std::string screen() const {
    std::string s;
    for (int r = 1; r <= 15; ++r) {
      if (!mem[shown][r].empty() && !s.empty() && s.back() != ' ') s += ' ';
      for (char32_t c : mem[shown][r]) {
        if (c == U' ' && (s.empty() || s.back() == ' ')) continue;
        std::string u;
        if (c < 0x80) u = static_cast<char>(c);
        else if (c == U'ü') u = "\xC3\xBC";
        else if (c == U'é') u = "\xC3\xA9";
        else if (c == U'ñ') u = "\xC3\xB1";
        else if (c == U'\u266A') u = "\xE2\x99\xAA";
        else u = "?";
        s += u;
      }
    }
    while (!s.empty() && s.back() == ' ') s.pop_back();
    return s;
  }
  void feed(int64_t frame, eia608_pair p) {
    const uint8_t a = p.b[0] & 0x7F, b = p.b[1] & 0x7F;
    if (!is_code(p)) {
      last_code = 0;
      if (a >= 0x20) put(basic(a));
      if (b >= 0x20) put(basic(b));
      return;
    }
    const uint16_t code = static_cast<uint16_t>((a << 8) | b);
    if (code == last_code) {  // the redundant copy
      last_code = 0;
      return;
    }
    last_code = code;
    static const int pac_rows[8][2] = {{11, 11}, {1, 2}, {3, 4}, {12, 13}, {14, 15}, {5, 6}, {7, 8}, {9, 10}};
    if (b >= 0x40) {
      row = pac_rows[a & 7][(b & 0x20) ? 1 : 0];
      col = (b & 0x10) ? ((b & 0x0E) >> 1) * 4 : 0;
    } else if (a == 0x14 && b == 0x2E) {
      for (auto& r : mem[1 - shown]) r.clear();
    } else if (a == 0x14 && b == 0x2F) {
      shown = 1 - shown;
      captions.emplace_back(frame, screen());
    } else if (a == 0x14 && b == 0x2C) {
      for (auto& r : mem[shown]) r.clear();
    } else if (a == 0x17 && b >= 0x21 && b <= 0x23) {
      col += b - 0x20;
    } else if (a == 0x11 && b < 0x30) {
      put(U' ');  // mid-row code
    } else if (a == 0x11) {
      put(b == 0x37 ? U'\u266A' : U'?');
    } else if (a == 0x12 || a == 0x13) {
      --col;
      put(a == 0x12 && b == 0x25 ? U'ü' : U'?');
    }
  }
};

}  // namespace

TEST(CeaProperties, RandomCueSequences) {
  std::mt19937 rng(20240611);
  int kept608 = 0, kept708 = 0, total = 0;
  for (int run = 0; run < 300; ++run) {
    const std::vector<random_cue> cues = random_cues(rng);
    total += static_cast<int>(cues.size());
    WebVTTConvContext_v1 c608 = webvtt_conv_context_start();
    WebVTTConvContext_v1 c708 = webvtt_conv_context_start();
    cc608_map all608;
    cc708_map all708;
    std::vector<std::pair<int64_t, std::string>> want_shown;  // EOC frame, text
    for (const random_cue& rc : cues) {
      const cc608_map m = to608(rc.cue, c608);
      int64_t eoc = -1;
      for (const auto& [k, p] : m) {
        ASSERT_EQ(all608.count(k), 0u) << "608 key collision at " << k << " run " << run;
        all608[k] = p;
        if (eoc < 0 && pair_value(p) == 0x942F) eoc = frame_of(k);
      }
      if (!m.empty()) {
        ++kept608;
        ASSERT_GE(eoc, 0);
        EXPECT_GE(eoc, frame_of(static_cast<uint64_t>(std::max<int64_t>(0, rc.cue.start.count()))) - 1)
            << "shown before its start, run " << run;
        want_shown.emplace_back(eoc, rc.plain);
      }
      const cc708_map w = to708(rc.cue, c708);
      if (!w.empty()) ++kept708;
      for (const auto& [k, words] : w) {
        ASSERT_EQ(all708.count(k), 0u) << "708 key collision at " << k << " run " << run;
        all708[k] = words;
      }
    }

    // 608: every code sits in two adjacent frames with nothing between, and
    // a doubled code is never followed at once by the same code again.
    std::vector<std::pair<int64_t, eia608_pair>> seq;
    for (const auto& [k, p] : all608) seq.emplace_back(frame_of(k), p);
    for (size_t i = 0; i < seq.size();) {
      if (!is_code(seq[i].second)) {
        ++i;
        continue;
      }
      ASSERT_LT(i + 1, seq.size()) << "run " << run;
      EXPECT_EQ(pair_value(seq[i + 1].second), pair_value(seq[i].second)) << "run " << run << " frame " << seq[i].first;
      EXPECT_EQ(seq[i + 1].first, seq[i].first + 1) << "run " << run;
      if (i + 2 < seq.size()) {
        EXPECT_NE(pair_value(seq[i + 2].second), pair_value(seq[i].second)) << "run " << run;
      }
      i += 2;
    }
    // What a decoder shows at each EOC is the cue's text.
    pop_on_reader reader;
    for (const auto& [f, p] : seq) reader.feed(f, p);
    for (const auto& [frame, text] : want_shown) {
      const auto it = std::find_if(reader.captions.begin(), reader.captions.end(),
                                   [&](const auto& c) { return c.first == frame; });
      ASSERT_NE(it, reader.captions.end()) << "run " << run;
      EXPECT_EQ(it->second, text) << "run " << run << " frame " << frame;
    }

    // 708: packets whole and never interleaved, sequence numbers continuous
    // in time order, commands whole inside service blocks, words per frame
    // within the cap plus three null packets.
    bool broken = false;
    const std::vector<dtvcc_packet_read> packets = read_packets(all708, broken);
    EXPECT_FALSE(broken) << "run " << run;
    for (size_t i = 1; i < packets.size(); ++i)
      EXPECT_EQ(packets[i].seq, (packets[i - 1].seq + 1) & 3) << "run " << run << " key " << packets[i].key;
    for (const dtvcc_packet_read& p : packets) {
      size_t pos = 0;
      while (pos < p.bytes.size() && p.bytes[pos] != 0) {
        const size_t end = pos + 1 + (p.bytes[pos] & 0x1F);
        ASSERT_LE(end, p.bytes.size()) << "run " << run;
        size_t q = pos + 1;
        while (q < end) q += static_cast<size_t>(dtvcc_code_length(p.bytes[q]));
        EXPECT_EQ(q, end) << "command split at a block end, run " << run;
        pos = end;
      }
    }
    for (const auto& [k, words] : all708) EXPECT_LE(words.size(), 13u) << "run " << run << " key " << k;
  }
  // Most cues survive the overlaps and gaps thrown at them.
  EXPECT_GT(kept608, total * 3 / 4);
  EXPECT_GT(kept708, total * 9 / 10);
}

TEST(CeaProperties, HostileInputNeverBreaksTheOutput) {
  std::string junk;
  std::mt19937 rng(7);
  for (int i = 0; i < 5000; ++i) junk += static_cast<char>(rng());
  const std::string big = std::string(1 << 20, 'w') + " " + std::string(1 << 20, '<');
  const struct {
    const char* name;
    int64_t start, end;
    std::string text;
  } cues[] = {
      {"no-time start", INT64_MIN, 1000, "x"},
      {"end before start", 2000, 1000, "x"},
      {"end equals start", 2000, 2000, "x"},
      {"top of the clock", INT64_MAX - 1000, INT64_MAX, "x"},
      {"whole clock", INT64_MIN + 1, INT64_MAX, "x"},
      {"far negative", -(int64_t(1) << 62), -(int64_t(1) << 61), "x"},
      {"random bytes", 1000, 5000, junk},
      {"huge text", 1000, 5000, big},
      {"huge run of spaces", 1000, 5000, "a" + std::string(1 << 22, ' ') + "b"},
      {"only tags", 1000, 5000, "<i><b></b></i>"},
  };
  for (const auto& c : cues) {
    for (int garbage = 0; garbage < 2; ++garbage) {
      WebVTTConvContext_v1 ctx = webvtt_conv_context_start();
      if (garbage) ctx = WebVTTConvContext_v1{0xFFFFFFFF, 7, 0x1234, UINT64_MAX, UINT64_MAX - 5};
      WebVTTConvContext_v1 ctx708 = ctx;
      const cc608_map m = to608(cue(c.start, c.end, c.text), ctx);
      const cc708_map w = to708(cue(c.start, c.end, c.text), ctx708);
      EXPECT_LE(m.size(), 600u) << c.name;
      for (const auto& [k, p] : m) EXPECT_LE(k, uint64_t(1) << 62) << c.name;
      for (const auto& [k, words] : w) {
        EXPECT_LE(k, uint64_t(1) << 62) << c.name;
        EXPECT_LE(words.size(), 18u) << c.name;
      }
    }
  }

  // Arguments the converters refuse: nothing comes out, the context stays.
  const WebVTTConvContext_v1 start_ctx = webvtt_conv_context_start();
  vtt_cue_map one;
  one.emplace(std::chrono::milliseconds(1000), cue(1000, 3000, "x"));
  const struct {
    const char* name;
    molvar_rational<long> unit, rate;
    unsigned channel;   // CC channel of the 608 call, 0: no 608 call
    unsigned service;   // DTVCC service of the 708 call, 0 refused too
  } refused[] = {
      {"zero unit", {0, 1}, {30000, 1001}, 1, 1},
      {"negative unit", {-1000, 1}, {30000, 1001}, 1, 1},
      {"zero denominator", {1000, 0}, {30000, 1001}, 1, 1},
      {"oversized unit", {long(1) << 40, 1}, {30000, 1001}, 1, 1},
      {"zero frame rate", {1000, 1}, {0, 1}, 0, 1},
      {"frames shorter than a tick", {1000, 1}, {2000, 1}, 0, 1},
      {"channel 2", {1000, 1}, {30000, 1001}, 2, 0},
      {"service 7", {1000, 1}, {30000, 1001}, 0, 7},
  };
  for (const auto& r : refused) {
    WebVTTConvContext_v1 ctx = webvtt_conv_context_start();
    cc708_map w;
    WebVTTTo708(w, r.unit, false, WebVTTFile_v1{}, one.begin(), one.end(), r.service, ctx, r.rate);
    EXPECT_TRUE(w.empty()) << r.name;
    if (r.channel != 0) {
      cc608_map m;
      WebVTTTo608(m, r.unit, false, WebVTTFile_v1{}, one.begin(), one.end(), r.channel, ctx);
      EXPECT_TRUE(m.empty()) << r.name;
    }
    EXPECT_EQ(memcmp(&ctx, &start_ctx, sizeof ctx), 0) << r.name;
  }
}

TEST(CeaProperties, ClockJumpBackRestartsTheContext) {
  // A source that restarts its clock: without the reset every later cue
  // would be "late" behind the old timeline and dropped.
  WebVTTConvContext_v1 c608 = webvtt_conv_context_start();
  WebVTTConvContext_v1 c708 = webvtt_conv_context_start();
  to608(cue(600000, 602000, "before"), c608);
  to708(cue(600000, 602000, "before"), c708);
  const cc608_map m = to608(cue(1000, 3000, "after"), c608);
  const cc708_map w = to708(cue(1000, 3000, "after"), c708);
  ASSERT_FALSE(m.empty());
  ASSERT_FALSE(w.empty());
  EXPECT_EQ(m.rbegin()->first, 3036u);
  ASSERT_GE(w.begin()->second.size(), 2u);
  EXPECT_EQ(w.begin()->second[1].value, 0x8CFF) << "the first load after the jump deletes all windows again";
}

TEST(CeaProperties, ManyCuesInOneCall) {
  // The converters also take a run of cues in one call; the result is the
  // same as converting them one by one.
  vtt_cue_map many;
  for (int i = 0; i < 5; ++i) {
    const WebVTTFileEvent_v1 c = cue(1000 + 2500 * i, 3000 + 2500 * i, "cue " + std::to_string(i));
    many.emplace(c.start, c);
  }
  WebVTTConvContext_v1 a = webvtt_conv_context_start(), b = webvtt_conv_context_start();
  cc608_map at_once, one_by_one;
  WebVTTTo608(at_once, {1000, 1}, false, WebVTTFile_v1{}, many.begin(), many.end(), 1, a);
  for (const auto& [k, c] : many)
    for (const auto& [key, p] : to608(c, b)) one_by_one[key] = p;
  EXPECT_EQ(at_once.size(), one_by_one.size());
  EXPECT_TRUE(std::equal(at_once.begin(), at_once.end(), one_by_one.begin(), [](const auto& x, const auto& y) {
    return x.first == y.first && pair_value(x.second) == pair_value(y.second);
  }));
}
