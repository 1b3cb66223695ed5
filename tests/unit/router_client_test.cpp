// The router event client: its registration, what becomes of each type of event, and the time-out.

#include "mirel_router_event.h"
#include "router_test.h"
#include "unique_fd.h"

#include <algorithm>
#include <fcntl.h>
#include <filesystem>

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

using Stats = MirelIntfEventStats;

const std::string REGISTER = "rpcclt_tarnapiRouterEventRegister 1 4711 3 mirel:3[8]";
const std::string ACKNOWLEDGE = "rpcclt_tarnapiRouterEventAcknowledge 3 5 88";
const std::string FETCH = "rpcclt_tarnapiBestRouteChangeNextGetMult 7 50 [89200]";
const std::string STATUS = "rpcclt_tarnapiRoutingStartupStatusVr 1 3";
const std::string BEST_ROUTE_REGISTER = "rpcclt_tarnapiBestRouteEventRegisterVr 3 1 4711 mirel:3[8]";
const std::string TRACE = "[blue (VRF 3)]:mirelRouterEventMsgProcess: ";
constexpr int SOME_SOCKET = 1000; // stands for an open best-route socket that nobody touches

void process(const RppiEventMsg &msg) {
  mirelRouterEventMsgProcess(&msg, sizeof msg);
}

// All events counted for any interface and kind, and those of one.
struct IntfCounts {
  uint32_t all = 0;
  uint32_t one = 0;

  IntfCounts(uint32_t intIfNum, Counter Stats::*counter) {
    for (uint32_t number = 0; number < statsHandle.intfEventCount.size(); ++number) {
      const Stats &stats = statsHandle.intfEventCount[number];
      for (const auto each : {&Stats::enablePending, &Stats::disable, &Stats::addrChange, &Stats::mtu, &Stats::bwChange,
                              &Stats::cfgChange, &Stats::hostMode}) {
        all += stats.*each;
        one += number == intIfNum && each == counter ? (stats.*each).get() : 0;
      }
    }
  }
};

class RouterClientTest : public RouterTest {
protected:
  RouterClientTest() {
    scripted::clockSet(5000);
    rppi_evnt_fd = -1;
  }
  ~RouterClientTest() override {
    for (const int fd : {rppi_evnt_fd.get(), brc_sock_fd.get()}) {
      if (fd != -1 && fd != SOME_SOCKET) {
        close(fd);
      }
    }
    rppi_evnt_fd = -1;
  }

  static int start() {
    return mirelRouterEventClientStart(mirelPid, &clientNameDesc, &rppi_evnt_client_id, &rppi_evnt_fd);
  }
  static int timeOut() { return mirelHandleRouterEventClientTimeout(mirelPid, &clientNameDesc); }
};

TEST_F(RouterClientTest, EveryType) {
  const char KEEPALIVE[] = "";
  const char UNKNOWN[] = "Received unknown msg type ";
  const char NOTED[] = "Received msg type ";
  const char HANDLED[] = "Successfully handled ";
  const struct {
    uint16_t first;
    uint16_t last;
    const char *trace;
    const char *handler; // whose trace names the interface
    Counter Stats::*counter;
    bool acknowledged;
  } CASES[] = {
      {0, 0, UNKNOWN, nullptr, nullptr, false},
      {1, 1, KEEPALIVE, nullptr, nullptr, false},
      {2, 100, UNKNOWN, nullptr, nullptr, false},
      {101, 102, NOTED, nullptr, nullptr, true},
      {103, 103, HANDLED, nullptr, nullptr, true},
      {104, 105, NOTED, nullptr, nullptr, true},
      {106, 106, HANDLED, "mirelRtrIntfEnableHandler", nullptr, true},
      {107, 107, HANDLED, "mirelRtrEnableHandler", &Stats::enablePending, true},
      {108, 108, HANDLED, "mirelRtrDisableHandler", &Stats::disable, true},
      {109, 109, UNKNOWN, nullptr, nullptr, true},
      {110, 110, HANDLED, "mirelRtrAddrHandler", &Stats::addrChange, true},
      {111, 111, HANDLED, "mirelRtrMtuHandler", &Stats::mtu, true},
      {112, 112, HANDLED, "mirelRtrBwHandler", &Stats::bwChange, true},
      {113, 113, HANDLED, "mirelRtrHostModeHandler", &Stats::hostMode, true},
      {114, 114, HANDLED, "mirelRtrCfgHandler", &Stats::cfgChange, true},
      {115, 200, UNKNOWN, nullptr, nullptr, true},
      {201, 211, NOTED, nullptr, nullptr, true},
      {212, 299, UNKNOWN, nullptr, nullptr, true},
      {300, 301, UNKNOWN, nullptr, nullptr, false},
      {0xFFFF, 0xFFFF, UNKNOWN, nullptr, nullptr, false},
  };
  brc_sock_fd = SOME_SOCKET;
  for (const auto &row : CASES) {
    for (uint32_t type = row.first; type <= row.last; ++type) {
      startAgain();
      mirelMcastGroupMembershipSet(5, 1); // to be left
      scripted::takeCalls();
      scripted::clockSet(5000);
      statsHandle = MirelStats{};
      rppi_evnt_keepalive_time = 0;
      mirelDebugFlags = 1;
      const std::string traces = printed([type] { process(routerEvent(static_cast<uint16_t>(type))); });

      const bool counts = type <= MIREL_EVENT_TYPE_MAX;
      uint32_t counted = 0;
      for (const Counter &counter : statsHandle.eventCount) {
        counted += counter;
      }
      EXPECT_EQ(counted, counts ? 1u : 0u) << type;
      EXPECT_EQ(counts ? statsHandle.eventCount[type].get() : 0u, counted) << type;
      const IntfCounts perInterface(5, row.counter);
      EXPECT_EQ(perInterface.all, row.counter != nullptr ? 1u : 0u) << type;
      EXPECT_EQ(perInterface.one, perInterface.all) << type;

      const Lines calls = scripted::takeCalls();
      const std::string name = mirelRouterEventNameGet(static_cast<uint16_t>(type));
      if (row.trace == HANDLED) {
        EXPECT_THAT(traces, EndsWith(TRACE + HANDLED + name + " router event\n")) << type;
        EXPECT_THAT(traces, HasSubstr(row.handler == nullptr
                                          ? ""
                                          : std::string("]:") + row.handler + ": Entering... for interface 5\n"));
        EXPECT_EQ(calls.back(), ACKNOWLEDGE) << type;
      } else {
        EXPECT_EQ(traces, row.trace == KEEPALIVE ? "" : TRACE + row.trace + name + " on Router Event Client\n") << type;
        EXPECT_EQ(calls, row.acknowledged ? Lines{ACKNOWLEDGE} : Lines{}) << type;
      }
      EXPECT_EQ(rppi_evnt_keepalive_time, type == TARNR_KEEPALIVE ? 5000u : 0u) << type;
    }
  }
}

TEST_F(RouterClientTest, InterfaceEnableIsAnnounced) {
  mirelDebugFlags = 1;
  EXPECT_THAT(printed([] { process(routerEvent(TARNR_RTR_INTF_ENABLE)); }),
              StartsWith(TRACE + "TARNR_RTR_INTF_ENABLE ##Received msg type INTERFACE IPv4 ENABLE on Router Event "
                                 "Client\n"));
}

TEST_F(RouterClientTest, InterfacesThatAreCounted) {
  const struct {
    uint32_t intIfNum;
    uint32_t counted;
  } CASES[] = {{0, 1}, {1, 1}, {1033, 1}, {1034, 0}, {UINT32_MAX, 0}};
  for (const auto &row : CASES) {
    statsHandle = MirelStats{};
    process(routerEvent(TARNR_RTR_INTF_MTU, row.intIfNum));
    const IntfCounts counts(row.intIfNum, &Stats::mtu);
    EXPECT_EQ(counts.all, row.counted) << row.intIfNum;
    EXPECT_EQ(counts.one, row.counted) << row.intIfNum;
    EXPECT_THAT(scripted::takeCalls(), Contains("osapiIfIpv4MtuSet rt1 1500"));
  }
}

TEST_F(RouterClientTest, LengthThatDoesNotMatch) {
  for (const uint16_t type : {TARNR_KEEPALIVE, TARNR_RTR_ENABLE, TARNR_RTR_INTF_MTU}) {
    for (const uint32_t bytesRead : {1u, 163u, 165u, 164u + 0x10000u}) {
      const RppiEventMsg msg = routerEvent(type);
      mirelRouterEventMsgProcess(&msg, bytesRead);
      EXPECT_THAT(
          scripted::takeCalls(),
          ElementsAre(routerLog(3, "Read " + std::to_string(bytesRead) + " bytes of message " + std::to_string(type) +
                                       " from service MIREL, but message reports its length as 164")));
      EXPECT_EQ(statsHandle.eventCount[type], 0u);
      EXPECT_EQ(statsHandle.intfEventCount[5].mtu, 0u);
      EXPECT_EQ(rppi_evnt_keepalive_time, 0u);
    }
  }
}

TEST_F(RouterClientTest, FailedEventsAreAcknowledgedToo) {
  const struct {
    uint16_t type;
    const char *name; // null = reported as handled all the same
  } CASES[] = {
      {TARNR_RTR_INTF_ENABLE, "INTERFACE IPv4 ENABLE"},
      {TARNR_RTR_INTF_ENABLE_PENDING, "INTERFACE IPv4 ENABLE PENDING"},
      {TARNR_RTR_INTF_DISABLE, "INTERFACE IPv4 DISABLE"},
      {TARNR_RTR_INTF_ADDR_CHANGE, "IPv4 ADDRESS CHANGE"},
      {TARNR_RTR_INTF_MTU, "IPv4 MTU CHANGE"},
      {TARNR_RTR_INTF_BW_CHANGE, "BANDWIDTH CHANGE"},
      {TARNR_RTR_INTF_HOST_MODE, "HOST INTERFACE FOR IPv4"},
      {TARNR_RTR_INTF_CFG_CHANGE, nullptr},
  };
  scripted::script("rpcclt_tarnapiRtrIntfIpStackStkNameGet= -29");
  for (const auto &row : CASES) {
    scripted::takeCalls();
    RppiEventMsg msg = routerEvent(row.type);
    msg.cfgEvent = 2;
    process(msg);
    const Lines calls = scripted::takeCalls();
    ASSERT_GE(calls.size(), 2u) << row.type;
    const std::string before = row.name == nullptr
                                   ? routerLog(3, "Failed to get the stack interface name of the interface 5.")
                                   : routerLog(3, std::string("Failed to handle ") + row.name + " router event");
    EXPECT_EQ(Lines(calls.end() - 2, calls.end()), (Lines{before, ACKNOWLEDGE})) << row.type;
  }
}

TEST_F(RouterClientTest, PendingRoutesComeBeforeTheDevice) {
  const struct {
    int sockFd;
    uint32_t pending;
    bool fetches;
  } CASES[] = {{-1, 0, false}, {-1, 1, false}, {SOME_SOCKET, 0, true}, {SOME_SOCKET, 1, true}};
  for (const auto &row : CASES) {
    startAgain();
    brc_sock_fd = row.sockFd;
    bestRouteChangePending = row.pending;
    process(routerEvent(TARNR_RTR_INTF_ENABLE_PENDING));
    const Lines calls = scripted::takeCalls();
    EXPECT_EQ(calls.front(), row.fetches ? FETCH : "rpcclt_tarnapiRtrIntfNameGet 5 [60]");
    EXPECT_EQ(std::count(calls.begin(), calls.end(), FETCH), row.fetches ? 1 : 0);
    EXPECT_EQ(bestRouteChangePending, row.fetches ? 0u : row.pending);
  }
}

TEST_F(RouterClientTest, StartupDoneStartsTheBestRouteClientOnce) {
  process(routerEvent(TARNR_RTR_STARTUP_DONE));
  EXPECT_THAT(scripted::takeCalls(), ElementsAre(BEST_ROUTE_REGISTER, ACKNOWLEDGE));
  EXPECT_NE(brc_sock_fd, -1);
  process(routerEvent(TARNR_RTR_STARTUP_DONE));
  EXPECT_THAT(scripted::takeCalls(), ElementsAre(ACKNOWLEDGE));
}

TEST_F(RouterClientTest, Registers) {
  rppi_evnt_client_id = 0;
  scripted::script("rpcclt_tarnapiRouterEventRegister: -28\nrpcclt_tarnapiRouterEventRegister: -28\n"
                   "rpcclt_tarnapiRouterEventRegister: 0 12345");
  scripted::observe(
      [](const std::string &line) { EXPECT_EQ(apiSemaphoreFree(), line.starts_with("osapiSleepMSec")) << line; });
  mirelDebugFlags = 1;
  const std::string traces = printed([] { EXPECT_EQ(start(), 0); });
  EXPECT_THAT(scripted::takeCalls(),
              ElementsAre(REGISTER, "osapiSleepMSec 1000", REGISTER, "osapiSleepMSec 1000", REGISTER));
  EXPECT_EQ(rppi_evnt_client_id, 12345u);
  EXPECT_TRUE(std::filesystem::is_socket("/tmp/rppi_rec.12345"));
  EXPECT_EQ(rppi_evnt_keepalive_time, 5000u);
  char expected[256];
  const char prefix[] = "[blue (VRF 3)]:mirelRouterEventClientStart: ";
  snprintf(expected, sizeof expected,
           "%sEntering ...\n%srouter event client registration successful, client id %p\n%srouter event client sock fd "
           "%d\n",
           prefix, prefix, static_cast<void *>(&rppi_evnt_client_id), prefix, rppi_evnt_fd.get());
  EXPECT_EQ(traces, expected);
}

TEST_F(RouterClientTest, Refused) {
  const struct {
    const char *answer;
    const char *reason;
  } CASES[] = {
      {"-24", "Client name already registered"},
      {"-23", "Client list already full"},
      {"-22", "Invalid parameter"},
      {"-26", "General failure"},
      {"-29", "Other failure"},
      {"1", "Other failure"},
  };
  for (const auto &row : CASES) {
    scripted::script(std::string("rpcclt_tarnapiRouterEventRegister: ") + row.answer);
    EXPECT_EQ(start(), -1);
    EXPECT_THAT(
        scripted::takeCalls(),
        ElementsAre(REGISTER,
                    routerLog(3, std::string("Failed to register as router event client (err = ") + row.answer + ")."),
                    std::string("log 3 156 application/routing/mirel/core/mirel_router ") + row.reason));
    EXPECT_EQ(rppi_evnt_fd, -1);
    EXPECT_EQ(rppi_evnt_keepalive_time, 0u);
  }
}

TEST_F(RouterClientTest, RegistrationStaysWhenTheSocketFails) {
  std::filesystem::create_directory("/tmp/rppi_rec.0070"); // what unlink() does not remove
  scripted::script("rpcclt_tarnapiRouterEventRegister: 0 70");
  EXPECT_EQ(start(), -1);
  std::filesystem::remove("/tmp/rppi_rec.0070");
  EXPECT_THAT(scripted::takeCalls(), ElementsAre(REGISTER, routerLog(3, "Failed to bind RPPI client socket"),
                                                 routerLog(3, "Failed to create router event client socket.")));
  EXPECT_EQ(rppi_evnt_client_id, 70u);
  EXPECT_EQ(rppi_evnt_fd, -1);
  EXPECT_EQ(rppi_evnt_keepalive_time, 0u);
}

const Lines DEREGISTER = {routerLog(5, "Deregistering route event client mirel:3"),
                          "rpcclt_tarnapiRouterEventDeregister 3 5"};

TEST_F(RouterClientTest, TimeoutRegistersReplaysAndAsksForTheStatus) {
  const struct {
    const char *status;
    int bestRouteSock;
    bool starts;
  } CASES[] = {{"0 1", -1, true}, {"0 1", SOME_SOCKET, false}, {"0 0", -1, false}, {"-26", -1, false}};
  for (const auto &row : CASES) {
    startAgain();
    ASSERT_EQ(start(), 0);
    const int oldFd = rppi_evnt_fd;
    const UniqueFd keepsTheNumberTaken(fcntl(oldFd, F_DUPFD_CLOEXEC, 0));
    brc_sock_fd = row.bestRouteSock;
    scripted::takeCalls();
    scripted::clockSet(6000);
    scripted::script("rpcclt_tarnapiRouterEventRegister: 0 6\nrpcclt_tarnapiRtrIntfNextGetVrf: 0 5\n"
                     "rpcclt_tarnapiRtrIntfTypeGet: -26"); // the replay fails, which stops nothing
    scripted::script(std::string("rpcclt_tarnapiRoutingStartupStatusVr: ") + row.status);
    EXPECT_EQ(timeOut(), 0);
    Lines calls = scripted::takeCalls();
    std::erase_if(calls, [](const std::string &line) { return line.find("RtrIntf") != std::string::npos; });
    const Lines replay = {
        routerLog(3, "Failed to get the interface type of the interface 5."),
        routerLog(3, "Failed to get the stack interface name of the interface 5."),
        routerLog(3, "Failed to trigger INTERFACE IPv4 ENABLE PENDING router event for the interface 5")};
    EXPECT_EQ(calls, DEREGISTER + Lines{REGISTER} + replay + Lines{STATUS} +
                         (row.starts ? Lines{BEST_ROUTE_REGISTER} : Lines{}))
        << row.status;
    EXPECT_EQ(rppi_evnt_client_id, 6u);
    EXPECT_EQ(rppi_evnt_fd, oldFd); // the old descriptor was given back before
    EXPECT_TRUE(std::filesystem::is_socket("/tmp/rppi_rec.0006"));
    EXPECT_EQ(rppi_evnt_keepalive_time, 6000u);
    EXPECT_EQ(brc_sock_fd != -1, row.starts || row.bestRouteSock != -1);
    close(rppi_evnt_fd);
    if (row.starts) {
      close(brc_sock_fd);
    }
    rppi_evnt_fd = -1;
    brc_sock_fd = -1;
    rppi_evnt_client_id = 5;
  }
}

TEST_F(RouterClientTest, TimeoutThatCannotRegisterAgain) {
  ASSERT_EQ(start(), 0);
  scripted::takeCalls();
  scripted::script("rpcclt_tarnapiRouterEventRegister: -23");
  EXPECT_EQ(timeOut(), -1);
  const Lines refused = {
      REGISTER, routerLog(3, "Failed to register as router event client (err = -23)."),
      "log 3 156 application/routing/mirel/core/mirel_router Client list already full",
      routerLog(3, "Registration failed for RouterEventClient following timeout! mypid = 4711, myName = mirel:3")};
  EXPECT_EQ(scripted::takeCalls(), DEREGISTER + refused);
  EXPECT_EQ(rppi_evnt_fd, -1);
  EXPECT_EQ(rppi_evnt_client_id, 5u); // not cleared
}

} // namespace
