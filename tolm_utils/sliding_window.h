// A byte window that stages output before it is written to a descriptor.
//
// One allocation holds this header and the storage after it. Pending bytes
// (written in, not yet emptied) run from `read` to `write`; free room runs from
// `write` to `end`. Writers copy to `write` and advance it themselves.
#pragma once

#include <cstddef>

struct sliding_window_v4 {
  unsigned char* begin;  // first byte of storage
  unsigned char* read;   // oldest pending byte
  unsigned char* write;  // one past the newest pending byte
  unsigned char* end;    // one past the last byte of storage
  int last_fd;           // descriptor last emptied to, -1 before the first
  int waiting_write_fd;  // descriptor that refused a write without waiting, -1 if none
};

// A new empty window of `capacity` bytes, or null.
sliding_window_v4* sliding_window_v4_create_buffer(unsigned long capacity);

// Writes out what is still pending to the descriptor last emptied to, giving up
// at the first error or once the descriptor has taken nothing for a second,
// then releases the window. Accepts null. Returns null.
sliding_window_v4* sliding_window_v4_destroy(sliding_window_v4* w);

// Reclaims room: with nothing pending both positions go back to the start;
// with the pending bytes past the middle of the storage they are moved to the
// start. Pending bytes keep their order.
void sliding_window_v4_lazy_flush(sliding_window_v4* w);

// Non-zero when begin <= read <= write <= end.
int sliding_window_v4_is_sane(const sliding_window_v4* w);

// Writes pending bytes, oldest first, to `fd`, waiting at most about 10 ms for
// it to take any. Returns the count written, 0 when it takes nothing now,
// negative on an error of the descriptor. `flags` must be 0. A pipe or socket
// with room costs one system call.
long sliding_window_v4_empty_to_fd(sliding_window_v4* w, int fd, unsigned long flags);
