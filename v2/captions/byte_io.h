// Bounded byte writer and reader for the caption event format. Multi-byte
// numbers are little-endian. Both keep a sticky `failed` flag: once a put or
// get would pass the end, nothing more is written or read, and the caller
// checks the flag (or the position) once at the end.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

struct byte_writer {
  unsigned char* data = nullptr;
  size_t size = 0;
  // Offset of the next byte. It keeps counting past `size` once a write has
  // been refused, so `pos <= size` holds exactly when every byte went in.
  size_t pos = 0;
  bool failed = false;
};

inline byte_writer make_byte_writer(unsigned char* data, size_t size) {
  byte_writer w;
  w.data = data;
  w.size = size;
  return w;
}

// Room check for n more bytes; sets `failed` when they would not fit.
inline bool writer_room(byte_writer& w, size_t n) {
  if (!w.failed && n <= w.size - w.pos) return true;
  w.failed = true;
  w.pos += n;
  return false;
}

inline void put_u8(byte_writer& w, uint8_t v) {
  if (!writer_room(w, 1)) return;
  w.data[w.pos++] = v;
}

inline void put_u16le(byte_writer& w, uint16_t v) {
  if (!writer_room(w, 2)) return;
  w.data[w.pos++] = static_cast<unsigned char>(v);
  w.data[w.pos++] = static_cast<unsigned char>(v >> 8);
}

inline void put_i64le(byte_writer& w, int64_t v) {
  if (!writer_room(w, 8)) return;
  const uint64_t u = static_cast<uint64_t>(v);
  for (int i = 0; i < 8; ++i) w.data[w.pos++] = static_cast<unsigned char>(u >> (8 * i));
}

inline void put_bytes(byte_writer& w, const void* src, size_t n) {
  if (!writer_room(w, n)) return;
  if (n) memcpy(w.data + w.pos, src, n);
  w.pos += n;
}

inline void put_zeros(byte_writer& w, size_t n) {
  if (!writer_room(w, n)) return;
  if (n) memset(w.data + w.pos, 0, n);
  w.pos += n;
}

struct byte_reader {
  const unsigned char* data = nullptr;
  size_t size = 0;
  size_t pos = 0;
  bool failed = false;
};

inline byte_reader make_byte_reader(const unsigned char* data, size_t size) {
  byte_reader r;
  r.data = data;
  r.size = size;
  return r;
}

inline size_t reader_left(const byte_reader& r) { return r.failed ? 0 : r.size - r.pos; }

inline bool reader_has(byte_reader& r, size_t n) {
  if (n <= reader_left(r)) return true;
  r.failed = true;
  return false;
}

inline uint8_t get_u8(byte_reader& r) { return reader_has(r, 1) ? r.data[r.pos++] : 0; }

inline uint16_t get_u16le(byte_reader& r) {
  if (!reader_has(r, 2)) return 0;
  const uint16_t v = static_cast<uint16_t>(r.data[r.pos] | (r.data[r.pos + 1] << 8));
  r.pos += 2;
  return v;
}

inline int64_t get_i64le(byte_reader& r) {
  if (!reader_has(r, 8)) return 0;
  uint64_t u = 0;
  for (int i = 0; i < 8; ++i) u |= static_cast<uint64_t>(r.data[r.pos + i]) << (8 * i);
  r.pos += 8;
  return static_cast<int64_t>(u);
}

inline void skip_bytes(byte_reader& r, size_t n) {
  if (reader_has(r, n)) r.pos += n;
}
