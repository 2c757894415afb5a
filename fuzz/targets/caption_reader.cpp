// pelvane-cc's reading side over arbitrary bytes: ts_split (fed in chunks
// whose size the first byte picks), caption_reader_take/finish on the
// packets, read_caption_payload on the raw bytes, and the CEA-608 decoder on
// every pair found plus the raw bytes taken as pairs; the events then go
// through the A/53 queue. Checked: no crash, no overflow, and the state a
// reader keeps stays bounded whatever arrives.
#include <algorithm>

#include "fuzz/fuzz_support.h"
#include "v2/cc/a53.h"
#include "v2/cc/caption_event_reader.h"
#include "v2/cc/cc608_decoder.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  ts_splitter s;
  std::vector<ts_packet> packets;
  std::vector<std::string> problems;
  const size_t chunk = size ? data[0] + 1u : 1;
  for (size_t i = 0; i == 0 || i < size; i += chunk) {
    ts_split(s, data + i, std::min(chunk, size - i), i + chunk >= size, packets, problems);
    FUZZ_CHECK(s.pending.size() <= 188);
  }
  FUZZ_CHECK(s.pending.empty() && packets.size() <= size / 188);

  caption_stream_reader r;
  caption_read_output out;
  for (const ts_packet& p : packets) caption_reader_take(r, p.data(), out);
  caption_reader_finish(r, out);
  FUZZ_CHECK(r.payload.size() <= 65535);
  out.events.emplace_back();
  std::string problem;
  read_caption_payload(data, size, out.events.back(), problem);

  cc608_decoder d;
  std::vector<srt_cue> cues;
  for (const caption_event_record& ev : out.events)
    for (const caption_pair_at& p : ev.cc608) cc608_decode_pair(d, p.time_ms, p.b0, p.b1, cues);
  for (size_t i = 0; i + 1 < size; i += 2) cc608_decode_pair(d, int64_t(i) * 33, data[i], data[i + 1], cues);
  cc608_decode_finish(d, cues);
  for (const srt_cue& c : cues) FUZZ_CHECK(c.text.size() <= 15 * 32 * 12);

  a53_queue q;  // the same events on their way into the video
  for (const caption_event_record& ev : out.events) a53_queue_event(q, ev, size ? int64_t(int8_t(data[0])) << 56 : 0);
  FUZZ_CHECK(a53_take_for_picture(q, INT64_MAX, {}).size() <= a53_cc_count_max);
  return 0;
}
