#include "v2/cc/cc608_decoder.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <utility>

namespace {

// Basic set positions that differ from ASCII (0x27 is the apostrophe).
const char* basic_glyph(uint8_t c) {
  switch (c) {
    case 0x2A: return "á";
    case 0x5C: return "é";
    case 0x5E: return "í";
    case 0x5F: return "ó";
    case 0x60: return "ú";
    case 0x7B: return "ç";
    case 0x7C: return "÷";
    case 0x7D: return "Ñ";
    case 0x7E: return "ñ";
    case 0x7F: return "█";
    default: return nullptr;
  }
}

// Second bytes 0x30..0x3F after 0x11. 0x39 is the transparent space.
const char* const special_glyphs[16] = {"®", "°",      "½", "¿", "™", "¢", "£", "♪",
                                        "à", "\u00A0", "è", "â", "ê", "î", "ô", "û"};

// Second bytes 0x20..0x3F after 0x12 (Spanish, misc., French) and 0x13
// (Portuguese, German, Danish, box corners).
const char* const extended_a_glyphs[32] = {"Á", "É", "Ó", "Ú", "Ü", "ü", "‘", "¡", "*", "'", "—",
                                           "©", "℠", "•", "“", "”", "À", "Â", "Ç", "È", "Ê", "Ë",
                                           "ë", "Î", "Ï", "ï", "Ô", "Ù", "ù", "Û", "«", "»"};
const char* const extended_b_glyphs[32] = {"Ã",  "ã", "Í", "Ì", "ì", "Ò", "ò", "Õ", "õ", "{", "}",
                                           "\\", "^", "_", "|", "~", "Ä", "ä", "Ö", "ö", "ß", "¥",
                                           "¤",  "¦", "Å", "å", "Ø", "ø", "┌", "┐", "└", "┘"};

// Rows of the preamble address codes, by the low 3 bits of the first byte and
// bit 0x20 of the second; 0 marks a code that addresses no row.
const int pac_rows[8][2] = {{11, 0}, {1, 2}, {3, 4}, {12, 13}, {14, 15}, {5, 6}, {7, 8}, {9, 10}};

bool odd_parity(uint8_t b) { return __builtin_popcount(b) & 1; }

bool writable(const cc608_decoder& d) { return d.on_cc1 && d.pop_on; }

void put_glyph(cc608_decoder& d, const std::string& glyph, bool italic) {
  const int c = d.col < 32 ? d.col : 31;
  d.loading[d.row][c] = cc608_cell{glyph, italic};
  d.col = c + 1;
}

void put_char(cc608_decoder& d, uint8_t c) {
  if (!writable(d) || c < 0x20) return;
  const char* special = basic_glyph(c);
  put_glyph(d, special ? std::string(special) : std::string(1, static_cast<char>(c)), d.italic);
}

// Extended characters follow a basic-set fallback, which they replace.
void put_extended(cc608_decoder& d, const char* glyph) {
  if (!writable(d)) return;
  if (d.col > 0) --d.col;
  put_glyph(d, glyph, d.italic);
}

void clear_memory(cc608_memory& m) {
  for (auto& row : m)
    for (auto& cell : row) cell = cc608_cell();
}

// The caption on screen leaves it at `t`.
void end_shown(cc608_decoder& d, int64_t t, std::vector<srt_cue>& out) {
  std::string text = cc608_memory_text(d.shown);
  if (d.showing && !text.empty()) out.push_back(srt_cue{d.shown_at, t, std::move(text)});
  d.showing = false;
}

void misc_control(cc608_decoder& d, int64_t t, uint8_t code, std::vector<srt_cue>& out) {
  switch (code) {
    case 0x20:  // RCL
      d.pop_on = true;
      break;
    case 0x21:  // BS
      if (writable(d) && d.col > 0) d.loading[d.row][--d.col] = cc608_cell();
      break;
    case 0x24:  // DER
      if (writable(d))
        for (int c = d.col; c < 32; ++c) d.loading[d.row][c] = cc608_cell();
      break;
    case 0x25:  // RU2..RU4, RDC, TR, RTD: not pop-on
    case 0x26:
    case 0x27:
    case 0x29:
    case 0x2A:
    case 0x2B: d.pop_on = false; break;
    case 0x2C:  // EDM
      end_shown(d, t, out);
      clear_memory(d.shown);
      break;
    case 0x2E:  // ENM
      clear_memory(d.loading);
      break;
    case 0x2F:  // EOC
      d.pop_on = true;
      end_shown(d, t, out);
      std::swap(d.shown, d.loading);
      d.showing = true;
      d.shown_at = t;
      break;
    default:  // FON, CR and reserved codes change nothing here
      break;
  }
}

void preamble(cc608_decoder& d, uint8_t first, uint8_t second) {
  const int row = pac_rows[first & 0x07][(second & 0x20) ? 1 : 0];
  if (row == 0 || !writable(d)) return;
  d.row = row - 1;
  if (second & 0x10) {
    d.col = ((second >> 1) & 0x07) * 4;
    d.italic = false;
  } else {
    d.col = 0;
    d.italic = ((second >> 1) & 0x07) == 7;
  }
}

// One two-byte code, parity removed; the first byte is 0x10..0x1F.
void decode_code(cc608_decoder& d, int64_t t, uint8_t first, uint8_t second, std::vector<srt_cue>& out) {
  const bool data_channel_2 = first & 0x08;
  const uint8_t k = first & ~0x08;
  d.on_cc1 = !data_channel_2;
  if (second >= 0x40) {
    preamble(d, k, second);
  } else if ((k == 0x14 || k == 0x15) && second >= 0x20 && second <= 0x2F) {
    d.on_cc1 = d.on_cc1 && k == 0x14;  // 0x15 addresses CC3
    if (d.on_cc1) misc_control(d, t, second, out);
  } else if (k == 0x17 && second >= 0x21 && second <= 0x23) {
    if (writable(d)) d.col = std::min(d.col + (second - 0x20), 31);
  } else if (k == 0x11 && second >= 0x20 && second <= 0x2F) {
    // A mid-row code shows as a space and sets the style that follows.
    if (writable(d)) {
      d.italic = (second & 0x0E) == 0x0E;
      put_glyph(d, " ", false);
    }
  } else if (k == 0x11 && second >= 0x30 && second <= 0x3F) {
    if (writable(d)) put_glyph(d, special_glyphs[second - 0x30], d.italic);
  } else if (k == 0x12 && second >= 0x20 && second <= 0x3F) {
    put_extended(d, extended_a_glyphs[second - 0x20]);
  } else if (k == 0x13 && second >= 0x20 && second <= 0x3F) {
    put_extended(d, extended_b_glyphs[second - 0x20]);
  }
  // Background and foreground attribute codes are not shown in text.
}

std::string srt_time(int64_t ms) {
  if (ms < 0) ms = 0;
  char buf[40];
  snprintf(buf, sizeof buf, "%02" PRId64 ":%02" PRId64 ":%02" PRId64 ",%03" PRId64, ms / 3600000, ms / 60000 % 60,
           ms / 1000 % 60, ms % 1000);
  return buf;
}

}  // namespace

void cc608_decode_pair(cc608_decoder& d, int64_t time_ms, uint8_t b0, uint8_t b1, std::vector<srt_cue>& out) {
  d.last_time = time_ms;
  const uint8_t c0 = b0 & 0x7F;
  const uint8_t c1 = b1 & 0x7F;
  if (c0 >= 0x10 && c0 <= 0x1F) {
    if (!odd_parity(b0) || !odd_parity(b1)) {
      d.have_last_code = false;  // damaged: let its copy act
      return;
    }
    if (d.have_last_code && d.last_code[0] == c0 && d.last_code[1] == c1) {
      d.have_last_code = false;
      return;
    }
    d.have_last_code = true;
    d.last_code[0] = c0;
    d.last_code[1] = c1;
    decode_code(d, time_ms, c0, c1, out);
    return;
  }
  if (c0 == 0 && c1 == 0) return;  // filler
  d.have_last_code = false;
  if (c0 != 0 && c0 < 0x10) return;  // XDS, not caption text
  if (odd_parity(b0)) put_char(d, c0);
  if (odd_parity(b1)) put_char(d, c1);
}

void cc608_decode_finish(cc608_decoder& d, std::vector<srt_cue>& out) {
  end_shown(d, std::max(d.last_time, d.shown_at), out);
}

std::string cc608_memory_text(const cc608_memory& m) {
  std::string text;
  for (const auto& row : m) {
    int first = -1;
    int last = -1;
    for (int c = 0; c < 32; ++c) {
      const std::string& g = row[c].glyph;
      if (g.empty() || g == " ") continue;
      if (first < 0) first = c;
      last = c;
    }
    if (first < 0) continue;
    // Italic runs are tagged from their first to their last visible glyph;
    // the blanks around them stay outside the tags.
    std::string line;
    size_t visible_end = 0;
    bool in_italics = false;
    for (int c = first; c <= last; ++c) {
      const cc608_cell& cell = row[c];
      const bool blank = cell.glyph.empty() || cell.glyph == " ";
      if (!blank && cell.italic != in_italics) {
        if (cell.italic) line += "<i>";
        else line.insert(visible_end, "</i>");
        in_italics = cell.italic;
      }
      line += blank ? " " : cell.glyph;
      if (!blank) visible_end = line.size();
    }
    if (in_italics) line += "</i>";
    if (!text.empty()) text += '\n';
    text += line;
  }
  return text;
}

std::string srt_block(size_t index, const srt_cue& cue) {
  return std::to_string(index) + "\n" + srt_time(cue.start_ms) + " --> " + srt_time(cue.end_ms) + "\n" + cue.text +
         "\n\n";
}
