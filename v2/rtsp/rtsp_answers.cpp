// Reading a response capture: what libcurl's default writer left in the
// temporary file, header lines first (CR LF ends), a blank line, the body.
//
//   RTSP/1.0 200 OK
//   CSeq: 2
//   Content-Type: application/sdp
//   Content-Length: 349
//
//   v=0
//   ...
#include <strings.h>

#include <cstdlib>
#include <cstring>

#include "tolm_utils/chomp.h"
#include "v2/rtsp/rtsp_answers.h"
#include "v2/rtsp/rtsp_lines.h"

namespace {

// The line buffer holds 1024 bytes but each read asks for 1023, so a read
// yields at most 1022 characters; a longer line comes as several pieces,
// each handled as a line of its own.
constexpr int line_buffer_size = 1024;
constexpr int line_read_size = 1023;

// Reads one line and removes its line end. 1 when nothing could be read.
int read_line(FILE* f, char* line) {
  if (fgets(line, line_read_size, f) == nullptr) {
    line[0] = '\0';
    return 1;
  }
  chomp(line);
  return 0;
}

// Reads and echoes the status line. An empty capture reads as an empty line.
int read_status(FILE* f, char* line) {
  read_line(f, line);
  rtsp_status status;
  parse_status_line(line, status);
  fprintf(stderr, "'%s' %d '%s'\n", status.protocol, status.code, status.reason);
  if (!status_is_good(status)) {
    fprintf(stderr, "FAIL\n");
    return 1;
  }
  return 0;
}

// Reads header lines up to the blank line that ends them, echoes each and
// hands name and value to on_header. Lines without a colon are skipped.
template <typename F>
void read_headers(FILE* f, char* line, F on_header) {
  while (!feof(f) && !ferror(f)) {
    if (read_line(f, line) != 0) return;
    if (line[0] == '\0') return;
    char* name;
    char* value;
    if (!split_header_line(line, name, value)) continue;
    fprintf(stderr, "'%s' = '%s'\n", name, value);
    on_header(name, value);
  }
}

}  // namespace

int read_options_answer(FILE* capture) {
  char line[line_buffer_size];
  if (read_status(capture, line) != 0) return 1;
  rtsp_methods methods;
  read_headers(capture, line, [&](const char* name, char* value) {
    if (strcasecmp(name, "public") != 0) return;
    for (const char* token : split_public_value(value)) {
      fprintf(stderr, "    '%s'\n", token);
      note_public_method(token, methods);
    }
  });
  if (!methods_complete(methods)) {
    fprintf(stderr, "RTSP must provide DESCRIBE, SETUP, PLAY, TEARDOWN\n");
    return 1;
  }
  return 0;
}

int read_describe_answer(FILE* capture, std::vector<std::string>& lines) {
  lines.clear();
  char line[line_buffer_size];
  if (read_status(capture, line) != 0) return 1;
  std::string content_type;
  long content_length = 0;
  read_headers(capture, line, [&](const char* name, char* value) {
    if (strcasecmp(name, "content-type") == 0) content_type = value;
    else if (strcasecmp(name, "content-length") == 0) content_length = strtol(value, nullptr, 10);
  });
  // Any non-zero length will do, negative ones included: it only tells that
  // a body was announced.
  if (content_length == 0 || content_type != "application/sdp") {
    fprintf(stderr, "Description is not SDP\n");
    return 1;
  }
  while (!feof(capture) && !ferror(capture)) {
    if (read_line(capture, line) != 0) break;
    lines.emplace_back(line);
  }
  return 0;
}

int read_setup_answer(FILE* capture) {
  char line[line_buffer_size];
  if (read_status(capture, line) != 0) return 1;
  read_headers(capture, line, [](const char*, char*) {});
  return 0;
}
