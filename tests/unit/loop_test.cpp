// The main loop of the real agent: its sockets, its timers and its keep-alive checks, by a clock that the test sets.

#include "agent_process.h"
#include "arp_resolution.h"
#include "own_namespaces.h"
#include "unique_fd.h"

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <net/if.h>
#include <set>
#include <sstream>
#include <stdexcept>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>

namespace {

using testing::Contains;
using testing::Each;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

constexpr char PASS_END[] = "rpcclt_rpc_failure_occured";
constexpr char FETCH[] = "rpcclt_tarnapiBestRouteChangeNextGetMult 7 50 [89200]";

std::string log(int severity, const std::string &text) {
  return "log " + std::to_string(severity) + " 156 application/routing/mirel/core/mirel [VRF \"blue\"]: " + text;
}

std::string routerLog(int severity, const std::string &text) {
  return "log " + std::to_string(severity) + " 156 application/routing/mirel/core/mirel_router [VRF \"blue\"]: " + text;
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
      {{eventDatagram(1, 4)}, "0 1005", false},
      {{eventDatagram(10, 4)}, "1 1000", false},
      {{eventDatagram(300, 164)}, "1 1000", false},
      {{eventDatagram(1, 300)}, "0 1005", false},
      {{eventDatagram(10, 300)}, "1 1000", false},
      {{eventDatagram(1, 256)}, "0 1005", false},
      {{one}, "0 1005", false},
      {{std::string(1, '\n')}, "1 1000", false}, // the first byte of type 10
      {{std::string(1, '\0')}, "1 1000", false},
      {{""}, "0 1000", true},
      {{eventDatagram(300, 300), one}, "1 1005", false}, // nothing is left of the longer one
      {{"", eventDatagram(1, 8)}, "0 1005", true},
  };
  for (const Case &row : cases) {
    AgentProcess agent;
    agent.passes(1);
    agent.clock(1005);
    for (const std::string &bytes : row.datagrams) {
      ASSERT_TRUE(sendDatagram(BEST_ROUTE_SOCKET, bytes));
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

// What the two sockets share is shown by the best-route one; here a length that is not the stated one drops the
// message.
TEST(Loop, RouterDatagrams) {
  const auto dropped = [](int read, int type, int stated) {
    return routerLog(3, "Read " + std::to_string(read) + " bytes of message " + std::to_string(type) +
                            " from service MIREL, but message reports its length as " + std::to_string(stated));
  };
  const std::string acknowledge = "rpcclt_tarnapiRouterEventAcknowledge 3 5 4294967295";
  struct Case {
    std::vector<std::string> datagrams;
    const char *keepAlive; // its time, which stands at 1000 before
    Lines calls;
  };
  const std::vector<Case> cases = {
      {{eventDatagram(1, 8)}, "1005", {}},
      {{eventDatagram(1, 4)}, "1005", {}},
      {{eventDatagram(1, 256)}, "1005", {}},
      {{eventDatagram(1, 300)}, "1000", {dropped(256, 1, 300)}},
      {{eventDatagram(1, 8) + "x"}, "1000", {dropped(9, 1, 8)}},
      {{std::string(1, '\x01')}, "1000", {dropped(1, 1, 0)}},
      {{""}, "1000", {"read failed"}},
      {{eventDatagram(101, 300), std::string("\x01\0\x03", 3)}, "1005", {dropped(256, 101, 300)}},
      {{"", eventDatagram(101, 8), eventDatagram(1, 8)}, "1005", {"read failed", acknowledge}},
      {{eventDatagram(300, 8), eventDatagram(109, 256)}, "1000", {acknowledge}},
  };
  for (const Case &row : cases) {
    AgentProcess agent;
    agent.passes(1);
    const std::string fd = valueOf(agent.run("mirelRouterEventClientShow"), "rppi_evnt_fd");
    const std::string failed = log(3, "Failed to read socket with fd " + fd + " for router event client");
    agent.clock(1005);
    const size_t before = agent.trace().size();
    for (const std::string &bytes : row.datagrams) {
      ASSERT_TRUE(sendDatagram(ROUTER_EVENT_SOCKET, bytes));
    }
    agent.passes(static_cast<int>(row.datagrams.size()) + 1);
    const std::string what = testing::PrintToString(row.datagrams);
    EXPECT_EQ(valueOf(agent.run("mirelRouterEventClientShow"), "rppi_evnt_keepalive_time"), row.keepAlive) << what;
    Lines lines = agent.trace();
    lines.erase(lines.begin(), lines.begin() + static_cast<ptrdiff_t>(before));
    std::erase_if(lines, [](const std::string &line) { return line == PASS_END || line.starts_with("ran "); });
    std::replace(lines.begin(), lines.end(), failed, std::string("read failed"));
    EXPECT_EQ(lines, row.calls) << what;
  }
}

// What the switch has resolved comes back as a neighbour of the kernel; a short datagram is filled up by zeros.
TEST(Loop, ArpResolutions) {
  shell("ip link add rt1 type veth peer name h1 && ip link set rt1 up");
  const uint32_t index = if_nametoindex("rt1");
  ArpResolutionMsg msg{};
  msg.msgType = 1;
  msg.msgLen = 36;
  msg.ipAddr = 0xc0000209;
  memcpy(msg.macAddr, "\x02\x00\x00\x00\x00\x09", sizeof msg.macAddr);
  msg.ifIndex = index;
  msg.vrId = 3;
  const std::string datagram(reinterpret_cast<const char *>(&msg), sizeof msg);
  const std::string refused = log(3, "Error in handling ARP resolution message from orrin process");
  const struct {
    std::string datagram;
    bool resolved;
    std::string line; // begins one of the trace
  } CASES[] = {
      {datagram, true, "rpcclt_tarnapiKernelArpAdd 3 192.0.2.9 020000000009[6] " + std::to_string(index) + " 4"},
      {datagram.substr(0, 37), true, ""},
      {datagram + std::string(300, 'x'), true, ""},
      {datagram.substr(0, 36), false, refused},
      {datagram.substr(0, 1), false, refused},
      {"", false, log(3, "Failed to read socket with fd ")},
  };
  for (const auto &row : CASES) {
    AgentProcess agent;
    agent.passes(1);
    ASSERT_TRUE(sendDatagram(ARP_SOCKET, row.datagram));
    const Lines lines = agent.passes(3);
    const std::string shown = agent.run("mirelStatsShow");
    EXPECT_THAT(shown, HasSubstr("Arp Resolve Errors:        " + std::to_string(row.resolved ? 0 : 1) +
                                 " \n"
                                 "Arp Resolves:              " +
                                 std::to_string(row.resolved ? 1 : 0) + " \n"))
        << row.line;
    if (!row.line.empty()) {
      EXPECT_THAT(lines, Contains(StartsWith(row.line)));
    }
    EXPECT_THAT(lines, Not(Contains(StartsWith("select ")))) << "no socket is given up";
  }
  shell("ip link del rt1");
}

TEST(Loop, TracesReachTheOutputAtOnce) {
  AgentProcess agent;
  agent.run("mirelDebugFlagsSet 1");
  ASSERT_TRUE(sendDatagram(BEST_ROUTE_SOCKET, eventDatagram(10, 300)));
  ASSERT_TRUE(sendDatagram(BEST_ROUTE_SOCKET, eventDatagram(1, 1)));
  agent.passes(2);
  const std::string main = "[blue (VRF 3)]:main: Received message for best route service with msg type ";
  EXPECT_EQ(agent.output(),
            main + "BEST ROUTE CHANGE and length 256 bytes\n" + main + "KEEPALIVE and length 1 bytes\n");
}

TEST(Loop, OneDatagramASocketAndPass) {
  mkfifo("/tmp/syncdb.fifo", 0600);
  AgentProcess agent("syncdbClientRegister: 0 /tmp/syncdb.fifo");
  agent.run("mirelDebugFlagsSet 1");
  EXPECT_THAT(agent.trace(),
              Contains("select /tmp/mirel-03/arp-socket /tmp/rppi_brc.0007 /tmp/rppi_rec.0005 file netlink 1.0s"));
  const size_t before = agent.output().size();
  agent.stop();
  const UniqueFd fifo(open("/tmp/syncdb.fifo", O_RDWR | O_NONBLOCK | O_CLOEXEC));
  ASSERT_EQ(write(fifo.get(), "x", 1), 1);
  for (const uint16_t type : {uint16_t{1}, uint16_t{10}, uint16_t{103}}) {
    ASSERT_TRUE(sendDatagram(BEST_ROUTE_SOCKET, eventDatagram(type, 8)));
  }
  for (const uint16_t type : {uint16_t{101}, uint16_t{1}}) {
    ASSERT_TRUE(sendDatagram(ROUTER_EVENT_SOCKET, eventDatagram(type, 8)));
    ASSERT_TRUE(sendDatagram(ARP_SOCKET, "x"));
  }
  shell("ip link add rt1 type veth peer name h1 && ip neigh add 10.9.0.7 lladdr 02:00:00:00:00:07 dev rt1 && "
        "ip neigh add 10.9.0.8 lladdr 02:00:00:00:00:08 dev rt1");
  agent.resume();
  agent.passes(4);
  char byte;
  ASSERT_EQ(read(fifo.get(), &byte, 1), 1); // nobody has read it but the test
  const std::string router = "[blue (VRF 3)]:main: Received message for router event service with msg type ";
  const std::string best = "[blue (VRF 3)]:main: Received message for best route service with msg type ";
  const std::string syncdb = "[blue (VRF 3)]:main: Received an event from syncdb socket\n"
                             "[blue (VRF 3)]:mirelSyncDbCfgChangeHandle: Received a syncDb event\n";
  const std::string length = " and length 8 bytes\n";
  const std::string neighbour = "[blue (VRF 3)]:main: Received an event from arpd netlink socket\n";
  const std::string arp = "[blue (VRF 3)]:main: Received an event from arp socket\n";
  shell("ip link del rt1");
  EXPECT_THAT(agent.output().substr(before),
              StartsWith(neighbour + router + "IPv4 ROUTING ENABLE" + length +
                         "[blue (VRF 3)]:mirelRouterEventMsgProcess: Received msg type IPv4 ROUTING ENABLE on Router "
                         "Event Client\n" +
                         best + "KEEPALIVE" + length + arp + syncdb + neighbour + router + "KEEPALIVE" + length + best +
                         "BEST ROUTE CHANGE" + length + arp + syncdb + best + "STARTUP DONE" + length + syncdb));
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
  while (sent < 200 && sendDatagram(BEST_ROUTE_SOCKET, eventDatagram(1, 8))) {
    ++sent;
  }
  agent.resume();
  EXPECT_EQ(sent, 200);
}

TEST(Loop, PollTimer) {
  for (const uint64_t start : {uint64_t{1000}, (uint64_t{1} << 32) - 5}) {
    AgentProcess agent(AgentOptions{.clock = start});
    agent.passes(1);
    ASSERT_TRUE(sendDatagram(BEST_ROUTE_SOCKET, eventDatagram(10, 8)));
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
    ASSERT_TRUE(sendDatagram(BEST_ROUTE_SOCKET, eventDatagram(10, 8)));
    agent.clock(start + 22);
    EXPECT_THAT(agent.passes(), Not(Contains(FETCH)));
    agent.clock(start + 23);
    EXPECT_THAT(agent.passes(), Contains(FETCH));
  }
}

// Both timers run at the poll time, the changes before the parked interfaces.
TEST(Loop, PollTimersInOrder) {
  AgentProcess agent;
  agent.run("mirelDebugFlagsSet 1");
  ASSERT_TRUE(sendDatagram(BEST_ROUTE_SOCKET, eventDatagram(10, 8)));
  agent.clock(1009);
  agent.passes();
  const size_t before = agent.output().size();
  agent.clock(1010);
  agent.passes();
  EXPECT_EQ(agent.output().substr(before),
            "[blue (VRF 3)]:mirelBestRoutesProcess: Fetching 50 best routes from RTO.\n"
            "[blue (VRF 3)]:mirelIntfBestRoutesProcess: Installing interface best-routes from RTO.\n"
            "[blue (VRF 3)]:dequeueMirel: Trying to dequeue from Mirel Queue...\n");
}

TEST(Loop, RouterKeepAliveEdges) {
  for (const uint64_t start : {uint64_t{1000}, (uint64_t{1} << 32) - 100, uint64_t{1} << 32}) {
    AgentProcess agent(AgentOptions{.clock = start});
    agent.passes(1);
    agent.clock(start + 120);
    EXPECT_THAT(agent.passes(), Each(PASS_END));
    agent.clock(start + 121);
    Lines lines = agent.passes(3);
    std::erase(lines, PASS_END);
    const Lines expected = {
        routerLog(5, "Deregistering route event client mirel:3"),
        "rpcclt_tarnapiRouterEventDeregister 3 5",
        "rpcclt_tarnapiRouterEventRegister 1 " + std::to_string(agent.pid()) + " 3 mirel:3[8]",
        "rpcclt_tarnapiRtrIntfNextGetVrf 3 0",
        "rpcclt_tarnapiRoutingStartupStatusVr 1 3",
    };
    EXPECT_EQ(lines, expected) << start;
    const std::string shown = agent.run("mirelRouterEventClientShow");
    EXPECT_EQ(valueOf(shown, "statsHandle.numRecTimeout"), "1") << start;
    EXPECT_EQ(valueOf(shown, "rppi_evnt_keepalive_time"), std::to_string(static_cast<uint32_t>(start + 121)));
  }
}

TEST(Loop, BestRouteKeepAliveEdges) {
  for (const uint64_t start : {uint64_t{1000}, (uint64_t{1} << 32) - 100, uint64_t{1} << 32}) {
    AgentProcess agent(AgentOptions{.clock = start});
    agent.passes(1);
    EXPECT_THAT(agent.keepAliveUntil(start + 240), Each(PASS_END));
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
    ASSERT_TRUE(sendDatagram(BEST_ROUTE_SOCKET, eventDatagram(row.type, 8)));
    agent.clock(1215);
    agent.passes();
    agent.clock(1400);
    const Lines lines = agent.passes();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "rpcclt_tarnapiBestRouteEventDeregister 7"), row.timesOut ? 1 : 0)
        << row.type;
  }
}

TEST(Loop, TimeoutsThatEndTheAgent) {
  const struct {
    const char *scriptBefore;
    const char *scriptAfter;
    std::string last;
  } CASES[] = {
      {"", "rpcclt_tarnapiBestRouteEventRegisterVr: -24",
       log(3, "Error in handling best route client timeout for Mirel.")},
      {"", "rpcclt_tarnapiRouterEventRegister: -24",
       log(3, "Error in handling router event client timeout for Mirel.")},
      {"rpcclt_tarnapiRoutingStartupStatusVr: 0 0", "rpcclt_tarnapiBestRouteEventRegisterVr: -23",
       routerLog(3, "Mirel registration for best route servicen not valid")},
      {"rpcclt_tarnapiRoutingStartupStatusVr: 0 0", "rpcclt_tarnapiBestRouteEventRegisterVr: 0 0",
       routerLog(3, "Mirel registration for best route servicen not valid")},
  };
  for (const auto &row : CASES) {
    AgentProcess agent(row.scriptBefore);
    agent.passes(1);
    agent.script(row.scriptAfter);
    agent.clock(2000);
    EXPECT_EQ(agent.end(), "exit 0") << row.scriptAfter;
    EXPECT_EQ(agent.trace().back(), row.last) << row.scriptAfter;
  }
}

// Routing that starts later brings the best-route client; one that cannot be had ends the agent, the event unanswered.
TEST(Loop, StartupDone) {
  const std::string status = "rpcclt_tarnapiRoutingStartupStatusVr: 0 0\n";
  {
    AgentProcess agent(status);
    agent.passes(1);
    ASSERT_TRUE(sendDatagram(ROUTER_EVENT_SOCKET, eventDatagram(103, 8)));
    agent.passes(3);
    EXPECT_THAT(agent.trace(),
                Contains("select /tmp/mirel-03/arp-socket /tmp/rppi_brc.0007 /tmp/rppi_rec.0005 netlink 1.0s"));
  }

  for (const char *refused : {"-23", "0 0"}) {
    AgentProcess ending(status + "rpcclt_tarnapiBestRouteEventRegisterVr: " + refused);
    ending.run("mirelDebugFlagsSet 1");
    ASSERT_TRUE(sendDatagram(ROUTER_EVENT_SOCKET, eventDatagram(103, 8)));
    EXPECT_EQ(ending.end(), "exit 0");
    EXPECT_THAT(ending.output(), testing::EndsWith(" Mirel process exiting.\n"));
    EXPECT_THAT(ending.trace(), Not(Contains(StartsWith("rpcclt_tarnapiRouterEventAcknowledge"))));
  }
}

// The group is left without a word before anything has joined it.
TEST(Loop, MembershipOfRealDevices) {
  const auto event = [](uint16_t type) {
    std::string bytes = eventDatagram(type, 164);
    const uint32_t intIfNum = 5;
    memcpy(bytes.data() + 8, &intIfNum, sizeof intIfNum);
    return bytes;
  };
  const auto logs = [](Lines lines) {
    std::erase_if(lines, [](const std::string &line) { return !line.starts_with("log "); });
    return lines;
  };
  shell("ip link add rt1 type veth peer name h1");
  AgentProcess agent;
  agent.passes(1);
  ASSERT_TRUE(sendDatagram(ROUTER_EVENT_SOCKET, event(113)));
  Lines lines = agent.passes();
  EXPECT_THAT(lines, Contains("osapiIfFlagChange rt1 1 1"));
  EXPECT_THAT(logs(lines), IsEmpty());

  ASSERT_TRUE(sendDatagram(ROUTER_EVENT_SOCKET, event(107)));
  EXPECT_THAT(logs(agent.passes()), IsEmpty());
  EXPECT_NO_THROW(shell("ip maddr show dev rt1 | grep -qw 224.0.0.2"));
  unsigned allowed = 0;
  std::ifstream("/proc/sys/net/ipv4/igmp_max_memberships") >> allowed;
  EXPECT_GE(allowed, 1100u);

  ASSERT_TRUE(sendDatagram(ROUTER_EVENT_SOCKET, event(108)));
  EXPECT_THAT(logs(agent.passes()), IsEmpty());
  EXPECT_NO_THROW(shell("! ip maddr show dev rt1 | grep -qw 224.0.0.2"));
  shell("ip link del rt1");
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

// Whether RTO is told of a kernel route before long.
bool reported(AgentProcess &agent, const std::string &report) {
  const std::string line = "rpcclt_tarnapiKernelRoute" + report;
  for (int pass = 0; pass < 1000; ++pass) {
    const Lines lines = agent.trace();
    if (std::find(lines.begin(), lines.end(), line) != lines.end()) {
      return true;
    }
    agent.passes(1);
  }
  return false;
}

// Listener and task on their threads, beside the loop that enables the interface.
TEST(Loop, RoutesOfOtherPrograms) {
  shell("ip link add rt1 type veth peer name h1 && ip link set rt1 up && ip link set h1 up");
  AgentProcess agent;
  agent.passes(1);
  std::string enable = eventDatagram(107, 164);
  const uint32_t intIfNum = 5;
  memcpy(enable.data() + 8, &intIfNum, sizeof intIfNum);
  ASSERT_TRUE(sendDatagram(ROUTER_EVENT_SOCKET, enable));
  agent.passes();
  const std::string route = "Vr 3 10.50.0.0/16 type 2 proto 7 reject 0 discard 0 report 1 metric 77 hops 1 [36] via "
                            "10.9.0.7 5";
  shell("ip addr add 10.9.0.1/24 dev rt1 && ip route add 10.50.0.0/16 via 10.9.0.7 metric 77");
  EXPECT_TRUE(reported(
      agent, "AddVr 3 10.9.0.0/24 type 2 proto 7 reject 0 discard 0 report 1 metric 0 hops 1 [36] via 0.0.0.0 5"));
  EXPECT_TRUE(reported(agent, "Add" + route));
  shell("ip route del 10.50.0.0/16");
  EXPECT_TRUE(reported(agent, "Del" + route));
  EXPECT_THAT(agent.run("rtoNetlinkStatsShow"), StartsWith("\nCount of successful route add: 2\n"
                                                           "\nCount of unsuccessful route add: 0\n"
                                                           "\nCount of successful route delete: 1\n"));
  shell("ip link del rt1");
}

// The port of the agent's socket for routes.
uint32_t routeSocketPort(pid_t agent) {
  std::ifstream sockets("/proc/" + std::to_string(agent) + "/net/netlink");
  std::string address;
  std::string protocol;
  std::string groups;
  uint32_t port = 0;
  for (std::string line; std::getline(sockets, line);) {
    std::istringstream(line) >> address >> protocol >> port >> groups;
    if (groups == "00000440") {
      return port;
    }
  }
  throw std::runtime_error("no route socket");
}

// What is queued behind a datagram that ends the listen goes with the socket, and is made up for by the table.
TEST(Loop, RoutesThatGoWithTheListenersSocket) {
  shell("ip link add rt1 type veth peer name h1 && ip link set rt1 up && ip link set h1 up && "
        "ip addr add 10.9.0.1/24 dev rt1");
  AgentProcess agent("rpcclt_tarnapiRtrIntfNextGetVrf: 0 5");
  agent.passes(1);
  agent.stop();
  const UniqueFd sock(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
  sockaddr_nl to{};
  to.nl_family = AF_NETLINK;
  to.nl_pid = routeSocketPort(agent.pid());
  ASSERT_EQ(sendto(sock.get(), "lie", 3, 0, reinterpret_cast<const sockaddr *>(&to), sizeof to), 3);
  shell("ip route add 10.50.0.0/16 via 10.9.0.7");
  agent.resume();
  EXPECT_TRUE(reported(agent, "AddVr 3 10.50.0.0/16 type 2 proto 7 reject 0 discard 0 report 1 metric 0 hops 1 [36] "
                              "via 10.9.0.7 5"));
  EXPECT_THAT(agent.trace(), Contains("log 2 24 application/routing/mirel/core/rto_netlink RtNetlink failed to listen "
                                      "to netlink socket."));
  shell("ip link del rt1");
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
  std::erase_if(lines, [](const std::string &line) { return !line.starts_with("log 3 "); });
  EXPECT_EQ(lines.size(), 4u) << testing::PrintToString(lines);
  EXPECT_EQ(std::set(lines.begin(), lines.end()).size(), 4u) << "one line a socket";
}

} // namespace
