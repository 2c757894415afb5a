#include "tests/unit/test_support.h"

#include <unistd.h>

#include <cstdlib>

fd_capture::fd_capture(int fd, FILE* stream) : fd_(fd), stream_(stream) {
  fflush(stream_);
  char path[] = "/tmp/pelvane-capture-XXXXXX";
  file_fd_ = mkstemp(path);
  unlink(path);
  saved_fd_ = dup(fd_);
  dup2(file_fd_, fd_);
}

std::string fd_capture::take() {
  if (saved_fd_ < 0) return {};
  fflush(stream_);
  dup2(saved_fd_, fd_);
  close(saved_fd_);
  saved_fd_ = -1;
  std::string out;
  char buf[4096];
  ssize_t n;
  for (off_t at = 0; (n = pread(file_fd_, buf, sizeof buf, at)) > 0; at += n) out.append(buf, static_cast<size_t>(n));
  close(file_fd_);
  return out;
}
