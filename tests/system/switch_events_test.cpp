// Router events: what a router client of orrin is sent, what it is asked for, and what happens with an event that was not
// acknowledged.

#include "event_socket.h"
#include "switch_fixture.h"

#include <algorithm>
#include <csignal>
#include <memory>
#include <vector>

namespace {

class SwitchEvents : public SwitchFixture {
protected:
  void SetUp() override {
    SwitchFixture::SetUp();
    attach();
  }

  void attach() {
    ASSERT_EQ(registerRouterEvent(id), TARN_OK);
    socket = std::make_unique<EventSocket>(ROUTER_EVENT_SOCKET, id);
  }

  // Reads the interfaces to the end, as an agent does that starts.
  void walk() {
    uint32_t number = 0;
    while (rpcclt_tarnapiRtrIntfNextGetVrf(client, VRF, number, &number) == TARN_OK) {
    }
  }

  // The next event; a zeroed one when none comes.
  RppiEventMsg next(int milliseconds = 2000) {
    for (;;) {
      const std::optional<RppiEventMsg> event = socket->receive(milliseconds);
      if (!event || event->msgType != TARNR_KEEPALIVE) {
        return event.value_or(RppiEventMsg{});
      }
    }
  }

  // The next event, acknowledged as the agent does when it has handled it.
  RppiEventMsg handleNext() {
    const RppiEventMsg event = next();
    EXPECT_EQ(rpcclt_tarnapiRouterEventAcknowledge(client, VRF, id, event.eventSeq), TARN_OK);
    return event;
  }

  std::vector<uint16_t> handle(size_t count) {
    std::vector<uint16_t> types;
    while (types.size() < count) {
      types.push_back(handleNext().msgType);
    }
    return types;
  }

  void nothingFollows() { EXPECT_EQ(next(100).msgType, 0); }

  uint32_t id = 0;
  std::unique_ptr<EventSocket> socket;
};

using Types = std::vector<uint16_t>;

const Types UP = {TARNR_RTR_INTF_ENABLE_PENDING, TARNR_RTR_INTF_ENABLE};
const Types DOWN = {TARNR_RTR_INTF_DISABLE_PENDING, TARNR_RTR_INTF_DISABLE};

TEST_F(SwitchEvents, UpAndDownWaitForTheAcknowledgement) {
  orrin.run("interface enable 11");
  const RppiEventMsg pending = next();
  EXPECT_EQ(pending.msgType, TARNR_RTR_INTF_ENABLE_PENDING);
  EXPECT_EQ(pending.intIfNum, 11u);
  nothingFollows();
  EXPECT_NE(orrin.run("show interfaces").find("up-pending"), std::string::npos);
  EXPECT_EQ(rpcclt_tarnapiRouterEventAcknowledge(client, VRF, id, pending.eventSeq + 7), TARN_NOT_FOUND);
  nothingFollows();
  EXPECT_EQ(rpcclt_tarnapiRouterEventAcknowledge(client, VRF, id, pending.eventSeq), TARN_OK);
  EXPECT_EQ(handle(1), Types{TARNR_RTR_INTF_ENABLE});
  orrin.run("interface disable 11");
  EXPECT_EQ(handle(2), DOWN);
  nothingFollows();
  EXPECT_EQ(orrin.run("show events json"), "[]\n");
}

TEST_F(SwitchEvents, ASilentClientHoldsUpNobodyForEver) {
  orrin.run("event timeout 1");
  orrin.run("interface enable 11");
  EXPECT_EQ(next().msgType, TARNR_RTR_INTF_ENABLE_PENDING);
  EXPECT_EQ(next(3000).msgType, TARNR_RTR_INTF_ENABLE);
  EXPECT_NE(orrin.run("show interfaces json").find("\"ack-timeouts\":1"), std::string::npos);
  EXPECT_NE(orrin.run("show events").find("enable-pending"), std::string::npos);
}

TEST_F(SwitchEvents, AShorterTimeoutDoesNotWaitForALongerOne) {
  orrin.run("interface add 12 vrf 3 name 0/12 device rt2");
  orrin.run("interface enable 11");
  orrin.run("event timeout 1");
  orrin.run("interface enable 12");
  EXPECT_TRUE(within(3000, [&] {
    const RppiEventMsg event = next();
    return event.msgType == TARNR_RTR_INTF_ENABLE && event.intIfNum == 12;
  }));
}

TEST_F(SwitchEvents, SettingsOfAnInterfaceThatIsUpMakeEvents) {
  orrin.run("interface set 11 mtu 1400 redirects 0"); // of one that is down: nobody is told
  orrin.run("interface enable 11");
  EXPECT_EQ(handle(2), UP);
  const struct {
    const char *command;
    uint16_t type;
    uint32_t cfgEvent;
  } cases[] = {
      {"interface set 11 mtu 9000", TARNR_RTR_INTF_MTU, 0},
      {"interface set 11 bandwidth 5", TARNR_RTR_INTF_BW_CHANGE, 0},
      {"interface set 11 unreachables 0", TARNR_RTR_INTF_CFG_CHANGE, 2},
      {"interface set 11 redirects 1", TARNR_RTR_INTF_CFG_CHANGE, 3},
      {"vrf set 3 icmp-ratelimit 7 2000", TARNR_RTR_INTF_CFG_CHANGE, 4},
      {"vrf set 3 icmp-echo-reply 0", TARNR_RTR_INTF_CFG_CHANGE, 5},
      {"interface host-mode 11", TARNR_RTR_INTF_HOST_MODE, 0},
      {"interface add 12 vrf 3 name 0/12 device rt2", TARNR_RTR_INTF_CREATE, 0},
      {"interface del 12", TARNR_RTR_INTF_DELETE, 0},
      {"event send vrf 3 type 204 interface 11", TARNR_RTR6_INTF_CREATE, 0},
  };
  for (const auto &each : cases) {
    orrin.run(each.command);
    const RppiEventMsg event = handleNext();
    EXPECT_EQ(event.msgType, each.type) << each.command;
    EXPECT_EQ(event.cfgEvent, each.cfgEvent) << each.command;
  }
  orrin.run("interface set 11 mtu 9000"); // as it is
  orrin.run("event send vrf 3 type 300");
  EXPECT_EQ(next().msgType, TARNR_POLICY_CHANGE);
  EXPECT_EQ(orrin.run("show events json"), "[]\n") << "nobody acknowledges that one";
}

TEST_F(SwitchEvents, ANewPrimaryAddressIsADisableAndAnEnable) {
  orrin.run("interface set 11 address 10.1.1.1/24");
  orrin.run("interface enable 11");
  EXPECT_EQ(next().msgType, TARNR_RTR_INTF_ENABLE_PENDING);
  orrin.run("interface set 11 address 10.1.2.1/24"); // the client may have read the old one
  EXPECT_NE(orrin.run("show events").find("enable-pending"), std::string::npos);
  const std::string row = orrin.run("show events json");
  const uint32_t sequence = static_cast<uint32_t>(std::stoul(row.substr(row.find("\"sequence\":") + 11)));
  EXPECT_EQ(rpcclt_tarnapiRouterEventAcknowledge(client, VRF, id, sequence), TARN_OK);
  EXPECT_EQ(handle(5), (Types{TARNR_RTR_INTF_ENABLE, DOWN[0], DOWN[1], UP[0], UP[1]}));
  orrin.run("interface set 11 address 10.1.3.1/24");
  EXPECT_EQ(handle(4), (Types{DOWN[0], DOWN[1], UP[0], UP[1]}));
  orrin.run("interface set 11 address 10.1.3.1/24"); // as it is
  nothingFollows();
  InetPrefix prefix{};
  EXPECT_EQ(rpcclt_tarnapiRtrIntfIpAddrGet(client, 1, 11, &prefix), TARN_OK);
  EXPECT_EQ(prefix.addr.ipv4, 0x0A010301u);
  EXPECT_EQ(prefix.prefixLen, 24u);
}

TEST_F(SwitchEvents, SecondaryAddressesAreWalkedAndTold) {
  orrin.run("interface enable 11");
  EXPECT_EQ(handle(2), UP);
  orrin.run("interface secondary 11 add 10.1.3.1/24");
  orrin.run("interface secondary 11 add 10.1.2.1/25 index 7");
  EXPECT_EQ(handleNext().addrLabelNum, 1u);
  const RppiEventMsg second = handleNext();
  EXPECT_EQ(second.addrOp, 1u);
  EXPECT_EQ(second.ipAddr, 0x0A010201u);
  EXPECT_EQ(second.ipMask, 0xFFFFFF80u);
  EXPECT_EQ(second.addrLabelNum, 7u);
  EXPECT_NE(orrin.refusal("interface secondary 11 add 10.1.4.1/24 index 7").find("already"), std::string::npos);
  InetPrefix prefix{};
  uint32_t index = 0;
  EXPECT_EQ(rpcclt_tarnapiRtrIntfSecIpAddrGet(client, 1, 11, &prefix, &index), TARN_OK);
  EXPECT_EQ(prefix.addr.ipv4, 0x0A010201u);
  EXPECT_EQ(index, 7u);
  orrin.run("interface secondary 11 del 10.1.2.1/25"); // and the walk goes on behind it
  EXPECT_EQ(handleNext().addrOp, 2u);
  EXPECT_EQ(rpcclt_tarnapiRtrIntfSecIpAddrGet(client, 1, 11, &prefix, &index), TARN_OK);
  EXPECT_EQ(prefix.addr.ipv4, 0x0A010301u);
  EXPECT_EQ(rpcclt_tarnapiRtrIntfSecIpAddrGet(client, 1, 11, &prefix, &index), TARN_NO_MORE);
  EXPECT_EQ(prefix.addr.ipv4, 0x0A010301u);
}

TEST_F(SwitchEvents, VrrpAddressesKeepTheirSlotsAndComeAgainAfterEnable) {
  orrin.run("interface vrrp 11 label 3 add 10.1.1.254 10.1.1.253 slot 5");
  orrin.run("interface enable 11");
  EXPECT_EQ(handle(2), UP);
  RppiEventMsg vrrp = handleNext();
  EXPECT_EQ(vrrp.cfgEvent, 6u);
  EXPECT_EQ(vrrp.vrrpLabelNum, 3u);
  EXPECT_EQ(vrrp.vrrpOp, 1u);
  EXPECT_EQ(vrrp.vrrpAddr[0], 0x0A0101FEu);
  EXPECT_EQ(vrrp.vrrpAddr[5], 0x0A0101FDu);
  orrin.run("interface vrrp 11 label 3 del 10.1.1.253");
  vrrp = handleNext();
  EXPECT_EQ(vrrp.vrrpOp, 2u);
  EXPECT_EQ(vrrp.vrrpAddr[0], 0u);
  EXPECT_EQ(vrrp.vrrpAddr[5], 0x0A0101FDu);
}

TEST_F(SwitchEvents, TheWalkOfInterfacesListsTheEnabledOnes) {
  orrin.run("interface add 20 vrf 3 name 0/20 device rt2");
  orrin.run("interface add 15 vrf 3 name 0/15 device rt3");
  orrin.run("interface enable 20");
  orrin.run("interface enable 11");
  uint32_t number = 0;
  std::vector<uint32_t> walked;
  while (rpcclt_tarnapiRtrIntfNextGetVrf(client, VRF, number, &number) == TARN_OK) {
    walked.push_back(number);
  }
  EXPECT_EQ(walked, (std::vector<uint32_t>{11, 20}));
  EXPECT_EQ(number, 20u) << "the last call has left it";
}

TEST_F(SwitchEvents, WhatWasNotAcknowledgedGoesToTheNextOfTheName) {
  orrin.run("interface enable 11");
  EXPECT_EQ(handle(2), UP);
  orrin.run("interface set 11 mtu 1300");
  EXPECT_EQ(next().msgType, TARNR_RTR_INTF_MTU);
  EXPECT_EQ(rpcclt_tarnapiRouterEventDeregister(client, VRF, id), TARN_OK);
  orrin.run("interface set 11 bandwidth 9"); // while nobody listens
  orrin.run("interface disable 11");
  attach();
  EXPECT_EQ(handle(4), (Types{TARNR_RTR_INTF_MTU, TARNR_RTR_INTF_BW_CHANGE, DOWN[0], DOWN[1]}));
  nothingFollows();
}

TEST_F(SwitchEvents, AClientThatHadNotReadTheInterfacesIsToldThemByTheNextOrrin) {
  orrin.run("interface enable 11");
  EXPECT_EQ(handle(2), UP);
  orrin.end(SIGKILL);
  orrin.start();
  const Types told = handle(4); // down first, whatever it was
  EXPECT_EQ(told, (Types{TARNR_RTR_STARTUP_DONE, TARNR_RTR_INTF_DISABLE, UP[0], UP[1]}));
  nothingFollows();
}

TEST_F(SwitchEvents, AnOrrinStartedAnewSendsWhatWasNotAcknowledged) {
  walk();
  orrin.run("interface enable 11");
  EXPECT_EQ(handle(2), UP);
  orrin.run("interface set 11 mtu 1300");
  const RppiEventMsg old = next();
  orrin.run("interface disable 11");
  EXPECT_EQ(next().msgType, DOWN[0]);
  orrin.end(SIGKILL);
  orrin.start();
  const RppiEventMsg again = next();
  EXPECT_EQ(again.msgType, TARNR_RTR_INTF_MTU);
  EXPECT_NE(again.eventSeq, old.eventSeq);
  EXPECT_EQ(rpcclt_tarnapiRouterEventAcknowledge(client, VRF, id, old.eventSeq), TARN_NOT_FOUND);
  EXPECT_EQ(rpcclt_tarnapiRouterEventAcknowledge(client, VRF, id, again.eventSeq), TARN_OK);
  EXPECT_EQ(handle(2), DOWN) << "what was under way goes its way";
  orrin.end(SIGTERM);
  orrin.start();
  nothingFollows();
}

TEST_F(SwitchEvents, RoutesComeAgainWhenTheirInterfaceIsUp) {
  uint32_t routeClient = 0;
  ASSERT_EQ(registerBestRoute(routeClient), TARN_OK);
  orrin.run("routes add vrf 3 10.0.0.0/24 count 3 via 10.1.1.2 interface 11");
  orrin.run("route add vrf 3 20.0.0.0/8 reject");
  std::vector<BestRouteRecord> records(50);
  const auto fetched = [&] {
    records.assign(50, BestRouteRecord{});
    tarn_buffdesc desc{static_cast<uint32_t>(records.size() * sizeof records[0]),
                       reinterpret_cast<char *>(records.data())};
    EXPECT_EQ(rpcclt_tarnapiBestRouteChangeNextGetMult(client, routeClient, 50, &desc), TARN_NO_MORE);
    return std::count_if(records.begin(), records.end(), [](const auto &each) { return each.valid != 0; });
  };
  EXPECT_EQ(fetched(), 4);
  orrin.run("interface enable 11");
  EXPECT_EQ(handleNext().msgType, UP[0]);
  EXPECT_EQ(next().msgType, UP[1]);
  EXPECT_EQ(fetched(), 0) << "not before the client has handled it";
  const std::string row = orrin.run("show events json");
  rpcclt_tarnapiRouterEventAcknowledge(client, VRF, id,
                                       static_cast<uint32_t>(std::stoul(row.substr(row.find("\"sequence\":") + 11))));
  EXPECT_EQ(fetched(), 3);
  orrin.run("interface host-mode 11");
  handleNext();
  EXPECT_EQ(fetched(), 3);
}

TEST_F(SwitchEvents, AThousandInterfacesLoseNothing) {
  std::string commands;
  for (int number = 34; number < 1034; ++number) {
    const std::string text = std::to_string(number);
    orrin.run("interface add " + text + " vrf 3 name 0/" + text + " device rt" + text);
    orrin.run("interface enable " + text);
  }
  EXPECT_GT(orrin.run("show clients").size(), 0u);
  std::vector<int> seen(3); // created, pending, enabled
  for (int count = 0; count < 3000; ++count) {
    const uint16_t type = handleNext().msgType;
    seen[type == TARNR_RTR_INTF_CREATE ? 0 : type == TARNR_RTR_INTF_ENABLE_PENDING ? 1 : 2] += 1;
  }
  EXPECT_EQ(seen, (std::vector<int>{1000, 1000, 1000}));
  EXPECT_EQ(orrin.run("show events json"), "[]\n");
}

} // namespace
