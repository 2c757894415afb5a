// The RTSP probe: OPTIONS, DESCRIBE and SETUP over libcurl, and the 302
// redirect to an rtp:// address for servers that send MPEG-TS over RTP.
#pragma once

#include <netinet/in.h>

#include <cstdio>

#include <string>
#include <vector>

typedef void CURL;

// 0 when it has written the 302 answer on standard output (the run ends),
// 1 when the source is to be relayed as usual. Reads source_url.
int rtsp_probe();

int rtsp_options(CURL* curl);
int rtsp_describe(std::vector<std::string>& lines, CURL* curl);
int rtsp_setup(CURL* curl, const sockaddr_in& destination);
void dump_tmpfile(const char* label, FILE* f);
