#include "v2/channels/http_request.h"

#include <algorithm>
#include <cctype>

namespace {

bool is_digit(char c) { return c >= '0' && c <= '9'; }

// A token character of HTTP: method and header names are made of these.
bool is_tchar(char c) {
  return std::isalnum(static_cast<unsigned char>(c)) ||
         std::string_view("!#$%&'*+-.^_`|~").find(c) != std::string_view::npos;
}

bool is_token(std::string_view s) { return !s.empty() && std::all_of(s.begin(), s.end(), is_tchar); }

// Visible ASCII: what a request target may hold.
bool is_visible(std::string_view s) {
  return std::all_of(s.begin(), s.end(), [](char c) { return c > ' ' && c < 0x7f; });
}

// Header values: visible characters, blanks and bytes of UTF-8 or other
// 8-bit text; no other control characters.
bool is_field_value(std::string_view s) {
  return std::all_of(s.begin(), s.end(), [](char c) { return c == '\t' || (c >= ' ' && c != 0x7f); });
}

std::string_view trim_blanks(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) s.remove_suffix(1);
  return s;
}

bool fail(std::string& error, const char* why) {
  error = why;
  return false;
}

bool parse_request_line(std::string_view line, http_request& req, std::string& error) {
  const size_t sp1 = line.find(' ');
  const size_t sp2 = sp1 == std::string_view::npos ? sp1 : line.find(' ', sp1 + 1);
  if (sp2 == std::string_view::npos) return fail(error, "the request line is not \"METHOD /target HTTP/1.x\"");
  const std::string_view method = line.substr(0, sp1);
  const std::string_view target = line.substr(sp1 + 1, sp2 - sp1 - 1);
  const std::string_view version = line.substr(sp2 + 1);
  if (!is_token(method)) return fail(error, "the method is not a token");
  if (!target.starts_with('/') || !is_visible(target)) return fail(error, "the target is not a path");
  if (version.size() != 8 || !version.starts_with("HTTP/1.") || !is_digit(version[7]))
    return fail(error, "the version is not HTTP/1.x");
  req.method = method;
  req.path = target.substr(0, target.find('?'));
  return true;
}

}  // namespace

size_t request_head_end(std::string_view data) {
  for (size_t i = data.find('\n'); i != std::string_view::npos; i = data.find('\n', i + 1)) {
    if (i + 1 < data.size() && data[i + 1] == '\n') return i + 2;
    if (i + 2 < data.size() && data[i + 1] == '\r' && data[i + 2] == '\n') return i + 3;
  }
  return 0;
}

bool parse_request_head(std::string_view head, http_request& req, std::string& error) {
  bool first = true;
  bool have_host = false;
  while (!head.empty()) {
    const size_t end = std::min(head.size(), head.find('\n'));
    std::string_view line = head.substr(0, end);
    head.remove_prefix(std::min(head.size(), end + 1));
    if (line.ends_with('\r')) line.remove_suffix(1);
    if (line.empty() && !first) break;
    if (first) {
      if (!parse_request_line(line, req, error)) return false;
      first = false;
      continue;
    }
    const size_t colon = line.find(':');
    if (colon == std::string_view::npos || !is_token(line.substr(0, colon)))
      return fail(error, "a header line without a name");
    const std::string_view value = trim_blanks(line.substr(colon + 1));
    if (!is_field_value(value)) return fail(error, "a control character in a header");
    std::string name(line.substr(0, colon));
    std::transform(name.begin(), name.end(), name.begin(), [](unsigned char c) { return std::tolower(c); });
    if (name != "host") continue;
    if (have_host) return fail(error, "more than one Host header");
    if (!valid_host(value)) return fail(error, "the Host header is not a host name or address");
    req.host = value;
    have_host = true;
  }
  if (first) return fail(error, "no request line");
  return true;
}

bool valid_host(std::string_view host) {
  if (host.empty() || host.size() > 255) return false;
  std::string_view name = host;
  std::string_view port;
  if (host.starts_with('[')) {
    const size_t close = host.find(']');
    if (close == std::string_view::npos || close == 1) return false;
    name = host.substr(1, close - 1);
    if (!std::all_of(name.begin(), name.end(),
                     [](char c) { return std::isxdigit(static_cast<unsigned char>(c)) || c == ':' || c == '.'; }))
      return false;
    port = host.substr(close + 1);
  } else {
    const size_t colon = host.find(':');
    name = host.substr(0, colon);
    port = colon == std::string_view::npos ? std::string_view() : host.substr(colon);
    if (name.empty() || !std::all_of(name.begin(), name.end(), [](char c) {
          return std::isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '.' || c == '_';
        }))
      return false;
  }
  if (port.empty()) return true;
  port.remove_prefix(1);
  return port.size() >= 1 && port.size() <= 5 && std::all_of(port.begin(), port.end(), is_digit) &&
         host[host.size() - port.size() - 1] == ':';
}
