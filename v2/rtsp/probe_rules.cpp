#include "v2/rtsp/probe_rules.h"

#include <arpa/inet.h>

#include <cstdlib>
#include <cstring>

bool session_is_usable(const session& s) {
  return s.c_nettype == "IN" && s.c_addrtype == "IP4" && !s.c_connection_address.empty() && !s.media_list.empty();
}

bool mpegts_destination(const session& s, const media& m, sockaddr_in& destination) {
  if (m.m_media != "video" || m.m_port.empty() || m.m_proto != "RTP/AVP" || m.m_fmt != 33) return false;
  sockaddr_in d;
  memset(&d, 0, sizeof d);
  d.sin_family = AF_INET;
  // "5004/2" reads as 5004; 70000 keeps its low 16 bits, 4464.
  d.sin_port = htons(static_cast<uint16_t>(strtol(m.m_port.c_str(), nullptr, 10)));
  if (inet_pton(AF_INET, s.c_connection_address.c_str(), &d.sin_addr) != 1) return false;
  destination = d;
  return true;
}

bool choose_mpegts_destination(const session& s, sockaddr_in& destination) {
  for (const media& m : s.media_list)
    if (mpegts_destination(s, m, destination)) return true;
  return false;
}

const char* setup_transport(const sockaddr_in& destination) {
  uint32_t first_octet = ntohl(destination.sin_addr.s_addr) >> 24;
  if (first_octet >= 224 && first_octet <= 239) return "RTP/AVP;multicast";
  return "RTP/AVP;unicast";
}

bool server_address_from_url(const std::string& url, in_addr& server) {
  std::string host = url.compare(0, 7, "rtsp://") == 0 ? url.substr(7) : url;
  size_t slash = host.find('/');
  if (slash != std::string::npos) host.resize(slash);
  return inet_pton(AF_INET, host.c_str(), &server) == 1;
}

std::string dotted_quad(const in_addr& address) {
  char text[INET_ADDRSTRLEN] = "";
  inet_ntop(AF_INET, &address, text, sizeof text);
  return text;
}

std::string redirect_answer(const std::string& interface_address, const sockaddr_in& destination) {
  std::string answer = "HTTP/1.0 302 RTSP stream is MPEG-TS RTP\r\n";
  answer += "Location: rtp://";
  answer += interface_address;
  answer += "@" + dotted_quad(destination.sin_addr) + ":" + std::to_string(ntohs(destination.sin_port)) + "\r\n";
  answer += "\r\n";
  return answer;
}
