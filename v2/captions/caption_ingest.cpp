// Caption ingestion: one cue, from a WebVTT packet of the source or from an
// HLS subtitle rendition, becomes one queued caption event with its CEA-608
// and CEA-708 conversions.
#include <algorithm>
#include <cstdio>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include "v2/captions/caption_event_format.h"
#include "v2/captions/captions.h"

std::deque<VPVTTEvent> vtt_event_queue;
WebVTTConvContext_v1 vtt_608_context;
WebVTTConvContext_v1 vtt_708_context;

void caption_contexts_start() {
  vtt_608_context = webvtt_conv_context_start();
  vtt_708_context = webvtt_conv_context_start();
}

namespace {

constexpr molvar_rational<long> cue_time_unit{1000, 1};           // cue times are milliseconds
constexpr molvar_rational<long> caption_frame_rate{30000, 1001};  // 29.97 fps pacing grid
constexpr bool pop_on = false;                                    // the converters' roll-up flag
constexpr unsigned caption_channel = 1;                           // CC1 / DTVCC service 1

// Identifier, settings and text together never exceed what one event
// payload carries: the encoder would cut anything longer anyway.
constexpr size_t cue_text_room = caption_payload_max - caption_payload_fixed;

// A map node's links and the allocator's own bytes, roughly.
constexpr size_t map_node_bytes = 48;

// At least the bytes vtt_event_queue holds: exact after each count, then
// grown by every event queued (the sink's removals only lower the truth).
size_t queue_bytes_bound = 0;

// Side data of `type` as text; absent side data gives "".
std::string_view side_data_text(const AVPacket* pkt, AVPacketSideDataType type) {
  size_t size = 0;
  const uint8_t* data = av_packet_get_side_data(pkt, type, &size);
  if (!data) return {};
  return std::string_view(reinterpret_cast<const char*>(data), size);
}

// `s` cut to `room` bytes, which it uses up.
std::string_view take_room(std::string_view s, size_t& room) {
  s = s.substr(0, room);
  room -= s.size();
  return s;
}

// Fills the event's cc608 and cc708 from its cue, carrying the converters'
// state over from the previous cue.
void convert_cue(VPVTTEvent& ev) {
  const WebVTTFile_v1 file;
  vtt_cue_map one_cue;
  one_cue.emplace(ev.start, static_cast<const WebVTTFileEvent_v1&>(ev));
  WebVTTTo608(ev.cc608, cue_time_unit, pop_on, file, one_cue.cbegin(), one_cue.cend(), caption_channel,
              vtt_608_context);
  WebVTTTo708(ev.cc708, cue_time_unit, pop_on, file, one_cue.cbegin(), one_cue.cend(), caption_channel,
              vtt_708_context, caption_frame_rate);
}

// Rough memory held by an event: the record, its texts and the nodes of its
// settings and caption maps.
size_t caption_event_bytes(const VPVTTEvent& ev) {
  size_t n = sizeof ev + ev.identifier.capacity() + ev.text.capacity();
  for (const auto& [name, value] : ev.settings)
    n += map_node_bytes + sizeof name + sizeof value + name.capacity() + value.capacity();
  n += ev.cc608.size() * (map_node_bytes + sizeof(cc608_map::value_type));
  for (const auto& [key, words] : ev.cc708)
    n += map_node_bytes + sizeof(cc708_map::value_type) + words.capacity() * sizeof(q7ro_cea708_word);
  return n;
}

size_t queued_bytes() {
  size_t n = 0;
  for (const VPVTTEvent& ev : vtt_event_queue) n += ev.bytes;
  return n;
}

// A queue the sink does not drain (no place to splice, or cues coming faster
// than the muxer's writes) is cut back to its newest events in one go. The
// bytes are counted only when the bound says they may be over the limit, so
// a queue the sink keeps empty costs nothing per cue.
void limit_vtt_event_queue() {
  const size_t n = vtt_event_queue.size();
  if (n <= vtt_event_queue_limit && queue_bytes_bound > vtt_event_queue_byte_limit)
    queue_bytes_bound = queued_bytes();
  if (n <= vtt_event_queue_limit && queue_bytes_bound <= vtt_event_queue_byte_limit) return;
  fprintf(stderr, "VTT event queue overrun (count=%zd)\n", static_cast<ssize_t>(n));
  size_t kept = 0;
  size_t bytes = 0;
  while (kept < std::min(n, vtt_event_queue_keep) &&
         bytes + vtt_event_queue[n - 1 - kept].bytes <= vtt_event_queue_keep_bytes)
    bytes += vtt_event_queue[n - 1 - kept++].bytes;
  vtt_event_queue.erase(vtt_event_queue.begin(), vtt_event_queue.end() - static_cast<ptrdiff_t>(kept));
  queue_bytes_bound = bytes;
}

}  // namespace

void ingest_cue(int64_t start_ms, int64_t end_ms, std::string_view identifier, std::string_view settings,
                std::string_view text) {
  size_t room = cue_text_room;
  VPVTTEvent ev;
  ev.start = std::chrono::milliseconds(start_ms);
  ev.end = std::chrono::milliseconds(end_ms);
  ev.identifier = take_room(identifier, room);
  CueSettingsStringToVTTFileEvent(ev, std::string(take_room(settings, room)));
  ev.text = take_room(text, room);
  convert_cue(ev);
  ev.bytes = caption_event_bytes(ev);

  limit_vtt_event_queue();
  queue_bytes_bound += ev.bytes;
  vtt_event_queue.push_back(std::move(ev));
}

void ingest_caption_packet(const AVPacket* pkt) {
  if (!pkt || !pkt->data || pkt->size <= 0) return;
  // Times stay in the caption stream's time base, read as milliseconds; a
  // missing pts is kept as it is.
  const int64_t end = static_cast<int64_t>(static_cast<uint64_t>(pkt->pts) + static_cast<uint64_t>(pkt->duration));
  ingest_cue(pkt->pts, end, side_data_text(pkt, AV_PKT_DATA_WEBVTT_IDENTIFIER),
             side_data_text(pkt, AV_PKT_DATA_WEBVTT_SETTINGS),
             std::string_view(reinterpret_cast<const char*>(pkt->data), static_cast<size_t>(pkt->size)));
}
