#include "v2/rtsp/probe_rules.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tests/unit/test_support.h"
#include "v2/rtsp/rtsp.h"

namespace {

sockaddr_in address_of(const char* dotted, uint16_t port = 0) {
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(port);
  inet_pton(AF_INET, dotted, &a.sin_addr);
  return a;
}

media video(const char* port, int fmt, const char* kind = "video", const char* proto = "RTP/AVP") {
  media m;
  m.m_media = kind;
  m.m_port = port;
  m.m_proto = proto;
  m.m_fmt = fmt;
  return m;
}

TEST(ProbeRules, SessionIsUsable) {
  session good;
  good.c_nettype = "IN";
  good.c_addrtype = "IP4";
  good.c_connection_address = "239.1.2.3";
  good.media_list.push_back(video("5004", 33));
  EXPECT_TRUE(session_is_usable(good));
  const struct {
    const char* name;
    void (*spoil)(session&);
  } cases[] = {
      {"IP6", [](session& s) { s.c_addrtype = "IP6"; }},
      {"lower-case in", [](session& s) { s.c_nettype = "in"; }},
      {"no address", [](session& s) { s.c_connection_address.clear(); }},
      {"no media", [](session& s) { s.media_list.clear(); }},
  };
  for (const auto& c : cases) {
    session s = good;
    c.spoil(s);
    EXPECT_FALSE(session_is_usable(s)) << "case: " << c.name;
  }
}

TEST(ProbeRules, MpegtsDestinationChoice) {
  const struct {
    const char* name;
    const char* address;
    std::vector<media> media_list;
    const char* destination;  // nullptr: no section qualifies
  } cases[] = {
      {"multicast", "239.1.2.3", {video("5004", 33)}, "239.1.2.3:5004"},
      {"unicast", "192.168.1.10", {video("5004", 33)}, "192.168.1.10:5004"},
      {"payload 96 only", "239.1.2.3", {video("5004", 96)}, nullptr},
      {"audio with 33", "239.1.2.3", {video("5006", 33, "audio")}, nullptr},
      {"first 96 then 33", "239.1.2.3", {video("5004", 96), video("5008", 33)}, "239.1.2.3:5008"},
      {"port 0", "239.1.2.3", {video("0", 33)}, "239.1.2.3:0"},
      {"port with count", "239.1.2.3", {video("5004/2", 33)}, "239.1.2.3:5004"},
      {"port beyond 16 bits", "239.1.2.3", {video("70000", 33)}, "239.1.2.3:4464"},
      {"empty port", "239.1.2.3", {video("", 33)}, nullptr},
      {"RTP/AVP/TCP", "239.1.2.3", {video("5004", 33, "video", "RTP/AVP/TCP")}, nullptr},
      {"TTL suffix", "239.1.2.3/16", {video("5004", 33), video("5006", 33)}, nullptr},
      {"host name", "example.net", {video("5004", 33)}, nullptr},
  };
  for (const auto& c : cases) {
    session s;
    s.c_connection_address = c.address;
    s.media_list = c.media_list;
    sockaddr_in d{};
    int result = choose_mpegts_destination(s, d);
    EXPECT_EQ(result, c.destination == nullptr ? 1 : 0) << "case: " << c.name;
    if (result != 0 || c.destination == nullptr) continue;
    EXPECT_EQ(d.sin_family, AF_INET) << "case: " << c.name;
    EXPECT_EQ(dotted_quad(d.sin_addr) + ":" + std::to_string(ntohs(d.sin_port)), c.destination) << "case: " << c.name;
  }
}

TEST(ProbeRules, SetupTransport) {
  for (const char* a : {"239.1.1.1", "224.0.0.1", "239.255.255.255"})
    EXPECT_STREQ(setup_transport(address_of(a)), "RTP/AVP;multicast") << a;
  for (const char* a : {"240.0.0.1", "192.168.1.20", "223.255.255.255", "127.0.0.1"})
    EXPECT_STREQ(setup_transport(address_of(a)), "RTP/AVP;unicast") << a;
}

TEST(ProbeRules, ServerAddressFromUrl) {
  const struct {
    const char* url;
    const char* server;  // nullptr: refused
  } cases[] = {
      {"rtsp://192.168.1.10/live", "192.168.1.10"},
      {"rtsp://192.168.1.10", "192.168.1.10"},
      {"rtsp://127.0.0.1/a/b/c", "127.0.0.1"},
      {"10.0.0.1/x", "10.0.0.1"},
      {"rtsp://192.168.1.10:8554/live", nullptr},
      {"rtsp://camera.local/live", nullptr},
      {"rtsp://user@10.0.0.1/live", nullptr},
      {"RTSP://10.0.0.1/live", nullptr},
      {"rtsp:///live", nullptr},
  };
  for (const auto& c : cases) {
    in_addr server{};
    int result = server_address_from_url(c.url, server);
    EXPECT_EQ(result, c.server == nullptr ? 1 : 0) << "url: " << c.url;
    if (result == 0 && c.server != nullptr) {
      EXPECT_EQ(dotted_quad(server), c.server) << "url: " << c.url;
    }
  }
}

TEST(ProbeRules, RedirectAnswerBytes) {
  EXPECT_EQ(redirect_answer("192.168.1.50", address_of("239.1.2.3", 5004)),
            "HTTP/1.0 302 RTSP stream is MPEG-TS RTP\r\nLocation: rtp://192.168.1.50@239.1.2.3:5004\r\n\r\n");
  EXPECT_EQ(redirect_answer("", address_of("10.1.2.3", 65535)),
            "HTTP/1.0 302 RTSP stream is MPEG-TS RTP\r\nLocation: rtp://@10.1.2.3:65535\r\n\r\n");
}

// The search finds the local end of a connection whose peer is the server,
// among all descriptors of the process.
TEST(ControlInterface, FindsLoopbackConnection) {
  int listener = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a = address_of("127.0.0.1");
  ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
  ASSERT_EQ(listen(listener, 1), 0);
  socklen_t len = sizeof a;
  getsockname(listener, reinterpret_cast<sockaddr*>(&a), &len);
  int client = socket(AF_INET, SOCK_STREAM, 0);
  ASSERT_EQ(connect(client, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);

  stderr_capture err;
  EXPECT_EQ(find_control_interface(address_of("127.0.0.1").sin_addr), "127.0.0.1");
  EXPECT_EQ(err.take(), "Found CURL socket. Good.\nOn interface 127.0.0.1\n");
  stderr_capture none;
  EXPECT_EQ(find_control_interface(address_of("10.255.255.1").sin_addr), "");
  EXPECT_EQ(none.take(), "");
  close(client);
  close(listener);
}

}  // namespace
