// parse_sdp over arbitrary description lines (any bytes, NUL and CR included).
//
// Beyond "no crash, no overrun": every typed m= line yields exactly one media
// record, and the fields split at spaces never hold a space or a NUL.
#include "v2/sdp/sdp.h"

#include <algorithm>
#include <cstdint>

#include "fuzz/fuzz_support.h"

// One whitespace-free field with no NUL in it.
bool is_field(const std::string& s) { return s.find(' ') == std::string::npos && s.find('\0') == std::string::npos; }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::vector<std::string> lines = fuzz_split_lines(data, size);
  session s;
  parse_sdp(s, lines);

  // One media entry per line starting "m=" (the parser reads each line as NUL-terminated text).
  FUZZ_CHECK(s.media_list.size() == size_t(std::count_if(lines.begin(), lines.end(), [](const std::string& l) {
               return l.c_str()[0] == 'm' && l.c_str()[1] == '=';
             })));

  FUZZ_CHECK(is_field(s.c_nettype) && is_field(s.c_addrtype) && is_field(s.c_connection_address));
  for (const media& m : s.media_list)
    FUZZ_CHECK(is_field(m.m_media) && is_field(m.m_port) && is_field(m.m_proto) && m.a_control.find('\0') == std::string::npos);
  return 0;
}
