// Properties of the converters over random cue sequences (a fixed generator state), and
// their behaviour on hostile input.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <new>
#include <random>

#include "tests/unit/cea/cea_test_util.h"
#include "v2/captions/cc608_decoder.h"

using namespace cea_test;

namespace {

std::vector<WebVTTFileEvent_v1> random_cues(std::mt19937& rng) {
  static const char* words[] = {"alpha", "beta",  "gamma", "delta",         "caf\xC3\xA9",
                                "ni\xC3\xB1o", "\xE2\x99\xAA", "\xC3\xBC" "ber", "x", "<i>tilt</i>"};
  static const std::map<std::string, std::string> placements[] = {
      {}, {{"line", "0"}, {"align", "start"}}, {{"line", "90%"}}, {{"position", "10%,line-left"}},
      {{"line", "-2"}, {"align", "end"}}, {{"size", "50%"}}};
  static const int64_t gaps[] = {0, 0, 40, -300, 500, 2000, -1500};
  std::vector<WebVTTFileEvent_v1> cues;
  int64_t t = 500 + static_cast<int64_t>(rng() % 2000);
  for (int i = 0; i < 8; ++i) {
    const int64_t start = t + gaps[rng() % 7];
    const int64_t dur = 300 + static_cast<int64_t>(rng() % 3000);
    std::string text;
    for (int k = 1 + static_cast<int>(rng() % 6); k > 0; --k) text += std::string(words[rng() % 10]) + " ";
    cues.push_back(cue(start, start + dur, text + "#" + std::to_string(i), placements[rng() % 6]));
    t = std::max(t, start + dur);
  }
  std::stable_sort(cues.begin(), cues.end(), [](const auto& a, const auto& b) { return a.start < b.start; });
  return cues;
}

// What a viewer reads: italics tags gone, rows and runs of spaces as one space.
std::string plain_text(const std::string& s) {
  std::string out;
  for (size_t i = 0; i < s.size(); ++i) {
    if (s.compare(i, 3, "<i>") == 0 || s.compare(i, 4, "</i>") == 0) {
      i = s.find('>', i);
      continue;
    }
    const char c = s[i] == '\n' ? ' ' : s[i];
    if (c != ' ' || (!out.empty() && out.back() != ' ')) out += c;
  }
  while (!out.empty() && out.back() == ' ') out.pop_back();
  return out;
}

bool is_code(const eia608_pair& p) { return (p.b[0] & 0x70) == 0x10; }

// Calls fn(first byte, parameters) for each command of a packet's service
// blocks; false when a command runs past its block's end.
template <typename F>
bool for_each_command(const dtvcc_packet_read& p, F fn) {
  for (size_t pos = 0; pos < p.bytes.size() && p.bytes[pos] != 0;) {
    const size_t end = pos + 1 + (p.bytes[pos] & 0x1F);
    if (end > p.bytes.size()) return false;
    size_t q = pos + 1;
    for (; q < end; q += static_cast<size_t>(dtvcc_code_length(p.bytes[q]))) fn(p.bytes[q], &p.bytes[q + 1]);
    if (q != end) return false;
    pos = end;
  }
  return true;
}

// A context at an odd address. The relay's contexts are packed records that
// may sit anywhere: a converter that binds a reference to one of their
// fields (std::min does) reads through a misaligned reference, which the
// sanitizer build reports.
struct odd_context {
  alignas(8) unsigned char bytes[1 + sizeof(WebVTTConvContext_v1)];
  odd_context() { new (bytes + 1) WebVTTConvContext_v1(webvtt_conv_context_start()); }
  WebVTTConvContext_v1& get() { return *std::launder(reinterpret_cast<WebVTTConvContext_v1*>(bytes + 1)); }
};

}  // namespace

TEST(CeaProperties, RandomCueSequences) {
  std::mt19937 rng(20240611);
  int kept608 = 0, kept708 = 0, total = 0;
  for (int run = 0; run < 300; ++run) {
    SCOPED_TRACE("run " + std::to_string(run));
    const std::vector<WebVTTFileEvent_v1> cues = random_cues(rng);
    total += static_cast<int>(cues.size());
    odd_context c608, c708;
    cc608_map all608;
    cc708_map all708;
    std::vector<std::pair<uint64_t, std::string>> want_shown;  // EOC key, text
    for (const WebVTTFileEvent_v1& c : cues) {
      const cc608_map m = to608(c, c608.get());
      for (const auto& [k, p] : m) ASSERT_TRUE(all608.emplace(k, p).second) << "608 key collision at " << k;
      const auto eoc = std::find_if(m.begin(), m.end(), [](const auto& e) { return pair_value(e.second) == 0x942F; });
      ASSERT_EQ(eoc == m.end(), m.empty());
      if (!m.empty()) {
        ++kept608;
        EXPECT_GE(frame_of(eoc->first), frame_of(static_cast<uint64_t>(std::max<int64_t>(0, c.start.count()))) - 1)
            << "shown before its start";
        want_shown.emplace_back(eoc->first, plain_text(c.text));
      }
      const cc708_map w = to708(c, c708.get());
      for (const auto& [k, words] : w) ASSERT_TRUE(all708.emplace(k, words).second) << "708 key collision at " << k;
      if (w.empty()) continue;
      ++kept708;
      // The show command displays the window the cue's load defined.
      int defined = -1, shown = -1;
      bool broken;
      for (const dtvcc_packet_read& p : read_packets(w, broken))
        for_each_command(p, [&](uint8_t cmd, const uint8_t* arg) {
          if (cmd >= 0x98 && defined < 0) defined = cmd - 0x98;
          if (cmd == 0x89 && shown < 0) shown = *arg;
        });
      ASSERT_GE(defined, 0) << c.text;
      EXPECT_EQ(shown, 1 << defined) << c.text;
    }

    // 608: every code sits in two adjacent frames with nothing between, and
    // a doubled code is never followed at once by the same code again.
    std::vector<std::pair<int64_t, eia608_pair>> seq;
    for (const auto& [k, p] : all608) seq.emplace_back(frame_of(k), p);
    for (size_t i = 0; i < seq.size(); i += is_code(seq[i].second) ? 2 : 1) {
      if (!is_code(seq[i].second)) continue;
      ASSERT_LT(i + 1, seq.size());
      EXPECT_EQ(pair_value(seq[i + 1].second), pair_value(seq[i].second)) << "frame " << seq[i].first;
      EXPECT_EQ(seq[i + 1].first, seq[i].first + 1);
      if (i + 2 < seq.size()) {
        EXPECT_NE(pair_value(seq[i + 2].second), pair_value(seq[i].second));
      }
    }
    // What a decoder shows from each EOC on is the cue's text.
    cc608_decoder decoder;
    std::vector<srt_cue> shown;
    for (const auto& [k, p] : all608) cc608_decode_pair(decoder, static_cast<int64_t>(k), p.b[0], p.b[1], shown);
    cc608_decode_finish(decoder, shown);
    for (const auto& [eoc, text] : want_shown) {
      const auto it =
          std::find_if(shown.begin(), shown.end(), [&](const srt_cue& s) { return s.start_ms == int64_t(eoc); });
      ASSERT_NE(it, shown.end()) << "nothing shown at " << eoc;
      EXPECT_EQ(plain_text(it->text), text) << "shown at " << eoc;
    }

    // 708: packets whole and never interleaved, sequence numbers continuous
    // in time order, commands whole inside service blocks, words per frame
    // within the cap plus three null packets.
    bool broken = false;
    const std::vector<dtvcc_packet_read> packets = read_packets(all708, broken);
    EXPECT_FALSE(broken);
    for (size_t i = 1; i < packets.size(); ++i)
      EXPECT_EQ(packets[i].seq, (packets[i - 1].seq + 1) & 3) << "key " << packets[i].key;
    for (const dtvcc_packet_read& p : packets)
      EXPECT_TRUE(for_each_command(p, [](uint8_t, const uint8_t*) {})) << "command split at a block end";
    for (const auto& [k, words] : all708) EXPECT_LE(words.size(), 13u) << "key " << k;
  }
  // Most cues survive the overlaps and gaps thrown at them.
  EXPECT_GT(kept608, total * 3 / 4);
  EXPECT_GT(kept708, total * 9 / 10);
}

// Arbitrary cue times, texts and arguments are fuzzed (fuzz/targets/caption_convert.cpp); these are
// the extremes fuzzing does not reach, held to the tighter bounds of one caption's data.
TEST(CeaProperties, HostileInputNeverBreaksTheOutput) {
  const struct {
    const char* name;
    int64_t start, end;
    std::string text;
  } cues[] = {
      {"top of the clock", INT64_MAX - 1000, INT64_MAX, "x"},
      {"far negative", -(int64_t(1) << 62), -(int64_t(1) << 61), "x"},
      {"huge text", 1000, 5000, std::string(1 << 20, 'w') + " " + std::string(1 << 20, '<')},
      {"huge run of spaces", 1000, 5000, "a" + std::string(1 << 22, ' ') + "b"},
  };
  for (const auto& c : cues) {
    WebVTTConvContext_v1 ctx608 = webvtt_conv_context_start(), ctx708 = ctx608;
    const cc608_map m = to608(cue(c.start, c.end, c.text), ctx608);
    EXPECT_LE(m.size(), 600u) << c.name;
    for (const auto& [k, p] : m) EXPECT_LE(k, uint64_t(1) << 62) << c.name;
    for (const auto& [k, words] : to708(cue(c.start, c.end, c.text), ctx708)) {
      EXPECT_LE(k, uint64_t(1) << 62) << c.name;
      EXPECT_LE(words.size(), 18u) << c.name;
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
