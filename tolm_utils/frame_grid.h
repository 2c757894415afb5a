// The frame grid of the caption converters: where a cue's start and end
// fall, and the keys the caption data is stored under.
#pragma once

#include <cstdint>

#include "tolm_utils/webvtt.h"

namespace tolm_cc {

// Caption data sits only on a fixed frame grid anchored at time 0 of the cue
// clock. One frame lasts num/den key units: 1001/30 for milliseconds at
// 29.97 fps, so frame f has the key round(f * 1001 / 30).
struct frame_grid {
  int64_t num = 1001;
  int64_t den = 30;
};

// Cue times are clamped into [-time_limit, time_limit] key units before they
// are put on the grid, so that every key stays far inside 64 bits
// (2^61 ms is about 73 million years).
constexpr int64_t time_limit = int64_t(1) << 61;

// The grid for cue times in `unit` (ticks per second as num/den; 1000/1 for
// milliseconds) and frames at `rate` frames per second. Fails for
// non-positive or oversized terms and for frames shorter than one tick,
// which could not give every frame its own key.
bool make_frame_grid(molvar_rational<long> unit, molvar_rational<long> rate, frame_grid& g);

// A time kept in the context, as a signed key within the clamp range. Takes
// the field by value: the context is a packed record and its 64-bit fields
// may sit at any address, so no reference may be bound to them.
inline int64_t context_time(uint64_t t) { return t > uint64_t(time_limit) ? time_limit : int64_t(t); }

// Key of frame f, round half up; f >= 0.
int64_t grid_key(const frame_grid& g, int64_t f);
// Nearest frame of time t (any sign), round half up.
int64_t grid_frame(const frame_grid& g, int64_t t);
// First frame whose key is at or after t.
int64_t grid_frame_at_or_after(const frame_grid& g, int64_t t);

// Start and end frames of a cue; false (skip the cue) for FFmpeg's no-time
// start and for an end not after the start. Times are clamped to
// +-time_limit first.
bool cue_frames(const WebVTTFileEvent_v1& cue, const frame_grid& g, int64_t& s, int64_t& e);

// Whether a cue starting in frame s means the cue clock jumped back (a
// restarted source): it starts more than a minute before the point the
// context has committed to. The converters then start from a fresh context,
// so captions resume instead of every later cue being dropped as late.
bool clock_jumped(const frame_grid& g, int64_t s, const WebVTTConvContext_v1& ctx);

// How a caption's schedule turned out: shown at its start; delayed until the
// previous caption's erase is out; late, after a load that could not start
// early enough; dropped, no display time left.
enum class schedule_note : uint8_t { on_time, delayed, late, dropped };

}  // namespace tolm_cc
