// One JSON object per caption event, as pelvane-cc prints them.
#pragma once

#include <string>
#include <string_view>

#include "v2/cc/caption_event_reader.h"

// A JSON string literal for arbitrary bytes: valid UTF-8 is kept, quotes,
// backslashes and control characters are escaped, and each byte that is not
// part of valid UTF-8 becomes U+FFFD, the replacement character (\ufffd), not a
// character of the same value such as U+00FF.
std::string json_string(std::string_view bytes);

// {"start":..,"end":..,"identifier":"..","settings":"..","text":"..",
//  "cc608":[[ms,"9420"],..],"cc708":[[ms,"FF","143F"],..]} without a newline.
// A 608 entry gives its two bytes as stored; a 708 entry its cc_data header
// byte and (cc_data_1 << 8) | cc_data_2.
std::string caption_event_json(const caption_event_record& ev);
