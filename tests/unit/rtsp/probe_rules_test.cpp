#include "v2/rtsp/probe_rules.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include "tests/unit/test_support.h"
#include "v2/rtsp/rtsp_probe.h"
#include "v2/sdp/sdp.h"

namespace {

// A description as the probe reads it, from its lines to where the redirect points.
TEST(ProbeRules, DescriptionToDestination) {
  const std::string c = "c=IN IP4 239.1.2.3", ts = "m=video 5004 RTP/AVP 33";
  // "" when there is none
  const struct { const char* name; std::vector<std::string> lines; const char* destination; } cases[] = {
      {"multicast", {c, ts}, "239.1.2.3:5004"},
      {"the later c= wins, past other lines; a media c= is not read", {"c=IN IP4 1.2.3.4", "", "x", c, ts, "c=IN IP4 9.9.9.9"}, "239.1.2.3:5004"},
      {"first section whose first format is 33", {c, "m=video 5000 RTP/AVP 96 33", "m=video 5008/2 RTP/AVP 33 96"}, "239.1.2.3:5008"},
      {"port beyond 16 bits wraps", {c, "m=video 70000 RTP/AVP 33"}, "239.1.2.3:4464"},
      {"a NUL ends a line", {std::string("c=IN IP4 10.0.0.9\0/64", 21), ts}, "10.0.0.9:5004"},
      {"TTL suffix", {c + "/16", ts}, ""},
      {"audio", {c, "m=audio 5004 RTP/AVP 33"}, ""},
      {"no media", {c}, ""},
  };
  for (const auto& t : cases) {
    session s;
    stderr_capture quiet;
    parse_sdp(s, t.lines);
    sockaddr_in d{};
    const bool found = session_is_usable(s) && choose_mpegts_destination(s, d);
    EXPECT_EQ(found ? dotted_quad(d.sin_addr) + ":" + std::to_string(ntohs(d.sin_port)) : "", t.destination) << t.name;
  }
  const sockaddr_in class_e{AF_INET, 0, {htonl(0xF0000001)}, {}};  // 240.0.0.1, past the multicast range
  EXPECT_STREQ(setup_transport(class_e), "RTP/AVP;unicast");
}

}  // namespace
