#include <gtest/gtest.h>

#include <vector>

extern "C" {
#include <libavutil/avutil.h>
}

#include "v2/relay_rules.h"

namespace {

constexpr int64_t none = AV_NOPTS_VALUE;
constexpr int64_t top = INT64_MAX;
constexpr int64_t far = int64_t{1} << 62;

struct pkt {
  int64_t pts, dts;
  bool key;
};
struct out {
  bool written;
  int64_t pts, dts;
};

struct sequence_case {
  const char* name;
  bool audio;
  std::vector<pkt> in;
  std::vector<out> want;
};

TEST(StampRepair, Sequences) {
  const sequence_case cases[] = {
      {"dts not increasing is pushed forward, pts follows", false,
       {{100, 100, true}, {103, 100, false}, {105, 99, false}}, {{true, 100, 100}, {true, 104, 101}, {true, 108, 102}}},
      {"everything before the first key is dropped", false, {{10, 10, false}, {none, none, true}, {30, 30, true}},
       {{false, 0, 0}, {false, 0, 0}, {true, 30, 30}}},
      {"missing pts stays missing when dts moves", false, {{50, 50, true}, {none, 40, false}},
       {{true, 50, 50}, {true, none, 51}}},
      {"audio without stamps gets synthetic ones 1920 apart", true,
       {{5000, 5000, true}, {none, none, false}, {4000, 4000, true}},
       {{true, 5000, 5000}, {true, 6920, 6920}, {true, 6921, 6921}}},
      // Stamps whose repair would not fit in 64 bits: that packet is dropped, the state kept.
      {"a jump from 2^62 to -2^62 is bridged, pts-dts kept", false, {{far, far, true}, {5 - far, -far, false}},
       {{true, far, far}, {true, far + 6, far + 1}}},
      {"no dts after the largest one", false, {{top, top - 1, true}, {top, top - 1, false}, {0, top, false}},
       {{true, top, top - 1}, {false, 0, 0}, {true, 0, top}}},
      {"moved pts past the largest", false, {{0, 0, true}, {top, -5, false}, {3, 1, false}},
       {{true, 0, 0}, {false, 0, 0}, {true, 3, 1}}},
      {"no synthetic stamp past the largest", true, {{top - 1000, top - 1000, true}, {none, none, false}},
       {{true, top - 1000, top - 1000}, {false, 0, 0}}},
  };
  for (const sequence_case& c : cases) {
    stamp_state st;
    for (size_t i = 0; i < c.in.size(); ++i) {
      int64_t pts = c.in[i].pts, dts = c.in[i].dts;
      const bool written = c.audio ? repair_audio_stamps(st, pts, dts, c.in[i].key)
                                   : repair_video_stamps(st, pts, dts, c.in[i].key);
      EXPECT_EQ(written, c.want[i].written) << c.name << ", packet " << i;
      if (written) {
        EXPECT_EQ(std::make_pair(pts, dts), std::make_pair(c.want[i].pts, c.want[i].dts)) << c.name << ", packet " << i;
      }
    }
  }
}

}  // namespace
