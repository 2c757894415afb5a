// Placeholder until the caption path lands: nothing is queued.
#include "v2/captions/captions.h"

std::deque<VPVTTEvent> vtt_event_queue;
WebVTTConvContext_v1 vtt_608_context;
WebVTTConvContext_v1 vtt_708_context;
uint32_t vtt_ts_continuity = 0;

void CueSettingsStringToVTTFileEvent(WebVTTFileEvent& cue, const std::string&) { cue.settings.clear(); }
void ingest_caption_packet(const AVPacket*) {}
const unsigned char* vtt_event_ts_encode(const VPVTTEvent&, size_t& size) {
  size = 0;
  return nullptr;
}
