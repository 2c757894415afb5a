// Encoding of one queued caption event as transport packets on PID 0x1FFE.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iterator>

#include "v2/captions/caption_event_format.h"
#include "v2/invariant.h"

uint32_t vtt_ts_continuity = 0;

namespace {

// Both areas are rebuilt by every call; the packets stay valid until the next.
unsigned char vtt_payload_area[caption_payload_area_size];
unsigned char vtt_packet_area[caption_packet_area_size];

// Neither area may ever be passed.
void check_area(const byte_writer& out) {
  const size_t w = out.pos;
  const size_t e = out.size;
  pelvane_invariant(w <= e);
}

// Bytes of a text up to its first zero byte.
size_t text_length(const std::string& s) {
  const void* nul = memchr(s.data(), 0, s.size());
  return nul ? static_cast<size_t>(static_cast<const char*>(nul) - s.data()) : s.size();
}

size_t room_before_soft_limit(const byte_writer& out) {
  return out.pos < caption_soft_limit ? caption_soft_limit - out.pos : 0;
}

uint16_t clamp_ms(uint64_t d) { return d > 65535 ? 65535 : static_cast<uint16_t>(d); }

// Lead and first running time of a section whose first key is `first_key`:
// entries before the cue start are told by the lead, the rest by steps.
// Keys and the start compare as signed, so a cue starting before 0 gets
// true entry times too.
struct section_origin {
  uint16_t lead = 0;
  int64_t base = 0;
};

section_origin origin_of(bool empty, uint64_t first_key, int64_t start) {
  section_origin o;
  o.base = start;
  const int64_t first = static_cast<int64_t>(first_key);
  if (empty || first >= start) return o;
  o.base = first;
  o.lead = clamp_ms(static_cast<uint64_t>(start) - static_cast<uint64_t>(first));
  return o;
}

// Step from `running` to `key`; steps over 65,535 ms spill into the next
// entry. running never passes key, so it cannot overflow.
uint16_t step_to(uint64_t key, int64_t& running) {
  const int64_t k = static_cast<int64_t>(key);
  if (k <= running) return 0;
  const uint16_t step = clamp_ms(static_cast<uint64_t>(k) - static_cast<uint64_t>(running));
  running += step;
  return step;
}

// Copies a name or value (up to its first zero byte) while below the soft
// limit and while the settings room lasts.
void put_setting_text(byte_writer& out, const std::string& s, size_t& room) {
  const size_t n = std::min({text_length(s), room_before_soft_limit(out), room});
  put_bytes(out, s.data(), n);
  room -= n;
}

void put_setting_byte(byte_writer& out, uint8_t c, size_t& room) {
  if (room == 0) return;
  put_u8(out, c);
  --room;
}

void write_settings(byte_writer& out, const std::map<std::string, std::string>& settings, size_t room) {
  if (out.pos < caption_soft_limit) {
    for (auto it = settings.begin(); it != settings.end(); ++it) {
      put_setting_text(out, it->first, room);
      put_setting_byte(out, ':', room);
      put_setting_text(out, it->second, room);
      if (out.pos >= caption_soft_limit || std::next(it) == settings.end()) break;
      put_setting_byte(out, ' ', room);
    }
  }
  put_u8(out, 0);
}

void write_text(byte_writer& out, const std::string& text, size_t keep) {
  const size_t n = std::min({text_length(text), room_before_soft_limit(out), keep});
  put_bytes(out, text.data(), n);
  put_u8(out, 0);
}

void write_cc608(byte_writer& out, const cc608_map& cc608, int64_t start, size_t keep) {
  const section_origin o = origin_of(cc608.empty(), cc608.empty() ? 0 : cc608.begin()->first, start);
  put_u16le(out, o.lead);
  int64_t running = o.base;
  size_t written = 0;
  for (const auto& [key, pair] : cc608) {
    if (out.pos >= caption_soft_limit || written == keep) break;
    put_u16le(out, step_to(key, running));
    put_u8(out, pair.b[0]);
    put_u8(out, pair.b[1]);
    ++written;
  }
  put_zeros(out, 4);
}

void write_cc708(byte_writer& out, const cc708_map& cc708, int64_t start, size_t keep) {
  const section_origin o = origin_of(cc708.empty(), cc708.empty() ? 0 : cc708.begin()->first, start);
  put_u16le(out, o.lead);
  int64_t running = o.base;
  size_t written = 0;
  // The soft limit is tested per key: the words of one key stay together.
  for (const auto& [key, words] : cc708) {
    if (out.pos >= caption_soft_limit || written == keep) break;
    for (const q7ro_cea708_word& word : words) {
      if (written == keep) break;
      put_u16le(out, step_to(key, running));
      put_u8(out, word.type);
      put_u16le(out, word.value);
      ++written;
    }
  }
  put_zeros(out, 5);
}

size_t settings_length(const std::map<std::string, std::string>& settings) {
  size_t n = 0;
  for (const auto& [name, value] : settings) n += text_length(name) + 1 + text_length(value);
  if (!settings.empty()) n += settings.size() - 1;
  return n;
}

}  // namespace

caption_payload_keep measure_caption_payload(const VPVTTEvent& ev) {
  caption_payload_keep full;
  full.identifier = std::min(text_length(ev.identifier), caption_identifier_max);
  full.settings = settings_length(ev.settings);
  full.text = text_length(ev.text);
  full.cc608 = ev.cc608.size();
  full.cc708 = 0;
  for (const auto& entry : ev.cc708) full.cc708 += entry.second.size();
  return full;
}

size_t caption_payload_length(const caption_payload_keep& parts) {
  return caption_payload_fixed + parts.identifier + parts.settings + parts.text + 4 * parts.cc608 +
         5 * parts.cc708;
}

caption_payload_keep plan_caption_payload(const caption_payload_keep& full, size_t limit, bool& cut) {
  cut = caption_payload_length(full) > limit;
  if (!cut) return full;
  // A caption map goes whole or not at all: part of one would leave a
  // half DTVCC packet, or pairs without the EOC or EDM that end them.
  caption_payload_keep keep = full;
  keep.cc708 = 0;
  if (caption_payload_length(keep) <= limit) return keep;
  keep.cc608 = 0;
  size_t budget = limit > caption_payload_fixed ? limit - caption_payload_fixed : 0;
  auto take = [&budget](size_t want) {
    const size_t n = std::min(want, budget);
    budget -= n;
    return n;
  };
  keep.identifier = take(full.identifier);
  keep.settings = take(full.settings);
  keep.text = take(full.text);
  return keep;
}

size_t write_caption_payload(byte_writer& out, const VPVTTEvent& ev, const caption_payload_keep& keep) {
  const int64_t start = ev.start.count();
  put_i64le(out, start);
  put_i64le(out, ev.end.count());

  const size_t id_len = std::min({text_length(ev.identifier), caption_identifier_max, keep.identifier});
  put_bytes(out, ev.identifier.data(), id_len);
  put_u8(out, 0);

  write_settings(out, ev.settings, keep.settings);
  write_text(out, ev.text, keep.text);
  write_cc608(out, ev.cc608, start, keep.cc608);
  write_cc708(out, ev.cc708, start, keep.cc708);
  // One check covers every section: the writer counts on past a refusal.
  check_area(out);
  return out.pos;
}

size_t write_caption_packets(unsigned char* area, size_t area_size, const unsigned char* payload, size_t length,
                             uint32_t& continuity) {
  byte_writer out = make_byte_writer(area, area_size);
  put_u8(out, 0x47);
  put_u8(out, 0x40 | (caption_pid >> 8));  // payload unit start
  put_u8(out, caption_pid & 0xFF);
  put_u8(out, 0x10 | (continuity & 0x0F));  // payload only
  ++continuity;
  put_bytes(out, caption_magic, caption_magic_size);
  put_u8(out, 0);
  put_u16le(out, static_cast<uint16_t>(length));

  size_t done = std::min(length, caption_first_packet_room);
  put_bytes(out, payload, done);
  while (done < length && !out.failed) {
    put_u8(out, 0x47);
    put_u8(out, caption_pid >> 8);
    put_u8(out, caption_pid & 0xFF);
    put_u8(out, 0x10 | (continuity & 0x0F));
    ++continuity;
    const size_t n = std::min(length - done, caption_next_packet_room);
    put_bytes(out, payload + done, n);
    done += n;
  }
  if (out.pos % ts_packet_size) put_zeros(out, ts_packet_size - out.pos % ts_packet_size);
  check_area(out);
  return out.pos;
}

const unsigned char* vtt_event_ts_encode(const VPVTTEvent& ev, size_t& size) {
  size = 0;
  bool cut = false;
  const caption_payload_keep keep = plan_caption_payload(measure_caption_payload(ev), caption_payload_max, cut);
  byte_writer payload = make_byte_writer(vtt_payload_area, sizeof vtt_payload_area);
  const size_t length = write_caption_payload(payload, ev, keep);
  if (cut) fprintf(stderr, "VTT event cut to %zu bytes\n", length);
  size =
      write_caption_packets(vtt_packet_area, sizeof vtt_packet_area, vtt_payload_area, length, vtt_ts_continuity);
  return vtt_packet_area;
}
