#include "v2/channels/channel_list.h"

#include <algorithm>
#include <cctype>
#include <set>

#include "v2/relay_contract.h"

namespace {

bool is_blank(char c) { return c == ' ' || c == '\t'; }

std::string_view trim(std::string_view s) {
  while (!s.empty() && (is_blank(s.front()) || s.front() == '\r')) s.remove_prefix(1);
  while (!s.empty() && (is_blank(s.back()) || s.back() == '\r')) s.remove_suffix(1);
  return s;
}

bool starts_with_nocase(std::string_view s, std::string_view prefix) {
  return s.size() >= prefix.size() && std::equal(prefix.begin(), prefix.end(), s.begin(), [](char a, char b) {
           return std::toupper(static_cast<unsigned char>(a)) == std::toupper(static_cast<unsigned char>(b));
         });
}

bool all_digits(std::string_view s) {
  return !s.empty() && std::all_of(s.begin(), s.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// Digits, or digits "." digits (a sub-channel), at most 15 characters: safe in
// a URL path, JSON and M3U as it is.
bool valid_number(std::string_view s) {
  const size_t dot = s.find('.');
  if (s.size() > 15) return false;
  if (dot == std::string_view::npos) return all_digits(s);
  return all_digits(s.substr(0, dot)) && all_digits(s.substr(dot + 1));
}

// A number as the #EXTINF duration field: -1, 0, 3600, 12.5.
bool valid_duration(std::string_view s) {
  if (s.starts_with('-')) s.remove_prefix(1);
  return valid_number(s);
}

bool valid_attribute_name(std::string_view s) {
  return !s.empty() && std::all_of(s.begin(), s.end(), [](char c) {
    return std::isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '_';
  });
}

struct extinf {
  int line = 0;
  std::string duration = "-1";
  std::vector<m3u_attribute> attributes;
  std::string title;
};

// #EXTINF:<duration> name="value" name=value ...,<title>
// Values in double quotes may hold blanks and commas; the title starts after
// the first comma outside them. A value without quotes ends at a blank, a
// comma or a quote. Attributes whose name is not letters, digits, '-' and
// '_' are dropped, so the list written back stays well formed.
extinf read_extinf(std::string_view s, int line) {
  extinf e;
  e.line = line;
  size_t i = 0;
  auto skip_blanks = [&] {
    while (i < s.size() && is_blank(s[i])) ++i;
  };
  auto take_until = [&](auto stop) {
    const size_t from = i;
    while (i < s.size() && !stop(s[i])) ++i;
    return s.substr(from, i - from);
  };
  skip_blanks();
  const std::string_view duration = take_until([](char c) { return is_blank(c) || c == ','; });
  if (valid_duration(duration)) e.duration = duration;
  for (;;) {
    skip_blanks();
    if (i >= s.size()) return e;
    if (s[i] == ',') break;
    const std::string_view name = take_until([](char c) { return is_blank(c) || c == ',' || c == '='; });
    if (i >= s.size() || s[i] != '=') {
      if (name.empty()) ++i;  // a stray character: step over it
      continue;
    }
    ++i;
    std::string_view value;
    if (i < s.size() && s[i] == '"') {
      ++i;
      value = take_until([](char c) { return c == '"'; });
      if (i < s.size()) ++i;
    } else {
      value = take_until([](char c) { return is_blank(c) || c == ',' || c == '"'; });
    }
    if (valid_attribute_name(name)) e.attributes.push_back({std::string(name), std::string(value)});
  }
  e.title = trim(s.substr(i + 1));
  return e;
}

const std::string* attribute(const std::vector<m3u_attribute>& attrs, std::string_view name) {
  for (const m3u_attribute& a : attrs)
    if (a.name == name) return &a.value;
  return nullptr;
}

// A channel from its #EXTINF (possibly empty) and URL line, or a problem.
bool make_channel(const extinf& e, std::string_view url, int position, channel& ch, std::string& problem) {
  ch.url = url;
  ch.duration = e.duration;
  if (classify_source_url(ch.url) == scheme_refused) {
    problem =
        "left out: '" + ch.url + "' is not an rtsp://, rtmp://, rtmps://, http://, https:// or tcp:// address";
    return false;
  }
  const std::string* chno = attribute(e.attributes, "tvg-chno");
  ch.number = std::to_string(position);
  if (chno && !chno->empty() && valid_number(*chno)) ch.number = *chno;
  else if (chno && !chno->empty())
    problem = "tvg-chno \"" + *chno + "\" is not a channel number: numbered " + ch.number;
  for (const m3u_attribute& a : e.attributes) {
    if (a.name == relay_options_attribute) {
      std::string why;
      if (!read_relay_options(a.value, ch.relay_options, ch.mp4, why)) {
        problem = "left out: " + std::string(relay_options_attribute) + " holds '" + why +
                  "'; only --hls, --mp4, -w N and -h N are taken";
        return false;
      }
    } else if (a.name != "tvg-chno") {
      ch.attributes.push_back(a);
    }
  }
  const std::string* tvg_name = attribute(e.attributes, "tvg-name");
  const std::string_view name = tvg_name ? trim(*tvg_name) : std::string_view();
  ch.title = !e.title.empty() ? e.title : !name.empty() ? std::string(name) : "Channel " + ch.number;
  return true;
}

}  // namespace

bool read_relay_options(std::string_view text, std::vector<std::string>& args, bool& mp4, std::string& why) {
  std::vector<std::string_view> words;
  for (size_t i = 0; i < text.size();) {
    const size_t end = std::min(text.size(), text.find_first_of(" \t", i));
    if (end > i) words.push_back(text.substr(i, end - i));
    i = end + 1;
  }
  for (size_t w = 0; w < words.size(); ++w) {
    std::string_view name = words[w];
    while (name.starts_with('-')) name.remove_prefix(1);
    const bool dashed = name.size() < words[w].size();
    if (dashed && (name == "hls" || name == "mp4")) {
      args.push_back("--" + std::string(name));
      mp4 = mp4 || name == "mp4";
    } else if (dashed && (name == "w" || name == "h") && w + 1 < words.size() && all_digits(words[w + 1]) &&
               words[w + 1].size() <= 5) {
      args.push_back("-" + std::string(name));
      args.push_back(std::string(words[++w]));
    } else {
      why = words[w];
      return false;
    }
  }
  return true;
}

channel_list read_channel_list(std::string_view text) {
  channel_list list;
  if (text.starts_with("\xEF\xBB\xBF")) text.remove_prefix(3);
  extinf pending;
  bool have_extinf = false;
  int line_number = 0;
  int position = 0;
  std::set<std::string> taken;  // numbers given so far: provider lists run to tens of thousands
  auto report = [&](int line, const std::string& what) {
    list.problems.push_back("line " + std::to_string(line) + ": " + what);
  };
  while (!text.empty()) {
    const size_t end = std::min(text.size(), text.find('\n'));
    const std::string_view line = trim(text.substr(0, end));
    text.remove_prefix(std::min(text.size(), end + 1));
    ++line_number;
    if (line.empty()) continue;
    if (starts_with_nocase(line, "#EXTINF:")) {
      if (have_extinf) report(pending.line, "#EXTINF without a URL line after it: left out");
      pending = read_extinf(line.substr(8), line_number);
      have_extinf = true;
      continue;
    }
    if (line.starts_with('#')) continue;  // #EXTM3U, comments, player directives
    channel ch;
    std::string problem;
    const bool made = make_channel(have_extinf ? pending : extinf{}, line, ++position, ch, problem);
    if (!problem.empty()) report(line_number, problem);
    if (made && !taken.insert(ch.number).second) {
      report(line_number, "left out: an earlier channel has the number " + ch.number);
    } else if (made) {
      list.channels.push_back(std::move(ch));
    }
    have_extinf = false;
  }
  if (have_extinf) report(pending.line, "#EXTINF without a URL line after it: left out");
  return list;
}

std::string write_channel_list(const channel_list& list, std::string_view base_url) {
  std::string out = "#EXTM3U\n";
  for (const channel& ch : list.channels) {
    out += "#EXTINF:" + ch.duration + " tvg-chno=\"" + ch.number + "\"";
    for (const m3u_attribute& a : ch.attributes) out += " " + a.name + "=\"" + a.value + "\"";
    out += "," + ch.title + "\n";
    out += std::string(base_url) + "/channel/" + ch.number + "\n";
  }
  return out;
}

const channel* find_channel(const channel_list& list, std::string_view number) {
  for (const channel& ch : list.channels)
    if (ch.number == number) return &ch;
  return nullptr;
}
