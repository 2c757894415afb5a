#include "v2/json/json.h"

#include <cstdint>
#include <cstdio>

namespace {

// Length of the valid UTF-8 sequence at p (1..4), or 0 when the bytes there
// are not one (overlong forms, surrogates and code points past U+10FFFF
// included).
size_t utf8_sequence(const unsigned char* p, size_t n) {
  const unsigned char c = p[0];
  size_t len;
  uint32_t min;
  uint32_t cp;
  if (c < 0x80) return 1;
  if ((c & 0xE0) == 0xC0) {
    len = 2, min = 0x80, cp = c & 0x1F;
  } else if ((c & 0xF0) == 0xE0) {
    len = 3, min = 0x800, cp = c & 0x0F;
  } else if ((c & 0xF8) == 0xF0) {
    len = 4, min = 0x10000, cp = c & 0x07;
  } else {
    return 0;
  }
  if (n < len) return 0;
  for (size_t i = 1; i < len; ++i) {
    if ((p[i] & 0xC0) != 0x80) return 0;
    cp = (cp << 6) | (p[i] & 0x3F);
  }
  if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return 0;
  return len;
}

void append_escape(std::string& out, unsigned code) {
  char buf[8];
  snprintf(buf, sizeof buf, "\\u%04x", code);
  out += buf;
}

}  // namespace

std::string json_string(std::string_view bytes) {
  const auto* p = reinterpret_cast<const unsigned char*>(bytes.data());
  const size_t n = bytes.size();
  std::string out = "\"";
  for (size_t i = 0; i < n;) {
    const unsigned char c = p[i];
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c == '\n') {
      out += "\\n";
    } else if (c == '\r') {
      out += "\\r";
    } else if (c == '\t') {
      out += "\\t";
    } else if (c < 0x20 || c == 0x7F) {
      append_escape(out, c);
    } else {
      const size_t len = utf8_sequence(p + i, n - i);
      if (len == 0) {  // not UTF-8
        append_escape(out, 0xFFFD);
        ++i;
        continue;
      }
      out.append(bytes.data() + i, len);
      i += len;
      continue;
    }
    ++i;
  }
  out += '"';
  return out;
}

std::string json_object(std::initializer_list<std::pair<const char*, std::string>> fields) {
  std::string out = "{";
  for (const auto& [name, value] : fields) {
    if (out.size() > 1) out += ',';
    out += json_string(name) + ":" + value;
  }
  return out + "}";
}
