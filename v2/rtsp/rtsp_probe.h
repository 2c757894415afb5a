// The RTSP probe: for an rtsp:// source, OPTIONS, DESCRIBE and SETUP of its
// own over libcurl, and the 302 redirect to an rtp:// address for servers
// that send MPEG-TS over RTP.
#pragma once

#include <netinet/in.h>

#include <string>

// 0 when it has written the 302 answer on standard output (the run ends),
// 1 when the source is to be relayed as usual. Reads source_url.
int rtsp_probe();

// Looks through this process's open descriptors for the socket whose peer is
// `server` (the RTSP control connection) and returns its local address as
// dotted-quad text; empty when there is none.
std::string find_control_interface(const in_addr& server);
