// The WebVTT caption path. A cue travels through these stages, in order:
//
//  1. The relay loop (v2/pelvane.cpp) hands each packet of the WebVTT stream
//     to ingest_caption_packet (caption_ingest.cpp), while a video stream is
//     relayed into MPEG-TS output. For an HLS source without a WebVTT stream
//     whose video's variant names a subtitle rendition, the first stage is
//     the rendition reader (v2/hls/) instead: a thread of its own fetches the
//     rendition's WebVTT segments and hands their cues, put on the video's
//     clock, to the relay loop, which passes each to ingest_cue.
//  2. Ingestion parses the cue settings (CueSettingsStringToVTTFileEvent,
//     cue_settings.cpp), converts the cue with WebVTTTo608 and WebVTTTo708
//     (tolm_utils/) and appends the event to vtt_event_queue, bounded in
//     records and bytes.
//  3. The output sink (v2/sink/) takes the front event whenever the muxer
//     writes whole transport packets, and splices it in front of them.
//  4. vtt_event_ts_encode (caption_encode.cpp) turns that event into packets
//     on PID 0x1FFE, in the format of caption_event_format.h, which
//     pelvane-cc reads back (v2/cc/caption_event_reader.h).
//
// Stages 1 and 2 are the producing side of the queue, 3 and 4 the consuming
// side; both run on the relay loop's thread, so the queue has no lock.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>

#include "tolm_utils/webvtt.h"
#include "v2/captions/ts_packet.h"

struct AVPacket;

// A queued caption event: the cue, then its CEA-608 pairs and CEA-708 words
// keyed by milliseconds on the cue clock.
struct VPVTTEvent : WebVTTFileEvent_v1 {
  cc608_map cc608;
  cc708_map cc708;
  size_t bytes = 0;  // memory it holds, counted when it is queued
};

// Replaces the cue's settings with the name:value pairs of `s`.
void CueSettingsStringToVTTFileEvent(WebVTTFileEvent& cue, const std::string& s);

// Events waiting for the output sink, oldest first.
extern std::deque<VPVTTEvent> vtt_event_queue;
// Above either limit the queue is cut back to its newest 256 events, fewer
// when those hold more than a quarter of the byte limit.
constexpr size_t vtt_event_queue_limit = 131072;
constexpr size_t vtt_event_queue_byte_limit = 4 << 20;
constexpr size_t vtt_event_queue_keep = 256;
constexpr size_t vtt_event_queue_keep_bytes = vtt_event_queue_byte_limit / 4;

// ---- producing side ----

// Conversion state carried from cue to cue; main sets both to their start
// value with caption_contexts_start before anything else.
extern WebVTTConvContext_v1 vtt_608_context;
extern WebVTTConvContext_v1 vtt_708_context;
void caption_contexts_start();

// Builds the event for one cue (times in milliseconds on the cue clock) and
// appends it to vtt_event_queue. Identifier, settings and text are cut to
// what one event can carry, in that order of precedence.
void ingest_cue(int64_t start_ms, int64_t end_ms, std::string_view identifier, std::string_view settings,
                std::string_view text);
// ingest_cue for one packet of the source's WebVTT stream: its times read as
// milliseconds (not rescaled), its identifier and settings from side data. A
// packet without data gives nothing.
void ingest_caption_packet(const AVPacket* pkt);

// ---- consuming side ----

// Continuity counter of PID 0x1FFE; runs across the whole output.
extern uint32_t vtt_ts_continuity;

// Encodes `ev` as 188-byte packets on PID 0x1FFE. Sets `size` to their total
// length and returns a pointer to them, valid until the next call.
const unsigned char* vtt_event_ts_encode(const VPVTTEvent& ev, size_t& size);
