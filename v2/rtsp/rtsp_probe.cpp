// The probe of an rtsp:// source: OPTIONS, DESCRIBE, the description's test,
// SETUP, and for MPEG-TS over RTP (payload type 33) the 302 answer that sends
// the client to the rtp:// address itself. Any other outcome leaves standard
// output untouched and the source is relayed through FFmpeg.
#include <arpa/inet.h>
#include <curl/curl.h>
#include <dirent.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <cstdlib>
#include <cstring>

#include "v2/rtsp/probe_rules.h"
#include "v2/rtsp/rtsp_exchange.h"
#include "v2/rtsp/rtsp_probe.h"
#include "v2/sdp/sdp.h"
#include "v2/settings.h"
#include "v2/setup_watch.h"

std::string find_control_interface(const in_addr& server) {
  std::string interface_address;
  DIR* dir = opendir("/proc/self/fd");
  if (dir == nullptr) return interface_address;
  while (dirent* entry = readdir(dir)) {
    if (entry->d_name[0] < '0' || entry->d_name[0] > '9') continue;
    int fd = static_cast<int>(strtol(entry->d_name, nullptr, 10));
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISSOCK(st.st_mode)) continue;
    sockaddr_in peer{};
    socklen_t len = sizeof peer;
    if (getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &len) != 0) continue;
    // Only an IPv4 peer has an address to compare: a local (AF_UNIX) or IPv6
    // socket fills other fields, or none, where sin_addr would be read.
    if (peer.sin_family != AF_INET || len != sizeof peer) continue;
    // The server address carries no port: only the 4-byte address counts.
    if (peer.sin_addr.s_addr != server.s_addr) continue;
    fprintf(stderr, "Found CURL socket. Good.\n");
    sockaddr_in local{};
    len = sizeof local;
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&local), &len) != 0) continue;
    char text[INET_ADDRSTRLEN];
    if (inet_ntop(AF_INET, &local.sin_addr, text, sizeof text) == nullptr) continue;
    interface_address = text;
    fprintf(stderr, "On interface %s\n", text);
    break;
  }
  closedir(dir);
  return interface_address;
}

namespace {

int watch_client(void*, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
  end_setup_if_client_gone();
  return 0;
}

// The probe once the handle is set up; the caller releases curl afterwards.
int probe_with(CURL* curl) {
  if (rtsp_options(curl) != 0) return 1;
  std::vector<std::string> lines;
  if (rtsp_describe(lines, curl) != 0) return 1;

  fprintf(stderr, "Parsing SDP\n");
  session description;
  parse_sdp(description, lines);
  if (!session_is_usable(description)) return 1;

  sockaddr_in destination;
  if (!choose_mpegts_destination(description, destination)) return 1;
  std::string destination_text = dotted_quad(destination.sin_addr);
  fprintf(stderr, "Looks like M2TS: %s:%u\n", destination_text.c_str(),
          static_cast<unsigned>(ntohs(destination.sin_port)));

  if (rtsp_setup(curl, destination) != 0) return 1;

  in_addr server;
  if (!server_address_from_url(source_url, server)) {
    fprintf(stderr, "Failed to parse web url IP\n");
    return 1;
  }
  std::string answer = redirect_answer(find_control_interface(server), destination);
  fwrite(answer.data(), 1, answer.size(), stdout);
  fflush(stdout);
  return 0;
}

}  // namespace

int rtsp_probe() {
  if (curl_global_init(CURL_GLOBAL_ALL) != 0) {
    fprintf(stderr, "CURL init failed\n");
    return 1;
  }
  CURL* curl = curl_easy_init();
  if (curl == nullptr) {
    fprintf(stderr, "Failed CURL easy init\n");
    curl_global_cleanup();
    return 1;
  }
  curl_easy_setopt(curl, CURLOPT_VERBOSE, 0L);
  curl_easy_setopt(curl, CURLOPT_URL, source_url.c_str());
  // A server that connects slowly, stops answering or answers too slowly
  // ends its request, which then fails on its empty or partial answer: fewer
  // than 30 bytes in 30 s, or 30 s for the whole request. libcurl's
  // low-speed rule counts only body bytes; the total limit holds whatever
  // the server trickles.
  curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, rtsp_silence_seconds);
  curl_easy_setopt(curl, CURLOPT_LOW_SPEED_LIMIT, 1L);
  curl_easy_setopt(curl, CURLOPT_LOW_SPEED_TIME, rtsp_silence_seconds);
  curl_easy_setopt(curl, CURLOPT_TIMEOUT, rtsp_silence_seconds);
  // libcurl calls this about once a second, or more often, while a request
  // lasts: the place to notice a client that has gone.
  curl_easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, watch_client);
  curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);

  int result = probe_with(curl);

  curl_easy_cleanup(curl);
  curl_global_cleanup();
  return result;
}
