#include "v2/channels/json.h"

#include <cstdint>
#include <cstdio>

namespace {

// The length of the well-formed UTF-8 sequence at the start of `s`, or 0.
size_t utf8_sequence(std::string_view s) {
  const auto byte = [&](size_t i) { return i < s.size() ? static_cast<uint8_t>(s[i]) : 0; };
  const uint8_t b0 = byte(0);
  const auto tail = [&](size_t n, uint8_t lo1, uint8_t hi1) -> size_t {
    if (byte(1) < lo1 || byte(1) > hi1) return 0;
    for (size_t i = 2; i <= n; ++i)
      if (byte(i) < 0x80 || byte(i) > 0xBF) return 0;
    return n + 1;
  };
  if (b0 < 0x80) return 1;
  if (b0 >= 0xC2 && b0 <= 0xDF) return tail(1, 0x80, 0xBF);
  if (b0 == 0xE0) return tail(2, 0xA0, 0xBF);  // no overlong forms
  if (b0 == 0xED) return tail(2, 0x80, 0x9F);  // no surrogates
  if ((b0 >= 0xE1 && b0 <= 0xEC) || b0 == 0xEE || b0 == 0xEF) return tail(2, 0x80, 0xBF);
  if (b0 == 0xF0) return tail(3, 0x90, 0xBF);
  if (b0 >= 0xF1 && b0 <= 0xF3) return tail(3, 0x80, 0xBF);
  if (b0 == 0xF4) return tail(3, 0x80, 0x8F);  // nothing past U+10FFFF
  return 0;
}

}  // namespace

std::string json_string(std::string_view s) {
  std::string out = "\"";
  while (!s.empty()) {
    const char c = s.front();
    const size_t n = utf8_sequence(s);
    if (n == 0) {
      out += "\\ufffd";
      s.remove_prefix(1);
      continue;
    }
    if (c == '"' || c == '\\') {
      out += '\\';
      out += c;
    } else if (static_cast<uint8_t>(c) < 0x20) {
      char esc[8];
      snprintf(esc, sizeof esc, "\\u%04x", static_cast<unsigned>(c));
      out += esc;
    } else {
      out.append(s.substr(0, n));
    }
    s.remove_prefix(n);
  }
  return out + "\"";
}

std::string json_object(std::initializer_list<std::pair<const char*, std::string>> fields) {
  std::string out = "{";
  for (const auto& [name, value] : fields) {
    if (out.size() > 1) out += ',';
    out += json_string(name) + ":" + value;
  }
  return out + "}";
}
