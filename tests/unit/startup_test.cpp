// The real agent from its command line to its loop, on the scripted platform: what it calls, in which order, and how each
// failure ends.

#include "agent_process.h"
#include "own_namespaces.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

namespace {

using testing::Contains;
using testing::Each;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

const std::string AREA = " 156 application/routing/mirel/core/mirel ";

std::string log(int severity, const std::string &text) {
  return "log " + std::to_string(severity) + AREA + text;
}

std::string routerLog(int severity, const std::string &text) {
  return "log " + std::to_string(severity) + " 156 application/routing/mirel/core/mirel_router " + text;
}

// The trace up to the first wait, without the registration of debug operations.
Lines startUp(AgentProcess &agent) {
  agent.passes(1);
  Lines lines = agent.trace();
  lines.erase(
      std::find_if(lines.begin(), lines.end(), [](const std::string &line) { return line.starts_with("select "); }),
      lines.end());
  std::erase_if(lines, [](const std::string &line) { return line.starts_with("qvproc_devshell_register "); });
  return lines;
}

TEST(StartUp, OrderOfCalls) {
  AgentProcess agent;
  const Lines expected = {
      "qvproc_devshell_init",
      "syncdbClientRegister mirel",
      "osapiTaskCreate GenRPC Server",
      "tarnapiServiceClientRegister mirel 1 2001",
      "rpcclt_tarnapiConnectivityCheck",
      "rpcclt_tarnapiVrfNameGet 3 [65]",
      "syncdbGet Mirel Restart State-3 1 0",
      "syncdbGet Mirel Restart State-3 1 0",
      "syncdbSet Mirel Restart State-3 1 1",
      "system ifconfig lo up",
      "system rm -rf /tmp/mirel-03",
      "system mkdir /tmp/mirel-03",
      "procOsapiRouteNetlinkSocketInit netlink-request_dx-to-kernel",
      "osapiMsgQueueCreate Ext route_queue 1024 8",
      log(7, "[VRF \"blue\"]: Successfully Initialized the VR IPSLA Probe Agent application."),
      "rpcclt_tarnapiRoutingProtocolRegister 3 1 kernel[7] K[2] 7",
      "rpcclt_tarnapiRouteTypeRegister 1 7 Kernel[7] [1]",
      "rpcclt_tarnapiRouterEventRegister 1 " + std::to_string(agent.pid()) + " 3 mirel:3[8]",
      "rpcclt_tarnapiRtrICMPRatelimitGet blue[65]",
      "osapiIpv4IcmpRatelimitSet 100 1000",
      "rpcclt_tarnapiRtrICMPEchoReplyModeGet blue[65]",
      "osapiIpv4IcmpIgnoreEchoRequestSet 0",
      "osapiIpv4IcmpEchoIgnoreBcastSet 0",
      "rpcclt_tarnapiRoutingStartupStatusVr 1 3",
      "rpcclt_tarnapiRtrIntfNextGetVrf 3 0",
      "rpcclt_tarnapiBestRouteEventRegisterVr 3 1 " + std::to_string(agent.pid()) + " mirel:3[8]",
  };
  EXPECT_THAT(startUp(agent), ElementsAreArray(expected));
  EXPECT_THAT(agent.trace(),
              Contains("select /tmp/mirel-03/arp-socket /tmp/rppi_brc.0007 /tmp/rppi_rec.0005 netlink 1.0s"));
  EXPECT_EQ(agent.output(), "");
}

TEST(StartUp, OperationsAreThereWhenTheShellOpens) {
  AgentProcess agent;
  agent.passes(1);
  bool open = false;
  int registered = 0;
  for (const std::string &line : agent.trace()) {
    open = open || line == "qvproc_devshell_init";
    if (line.starts_with("qvproc_devshell_register ")) {
      EXPECT_FALSE(open) << line;
      ++registered;
    }
  }
  EXPECT_TRUE(open);
  EXPECT_GE(registered, 17);
}

TEST(StartUp, Arguments) {
  const struct {
    const char *argument;
    const char *vrfId;
  } CASES[] = {
      {"x-12", "12"},
      {"mirel", "0"},
      {"a-b-7", "7"},
      {"mirel-", "0"},
      {"mirel-007", "7"},
      {"mirel-3x", "3"},
      {"mirel-x3", "0"},
      {"-5", "5"},
      {"mirel-4294967295", "4294967295"},
      {"mirel-4294967301", "5"},
      {"", "0"},
      {"--7", "7"},
      {"-h", "0"},
      {"--help-4", "4"},
  };
  for (const auto &row : CASES) {
    AgentProcess agent(AgentOptions{.arguments = {row.argument}});
    const Lines lines = startUp(agent);
    const std::string vrfId = row.vrfId;
    EXPECT_THAT(lines, Contains("rpcclt_tarnapiVrfNameGet " + vrfId + " [65]")) << row.argument;
    EXPECT_THAT(lines, Contains("syncdbGet Mirel Restart State-" + vrfId + " 1 0")) << row.argument;
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "system ifconfig lo up"), vrfId == "0" ? 0 : 1) << row.argument;
    EXPECT_THAT(lines.back(), testing::EndsWith(" mirel:" + vrfId + "[" + std::to_string(7 + vrfId.size()) + "]"));
  }
}

// None of them may do anything: VRF 0 would be served.
TEST(StartUp, NoServiceNamed) {
  const struct {
    Lines arguments;
    const char *end;
    const char *output;
    const char *errors;
  } CASES[] = {
      {{}, "exit 1", "", "usage: mirel [^$]*"},
      {{"--help"}, "exit 0", "usage: mirel [^$]*", ""},
      {{"--version"}, "exit 0", "mirel [0-9.]+\n", ""},
  };
  for (const auto &row : CASES) {
    AgentProcess agent(AgentOptions{.arguments = row.arguments});
    EXPECT_EQ(agent.end(), row.end);
    EXPECT_THAT(agent.output(), testing::MatchesRegex(row.output)) << row.end;
    EXPECT_THAT(agent.errors(), testing::MatchesRegex(row.errors)) << row.end;
    EXPECT_THAT(agent.trace(), IsEmpty());
  }
}

// It touches nothing of the first one's. A killed one is no obstacle, nor is the agent of another VRF.
TEST(StartUp, OneAgentOfAVrf) {
  AgentProcess first;
  first.passes(1);
  AgentProcess second;
  EXPECT_EQ(second.end(), "exit 3");
  Lines lines = second.trace();
  std::erase_if(lines, [](const std::string &line) { return line.starts_with("qvproc_devshell_register "); });
  EXPECT_EQ(lines, (Lines{"qvproc_devshell_init",
                          log(3, "another agent of VRF 3 runs (pid " + std::to_string(first.pid()) + ")")}));
  AgentProcess other(AgentOptions{.arguments = {"mirel-30"}});
  other.passes(1);
  kill(first.pid(), SIGKILL);
  AgentProcess next;
  next.passes(1);
}

// The message is the last thing that is heard of the agent.
TEST(StartUp, FatalSteps) {
  const std::string register_ = "rpcclt_tarnapiBestRouteEventRegisterVr";
  const struct {
    const char *script;
    std::string end;
    Lines last;
  } CASES[] = {
      {"syncdbClientRegister: 1", "signal 6", {log(3, "VRF-ID 3: SyncDB Registration failed for Mirel")}},
      {"pthread_mutexattr_init: 12", "signal 6", {log(3, "Error initializing Mirel TarnApi semaphore."), ""}},
      {"osapiTaskCreate: 1 11", "exit 0", {log(3, "VRF-ID 3: gen RPC server creation failed.")}},
      {"tarnapiServiceClientRegister: -26",
       "exit 2",
       {log(3, "VRF-ID 3: Failed to initialize RPC to Tarn. Exiting (result = -26)")}},
      {"procOsapiRouteNetlinkSocketInit: 1",
       "exit 0",
       {log(3, "[VRF \"blue\"]: Failed to initialize the Mirel netlink socket for updates to Kernel (VRF namespce).")}},
      {"osapiMsgQueueCreate: 1",
       "exit 0",
       {"log 3 156 application/routing/mirel/core/rto_netlink [VRF \"blue\"]: ERROR: Failed to create "
        "RtoNetlink-rtoExtRoute_queue."}},
      {"pthread_mutexattr_init: 0\npthread_mutexattr_init: 12",
       "exit 0",
       {"log 1 156 application/routing/mirel/core/vr_ipslaprobe_util [VRF-ID:3] VRF-ID : 3,Failure creating semaphore "
        "for pingSessionTable.",
        log(3, "[VRF \"blue\"]: Failed to Initializes the VR IPSLA Probe Agent application. Error 1.")}},
      {"rpcclt_tarnapiRouterEventRegister: -22",
       "exit 0",
       {routerLog(3, "[VRF \"blue\"]: Failed to register as router event client (err = -22)."),
        routerLog(3, "Invalid parameter"), log(3, "[VRF \"blue\"]: Mirel failed to register to router event client."),
        log(3, "[VRF \"blue\"]: Mirel: Failure in router event client registration. Client id = 0, sock fd = -1")}},
      {"rpcclt_tarnapiRouterEventRegister: 0 70",
       "exit 0",
       {routerLog(3, "[VRF \"blue\"]: Failed to bind RPPI client socket"),
        routerLog(3, "[VRF \"blue\"]: Failed to create router event client socket."),
        log(3, "[VRF \"blue\"]: Mirel failed to register to router event client."),
        log(3, "[VRF \"blue\"]: Mirel: Failure in router event client registration. Client id = 70, sock fd = -1")}},
      {"rpcclt_tarnapiRoutingStartupStatusVr: -26",
       "exit 0",
       {log(6,
            "[VRF \"blue\"]: Mirel failed to retrieve TARN initialization status.mirel process exiting. Error -26.")}},
      {"rpcclt_tarnapiBestRouteEventRegisterVr: -23",
       "exit 0",
       {log(3, "[VRF \"blue\"]: Mirel: Failed to register as best route change client."),
        log(3, "Client list already full"), log(3, "[VRF \"blue\"]: Mirel failed to register to best route service.")}},
      {"rpcclt_tarnapiBestRouteEventRegisterVr: 0 70",
       "exit 0",
       {"log 3 156 application/routing/mirel/core/mirel_router [VRF \"blue\"]: Failed to bind RPPI client socket",
        log(3, "[VRF \"blue\"]: Failed to create best route client socket."),
        log(3, "[VRF \"blue\"]: Mirel failed to register to best route service.")}},
  };
  std::filesystem::create_directory("/tmp/rppi_rec.0070"); // where no socket can be bound
  std::filesystem::create_directory("/tmp/rppi_brc.0070");
  for (const auto &row : CASES) {
    AgentProcess agent(row.script);
    EXPECT_EQ(agent.end(), row.end) << row.script;
    Lines lines = agent.trace();
    ASSERT_GE(lines.size(), row.last.size()) << row.script;
    lines.erase(lines.begin(), lines.end() - static_cast<ptrdiff_t>(row.last.size()));
    EXPECT_EQ(lines, row.last) << row.script;
  }
  std::filesystem::remove("/tmp/rppi_rec.0070");
  std::filesystem::remove("/tmp/rppi_brc.0070");
}

// A client id of 0 is no registration, whatever the call answered. For the best-route client only a trace says so, and
// traces are off.
TEST(StartUp, ClientIdZeroIsFatal) {
  AgentProcess agent("rpcclt_tarnapiBestRouteEventRegisterVr: 0 0");
  EXPECT_EQ(agent.end(), "exit 0");
  EXPECT_THAT(agent.trace().back(), StartsWith("rpcclt_tarnapiBestRouteEventRegisterVr "));

  AgentProcess routerEvents("rpcclt_tarnapiRouterEventRegister: 0 0");
  EXPECT_EQ(routerEvents.end(), "exit 0");
  EXPECT_THAT(routerEvents.trace().back(),
              StartsWith(log(
                  3, "[VRF \"blue\"]: Mirel: Failure in router event client registration. Client id = 0, sock fd = ")));
}

TEST(StartUp, SurvivedFailures) {
  const struct {
    const char *script;
    Lines logs;
  } CASES[] = {
      {"rpcclt_tarnapiVrfNameGet: -29\nrpcclt_tarnapiRouteTypeRegister: -26",
       {log(3, "VRF-ID 3: Failed to get the vrf-name."),
        log(3, "[VRF \"\"]: Failed to register Route Types with TARN RTO.")}},
      {"rpcclt_tarnapiRoutingProtocolRegister: -24",
       {log(3, "[VRF \"blue\"]: Failed to register Route Types with TARN RTO.")}},
      {"rpcclt_tarnapiRtrICMPRatelimitGet: -26\nosapiIpv4IcmpIgnoreEchoRequestSet: 1\nosapiIpv4IcmpEchoIgnoreBcastSet: "
       "1",
       {routerLog(3, "[VRF \"blue\"]: Failed to get the ICMP rate-limit."),
        routerLog(3, "[VRF \"blue\"]: Failed to set the ICMP echo-reply mode (0)."),
        routerLog(3, "[VRF \"blue\"]: Failed to set the ICMP echo ignore broadcast mode (0).")}},
      {"syncdbSet: 1", {}},
      {"system: -1", {}},
      {"system= 0", {log(3, "[VRF \"blue\"]: Failed to create the Mirel ARP socket.")}},
  };
  for (const auto &row : CASES) {
    AgentProcess agent(row.script);
    Lines logs = startUp(agent);
    std::erase_if(logs,
                  [](const std::string &line) { return !line.starts_with("log ") || line.starts_with("log 7 "); });
    EXPECT_EQ(logs, row.logs) << row.script;
  }
}

TEST(StartUp, VrfNameOfFullLength) {
  const std::string name(64, 'v');
  AgentProcess agent("rpcclt_tarnapiVrfNameGet: 0 " + name + "vv\nrpcclt_tarnapiRoutingProtocolRegister: -24");
  EXPECT_THAT(startUp(agent),
              Contains(log(3, "[VRF \"" + name + "\"]: Failed to register Route Types with TARN RTO.")));
}

TEST(StartUp, WaitsForThePlatform) {
  AgentProcess agent("rpcclt_tarnapiConnectivityCheck: -26\nrpcclt_tarnapiConnectivityCheck: 1\n"
                     "syncdbGet: 0 1\nsyncdbGet: 0 1");
  const Lines lines = startUp(agent);
  const Lines expected = {"tarnapiServiceClientRegister mirel 1 2001",
                          "rpcclt_tarnapiConnectivityCheck",
                          "osapiSleepMSec 1000",
                          "rpcclt_tarnapiConnectivityCheck",
                          "osapiSleepMSec 1000",
                          "rpcclt_tarnapiConnectivityCheck",
                          "rpcclt_tarnapiVrfNameGet 3 [65]"};
  EXPECT_NE(std::search(lines.begin(), lines.end(), expected.begin(), expected.end()), lines.end());
}

TEST(StartUp, RestartFlushesBeforeAnythingIsMirrored) {
  shell("ip link add rt1 type veth peer name h1 && ip link set rt1 up");
  for (const char *flag : {"syncdbGet= 0 1", "syncdbGet= 1", "syncdbGet= 0 255"}) {
    AgentProcess agent(flag);
    const Lines lines = startUp(agent);
    const Lines expected = {
        "syncdbGet Mirel Restart State-3 1 0",
        log(4, "[VRF \"blue\"]: Mirel process restarted. VRF ID = 3, PID = " + std::to_string(agent.pid())),
        "osapiIfFlagChange rt1 1 0",
        "osapiIfFlagChange rt1 1 1",
        "system ifconfig lo up",
    };
    EXPECT_NE(std::search(lines.begin(), lines.end(), expected.begin(), expected.end()), lines.end()) << flag;
    EXPECT_THAT(lines, Not(Contains(StartsWith("syncdbSet")))) << flag;
  }
  shell("ip link del rt1");
}

TEST(StartUp, ClosedStandardDescriptors) {
  AgentProcess agent(AgentOptions{.beforeExec = [] {
    close(STDIN_FILENO);
    close(STDOUT_FILENO);
    close(STDERR_FILENO);
  }});
  agent.passes(1);
  for (const char *fd : {"0", "1", "2"}) {
    EXPECT_EQ(std::filesystem::read_symlink("/proc/" + std::to_string(agent.pid()) + "/fd/" + fd), "/dev/null");
  }
}

TEST(StartUp, InterfacesAreReplayedBeforeBestRoutes) {
  shell("ip link add rt1 type veth peer name h1");
  AgentProcess agent("rpcclt_tarnapiRtrIntfNextGetVrf: 0 5\nrpcclt_tarnapiRtrIntfNextGetVrf: 0 9");
  Lines lines = startUp(agent);
  shell("ip link del rt1");
  std::erase_if(lines, [](const std::string &line) {
    return line.find("NextGetVrf") == std::string::npos && !line.starts_with("rpcclt_tarnapiRtrIntfL3MacAddressGet") &&
           line.find("Event") == std::string::npos;
  });
  const std::string pid = std::to_string(agent.pid());
  EXPECT_EQ(lines, (Lines{"rpcclt_tarnapiRouterEventRegister 1 " + pid + " 3 mirel:3[8]",
                          "rpcclt_tarnapiRtrIntfNextGetVrf 3 0", "rpcclt_tarnapiRtrIntfL3MacAddressGet 5 [6]",
                          "rpcclt_tarnapiRtrIntfNextGetVrf 3 5", "rpcclt_tarnapiRtrIntfL3MacAddressGet 9 [6]",
                          "rpcclt_tarnapiRtrIntfNextGetVrf 3 9",
                          "rpcclt_tarnapiBestRouteEventRegisterVr 3 1 " + pid + " mirel:3[8]"}));
}

TEST(StartUp, RoutingNotStarted) {
  AgentProcess agent("rpcclt_tarnapiRoutingStartupStatusVr: 0 0\nrpcclt_tarnapiRtrIntfNextGetVrf: 0 5");
  const Lines lines = startUp(agent);
  EXPECT_THAT(lines, Not(Contains(StartsWith("rpcclt_tarnapiBestRouteEventRegisterVr"))));
  EXPECT_THAT(lines, Not(Contains(StartsWith("rpcclt_tarnapiRtrIntfNextGetVrf"))));
  EXPECT_THAT(agent.trace(), Contains("select /tmp/mirel-03/arp-socket /tmp/rppi_rec.0005 netlink 1.0s"));
  EXPECT_THAT(agent.keepAliveUntil(1500), Each("rpcclt_rpc_failure_occured"));
}

} // namespace
