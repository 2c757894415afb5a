#include "v2/cc/caption_event_json.h"

#include <cinttypes>
#include <cstdio>

namespace {

void append_hex(std::string& out, unsigned v, int digits) {
  char buf[8];
  snprintf(buf, sizeof buf, "\"%0*X\"", digits, v);
  out += buf;
}

void append_number(std::string& out, int64_t v) {
  char buf[24];
  snprintf(buf, sizeof buf, "%" PRId64, v);
  out += buf;
}

}  // namespace

std::string caption_event_json(const caption_event_record& ev) {
  std::string out = "{\"start\":";
  append_number(out, ev.start);
  out += ",\"end\":";
  append_number(out, ev.end);
  out += ",\"identifier\":" + json_string(ev.identifier);
  out += ",\"settings\":" + json_string(ev.settings);
  out += ",\"text\":" + json_string(ev.text);
  out += ",\"cc608\":[";
  for (size_t i = 0; i < ev.cc608.size(); ++i) {
    const caption_pair_at& e = ev.cc608[i];
    out += i ? ",[" : "[";
    append_number(out, e.time_ms);
    out += ',';
    append_hex(out, (e.b0 << 8) | e.b1, 4);
    out += ']';
  }
  out += "],\"cc708\":[";
  for (size_t i = 0; i < ev.cc708.size(); ++i) {
    const caption_word_at& e = ev.cc708[i];
    out += i ? ",[" : "[";
    append_number(out, e.time_ms);
    out += ',';
    append_hex(out, e.type, 2);
    out += ',';
    append_hex(out, e.value, 4);
    out += ']';
  }
  out += "]}";
  return out;
}
