#include "v2/rtsp/rtsp_lines.h"

#include <strings.h>

#include <cstdlib>
#include <cstring>

namespace {

// Overwrites a run of spaces with terminators; returns what follows it.
char* cut_spaces(char* p) {
  while (*p == ' ') *p++ = '\0';
  return p;
}

char* skip_token(char* p) {
  while (*p != '\0' && *p != ' ') ++p;
  return p;
}

}  // namespace

void parse_status_line(char* line, rtsp_status& status) {
  char* p = line;
  while (*p == ' ' || *p == '\t') ++p;
  status.protocol = p;
  p = cut_spaces(skip_token(p));
  status.code = static_cast<int>(strtol(p, nullptr, 10));
  p = cut_spaces(skip_token(p));
  status.reason = p;
}

bool status_is_good(const rtsp_status& status) {
  return strncmp(status.protocol, "RTSP/", 5) == 0 && status.code == 200;
}

bool split_header_line(char* line, char*& name, char*& value) {
  char* colon = strchr(line, ':');
  if (colon == nullptr) return false;
  *colon = '\0';
  char* v = colon + 1;
  if (*v == ' ') ++v;
  name = line;
  value = v;
  return true;
}

std::vector<const char*> split_public_value(char* value) {
  std::vector<const char*> tokens;
  char* p = value;
  for (;;) {
    while (*p == ' ') ++p;
    tokens.push_back(p);
    while (*p != '\0' && *p != ',') ++p;
    if (*p == '\0') return tokens;
    *p++ = '\0';
  }
}

void note_public_method(const char* token, rtsp_methods& methods) {
  if (strcasecmp(token, "describe") == 0) methods.describe = true;
  else if (strcasecmp(token, "setup") == 0) methods.setup = true;
  else if (strcasecmp(token, "play") == 0) methods.play = true;
  else if (strcasecmp(token, "teardown") == 0) methods.teardown = true;
}

bool methods_complete(const rtsp_methods& methods) {
  return methods.describe && methods.setup && methods.play && methods.teardown;
}
