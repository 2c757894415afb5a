// CueSettingsStringToVTTFileEvent over arbitrary settings strings.
//
// Checked: the old settings are gone; no name holds a ':' or starts with a
// blank or ends with a space; no value holds a space or starts with a blank;
// nothing past the first NUL is read; there are no more pairs than colons.
#include <algorithm>
#include <cstdint>

#include "fuzz/fuzz_support.h"
#include "v2/captions/captions.h"

namespace {

bool blank(char c) { return c == ' ' || c == '\t'; }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string s(reinterpret_cast<const char*>(data), size);
  WebVTTFileEvent cue;
  cue.settings["\x01left over"] = "from before";
  cue.text = "kept";
  CueSettingsStringToVTTFileEvent(cue, s);

  FUZZ_CHECK(cue.text == "kept" && (cue.settings.count("\x01left over") == 0 || s.find("\x01left over") != std::string::npos));
  const std::string upto_nul = s.substr(0, s.find('\0'));
  const size_t colons = static_cast<size_t>(std::count(upto_nul.begin(), upto_nul.end(), ':'));
  FUZZ_CHECK(cue.settings.size() <= colons);
  for (const auto& [name, value] : cue.settings) {
    FUZZ_CHECK(name.find(':') == std::string::npos && name.find('\0') == std::string::npos &&
               (name.empty() || (!blank(name.front()) && name.back() != ' ')));
    FUZZ_CHECK(value.find(' ') == std::string::npos && value.find('\0') == std::string::npos &&
               (value.empty() || !blank(value.front())));
    FUZZ_CHECK(upto_nul.find(name) != std::string::npos && upto_nul.find(value) != std::string::npos);
  }
  return 0;
}
