#include "v2/hls/hls_playlist.h"

#include <algorithm>
#include <charconv>

#include "v2/hls/text_lines.h"

namespace {

constexpr int64_t target_floor_ms = 1000;
constexpr int64_t target_ceiling_ms = 30000;
constexpr int64_t failed_delay_max_ms = 30000;
constexpr int unchanged_at_half = 3;   // loads in a row that wait half the target duration
constexpr size_t live_start_back = 3;  // segments from the end of a live playlist

// The tag's value when `line` is `tag` followed by ':' (or nothing).
bool tag_value(std::string_view line, std::string_view tag, std::string_view& value) {
  if (line.substr(0, tag.size()) != tag) return false;
  const std::string_view rest = line.substr(tag.size());
  if (!rest.empty() && rest.front() != ':') return false;
  value = rest.empty() ? rest : rest.substr(1);
  return true;
}

// A decimal integer at the start of `s`; false when there is none or it does not fit.
bool leading_integer(std::string_view s, int64_t& out) {
  const auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), out);
  return ec == std::errc() && end != s.data();
}

std::string value_of(const attribute_list& attrs, std::string_view name) {
  for (const auto& [n, v] : attrs)
    if (n == name) return v;
  return {};
}

bool is_yes(const attribute_list& attrs, std::string_view name) { return value_of(attrs, name) == "YES"; }

void read_resolution(std::string_view s, variant_stream& v) {
  int64_t w = 0;
  int64_t h = 0;
  const size_t x = s.find('x');
  if (x == std::string_view::npos || !leading_integer(s, w) || !leading_integer(s.substr(x + 1), h)) return;
  if (w <= 0 || h <= 0 || w > INT32_MAX || h > INT32_MAX) return;
  v.width = static_cast<int>(w);
  v.height = static_cast<int>(h);
}

bool is_uri_line(std::string_view line) { return !line.empty() && line.front() != '#'; }

// Playlist lines lose their blanks at both ends.
bool next_playlist_line(text_lines& lines, std::string_view& line) {
  if (!next_line(lines, line)) return false;
  line = trim_blanks(line);
  return true;
}

// Reads the first line: true when it is the playlist's signature.
bool starts_playlist(text_lines& lines) {
  std::string_view first;
  return next_playlist_line(lines, first) && first.substr(0, 7) == "#EXTM3U";
}

}  // namespace

attribute_list parse_attribute_list(std::string_view s) {
  attribute_list out;
  size_t i = 0;
  while (i < s.size()) {
    const size_t eq = std::min(s.find('=', i), s.size());
    size_t end = std::min(s.find(',', i), s.size());
    if (eq < end) {
      std::string name(trim_blanks(s.substr(i, eq - i)));
      const bool quoted = eq + 1 < s.size() && s[eq + 1] == '"';
      const size_t close = quoted ? std::min(s.find('"', eq + 2), s.size()) : eq;
      end = std::min(s.find(',', close), s.size());  // a quoted value may hold commas
      const std::string_view value =
          quoted ? s.substr(eq + 2, close - eq - 2) : trim_blanks(s.substr(eq + 1, end - eq - 1));
      out.emplace_back(std::move(name), std::string(value));
    }
    i = end + 1;
  }
  return out;
}

master_playlist parse_master_playlist(std::string_view text) {
  master_playlist m;
  text_lines lines(text);
  std::string_view line;
  if (!starts_playlist(lines)) return m;
  m.valid = true;
  bool variant_open = false;  // an #EXT-X-STREAM-INF waits for its URI line
  while (next_playlist_line(lines, line)) {
    std::string_view value;
    if (tag_value(line, "#EXT-X-MEDIA", value)) {
      const attribute_list a = parse_attribute_list(value);
      if (value_of(a, "TYPE") != "SUBTITLES") continue;
      subtitle_rendition r;
      r.group_id = value_of(a, "GROUP-ID");
      r.name = value_of(a, "NAME");
      r.language = value_of(a, "LANGUAGE");
      r.uri = value_of(a, "URI");
      r.is_default = is_yes(a, "DEFAULT");
      r.autoselect = is_yes(a, "AUTOSELECT");
      r.forced = is_yes(a, "FORCED");
      m.subtitles.push_back(std::move(r));
    } else if (tag_value(line, "#EXT-X-STREAM-INF", value)) {
      const attribute_list a = parse_attribute_list(value);
      variant_stream v;
      if (!leading_integer(value_of(a, "BANDWIDTH"), v.bandwidth)) v.bandwidth = -1;
      read_resolution(value_of(a, "RESOLUTION"), v);
      v.subtitles = value_of(a, "SUBTITLES");
      if (variant_open) m.variants.pop_back();  // one without a URI line
      m.variants.push_back(std::move(v));
      variant_open = true;
    } else if (variant_open && is_uri_line(line)) {
      m.variants.back().uri.assign(line);
      variant_open = false;
    }
  }
  if (variant_open) m.variants.pop_back();
  return m;
}

int variant_of_video(const master_playlist& m, const std::vector<int64_t>& bitrates, int width, int height) {
  int found = -1;
  for (int i = 0; i < static_cast<int>(m.variants.size()); ++i) {
    const variant_stream& v = m.variants[i];
    if (std::find(bitrates.begin(), bitrates.end(), v.bandwidth) == bitrates.end()) continue;
    if (v.width == width && v.height == height) return i;
    if (found < 0) found = i;
  }
  return found;
}

std::string shared_subtitle_group(const master_playlist& m) {
  std::string group;
  for (const variant_stream& v : m.variants) {
    if (v.subtitles.empty()) continue;
    if (!group.empty() && group != v.subtitles) return {};
    group = v.subtitles;
  }
  return group;
}

int choose_rendition(const master_playlist& m, std::string_view group) {
  int best = -1;
  int best_rank = -1;
  for (int i = 0; i < static_cast<int>(m.subtitles.size()); ++i) {
    const subtitle_rendition& r = m.subtitles[i];
    if (r.group_id != group || r.uri.empty()) continue;
    const int rank = (r.forced ? 0 : 4) + (r.is_default ? 2 : r.autoselect ? 1 : 0);
    if (rank > best_rank) best = i, best_rank = rank;
  }
  return best;
}

media_playlist parse_media_playlist(std::string_view text) {
  media_playlist p;
  text_lines lines(text);
  std::string_view line;
  if (!starts_playlist(lines)) return p;
  int64_t sequence = 0;
  bool has_target = false;
  while (next_playlist_line(lines, line)) {
    std::string_view value;
    int64_t n = 0;
    if (tag_value(line, "#EXT-X-TARGETDURATION", value)) {
      has_target = leading_integer(value, n) && n > 0 && n < INT64_MAX / 1000;
      p.target_ms = has_target ? n * 1000 : 0;
    } else if (tag_value(line, "#EXT-X-MEDIA-SEQUENCE", value)) {
      // Set before the first segment; numbers near the top would overflow while counting.
      if (p.segments.empty() && leading_integer(value, n) && n >= 0 && n < INT64_MAX / 2) sequence = n;
    } else if (tag_value(line, "#EXT-X-ENDLIST", value)) {
      p.ended = true;
    } else if (is_uri_line(line)) {
      p.segments.push_back({sequence++, std::string(line)});
    }
  }
  p.valid = has_target;
  return p;
}

size_t first_segment_to_fetch(const media_playlist& p, int64_t next) {
  const size_t n = p.segments.size();
  if (n == 0) return 0;
  const int64_t first = p.segments.front().sequence;
  const int64_t after_last = p.segments.back().sequence + 1;
  if (next < 0 || next > after_last) return p.ended ? 0 : n - std::min(n, live_start_back);
  if (next < first) return 0;
  return static_cast<size_t>(next - first);
}

int64_t reload_delay_ms(int64_t target_ms, int unchanged, int failed) {
  const int64_t target = std::clamp(target_ms, target_floor_ms, target_ceiling_ms);
  if (failed > 0) return std::min(target << std::min(failed - 1, 5), failed_delay_max_ms);
  if (unchanged > 0 && unchanged <= unchanged_at_half) return target / 2;
  return target;
}
