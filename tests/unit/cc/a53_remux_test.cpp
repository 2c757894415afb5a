#include <gtest/gtest.h>

#include "v2/cc/a53_remux.h"

namespace {

constexpr int64_t wrap = int64_t{1} << 33;

TEST(A53Remux, ClockOffsetFollowsTheVideoAcrossWraps) {
  const struct { const char* name; int64_t time_ms; bool have_video; int64_t video_pts; int64_t offset; } cases[] = {
      {"no video yet, past one wrap", wrap / 90 + 10, false, 0, -wrap},
      {"no video yet, negative time", -10, false, 0, wrap},
      {"video wrapped, captions not", wrap / 90 + 10, true, 1000, -wrap},
      {"video unwrapped past 2^33", wrap / 90 + 10, true, wrap + 1000, 0},
      {"video read back from a wrapped start", 3 * wrap / 90, true, 500, -3 * wrap},
      {"half a wrap behind the video", 0, true, wrap / 2 - 1, 0},
      {"half a wrap ahead of the video", 0, true, wrap / 2, wrap},
  };
  for (const auto& c : cases)
    EXPECT_EQ(a53_clock_offset(c.time_ms, c.have_video, c.video_pts), c.offset) << c.name;
}

}  // namespace
