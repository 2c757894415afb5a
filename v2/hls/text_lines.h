// Lines of a playlist or a WebVTT file, read one at a time without copying.
#pragma once

#include <string_view>

// What is left to read; a UTF-8 byte order mark at the start is skipped.
struct text_lines {
  std::string_view rest;
  explicit text_lines(std::string_view text) : rest(text.substr(0, 3) == "\xEF\xBB\xBF" ? text.substr(3) : text) {}
};

// The next line without its terminator (LF, CR LF or CR); false at the end.
inline bool next_line(text_lines& t, std::string_view& line) {
  if (t.rest.empty()) return false;
  const size_t end = t.rest.find_first_of("\r\n");
  line = t.rest.substr(0, end);
  if (end == std::string_view::npos) {
    t.rest = {};
    return true;
  }
  const size_t skip = t.rest.substr(end, 2) == "\r\n" ? 2 : 1;
  t.rest.remove_prefix(end + skip);
  return true;
}

inline bool is_blank(char c) { return c == ' ' || c == '\t'; }

inline std::string_view trim_blanks(std::string_view s) {
  while (!s.empty() && is_blank(s.front())) s.remove_prefix(1);
  while (!s.empty() && is_blank(s.back())) s.remove_suffix(1);
  return s;
}
