// Just enough JSON for the tuner's answers: strings from the channel list and
// flat objects of already-written values.
#pragma once

#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>

// `s` as a JSON string: quoted, '"', '\' and control characters escaped, and
// every byte that is not part of well-formed UTF-8 replaced by U+FFFD, so a
// list in another encoding still gives valid JSON.
std::string json_string(std::string_view s);

// {"name":value,...} from names and values that are JSON text already.
std::string json_object(std::initializer_list<std::pair<const char*, std::string>> fields);
