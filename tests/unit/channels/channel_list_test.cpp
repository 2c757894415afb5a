// The channel list: reading playlists as operators write them, and the list
// written back for clients reading back the same channels.
#include "v2/channels/channel_list.h"

#include <gtest/gtest.h>

#include <string>

namespace {

// One line per channel kept: number|title|url|attribute=value...[ options], then the problem count.
std::string summary(const channel_list& list) {
  std::string s;
  for (const channel& ch : list.channels) {
    s += ch.number + "|" + ch.title + "|" + ch.url;
    for (const m3u_attribute& a : ch.attributes) s += "|" + a.name + "=" + a.value;
    for (const std::string& o : ch.relay_options) s += " " + o;
    s += ch.mp4 ? " (mp4)\n" : "\n";
  }
  return s + std::to_string(list.problems.size()) + " problems";
}

TEST(ChannelList, Reading) {
  const struct { const char* name; const char* text; const char* want; } cases[] = {
      {"BOM, CRLF, quoted commas, title with a comma",
       "\xEF\xBB\xBF#EXTM3U\r\n#EXTINF:-1 tvg-id=\"a.b\" tvg-name=\"A, B\" group-title=\"x y\",News, late\r\nhttp://h/a\r\n",
       "1|News, late|http://h/a|tvg-id=a.b|tvg-name=A, B|group-title=x y\n0 problems"},
      {"no #EXTM3U, URL lines without #EXTINF, blanks and comments", "\n# note\nhttp://h/a\n  rtmp://h/b  \n",
       "1|Channel 1|http://h/a\n2|Channel 2|rtmp://h/b\n0 problems"},
      {"tvg-chno, a repeated number and the position of what follows",
       "#EXTINF:-1 tvg-chno=\"5.1\",A\nhttp://a\n#EXTINF:-1 tvg-chno=5.1,B\nhttp://b\nhttp://c\n",
       "5.1|A|http://a\n3|Channel 3|http://c\n1 problems"},
      {"a position already taken by a tvg-chno", "#EXTINF:-1 tvg-chno=2,A\nhttp://a\nhttp://b\n", "2|A|http://a\n1 problems"},
      {"bad tvg-chno: numbered by position", "#EXTINF:-1 tvg-chno=\"1a\",A\nhttp://a\n#EXTINF:-1 tvg-chno=\"1.\",B\nhttp://b\n"
       "#EXTINF:-1 tvg-chno=1234567890123456,C\nhttp://c\n", "1|A|http://a\n2|B|http://b\n3|C|http://c\n3 problems"},
      {"schemes pelvane refuses", "udp://239.0.0.1:1234\nHTTP://h/a\nfile:///etc/passwd\nhttps://h/ok\ntcp://h:1\nrtsp://h/s\n",
       "4|Channel 4|https://h/ok\n5|Channel 5|tcp://h:1\n6|Channel 6|rtsp://h/s\n3 problems"},
      {"title falls back to tvg-name", "#EXTINF:-1 tvg-name=\"Sport\"\nhttp://h/s\n#extinf:0 tvg-name=\"\",\nhttp://h/t\n",
       "1|Sport|http://h/s|tvg-name=Sport\n2|Channel 2|http://h/t|tvg-name=\n0 problems"},
      {"unclosed quote, stray quote, bad names dropped", "#EXTINF:-1 a=b\"c d\" x.y=1 =z tvg-logo=\"l,\nhttp://h/a\n",
       "1|Channel 1|http://h/a|a=b|tvg-logo=l,\n0 problems"},
      {"#EXTINF without a URL, twice", "#EXTINF:-1,A\n#EXTINF:-1,B\nhttp://h/b\n#EXTINF:-1,C\n", "1|B|http://h/b\n2 problems"},
      {"pelvane options kept", "#EXTINF:-1 pelvane-options=\" --hls  -w 1280 ---mp4 -h 0\",A\nhttp://h/a\n",
       "1|A|http://h/a --hls -w 1280 --mp4 -h 0 (mp4)\n0 problems"},
      {"pelvane options refused", "#EXTINF:-1 pelvane-options=\"--hls --url\",A\nhttp://a\n#EXTINF:-1 pelvane-options=\"-w\",B\nhttp://b\n"
       "#EXTINF:-1 pelvane-options=\"-w 123456\",C\nhttp://c\n#EXTINF:-1 pelvane-options=hls,D\nhttp://d\n"
       "#EXTINF:-1 pelvane-options=\"--mime-type\",E\nhttp://e\n#EXTINF:-1 pelvane-options=\"-h -1\",F\nhttp://f\n",
       "6 problems"},
  };
  for (const auto& c : cases) EXPECT_EQ(summary(read_channel_list(c.text)), c.want) << c.name;
}

}  // namespace
