// Session descriptions (SDP) as answered to DESCRIBE: the part the RTSP probe
// reads, and the lenient line parser that fills it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct media {
  std::string m_media;
  std::string m_port;  // as written, slash suffix included
  std::string m_proto;
  int32_t m_fmt = -1;  // first format of the m= line
  std::string a_control;
  std::vector<std::string> a_fmtp;
  std::vector<std::string> a_rtpmap;

  void dump() const;  // to standard error
};

struct session {
  std::string c_nettype;
  std::string c_addrtype;
  std::string c_connection_address;  // as written, slash suffix included
  int64_t t_start_time = -1;
  int64_t t_end_time = -1;
  std::string a_control;
  std::string a_type;
  std::vector<media> media_list;

  void dump() const;  // the seven scalar fields, to standard error
};

// Fills `s` (freshly made) from the description's lines, which carry no line
// terminators, and dumps each record to standard error as it is completed.
void parse_sdp(session& s, const std::vector<std::string>& lines);
