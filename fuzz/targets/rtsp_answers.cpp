// The RTSP answer readers over an arbitrary response capture (what libcurl
// left in the temporary file), and so the status, header and Public lines
// under them.
//
// Checked beyond memory safety: DESCRIBE's line list is empty after a
// failure, and its lines carry no line end.
#include <cstdint>

#include "fuzz/fuzz_support.h"
#include "v2/rtsp/rtsp_answers.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::vector<uint8_t> keep(data, data + size);
  for (int reader = 0; reader < 3; ++reader) {
    // No bytes at all reads as an empty line.
    FILE* f = keep.empty() ? fmemopen(const_cast<char*>(""), 1, "r") : fmemopen(keep.data(), keep.size(), "r");
    if (f == nullptr) continue;
    std::vector<std::string> lines = {"left over from before"};
    const int r = reader == 0 ? read_options_answer(f) : reader == 1 ? read_setup_answer(f) : read_describe_answer(f, lines);
    fclose(f);
    if (reader < 2) continue;
    FUZZ_CHECK(r == 0 || lines.empty());  // description lines: no line feed, no trailing carriage return
    for (const std::string& l : lines) FUZZ_CHECK(l.find('\n') == std::string::npos && (l.empty() || l.back() != '\r'));
  }
  return 0;
}
