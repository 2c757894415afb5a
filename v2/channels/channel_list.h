// The channel list: an M3U playlist read into channels, and written back with
// every channel's address pointing at this server. Reader and writer live side
// by side, so that what one writes the other reads back unchanged.
//
//   #EXTM3U
//   #EXTINF:-1 tvg-id="news.example" tvg-chno="7" group-title="News, Weather" pelvane-options="--hls -w 1280",News
//   https://cdn.example/news/index.m3u8
#pragma once

#include <string>
#include <string_view>
#include <vector>

// The #EXTINF attribute that carries pelvane's own options for a channel.
inline constexpr std::string_view relay_options_attribute = "pelvane-options";

struct m3u_attribute {
  std::string name;
  std::string value;  // never holds a double quote
};

struct channel {
  std::string number;                     // tvg-chno, else the place of its URL line in the list, from 1
  std::string title;                      // the text after #EXTINF's comma, else tvg-name, else "Channel <number>"
  std::string url;                        // the source, handed to pelvane
  std::string duration;                   // #EXTINF's first field, "-1" when it is not a number
  std::vector<m3u_attribute> attributes;  // in their order, without tvg-chno and the options
  std::vector<std::string> relay_options;  // for pelvane's command line: "--hls", "--mp4", "-w", "1280", ...
  bool mp4 = false;
};

struct channel_list {
  std::vector<channel> channels;
  std::vector<std::string> problems;  // "line N: ...", for the operator
};

// Reads a playlist: a UTF-8 byte order mark, CR LF line ends and a missing
// #EXTM3U line are accepted, and a URL line without #EXTINF is a channel with
// no attributes. Channels whose scheme pelvane refuses, whose options are not
// pelvane's, or whose number an earlier channel holds are left out, each with
// a problem line.
channel_list read_channel_list(std::string_view text);

// The options attribute's words as pelvane arguments: --hls, --mp4, -w N and
// -h N (any number of leading dashes, N up to 5 digits). False, with the word
// that is refused in `why`, for anything else.
bool read_relay_options(std::string_view text, std::vector<std::string>& args, bool& mp4, std::string& why);

// The list for clients: each channel's URL is <base_url>/channel/<number>;
// its attributes are kept, with tvg-chno first.
std::string write_channel_list(const channel_list& list, std::string_view base_url);

const channel* find_channel(const channel_list& list, std::string_view number);
