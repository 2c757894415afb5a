// The RTSP answer readers over an arbitrary response capture (what libcurl
// left in the temporary file), and the line functions under them: status
// line, header line and the Public header's method list.
//
// Checked beyond memory safety: every piece a parser hands back lies inside
// the line it was given; header names hold no ':', Public tokens no ',' and
// no leading space; DESCRIBE's line list is empty after a failure, and its
// lines carry no line end.
#include <cstdint>

#include "fuzz/fuzz_support.h"
#include "v2/rtsp/rtsp.h"
#include "v2/rtsp/rtsp_lines.h"

namespace {

bool inside(const char* p, const std::vector<char>& buf) {
  return p >= buf.data() && p < buf.data() + buf.size();
}

void check_line_functions(const std::string& text) {
  std::vector<char> buf(text.begin(), text.end());
  buf.push_back('\0');
  rtsp_status status;
  parse_status_line(buf.data(), status);
  FUZZ_CHECK(inside(status.protocol, buf) && inside(status.reason, buf));
  FUZZ_CHECK(strchr(status.protocol, ' ') == nullptr);
  status_is_good(status);

  buf.assign(text.begin(), text.end());
  buf.push_back('\0');
  char* name = nullptr;
  char* value = nullptr;
  if (split_header_line(buf.data(), name, value) != 0) {
    FUZZ_CHECK(memchr(buf.data(), ':', strlen(buf.data())) == nullptr);
    return;
  }
  FUZZ_CHECK(inside(name, buf) && inside(value, buf));
  FUZZ_CHECK(strchr(name, ':') == nullptr);

  rtsp_methods methods;
  for (const char* token : split_public_value(value)) {
    FUZZ_CHECK(inside(token, buf));
    FUZZ_CHECK(strchr(token, ',') == nullptr);
    FUZZ_CHECK(token[0] != ' ');
    note_public_method(token, methods);
  }
  methods_complete(methods);
}

// A read-only stream over the capture bytes; fmemopen wants at least one byte.
FILE* open_capture(const uint8_t* data, size_t size, std::vector<uint8_t>& keep) {
  keep.assign(data, data + size);
  if (keep.empty()) return fmemopen(const_cast<char*>(""), 1, "r");  // reads as an empty line
  return fmemopen(keep.data(), keep.size(), "r");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz_quiet_stderr();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  for (const std::string& line : fuzz_split_lines(data, size)) check_line_functions(line);

  std::vector<uint8_t> keep;
  if (FILE* f = open_capture(data, size, keep)) {
    read_options_answer(f);
    fclose(f);
  }
  if (FILE* f = open_capture(data, size, keep)) {
    std::vector<std::string> lines = {"left over from before"};
    const int r = read_describe_answer(f, lines);
    fclose(f);
    if (r != 0) FUZZ_CHECK(lines.empty());
    for (const std::string& l : lines) {
      FUZZ_CHECK(l.find('\n') == std::string::npos);
      FUZZ_CHECK(l.empty() || l.back() != '\r');
    }
  }
  if (FILE* f = open_capture(data, size, keep)) {
    read_setup_answer(f);
    fclose(f);
  }
  return 0;
}
