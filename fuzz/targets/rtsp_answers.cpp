// The RTSP answer readers over an arbitrary response capture (what libcurl
// left in the temporary file), and so the status, header and Public lines
// under them.
//
// Checked beyond memory safety: DESCRIBE's line list is empty after a
// failure, and its lines carry no line end.
#include <cstdint>

#include "fuzz/fuzz_support.h"
#include "v2/rtsp/rtsp_answers.h"

namespace {

// A read-only stream over the capture bytes; fmemopen wants at least one byte.
FILE* open_capture(const uint8_t* data, size_t size, std::vector<uint8_t>& keep) {
  keep.assign(data, data + size);
  if (keep.empty()) return fmemopen(const_cast<char*>(""), 1, "r");  // reads as an empty line
  return fmemopen(keep.data(), keep.size(), "r");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {

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
