// What a client gets for each request head, read back as a client reads it:
// the status, whether pelvane is started, and the body. The reading bounds
// (408, 414, 431) are the integration test's: they need a real connection.
#include "v2/channels/answers.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "v2/channels/command_line.h"

namespace {

const channel_list list = read_channel_list(
    "#EXTINF:-1 tvg-chno=7 pelvane-options=\"--mp4 -w 640\",News \"24\"\nhttp://src/news\nrtmp://src/two\n");

// "<status>" (flagged when Content-Length is wrong) or "relay <number>", then the body when asked for.
std::string seen(const std::string& data, bool with_body = false, head_outcome outcome = head_complete) {
  const reply r = answer_connection(outcome, data, list, tuner_identity{"pelvane", "0000ABCD", 2});
  if (r.relay || r.bytes.empty()) return r.relay ? "relay " + r.relay->number + r.bytes : "nothing";
  const size_t body = r.bytes.find("\r\n\r\n") + 4;
  const bool framed = data.starts_with("HEAD") || r.bytes.find("Content-Length: " + std::to_string(r.bytes.size() - body) + "\r\n") < body;
  return r.bytes.substr(9, 3) + (framed ? "" : " (bad framing)") + (with_body ? " " + r.bytes.substr(body) : "");
}

TEST(Answers, StatusByRequest) {
  const struct { const char* data; const char* want; } cases[] = {
      {"GET /channel/7 HTTP/1.1\r\nHost: tv:5004\r\nUser-Agent: x\r\n\r\n", "relay 7"},
      {"GET /auto/v2?transcode=native HTTP/1.0\n\n", "relay 2"},
      {"GET /channel/ HTTP/1.0\r\n\r\n", "404"},               {"GET /channel/7/x HTTP/1.0\r\n\r\n", "404"},
      {"GET /auto/v07 HTTP/1.0\r\n\r\n", "404"},               {"HEAD / HTTP/1.0\r\n\r\n", "404"},
      {"PUT /channel/7 HTTP/1.1\r\n\r\n", "405"},              {"GET /lineup.post HTTP/1.1\r\n\r\n", "200"},
      {"POST /lineup.post?scan=start&source=Cable HTTP/1.1\r\nHost: tv\r\n\r\n", "200"},
      {"GET /lineup_status.json HTTP/1.1\r\nhost: tv\r\n\r\n", "200"},
      {"HEAD /device.xml HTTP/1.1\r\nHost: 10.0.0.2\r\n\r\n", "200"},
      {"GET /channels.m3u HTTP/1.1\r\nHost: [fe80::1]:80\r\n\r\n", "200"},
      {"GET /lineup.json HTTP/1.0\r\n\r\n", "400"},            {"GET /lineup.json HTTP/1.1\r\nHost: a\r\nHOST: a\r\n\r\n", "400"},
      {"GET /lineup.json HTTP/1.1\r\nHost: a\"><b\r\n\r\n", "400"}, {"GET /lineup.json HTTP/1.1\r\nHost: a:123456\r\n\r\n", "400"},
      {"GET /channel/7\r\n\r\n", "400"},                       {"GET /channel/7 HTTP/2.0\r\n\r\n", "400"},
      {"GET http://h/channel/7 HTTP/1.0\r\n\r\n", "400"},      {"G(T /channel/7 HTTP/1.0\r\n\r\n", "400"},
      {"GET /channel/7 HTTP/1.0\r\nX: a\x01\r\n\r\n", "400"}, {"\r\n\r\n", "400"},
  };
  for (const auto& c : cases) EXPECT_EQ(seen(c.data), c.want) << c.data;
  EXPECT_EQ(seen("", false, head_closed), "nothing");
  EXPECT_EQ(seen("GET /", false, head_read_error), "nothing");
  for (const char* end : {"\n\n", "\r\n\r\n", "\n\r\n"})
    EXPECT_EQ(request_head_end(std::string("GET / HTTP/1.0") + end + "rest"), 14 + strlen(end)) << end;
  EXPECT_EQ(request_head_end("GET / HTTP/1.0\r\nHost: x\r\n\r"), 0u);
}

TEST(Answers, Bodies) {
  const std::string host = "Host: tv.local:5004\r\n\r\n";
  // A HEAD of a channel gets pelvane's own head, and nobody is started.
  EXPECT_EQ(answer_connection(head_complete, "HEAD /channel/7 HTTP/1.0\r\n\r\n", list, {}).bytes,
            "HTTP/1.0 200 OK\nContent-Type: video/mp4\n\n");
  EXPECT_EQ(seen("GET /lineup.json HTTP/1.1\r\n" + host, true),
            "200 [{\"GuideNumber\":\"7\",\"GuideName\":\"News \\\"24\\\"\",\"URL\":\"http://tv.local:5004/auto/v7\"},\n"
            "{\"GuideNumber\":\"2\",\"GuideName\":\"Channel 2\",\"URL\":\"http://tv.local:5004/auto/v2\"}]\n");
  EXPECT_EQ(seen("HEAD /lineup.json HTTP/1.1\r\n" + host, true), "200 ");
  const std::string discover = seen("GET /discover.json HTTP/1.1\r\n" + host, true);
  for (const char* field : {"\"BaseURL\":\"http://tv.local:5004\"", "\"DeviceID\":\"0000ABCD\"", "\"TunerCount\":2"})
    EXPECT_NE(discover.find(field), std::string::npos) << discover;
  EXPECT_EQ(relay_command("/usr/bin/pelvane", list.channels.at(0)),
            (std::vector<std::string>{"/usr/bin/pelvane", "--mime-type", "--mp4", "-w", "640", "--url", "http://src/news"}));
}

TEST(CommandLine, Table) {
  // Arguments; then the list, the relay program and the tuner count taken ("-" when refused).
  const struct { std::vector<const char*> args; const char* want; } cases[] = {
      {{"l.m3u"}, "l.m3u  4"},          {{"--tuners", "99", "--pelvane", "/p", "--name", "Den", "l.m3u"}, "l.m3u /p 99"},
      {{}, "-"},                        {{"a.m3u", "b.m3u"}, "-"},        {{"--tuners", "0", "l.m3u"}, "-"},
      {{"--tuners", "100", "l"}, "-"},  {{"--name", "a\nb", "l"}, "-"},   {{"l.m3u", "--pelvane"}, "-"},
      {{"-x", "l.m3u"}, "-"},
  };
  for (const auto& c : cases) {
    std::vector<const char*> argv{"pelvane-channels"};
    argv.insert(argv.end(), c.args.begin(), c.args.end());
    channels_settings s;
    std::string message;
    bool help = false;
    const bool ok = parse_channels_command_line(static_cast<int>(argv.size()), argv.data(), s, message, help);
    EXPECT_EQ(ok ? s.list_path + " " + s.pelvane + " " + std::to_string(s.identity.tuner_count) : "-", c.want) << message;
  }
}

}  // namespace
