// h264_with_captions and mpeg2_with_captions over arbitrary access units and
// triplets. Checked: either the unit comes back unchanged, or taking one run
// of bytes out of the result gives the input back, and that run is the
// caption NAL unit or user data itself: H.264 a four-byte start code, SEI
// header 06 and, once emulation prevention is undone, 04 size B5 00 31
// <cc_data> 80, with no 00 00 00/01/02 inside; MPEG-2 00 00 01 B2 <cc_data>
// with the header marker bits set and no 00 00 01 inside; and the result is
// found to carry captions, as a53_has_captions (also run on the input as it
// came) reads it.
#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>

#include "fuzz/fuzz_support.h"
#include "v2/cc/a53.h"

namespace {

using bytes = std::vector<uint8_t>;

// Is the run of k bytes at p the caption NAL unit or user data for t?
bool is_caption_block(const uint8_t* p, size_t k, bool h264, std::vector<cc_triplet> t) {
  for (cc_triplet& m : t) m.header |= h264 ? 0 : 0xF8;
  const bytes ud = a53_user_data(t);
  bytes want = h264 ? bytes{0, 0, 0, 1, 6, 4, uint8_t(ud.size() + 3), 0xB5, 0x00, 0x31} : bytes{0, 0, 1, 0xB2};
  want.insert(want.end(), ud.begin(), ud.end());
  if (h264) want.push_back(0x80);
  bytes got(p, p + 4);  // the start code; after it, emulation prevention undone
  int zeros = 0;
  for (size_t i = 4; i < k; ++i) {
    if (p[i - 2] == 0 && p[i - 1] == 0 && p[i] <= (h264 ? 2 : 1)) return false;  // a start code inside
    const bool escape = h264 && zeros >= 2 && p[i] == 3;
    if (!escape) got.push_back(p[i]);
    zeros = !escape && p[i] == 0 ? zeros + 1 : 0;
  }
  return got == want;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider in(data, size);
  const bool h264 = in.ConsumeBool();
  std::vector<cc_triplet> t(in.ConsumeIntegralInRange<size_t>(0, a53_cc_count_max));
  for (cc_triplet& c : t)
    c = {in.ConsumeIntegral<uint8_t>(), in.ConsumeIntegral<uint8_t>(), in.ConsumeIntegral<uint8_t>()};
  const bytes au = in.ConsumeRemainingBytes<uint8_t>();
  a53_has_captions(au.data(), au.size(), h264);  // any bytes at all are read without a fault
  const bytes out = h264 ? h264_with_captions(au.data(), au.size(), t) : mpeg2_with_captions(au.data(), au.size(), t);
  if (out == au) return 0;
  FUZZ_CHECK(!t.empty() && out.size() >= au.size() + 4);
  const size_t n = au.size(), k = out.size() - n;
  size_t a = 0, b = 0;  // common prefix and suffix
  while (a < n && out[a] == au[a]) ++a;
  while (b < n && out[out.size() - 1 - b] == au[n - 1 - b]) ++b;
  bool found = false;
  for (size_t p = n - b; a + b >= n && p <= a && !found; ++p) found = is_caption_block(out.data() + p, k, h264, t);
  FUZZ_CHECK(found);  // the input, with one caption block inserted somewhere
  FUZZ_CHECK(a53_has_captions(out.data(), out.size(), h264));
  return 0;
}
