#include "v2/hls/webvtt_segment.h"

#include <algorithm>
#include <functional>

#include "v2/hls/text_lines.h"

namespace {

constexpr size_t hour_digits_max = 9;  // keeps every cue time x 90 well inside 64 bits

bool is_digit(char c) { return c >= '0' && c <= '9'; }

// Exactly `n` digits at s[i]; their value in `out`.
bool fixed_digits(std::string_view s, size_t i, size_t n, int64_t& out) {
  if (i + n > s.size()) return false;
  out = 0;
  for (size_t k = i; k < i + n; ++k) {
    if (!is_digit(s[k])) return false;
    out = out * 10 + (s[k] - '0');
  }
  return true;
}

// A cue time at s[i]: [hours:]mm:ss.ttt, minutes and seconds below 60. Moves
// `i` past it.
bool read_time(std::string_view s, size_t& i, int64_t& ms) {
  size_t j = i;
  while (j < s.size() && is_digit(s[j])) ++j;
  const size_t first = j - i;
  int64_t hours = 0;
  if (j < s.size() && s[j] == ':' && j + 3 < s.size() && s[j + 3] == ':') {
    if (first == 0 || first > hour_digits_max || !fixed_digits(s, i, first, hours)) return false;
    i = j + 1;
  } else if (first != 2) {
    return false;
  }
  int64_t minutes = 0;
  int64_t seconds = 0;
  int64_t millis = 0;
  if (!fixed_digits(s, i, 2, minutes) || i + 2 >= s.size() || s[i + 2] != ':') return false;
  if (!fixed_digits(s, i + 3, 2, seconds) || i + 5 >= s.size() || s[i + 5] != '.') return false;
  if (!fixed_digits(s, i + 6, 3, millis) || minutes > 59 || seconds > 59) return false;
  i += 9;
  ms = ((hours * 60 + minutes) * 60 + seconds) * 1000 + millis;
  return true;
}

void skip_blanks(std::string_view s, size_t& i) {
  while (i < s.size() && is_blank(s[i])) ++i;
}

bool has_arrow(std::string_view line) { return line.find("-->") != std::string_view::npos; }

// A timing line: start --> end, then the settings.
bool read_timing(std::string_view line, segment_cue& cue) {
  size_t i = 0;
  skip_blanks(line, i);
  if (!read_time(line, i, cue.start_ms)) return false;
  skip_blanks(line, i);
  if (line.substr(i, 3) != "-->") return false;
  i += 3;
  skip_blanks(line, i);
  if (!read_time(line, i, cue.end_ms)) return false;
  if (i < line.size() && !is_blank(line[i])) return false;
  cue.settings.assign(trim_blanks(line.substr(i)).substr(0, cue_field_max));
  return cue.end_ms >= cue.start_ms;
}

void append_text_line(std::string& text, std::string_view line) {
  if (!text.empty() && text.size() < cue_field_max) text += '\n';
  text.append(line.substr(0, cue_field_max - std::min(text.size(), cue_field_max)));
}

bool is_signature(std::string_view line) {
  return line.substr(0, 6) == "WEBVTT" && (line.size() == 6 || is_blank(line[6]));
}

int64_t positive_mod(int64_t a, int64_t m) { return ((a % m) + m) % m; }

}  // namespace

bool parse_timestamp_map(std::string_view value, timestamp_map& out) {
  bool have_mpegts = false;
  bool have_local = false;
  timestamp_map m;
  while (!value.empty()) {
    const size_t comma = value.find(',');
    const std::string_view part = trim_blanks(value.substr(0, comma));
    value = comma == std::string_view::npos ? std::string_view() : value.substr(comma + 1);
    if (part.substr(0, 7) == "MPEGTS:" && !have_mpegts) {
      const std::string_view digits = part.substr(7);
      if (digits.empty() || digits.size() > 18 || !fixed_digits(digits, 0, digits.size(), m.mpegts)) return false;
      m.mpegts %= mpegts_wrap;
      have_mpegts = true;
    } else if (part.substr(0, 6) == "LOCAL:" && !have_local) {
      size_t i = 6;
      if (!read_time(part, i, m.local_ms) || i != part.size()) return false;
      have_local = true;
    } else {
      return false;
    }
  }
  if (!have_mpegts || !have_local) return false;
  out = m;
  return true;
}

webvtt_segment parse_webvtt_segment(std::string_view text) {
  webvtt_segment seg;
  text_lines lines(text);
  std::string_view line;
  if (!next_line(lines, line) || !is_signature(line)) return seg;
  seg.valid = true;
  // The header runs to the first blank line (or a timing line without one).
  bool pending = false;  // `line` is a timing line read in the header
  while (next_line(lines, line) && !line.empty()) {
    if (has_arrow(line)) {
      pending = true;
      break;
    }
    if (line.substr(0, 16) == "X-TIMESTAMP-MAP=" && !parse_timestamp_map(line.substr(16), seg.map))
      seg.bad_map = true;
  }
  enum { between, after_identifier, in_text, skipping } state = between;
  segment_cue cue;
  std::string_view identifier;
  const auto finish = [&seg, &cue]() {
    if (seg.cues.size() < segment_cues_max) seg.cues.push_back(std::move(cue));
    else ++seg.dropped;
    cue = segment_cue();
  };
  const auto start = [&cue, &state](std::string_view id, std::string_view timing) {
    cue = segment_cue();
    cue.identifier.assign(id.substr(0, cue_field_max));
    state = read_timing(timing, cue) ? in_text : skipping;
  };
  while (pending || next_line(lines, line)) {
    pending = false;
    if (line.empty()) {
      if (state == in_text) finish();
      state = between;
    } else if (state == in_text) {
      if (has_arrow(line)) {  // a new cue without a blank line before it
        finish();
        start({}, line);
      } else {
        append_text_line(cue.text, line);
      }
    } else if (state == between) {
      if (has_arrow(line)) start({}, line);
      else identifier = line, state = after_identifier;
    } else if (state == after_identifier) {
      if (has_arrow(line)) start(identifier, line);
      else state = skipping;  // NOTE, STYLE, REGION or something unknown
    }
  }
  if (state == in_text) finish();
  return seg;
}

int64_t cue_to_mpegts(const timestamp_map& map, int64_t cue_ms) {
  return positive_mod(map.mpegts + positive_mod((cue_ms - map.local_ms) * 90, mpegts_wrap), mpegts_wrap);
}

int64_t nearest_wrap(int64_t t, int64_t reference) {
  const __int128 diff = static_cast<__int128>(reference) - t + mpegts_wrap / 2;
  __int128 k = diff / mpegts_wrap;
  if (diff % mpegts_wrap < 0) --k;
  const __int128 r = t + k * mpegts_wrap;
  return static_cast<int64_t>(std::clamp<__int128>(r, INT64_MIN, INT64_MAX));
}

bool place_cue(int64_t start_mpegts, int64_t duration_ms, int64_t first_video_90k, int64_t latest_video_90k,
               int64_t& start_ms, int64_t& end_ms) {
  const int64_t start = nearest_wrap(start_mpegts, latest_video_90k);
  start_ms = start / 90 - (start % 90 < 0 ? 1 : 0);
  end_ms = start_ms + duration_ms;
  return static_cast<__int128>(end_ms) * 90 >= first_video_90k;
}

bool first_sighting(cue_memory& m, int64_t start_mpegts, int64_t duration_ms, std::string_view text) {
  const cue_memory::key k{start_mpegts, duration_ms, std::hash<std::string_view>()(text)};
  if (std::find(m.keys.begin(), m.keys.end(), k) != m.keys.end()) return false;
  if (m.keys.size() >= cue_memory_keys) m.keys.pop_front();
  m.keys.push_back(k);
  return true;
}
