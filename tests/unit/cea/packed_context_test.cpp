// The conversion context is a packed record: the relay's contexts may sit at
// any address. A converter that binds a reference to one of its 64-bit fields
// (std::min does) reads through a misaligned reference, which the
// sanitizer build reports (found by the caption_convert fuzz target).
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <new>

#include "tests/unit/cea/cea_test_util.h"

using namespace cea_test;

namespace {

// A context at an address that is not a multiple of 8 (nor of 2).
struct odd_place {
  alignas(8) unsigned char bytes[1 + sizeof(WebVTTConvContext_v1)];
  WebVTTConvContext_v1& ctx() { return *std::launder(reinterpret_cast<WebVTTConvContext_v1*>(bytes + 1)); }
  odd_place() { new (bytes + 1) WebVTTConvContext_v1(webvtt_conv_context_start()); }
};

bool same608(const cc608_map& a, const cc608_map& b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](const auto& x, const auto& y) {
           return x.first == y.first && memcmp(&x.second, &y.second, sizeof x.second) == 0;
         });
}

bool same708(const cc708_map& a, const cc708_map& b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](const auto& x, const auto& y) {
           return x.first == y.first && x.second.size() == y.second.size() &&
                  (x.second.empty() ||
                   memcmp(x.second.data(), y.second.data(), x.second.size() * sizeof x.second[0]) == 0);
         });
}

}  // namespace

TEST(PackedContext, MisalignedContextCarriesOverLikeAnAlignedOne) {
  // Overlapping cues and a long jump: every use of the carried times.
  const WebVTTFileEvent_v1 cues[] = {cue(1000, 3000, "first"), cue(1500, 2500, "second, overlapping"),
                                     cue(200000, 201000, "after a long gap"), cue(200100, 200900, "tight")};
  WebVTTConvContext_v1 aligned608 = webvtt_conv_context_start();
  WebVTTConvContext_v1 aligned708 = webvtt_conv_context_start();
  odd_place odd608, odd708;
  ASSERT_NE(reinterpret_cast<uintptr_t>(&odd608.ctx()) % 8, 0u);
  for (size_t i = 0; i < std::size(cues); ++i) {
    SCOPED_TRACE("cue " + std::to_string(i));
    const cc608_map want608 = to608(cues[i], aligned608);
    const cc708_map want708 = to708(cues[i], aligned708);
    EXPECT_FALSE(want708.empty());  // 608 drops the nested cues (no time left after the old erase)
    EXPECT_TRUE(same608(to608(cues[i], odd608.ctx()), want608));
    EXPECT_TRUE(same708(to708(cues[i], odd708.ctx()), want708));
    EXPECT_EQ(memcmp(&odd608.ctx(), &aligned608, sizeof aligned608), 0);
    EXPECT_EQ(memcmp(&odd708.ctx(), &aligned708, sizeof aligned708), 0);
  }
}
