// The set-up watch: while the input is opened and its streams are read, a
// source that stops answering makes FFmpeg's call fail (an interrupt), so
// the run ends through the usual set-up messages instead of by SIGALRM.
// Contract: start_setup_watch on a fresh input context before
// avformat_open_input; end_setup_watch once the stream information is read,
// after which the watch never interrupts and the relay loop's watchdog
// alone guards the run.
#pragma once

struct AVFormatContext;

void start_setup_watch(AVFormatContext* ctx);
void end_setup_watch(AVFormatContext* ctx);

// True once the watch has interrupted the set-up.
bool setup_watch_fired();
