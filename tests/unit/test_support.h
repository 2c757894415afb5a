// Helpers shared by the unit tests.
#pragma once

#include <string>

// Captures what is written to standard error (descriptor 2 and the stdio
// stream) between construction and take().
class stderr_capture {
 public:
  stderr_capture();
  ~stderr_capture();
  std::string take();

 private:
  int saved_fd_ = -1;
  int file_fd_ = -1;
};

// The same for standard output.
class stdout_capture {
 public:
  stdout_capture();
  ~stdout_capture();
  std::string take();

 private:
  int saved_fd_ = -1;
  int file_fd_ = -1;
};
