#include "v2/ff_util.h"

#include <cstdio>

std::string ff_error_text(int err) {
  char buf[512];
  buf[0] = 0;
  av_strerror(err, buf, sizeof buf);
  return buf;
}

void report_ff_failure(const std::string& what, int err) {
  fprintf(stderr, "%sErr=0x%x str=%s\n", what.c_str(), static_cast<unsigned>(err), ff_error_text(err).c_str());
}
