// The subtitle rendition reader: for an HLS source, the captions FFmpeg's
// HLS reader skips. When the video's variant names a SUBTITLES group, a
// thread of its own reads that group's WebVTT rendition (its media playlist,
// reloaded while the channel is live, and each new segment) and hands whole
// cues to the relay loop through a bounded queue; the relay loop puts them on
// the relayed video's clock and passes them to ingest_cue. A slow or dead
// subtitle server never holds up the relay: the loop only ever takes what is
// already there.
//
// The driver's calls, in this order:
//   rendition_reader_open     once the input is opened, before its streams
//                             are read: the master playlist is fetched and,
//                             when all its variants share one subtitle group,
//                             reading starts at once, so that cues are at hand
//                             when the first pictures are relayed
//   rendition_reader_choose   once the streams are chosen: keeps, changes or
//                             stops the reading for the chosen video
//   rendition_reader_report   the stream report's line for the rendition
//   rendition_reader_video / rendition_reader_take   in the relay loop
//   rendition_reader_finish   at the end of the source
//   rendition_reader_stop     at the end of the run, on every way out
#pragma once

#include <cstdint>

extern "C" {
#include <libavutil/rational.h>
}

struct AVFormatContext;

// Nothing happens unless `in` is FFmpeg's HLS input and the output can carry
// caption events (MPEG-TS).
void rendition_reader_open(const AVFormatContext* in);

// Reads the rendition of the chosen video's variant, none when the source has
// a WebVTT stream of its own (vtt_index >= 0) or no video is relayed.
void rendition_reader_choose(const AVFormatContext* in, int video_index, int vtt_index);

// When a rendition is read, writes "Found VTT rendition. ..." with its name,
// language and URL to standard error and returns true.
bool rendition_reader_report();

// A picture was relayed with this presentation time (none: AV_NOPTS_VALUE).
void rendition_reader_video(int64_t pts, AVRational time_base);

// Passes the cues handed over since the last call to ingest_cue, once a
// picture has been relayed. Costs an atomic load when there are none.
void rendition_reader_take();

// At the end of the source: waits up to 2 s (less after a stop signal) for
// the thread to read a finished rendition to its end, passing on its cues,
// so that those of the source's last seconds still go out.
void rendition_reader_finish();

// Stops the reading thread and waits for it (at most about 100 ms), then
// reports how many problems were not shown.
void rendition_reader_stop();
