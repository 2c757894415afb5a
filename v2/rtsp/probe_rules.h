// The probe's decisions, from values to values: is the description usable,
// which media section carries MPEG-TS over RTP and where to, which transport
// SETUP asks for, the server's address, and the text of the 302 answer.
#pragma once

#include <netinet/in.h>

#include <string>

#include "v2/sdp/sdp.h"

// Session connection IN / IP4 with an address, and at least one media section.
bool session_is_usable(const session& s);

// The MPEG-TS destination of a media section: video, a port text, RTP/AVP,
// payload type 33, and the session's connection address as a dotted quad
// (a "/ttl" suffix does not convert). The port is m_port read as a decimal
// number and kept to its low 16 bits. True with `destination` filled, false
// when the section does not qualify.
bool mpegts_destination(const session& s, const media& m, sockaddr_in& destination);

// The first media section of the description that qualifies. True with
// `destination` filled, false when none does.
bool choose_mpegts_destination(const session& s, sockaddr_in& destination);

// "RTP/AVP;multicast" for a destination in 224.0.0.0/4, else "RTP/AVP;unicast".
const char* setup_transport(const sockaddr_in& destination);

// The RTSP server's address from the source URL: the text after "rtsp://" up
// to the first "/" must be a bare dotted quad (no port, no name). True with
// `server` filled, false otherwise.
bool server_address_from_url(const std::string& url, in_addr& server);

std::string dotted_quad(const in_addr& address);

// The three-line HTTP/1.0 302 answer whose Location is
// rtp://<interface>@<destination address>:<port>; the interface part is
// empty when the control connection's local address is unknown.
std::string redirect_answer(const std::string& interface_address, const sockaddr_in& destination);
