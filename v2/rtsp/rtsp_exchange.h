// The probe's three requests over libcurl. Each captures the whole answer in
// a temporary file, dumps it to standard error and hands it to its reader
// (rtsp_answers.h).
#pragma once

#include <netinet/in.h>

#include <cstdio>
#include <string>
#include <vector>

typedef void CURL;

constexpr size_t rtsp_answer_limit = 65536;  // far more than any description needs
constexpr long rtsp_silence_seconds = 30;    // a request's limit: in all, and without progress

// Made on the probe's one easy handle for source_url; 0 for success, 1 with
// the reason written. An answer (header lines and body) larger than
// rtsp_answer_limit fails its request: "%s answer larger than %zu bytes\n"
// after the dump of its first rtsp_answer_limit bytes; so does one that is
// not complete within the time limits: "%s answer not complete within 30
// seconds\n" after the dump of what came.
int rtsp_options(CURL* curl);
int rtsp_describe(std::vector<std::string>& lines, CURL* curl);
int rtsp_setup(CURL* curl, const sockaddr_in& destination);

// Copies a whole file to standard error between banners and rewinds it.
void dump_tmpfile(const char* label, FILE* f);
