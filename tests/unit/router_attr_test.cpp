// Changes of single attributes: what each handler asks the switch, writes into the kernel, logs and returns.

#include "router_test.h"

#include <algorithm>

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

const std::string NO_NAME = routerLog(3, "Failed to get the stack interface name of the interface 5.");
const Lines NAME = {TYPE_GET, NAME_GET};

RppiEventMsg addressChange(uint32_t operation, uint32_t mask = 0xFFFFFF00) {
  RppiEventMsg msg = routerEvent(TARNR_RTR_INTF_ADDR_CHANGE);
  msg.addrOp = operation;
  msg.ipAddr = ipv4(10, 1, 1, 2);
  msg.ipMask = mask;
  msg.addrLabelNum = 3;
  return msg;
}

RppiEventMsg vrrp(uint32_t operation, std::initializer_list<std::pair<uint32_t, uint32_t>> addresses) {
  RppiEventMsg msg = routerEvent(TARNR_RTR_INTF_CFG_CHANGE);
  msg.cfgEvent = 6;
  msg.vrrpOp = operation;
  msg.vrrpLabelNum = 3;
  for (const auto &[position, address] : addresses) {
    msg.vrrpAddr[position] = address;
  }
  return msg;
}

class RouterAttrTest : public RouterTest {};

TEST_F(RouterAttrTest, CallsAndFailures) {
  const std::string invalid = " error:22 (Invalid argument)";
  const RppiEventMsg any = routerEvent(TARNR_RTR_INTF_MTU);
  const RppiEventMsg add = addressChange(1);
  const RppiEventMsg remove = addressChange(2);
  const std::string ADD = "procOsapiNetlinkIPv4Add rt1:3 10.1.1.2 255.255.255.0 10.1.1.255";
  const std::string REMOVE = "procOsapiNetlinkIPv4Del rt1:3 10.1.1.2 255.255.255.0";
  const std::string MTU_GET = "rpcclt_tarnapiIntfIpMtuGet 1 5";
  const std::string BW_GET = "rpcclt_tarnapiIntfBandwidthGet 1 5";
  const std::string UNREACH_GET = "rpcclt_tarnapiRtrICMPUnreachablesModeGet 5";
  const std::string UNREACH_SET = "osapiIfIpv4IcmpSendDestinationUnreachableSet rt1 1";
  const std::string REDIRECT_GET = "rpcclt_tarnapiRtrICMPRedirectsModeGet 5";
  const std::string REDIRECT_SET = "osapiIfIpv4IcmpRedirectSendSet rt1 1";
  const struct {
    int (*handler)(const RppiEventMsg *msg);
    const RppiEventMsg &msg;
    const char *script;
    int result;
    Lines calls; // after the name has been asked for
  } CASES[] = {
      {mirelRtrMtuHandler, any, "rpcclt_tarnapiIntfIpMtuGet: 0 9000", 0, {MTU_GET, "osapiIfIpv4MtuSet rt1 9000"}},
      {mirelRtrMtuHandler,
       any,
       "rpcclt_tarnapiIntfIpMtuGet: -26",
       1,
       {MTU_GET, routerLog(3, "Failed to get the MTU of the interface 5.")}},
      {mirelRtrMtuHandler,
       any,
       "osapiIfIpv4MtuSet: 1 22",
       1,
       {MTU_GET, "osapiIfIpv4MtuSet rt1 1500",
        routerLog(3, "Failed to set the MTU (5dc) on the interface 5." + invalid)}},
      {mirelRtrBwHandler, any, "", 0, {BW_GET}},
      {mirelRtrBwHandler,
       any,
       "rpcclt_tarnapiIntfBandwidthGet: -26",
       1,
       {BW_GET, routerLog(3, "Failed to get the BW of the interface 5.")}},
      {mirelRtrUnreachHandler, any, "", 0, {UNREACH_GET, UNREACH_SET}},
      {mirelRtrUnreachHandler,
       any,
       "rpcclt_tarnapiRtrICMPUnreachablesModeGet: -26",
       1,
       {UNREACH_GET, routerLog(3, "Failed to get the ICMP unreachables mode of the interface 5.")}},
      {mirelRtrUnreachHandler,
       any,
       "osapiIfIpv4IcmpSendDestinationUnreachableSet: 1 22",
       1,
       {UNREACH_GET, UNREACH_SET,
        routerLog(3, "Failed to set the ICMP unreachables mode (1) on the interface 5 (rt1)." + invalid)}},
      {mirelRtrRedirectHandler, any, "", 0, {REDIRECT_GET, REDIRECT_SET}},
      {mirelRtrRedirectHandler,
       any,
       "rpcclt_tarnapiRtrICMPRedirectsModeGet: -26",
       1,
       {REDIRECT_GET, routerLog(3, "Failed to get the ICMP redirects mode of the interface 5.")}},
      {mirelRtrRedirectHandler,
       any,
       "osapiIfIpv4IcmpRedirectSendSet: 1 22",
       1,
       {REDIRECT_GET, REDIRECT_SET,
        routerLog(3, "Failed to set the ICMP redirects mode (1) on the interface 5 (rt1)." + invalid)}},
      {mirelRtrAddrHandler, add, "", 0, {ADD}},
      {mirelRtrAddrHandler,
       add,
       "procOsapiNetlinkIPv4Add: 1 22",
       1,
       {ADD, routerLog(3, "Failed to set the secondary IP address (a010102), mask (ffffff00) and broadcast address "
                          "(a0101ff) on the interface 5." +
                              invalid)}},
      {mirelRtrAddrHandler, remove, "", 0, {REMOVE}},
      {mirelRtrAddrHandler,
       remove,
       "procOsapiNetlinkIPv4Del: 1 22",
       1,
       {REMOVE, routerLog(3, "Failed to delete the secondary IP address (a010102) and mask (ffffff00) on the interface "
                             "5." +
                                 invalid)}},
  };
  for (const auto &row : CASES) {
    startAgain();
    scripted::script(row.script);
    EXPECT_EQ(row.handler(&row.msg), row.result) << row.script;
    EXPECT_EQ(scripted::takeCalls(), NAME + row.calls) << row.script;
    EXPECT_TRUE(apiSemaphoreFree()) << row.script;

    // A tunnel has no device.
    scripted::script("rpcclt_tarnapiRtrIntfTypeGet: 0 5");
    EXPECT_EQ(row.handler(&row.msg), 1) << row.script;
    EXPECT_THAT(scripted::takeCalls(),
                ElementsAre(TYPE_GET,
                            routerLog(3, "Failed to get the stack interface name for the tunnel interface 5."),
                            NO_NAME));
  }
}

TEST_F(RouterAttrTest, BroadcastOfAnAddressChange) {
  const struct {
    uint32_t mask;
    const char *expected;
  } CASES[] = {
      {0, "0.0.0.0 255.255.255.255"},
      {0x80000000, "128.0.0.0 127.255.255.255"},
      {0xFFFFFFFE, "255.255.255.254 10.1.1.3"},
      {0xFFFFFFFF, "255.255.255.255 10.1.1.2"},
  };
  for (const auto &row : CASES) {
    const RppiEventMsg msg = addressChange(1, row.mask);
    EXPECT_EQ(mirelRtrAddrHandler(&msg), 0);
    EXPECT_THAT(kernelCalls(), ElementsAre(std::string("procOsapiNetlinkIPv4Add rt1:3 10.1.1.2 ") + row.expected));
  }
}

// Any operation but 1 removes.
TEST_F(RouterAttrTest, Vrrp) {
  const uint32_t first = ipv4(10, 1, 1, 254);
  const uint32_t second = ipv4(10, 1, 2, 254);
  const std::string added = "procOsapiNetlinkIPv4Add rt1:3_";
  const std::string removed = "procOsapiNetlinkIPv4Del rt1:3_";
  const std::string firstOf = "0 10.1.1.254 255.255.255.255";
  const std::string secondOf = " 10.1.2.254 255.255.255.255";
  const struct {
    RppiEventMsg msg;
    const char *script;
    Lines calls;
  } CASES[] = {
      {vrrp(1, {{0, first}, {5, second}}), "", {added + firstOf + " 0.0.0.0", added + "5" + secondOf + " 0.0.0.0"}},
      {vrrp(1, {{31, second}}), "", {added + "31" + secondOf + " 0.0.0.0"}},
      {vrrp(1, {}), "", {}},
      {vrrp(1, {{0, first}, {5, second}}),
       "procOsapiNetlinkIPv4Add: 1",
       {added + firstOf + " 0.0.0.0",
        routerLog(5, "Failed to set VRRP IP address (a0101fe) and mask (ffffffff) on interface 5 in the linux stack"),
        added + "5" + secondOf + " 0.0.0.0"}},
      {vrrp(2, {{0, first}, {31, second}}),
       "procOsapiNetlinkIPv4Del: 1",
       {removed + firstOf,
        routerLog(5, "Failed to delete the VRRP IP address (a0101fe) on interface 5 in the linux stack"),
        removed + "31" + secondOf}},
      {vrrp(0, {{0, first}}), "", {removed + firstOf}},
  };
  for (const auto &row : CASES) {
    startAgain();
    scripted::script(row.script);
    EXPECT_EQ(mirelRtrVrrpIpHandler(&row.msg), 0);
    EXPECT_EQ(scripted::takeCalls(), Lines{TYPE_GET} + NAME + row.calls);
  }
}

TEST_F(RouterAttrTest, VrrpWithoutADevice) {
  const struct {
    const char *script;
    int result;
    Lines calls;
  } CASES[] = {
      {"rpcclt_tarnapiRtrIntfTypeGet: 0 4", 0, {TYPE_GET, routerLog(3, "VRRP on loopback/tunnel interface 5.")}},
      {"rpcclt_tarnapiRtrIntfTypeGet: 0 5", 0, {TYPE_GET, routerLog(3, "VRRP on loopback/tunnel interface 5.")}},
      {"rpcclt_tarnapiRtrIntfTypeGet: -26",
       1,
       {TYPE_GET, routerLog(3, "Failed to get the interface type of the interface 5.")}},
      {"rpcclt_tarnapiRtrIntfIpStackStkNameGet: -29", 1,
       Lines{TYPE_GET} + NAME + Lines{routerLog(3, "Failed to get the USP info of the interface 5.")}},
  };
  const RppiEventMsg msg = vrrp(1, {{0, 1}});
  for (const auto &row : CASES) {
    startAgain();
    scripted::script(row.script);
    EXPECT_EQ(mirelRtrVrrpIpHandler(&msg), row.result) << row.script;
    EXPECT_EQ(scripted::takeCalls(), row.calls) << row.script;
  }
}

// The result is that of leaving the group, whatever becomes of the flap.
TEST_F(RouterAttrTest, HostMode) {
  const std::string DOWN = "osapiIfFlagChange rt1 1 0";
  const std::string UP = "osapiIfFlagChange rt1 1 1";
  const Lines questions = NAME + NAME + NAME;
  const Lines notLeft = {routerLog(6, "Attempt to drop multicast group 224.0.0.2 failed with error Cannot assign "
                                      "requested address on interface 5 (rt1)."),
                         routerLog(6, "Failed to drop multicast group membership on the interface 5.")};
  const Lines notFlapped = {
      routerLog(3, "Failed to reset the IFF_UP flag on the interface rt1. error:22 (Invalid argument)"),
      routerLog(3, "Failed to flap the interface rt1.")};
  const struct {
    bool joined;
    const char *script;
    int result;
    Lines calls;
  } CASES[] = {
      {true, "", 0, questions + Lines{DOWN, UP}},
      {false, "", 1, questions + notLeft + Lines{DOWN, UP}},
      {true, "osapiIfFlagChange: 1 22", 0, questions + Lines{DOWN} + notFlapped},
  };
  mirelMcastGroupMembershipSet(5, 1); // from here on there is a socket
  const RppiEventMsg msg = routerEvent(TARNR_RTR_INTF_HOST_MODE);
  for (const auto &row : CASES) {
    startAgain();
    if (row.joined) {
      ASSERT_EQ(mirelMcastGroupMembershipSet(5, 1), 0);
    }
    scripted::takeCalls();
    scripted::script(row.script);
    EXPECT_EQ(mirelRtrHostModeHandler(&msg), row.result);
    EXPECT_EQ(scripted::takeCalls(), row.calls);
  }
}

TEST_F(RouterAttrTest, DefaultVrf) {
  const RppiEventMsg any = routerEvent(TARNR_RTR_INTF_MTU);
  const RppiEventMsg address = addressChange(1);
  const RppiEventMsg virtualAddress = vrrp(1, {{0, ipv4(10, 1, 1, 254)}});
  const struct {
    int (*handler)(const RppiEventMsg *msg);
    const RppiEventMsg &msg;
    Lines kernel;
  } CASES[] = {
      {mirelRtrMtuHandler, any, {"osapiIfIpv4MtuSet rt1 1500"}},
      {mirelRtrUnreachHandler, any, {"osapiIfIpv4IcmpSendDestinationUnreachableSet rt1 1"}},
      {mirelRtrRedirectHandler, any, {"osapiIfIpv4IcmpRedirectSendSet rt1 1"}},
      {mirelRtrVrrpIpHandler, virtualAddress, {"procOsapiNetlinkIPv4Add rt1:3_0 10.1.1.254 255.255.255.255 0.0.0.0"}},
      {mirelRtrBwHandler, any, {}},
  };
  mirelVrfId = 0;
  for (const auto &row : CASES) {
    EXPECT_EQ(row.handler(&row.msg), 0);
    EXPECT_THAT(scripted::calls(), Contains("rpcclt_tarnapiRtrIntfIpStackStkNameGet 0 5 [17]"));
    EXPECT_EQ(kernelCalls(), row.kernel);
  }
  for (const auto skips : {mirelRtrAddrHandler, mirelRtrHostModeHandler}) {
    EXPECT_EQ(skips(&address), 0);
    EXPECT_THAT(scripted::takeCalls(), IsEmpty());
  }
}

class RouterCfgTest : public RouterTest {};

// Whatever the handler of the sub-event returns, the event is handled; only a change that was made is traced.
TEST_F(RouterCfgTest, SubEvents) {
  const struct {
    uint32_t cfgEvent;
    std::string call; // one that no other sub-event makes
    const char *trace;
    const char *failure;
  } CASES[] = {
      {1, "osapiIfAddrDel rt1", "Successfully triggered Disable", "osapiIfAddrDel: 1"},
      {2, "osapiIfIpv4IcmpSendDestinationUnreachableSet rt1 1", "Successfully triggered ICMP Unreachables mode change",
       "osapiIfIpv4IcmpSendDestinationUnreachableSet: 1"},
      {3, "osapiIfIpv4IcmpRedirectSendSet rt1 1", "Successfully triggered ICMP Redirects mode change",
       "osapiIfIpv4IcmpRedirectSendSet: 1"},
      {4, "osapiIpv4IcmpRatelimitSet 100 1000", "Successfully triggered ICMP Ratelimit change", nullptr},
      {5, "osapiIpv4IcmpIgnoreEchoRequestSet 0", "Successfully triggered ICMP ignore echo-req mode change", nullptr},
      {6, "procOsapiNetlinkIPv4Add rt1:3_0 10.1.1.254 255.255.255.255 0.0.0.0",
       "Successfully triggered VRRP IP address add/delete", "rpcclt_tarnapiRtrIntfTypeGet: -26"},
  };
  const std::string prefix = "[blue (VRF 3)]:mirelRtrCfgHandler: ";
  const std::string entering = prefix + "Entering... for interface 5\n";
  for (const auto &row : CASES) {
    startAgain();
    mirelDebugFlags = 1;
    RppiEventMsg msg = vrrp(1, {{0, ipv4(10, 1, 1, 254)}});
    msg.cfgEvent = row.cfgEvent;
    const std::string end = prefix + row.trace + " router event for the interface 5\n" + prefix +
                            "Successfully handled INTERFACE CONFIG CHANGE router event for the interface 5\n";
    const std::string traces = printed([&] { EXPECT_EQ(mirelRtrCfgHandler(&msg), 0); });
    EXPECT_THAT(traces, StartsWith(entering));
    EXPECT_THAT(traces, testing::EndsWith(end));
    EXPECT_THAT(scripted::takeCalls(), Contains(row.call));
    if (row.failure != nullptr) {
      scripted::script(row.failure);
      EXPECT_THAT(printed([&] { EXPECT_EQ(mirelRtrCfgHandler(&msg), 0); }), Not(testing::HasSubstr(row.trace)));
    }
  }
  mirelDebugFlags = 1;
  for (const uint32_t unknown : {0u, 7u, UINT32_MAX}) {
    scripted::takeCalls();
    RppiEventMsg msg = vrrp(1, {{0, 1}});
    msg.cfgEvent = unknown;
    EXPECT_EQ(printed([&] { EXPECT_EQ(mirelRtrCfgHandler(&msg), 0); }),
              entering + prefix + "Unknown event " + std::to_string(unknown) +
                  " of INTERFACE CONFIG CHANGE router event for the interface 5\n");
    EXPECT_THAT(scripted::takeCalls(), IsEmpty());
  }
}

TEST_F(RouterCfgTest, IcmpOfTheVrf) {
  const std::string RATE = "rpcclt_tarnapiRtrICMPRatelimitGet blue[65]";
  const std::string ECHO_MODE = "rpcclt_tarnapiRtrICMPEchoReplyModeGet blue[65]";
  const auto ratelimit = [] { return mirelRtrRatelimitHandler(); };
  const auto echoReply = [] { return mirelRtrEchoReplyHandler(); };
  const auto broadcast = [] { return mirelRtrEchoIgnoreBcastHandler(17); };
  const struct {
    int (*handler)();
    const char *script;
    Lines calls;
  } CASES[] = {
      {ratelimit, "rpcclt_tarnapiRtrICMPRatelimitGet: 0 10 500", {RATE, "osapiIpv4IcmpRatelimitSet 10 500"}},
      {ratelimit, "rpcclt_tarnapiRtrICMPRatelimitGet: -26", {RATE, routerLog(3, "Failed to get the ICMP rate-limit.")}},
      {ratelimit,
       "rpcclt_tarnapiRtrICMPRatelimitGet: 0 10 500\nosapiIpv4IcmpRatelimitSet: 1",
       {RATE, "osapiIpv4IcmpRatelimitSet 10 500",
        routerLog(3, "Failed to set the ICMP rate-limit (burst-size:a interval:1f4.")}},
      {echoReply, "rpcclt_tarnapiRtrICMPEchoReplyModeGet: 0 1", {ECHO_MODE, "osapiIpv4IcmpIgnoreEchoRequestSet 0"}},
      {echoReply, "rpcclt_tarnapiRtrICMPEchoReplyModeGet: 0 0", {ECHO_MODE, "osapiIpv4IcmpIgnoreEchoRequestSet 1"}},
      {echoReply, "rpcclt_tarnapiRtrICMPEchoReplyModeGet: 0 2", {ECHO_MODE, "osapiIpv4IcmpIgnoreEchoRequestSet 1"}},
      {echoReply,
       "rpcclt_tarnapiRtrICMPEchoReplyModeGet: -26",
       {ECHO_MODE, routerLog(3, "Failed to get the ICMP echo-reply mode.")}},
      {echoReply,
       "rpcclt_tarnapiRtrICMPEchoReplyModeGet: 0 2\nosapiIpv4IcmpIgnoreEchoRequestSet: 1",
       {ECHO_MODE, "osapiIpv4IcmpIgnoreEchoRequestSet 1", routerLog(3, "Failed to set the ICMP echo-reply mode (1).")}},
      {broadcast,
       "osapiIpv4IcmpEchoIgnoreBcastSet: 1",
       {"osapiIpv4IcmpEchoIgnoreBcastSet 17", routerLog(3, "Failed to set the ICMP echo ignore broadcast mode (17).")}},
  };
  for (const auto &row : CASES) {
    startAgain();
    scripted::script(row.script);
    EXPECT_EQ(row.handler(), 0) << row.script;
    EXPECT_EQ(scripted::takeCalls(), row.calls) << row.script;
    EXPECT_TRUE(apiSemaphoreFree()) << row.script;
  }
  // At start-up a failure of one does not keep the others from being set.
  scripted::script("rpcclt_tarnapiRtrICMPRatelimitGet: -26\nrpcclt_tarnapiRtrICMPEchoReplyModeGet: -26");
  EXPECT_EQ(mirelGlobalCfgInit(), 0);
  Lines calls = scripted::takeCalls();
  std::erase_if(calls, [](const std::string &line) { return line.starts_with("log"); });
  EXPECT_THAT(calls, ElementsAre(RATE, ECHO_MODE, "osapiIpv4IcmpEchoIgnoreBcastSet 0"));
}

TEST_F(RouterCfgTest, TracesOfTheVrfWideSettings) {
  mirelDebugFlags = 1;
  const auto of = [](const std::string &operation, const Lines &texts) {
    std::string all;
    for (const std::string &text : texts) {
      all += "[blue (VRF 3)]:" + operation + ": " + text + "\n";
    }
    return all;
  };
  EXPECT_EQ(printed(mirelGlobalCfgInit),
            of("mirelGlobalCfgInit", {"Entering..."}) +
                of("mirelRtrRatelimitHandler",
                   {"Entering... ",
                    "Successfully read the the ICMP rate-limit - burst-size (100) and interval (1000) for vrf-id:3",
                    "Successfully set the the ICMP rate-limit - burst-size (100) and interval (1000) for vrf-id:3.",
                    "Successfully handled ICMP rate-limit router event."}) +
                of("mirelRtrEchoReplyHandler",
                   {"Entering... ", "Successfully read the the ICMP echo-reply mode (1) for vrf-id:3",
                    "Successfully set the the ICMP echo-reply mode (0) for vrf-id:3",
                    "Successfully handled ICMP ignore echo-request router event."}) +
                of("mirelRtrEchoIgnoreBcastHandler",
                   {"Entering... ", "Successfully set the the ICMP echo ignore broadcast mode (0) for vrf-id:3"}));
}

} // namespace
