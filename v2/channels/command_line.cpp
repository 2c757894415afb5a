#include "v2/channels/command_line.h"

#include <algorithm>
#include <charconv>
#include <string_view>

const char channels_usage_text[] =
    "usage: pelvane-channels [--pelvane PATH] [--name NAME] [--tuners N] [--check] LIST.m3u\n"
    "  Answers one HTTP request on standard input and output from the channel list\n"
    "  LIST.m3u: the list itself, a network-tuner lineup, or the relay of a channel.\n"
    "  --pelvane PATH  the relay program (default: pelvane beside this program)\n"
    "  --name NAME     the tuner's name shown by media servers (default: pelvane)\n"
    "  --tuners N      channels a media server may play at once, 1 to 99 (default: 4)\n"
    "  --check         read the list, print its channels and problems, and exit\n";

namespace {

// 1 to 99, in decimal digits.
bool tuner_count(std::string_view text, int& count) {
  int n = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), n);
  if (error != std::errc() || end != text.data() + text.size() || n < 1 || n > 99 || text.starts_with('+'))
    return false;
  count = n;
  return true;
}

}  // namespace

bool parse_channels_command_line(int argc, const char* const* argv, channels_settings& s, std::string& message,
                                 bool& help) {
  help = false;
  for (int i = 1; i < argc; ++i) {
    const std::string_view arg = argv[i];
    const bool takes_value = arg == "--pelvane" || arg == "--name" || arg == "--tuners";
    if (takes_value && i + 1 >= argc) {
      message = "missing value for " + std::string(arg);
      return false;
    }
    const std::string_view value = takes_value ? argv[i + 1] : "";
    if (arg == "--help") {
      help = true;
      return false;
    } else if (arg == "--check") {
      s.check = true;
    } else if (arg == "--pelvane" && !value.empty()) {
      s.pelvane = value;
    } else if (arg == "--name" && !value.empty() && value.size() <= 64 &&
               std::none_of(value.begin(), value.end(), [](char c) { return c >= 0 && c < ' '; })) {
      s.identity.name = value;
    } else if (arg == "--tuners" && tuner_count(value, s.identity.tuner_count)) {
    } else if (takes_value) {
      message = "bad value for " + std::string(arg) + ": '" + std::string(value) + "'";
      return false;
    } else if (arg.starts_with('-') || !s.list_path.empty()) {
      message = "unexpected argument '" + std::string(arg) + "'";
      return false;
    } else {
      s.list_path = arg;
    }
    i += takes_value ? 1 : 0;
  }
  if (s.list_path.empty()) {
    message = "no channel list named";
    return false;
  }
  // Stable for one list and name, different for two tuners on one network.
  s.identity.device_id = device_id_for(s.identity.name + "\n" + s.list_path);
  return true;
}
