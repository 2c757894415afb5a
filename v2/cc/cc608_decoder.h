// A small CEA-608 decoder for pelvane-cc --srt: CC1 pop-on captions (RCL,
// ENM, PACs, tab offsets, mid-row codes, the basic, special and extended
// character sets, EOC, EDM) decoded back into timed text. Roll-up and
// paint-on data, other channels and XDS are ignored.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

struct cc608_cell {
  std::string glyph;  // UTF-8; empty: nothing written here
  bool italic = false;
};

using cc608_memory = std::array<std::array<cc608_cell, 32>, 15>;

struct cc608_decoder {
  cc608_memory shown;    // displayed memory
  cc608_memory loading;  // non-displayed memory, written by pop-on data
  bool on_cc1 = false;   // the last code selected CC1
  bool pop_on = false;
  int row = 14;  // 0-based
  int col = 0;   // 0..32; 32: past the last column
  bool italic = false;
  // The repeat rule: a code identical to the one just acted on is its
  // transmitted copy and is skipped once.
  bool have_last_code = false;
  uint8_t last_code[2] = {0, 0};
  bool showing = false;
  int64_t shown_at = 0;
  int64_t last_time = 0;
};

// One caption as shown on screen: from its EOC to the EDM or EOC that
// removed it. Lines are joined by '\n', italic runs wrapped in <i></i>.
struct srt_cue {
  int64_t start_ms = 0;
  int64_t end_ms = 0;
  std::string text;
};

// Decodes one field-1 byte pair (parity bits included) at `time_ms`;
// captions taken off the screen are appended to `out`.
void cc608_decode_pair(cc608_decoder& d, int64_t time_ms, uint8_t b0, uint8_t b1, std::vector<srt_cue>& out);

// End of data: a caption still on screen ends at the last pair's time.
void cc608_decode_finish(cc608_decoder& d, std::vector<srt_cue>& out);

// The text a memory displays: rows top to bottom, blank rows left out.
std::string cc608_memory_text(const cc608_memory& m);

// One SRT block: index, "HH:MM:SS,mmm --> HH:MM:SS,mmm", text, blank line.
std::string srt_block(size_t index, const srt_cue& cue);
