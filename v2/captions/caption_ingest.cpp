// Caption ingestion: one WebVTT packet of the source becomes one queued
// caption event with its CEA-608 and CEA-708 conversions.
#include <cstdio>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include "v2/captions/captions.h"

std::deque<VPVTTEvent> vtt_event_queue;
WebVTTConvContext_v1 vtt_608_context = webvtt_conv_context_start();
WebVTTConvContext_v1 vtt_708_context = webvtt_conv_context_start();

namespace {

constexpr molvar_rational<long> cue_time_unit{1000, 1};      // cue times are milliseconds
constexpr molvar_rational<long> caption_frame_rate{30000, 1001};  // 29.97 fps pacing grid
constexpr bool pop_on = false;                              // the converters' roll-up flag
constexpr unsigned caption_channel = 1;                     // CC1 / DTVCC service 1

// Side data of `type` as text; absent and empty side data both give "".
std::string side_data_text(const AVPacket* pkt, AVPacketSideDataType type) {
  size_t size = 0;
  const uint8_t* data = av_packet_get_side_data(pkt, type, &size);
  if (!data || size == 0) return {};
  return std::string(reinterpret_cast<const char*>(data), size);
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

// A queue the sink never drains (no place to splice, as with MP4 output) is
// cut back to its newest events in one go.
void limit_vtt_event_queue() {
  const size_t n = vtt_event_queue.size();
  if (n <= vtt_event_queue_limit) return;
  fprintf(stderr, "VTT event queue overrun (count=%zd)\n", static_cast<ssize_t>(n));
  vtt_event_queue.erase(vtt_event_queue.begin(), vtt_event_queue.end() - vtt_event_queue_keep);
}

}  // namespace

void ingest_caption_packet(const AVPacket* pkt) {
  if (!pkt) return;
  std::string settings = side_data_text(pkt, AV_PKT_DATA_WEBVTT_SETTINGS);
  std::string identifier = side_data_text(pkt, AV_PKT_DATA_WEBVTT_IDENTIFIER);
  if (!pkt->data || pkt->size <= 0) return;

  VPVTTEvent ev;
  // Times stay in the caption stream's time base, read as milliseconds; a
  // missing pts is kept as it is.
  ev.start = std::chrono::milliseconds(pkt->pts);
  ev.end = std::chrono::milliseconds(
      static_cast<int64_t>(static_cast<uint64_t>(pkt->pts) + static_cast<uint64_t>(pkt->duration)));
  ev.identifier = std::move(identifier);
  CueSettingsStringToVTTFileEvent(ev, settings);
  ev.text.assign(reinterpret_cast<const char*>(pkt->data), static_cast<size_t>(pkt->size));
  convert_cue(ev);

  limit_vtt_event_queue();
  vtt_event_queue.push_back(std::move(ev));
}
