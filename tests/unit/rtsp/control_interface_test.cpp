// The control-connection search looks at every socket of the process, not
// only IPv4 ones: local (AF_UNIX) sockets, which libcurl and libraries keep
// open, and IPv6 connections. Their addresses do not fit an IPv4 record;
// reading one as IPv4 compared fields that were never written (found by
// valgrind over the RTSP probe).
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tests/unit/test_support.h"
#include "v2/rtsp/rtsp.h"

namespace {

// A connected IPv6 TCP socket over ::1; -1 when this host has no IPv6.
struct ipv6_connection {
  int listener = -1;
  int client = -1;
  ipv6_connection() {
    listener = socket(AF_INET6, SOCK_STREAM, 0);
    sockaddr_in6 a{};
    a.sin6_family = AF_INET6;
    a.sin6_addr = in6addr_loopback;
    socklen_t len = sizeof a;
    if (listener < 0 || bind(listener, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 ||
        listen(listener, 1) != 0 || getsockname(listener, reinterpret_cast<sockaddr*>(&a), &len) != 0)
      return;
    client = socket(AF_INET6, SOCK_STREAM, 0);
    if (client >= 0 && connect(client, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
      close(client);
      client = -1;
    }
  }
  ~ipv6_connection() {
    if (client >= 0) close(client);
    if (listener >= 0) close(listener);
  }
};

TEST(ControlInterface, SocketsThatAreNotIPv4NeverMatch) {
  int local_pair[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, local_pair), 0);
  ipv6_connection v6;
  // 0.0.0.0 is what the unwritten (or IPv6 flow-label) bytes of such a
  // socket read as: a server at that address must still find nothing here.
  in_addr any{};
  stderr_capture err;
  EXPECT_EQ(find_control_interface(any), "");
  EXPECT_EQ(err.take(), "");
  close(local_pair[0]);
  close(local_pair[1]);
  if (v6.client < 0) GTEST_SKIP() << "no IPv6 loopback here; the AF_UNIX case ran";
}

}  // namespace
