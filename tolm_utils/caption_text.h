// Cue text front end of the caption converters: what the cue text says, one
// code point at a time, and the options that shape the captions.
#pragma once

#include <cstddef>
#include <string_view>

namespace tolm_cc {

struct caption_options {
  int max_rows = 4;                     // rows per caption, 1..15; more are dropped
  bool voice_prefix = false;            // <v Name> shows as "Name: "
  bool true_2a_codes = false;           // send — and } as their 608 codes (see map_char_608)
  bool unmappable_as_question = false;  // show '?' for a character no set holds
  int dtvcc_words_per_frame = 10;       // DTVCC triplets per frame at 29.97 fps, 1..15
};

// Decodes one UTF-8 sequence at pos and advances pos past it. Malformed,
// overlong, surrogate and truncated sequences give U+FFFD and advance by at
// least one byte, so a loop over any bytes ends.
char32_t decode_utf8(std::string_view s, size_t& pos);

// One displayable code point of cue text and its italics; cp == '\n' is a
// forced line break.
struct text_item {
  char32_t cp;
  bool italic;
};

// Reads cue text one item at a time: tags are removed (<i> counted for
// italics, <rt> text dropped, the rest keep their text), entities decoded,
// tab becomes a space, CR/LF break lines, other control characters and
// bidirectional marks vanish.
struct cue_text_reader {
  std::string_view text;
  size_t pos = 0;
  int italic_depth = 0;
  int ruby_text_depth = 0;
  bool voice_prefix = false;
  char32_t queued[40] = {};  // a voice name prefix waiting to be read
  int queued_len = 0;
  int queued_pos = 0;
};

cue_text_reader make_cue_text_reader(std::string_view text, bool voice_prefix);
// Reads the next item; false at the end of the text.
bool next_text_item(cue_text_reader& r, text_item& item);

// Base letter of a Latin letter with diacritics (U+00C0..U+017F), from its
// canonical decomposition; 0 when it has none.
char32_t base_letter(char32_t cp);
// Plain replacement for typographic characters that neither caption set
// holds (dashes, ellipsis, low quotes, angle quotes); empty when none.
std::u32string_view typographic_substitute(char32_t cp);

}  // namespace tolm_cc
