// pelvane-channels' readers over arbitrary bytes: the channel list (before the
// first NUL) and the client's request head (after it).
//
// Beyond memory safety: channels kept have unique numbers and addresses
// pelvane takes; the list written for clients reads back as the same
// channels, without a problem; every answer is a relay of a listed channel to
// a GET, or a well-framed HTTP/1.0 answer.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <set>

#include "fuzz/fuzz_support.h"
#include "v2/channels/answers.h"
#include "v2/relay_contract.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
  const std::string_view all(reinterpret_cast<const char*>(bytes), size);
  const size_t nul = std::min(all.find('\0'), all.size());
  const channel_list list = read_channel_list(all.substr(0, nul));

  std::set<std::string> numbers;
  for (const channel& ch : list.channels) {
    FUZZ_CHECK(numbers.insert(ch.number).second && !ch.title.empty());
    FUZZ_CHECK(classify_source_url(ch.url) != scheme_refused);
  }
  const channel_list back = read_channel_list(write_channel_list(list, "http://tv:1"));
  FUZZ_CHECK(back.problems.empty() && back.channels.size() == list.channels.size());
  for (size_t i = 0; i < back.channels.size(); ++i) {
    const channel &a = list.channels[i], &b = back.channels[i];
    FUZZ_CHECK(b.number == a.number && b.title == a.title && b.url == "http://tv:1/channel/" + a.number);
    FUZZ_CHECK(b.attributes.size() == a.attributes.size());
    for (size_t k = 0; k < a.attributes.size(); ++k)
      FUZZ_CHECK(b.attributes[k].name == a.attributes[k].name && b.attributes[k].value == a.attributes[k].value);
  }

  // A head without its end stands for each way reading can stop (the fuzzer's
  // inputs stay under request_head_max), chosen by its length.
  const std::string_view data = all.substr(std::min(size, nul + 1)).substr(0, request_head_max);
  const head_outcome stopped[] = {head_closed, head_too_slow, head_too_long, head_read_error};
  const head_outcome outcome = request_head_end(data) ? head_complete : stopped[data.size() % 4];
  const reply r = answer_connection(outcome, data, list, tuner_identity{"t", "00000001", 1});
  if (r.relay) {
    FUZZ_CHECK(r.bytes.empty() && data.starts_with("GET /") && find_channel(list, r.relay->number) == r.relay);
  } else if (!r.bytes.empty() && !r.bytes.starts_with("HTTP/1.0 200 OK\nContent-Type: video/")) {
    const size_t end = r.bytes.find("\r\n\r\n");
    FUZZ_CHECK(r.bytes.starts_with("HTTP/1.0 ") && end != std::string::npos);
    const bool head = data.starts_with("HEAD ");
    const std::string length = "Content-Length: " + std::to_string(r.bytes.size() - end - 4) + "\r\n";
    FUZZ_CHECK(head || r.bytes.find(length) < end);
  }
  return 0;
}
