#include "tests/unit/test_support.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace {

int start_capture(int fd, FILE* stream, int& file_fd) {
  fflush(stream);
  char path[] = "/tmp/pelvane-capture-XXXXXX";
  file_fd = mkstemp(path);
  unlink(path);
  int saved = dup(fd);
  dup2(file_fd, fd);
  return saved;
}

std::string finish_capture(int fd, FILE* stream, int& saved, int& file_fd) {
  if (saved < 0) return {};
  fflush(stream);
  dup2(saved, fd);
  close(saved);
  saved = -1;
  std::string out;
  char buf[4096];
  lseek(file_fd, 0, SEEK_SET);
  ssize_t n;
  while ((n = read(file_fd, buf, sizeof buf)) > 0) out.append(buf, static_cast<size_t>(n));
  close(file_fd);
  file_fd = -1;
  return out;
}

}  // namespace

stderr_capture::stderr_capture() { saved_fd_ = start_capture(2, stderr, file_fd_); }
stderr_capture::~stderr_capture() { take(); }
std::string stderr_capture::take() { return finish_capture(2, stderr, saved_fd_, file_fd_); }

stdout_capture::stdout_capture() { saved_fd_ = start_capture(1, stdout, file_fd_); }
stdout_capture::~stdout_capture() { take(); }
std::string stdout_capture::take() { return finish_capture(1, stdout, saved_fd_, file_fd_); }
