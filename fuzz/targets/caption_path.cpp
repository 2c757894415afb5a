// The whole caption path: WebVTT packets (payload, pts, duration, settings
// and identifier side data from the input) -> ingest_caption_packet ->
// vtt_event_queue -> my_avio_write, which splices the front event in front of
// a muxer write made of whole transport packets -> bytes on descriptor 1,
// which here is a pipe read back after every call.
//
// Muxer calls of one to three writes go out as they come or, as the relay
// writes packets, deferred to sink_flush after the call.
//
// Checked for every write: the muxer's bytes come out whole and in order,
// preceded by exactly the packets of one event when the write qualified and
// the queue was not empty (by nothing otherwise); those packets are whole
// PID 0x1FFE packets that read back as that event; the continuity counter runs
// on across the whole output. With a stop signal counted, the event still
// goes out but none of the muxer's bytes. When every muxer write is whole
// packets, the whole output is whole 188-byte packets.
#include <fcntl.h>
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include "fuzz/fuzz_support.h"
#include "v2/captions/caption_event_format.h"
#include "v2/captions/caption_event_reader.h"
#include "v2/settings.h"
#include "v2/sink/sink.h"

namespace {

int client_fd = -1;  // read end of the pipe that replaces descriptor 1

std::vector<uint8_t> take_output() {
  std::vector<uint8_t> got;
  uint8_t buf[65536];
  for (;;) {
    const ssize_t n = read(client_fd, buf, sizeof buf);
    if (n <= 0) return got;
    got.insert(got.end(), buf, buf + n);
  }
}

// Empties what the window still holds (a call returns once its bytes are in
// the window, not necessarily out).
std::vector<uint8_t> drain(my_avio_ctx& ctx) {
  std::vector<uint8_t> got;
  for (int rounds = 0; ctx.out_buffer->read != ctx.out_buffer->write && rounds < 1000; ++rounds) {
    FUZZ_CHECK(sliding_window_v4_empty_to_fd(ctx.out_buffer, sink_fd, 0) >= 0);
    const std::vector<uint8_t> more = take_output();
    got.insert(got.end(), more.begin(), more.end());
  }
  FUZZ_CHECK(ctx.out_buffer->read == ctx.out_buffer->write);
  const std::vector<uint8_t> more = take_output();
  got.insert(got.end(), more.begin(), more.end());
  return got;
}

// What one muxer write should put out.
struct expected_write {
  std::vector<uint8_t> bytes;
  bool stopping = false;
  bool splice = false;
  VPVTTEvent event;  // the front event when one is spliced
};

void add_side_data(AVPacket* pkt, AVPacketSideDataType type, const std::string& bytes) {
  uint8_t* p = av_packet_new_side_data(pkt, type, bytes.size());
  if (p && !bytes.empty()) memcpy(p, bytes.data(), bytes.size());
}

void ingest_one(FuzzedDataProvider& in) {
  AVPacket* pkt = av_packet_alloc();
  FUZZ_CHECK(pkt != nullptr);
  const std::string text = in.ConsumeIntegralInRange<int>(0, 7) == 0
                               ? std::string(in.ConsumeIntegralInRange<size_t>(0, 20000), 'W')
                               : in.ConsumeRandomLengthString(300);
  if (!text.empty() && in.ConsumeIntegralInRange<int>(0, 15) != 0) {
    FUZZ_CHECK(av_new_packet(pkt, static_cast<int>(text.size())) == 0);
    memcpy(pkt->data, text.data(), text.size());
  }
  pkt->pts =
      in.ConsumeBool() ? in.ConsumeIntegralInRange<int64_t>(0, 36000000) : in.ConsumeIntegral<int64_t>();
  pkt->duration = in.ConsumeIntegralInRange<int64_t>(-10, 10000);
  if (in.ConsumeBool()) add_side_data(pkt, AV_PKT_DATA_WEBVTT_SETTINGS, in.ConsumeRandomLengthString(100));
  if (in.ConsumeBool()) add_side_data(pkt, AV_PKT_DATA_WEBVTT_IDENTIFIER, in.ConsumeRandomLengthString(100));
  ingest_caption_packet(pkt);
  av_packet_free(&pkt);
}

// A muxer write: whole transport packets (or, sometimes, any bytes).
std::vector<uint8_t> muxer_bytes(FuzzedDataProvider& in, bool& whole) {
  std::vector<uint8_t> b;
  whole = in.ConsumeIntegralInRange<int>(0, 4) != 0;
  if (whole) {
    b.resize(ts_packet_size * in.ConsumeIntegralInRange<size_t>(0, 40));
    for (size_t i = 0; i < b.size(); ++i) b[i] = i % ts_packet_size == 0 ? 0x47 : static_cast<uint8_t>(i * 7);
  } else {
    b = in.ConsumeBytes<uint8_t>(in.ConsumeIntegralInRange<size_t>(0, 8192));
  }
  return b;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz_quiet_stderr();
  int p[2];
  if (pipe(p) != 0 || dup2(p[1], sink_fd) < 0) abort();
  close(p[1]);
  client_fd = p[0];
  fcntl(client_fd, F_SETFL, O_NONBLOCK);
  fcntl(sink_fd, F_SETPIPE_SZ, 1 << 20);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider in(data, size);
  vtt_event_queue.clear();
  vtt_608_context = webvtt_conv_context_start();
  vtt_708_context = webvtt_conv_context_start();
  stop_signal_count = 0;
  take_output();

  my_avio_ctx ctx;
  ctx.out_buffer = sliding_window_v4_create_buffer(
      in.ConsumeBool() ? sink_window_capacity : in.ConsumeIntegralInRange<unsigned long>(188, 65536));
  FUZZ_CHECK(ctx.out_buffer != nullptr);

  caption_stream_reader reader;
  caption_read_output events;
  bool all_whole = true;
  std::vector<uint8_t> output;
  for (int step = 0; step < 24 && in.remaining_bytes() > 0; ++step) {
    if (in.ConsumeBool()) {
      ingest_one(in);
      continue;
    }
    // One muxer call: one to three writes, emptied as they come or, as the
    // relay writes a packet, deferred to sink_flush after the last.
    std::vector<expected_write> writes(in.ConsumeIntegralInRange<size_t>(1, 3));
    sink_defer_emptying = in.ConsumeBool();
    for (expected_write& w : writes) {
      bool whole = false;
      w.bytes = muxer_bytes(in, whole);
      all_whole = all_whole && whole;
      w.stopping = in.ConsumeIntegralInRange<int>(0, 9) == 0;
      const size_t queued = vtt_event_queue.size();
      w.splice = queued > 0 && is_whole_ts_packets(w.bytes.data(), w.bytes.size());
      if (w.splice) w.event = vtt_event_queue.front();

      stop_signal_count = w.stopping ? 1 : 0;
      const int taken = my_avio_write(&ctx, w.bytes.data(), static_cast<int>(w.bytes.size()));
      stop_signal_count = 0;
      FUZZ_CHECK(taken == (w.stopping ? 0 : static_cast<int>(w.bytes.size())));
      FUZZ_CHECK(vtt_event_queue.size() == queued - (w.splice ? 1 : 0));
    }
    sink_defer_emptying = false;
    sink_flush(ctx);

    // The output of the call: per write, the event's packets when one was
    // spliced, then the write's own bytes (none when a stop was counted).
    const std::vector<uint8_t> got = drain(ctx);
    size_t off = 0;
    for (const expected_write& w : writes) {
      if (w.splice) {
        FUZZ_CHECK(got.size() - off >= ts_packet_size);
        const size_t length = got[off + 15] | (got[off + 16] << 8);
        const size_t packets = caption_packet_count(length);
        FUZZ_CHECK(got.size() - off >= packets * ts_packet_size);
        const size_t before = events.events.size();
        for (size_t k = 0; k < packets; ++k, off += ts_packet_size) {
          FUZZ_CHECK(got[off] == 0x47 && (got[off + 1] & 0x1F) == 0x1F && got[off + 2] == 0xFE);
          caption_reader_take(reader, got.data() + off, events);
        }
        FUZZ_CHECK(events.events.size() == before + 1);
        const caption_event_record& ev = events.events.back();
        FUZZ_CHECK(ev.start == w.event.start.count() && ev.end == w.event.end.count());
        FUZZ_CHECK(w.event.text.compare(0, ev.text.size(), ev.text) == 0);
      }
      const size_t own = w.stopping ? 0 : w.bytes.size();
      FUZZ_CHECK(got.size() - off >= own);
      FUZZ_CHECK(own == 0 || memcmp(got.data() + off, w.bytes.data(), own) == 0);
      off += own;
    }
    FUZZ_CHECK(off == got.size());
    output.insert(output.end(), got.begin(), got.end());
  }
  if (!events.problems.empty()) fuzz_fail(__FILE__, __LINE__, events.problems.front().c_str());
  if (all_whole) FUZZ_CHECK(is_whole_ts_packets(output.data(), output.size()));

  ctx.out_buffer = sliding_window_v4_destroy(ctx.out_buffer);
  alarm(0);  // the sink arms the watchdog; the fuzzer is not a relay
  vtt_event_queue.clear();
  return 0;
}
