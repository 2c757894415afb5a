// cea_dump: runs the caption converters over a list of cues and writes what
// they produce, for decoding with independent CEA-608/708 decoders.
//
//   cea_dump --cues FILE [--json FILE] [--scc FILE]
//
// The cue file has one cue a line: start ms, end ms, settings, text,
// separated by tabs; in the text "\n" stands for a line break and "\\" for a
// backslash. Each cue is converted on its own, the way the relay does it
// (one-cue map, 1000/1, channel/service 1, 29.97 fps for CEA-708), with one
// context per converter for the whole list.
//
// --json writes {"cues":[{"start","end","cc608":[[key,b1,b2]...],
// "cc708":[[key,[[type,value]...]]...]}...]}. --scc writes the merged CC1
// pairs as a Scenarist SCC file on 30-frame non-drop labels; EOC and EDM
// start their own lines because readers stamp a whole line with its label.
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "tolm_utils/webvtt.h"

namespace {

struct converted {
  WebVTTFileEvent_v1 cue;
  cc608_map cc608;
  cc708_map cc708;
};

std::vector<std::string> split(const std::string& s, char sep) {
  std::vector<std::string> v;
  size_t from = 0;
  for (;;) {
    const size_t at = s.find(sep, from);
    v.push_back(s.substr(from, at == std::string::npos ? std::string::npos : at - from));
    if (at == std::string::npos) return v;
    from = at + 1;
  }
}

std::string unescape(const std::string& s) {
  std::string out;
  for (size_t i = 0; i < s.size(); ++i) {
    if (s[i] == '\\' && i + 1 < s.size()) {
      ++i;
      out += s[i] == 'n' ? '\n' : s[i];
    } else {
      out += s[i];
    }
  }
  return out;
}

int read_cues(const char* path, std::vector<WebVTTFileEvent_v1>& cues) {
  std::ifstream in(path);
  if (!in) {
    fprintf(stderr, "cea_dump: cannot read %s\n", path);
    return 0;
  }
  std::string line;
  while (std::getline(in, line)) {
    if (line.empty()) continue;
    const std::vector<std::string> f = split(line, '\t');
    if (f.size() != 4) {
      fprintf(stderr, "cea_dump: bad cue line: %s\n", line.c_str());
      return 0;
    }
    WebVTTFileEvent_v1 c;
    c.start = std::chrono::milliseconds(std::stoll(f[0]));
    c.end = std::chrono::milliseconds(std::stoll(f[1]));
    for (const std::string& pair : split(f[2], ' ')) {
      const size_t colon = pair.find(':');
      if (colon != std::string::npos) c.settings[pair.substr(0, colon)] = pair.substr(colon + 1);
    }
    c.text = unescape(f[3]);
    cues.push_back(std::move(c));
  }
  return 1;
}

void write_json(FILE* f, const std::vector<converted>& all) {
  fprintf(f, "{\"cues\":[\n");
  for (size_t i = 0; i < all.size(); ++i) {
    const converted& c = all[i];
    fprintf(f, " {\"start\":%lld,\"end\":%lld,\n  \"cc608\":[", static_cast<long long>(c.cue.start.count()),
            static_cast<long long>(c.cue.end.count()));
    bool first = true;
    for (const auto& [k, p] : c.cc608) {
      fprintf(f, "%s[%llu,%u,%u]", first ? "" : ",", static_cast<unsigned long long>(k), p.b[0], p.b[1]);
      first = false;
    }
    fprintf(f, "],\n  \"cc708\":[");
    first = true;
    for (const auto& [k, words] : c.cc708) {
      fprintf(f, "%s[%llu,[", first ? "" : ",", static_cast<unsigned long long>(k));
      for (size_t j = 0; j < words.size(); ++j)
        fprintf(f, "%s[%u,%u]", j ? "," : "", words[j].type, static_cast<unsigned>(words[j].value));
      fprintf(f, "]]");
      first = false;
    }
    fprintf(f, "]}%s\n", i + 1 < all.size() ? "," : "");
  }
  fprintf(f, "]}\n");
}

// Frame of a key on the 29.97 grid.
long long frame_of(uint64_t key) { return (static_cast<long long>(key) * 60 + 1001) / 2002; }

void write_scc(FILE* f, const std::vector<converted>& all) {
  std::map<long long, eia608_pair> frames;
  for (const converted& c : all)
    for (const auto& [k, p] : c.cc608) frames[frame_of(k)] = p;
  fprintf(f, "Scenarist_SCC V1.0\n");
  long long prev = -2;
  uint16_t prev_word = 0;
  for (const auto& [frame, p] : frames) {
    const uint16_t word = static_cast<uint16_t>((p.b[0] << 8) | p.b[1]);
    const bool display_code = word == 0x942F || word == 0x942C;
    if (frame != prev + 1 || (display_code && word != prev_word)) {
      const long long s = frame / 30;
      fprintf(f, "\n\n%02lld:%02lld:%02lld:%02lld\t%04x", s / 3600, s / 60 % 60, s % 60, frame % 30, word);
    } else {
      fprintf(f, " %04x", word);
    }
    prev = frame;
    prev_word = word;
  }
  fprintf(f, "\n\n");
}

}  // namespace

int main(int argc, char** argv) {
  const char* cues_path = nullptr;
  const char* json_path = nullptr;
  const char* scc_path = nullptr;
  for (int i = 1; i + 1 < argc; i += 2) {
    if (!strcmp(argv[i], "--cues")) cues_path = argv[i + 1];
    else if (!strcmp(argv[i], "--json")) json_path = argv[i + 1];
    else if (!strcmp(argv[i], "--scc")) scc_path = argv[i + 1];
  }
  if (!cues_path) {
    fprintf(stderr, "usage: cea_dump --cues FILE [--json FILE] [--scc FILE]\n");
    return 2;
  }
  std::vector<WebVTTFileEvent_v1> cues;
  if (!read_cues(cues_path, cues)) return 1;

  WebVTTConvContext_v1 ctx608 = webvtt_conv_context_start();
  WebVTTConvContext_v1 ctx708 = webvtt_conv_context_start();
  std::vector<converted> all;
  for (const WebVTTFileEvent_v1& cue : cues) {
    converted c;
    c.cue = cue;
    vtt_cue_map one;
    one.emplace(cue.start, cue);
    const WebVTTFile_v1 file;
    WebVTTTo608(c.cc608, molvar_rational<long>{1000, 1}, false, file, one.begin(), one.end(), 1, ctx608);
    WebVTTTo708(c.cc708, molvar_rational<long>{1000, 1}, false, file, one.begin(), one.end(), 1, ctx708,
                molvar_rational<long>{30000, 1001});
    all.push_back(std::move(c));
  }
  using writer_fn = void (*)(FILE*, const std::vector<converted>&);
  const std::pair<const char*, writer_fn> outputs[] = {{json_path, write_json}, {scc_path, write_scc}};
  for (const auto& [path, writer] : outputs) {
    if (!path) continue;
    FILE* f = fopen(path, "w");
    if (!f) {
      fprintf(stderr, "cea_dump: cannot write %s\n", path);
      return 1;
    }
    writer(f, all);
    if (fclose(f) != 0) return 1;
  }
  return 0;
}
