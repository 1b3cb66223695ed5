// The main loop of the real agent: its sockets, its timers and its keep-alive checks, by a clock that the test sets.

#include "agent_process.h"
#include "unique_fd.h"

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

namespace {

using testing::Contains;
using testing::Each;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

constexpr char PASS_END[] = "rpcclt_rpc_failure_occured";
constexpr char FETCH[] = "rpcclt_tarnapiBestRouteChangeNextGetMult 7 50 [89200]";
constexpr char BEST_ROUTE_SOCKET[] = "/tmp/rppi_brc.0007";

std::string log(int severity, const std::string &text) {
  return "log " + std::to_string(severity) + " 156 application/routing/mirel/core/mirel [VRF \"blue\"]: " + text;
}

bool trySend(const std::string &bytes) {
  const UniqueFd sock(socket(AF_UNIX, SOCK_DGRAM, 0));
  sockaddr_un to{};
  to.sun_family = AF_UNIX;
  strcpy(to.sun_path, BEST_ROUTE_SOCKET);
  return sendto(sock.get(), bytes.data(), bytes.size(), MSG_DONTWAIT, reinterpret_cast<const sockaddr *>(&to),
                sizeof to) == static_cast<ssize_t>(bytes.size());
}

// A best-route datagram of a type and a length; all else is filled with ones.
std::string datagram(uint16_t type, size_t length) {
  std::string bytes(std::max(length, sizeof type), '\xff');
  memcpy(bytes.data(), &type, sizeof type);
  return bytes.substr(0, length);
}

// The number behind a label of a show operation.
std::string valueOf(const std::string &shown, const std::string &label) {
  const size_t at = shown.find("\n" + label);
  if (at == std::string::npos) {
    return "no " + label;
  }
  const size_t colon = shown.find(": ", at);
  return shown.substr(colon + 2, shown.find('\n', colon) - colon - 2);
}

// What the two halves of a best-route datagram's effect are after it: pending flag and keep-alive time.
std::string clientState(AgentProcess &agent) {
  const std::string shown = agent.run("mirelBestRouteClientShow");
  return valueOf(shown, "bestRouteChangePending") + " " + valueOf(shown, "brc_client_keepalive_time");
}

TEST(Loop, BestRouteDatagrams) {
  struct Case {
    std::vector<std::string> datagrams;
    const char *state; // pending flag and keep-alive time, which stands at 1000 before
    bool failed;
  };
  const std::string one(1, '\x01');
  const std::vector<Case> cases = {
      {{datagram(1, 4)}, "0 1005", false},
      {{datagram(10, 4)}, "1 1000", false},
      {{datagram(300, 164)}, "1 1000", false},
      {{datagram(1, 300)}, "0 1005", false},
      {{datagram(10, 300)}, "1 1000", false},
      {{datagram(1, 256)}, "0 1005", false},
      {{one}, "0 1005", false},
      {{std::string(1, '\n')}, "1 1000", false}, // the first byte of type 10
      {{std::string(1, '\0')}, "1 1000", false},
      {{""}, "0 1000", true},
      {{datagram(300, 300), one}, "1 1005", false}, // nothing is left of the longer one
      {{"", datagram(1, 8)}, "0 1005", true},
  };
  for (const Case &row : cases) {
    AgentProcess agent;
    agent.passes(1);
    agent.clock(1005);
    for (const std::string &bytes : row.datagrams) {
      ASSERT_TRUE(trySend(bytes));
    }
    agent.passes(static_cast<int>(row.datagrams.size()) + 1);
    const std::string what = testing::PrintToString(row.datagrams);
    EXPECT_EQ(clientState(agent), row.state) << what;
    const std::string fd = valueOf(agent.run("mirelBestRouteClientShow"), "brc_sock_fd");
    const Lines lines = agent.trace();
    EXPECT_EQ(std::count(lines.begin(), lines.end(),
                         log(3, "Failed to read socket with fd " + fd + " for best route client")),
              row.failed ? 1 : 0)
        << what;
  }
}

TEST(Loop, TracesReachTheOutputAtOnce) {
  AgentProcess agent;
  agent.run("mirelDebugFlagsSet 1");
  ASSERT_TRUE(trySend(datagram(10, 300)));
  ASSERT_TRUE(trySend(datagram(1, 1)));
  agent.passes(2);
  const std::string main = "[blue (VRF 3)]:main: Received message for best route service with msg type ";
  EXPECT_EQ(agent.output(),
            main + "BEST ROUTE CHANGE and length 256 bytes\n" + main + "KEEPALIVE and length 1 bytes\n");
}

TEST(Loop, OneDatagramASocketAndPass) {
  mkfifo("/tmp/syncdb.fifo", 0600);
  AgentProcess agent("syncdbClientRegister: 0 /tmp/syncdb.fifo");
  agent.run("mirelDebugFlagsSet 1");
  EXPECT_THAT(agent.trace(), Contains("select /tmp/rppi_brc.0007 file 1.0s"));
  agent.stop();
  const UniqueFd fifo(open("/tmp/syncdb.fifo", O_RDWR | O_NONBLOCK | O_CLOEXEC));
  ASSERT_EQ(write(fifo.get(), "x", 1), 1);
  for (const uint16_t type : {uint16_t{1}, uint16_t{10}, uint16_t{103}}) {
    ASSERT_TRUE(trySend(datagram(type, 8)));
  }
  agent.resume();
  agent.passes(4);
  char byte;
  ASSERT_EQ(read(fifo.get(), &byte, 1), 1); // nobody has read it but the test
  const std::string best = "[blue (VRF 3)]:main: Received message for best route service with msg type ";
  const std::string syncdb = "[blue (VRF 3)]:main: Received an event from syncdb socket\n"
                             "[blue (VRF 3)]:mirelSyncDbCfgChangeHandle: Received a syncDb event\n";
  const std::string length = " and length 8 bytes\n";
  EXPECT_THAT(agent.output(), StartsWith(best + "KEEPALIVE" + length + syncdb + best + "BEST ROUTE CHANGE" + length +
                                         syncdb + best + "STARTUP DONE" + length + syncdb));
}

TEST(Loop, SyncDbEventIsSilentWithoutTheDebugBit) {
  mkfifo("/tmp/syncdb.fifo", 0600);
  const UniqueFd fifo(open("/tmp/syncdb.fifo", O_RDWR | O_NONBLOCK | O_CLOEXEC));
  ASSERT_EQ(write(fifo.get(), "x", 1), 1);
  AgentProcess agent("syncdbClientRegister: 0 /tmp/syncdb.fifo");
  agent.passes(3);
  EXPECT_EQ(agent.output(), "");
}

// Far more than the 10 or so that a local datagram socket of the kernel takes by default.
TEST(Loop, DatagramsQueueWhileTheAgentIsBusy) {
  std::ofstream("/proc/sys/net/unix/max_dgram_qlen") << 10;
  AgentProcess agent;
  agent.passes(1);
  agent.stop();
  int sent = 0;
  while (sent < 200 && trySend(datagram(1, 8))) {
    ++sent;
  }
  agent.resume();
  EXPECT_EQ(sent, 200);
}

TEST(Loop, PollTimer) {
  for (const uint64_t start : {uint64_t{1000}, (uint64_t{1} << 32) - 5}) {
    AgentProcess agent(AgentOptions{.clock = start});
    agent.passes(1);
    ASSERT_TRUE(trySend(datagram(10, 8)));
    agent.clock(start + 9);
    EXPECT_THAT(agent.passes(), Each(PASS_END));
    agent.clock(start + 10);
    const Lines lines = agent.passes();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), FETCH), 1);
    EXPECT_EQ(clientState(agent), "0 " + std::to_string(static_cast<uint32_t>(start + 10)));
    // Not pending any more: the next poll fetches nothing.
    agent.clock(start + 20);
    EXPECT_THAT(agent.passes(), Each(PASS_END));
    // A new poll time counts from the last poll.
    agent.run("mirelBestRoutePollTimeSet 3");
    ASSERT_TRUE(trySend(datagram(10, 8)));
    agent.clock(start + 22);
    EXPECT_THAT(agent.passes(), Not(Contains(FETCH)));
    agent.clock(start + 23);
    EXPECT_THAT(agent.passes(), Contains(FETCH));
  }
}

TEST(Loop, BestRouteKeepAliveEdges) {
  for (const uint64_t start : {uint64_t{1000}, (uint64_t{1} << 32) - 100, uint64_t{1} << 32}) {
    AgentProcess agent(AgentOptions{.clock = start});
    agent.passes(1);
    agent.clock(start + 240);
    EXPECT_THAT(agent.passes(), Each(PASS_END));
    agent.clock(start + 241);
    Lines lines = agent.passes(3);
    std::erase(lines, PASS_END);
    const Lines expected = {
        "rpcclt_tarnapiBestRouteEventDeregister 7",
        "rpcclt_tarnapiBestRouteEventRegisterVr 3 1 " + std::to_string(agent.pid()) + " mirel:3[8]",
        log(5, "Best route client Keep alive events for Mirel timed out.De-regiseter and re-registering for the Best "
               "route "
               "change events.Flushing all the routes from linux stack."),
    };
    EXPECT_EQ(lines, expected) << start;
    const std::string shown = agent.run("mirelBestRouteClientShow");
    EXPECT_EQ(valueOf(shown, "statsHandle.numBrcTimeout"), "1") << start;
    EXPECT_EQ(valueOf(shown, "brc_client_keepalive_time"), std::to_string(static_cast<uint32_t>(start + 241)));
  }
}

// Keep-alives and the end of a fetch run hold the time-out off, a change notification alone does not.
TEST(Loop, WhatCountsAsASignOfLife) {
  const struct {
    uint16_t type;
    bool polled;
    bool timesOut;
  } CASES[] = {{1, false, false}, {10, true, false}, {10, false, true}};
  for (const auto &row : CASES) {
    AgentProcess agent;
    if (!row.polled) {
      agent.run("mirelBestRoutePollTimeSet 100000");
    }
    agent.clock(1200);
    agent.passes(1);
    ASSERT_TRUE(trySend(datagram(row.type, 8)));
    agent.clock(1215);
    agent.passes();
    agent.clock(1400);
    const Lines lines = agent.passes();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "rpcclt_tarnapiBestRouteEventDeregister 7"), row.timesOut ? 1 : 0)
        << row.type;
  }
}

TEST(Loop, KeepAliveTimeoutThatCannotRegisterAgain) {
  AgentProcess agent;
  agent.passes(1);
  agent.script("rpcclt_tarnapiBestRouteEventRegisterVr: -24");
  agent.clock(2000);
  EXPECT_EQ(agent.end(), "exit 0");
  EXPECT_EQ(agent.trace().back(), log(3, "Error in handling best route client timeout for Mirel."));
}

// The indication must have stood for more than 30 seconds; its time is never forgotten.
TEST(Loop, RpcFailure) {
  for (const uint64_t start : {uint64_t{1000}, (uint64_t{1} << 32) - 20}) {
    AgentProcess agent(AgentOptions{.clock = start});
    agent.passes(1);
    const Lines message = {
        PASS_END,
        log(2, "Application out of sync with orrin. mirel processpid -  " + std::to_string(agent.pid()) + " exiting."),
        "rpcclt_rpc_failure_reset"};
    const struct {
      uint32_t after;
      const char *answer;
      int messages;
    } STEPS[] = {{0, "1", 0},
                 {30, "1", 0},
                 {31, "0", 0},
                 {31, "2", 0},
                 {31, "-1", 0},
                 {31, "1", 1},
                 {31, "1\nrpcclt_rpc_failure_occured: 1", 2},
                 {1000, "0", 0},
                 {1001, "1", 1}};
    for (const auto &step : STEPS) {
      agent.clock(start + step.after);
      agent.script(std::string("rpcclt_rpc_failure_occured: ") + step.answer);
      const Lines lines = agent.passes(3);
      int messages = 0;
      for (auto at = lines.begin(); (at = std::search(at, lines.end(), message.begin(), message.end())) != lines.end();
           ++at) {
        ++messages;
      }
      EXPECT_EQ(messages, step.messages) << step.after << " " << step.answer;
      EXPECT_EQ(std::count(lines.begin(), lines.end(), message[1]), step.messages);
    }
  }
}

TEST(Loop, InterruptedSelectRunsNoTimers) {
  AgentProcess agent;
  agent.passes(1);
  agent.script("select: -1 4\nselect: -1 4\nselect: -1 4");
  Lines lines = agent.passes(2);
  const Lines interrupted(3, "select fails with 4");
  EXPECT_NE(std::search(lines.begin(), lines.end(), interrupted.begin(), interrupted.end()), lines.end());
  EXPECT_THAT(lines, Not(Contains(StartsWith("log"))));

  agent.script("select: -1 9\nselect: -1 9");
  lines = agent.passes(3);
  const Lines failed = {"select fails with 9", log(3, "select() error 9 (Bad file descriptor)"), PASS_END,
                        "select fails with 9", log(3, "select() error 9 (Bad file descriptor)"), PASS_END};
  EXPECT_NE(std::search(lines.begin(), lines.end(), failed.begin(), failed.end()), lines.end());
}

// Such a socket cannot be watched, and must not be written past the end of the set.
TEST(Loop, DescriptorsBeyondTheSet) {
  AgentProcess agent(AgentOptions{.beforeExec = [] {
    const rlimit many{.rlim_cur = 4096, .rlim_max = 4096};
    setrlimit(RLIMIT_NOFILE, &many);
    while (dup(STDERR_FILENO) < FD_SETSIZE) {
    }
  }});
  agent.passes(5);
  EXPECT_GE(std::stoi(valueOf(agent.run("mirelBestRouteClientShow"), "brc_sock_fd")), FD_SETSIZE);
  Lines lines = agent.trace();
  EXPECT_THAT(lines, Contains("select 1.0s"));
  std::erase_if(lines, [](const std::string &line) { return !line.starts_with("log "); });
  EXPECT_EQ(lines.size(), 1u) << testing::PrintToString(lines);
}

} // namespace
