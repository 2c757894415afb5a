// Reading RTSP answers line by line: the status line, header lines and the
// Public header's method list. Each function works in place on one line of
// the line buffer (line end already removed) and does no I/O.
#pragma once

#include <vector>

// RTSP/1.0 200 OK  ->  protocol "RTSP/1.0", code 200, reason "OK".
// The pointers point into the parsed line buffer.
struct rtsp_status {
  const char* protocol = "";
  int code = 0;
  const char* reason = "";
};

// Parses a status line in place: leading spaces and tabs are skipped, the
// protocol token ends at the first space (not at a tab), the code is read
// with strtol, the reason phrase is the rest of the line. The runs of spaces
// after the protocol and after the code are overwritten with terminators.
// A line without spaces is all protocol, code 0, empty reason.
void parse_status_line(char* line, rtsp_status& status);

// A good answer: protocol token starting with "RTSP/" and code 200.
bool status_is_good(const rtsp_status& status);

// Cuts a header line at its first colon. The value loses exactly one leading
// space if it has one. False for a line without a colon.
bool split_header_line(char* line, char*& name, char*& value);

// The four methods the probe needs from a server's Public header.
struct rtsp_methods {
  bool describe = false;
  bool setup = false;
  bool play = false;
  bool teardown = false;
};

// Splits a Public value in place at each ",", skipping the spaces (spaces
// only) before each token; spaces before a comma stay in the token.
// "OPTIONS, DESCRIBE ,SETUP" -> "OPTIONS", "DESCRIBE ", "SETUP".
std::vector<const char*> split_public_value(char* value);

// Sets the flag of the method the token names (any case); other tokens,
// OPTIONS among them, set nothing.
void note_public_method(const char* token, rtsp_methods& methods);

bool methods_complete(const rtsp_methods& methods);
