#include <gtest/gtest.h>

#include "v2/captions/captions.h"

namespace {

TEST(CueSettings, ParsesPairs) {
  const struct { const char* name; std::string input; std::map<std::string, std::string> expected; } cases[] = {
      {"two pairs", "align:start line:90%", {{"align", "start"}, {"line", "90%"}}},
      {"spaces around colon", "align : start", {{"align", "start"}}},
      {"tab before colon stays in name", "align\t:start", {{"align\t", "start"}}},
      {"last pair wins", "align:start align:end", {{"align", "end"}}},
      {"tab does not end a value", "size:50%\tline:0", {{"size", "50%\tline:0"}}},
      {"colon inside value", "a:b:c", {{"a", "b:c"}}},
      {"zero byte ends the string", std::string("a:b\0c:d", 7), {{"a", "b"}}},
  };
  for (const auto& c : cases) {
    WebVTTFileEvent cue;
    cue.settings = {{"old", "1"}};  // always replaced
    CueSettingsStringToVTTFileEvent(cue, c.input);
    EXPECT_EQ(cue.settings, c.expected) << c.name;
  }
}

}  // namespace
