// Reading the answer the server gave to one request, from a response
// capture, line by line with a 1024-byte buffer.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

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
// Each returns what its request returns: 0 for a good answer, 1 with the
// reason written to standard error.
