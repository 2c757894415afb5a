// The RTSP probe: OPTIONS, DESCRIBE and SETUP over libcurl, and the 302
// redirect to an rtp:// address for servers that send MPEG-TS over RTP.
#pragma once

#include <netinet/in.h>

#include <cstdio>

#include <string>
#include <vector>

typedef void CURL;

constexpr size_t rtsp_answer_limit = 65536;  // far more than any description needs
constexpr long rtsp_silence_seconds = 30;     // a request ends after this long without progress

// 0 when it has written the 302 answer on standard output (the run ends),
// 1 when the source is to be relayed as usual. Reads source_url.
int rtsp_probe();

// The three requests, made on the probe's one easy handle for source_url.
// Each captures the whole answer in a temporary file, dumps it and echoes
// its status and header lines to standard error; 0 for success, 1 with the
// reason written. An answer (header lines and body) larger than
// rtsp_answer_limit fails its request: "%s answer larger than %zu bytes\n"
// after the dump of its first rtsp_answer_limit bytes.
int rtsp_options(CURL* curl);
int rtsp_describe(std::vector<std::string>& lines, CURL* curl);
int rtsp_setup(CURL* curl, const sockaddr_in& destination);

// Copies a whole file to standard error between banners and rewinds it.
void dump_tmpfile(const char* label, FILE* f);

// The readers of a response capture behind the three requests, from its
// start: status line, then header lines up to the blank line (each echoed),
// then the request's own test. They do not close the capture.
//   options:  good status and all of DESCRIBE, SETUP, PLAY, TEARDOWN in Public
//   describe: good status, non-zero Content-Length and Content-Type exactly
//             "application/sdp"; `lines` (emptied first) gets the body lines
//   setup:    good status
int read_options_answer(FILE* capture);
int read_describe_answer(FILE* capture, std::vector<std::string>& lines);
int read_setup_answer(FILE* capture);

// Looks through this process's open descriptors for the socket whose peer is
// `server` (the RTSP control connection) and returns its local address as
// dotted-quad text; empty when there is none.
std::string find_control_interface(const in_addr& server);
