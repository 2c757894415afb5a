// The frame grid of the caption converters.
#include <algorithm>
#include <climits>

#include "tolm_utils/frame_grid.h"

namespace tolm_cc {

namespace {

using i128 = __int128;

i128 floor_div(i128 a, i128 b) {  // b > 0
  i128 q = a / b;
  if (a % b != 0 && a < 0) --q;
  return q;
}

int64_t gcd64(int64_t a, int64_t b) {
  while (b != 0) {
    const int64_t t = a % b;
    a = b;
    b = t;
  }
  return a;
}

}  // namespace

bool make_frame_grid(molvar_rational<long> unit, molvar_rational<long> rate, frame_grid& g) {
  constexpr long term_cap = long(1) << 31;
  if (unit.num <= 0 || unit.den <= 0 || rate.num <= 0 || rate.den <= 0) return false;
  if (unit.num > term_cap || unit.den > term_cap || rate.num > term_cap || rate.den > term_cap) return false;
  // Frame length in ticks: (unit.num / unit.den) / (rate.num / rate.den).
  int64_t num = int64_t(unit.num) * rate.den;
  int64_t den = int64_t(unit.den) * rate.num;
  const int64_t d = gcd64(num, den);
  num /= d;
  den /= d;
  if (num < den) return false;  // frames shorter than a tick would share keys
  g.num = num;
  g.den = den;
  return true;
}

int64_t grid_key(const frame_grid& g, int64_t f) {
  return static_cast<int64_t>(floor_div(i128(2) * f * g.num + g.den, i128(2) * g.den));
}

int64_t grid_frame(const frame_grid& g, int64_t t) {
  return static_cast<int64_t>(floor_div(i128(2) * t * g.den + g.num, i128(2) * g.num));
}

int64_t grid_frame_at_or_after(const frame_grid& g, int64_t t) {
  int64_t f = grid_frame(g, t);
  while (grid_key(g, f) < t) ++f;  // at most one step: keys are rounded frame times
  return f;
}

bool cue_frames(const WebVTTFileEvent_v1& cue, const frame_grid& g, int64_t& s, int64_t& e) {
  const int64_t start = cue.start.count();
  const int64_t end = cue.end.count();
  if (start == INT64_MIN || end <= start) return false;
  s = grid_frame(g, std::clamp(start, -time_limit, time_limit));
  e = grid_frame(g, std::clamp(end, -time_limit, time_limit));
  return true;
}

bool clock_jumped(const frame_grid& g, int64_t s, const WebVTTConvContext_v1& ctx) {
  constexpr int64_t jump_frames = 1800;  // a minute at 29.97 fps
  return s < grid_frame_at_or_after(g, context_time(ctx.next_free_ms)) - jump_frames;
}

}  // namespace tolm_cc
