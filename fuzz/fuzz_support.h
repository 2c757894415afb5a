// Shared by the fuzz targets (each includes it once): a quiet standard error
// stream, and checks that end the run as a crash (so libFuzzer keeps the
// input) with the failed expression on descriptor 2.
#pragma once

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

// The code under test writes its dumps and echoes through the C stderr
// stream; thousands of runs a second of those would bury the fuzzer's own
// report. libFuzzer and the sanitizers write to descriptor 2 directly, so
// pointing the stream elsewhere leaves their output alone.
// PELVANE_FUZZ_VERBOSE=1 keeps the program's messages.
extern "C" int LLVMFuzzerInitialize(int*, char***) {
  if (getenv("PELVANE_FUZZ_VERBOSE")) return 0;
  if (FILE* null = fopen("/dev/null", "w")) stderr = null;
  return 0;
}

[[noreturn]] inline void fuzz_fail(const char* file, int line, const char* what) {
  dprintf(2, "%s:%d: fuzz check failed: %s\n", file, line, what);
  abort();
}

#define FUZZ_CHECK(expr)                               \
  do {                                                 \
    if (!(expr)) fuzz_fail(__FILE__, __LINE__, #expr); \
  } while (0)

// Splits bytes into lines at '\n' (the '\n' removed, everything else kept,
// NUL bytes included); a last line without '\n' counts too.
inline std::vector<std::string> fuzz_split_lines(const unsigned char* data, size_t size) {
  std::vector<std::string> lines;
  size_t start = 0;
  for (size_t i = 0; i < size; ++i) {
    if (data[i] == '\n') {
      lines.emplace_back(reinterpret_cast<const char*>(data) + start, i - start);
      start = i + 1;
    }
  }
  if (start < size) lines.emplace_back(reinterpret_cast<const char*>(data) + start, size - start);
  return lines;
}
