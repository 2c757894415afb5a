#include "v2/channels/answers.h"

#include <cstdint>
#include <cstdio>

#include "v2/json/json.h"
#include "v2/relay_contract.h"

namespace {

const char* reason_phrase(int status) {
  switch (status) {
    case 200: return "OK";
    case 400: return "Bad Request";
    case 404: return "Not Found";
    case 405: return "Method Not Allowed";
    case 408: return "Request Timeout";
    case 414: return "URI Too Long";
    case 431: return "Request Header Fields Too Large";
    default: return "Internal Server Error";
  }
}

std::string response(int status, std::string_view type, std::string_view body, bool head_only,
                     std::string_view extra_headers = "") {
  std::string out = "HTTP/1.0 " + std::to_string(status) + " " + reason_phrase(status) + "\r\n";
  out += "Content-Type: " + std::string(type) + "\r\n";
  out += "Content-Length: " + std::to_string(body.size()) + "\r\n";
  out += std::string(extra_headers) + "\r\n";
  if (!head_only) out += body;
  return out;
}

std::string xml_text(std::string_view s) {
  std::string out;
  for (char c : s) {
    switch (c) {
      case '&': out += "&amp;"; break;
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      case '"': out += "&quot;"; break;
      default: out += c;
    }
  }
  return out;
}

// The model the tuner claims: an ordinary network tuner's. A model containing
// "HDTC" would make Jellyfin ask for transcoded variants of each channel.
constexpr const char* model_number = "HDHR4-2US";

std::string discover_json(const tuner_identity& id, const std::string& base) {
  return json_object({{"FriendlyName", json_string(id.name)},
                      {"Manufacturer", json_string("pelvane")},
                      {"ModelNumber", json_string(model_number)},
                      {"FirmwareName", json_string("hdhomerun4_atsc")},
                      {"FirmwareVersion", json_string("20240101")},
                      {"DeviceID", json_string(id.device_id)},
                      {"DeviceAuth", json_string("pelvane")},
                      {"BaseURL", json_string(base)},
                      {"LineupURL", json_string(base + "/lineup.json")},
                      {"TunerCount", std::to_string(id.tuner_count)}}) +
         "\n";
}

std::string lineup_json(const channel_list& list, const std::string& base) {
  std::string out = "[";
  for (const channel& ch : list.channels) {
    if (out.size() > 1) out += ",\n";
    out += json_object({{"GuideNumber", json_string(ch.number)},
                        {"GuideName", json_string(ch.title)},
                        {"URL", json_string(base + "/auto/v" + ch.number)}});
  }
  return out + "]\n";
}

// No scan ever runs: the list is the lineup. Plex imports it only when a scan
// is said to be possible.
std::string lineup_status_json() {
  return json_object({{"ScanInProgress", "0"},
                      {"ScanPossible", "1"},
                      {"Source", json_string("Cable")},
                      {"SourceList", "[" + json_string("Cable") + "]"}}) +
         "\n";
}

std::string device_xml(const tuner_identity& id, const std::string& base) {
  std::string out = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
  out += "<root xmlns=\"urn:schemas-upnp-org:device-1-0\">\n";
  out += "<specVersion><major>1</major><minor>0</minor></specVersion>\n";
  out += "<URLBase>" + base + "</URLBase>\n<device>\n";
  out += "<deviceType>urn:schemas-upnp-org:device:MediaServer:1</deviceType>\n";
  out += "<friendlyName>" + xml_text(id.name) + "</friendlyName>\n";
  out += "<manufacturer>pelvane</manufacturer>\n";
  out += "<modelName>" + std::string(model_number) + "</modelName>\n";
  out += "<modelNumber>" + std::string(model_number) + "</modelNumber>\n";
  out += "<serialNumber>" + id.device_id + "</serialNumber>\n";
  out += "<UDN>uuid:" + id.device_id + "-0000-0000-0000-000000000000</UDN>\n";
  return out + "</device>\n</root>\n";
}

// The channel number a path asks for, or false when it is no channel route.
bool channel_route(std::string_view path, std::string_view& number) {
  for (std::string_view prefix : {"/channel/", "/auto/v"}) {
    if (path.starts_with(prefix)) {
      number = path.substr(prefix.size());
      return true;
    }
  }
  return false;
}

reply answer_request(const http_request& req, const channel_list& list, const tuner_identity& id) {
  const bool head = req.method == "HEAD";
  // Plex starts a channel scan with POST /lineup.post?scan=start; there is
  // nothing to scan, and a plain 200 lets it go on to the lineup.
  const bool scan = req.path == "/lineup.post";
  if (req.method != "GET" && !head && !(scan && req.method == "POST"))
    return {response(405, "text/plain", "only GET and HEAD are answered here\n", false, "Allow: GET, HEAD\r\n")};
  std::string_view number;
  if (channel_route(req.path, number)) {
    const channel* ch = find_channel(list, number);
    if (!ch) return {error_response(404, "no such channel in the list", head)};
    if (head) return {relay_response_head(ch->mp4)};
    return {"", ch};
  }
  if (scan) return {response(200, "text/plain", "", head)};
  const bool known = req.path == "/channels.m3u" || req.path == "/discover.json" || req.path == "/lineup.json" ||
                     req.path == "/lineup_status.json" || req.path == "/device.xml";
  if (!known) return {error_response(404, "no such page", head)};
  if (req.host.empty())
    return {error_response(400, "a Host header is needed: the answer holds this server's address", head)};
  const std::string base = "http://" + req.host;
  if (req.path == "/channels.m3u") return {response(200, "audio/x-mpegurl", write_channel_list(list, base), head)};
  if (req.path == "/discover.json") return {response(200, "application/json", discover_json(id, base), head)};
  if (req.path == "/lineup.json") return {response(200, "application/json", lineup_json(list, base), head)};
  if (req.path == "/lineup_status.json") return {response(200, "application/json", lineup_status_json(), head)};
  return {response(200, "application/xml", device_xml(id, base), head)};
}

}  // namespace

reply answer_connection(head_outcome outcome, std::string_view data, const channel_list& list,
                        const tuner_identity& id) {
  switch (outcome) {
    case head_complete: break;
    case head_closed:
      if (data.empty()) return {};
      return {error_response(400, "the request ended before its empty line")};
    case head_too_slow: return {error_response(408, "the request head took too long")};
    case head_too_long:
      // The request line alone over the bound: the target is too long.
      if (data.find('\n') == std::string_view::npos) return {error_response(414, "the request line is too long")};
      return {error_response(431, "the request head is too long")};
    case head_read_error: return {};
  }
  http_request req;
  std::string error;
  if (!parse_request_head(data.substr(0, request_head_end(data)), req, error)) return {error_response(400, error)};
  return answer_request(req, list, id);
}

std::string error_response(int status, std::string_view why, bool head_only) {
  return response(status, "text/plain; charset=utf-8", std::string(why) + "\n", head_only);
}

std::vector<std::string> relay_command(const std::string& pelvane, const channel& ch) {
  std::vector<std::string> argv = {pelvane, "--mime-type"};
  argv.insert(argv.end(), ch.relay_options.begin(), ch.relay_options.end());
  argv.push_back("--url");
  argv.push_back(ch.url);
  return argv;
}

std::string device_id_for(std::string_view key) {
  uint32_t h = 2166136261u;  // FNV-1a
  for (char c : key) h = (h ^ static_cast<uint8_t>(c)) * 16777619u;
  char hex[9];
  snprintf(hex, sizeof hex, "%08X", h);
  return hex;
}
