#include <gtest/gtest.h>

#include <algorithm>

#include "tests/unit/captions/caption_test_util.h"
#include "v2/captions/caption_event_reader.h"

namespace {

VPVTTEvent typical_event() {
  VPVTTEvent ev = make_event(1000, 3000, "Hello,\nworld");
  ev.identifier = "cue-1";
  ev.settings = {{"align", "start"}, {"line", "90%"}};
  ev.cc608 = {{534, pair_of(0x94, 0x20)}, {1001, pair_of(0x94, 0x2F)}};
  ev.cc708 = {{934, {word_of(0xFF, 0x143F), word_of(0xFE, 0x8CFF)}}, {3003, {word_of(0xFF, 0x8222)}}};
  return ev;
}

// A 2-packet event, then the typical event in one packet.
bytes two_events() {
  vtt_ts_continuity = 0;
  bytes stream = encode(make_event(0, 1, std::string(200, 'a')));
  const bytes second = encode(typical_event());
  stream.insert(stream.end(), second.begin(), second.end());
  return stream;
}

caption_read_output read_stream(const bytes& stream) {
  caption_stream_reader r;
  caption_read_output out;
  for (size_t i = 0; i + 188 <= stream.size(); i += 188) caption_reader_take(r, stream.data() + i, out);
  caption_reader_finish(r, out);
  return out;
}

TEST(CaptionReader, ReportsDamageAndGoesOn) {
  const struct {
    const char* name;
    void (*damage)(bytes& stream);
    size_t events;
    const char* problem;  // the start of one of the problems reported
  } cases[] = {
      {"dropped continuation", [](bytes& s) { s.erase(s.begin() + 188, s.begin() + 376); }, 1,
       "caption continuity counter 2, expected 1"},
      {"dropped event start", [](bytes& s) { s.erase(s.begin(), s.begin() + 188); }, 1,
       "caption packet without an event start"},
      {"length past the end marks", [](bytes& s) { s[376 + 15] += 1; }, 1,
       "caption event malformed: 1 bytes after the CEA-708 end mark"},
      {"stream ends inside an event", [](bytes& s) { s.resize(188); }, 0, "caption event incomplete: 171 of 232"},
      {"other PIDs are ignored", [](bytes& s) { s.insert(s.begin() + 188, 188, 0x47); }, 2, nullptr},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    bytes stream = two_events();
    c.damage(stream);
    const caption_read_output out = read_stream(stream);
    EXPECT_EQ(out.events.size(), c.events);
    if (!c.problem) {
      EXPECT_TRUE(out.problems.empty());
      continue;
    }
    EXPECT_TRUE(std::any_of(out.problems.begin(), out.problems.end(),
                            [&](const std::string& p) { return p.rfind(c.problem, 0) == 0; }))
        << (out.problems.empty() ? "no problem reported" : out.problems.front());
  }
}

}  // namespace
