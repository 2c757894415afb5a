// The client's request head: where it ends, and what it asks for. Only the
// request line and the Host header matter here; the rest is checked for form
// and dropped.
//
//   GET /lineup.json HTTP/1.1\r\n
//   Host: 192.168.1.20:5004\r\n
//   \r\n
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

// A request head is read whole before anything is answered: at most this many
// bytes, within this many seconds from the connection's start.
inline constexpr size_t request_head_max = 8192;
inline constexpr int request_head_seconds = 5;

// How reading the head ended.
enum head_outcome {
  head_complete,   // its empty line arrived
  head_closed,     // the client closed its side first
  head_too_slow,   // the time ran out
  head_too_long,   // request_head_max bytes without the empty line
  head_read_error  // reading the connection failed
};

// The length of the head in `data` up to and including its empty line (CR LF
// CR LF, or LF LF), or 0 while it has not arrived.
size_t request_head_end(std::string_view data);

struct http_request {
  std::string method;
  std::string path;  // the target up to '?'
  std::string host;  // the Host header; empty when there is none
};

// Parses a whole head. False, with the reason in `error`, for anything
// malformed: a request line other than "METHOD /target HTTP/1.x", control
// characters, a folded or nameless header line, an invalid or repeated Host.
bool parse_request_head(std::string_view head, http_request& req, std::string& error);

// A Host header that may be written into the answers as it is: a name or an
// IPv4 address made of letters, digits, '-', '.' and '_', or an IPv6 address
// in brackets, then optionally ':' and a port; at most 255 characters.
bool valid_host(std::string_view host);
