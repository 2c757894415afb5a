// Runs a fuzz target over its stored inputs, without libFuzzer: every file
// under the directories named on the command line is one input. Built with
// the program's own compiler as a unit test, so each build (and every
// mutation run) checks the targets' properties on those inputs; a failed
// check aborts.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv) {
  LLVMFuzzerInitialize(&argc, &argv);
  size_t inputs = 0;
  for (int i = 1; i < argc; ++i)
    for (const auto& entry : std::filesystem::recursive_directory_iterator(argv[i])) {
      if (!entry.is_regular_file()) continue;
      std::ifstream in(entry.path(), std::ios::binary);
      const std::string data{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
      LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(data.data()), data.size());
      ++inputs;
    }
  dprintf(1, "%zu inputs, every check held\n", inputs);
  return inputs > 0 ? 0 : 1;
}
