// The debug operations, run as the debug shell runs them.

#include "core_test.h"
#include "mirel_best_route.h"
#include "mirel_debug.h"
#include "mirel_router_table.h"

#include <atomic>
#include <regex>
#include <set>

namespace {

class DebugTest : public CoreTest {
protected:
  DebugTest() {
    scripted::clockSet(5000);
    mirelShellOperationsRegister();
  }

  // What the operation prints, with its result in front unless that is 0.
  static std::string shown(const std::string &line) {
    int32_t result = 0;
    const std::string text = printed([&] { result = scripted::run(line); });
    return result == 0 ? text : "result " + std::to_string(result) + text;
  }
};

// Every counter gets a value of its own, so that a swapped pair shows.
void fillStats() {
  uint32_t value = 100;
  for (Counter *counter : {&statsHandle.numArpReqs,
                           &statsHandle.numArpReqErrors,
                           &statsHandle.numArpResolves,
                           &statsHandle.numArpResolveErrors,
                           &statsHandle.numKernelArpAddsRcvd,
                           &statsHandle.numKernelArpDelsRcvd,
                           &statsHandle.numKernelArpAddsProcessed,
                           &statsHandle.numKernelArpDelsProcessed,
                           &statsHandle.numRoutesAdded,
                           &statsHandle.numRouteAddErrors,
                           &statsHandle.numRoutesDeleted,
                           &statsHandle.numRouteDeleteErrors,
                           &statsHandle.numRoutesModified,
                           &statsHandle.numRouteModifyErrors,
                           &statsHandle.numStackErrors,
                           &statsHandle.numRpcErrors,
                           &statsHandle.numBestRouteGetErrors,
                           &statsHandle.numBrcTimeout,
                           &statsHandle.numRecTimeout,
                           &statsHandle.numActiveRoutes}) {
    *counter = ++value;
  }
}

TEST_F(DebugTest, EveryOperationIsRegisteredUnderItsName) {
  std::set<std::string> registered;
  for (const std::string &line : scripted::takeCalls()) {
    EXPECT_TRUE(registered.insert(line.substr(line.find(' ') + 1)).second) << line;
  }
  for (const char *name :
       {"mirelDebugFlagsSet", "mirelDebugFlagsGet", "rtoDebugMaskGet", "rtoDebugMaskSet", "rtoDebugDisableAll",
        "rtoDebugEnableAll", "mirelBestRoutePollTimeSet", "mirelBestRouteApplyTimeSet", "mirelStatsShow",
        "mirelEventCountShow", "mirelIntfEventCountShow", "mirelStatsClear", "mirelBestRouteClientShow",
        "mirelRouterEventClientShow", "mirelIntIfInfoShow", "rtoNetlinkStatsShow", "rtoNetlinkStatsClear",
        "probeAgentDebugSet", "probeAgentDebugGet"}) {
    EXPECT_TRUE(registered.contains(name)) << name;
  }
}

TEST_F(DebugTest, StatsShow) {
  fillStats();
  EXPECT_EQ(shown("mirelStatsShow"), "\n#### mirel stats ####\n"
                                     "Arp Req Errors:            102 \n"
                                     "Arp Reqs:                  101 \n"
                                     "Arp Resolve Errors:        104 \n"
                                     "Arp Resolves:              103 \n"
                                     "Kernel Arp Adds received:  105 \n"
                                     "Kernel Arp Dels received:  106 \n"
                                     "Kernel Arp Adds processed: 107 \n"
                                     "Kernel Arp Dels processed:  108 \n"
                                     "Routes Added:              109 \n"
                                     "Route Add Errors:          110 \n"
                                     "Routes Deleted:            111 \n"
                                     "Route Delete Errors:       112 \n"
                                     "Routes Modified:           113 \n"
                                     "Route Modify Errors:       114 \n"
                                     "RPC Errors:                116 \n"
                                     "Stack errors:              115 \n"
                                     "Active Routes:             120 \n"
                                     "Rtr Event Client Timeouts: 119 \n"
                                     "Best Rt Client Timeouts:   118 \n");
}

TEST_F(DebugTest, StatsClearKeepsTheActiveRoutes) {
  fillStats();
  statsHandle.numActiveRoutes = UINT32_MAX;
  statsHandle.eventCount[300] = 5;
  statsHandle.intfEventCount[1033].hostMode = 6;
  EXPECT_EQ(shown("mirelStatsClear"), "");
  MirelStats expected{};
  expected.numActiveRoutes = UINT32_MAX;
  EXPECT_EQ(memcmp(&statsHandle, &expected, sizeof expected), 0);
}

TEST_F(DebugTest, EventCountShow) {
  statsHandle.eventCount[107] = 4;
  statsHandle.eventCount[201] = 9; // counted, without a row
  statsHandle.eventCount[300] = UINT32_MAX;
  EXPECT_EQ(shown("mirelEventCountShow 0"), "\n The number of events received for \n"
                                            "TARNR_KEEPALIVE                 : 0\n"
                                            "TARNR_BEST_ROUTE_CHANGE         : 0\n"
                                            "TARNR_RTR_ENABLE                : 0\n"
                                            "TARNR_RTR_DISABLE               : 0\n"
                                            "TARNR_RTR_STARTUP_DONE          : 0\n"
                                            "TARNR_RTR_INTF_CREATE           : 0\n"
                                            "TARNR_RTR_INTF_DELETE           : 0\n"
                                            "TARNR_RTR_INTF_ENABLE           : 0\n"
                                            "TARNR_RTR_INTF_ENABLE_PENDING   : 4\n"
                                            "TARNR_RTR_INTF_DISABLE          : 0\n"
                                            "TARNR_RTR_INTF_DISABLE_PENDING  : 0\n"
                                            "TARNR_RTR_INTF_ADDR_CHANGE      : 0\n"
                                            "TARNR_RTR_INTF_MTU              : 0\n"
                                            "TARNR_RTR_INTF_BW_CHANGE        : 0\n"
                                            "TARNR_RTR_INTF_HOST_MODE        : 0\n"
                                            "TARNR_RTR_INTF_CFG_CHANGE       : 0\n"
                                            "TARNR_POLICY_CHANGE             : 4294967295\n");
  const std::string one = "\n The number of events received for \nthe given message type : ";
  EXPECT_EQ(shown("mirelEventCountShow 0xC9"), one + "9\n");
  EXPECT_EQ(shown("mirelEventCountShow 300"), one + "4294967295\n");
}

TEST_F(DebugTest, IntfEventCountShow) {
  MirelIntfEventStats &stats = statsHandle.intfEventCount[1033];
  stats.enablePending = 1;
  stats.disable = 2;
  stats.addrChange = 3;
  stats.mtu = 4;
  stats.bwChange = 5;
  stats.cfgChange = 6;
  stats.hostMode = 7; // never printed
  const std::string last = "\n The number of events received on interface-1033 for \n"
                           "TARNR_RTR_INTF_ENABLE_PENDING   : 1\n"
                           "TARNR_RTR_INTF_DISABLE          : 2\n"
                           "TARNR_RTR_INTF_ADDR_CHANGE      : 3\n"
                           "TARNR_RTR_INTF_MTU              : 4\n"
                           "TARNR_RTR_INTF_BW_CHANGE        : 5\n"
                           "TARNR_RTR_INTF_CFG_CHANGE       : 6\n";
  EXPECT_EQ(shown("mirelIntfEventCountShow 1033"), last);
  const std::string all = shown("mirelIntfEventCountShow 0");
  EXPECT_TRUE(all.starts_with("\n The number of events received on interface-1 for \n"));
  EXPECT_TRUE(all.ends_with(last));
  EXPECT_EQ(std::count(all.begin(), all.end(), '\n'), 1033 * 8);
}

// What stands in the text behind a label, or in JSON behind a name, in this order.
std::vector<std::string> values(const std::string &shown, bool json) {
  const std::regex value(json ? R"re(": "?([^",}]*))re" : R"re((?:: +|\.{3,}|interface-)([^ \n]*))re");
  std::vector<std::string> found;
  for (std::sregex_iterator at(shown.begin(), shown.end(), value), end; at != end; ++at) {
    found.push_back((*at)[1]);
  }
  return found;
}

TEST_F(DebugTest, JsonHoldsWhatTheTextSays) {
  fillStats();
  statsHandle.eventCount[107] = 4;
  statsHandle.intfEventCount[1033].bwChange = 5;
  rppi_evnt_fd = -1;
  const struct {
    const char *line;
    size_t values;
  } SHOWS[] = {{"mirelStatsShow", 19},           {"mirelEventCountShow 0", 17},
               {"mirelIntfEventCountShow 9", 7}, {"mirelIntfEventCountShow 0", size_t{1033} * 7},
               {"mirelBestRouteClientShow", 8},  {"mirelRouterEventClientShow", 5},
               {"mirelIntIfInfoShow 9", 4},      {"mirelIntIfInfoShow 0", size_t{1033} * 4},
               {"rtoNetlinkStatsShow", 7}};
  for (const auto &show : SHOWS) {
    const std::vector<std::string> inText = values(shown(show.line), false);
    EXPECT_EQ(inText.size(), show.values) << show.line;
    EXPECT_EQ(values(shown(show.line + std::string(" json")), true), inText) << show.line;
  }
  EXPECT_EQ(shown("mirelEventCountShow 107 json"), "{\"type\": 107, \"count\": 4}\n");
}

TEST_F(DebugTest, JsonOfAnyNameIsValid) {
  mirelIntIfInfoAllocate();
  const std::unique_ptr<MirelIntIfInfo[]> table(mirelIntIfInfoTable.load());
  snprintf(table[5].intfName, sizeof table[5].intfName, "%s",
           "a\"b\\c\n\xff\xc3\xa9\xf0\x9f\x90\x8e\xc0\xaf\xed\xa0\x80\xf4\x90\x80\x80\xe2\x82");
  EXPECT_EQ(shown("mirelIntIfInfoShow 5 json"),
            R"({"intIfNum": 5, "intfName": "a\"b\\c\u000a\u00ffé🐎\u00c0\u00af\u00ed\u00a0\u0080)"
            R"(\u00f4\u0090\u0080\u0080\u00e2\u0082", "ipstkIfIndex": 0, "stkIfName": ""})"
            "\n");
  mirelIntIfInfoTable = nullptr;
}

// There are no counters for these: any answer will do, but no crash and no counter of another kind.
TEST_F(DebugTest, NumbersBeyondTheCounters) {
  statsHandle.numBrcTimeout = 77;
  for (const char *line : {"mirelEventCountShow 301", "mirelEventCountShow 0xffffffff", "mirelIntfEventCountShow 1034",
                           "mirelIntfEventCountShow 4294967295", "mirelIntIfInfoShow 1034"}) {
    EXPECT_THAT(shown(line), testing::Not(testing::HasSubstr("77"))) << line;
  }
}

TEST_F(DebugTest, ClientShows) {
  brc_client_keepalive_time = 4990;
  bestRouteChangePending = 1;
  mirelBestRouteApplyTime = 2;
  mirelBestRoutePollTime = 11;
  statsHandle.numBrcTimeout = 3;
  statsHandle.numRecTimeout = 4;
  EXPECT_EQ(shown("mirelBestRouteClientShow"), "\n"
                                               "currentGetTime()          : 5000\n"
                                               "brc_client_keepalive_time : 4990\n"
                                               "mirelBestRouteApplyTime : 2\n"
                                               "bestRouteChangePending    : 1\n"
                                               "mirelBestRoutePollTime  : 11\n"
                                               "statsHandle.numBrcTimeout : 3\n"
                                               "brc_client_id             : 7\n"
                                               "brc_sock_fd               : -1\n"
                                               "\n");
  EXPECT_EQ(shown("mirelRouterEventClientShow"), "\n"
                                                 "currentGetTime()          : 5000\n"
                                                 "rppi_evnt_keepalive_time  : 0\n"
                                                 "statsHandle.numRecTimeout : 4\n"
                                                 "rppi_evnt_fd              : -1\n"
                                                 "rppi_evnt_client_id       : 0\n"
                                                 "\n");
}

TEST_F(DebugTest, MasksAndTimes) {
  const struct {
    const char *line;
    const char *expected;
  } STEPS[] = {
      {"mirelDebugFlagsGet", "0\n"},
      {"mirelDebugFlagsSet 0xffffffff", ""},
      {"mirelDebugFlagsGet", "4294967295\n"},
      {"mirelDebugFlagsSet 7", ""},
      {"mirelDebugFlagsGet", "7\n"},
      {"rtoDebugMaskSet 0", "\r\nAlready Enabled"},
      {"rtoDebugEnableAll", ""},
      {"rtoDebugMaskGet", "15\n"},
      {"rtoDebugMaskSet 15", "\r\nAlready Enabled"},
      {"rtoDebugMaskSet 0x8", ""},
      {"rtoDebugMaskGet", "8\n"},
      {"rtoDebugDisableAll", ""},
      {"rtoDebugMaskGet", "0\n"},
      {"mirelBestRoutePollTimeSet 0", ""},
      {"mirelBestRouteApplyTimeSet 4294967295", ""},
  };
  for (const auto &step : STEPS) {
    EXPECT_EQ(shown(step.line), step.expected) << step.line;
  }
  EXPECT_EQ(mirelBestRoutePollTime, 0u);
  EXPECT_EQ(mirelBestRouteApplyTime, UINT32_MAX);
}

TEST_F(DebugTest, BadArgumentsChangeNothing) {
  for (const char *line :
       {"mirelDebugFlagsSet", "mirelDebugFlagsSet x", "mirelDebugFlagsSet 1x", "mirelDebugFlagsSet 0x",
        "mirelDebugFlagsSet -1", "mirelDebugFlagsSet 4294967296", "mirelDebugFlagsSet 0x100000000",
        "mirelDebugFlagsSet 1.0", "mirelEventCountShow", "mirelEventCountShow json", "mirelStatsShow JSON",
        "mirelStatsShow json json", "mirelStatsClear json", "mirelDebugFlagsGet json", "mirelIntIfInfoShow abc",
        "mirelBestRoutePollTimeSet 0x-1"}) {
    EXPECT_EQ(shown(line), "result 1") << line;
  }
  EXPECT_EQ(mirelDebugFlags, 0u);
  EXPECT_EQ(mirelBestRoutePollTime, 10u);
}

// The shell runs operations on its own thread; the thread sanitizer watches what both touch.
TEST_F(DebugTest, OperationsWhileTheMainThreadWorks) {
  mirelIntIfInfoAllocate();
  const std::unique_ptr<MirelIntIfInfo[]> table(mirelIntIfInfoTable.load());
  std::atomic<int> rounds = 0;
  testing::internal::CaptureStdout();
  std::thread shell([&rounds] {
    for (; rounds < 20; ++rounds) {
      for (const char *line : {"mirelStatsShow", "mirelStatsClear", "mirelIntIfInfoShow 5", "mirelBestRouteClientShow",
                               "mirelRouterEventClientShow", "mirelEventCountShow 0", "mirelBestRoutePollTimeSet 3",
                               "rtoDebugEnableAll"}) {
        scripted::run(line);
      }
    }
  });
  for (uint32_t i = 0; rounds < 20; ++i) {
    mirelIntfParmsPopulate(5);
    mirelEventCountIncrement(i);
    RppiEventMsg change{};
    change.msgType = TARNR_BEST_ROUTE_CHANGE;
    mirelBestRouteMsgProcess(change);
    mirelBestRoutesProcess();
    mirelIntIfInfoClear(5);
  }
  shell.join();
  testing::internal::GetCapturedStdout();
  mirelIntIfInfoTable = nullptr;
  EXPECT_EQ(rtoDebugMask, 15u);
}

} // namespace
