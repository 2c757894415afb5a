// The set-up watch: while the input is opened and its streams are read, a
// source that sends too little makes FFmpeg's call fail (an interrupt), so
// the run ends through the usual set-up messages instead of by SIGALRM.
// Contract: start_setup_watch on a fresh input context before
// avformat_open_input; end_setup_watch once the stream information is read,
// after which the watch never interrupts and the relay loop's watchdog
// alone guards the run.
#pragma once

#include <cstdint>

struct AVFormatContext;

// The watch interrupts once fewer than setup_least_bytes have been read in
// watchdog_seconds. An input that does its own I/O (rtsp://) shows no bytes:
// for it the watch is a limit on the whole set-up.
constexpr int64_t setup_least_bytes = 1024;

void start_setup_watch(AVFormatContext* ctx);
void end_setup_watch(AVFormatContext* ctx);

// True once the watch has interrupted the set-up.
bool setup_watch_fired();

// Called over and over while the run is being set up (the RTSP probe's
// transfers, the watch's interrupt callback): about once a second it looks
// whether standard output's reader is still there, and if it has gone, ends
// the process as the relay loop does then, by SIGPIPE (after a message).
void end_setup_if_client_gone();
