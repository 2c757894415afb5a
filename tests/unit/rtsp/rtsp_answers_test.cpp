#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "tests/unit/test_support.h"
#include "v2/rtsp/rtsp.h"

namespace {

// A response capture as libcurl's default writer leaves it, rewound.
FILE* capture_of(const std::string& text) {
  FILE* f = tmpfile();
  fwrite(text.data(), 1, text.size(), f);
  fflush(f);
  rewind(f);
  return f;
}

const std::string ok = "RTSP/1.0 200 OK\r\nCSeq: 1\r\n";

struct answer_case {
  const char* name;
  std::string capture;
  int result;
  std::string err_tail;  // the end of what is written to standard error
  std::vector<std::string> lines = {};
};

// Reads `c.capture` with `read` while standard error is captured; checks the
// result and the end of the messages.
template <typename Read>
void check_answer(const answer_case& c, Read read) {
  FILE* f = capture_of(c.capture);
  stderr_capture err;
  EXPECT_EQ(read(f), c.result) << "case: " << c.name;
  const std::string text = err.take();
  fclose(f);
  EXPECT_TRUE(text.ends_with(c.err_tail)) << "case: " << c.name << "\nstderr:\n" << text;
}

// OPTIONS: every Public token is echoed, and the run goes on only when the
// four methods are among them (matched without regard to case, tokens split
// at commas with the spaces after a comma skipped).
TEST(OptionsAnswer, Cases) {
  const std::string incomplete = "RTSP must provide DESCRIBE, SETUP, PLAY, TEARDOWN\n";
  const answer_case cases[] = {
      {"all five with OPTIONS", ok + "Public: OPTIONS, DESCRIBE, SETUP, TEARDOWN, PLAY\r\n\r\n", 0,
       "'CSeq' = '1'\n'Public' = 'OPTIONS, DESCRIBE, SETUP, TEARDOWN, PLAY'\n"
       "    'OPTIONS'\n    'DESCRIBE'\n    'SETUP'\n    'TEARDOWN'\n    'PLAY'\n"},
      {"mixed case, no space", ok + "public:describe,Setup,pLAY,TearDown\r\n\r\n", 0,
       "'public' = 'describe,Setup,pLAY,TearDown'\n    'describe'\n    'Setup'\n    'pLAY'\n    'TearDown'\n"},
      {"two Public headers add up", ok + "Public: DESCRIBE, SETUP\r\nServer: x\r\nPUBLIC: PLAY, TEARDOWN\r\n\r\n",
       0, "    'PLAY'\n    'TEARDOWN'\n"},
      {"no TEARDOWN", ok + "Public: OPTIONS, DESCRIBE, SETUP, PLAY\r\n\r\n", 1, "    'PLAY'\n" + incomplete},
      {"space before comma", ok + "Public: DESCRIBE ,SETUP, PLAY, TEARDOWN\r\n\r\n", 1,
       "    'DESCRIBE '\n    'SETUP'\n    'PLAY'\n    'TEARDOWN'\n" + incomplete},
      {"empty token, tab kept", ok + "Public: DESCRIBE,,SETUP, PLAY,\tTEARDOWN\r\n\r\n", 1,
       "    'DESCRIBE'\n    ''\n    'SETUP'\n    'PLAY'\n    '\tTEARDOWN'\n" + incomplete},
      {"empty Public", ok + "Public: \r\n\r\n", 1, "'Public' = ''\n    ''\n" + incomplete},
      {"Public in the body", ok + "\r\nPublic: DESCRIBE, SETUP, PLAY, TEARDOWN\r\n", 1, "'CSeq' = '1'\n" + incomplete},
      {"line without colon skipped", ok + "garbage\r\nPublic: DESCRIBE, SETUP, PLAY, TEARDOWN\r\n\r\n", 0,
       "'CSeq' = '1'\n'Public' = 'DESCRIBE, SETUP, PLAY, TEARDOWN'\n    'DESCRIBE'\n    'SETUP'\n    'PLAY'\n"
       "    'TEARDOWN'\n"},
      {"404", "RTSP/1.0 404 Not Found\r\nPublic: DESCRIBE, SETUP, PLAY, TEARDOWN\r\n\r\n", 1,
       "'RTSP/1.0' 404 'Not Found'\nFAIL\n"},
      {"empty capture", "", 1, "'' 0 ''\nFAIL\n"},
      {"not RTSP", "SIP/2.0 200 OK\r\n\r\n", 1, "'SIP/2.0' 200 'OK'\nFAIL\n"},
  };
  for (const answer_case& c : cases) check_answer(c, read_options_answer);
}

TEST(SetupAnswer, GoodStatusIsEnough) {
  const answer_case cases[] = {
      {"transport echoed", ok + "Transport: RTP/AVP;multicast\r\nSession: 12345678;timeout=60\r\n\r\n", 0,
       "'Transport' = 'RTP/AVP;multicast'\n'Session' = '12345678;timeout=60'\n"},
      {"no headers", "RTSP/1.0 200 OK\r\n", 0, "'RTSP/1.0' 200 'OK'\n"},
      {"461", "RTSP/1.0 461 Unsupported Transport\r\n\r\n", 1, "'RTSP/1.0' 461 'Unsupported Transport'\nFAIL\n"},
  };
  for (const answer_case& c : cases) check_answer(c, read_setup_answer);
}

TEST(DescribeAnswer, Cases) {
  const std::string sdp = "Content-Type: application/sdp\r\n";
  const std::string long1021(1021, 'w'), long1022(1022, 'x'), long1023(1023, 'y');
  const answer_case cases[] = {
      {"three lines, middle empty", ok + sdp + "Content-Length: 9\r\n\r\nv=0\r\n\r\ns=x\r\n", 0,
       "'RTSP/1.0' 200 'OK'\n'CSeq' = '1'\n'Content-Type' = 'application/sdp'\n'Content-Length' = '9'\n",
       {"v=0", "", "s=x"}},
      {"name in lower case, last line unterminated", ok + "content-type: application/sdp\r\ncontent-length: 3\r\n\r\nv=0", 0,
       "'content-length' = '3'\n", {"v=0"}},
      {"charset parameter", ok + "Content-Type: application/sdp; charset=utf-8\r\nContent-Length: 5\r\n\r\nv=0\r\n", 1,
       "Description is not SDP\n"},
      {"type in capitals", ok + "Content-Type: Application/SDP\r\nContent-Length: 5\r\n\r\nv=0\r\n", 1,
       "Description is not SDP\n"},
      {"no length", ok + sdp + "\r\nv=0\r\n", 1, "Description is not SDP\n"},
      {"length 0", ok + sdp + "Content-Length: 0\r\n\r\n", 1, "Description is not SDP\n"},
      {"negative length", ok + sdp + "Content-Length: -5\r\n\r\nv=0\r\n", 0, "'Content-Length' = '-5'\n", {"v=0"}},
      {"later type wins", ok + "Content-Type: text/plain\r\n" + sdp + "Content-Length: 4\r\n\r\nv=0\n", 0, "", {"v=0"}},
      // One read takes at most 1022 characters: what is left of a line, its
      // line feed alone included, comes as a line of its own.
      {"1021 characters and LF", ok + sdp + "Content-Length: 1\r\n\r\n" + long1021 + "\n", 0, "", {long1021}},
      {"1022 characters and LF", ok + sdp + "Content-Length: 1\r\n\r\n" + long1022 + "\n", 0, "", {long1022, ""}},
      {"1023 characters and LF", ok + sdp + "Content-Length: 1\r\n\r\n" + long1023 + "\n", 0, "",
       {long1023.substr(0, 1022), "y"}},
      {"1021 characters and CR LF", ok + sdp + "Content-Length: 1\r\n\r\n" + long1021 + "\r\n", 0, "", {long1021, ""}},
  };
  for (const answer_case& c : cases) {
    std::vector<std::string> lines = {"left over"};
    check_answer(c, [&](FILE* f) { return read_describe_answer(f, lines); });
    EXPECT_EQ(lines, c.lines) << "case: " << c.name;
  }
}

TEST(DumpTmpfile, BannersAroundTheWholeFileThenRewinds) {
  std::string big(5000, 'b');
  FILE* f = capture_of("RTSP/1.0 200 OK\r\n" + big);
  fseek(f, 10, SEEK_SET);
  stderr_capture err;
  dump_tmpfile("SETUP", f);
  EXPECT_EQ(err.take(), "---------<SETUP>--------\nRTSP/1.0 200 OK\r\n" + big + "\n-----------------------------\n");
  EXPECT_EQ(ftell(f), 0);
  fclose(f);
}

}  // namespace
