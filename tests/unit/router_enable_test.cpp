// Enable, disable and replay of router interfaces: which calls reach switch and kernel, in which order, and where a
// failure ends them.

#include "mirel_intf_best_route.h"
#include "router_test.h"

#include <algorithm>
#include <cstring>

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

const Lines MEMBERSHIP = {TYPE_GET, NAME_GET, TYPE_GET, NAME_GET}; // its questions: the name, then the index

const std::string SETTINGS = "rpcclt_tarnapiRtrICMPUnreachablesModeGet= 0 17\n"
                             "rpcclt_tarnapiRtrICMPRedirectsModeGet= 0 18\n"
                             "rpcclt_tarnapiRtrIntfSecIpAddrGet: 0 198.51.100.1/25 1\n"
                             "rpcclt_tarnapiRtrIntfSecIpAddrGet: 0 203.0.113.0/31 2";

const Lines POPULATE = {"rpcclt_tarnapiRtrIntfNameGet 5 [60]", "rpcclt_tarnapiRtrIntfIpStackStkNameGet 3 5 [60]"};

const Lines CONFIGURE_LINK = {
    TYPE_GET,
    NAME_GET,
    "rpcclt_tarnapiRtrIntfL3MacAddressGet 5 [6]",
    "rpcclt_tarnapiRtrIntfIpAddrGet 1 5 (family 0)/0",
    "procOsapiNetlinkIPv4Add rt1 192.0.2.1 255.255.255.0 192.0.2.255",
    "osapiIfMacSet rt1 020000000001",
    "osapiIfFlagChange rt1 1 1",
    "osapiIfArpSet rt1",
};

const Lines CONFIGURE_REST = {
    "rpcclt_tarnapiIntfIpMtuGet 1 5",
    "osapiIfIpv4MtuSet rt1 1500",
    "rpcclt_tarnapiRtrICMPUnreachablesModeGet 5",
    "osapiIfIpv4IcmpSendDestinationUnreachableSet rt1 17",
    "rpcclt_tarnapiRtrICMPRedirectsModeGet 5",
    "osapiIfIpv4IcmpRedirectSendSet rt1 18",
    "rpcclt_tarnapiRtrIntfSecIpAddrGet 1 5 (family 0)/0",
    "procOsapiNetlinkIPv4Add rt1:1 198.51.100.1 255.255.255.128 198.51.100.127",
    "rpcclt_tarnapiRtrIntfSecIpAddrGet 1 5 198.51.100.1/25",
    "procOsapiNetlinkIPv4Add rt1:2 203.0.113.0 255.255.255.254 203.0.113.1",
    "rpcclt_tarnapiRtrIntfSecIpAddrGet 1 5 203.0.113.0/31",
};

const Lines CONFIGURE = CONFIGURE_LINK + MEMBERSHIP + CONFIGURE_REST;

Lines upTo(const Lines &lines, const std::string &last) {
  const auto at = std::find(lines.begin(), lines.end(), last);
  EXPECT_NE(at, lines.end()) << last;
  return {lines.begin(), at == lines.end() ? at : at + 1};
}

class RouterEnableTest : public RouterTest {
protected:
  static int enable(uint32_t intIfNum = 5) {
    const RppiEventMsg msg = routerEvent(TARNR_RTR_INTF_ENABLE_PENDING, intIfNum);
    return mirelRtrEnableHandler(&msg);
  }
};

TEST_F(RouterEnableTest, OrderOfCalls) {
  scripted::script(SETTINGS);
  EXPECT_EQ(enable(), 0);
  EXPECT_EQ(scripted::takeCalls(), POPULATE + CONFIGURE);
  EXPECT_NO_THROW(shell("ip maddr show dev rt1 | grep -qw 224.0.0.2"));
  EXPECT_STREQ(table[5].stkIfName, "rt1");
  EXPECT_TRUE(apiSemaphoreFree());
}

// The switch is asked with the semaphore held, the kernel without, but for the walk of the secondary addresses.
TEST_F(RouterEnableTest, Semaphore) {
  scripted::script(SETTINGS);
  scripted::observe([](const std::string &line) {
    const bool held = line.starts_with("rpcclt_") || line.starts_with("procOsapiNetlinkIPv4Add rt1:");
    EXPECT_EQ(apiSemaphoreFree(), !held) << line;
  });
  EXPECT_EQ(enable(), 0);
}

TEST_F(RouterEnableTest, AFailureEndsItThere) {
  const std::string invalid = " error:22 (Invalid argument)";
  const std::string of5 = " of the interface 5.";
  const std::string on5 = " on the interface 5.";
  const std::string noName = routerLog(3, "Failed to get the stack interface name" + of5);
  const struct {
    const char *script;
    std::string last; // the call that fails
    Lines logs;
  } CASES[] = {
      {"rpcclt_tarnapiRtrIntfTypeGet: -26", TYPE_GET, {routerLog(3, "Failed to get the interface type" + of5), noName}},
      {"rpcclt_tarnapiRtrIntfIpStackStkNameGet: 0 rt1\nrpcclt_tarnapiRtrIntfIpStackStkNameGet: -29",
       NAME_GET,
       {noName}},
      {"rpcclt_tarnapiRtrIntfL3MacAddressGet: -26",
       "rpcclt_tarnapiRtrIntfL3MacAddressGet 5 [6]",
       {routerLog(3, "Failed to get the L3 MAC address" + of5)}},
      {"rpcclt_tarnapiRtrIntfIpAddrGet: -26",
       "rpcclt_tarnapiRtrIntfIpAddrGet 1 5 (family 0)/0",
       {routerLog(3, "Failed to get the IP address info of the interface 5 (rt1).")}},
      {"procOsapiNetlinkIPv4Add: 1 22",
       "procOsapiNetlinkIPv4Add rt1 192.0.2.1 255.255.255.0 192.0.2.255",
       {routerLog(3, "Failed to set the IP address (c0000201), mask (ffffff00) and broadcast address (c00002ff)" + on5 +
                         invalid)}},
      {"osapiIfMacSet: 1 22",
       "osapiIfMacSet rt1 020000000001",
       {routerLog(3, "Failed to set the L3 MAC hardware" + on5 + invalid)}},
      {"osapiIfFlagChange: -1 22",
       "osapiIfFlagChange rt1 1 1",
       {routerLog(3, "Failed to set the IFF_UP flag" + on5 + invalid)}},
      {"osapiIfArpSet: 1 22", "osapiIfArpSet rt1", {routerLog(3, "Failed to setup ARP" + on5 + invalid)}},
      {"rpcclt_tarnapiIntfIpMtuGet: -26",
       "rpcclt_tarnapiIntfIpMtuGet 1 5",
       {routerLog(3, "Failed to get the MTU" + of5)}},
      {"osapiIfIpv4MtuSet: 1 22",
       "osapiIfIpv4MtuSet rt1 1500",
       {routerLog(3, "Failed to set the MTU (5dc)" + on5 + invalid)}},
      {"rpcclt_tarnapiRtrICMPUnreachablesModeGet: -26",
       "rpcclt_tarnapiRtrICMPUnreachablesModeGet 5",
       {routerLog(3, "Failed to get the ICMP unreachables mode" + of5)}},
      {"osapiIfIpv4IcmpSendDestinationUnreachableSet: 1 22",
       "osapiIfIpv4IcmpSendDestinationUnreachableSet rt1 17",
       {routerLog(3, "Failed to set the ICMP unreachables mode (11)" + on5 + invalid)}},
      {"rpcclt_tarnapiRtrICMPRedirectsModeGet: -26",
       "rpcclt_tarnapiRtrICMPRedirectsModeGet 5",
       {routerLog(3, "Failed to get the ICMP redirects mode" + of5)}},
      {"osapiIfIpv4IcmpRedirectSendSet: 1 22",
       "osapiIfIpv4IcmpRedirectSendSet rt1 18",
       {routerLog(3, "Failed to set the ICMP redirects mode (12)" + on5 + invalid)}},
      {"rpcclt_tarnapiRtrIntfSecIpAddrGet: -26",
       "rpcclt_tarnapiRtrIntfSecIpAddrGet 1 5 (family 0)/0",
       {routerLog(3, "ERROR in configuring secondary IP address" + on5 + " error:-26")}},
      {"rpcclt_tarnapiRtrIntfSecIpAddrGet: 0 198.51.100.1/25 1",
       "rpcclt_tarnapiRtrIntfSecIpAddrGet 1 5 198.51.100.1/25",
       {routerLog(3, "ERROR in configuring secondary IP address" + on5 + " error:-26")}},
      {"rpcclt_tarnapiRtrIntfSecIpAddrGet: 0 198.51.100.1/25 1\nrpcclt_tarnapiRtrIntfSecIpAddrGet: 0 203.0.113.0/31 2",
       "rpcclt_tarnapiRtrIntfSecIpAddrGet 1 5 203.0.113.0/31",
       {routerLog(3, "ERROR in configuring secondary IP address" + on5 + " error:-26")}},
      {"procOsapiNetlinkIPv4Add: 0\nprocOsapiNetlinkIPv4Add: 0\nprocOsapiNetlinkIPv4Add: 1 22",
       "procOsapiNetlinkIPv4Add rt1:2 203.0.113.0 255.255.255.254 203.0.113.1",
       {routerLog(3, "Failed to set the secondary IP address (cb007100), mask (fffffffe) and broadcast address "
                     "(cb007101)" +
                         on5 + invalid)}},
  };
  for (const auto &row : CASES) {
    startAgain();
    scripted::script(row.script);
    scripted::script(SETTINGS);
    scripted::observe([](const std::string &line) {
      EXPECT_TRUE(!line.starts_with("log") || apiSemaphoreFree()) << line; // given back before it is logged
    });
    EXPECT_EQ(enable(), 1) << row.script;
    EXPECT_EQ(scripted::takeCalls(), POPULATE + upTo(CONFIGURE, row.last) + row.logs) << row.script;
    EXPECT_TRUE(apiSemaphoreFree()) << row.script;
  }
}

TEST_F(RouterEnableTest, PopulationAndMembershipMayFail) {
  mirelDebugFlags = 1;
  scripted::script(SETTINGS);
  scripted::script("rpcclt_tarnapiRtrIntfNameGet: -26");
  EXPECT_THAT(
      printed([] { EXPECT_EQ(enable(), 0); }),
      testing::HasSubstr("]:mirelRtrEnableHandler: Failed to populate interface params from Tarn for intIfNum - "
                         "5\n"));
  EXPECT_EQ(scripted::takeCalls(), Lines{POPULATE[0]} + CONFIGURE);

  // The device is in the group now, which the kernel does not let it join twice.
  mirelDebugFlags = 0;
  scripted::script(SETTINGS);
  EXPECT_EQ(enable(), 0);
  const Lines logs = {routerLog(3, "Attempt to join multicast group 224.0.0.2 failed (Address already in use) on "
                                   "interface 5 (rt1)."),
                      routerLog(3, "Failed to add multicast group membership on the interface 5.")};
  EXPECT_EQ(scripted::takeCalls(), POPULATE + CONFIGURE_LINK + MEMBERSHIP + logs + CONFIGURE_REST);
}

TEST_F(RouterEnableTest, DefaultVrfIsOnlyPopulated) {
  mirelVrfId = 0;
  EXPECT_EQ(enable(), 0);
  EXPECT_THAT(scripted::takeCalls(),
              ElementsAre("rpcclt_tarnapiRtrIntfNameGet 5 [60]", "rpcclt_tarnapiRtrIntfIpStackIfNameGet 5 [60]",
                          "rpcclt_tarnapiRtrIntfIpStackIfIndexGet 5"));
  EXPECT_EQ(table[5].ipstkIfIndex, 41u);
  EXPECT_EQ(enable(0), 0); // number 0 has no entry
  EXPECT_THAT(scripted::takeCalls(), IsEmpty());
}

TEST_F(RouterEnableTest, MasksAndBroadcasts) {
  const struct {
    uint32_t length;
    const char *mask;
    const char *primary;
    const char *secondary;
  } CASES[] = {
      {0, "255.255.255.255", "10.1.1.2", "10.1.1.2"},       {1, "128.0.0.0", "127.255.255.255", "127.255.255.255"},
      {8, "255.0.0.0", "10.255.255.255", "10.255.255.255"}, {24, "255.255.255.0", "10.1.1.255", "10.1.1.255"},
      {30, "255.255.255.252", "10.1.1.3", "10.1.1.3"},      {31, "255.255.255.254", "255.255.255.255", "10.1.1.3"},
      {32, "255.255.255.255", "10.1.1.2", "10.1.1.2"},
  };
  for (const auto &row : CASES) {
    startAgain();
    const std::string prefix = "0 10.1.1.2/" + std::to_string(row.length);
    scripted::script("rpcclt_tarnapiRtrIntfIpAddrGet: " + prefix + "\nrpcclt_tarnapiRtrIntfSecIpAddrGet: " + prefix +
                     " 31");
    EXPECT_EQ(enable(), 0);
    Lines calls = scripted::takeCalls();
    std::erase_if(calls, [](const std::string &line) { return !line.starts_with("procOsapiNetlinkIPv4Add"); });
    const std::string mask = std::string(" 10.1.1.2 ") + row.mask + " ";
    EXPECT_THAT(calls, ElementsAre("procOsapiNetlinkIPv4Add rt1" + mask + row.primary,
                                   "procOsapiNetlinkIPv4Add rt1:31" + mask + row.secondary))
        << row.length;
  }
}

TEST_F(RouterEnableTest, LabelsAreCut) {
  scripted::script("rpcclt_tarnapiRtrIntfIpStackStkNameGet= 0 rt0123456789.12\n"
                   "rpcclt_tarnapiRtrIntfSecIpAddrGet: 0 10.1.1.2/24 7\n"
                   "rpcclt_tarnapiRtrIntfSecIpAddrGet: 0 10.1.1.3/24 23");
  EXPECT_EQ(enable(), 0);
  const Lines calls = scripted::takeCalls();
  EXPECT_THAT(calls, Contains(StartsWith("procOsapiNetlinkIPv4Add rt0123456789.12: 10.1.1.2 ")));
  EXPECT_THAT(calls, Contains(StartsWith("procOsapiNetlinkIPv4Add rt0123456789.12: 10.1.1.3 ")));
}

TEST_F(RouterEnableTest, InterfaceEnableFetchesItsRoutes) {
  const std::string fetch = "rpcclt_tarnapiIntfBestRoutesNextGet 7 5 50 [89200]";
  const struct {
    uint32_t vrfId;
    const char *script;
    int result;
    Lines calls;
  } CASES[] = {
      {3, "", 0, {TYPE_GET, NAME_GET, fetch}},
      {0, "", 0, {TYPE_GET, "rpcclt_tarnapiRtrIntfIpStackStkNameGet 0 5 [17]", fetch}},
      {3, "rpcclt_tarnapiIntfBestRoutesNextGet: -26", 0, {TYPE_GET, NAME_GET, fetch}},
      {3,
       "rpcclt_tarnapiRtrIntfIpStackStkNameGet: -29",
       1,
       {TYPE_GET, NAME_GET, routerLog(3, "Failed to get the stack interface name of the interface 5.")}},
  };
  for (const auto &row : CASES) {
    startAgain();
    mirelVrfId = row.vrfId;
    scripted::script(row.script);
    const RppiEventMsg msg = routerEvent(TARNR_RTR_INTF_ENABLE);
    EXPECT_EQ(mirelRtrIntfEnableHandler(&msg), row.result) << row.script;
    EXPECT_EQ(scripted::takeCalls(), row.calls) << row.script;
  }
}

class RouterDisableTest : public RouterTest {
protected:
  ~RouterDisableTest() override { queueTake(); }

  static int disable() {
    const RppiEventMsg msg = routerEvent(TARNR_RTR_INTF_DISABLE);
    return mirelRtrDisableHandler(&msg);
  }

  // The interfaces queued, which leaves the queue empty.
  static std::vector<uint32_t> queueTake() {
    std::vector<uint32_t> numbers;
    while (IntfBestRouteCursor *cursor = dequeueMirel(&intfBestRouteQueue)) {
      numbers.push_back(cursor->intIfNum);
      delete cursor;
    }
    return numbers;
  }
};

TEST_F(RouterDisableTest, StepsAndFailures) {
  const std::string DOWN = "osapiIfFlagChange rt1 1 0";
  const std::string STRIP = "osapiIfAddrDel rt1";
  const Lines name = {TYPE_GET, NAME_GET};
  const Lines leave = name + MEMBERSHIP;
  const Lines notLeft = {routerLog(6, "Attempt to drop multicast group 224.0.0.2 failed with error Cannot assign "
                                      "requested address on interface 5 (rt1)."),
                         routerLog(6, "Failed to drop multicast group membership on the interface 5.")};
  const std::string invalid = " on the interface 5. error:22 (Invalid argument)";
  const struct {
    const char *what;
    uint32_t vrfId;
    bool joined;
    const char *script;
    int result;
    Lines calls;
    std::vector<uint32_t> queued; // of 5 and 7
  } CASES[] = {
      {"all of it", 3, true, "", 0, leave + Lines{DOWN, STRIP}, {7}},
      {"not in the group", 3, false, "", 0, leave + notLeft + Lines{DOWN, STRIP}, {7}},
      {"stays up",
       3,
       true,
       "osapiIfFlagChange: 1 22",
       1,
       leave + Lines{DOWN, routerLog(3, "Failed to reset the IFF_UP flag" + invalid)},
       {5, 7}},
      {"keeps its address",
       3,
       true,
       "osapiIfAddrDel: 1 22",
       1,
       leave + Lines{DOWN, STRIP, routerLog(3, "Failed to delete the IP address" + invalid)},
       {5, 7}},
      {"no device",
       3,
       false,
       "rpcclt_tarnapiRtrIntfIpStackStkNameGet: -29",
       1,
       name + Lines{routerLog(3, "Failed to get the stack interface name of the interface 5.")},
       {5, 7}},
      {"default VRF", 0, false, "", 0, {}, {5, 7}},
  };
  mirelMcastGroupMembershipSet(5, 1); // from here on there is a socket
  for (const auto &row : CASES) {
    startAgain();
    if (row.joined) {
      ASSERT_EQ(mirelMcastGroupMembershipSet(5, 1), 0);
    }
    mirelVrfId = row.vrfId;
    table[5].intIfNum = 5;
    table[5].ipstkIfIndex = 12;
    enqueueMirel(&intfBestRouteQueue, new IntfBestRouteCursor{.intIfNum = 5, .prefix = 0, .prefixLen = 0});
    enqueueMirel(&intfBestRouteQueue, new IntfBestRouteCursor{.intIfNum = 7, .prefix = 0, .prefixLen = 0});
    scripted::takeCalls();
    scripted::script(row.script);
    EXPECT_EQ(disable(), row.result) << row.what;
    EXPECT_EQ(scripted::takeCalls(), row.calls) << row.what;
    EXPECT_EQ(queueTake(), row.queued) << row.what;
    EXPECT_EQ(table[5].intIfNum + table[5].ipstkIfIndex, 0u) << row.what;
    if (row.vrfId != 0) {
      EXPECT_NO_THROW(shell("! ip maddr show dev rt1 | grep -qw 224.0.0.2")) << row.what;
    }
  }
}

TEST_F(RouterDisableTest, EntryIsClearedBeforeTheDeviceIsTouched) {
  table[5].intIfNum = 5;
  scripted::observe([this](const std::string &line) { EXPECT_EQ(table[5].intIfNum, 0u) << line; });
  EXPECT_EQ(disable(), 0);
}

TEST_F(RouterDisableTest, EnabledAgainItStartsClean) {
  const RppiEventMsg pending = routerEvent(TARNR_RTR_INTF_ENABLE_PENDING);
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(mirelRtrEnableHandler(&pending), 0);
    EXPECT_EQ(disable(), 0);
    EXPECT_THAT(scripted::takeCalls(), Not(Contains(StartsWith("log"))));
  }
}

class RouterReplayTest : public RouterTest {};

TEST_F(RouterReplayTest, WalkOfTheInterfaces) {
  const struct {
    std::vector<std::string> answers;
    Lines asked; // the numbers that the walk goes on from
    Lines enabled;
    Lines repeated; // logged
  } CASES[] = {
      {{}, {"0"}, {}, {}},
      {{"0 5", "0 9", "0 1033"}, {"0", "5", "9", "1033"}, {"5", "9", "1033"}, {}},
      {{"0 5", "-29", "0 9"}, {"0", "5"}, {"5"}, {}},
      {{"0 5", "0 3"}, {"0", "5", "3"}, {"5", "3"}, {}},
      {{"0 5", "0 7", "0 7"}, {"0", "5", "7"}, {"5", "7"}, {"7"}},
      {{"0 5", "0 9", "0 7", "0 9", "0 7"}, {"0", "5", "9", "7", "9"}, {"5", "9", "7", "9"}, {"7"}},
      {{"0 0"}, {"0"}, {}, {"0"}},
  };
  for (const auto &row : CASES) {
    startAgain();
    for (const std::string &answer : row.answers) {
      scripted::script("rpcclt_tarnapiRtrIntfNextGetVrf: " + answer);
    }
    scripted::script("rpcclt_tarnapiRtrIntfIpAddrGet: -26"); // the first fails, the walk goes on
    mirelPopulateRoutingInterfaceTable();
    Lines asked;
    Lines enabled;
    Lines repeated;
    const std::string end = routerLog(3, "The walk of the interfaces ends because the switch repeats interface ");
    const std::string next = "rpcclt_tarnapiRtrIntfNextGetVrf 3 ";
    const std::string mac = "rpcclt_tarnapiRtrIntfL3MacAddressGet ";
    for (const std::string &line : scripted::calls()) {
      EXPECT_FALSE(line.starts_with("rpcclt_tarnapiRouterEventAcknowledge")) << line;
      if (line.starts_with(next)) {
        asked.push_back(line.substr(next.size()));
      } else if (line.starts_with(mac)) {
        enabled.push_back(line.substr(mac.size(), line.rfind(' ') - mac.size()));
      } else if (line.starts_with(end)) {
        repeated.push_back(line.substr(end.size()));
      }
    }
    EXPECT_EQ(asked, row.asked) << testing::PrintToString(row.answers);
    EXPECT_EQ(enabled, row.enabled) << testing::PrintToString(row.answers);
    EXPECT_EQ(repeated, row.repeated) << testing::PrintToString(row.answers);
    if (!row.enabled.empty()) {
      EXPECT_THAT(
          scripted::calls(),
          Contains(routerLog(3, "Failed to trigger INTERFACE IPv4 ENABLE PENDING router event for the interface 5")));
    }
  }
  EXPECT_EQ(statsHandle.eventCount[TARNR_RTR_INTF_ENABLE_PENDING], 0u);
  EXPECT_EQ(statsHandle.intfEventCount[5].enablePending, 0u);
}

TEST_F(RouterReplayTest, NameIsReadForTheTraceAlone) {
  mirelDebugFlags = 1;
  scripted::script("rpcclt_tarnapiRtrIntfNextGetVrf: 0 31\nrpcclt_tarnapiRtrIntfNextGetVrf: 0 32\n"
                   "rpcclt_tarnapiRtrIntfNameGet: 0 1/0/31\nrpcclt_tarnapiRtrIntfNameGet: 0 1/0/31\n"
                   "rpcclt_tarnapiRtrIntfNameGet: 0 1/0/32\nrpcclt_tarnapiRtrIntfNameGet: -29");
  const std::string prefix = "[blue (VRF 3)]:mirelPopulateRoutingInterfaceTable: ";
  const std::string triggered = prefix + "Successfully triggered INTERFACE IPv4 ENABLE PENDING router event\n";
  const std::string traces = printed([] { mirelPopulateRoutingInterfaceTable(); });
  EXPECT_THAT(traces, testing::HasSubstr(triggered + prefix + "Pulled interface 1/0/31 with interface number 1f\n"));
  EXPECT_THAT(traces, testing::EndsWith(triggered + prefix + "Pulled interface  with interface number 20\n"));
  EXPECT_THAT(scripted::takeCalls(), Contains(routerLog(3, "Failed to get name for interface 32. Error -29")));
}

} // namespace
