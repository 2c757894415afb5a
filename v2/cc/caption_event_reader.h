// The reading side of the caption event format (see caption_event_format.h):
// picks PID 0x1FFE packets with the magic out of a transport stream,
// reassembles their payloads and turns each into an event record with
// absolute times. Used by pelvane-cc.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "v2/captions/ts_packet.h"

struct caption_pair_at {
  int64_t time_ms = 0;
  uint8_t b0 = 0;
  uint8_t b1 = 0;
};

struct caption_word_at {
  int64_t time_ms = 0;
  uint8_t type = 0;    // cc_data header byte: FF packet start, FE packet data
  uint16_t value = 0;  // (cc_data_1 << 8) | cc_data_2
};

struct caption_event_record {
  int64_t start = 0;
  int64_t end = 0;
  std::string identifier;
  std::string settings;  // as carried: "name:value name:value"
  std::string text;
  uint16_t lead608 = 0;
  uint16_t lead708 = 0;
  std::vector<caption_pair_at> cc608;
  std::vector<caption_word_at> cc708;
};

// Parses one caption event payload. True with `ev` filled when it is well
// formed, else false with the reason in `problem`.
bool read_caption_payload(const unsigned char* p, size_t n, caption_event_record& ev, std::string& problem);

// Reassembly state over the PID 0x1FFE packets of one stream.
struct caption_stream_reader {
  bool have_continuity = false;
  uint8_t next_continuity = 0;
  bool in_event = false;
  size_t expected = 0;  // payload length announced by the first packet
  std::vector<unsigned char> payload;
};

// What one packet produced: finished events and problems, in stream order.
struct caption_read_output {
  std::vector<caption_event_record> events;
  std::vector<std::string> problems;
};

// Takes one 188-byte transport packet (any PID; others are ignored).
void caption_reader_take(caption_stream_reader& r, const unsigned char* pkt, caption_read_output& out);

// End of the stream: reports an event left incomplete.
void caption_reader_finish(caption_stream_reader& r, caption_read_output& out);

// Splits a byte stream into 188-byte packets, finding the 0x47 sync again
// at the start and after garbage: a sync point is a 0x47 whose next packet
// also starts with 0x47 (or that ends the stream).
struct ts_splitter {
  std::vector<unsigned char> pending;
  uint64_t offset = 0;  // stream offset of pending[0]
  bool in_sync = false;
};

using ts_packet = std::array<unsigned char, ts_packet_size>;

// Adds `n` bytes (`eof` when they are the last) and appends every whole
// packet to `packets`; a loss of sync adds a message to `problems`.
void ts_split(ts_splitter& s, const unsigned char* data, size_t n, bool eof, std::vector<ts_packet>& packets,
              std::vector<std::string>& problems);

// The whole reading side over a byte stream: packets found again after
// garbage, events reassembled from PID 0x1FFE.
struct caption_byte_reader {
  ts_splitter splitter;
  caption_stream_reader reader;
};

// Takes the next `n` bytes of the stream (`eof` when they are the last) and
// appends the events they complete and the problems found, in stream order.
void caption_bytes_take(caption_byte_reader& r, const unsigned char* data, size_t n, bool eof,
                        caption_read_output& out);
