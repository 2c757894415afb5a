// Cue settings: "name:value" pairs separated by blanks, e.g. "align:start line:90%".
#include <cstring>

#include "v2/captions/captions.h"
#include "v2/invariant.h"

namespace {

bool is_blank(char c) { return c == ' ' || c == '\t'; }

const char* skip_blanks(const char* p) {
  while (is_blank(*p)) ++p;
  return p;
}

}  // namespace

// The string is read up to its first zero byte. A name runs to the next ':'
// (trailing spaces dropped, a tab kept); a value runs to the next space, so a
// tab does not separate pairs. Text without a ':' ends the parse.
void CueSettingsStringToVTTFileEvent(WebVTTFileEvent& cue, const std::string& s) {
  cue.settings.clear();
  const char* p = s.c_str();
  for (;;) {
    p = skip_blanks(p);
    if (*p == 0) return;
    const char* name_start = p;
    const char* colon = strchr(p, ':');
    if (!colon) return;
    const char* name_end = colon;
    while (name_end > name_start && name_end[-1] == ' ') --name_end;
    pelvane_invariant(name_start <= name_end);

    const char* value_start = skip_blanks(colon + 1);
    const char* value_end = value_start;
    while (*value_end != 0 && *value_end != ' ') ++value_end;
    pelvane_invariant(value_start <= value_end);

    cue.settings.insert_or_assign(std::string(name_start, name_end), std::string(value_start, value_end));
    p = value_end;
  }
}
