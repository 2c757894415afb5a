#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "v2/relay_rules.h"

namespace {

TEST(CommandLine, Table) {
  const struct {
    std::vector<const char*> args;  // after argv[0]
    const char* message;            // "" when the run proceeds
    bool usage;
    int width, height;
    const char* url;
  } cases[] = {
      {{}, "--url required\n", false, -1, -1, ""},
      {{"--url", ""}, "--url required\n", false, -1, -1, ""},
      {{"-help"}, "", true, -1, -1, ""},
      {{"--URL", "x"}, "Unknown switch URL\n", true, -1, -1, ""},
      {{"--url", "x", "-w"}, "Missing value for w\n", true, -1, -1, ""},
      {{"--url", "x", ""}, "Unhandled argv \n", false, -1, -1, ""},
      {{"-h", "480", "---url", "rtmp://h/a"}, "", false, -1, 480, "rtmp://h/a"},
      {{"-w", "640x", "--url", "x", "--url", "--mp4"}, "", false, 640, -1, "--mp4"},
  };
  for (const auto& c : cases) {
    std::vector<const char*> argv{"pelvane"};
    argv.insert(argv.end(), c.args.begin(), c.args.end());
    run_options got;
    const option_outcome o = parse_command_line(static_cast<int>(argv.size()), argv.data(), got);
    const bool proceed = *c.message == 0 && !c.usage;
    SCOPED_TRACE(c.args.empty() ? "no arguments" : c.args[0]);
    EXPECT_EQ(o.proceed, proceed);
    EXPECT_EQ(o.exit_status, proceed ? 0 : 1);
    EXPECT_EQ(o.show_usage, c.usage);
    EXPECT_EQ(o.message, c.message);
    if (proceed) {
      EXPECT_EQ(got.url, c.url);
      EXPECT_EQ(std::make_pair(got.max_width, got.max_height), std::make_pair(c.width, c.height));
    }
  }
}

TEST(CommandLine, SchemeDispatch) {
  const struct {
    const char* url;
    source_scheme want;
  } cases[] = {
      {"rtsp://10.0.0.1/live", scheme_rtsp}, {"rtmps://h/app", scheme_relayed}, {"tcp://127.0.0.1:9", scheme_relayed},
      {"RTMP://h/app", scheme_refused},      {"rtsp:/h", scheme_refused},       {"rtmpt://h/app", scheme_refused},
  };
  for (const auto& c : cases) EXPECT_EQ(classify_source_url(c.url), c.want) << c.url;
}

}  // namespace
