// CEA-708 converter: window definition, service blocks and packets, the
// worked example, sequence numbers across cues and scheduling.
#include <gtest/gtest.h>

#include <cstdio>

#include "tests/unit/cea/cea_test_util.h"
#include "tolm_utils/cea708.h"

using namespace tolm_cc;
using namespace cea_test;

namespace {

std::string word_text(const q7ro_cea708_word& w) {
  char buf[16];
  snprintf(buf, sizeof buf, "%02X %04X", w.type, w.value);
  return buf;
}

std::vector<uint8_t> atom_bytes(const std::vector<dtvcc_atom>& atoms) {
  std::vector<uint8_t> v;
  for (const dtvcc_atom& a : atoms) v.insert(v.end(), a.b, a.b + a.len);
  return v;
}

}  // namespace

TEST(Cea708Window, DefinitionAndRowOffsetsFollowTheSettings) {
  const struct {
    const char* name;
    std::map<std::string, std::string> settings;
    std::string text;
    const char* want_df;   // DFw parameters p1..p6
    const char* want_spl;  // SPL row/column pairs
  } cases[] = {
      {"default: bottom centre", {}, "Hello, world", "18 E3 32 70 0B 09", "00 00"},
      {"two rows centred in the window", {}, "abcd\nab", "18 E3 32 71 03 09", "00 00 01 01"},
      {"left aligned", {{"align", "start"}}, "abcd\nab", "18 E3 00 61 03 09", "00 00 01 00"},
      {"right aligned", {{"align", "end"}}, "abcd\nab", "18 E3 63 81 03 09", "00 00 01 02"},
      {"line 0 hangs from the top", {{"line", "0"}}, "abc", "18 80 32 10 02 09", "00 00"},
      {"line 4: top row 5", {{"line", "4"}}, "abc", "18 9A 32 10 02 09", "00 00"},
      {"line -3: bottom row 13", {{"line", "-3"}}, "abc", "18 D5 32 70 02 09", "00 00"},
      {"line 10%: top", {{"line", "10%"}}, "abc", "18 80 32 10 02 09", "00 00"},
      {"line 90%: bottom", {{"line", "90%"}}, "abc", "18 E3 32 70 02 09", "00 00"},
      {"position 10% line-left", {{"position", "10%,line-left"}}, "abc", "18 E3 0A 60 02 09", "00 00"},
      {"position 80% follows align end", {{"position", "80%"}, {"align", "end"}}, "abc",
       "18 E3 50 80 02 09", "00 00"},
  };
  for (const auto& c : cases) {
    const cue_box box = parse_cue_box(c.settings);
    const caption_layout lay = layout_cue_text(c.text, box_wrap_width(box), cc_target::cea708, {});
    const std::vector<dtvcc_atom> atoms = build_708_load(lay, box, 0, false);
    ASSERT_FALSE(atoms.empty()) << c.name;
    ASSERT_EQ(atoms[0].len, 7) << c.name;
    EXPECT_EQ(atoms[0].b[0], 0x98) << c.name;
    EXPECT_EQ(hex(std::vector<uint8_t>(atoms[0].b + 1, atoms[0].b + 7)), c.want_df) << c.name;
    std::vector<uint8_t> spl;
    for (const dtvcc_atom& a : atoms)
      if (a.b[0] == 0x92) spl.insert(spl.end(), a.b + 1, a.b + 3);
    EXPECT_EQ(hex(spl), c.want_spl) << c.name;
  }
}

TEST(Cea708Window, ItalicsToggleThePenAcrossRows) {
  const caption_layout lay = layout_cue_text("<i>ab</i>\ncd", 32, cc_target::cea708, {});
  cue_box box;
  box.align = h_align::left;
  const std::vector<uint8_t> v = atom_bytes(build_708_load(lay, box, 1, false));
  // DF1 SWA SPA SPC, then SPL 0 0, SPA italic, "ab", SPL 1 0, SPA normal, "cd", ETX.
  const std::vector<uint8_t> tail(v.begin() + 19, v.end());
  EXPECT_EQ(v[0], 0x99);
  EXPECT_EQ(hex(tail), "92 00 00 90 05 80 61 62 92 01 00 90 05 00 63 64 03");
}

TEST(Cea708Packets, BlocksAndPacketsKeepTheirLimits) {
  // Four full rows with italics and EXT1 characters: several packets.
  std::string text;
  for (int r = 0; r < 4; ++r) text += "<i>abc</i> \u2026defghij\u2122 klmnopq rstuvwx\n";
  const caption_layout lay = layout_cue_text(text, 32, cc_target::cea708, {});
  ASSERT_EQ(lay.rows.size(), 4u);
  const std::vector<dtvcc_atom> atoms = build_708_load(lay, cue_box{}, 0, true);
  const std::vector<dtvcc_payload> packets = pack_service_blocks(atoms, 1);
  ASSERT_GE(packets.size(), 2u);
  std::vector<uint8_t> joined;
  for (size_t i = 0; i < packets.size(); ++i) {
    const dtvcc_payload& p = packets[i];
    EXPECT_LE(p.len, 127) << "packet " << i;
    int pos = 0;
    while (pos < p.len) {
      const int header = p.data[pos];
      EXPECT_EQ(header >> 5, 1) << "service number, packet " << i;
      const int size = header & 0x1F;
      EXPECT_GE(size, 1);
      EXPECT_LE(size, 31);
      ASSERT_LE(pos + 1 + size, p.len) << "block overruns packet " << i;
      int q = pos + 1;
      while (q < pos + 1 + size) q += dtvcc_code_length(p.data[q]);
      EXPECT_EQ(q, pos + 1 + size) << "a command crosses a block end in packet " << i;
      joined.insert(joined.end(), p.data + pos + 1, p.data + pos + 1 + size);
      pos += 1 + size;
    }
  }
  EXPECT_EQ(joined, atom_bytes(atoms)) << "blocks carry every atom, in order";
}

TEST(Cea708Converter, WorkedExampleByteForByte) {
  WebVTTConvContext_v1 ctx = webvtt_conv_context_start();
  const cc708_map out = to708(cue(1000, 3000, "Hello, world"), ctx);
  const std::map<uint64_t, std::vector<std::string>> want = {
      {934, {"FF 143F", "FE 8CFF", "FE 9818", "FE E332", "FE 700B", "FE 0997", "FE 0000", "FE 0C00",
             "FE 9005", "FE 0091"}},
      {968, {"FE 2A00", "FE 0092", "FE 0000", "FE 4865", "FE 6C6C", "FE 6F2C", "FE 2026", "FE 776F",
             "FE 726C", "FE 6403"}},
      {1001, {"FF 4222", "FE 8901"}},
      {3003, {"FF 8222", "FE 8C01"}},
  };
  std::map<uint64_t, std::vector<std::string>> got;
  for (const auto& [k, words] : out)
    for (const q7ro_cea708_word& w : words) got[k].push_back(word_text(w));
  EXPECT_EQ(got, want);
}

TEST(Cea708Converter, SequenceNumbersRunOnInTransmissionOrder) {
  // Back to back: the second cue's load goes out before the first cue's end
  // packet, so it is padded to four packets numbered from that end packet's
  // own number.
  WebVTTConvContext_v1 ctx = webvtt_conv_context_start();
  cc708_map merged = to708(cue(1000, 3000, "Hello, world"), ctx);
  const cc708_map b = to708(cue(3000, 5000, "Hello, world"), ctx);
  for (const auto& [k, w] : b) {
    ASSERT_EQ(merged.count(k), 0u) << "key collision at " << k;
    merged[k] = w;
  }
  bool broken = false;
  const std::vector<dtvcc_packet_read> packets = read_packets(merged, broken);
  EXPECT_FALSE(broken);
  std::vector<std::pair<uint64_t, int>> got;
  for (const dtvcc_packet_read& p : packets) got.emplace_back(p.key, p.seq);
  const std::vector<std::pair<uint64_t, int>> want = {
      {key_of(28), 0}, {key_of(30), 1},                                    // A load, A show
      {key_of(88), 2}, {key_of(89), 3}, {key_of(89), 0}, {key_of(89), 1},  // B load, nulls
      {key_of(90), 2}, {key_of(91), 3}, {key_of(150), 0}};                 // A end, B show, B end
  EXPECT_EQ(got, want);
  EXPECT_EQ(packets[3].size_code, 1) << "null packets";
}

namespace {

// The service-block bytes of the packets whose first word is at `key`.
std::vector<uint8_t> commands_at(const cc708_map& m, uint64_t key) {
  bool broken;
  std::vector<uint8_t> v;
  for (const dtvcc_packet_read& p : read_packets(m, broken))
    if (p.key == key) v.insert(v.end(), p.bytes.begin() + 1, p.bytes.end());  // skip block header
  return v;
}

}  // namespace

TEST(Cea708Schedule, ShowEndAndWindowsAcrossCues) {
  const struct {
    const char* name;
    std::vector<std::pair<int64_t, int64_t>> cues;
    int64_t want_show_frame;  // of the last cue
    const char* want_show;    // its show commands
    int64_t want_end_frame;
    const char* want_end;
    int want_pending;  // context afterwards
  } cases[] = {
      {"first cue", {{1000, 3000}}, 30, "89 01", 90, "8C 01", 0},
      {"second cue after the first ended uses window 1", {{1000, 3000}, {4000, 6000}}, 120, "89 02", 180,
       "8C 02", 1},
      {"back to back: show moves off the end packet's frame", {{1000, 3000}, {3000, 5000}}, 91, "89 02",
       150, "8C 02", 1},
      {"overlap hides the old window first", {{1000, 3000}, {2000, 4000}}, 60, "8A 01 89 02", 120, "8C 02",
       1},
      {"end on the pending frame moves one on", {{1000, 3000}, {2000, 3000}}, 60, "8A 01 89 02", 91,
       "8C 02", 1},
      {"nested: the outer end packet stays pending", {{1000, 5000}, {2000, 3000}}, 60, "8A 01 89 02", 90,
       "8C 02", 0},
  };
  for (const auto& c : cases) {
    WebVTTConvContext_v1 ctx = webvtt_conv_context_start();
    cc708_map last;
    for (const auto& [s, e] : c.cues) last = to708(cue(s, e, "Hi"), ctx);
    EXPECT_EQ(hex(commands_at(last, key_of(c.want_show_frame))), c.want_show) << c.name;
    EXPECT_EQ(hex(commands_at(last, key_of(c.want_end_frame))), c.want_end) << c.name;
    const int32_t pending = ctx.pending_target;  // a packed field: copied, not bound to a reference
    EXPECT_EQ(pending, c.want_pending) << c.name;
  }
}

TEST(Cea708Schedule, LateLoadsForwardAndShowsAfter) {
  const schedule_708_result r = schedule_708({20, 5}, 10, 200, false, 0, 8, 10);
  ASSERT_EQ(r.note, schedule_note::late);
  EXPECT_EQ(r.load[0].front().frame, 8);
  EXPECT_EQ(r.load[1].front().frame, 10);
  EXPECT_EQ(r.show, 11);
  EXPECT_EQ(schedule_708({20, 5}, 10, 11, false, 0, 8, 10).note, schedule_note::dropped);
}

TEST(Cea708Converter, FrameRateScalesThePacing) {
  EXPECT_EQ(dtvcc_cap_for_rate({30000, 1001}, 10), 10);
  EXPECT_EQ(dtvcc_cap_for_rate({60000, 1001}, 10), 5);
  EXPECT_EQ(dtvcc_cap_for_rate({25, 1}, 10), 10);
  EXPECT_EQ(dtvcc_cap_for_rate({1000, 1}, 10), 1);

  vtt_cue_map m;
  const WebVTTFileEvent_v1 c = cue(1000, 3000, "Hello, world");
  m.emplace(c.start, c);
  WebVTTConvContext_v1 ctx = webvtt_conv_context_start();
  cc708_map out;
  WebVTTTo708(out, {1000, 1}, false, WebVTTFile_v1{}, m.begin(), m.end(), 1, ctx, {60000, 1001});
  ASSERT_FALSE(out.empty());
  for (const auto& [k, w] : out) EXPECT_LE(w.size(), 5u) << k;
  EXPECT_EQ(out.rbegin()->first, 3003u) << "end packet on the 59.94 grid";
  EXPECT_EQ(std::next(out.rbegin())->first, 1001u) << "show packet on the 59.94 grid";
}
