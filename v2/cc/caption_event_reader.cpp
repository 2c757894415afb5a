#include "v2/cc/caption_event_reader.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "v2/captions/byte_io.h"
#include "v2/captions/caption_event_format.h"

namespace {

std::string format_text(const char* fmt, unsigned long long a, unsigned long long b = 0) {
  char buf[160];
  snprintf(buf, sizeof buf, fmt, a, b);
  return buf;
}

// A zero-terminated field; false when its terminator is not inside the payload.
bool read_field(byte_reader& r, std::string& out) {
  const size_t left = reader_left(r);
  const void* nul = memchr(r.data + r.pos, 0, left);
  if (!nul) {
    r.failed = true;
    return false;
  }
  const size_t len = static_cast<size_t>(static_cast<const unsigned char*>(nul) - (r.data + r.pos));
  out.assign(reinterpret_cast<const char*>(r.data + r.pos), len);
  r.pos += len + 1;
  return true;
}

bool all_zero(const unsigned char* p, size_t n) {
  return std::all_of(p, p + n, [](unsigned char c) { return c == 0; });
}

// Times are the cue start minus the lead plus the steps so far; the sum wraps
// like the encoder's unsigned arithmetic.
int64_t advance(uint64_t& clock, uint16_t step) {
  clock += step;
  return static_cast<int64_t>(clock);
}

}  // namespace

bool read_caption_payload(const unsigned char* p, size_t n, caption_event_record& ev, std::string& problem) {
  ev = caption_event_record();
  byte_reader r = make_byte_reader(p, n);
  ev.start = get_i64le(r);
  ev.end = get_i64le(r);
  if (r.failed) {
    problem = format_text("payload of %llu bytes is shorter than its times", n);
    return false;
  }
  if (!read_field(r, ev.identifier) || !read_field(r, ev.settings) || !read_field(r, ev.text)) {
    problem = "identifier, settings or text without its zero byte";
    return false;
  }

  ev.lead608 = get_u16le(r);
  uint64_t clock = static_cast<uint64_t>(ev.start) - ev.lead608;
  for (;;) {
    if (!reader_has(r, 4)) {
      problem = "CEA-608 section without its end mark";
      return false;
    }
    if (all_zero(r.data + r.pos, 4)) {
      r.pos += 4;
      break;
    }
    caption_pair_at pair;
    pair.time_ms = advance(clock, get_u16le(r));
    pair.b0 = get_u8(r);
    pair.b1 = get_u8(r);
    ev.cc608.push_back(pair);
  }

  ev.lead708 = get_u16le(r);
  clock = static_cast<uint64_t>(ev.start) - ev.lead708;
  for (;;) {
    if (!reader_has(r, 5)) {
      problem = "CEA-708 section without its end mark";
      return false;
    }
    if (all_zero(r.data + r.pos, 5)) {
      r.pos += 5;
      break;
    }
    caption_word_at word;
    word.time_ms = advance(clock, get_u16le(r));
    word.type = get_u8(r);
    word.value = get_u16le(r);
    ev.cc708.push_back(word);
  }

  if (r.pos != n) {
    problem = format_text("%llu bytes after the CEA-708 end mark", n - r.pos);
    return false;
  }
  return true;
}

namespace {

void finish_event(caption_stream_reader& r, caption_read_output& out) {
  r.in_event = false;
  caption_event_record ev;
  std::string problem;
  if (read_caption_payload(r.payload.data(), r.payload.size(), ev, problem)) out.events.push_back(std::move(ev));
  else out.problems.push_back("caption event malformed: " + problem);
}

// Adds the payload bytes of one packet; the bytes after the event's end must
// be the zero padding.
void take_payload(caption_stream_reader& r, const unsigned char* data, size_t room, caption_read_output& out) {
  const size_t n = std::min(room, r.expected - r.payload.size());
  r.payload.insert(r.payload.end(), data, data + n);
  if (r.payload.size() < r.expected) return;
  if (!all_zero(data + n, room - n)) out.problems.push_back("non-zero padding after a caption event");
  finish_event(r, out);
}

void report_incomplete(const caption_stream_reader& r, caption_read_output& out) {
  out.problems.push_back(
      format_text("caption event incomplete: %llu of %llu bytes", r.payload.size(), r.expected));
}

}  // namespace

void caption_reader_take(caption_stream_reader& r, const unsigned char* pkt, caption_read_output& out) {
  const unsigned pid = ((pkt[1] & 0x1Fu) << 8) | pkt[2];
  if (pid != caption_pid) return;

  const uint8_t cc = pkt[3] & 0x0F;
  if (r.have_continuity && cc != r.next_continuity)
    out.problems.push_back(format_text("caption continuity counter %llu, expected %llu", cc, r.next_continuity));
  r.have_continuity = true;
  r.next_continuity = (cc + 1) & 0x0F;

  if (pkt[1] & 0x80) out.problems.push_back("caption packet with the transport error flag");
  if ((pkt[3] & 0xF0) != 0x10) {
    // Scrambled or with an adaptation field: not a packet this format makes.
    out.problems.push_back(format_text("caption packet with header byte 0x%02llX", pkt[3]));
    if (r.in_event) report_incomplete(r, out);
    r.in_event = false;
    return;
  }

  if (pkt[1] & 0x40) {
    if (memcmp(pkt + 4, caption_magic, caption_magic_size) != 0 || pkt[14] != 0) {
      out.problems.push_back("PID 0x1FFE packet without the caption magic");
      if (r.in_event) report_incomplete(r, out);
      r.in_event = false;
      return;
    }
    if (r.in_event) report_incomplete(r, out);
    r.in_event = true;
    r.expected = pkt[15] | (pkt[16] << 8);
    r.payload.clear();
    take_payload(r, pkt + 17, caption_first_packet_room, out);
    return;
  }
  if (!r.in_event) {
    out.problems.push_back("caption packet without an event start");
    return;
  }
  take_payload(r, pkt + 4, caption_next_packet_room, out);
}

void caption_reader_finish(caption_stream_reader& r, caption_read_output& out) {
  if (r.in_event) report_incomplete(r, out);
  r.in_event = false;
}

namespace {

// Whether a sync point at `j` is confirmed: the next packet also starts with
// 0x47, or this packet ends the stream. -1: more data is needed to tell.
int sync_confirmed(const std::vector<unsigned char>& b, size_t j, bool eof) {
  if (b[j] != 0x47) return 0;
  if (j + ts_packet_size < b.size()) return b[j + ts_packet_size] == 0x47;
  if (!eof) return -1;
  return j + ts_packet_size == b.size();
}

}  // namespace

void ts_split(ts_splitter& s, const unsigned char* data, size_t n, bool eof, std::vector<ts_packet>& packets,
              std::vector<std::string>& problems) {
  std::vector<unsigned char>& b = s.pending;
  b.insert(b.end(), data, data + n);
  size_t i = 0;
  while (b.size() - i >= ts_packet_size) {
    if (s.in_sync && b[i] == 0x47) {
      ts_packet pkt;
      memcpy(pkt.data(), b.data() + i, ts_packet_size);
      packets.push_back(pkt);
      i += ts_packet_size;
      continue;
    }
    if (s.in_sync) {
      s.in_sync = false;
      problems.push_back(format_text("lost sync at byte %llu", s.offset + i));
    }
    int found = 0;
    for (; i < b.size(); ++i) {
      found = sync_confirmed(b, i, eof);
      if (found != 0) break;
    }
    if (found != 1) break;
    s.in_sync = true;
    if (s.offset + i > 0) problems.push_back(format_text("sync found at byte %llu", s.offset + i));
  }
  if (eof && i < b.size()) {
    problems.push_back(format_text("%llu bytes after the last whole packet", b.size() - i));
    i = b.size();
  }
  b.erase(b.begin(), b.begin() + static_cast<std::ptrdiff_t>(i));
  s.offset += i;
}

void caption_bytes_take(caption_byte_reader& r, const unsigned char* data, size_t n, bool eof,
                        caption_read_output& out) {
  std::vector<ts_packet> packets;
  ts_split(r.splitter, data, n, eof, packets, out.problems);
  for (const ts_packet& pkt : packets) caption_reader_take(r.reader, pkt.data(), out);
  if (eof) caption_reader_finish(r.reader, out);
}
