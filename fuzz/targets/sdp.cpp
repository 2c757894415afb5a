// parse_sdp over arbitrary description lines (any bytes, NUL and CR included).
//
// Beyond "no crash, no overrun": every typed m= line yields exactly one media
// record, and the fields split at spaces never hold a space or a NUL.
#include "v2/sdp/sdp.h"

#include <cstdint>

#include "fuzz/fuzz_support.h"

namespace {

bool is_typed_m_line(const std::string& line) {
  const char* c = line.c_str();  // the parser reads each line as NUL-terminated text
  return c[0] == 'm' && c[1] == '=';
}

bool is_field(const std::string& s) {
  return s.find(' ') == std::string::npos && s.find('\0') == std::string::npos;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::vector<std::string> lines = fuzz_split_lines(data, size);
  session s;
  parse_sdp(s, lines);

  size_t m_lines = 0;
  for (const std::string& line : lines) m_lines += is_typed_m_line(line);
  FUZZ_CHECK(s.media_list.size() == m_lines);

  FUZZ_CHECK(is_field(s.c_nettype) && is_field(s.c_addrtype) && is_field(s.c_connection_address));
  for (const media& m : s.media_list) {
    FUZZ_CHECK(is_field(m.m_media) && is_field(m.m_port) && is_field(m.m_proto));
    FUZZ_CHECK(m.a_control.find('\0') == std::string::npos);
  }
  return 0;
}
