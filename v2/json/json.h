// JSON text, written by pelvane-cc (caption events) and pelvane-channels (the
// network tuner's answers): string literals for arbitrary bytes, and flat
// objects of values already written.
#pragma once

#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>

// A JSON string literal for arbitrary bytes: valid UTF-8 is kept, quotes,
// backslashes and control characters are escaped, and each byte that is not
// part of valid UTF-8 becomes U+FFFD, the replacement character (\ufffd), not
// a character of the same value such as U+00FF, so a reader can tell them apart.
std::string json_string(std::string_view bytes);

// {"name":value,...} from names and values that are JSON text already.
std::string json_object(std::initializer_list<std::pair<const char*, std::string>> fields);
