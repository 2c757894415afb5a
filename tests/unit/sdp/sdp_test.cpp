#include "v2/sdp/sdp.h"

#include <gtest/gtest.h>

#include "tests/unit/test_support.h"

namespace {

// One line per record: the session's fields, then each media section's.
std::string summary(const session& s) {
  std::string out = "c=" + s.c_nettype + "|" + s.c_addrtype + "|" + s.c_connection_address + " t=" +
                    std::to_string(s.t_start_time) + "|" + std::to_string(s.t_end_time) +
                    " control=" + s.a_control + " type=" + s.a_type;
  for (const media& m : s.media_list) {
    out += "\nm=" + m.m_media + "|" + m.m_port + "|" + m.m_proto + "|" + std::to_string(m.m_fmt) +
           " control=" + m.a_control + " fmtp=";
    for (const std::string& f : m.a_fmtp) out += "[" + f + "]";
    out += " rtpmap=";
    for (const std::string& r : m.a_rtpmap) out += "[" + r + "]";
  }
  return out;
}

std::string parse(const std::vector<std::string>& lines, std::string* dumps = nullptr) {
  session s;
  stderr_capture err;
  parse_sdp(s, lines);
  std::string text = err.take();
  if (dumps != nullptr) *dumps = text;
  return summary(s);
}

const std::string no_session = "c=|| t=-1|-1 control= type=";
const std::string empty_media = "\nm=|||-1 control= fmtp= rtpmap=";
const std::string bare_video = "\nm=video|||-1 control= fmtp= rtpmap=";

TEST(ParseSdp, WorkedExampleDumps) {
  std::string dumps;  // they show every field
  parse({"v=0", "o=- 1 1 IN IP4 10.0.0.1", "s=Live", "c=IN IP4 239.1.1.1/64", "t=0 0", "a=control:*",
         "m=video 5004 RTP/AVP 33", "a=rtpmap:33 MP2T/90000", "a=control:trackID=1"},
        &dumps);
  EXPECT_EQ(dumps,
            "session::dump()\n"
            "   c_nettype:             'IN'\n"
            "   c_addrtype:            'IP4'\n"
            "   c_connection_address:  '239.1.1.1/64'\n"
            "   t_start_time:          0\n"
            "   t_end_time:            0\n"
            "   a_control:             '*'\n"
            "   a_type:                ''\n"
            "media::dump()\n"
            "   m_media:                 'video'\n"
            "   m_port:                  '5004'\n"
            "   m_proto:                 'RTP/AVP'\n"
            "   m_fmt:                   33\n"
            "   a_control:               'trackID=1'\n"
            "   a_rtpmap[0]:             '33 MP2T/90000'\n");
}

TEST(ParseSdp, DumpsEachSectionInOrderWithListIndexes) {
  std::string dumps;
  parse({"m=audio 0 RTP/AVP 97", "a=fmtp:97 a=1", "a=fmtp:97 b=2", "a=rtpmap:97 X/1", "a=rtpmap:97 X/1",
         "m=video"},
        &dumps);
  EXPECT_EQ(dumps.substr(dumps.find("media::dump()")),
            "media::dump()\n"
            "   m_media:                 'audio'\n"
            "   m_port:                  '0'\n"
            "   m_proto:                 'RTP/AVP'\n"
            "   m_fmt:                   97\n"
            "   a_control:               ''\n"
            "   a_fmtp[0]:               '97 a=1'\n"
            "   a_fmtp[1]:               '97 b=2'\n"
            "   a_rtpmap[0]:             '97 X/1'\n"
            "   a_rtpmap[1]:             '97 X/1'\n"
            "media::dump()\n"
            "   m_media:                 'video'\n"
            "   m_port:                  ''\n"
            "   m_proto:                 ''\n"
            "   m_fmt:                   -1\n"
            "   a_control:               ''\n");
}

struct sdp_case {
  const char* name;
  std::vector<std::string> lines;
  std::string expected;
};

TEST(ParseSdp, Cases) {
  const std::string nul_line("c=IN IP4 1.2.3.4\0junk", 21);
  const sdp_case cases[] = {
      {"no lines", {}, no_session},
      {"no m= line", {"c=IN IP4 1.2.3.4", "t=1 2", "a=type:broadcast"},
       "c=IN|IP4|1.2.3.4 t=1|2 control= type=broadcast"},
      {"last line m=", {"a=control:*", "m=video 5004 RTP/AVP 33"},
       "c=|| t=-1|-1 control=* type=\nm=video|5004|RTP/AVP|33 control= fmtp= rtpmap="},
      {"M= and m without = open nothing", {"M=video 1 RTP/AVP 33", "mvideo 1 RTP/AVP 33", "m =x"}, no_session},
      {"empty m=", {"m="}, no_session + empty_media},
      {"m= of spaces", {"m=   "}, no_session + empty_media},
      {"three formats", {"m=video 5004 RTP/AVP 96 97 33"}, no_session + "\nm=video|5004|RTP/AVP|96 control= fmtp= rtpmap="},
      {"non-numeric format", {"m=video 5004 RTP/AVP abc"}, no_session + "\nm=video|5004|RTP/AVP|0 control= fmtp= rtpmap="},
      {"no format", {"m=video 5004 RTP/AVP"}, no_session + "\nm=video|5004|RTP/AVP|-1 control= fmtp= rtpmap="},
      {"format beyond 32 bits", {"m=video 1 RTP/AVP 4294967329"}, no_session + "\nm=video|1|RTP/AVP|33 control= fmtp= rtpmap="},
      {"port kept as text", {"m=video 5004/2 RTP/AVP 33"}, no_session + "\nm=video|5004/2|RTP/AVP|33 control= fmtp= rtpmap="},
      {"two-field c= keeps address", {"c=IN IP4 1.2.3.4", "c=XX IP6"}, "c=XX|IP6|1.2.3.4 t=-1|-1 control= type="},
      {"later c= wins", {"c=IN IP4 1.2.3.4", "c=IN IP4 5.6.7.8"}, "c=IN|IP4|5.6.7.8 t=-1|-1 control= type="},
      {"c= without fields", {"c=IN IP4 1.2.3.4", "c=   "}, "c=IN|IP4|1.2.3.4 t=-1|-1 control= type="},
      {"extra spaces in c=", {"c=  IN  IP4   1.2.3.4  x "}, "c=IN|IP4|1.2.3.4 t=-1|-1 control= type="},
      {"c= in media only", {"m=video 1 RTP/AVP 33", "c=IN IP4 1.2.3.4"}, no_session + "\nm=video|1|RTP/AVP|33 control= fmtp= rtpmap="},
      {"c= in media after session c=", {"c=IN IP4 1.2.3.4", "m=video", "c=IN IP4 9.9.9.9"},
       "c=IN|IP4|1.2.3.4 t=-1|-1 control= type=" + bare_video},
      {"tabs are not separators", {"c=\tIN\tIP4 1.2.3.4"}, "c=\tIN\tIP4|1.2.3.4| t=-1|-1 control= type="},
      {"t= numbers", {"t=abc 12x"}, "c=|| t=0|12 control= type="},
      {"t= one field", {"t=-5"}, "c=|| t=-5|-1 control= type="},
      {"t= beyond 64 bits", {"t=99999999999999999999 -99999999999999999999"},
       "c=|| t=9223372036854775807|-9223372036854775808 control= type="},
      {"session fmtp/rtpmap ignored, media type ignored",
       {"a=fmtp:96 x", "a=rtpmap:96 H264/90000", "m=video", "a=type:broadcast"}, no_session + bare_video},
      {"space before colon", {"a=control :x", "a=type :y"}, no_session},
      {"spaces after a=", {"a=   control:x"}, "c=|| t=-1|-1 control=x type="},
      {"name matched with case", {"a=Control:x", "a=TYPE:y"}, no_session},
      {"flag attribute and empty a=", {"a=recvonly", "a=", "a=   "}, no_session},
      {"empty control replaces", {"a=control:x", "a=control:"}, no_session},
      {"later colons stay in value", {"m=video", "a=control:rtsp://1.2.3.4:554/x"},
       no_session + "\nm=video|||-1 control=rtsp://1.2.3.4:554/x fmtp= rtpmap="},
      {"trailing CR stays", {"c=IN IP4 1.2.3.4\r", "a=control:*\r", "m=video 1 RTP/AVP 33\r"},
       "c=IN|IP4|1.2.3.4\r t=-1|-1 control=*\r type=\nm=video|1|RTP/AVP|33 control= fmtp= rtpmap="},
      {"NUL ends a line", {nul_line}, "c=IN|IP4|1.2.3.4 t=-1|-1 control= type="},
      {"untyped lines skipped", {"", " c=IN IP4 1.2.3.4", "C=IN IP4 1.2.3.4", "1=x", "m=video", " a=control:x"},
       no_session + bare_video},
      {"session attributes after m= stay in media",
       {"m=audio", "a=type:x", "a=control:a", "m=video", "a=control:v", "a=rtpmap:33 MP2T/90000"},
       no_session + "\nm=audio|||-1 control=a fmtp= rtpmap=\nm=video|||-1 control=v fmtp= rtpmap=[33 MP2T/90000]"},
  };
  for (const sdp_case& c : cases) EXPECT_EQ(parse(c.lines), c.expected) << "case: " << c.name;
}

}  // namespace
