// Cue text front end of the caption converters: UTF-8, WebVTT tags and
// entities, and the plain-letter fallbacks shared by both caption sets.
#include <cstring>

#include "tolm_utils/caption_text.h"

namespace tolm_cc {

char32_t decode_utf8(std::string_view s, size_t& pos) {
  const unsigned char lead = static_cast<unsigned char>(s[pos]);
  if (lead < 0x80) {
    ++pos;
    return lead;
  }
  int len;
  char32_t cp;
  char32_t least;
  if (lead >= 0xC2 && lead <= 0xDF) {
    len = 2, cp = lead & 0x1F, least = 0x80;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    len = 3, cp = lead & 0x0F, least = 0x800;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    len = 4, cp = lead & 0x07, least = 0x10000;
  } else {
    ++pos;  // stray continuation byte, C0/C1 or F5..FF
    return 0xFFFD;
  }
  for (int i = 1; i < len; ++i) {
    if (pos + i >= s.size()) {
      pos = s.size();
      return 0xFFFD;
    }
    const unsigned char c = static_cast<unsigned char>(s[pos + i]);
    if ((c & 0xC0) != 0x80) {
      pos += i;  // the byte that broke the sequence starts the next one
      return 0xFFFD;
    }
    cp = (cp << 6) | (c & 0x3F);
  }
  pos += len;
  if (cp < least || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return 0xFFFD;
  return cp;
}

cue_text_reader make_cue_text_reader(std::string_view text, bool voice_prefix) {
  cue_text_reader r;
  r.text = text;
  r.voice_prefix = voice_prefix;
  return r;
}

namespace {

bool is_tag_blank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f'; }

bool ascii_iequal(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    char x = a[i], y = b[i];
    if (x >= 'A' && x <= 'Z') x = static_cast<char>(x - 'A' + 'a');
    if (y >= 'A' && y <= 'Z') y = static_cast<char>(y - 'A' + 'a');
    if (x != y) return false;
  }
  return true;
}

// Handles the tag whose text (between '<' and '>') is `tag`.
void apply_tag(cue_text_reader& r, std::string_view tag) {
  const bool closing = !tag.empty() && tag[0] == '/';
  if (closing) tag.remove_prefix(1);
  size_t n = 0;
  while (n < tag.size() && !is_tag_blank(tag[n]) && tag[n] != '.') ++n;
  const std::string_view name = tag.substr(0, n);
  constexpr int depth_cap = 1 << 20;
  if (ascii_iequal(name, "i")) {
    if (closing) {
      if (r.italic_depth > 0) --r.italic_depth;
    } else if (r.italic_depth < depth_cap) {
      ++r.italic_depth;
    }
  } else if (ascii_iequal(name, "rt")) {
    if (closing) {
      if (r.ruby_text_depth > 0) --r.ruby_text_depth;
    } else if (r.ruby_text_depth < depth_cap) {
      ++r.ruby_text_depth;
    }
  } else if (ascii_iequal(name, "v") && !closing && r.voice_prefix && r.ruby_text_depth == 0) {
    // <v Name>: the annotation after the class list and blanks is the name.
    size_t i = n;
    while (i < tag.size() && !is_tag_blank(tag[i])) ++i;
    while (i < tag.size() && is_tag_blank(tag[i])) ++i;
    std::string_view ann = tag.substr(i);
    while (!ann.empty() && is_tag_blank(ann.back())) ann.remove_suffix(1);
    if (ann.empty()) return;
    r.queued_len = 0;
    r.queued_pos = 0;
    size_t p = 0;
    constexpr int name_cap = 32;
    while (p < ann.size() && r.queued_len < name_cap) {
      const char32_t cp = decode_utf8(ann, p);
      r.queued[r.queued_len++] = (cp == '\t' || cp == '\n' || cp == '\r') ? U' ' : cp;
    }
    r.queued[r.queued_len++] = U':';
    r.queued[r.queued_len++] = U' ';
  }
}

// Decodes the entity at r.pos ('&'); on success sets cp and moves past ';'.
bool read_entity(cue_text_reader& r, char32_t& cp) {
  const std::string_view t = r.text;
  size_t j = r.pos + 1;
  constexpr size_t longest = 12;  // "&#x0010FFFF;" and every name fit
  while (j < t.size() && j - r.pos <= longest &&
         ((t[j] >= '0' && t[j] <= '9') || (t[j] >= 'a' && t[j] <= 'z') || (t[j] >= 'A' && t[j] <= 'Z') ||
          t[j] == '#'))
    ++j;
  if (j >= t.size() || t[j] != ';' || j == r.pos + 1) return false;
  const std::string_view name = t.substr(r.pos + 1, j - r.pos - 1);
  static const struct {
    const char* name;
    char32_t cp;
  } named[] = {{"amp", U'&'},       {"lt", U'<'},       {"gt", U'>'},
               {"nbsp", U'\u00A0'}, {"lrm", U'\u200E'}, {"rlm", U'\u200F'}};
  bool found = false;
  for (const auto& e : named) {
    if (name == e.name) {
      cp = e.cp;
      found = true;
      break;
    }
  }
  if (!found && name.size() >= 2 && name[0] == '#') {
    const bool hex = name[1] == 'x' || name[1] == 'X';
    const std::string_view digits = name.substr(hex ? 2 : 1);
    if (digits.empty()) return false;
    uint64_t v = 0;
    for (char c : digits) {
      int d;
      if (c >= '0' && c <= '9') d = c - '0';
      else if (hex && c >= 'a' && c <= 'f') d = c - 'a' + 10;
      else if (hex && c >= 'A' && c <= 'F') d = c - 'A' + 10;
      else return false;
      v = v * (hex ? 16 : 10) + static_cast<uint64_t>(d);
      if (v > 0x10FFFF) v = 0x110000;  // stays out of range, no overflow
    }
    cp = (v == 0 || v > 0x10FFFF || (v >= 0xD800 && v <= 0xDFFF)) ? 0xFFFD : static_cast<char32_t>(v);
    found = true;
  }
  if (!found) return false;
  r.pos = j + 1;
  return true;
}

}  // namespace

bool next_text_item(cue_text_reader& r, text_item& item) {
  const std::string_view t = r.text;
  for (;;) {
    if (r.queued_pos < r.queued_len) {
      item = {r.queued[r.queued_pos++], r.italic_depth > 0};
      return true;
    }
    if (r.pos >= t.size()) return false;
    char32_t cp;
    const char c = t[r.pos];
    if (c == '<') {
      const size_t close = t.find('>', r.pos + 1);
      if (close == std::string_view::npos) {
        r.pos = t.size();  // an unterminated tag swallows the rest
        return false;
      }
      apply_tag(r, t.substr(r.pos + 1, close - r.pos - 1));
      r.pos = close + 1;
      continue;
    }
    if (c == '&' && read_entity(r, cp)) {
      // decoded; falls through to the filters below
    } else if (c == '\r') {
      ++r.pos;
      if (r.pos < t.size() && t[r.pos] == '\n') ++r.pos;
      cp = U'\n';
    } else {
      cp = decode_utf8(t, r.pos);
    }
    if (r.ruby_text_depth > 0) continue;
    if (cp == U'\t') cp = U' ';
    if (cp == U'\n') {
      item = {cp, false};
      return true;
    }
    if (cp < 0x20 || (cp >= 0x7F && cp <= 0x9F)) continue;                       // control characters
    if (cp == 0x200B || cp == 0x200E || cp == 0x200F || cp == 0xFEFF) continue;  // invisible marks
    item = {cp, r.italic_depth > 0};
    return true;
  }
}

char32_t base_letter(char32_t cp) {
  // '.' marks letters without a canonical decomposition (Æ, Ð, Ø, ß, Ł ...).
  static const char latin[] =
      "AAAAAA.CEEEEIIII"   // U+00C0
      ".NOOOOO..UUUUY.."   // U+00D0
      "aaaaaa.ceeeeiiii"   // U+00E0
      ".nooooo..uuuuy.y"   // U+00F0
      "AaAaAaCcCcCcCcDd"   // U+0100
      "..EeEeEeEeEeGgGg"   // U+0110
      "GgGgHh..IiIiIiIi"   // U+0120
      "I...JjKk.LlLlLlL"   // U+0130
      "l..NnNnNn...OoOo"   // U+0140
      "Oo..RrRrRrSsSsSs"   // U+0150
      "SsTtTt..UuUuUuUu"   // U+0160
      "UuUuWwYyYZzZzZzs";  // U+0170
  static_assert(sizeof(latin) == 0xC0 + 1);
  if (cp < 0xC0 || cp > 0x17F) return 0;
  const char b = latin[cp - 0xC0];
  return b == '.' ? 0 : static_cast<char32_t>(b);
}

std::u32string_view typographic_substitute(char32_t cp) {
  switch (cp) {
    case 0x2010:  // hyphen
    case 0x2011:  // non-breaking hyphen
    case 0x2012:  // figure dash
    case 0x2013:  // en dash
    case 0x2014:  // em dash
    case 0x2212:  // minus sign
      return U"-";
    case 0x2026: return U"...";
    case 0x201A: return U",";
    case 0x201E: return U"\"";
    case 0x2039: return U"<";
    case 0x203A: return U">";
    case 0x00B4: return U"'";
    case 0x0060: return U"\u2018";  // grave accent shows as a left single quote
    default: return {};
  }
}

}  // namespace tolm_cc
