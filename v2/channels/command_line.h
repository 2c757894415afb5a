// pelvane-channels' own command line.
#pragma once

#include <string>

#include "v2/channels/answers.h"

struct channels_settings {
  std::string list_path;
  std::string pelvane;  // the relay program; empty: "pelvane" beside this program
  tuner_identity identity;
  bool check = false;  // only read the list, report it and exit
};

extern const char channels_usage_text[];

// False, with the reason in `message`, for a command line to refuse; `help`
// is set when the usage text was asked for.
bool parse_channels_command_line(int argc, const char* const* argv, channels_settings& s, std::string& message,
                                 bool& help);
