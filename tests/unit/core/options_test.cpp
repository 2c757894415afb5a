#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "v2/relay_rules.h"

namespace {

struct option_case {
  const char* name;
  std::vector<const char*> args;  // after argv[0]
  bool proceed;
  bool usage;
  const char* message;
  run_options want;
};

TEST(CommandLine, Table) {
  const run_options none;
  run_options url_only;
  url_only.url = "rtmp://h/a";
  auto with = [&](auto edit) {
    run_options o = url_only;
    edit(o);
    return o;
  };
  const option_case cases[] = {
      {"no arguments", {}, false, false, "--url required\n", none},
      {"empty url", {"--url", ""}, false, false, "--url required\n", none},
      {"help", {"--help"}, false, true, "", none},
      {"help with one dash", {"-help"}, false, true, "", none},
      {"first argument without dash", {"foo"}, false, false, "Unhandled argv foo\n", none},
      {"empty argument", {"--url", "x", ""}, false, false, "Unhandled argv \n", none},
      {"unknown switch", {"--bogus"}, false, true, "Unknown switch bogus\n", none},
      {"names are case-sensitive", {"--URL", "x"}, false, true, "Unknown switch URL\n", none},
      {"lone dashes", {"---"}, false, true, "Unknown switch \n", none},
      {"url last without value", {"--url"}, false, true, "Missing value for url\n", none},
      {"w last without value", {"--url", "x", "-w"}, false, true, "Missing value for w\n", none},
      {"h last without value", {"--url", "x", "---h"}, false, true, "Missing value for h\n", none},
      {"any number of dashes", {"---url", "rtmp://h/a"}, true, false, "", url_only},
      {"one dash", {"-url", "rtmp://h/a"}, true, false, "", url_only},
      {"second url wins", {"--url", "x", "--url", "rtmp://h/a"}, true, false, "", url_only},
      {"flags", {"--mime-type", "--mp4", "--hls", "--ignore-ssl-errors", "--url", "rtmp://h/a"}, true, false, "",
       with([](run_options& o) { o.emit_mime_type = o.allow_mp4 = o.source_is_hls = true; })},
      {"-h is height", {"-h", "480", "--url", "rtmp://h/a"}, true, false, "",
       with([](run_options& o) { o.max_height = 480; })},
      {"width and height", {"-w", "800", "--h", "-5", "--url", "rtmp://h/a"}, true, false, "",
       with([](run_options& o) { o.max_width = 800, o.max_height = -5; })},
      {"the last -w wins", {"-w", "10", "-w", "800", "--url", "rtmp://h/a"}, true, false, "",
       with([](run_options& o) { o.max_width = 800; })},
      {"non-numeric width is 0", {"-w", "wide", "--url", "rtmp://h/a"}, true, false, "",
       with([](run_options& o) { o.max_width = 0; })},
      {"leading digits count", {"-w", "640x", "--url", "rtmp://h/a"}, true, false, "",
       with([](run_options& o) { o.max_width = 640; })},
      {"value that looks like an option", {"--url", "--mp4"}, true, false, "",
       with([](run_options& o) { o.url = "--mp4"; })},
  };
  for (const option_case& c : cases) {
    std::vector<const char*> argv{"pelvane"};
    argv.insert(argv.end(), c.args.begin(), c.args.end());
    run_options got;
    const option_outcome o = parse_command_line(static_cast<int>(argv.size()), argv.data(), got);
    EXPECT_EQ(o.proceed, c.proceed) << c.name;
    EXPECT_EQ(o.show_usage, c.usage) << c.name;
    EXPECT_EQ(o.message, c.message) << c.name;
    EXPECT_EQ(o.exit_status, c.proceed ? 0 : 1) << c.name;
    if (!c.proceed) continue;
    EXPECT_EQ(got.url, c.want.url) << c.name;
    EXPECT_EQ(got.max_width, c.want.max_width) << c.name;
    EXPECT_EQ(got.max_height, c.want.max_height) << c.name;
    EXPECT_EQ(got.emit_mime_type, c.want.emit_mime_type) << c.name;
    EXPECT_EQ(got.allow_mp4, c.want.allow_mp4) << c.name;
    EXPECT_EQ(got.source_is_hls, c.want.source_is_hls) << c.name;
  }
}

TEST(CommandLine, SchemeDispatch) {
  const struct {
    const char* url;
    source_scheme want;
  } cases[] = {
      {"rtsp://10.0.0.1/live", scheme_rtsp},   {"rtmp://h/app/key", scheme_relayed},
      {"rtmps://h/app", scheme_relayed},       {"http://h/x.ts", scheme_relayed},
      {"https://h/x.m3u8", scheme_relayed},    {"tcp://127.0.0.1:9", scheme_relayed},
      {"RTMP://h/app", scheme_refused},        {"udp://239.1.1.1:5000", scheme_refused},
      {"rtsp:/h", scheme_refused},             {"file:///etc/passwd", scheme_refused},
      {"/tmp/x.ts", scheme_refused},           {"HTTP://h/x", scheme_refused},
      {"http:/", scheme_refused},              {"rtmpt://h/app", scheme_refused},
  };
  for (const auto& c : cases) EXPECT_EQ(classify_source_url(c.url), c.want) << c.url;
}

}  // namespace
