// What pelvane-channels answers: the routes, their bodies and the error
// answers, from the request head and the channel list. Nothing here reads or
// writes; main does that, and starts the relay when the answer says so.
//
//   /channels.m3u                 the list, addresses pointing back here
//   /discover.json, /lineup.json, /lineup_status.json, /device.xml, /lineup.post
//                                 the network-tuner interface media servers add by address
//   /channel/<number>, /auto/v<number>
//                                 the relay of one channel
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "v2/channels/channel_list.h"
#include "v2/channels/http_request.h"

// How this server presents itself as a network tuner.
struct tuner_identity {
  std::string name = "pelvane";  // the name media servers show
  std::string device_id;         // 8 hex digits, stable across runs
  int tuner_count = 4;           // how many channels a media server plays at once
};

struct reply {
  std::string bytes;               // the whole answer; empty when there is nothing to say
  const channel* relay = nullptr;  // when set: start pelvane for this channel, which writes the answer
};

// The answer to a connection whose request head reading ended with `outcome`,
// `data` being everything read. Only a GET of a listed channel's route is a
// relay; a HEAD of it gets the relay's head alone.
reply answer_connection(head_outcome outcome, std::string_view data, const channel_list& list,
                        const tuner_identity& id);

// A whole answer with a short text/plain body, `why` and a line feed (only
// the head of it for a HEAD request).
std::string error_response(int status, std::string_view why, bool head_only = false);

// pelvane's argument vector for relaying `ch`; nothing in it comes from the client.
std::vector<std::string> relay_command(const std::string& pelvane, const channel& ch);

// A device id of 8 hex digits derived from `key`, the same for the same key.
std::string device_id_for(std::string_view key);
