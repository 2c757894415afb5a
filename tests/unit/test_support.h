// Helpers shared by the unit tests.
#pragma once

#include <cstdio>
#include <string>

// Captures what is written to a descriptor (and its stdio stream) between
// construction and take().
class fd_capture {
 public:
  fd_capture(int fd, FILE* stream);
  ~fd_capture() { take(); }
  std::string take();

 private:
  int fd_;
  FILE* stream_;
  int saved_fd_ = -1;
  int file_fd_ = -1;
};

struct stderr_capture : fd_capture {
  stderr_capture() : fd_capture(2, stderr) {}
};

struct stdout_capture : fd_capture {
  stdout_capture() : fd_capture(1, stdout) {}
};
