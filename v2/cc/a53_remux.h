// pelvane-cc --a53: copies the video and audio of pelvane's transport stream
// from standard input to standard output and puts the caption events of PID
// 0x1FFE into the video pictures as A/53 cc_data (see a53.h).
#pragma once

#include <cstdint>

// Runs the copy until the end of the input or SIGINT. Returns the exit
// status: 0, or 1 when the input or the output could not be set up.
int a53_remux_run();

// The 90 kHz offset that puts an event starting at `time_ms` on the clock of
// the video read back: time_ms * 90 plus the whole number of 2^33 wraps that
// brings it nearest `video_pts` (the latest video pts read), or into
// [0, 2^33) before any video has been read.
int64_t a53_clock_offset(int64_t time_ms, bool have_video, int64_t video_pts);

// Caption times beyond this (about 35 years) are refused: their 90 kHz due
// times would not be representable.
constexpr int64_t a53_time_ms_max = int64_t{1} << 40;
