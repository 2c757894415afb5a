// Process-wide settings of a run, written only by the option loop, and the
// stop-signal count, written only by the SIGINT/SIGQUIT handler.
#pragma once

#include <csignal>
#include <string>

extern std::string source_url;
extern int max_width;   // -1: no limit
extern int max_height;  // -1: no limit
extern bool emit_mime_type;
extern bool allow_mp4;
extern bool source_is_hls;

// Read afresh by every reader; never cached across iterations.
extern volatile sig_atomic_t stop_signal_count;

// SIGINT/SIGQUIT handler: counts the signal; the tenth aborts the process.
void on_stop_signal(int sig);
