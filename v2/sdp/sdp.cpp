// The session description parser and the record dumps.
//
// A description as a server answers DESCRIBE (line terminators already
// removed by the RTSP exchange):
//
//   v=0
//   o=- 1 1 IN IP4 10.0.0.1
//   s=Live
//   c=IN IP4 239.1.1.1/64        session connection: nettype addrtype address
//   t=0 0
//   a=control:*
//   m=video 5004 RTP/AVP 33      media port proto first-format
//   a=rtpmap:33 MP2T/90000
//   a=control:trackID=1
//
// Only c=, t=, a=control and a=type are read before the first m= line, and
// only m=, a=control, a=fmtp and a=rtpmap after it. Everything else is
// skipped without a word; nothing is ever rejected.
#include "v2/sdp/sdp.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

// The first byte of a typed line is a lower-case letter and the second "=".
// Returns the type letter, or 0 for a line that is not typed.
char line_type(const char* line) {
  char t = line[0];
  if (t < 'a' || t > 'z') return 0;
  if (line[1] != '=') return 0;
  return t;
}

// Splits the value of a c=, t= or m= line at spaces (0x20 only: a tab or a
// carriage return belongs to the field it stands in).
std::vector<std::string> split_fields(const char* value) {
  std::vector<std::string> fields;
  const char* p = value;
  while (*p != '\0') {
    while (*p == ' ') ++p;
    if (*p == '\0') break;
    const char* start = p;
    while (*p != '\0' && *p != ' ') ++p;
    fields.emplace_back(start, static_cast<size_t>(p - start));
  }
  return fields;
}

// An a= line's value split at its first colon. Leading spaces are skipped;
// the name keeps any spaces before the colon, the value is taken untrimmed.
// True when the line has a name and a value, false when it is to be ignored
// (nothing after the spaces, or no colon: a flag attribute).
bool split_attribute(const char* value, std::string& name, std::string& attr_value) {
  while (*value == ' ') ++value;
  if (*value == '\0') return false;
  const char* colon = strchr(value, ':');
  if (colon == nullptr) return false;
  name.assign(value, static_cast<size_t>(colon - value));
  attr_value.assign(colon + 1);
  return true;
}

void read_session_line(session& s, char type, const char* value) {
  if (type == 'c') {
    std::vector<std::string> f = split_fields(value);
    if (f.size() > 0) s.c_nettype = f[0];
    if (f.size() > 1) s.c_addrtype = f[1];
    if (f.size() > 2) s.c_connection_address = f[2];
  } else if (type == 't') {
    std::vector<std::string> f = split_fields(value);
    if (f.size() > 0) s.t_start_time = strtoll(f[0].c_str(), nullptr, 10);
    if (f.size() > 1) s.t_end_time = strtoll(f[1].c_str(), nullptr, 10);
  } else if (type == 'a') {
    std::string name, attr_value;
    if (!split_attribute(value, name, attr_value)) return;
    if (name == "control") s.a_control = attr_value;
    else if (name == "type") s.a_type = attr_value;
  }
}

// Fills a fresh media record from the value of its m= line.
void read_media_line(media& m, const char* value) {
  std::vector<std::string> f = split_fields(value);
  if (f.size() > 0) m.m_media = f[0];
  if (f.size() > 1) m.m_port = f[1];
  if (f.size() > 2) m.m_proto = f[2];
  // strtol gives a 64-bit long; the record keeps its low 32 bits.
  if (f.size() > 3) m.m_fmt = static_cast<int32_t>(static_cast<uint32_t>(strtol(f[3].c_str(), nullptr, 10)));
}

void read_media_attribute(media& m, const char* value) {
  std::string name, attr_value;
  if (!split_attribute(value, name, attr_value)) return;
  if (name == "control") m.a_control = attr_value;
  else if (name == "fmtp") m.a_fmtp.push_back(attr_value);
  else if (name == "rtpmap") m.a_rtpmap.push_back(attr_value);
}

}  // namespace

void session::dump() const {
  fprintf(stderr, "session::dump()\n");
  fprintf(stderr, "   c_nettype:             '%s'\n", c_nettype.c_str());
  fprintf(stderr, "   c_addrtype:            '%s'\n", c_addrtype.c_str());
  fprintf(stderr, "   c_connection_address:  '%s'\n", c_connection_address.c_str());
  fprintf(stderr, "   t_start_time:          %lld\n", static_cast<long long>(t_start_time));
  fprintf(stderr, "   t_end_time:            %lld\n", static_cast<long long>(t_end_time));
  fprintf(stderr, "   a_control:             '%s'\n", a_control.c_str());
  fprintf(stderr, "   a_type:                '%s'\n", a_type.c_str());
}

void media::dump() const {
  fprintf(stderr, "media::dump()\n");
  fprintf(stderr, "   m_media:                 '%s'\n", m_media.c_str());
  fprintf(stderr, "   m_port:                  '%s'\n", m_port.c_str());
  fprintf(stderr, "   m_proto:                 '%s'\n", m_proto.c_str());
  fprintf(stderr, "   m_fmt:                   %d\n", static_cast<int>(m_fmt));
  fprintf(stderr, "   a_control:               '%s'\n", a_control.c_str());
  for (size_t i = 0; i < a_fmtp.size(); ++i)
    fprintf(stderr, "   a_fmtp[%zu]:               '%s'\n", i, a_fmtp[i].c_str());
  for (size_t i = 0; i < a_rtpmap.size(); ++i)
    fprintf(stderr, "   a_rtpmap[%zu]:             '%s'\n", i, a_rtpmap[i].c_str());
}

void parse_sdp(session& s, const std::vector<std::string>& lines) {
  // Each line is read as NUL-terminated text: an embedded NUL ends it.
  size_t next = 0;
  const char* media_value = nullptr;  // value of the m= line that opens the next section

  while (next < lines.size()) {
    const char* line = lines[next++].c_str();
    char type = line_type(line);
    if (type == 0) continue;
    if (type == 'm') {
      media_value = line + 2;
      break;
    }
    read_session_line(s, type, line + 2);
  }
  s.dump();

  while (media_value != nullptr) {
    media m;
    read_media_line(m, media_value);
    media_value = nullptr;
    while (next < lines.size()) {
      const char* line = lines[next++].c_str();
      char type = line_type(line);
      if (type == 'm') {
        media_value = line + 2;
        break;
      }
      if (type == 'a') read_media_attribute(m, line + 2);
    }
    m.dump();
    s.media_list.push_back(m);
  }
}
