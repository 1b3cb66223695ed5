// Which of the kernel's route messages are reported, and as what. The messages are those of a kernel, noted down, and what
// can be made of them by hand.

#include "rto_test.h"

#include <sys/socket.h>

namespace {

using testing::EndsWith;

Bytes route(const char *hex) {
  return fromHex(hex);
}

// As "ip route add" makes them, rt1 having index 3.
const Bytes DELETED =
    route("3c00000019000000858b036b5803000002100000fe0400010000000008000f00fe000000080001000a3300000800"
          "05000a0900070800040003000000");
const Bytes BLACKHOLE =
    route("2c00000018000006868b036b5a03000002100000fe0300060000000008000f00fe000000080001000a340000");
const Bytes DEFAULT =
    route("34000000180000068a8b036bea03000002000000fe0300010000000008000f00fe000000080005000a0900070800"
          "040003000000");
const Bytes MULTIPATH =
    route("50000000180000068b8b036b1004000002100000fe0300010000000008000f00fe000000080001000a36000024"
          "0009001000000003000000080005000a0900071000000003000000080005000a090008");
const Bytes MTU_AND_METRIC =
    route("50000000180000068f8b036b8304000002100000fe0300010000000008000f00fe000000080001000a390"
          "00008000600050000000c0008000800020078050000080005000a0900070800040003000000");
const Bytes CONNECTED =
    route("3c00000018000006000000000000000002180000fe02fd010000000008000f00fe000000080001000a3c000008"
          "0007000a3c00010800040003000000");
const Bytes LOCAL =
    route("3c00000018000006000000000000000002200000ff02fe020000000008000f00ff000000080001000a3c0001080007"
          "000a3c00010800040003000000");
const Bytes OTHER_TABLE =
    route("3c000000180000068d8b036b5d04000002100000640300010000000008000f0064000000080001000a380000"
          "080005000a0900070800040003000000");
const Bytes IPV6 =
    route("8800000018000006928b036bf60400000a300000fe0300010000000008000f00fe0000001400010020010db80001000"
          "0000000000000000008000600000400001400050020010db800000000000000000000000208000400030000002400"
          "0c0000000000000000000000000000000000000000000000000000000000000000000500140000000000");
const Bytes IPV6_BLACKHOLE = route(
    "7400000018000006938b036b1c0500000a300000fe0300060000000008000f00fe0000001400010020010db80002000000000000000000"
    "000800060000040000080004000100000024000c00000000000000000000000000000000000000000000000000000000000000000005"
    "00140000000000");
const Bytes IPV6_DEFAULT =
    route("7400000018000006958b036b420500000a000000fe0300010000000008000f00fe00000008000600000400001400050020010db80000"
          "00000000000000000002080004000300000024000c000000000000000000000000000000000000000000000000000000000000000000"
          "0500140000000000");
const Bytes IPV6_MULTIPATH =
    route("a800000018000004968b036b680500000a300000fe0300010000000008000f00fe0000001400010020010db800090000000000000000"
          "0000080006"
          "00000400003c0009001c000000030000001400050020010db80000000000000000000000021c000000030000001400050020010db800"
          "0000000000"
          "00000000000324000c0000000000000000000000000000000000000000000000000000000000000000000500140000000000");

constexpr size_t ROUTE_AT = sizeof(nlmsghdr);
constexpr size_t TABLE_AT = ROUTE_AT + offsetof(rtmsg, rtm_table);
constexpr size_t PROTOCOL_AT = ROUTE_AT + offsetof(rtmsg, rtm_protocol);
constexpr size_t KIND_AT = ROUTE_AT + offsetof(rtmsg, rtm_type);
constexpr size_t TYPE_AT = offsetof(nlmsghdr, nlmsg_type);

const Bytes OIF = attribute(RTA_OIF, bytesOf(uint32_t{3}));
const Bytes GATEWAY = attribute(RTA_GATEWAY, fromHex("0a090007"));

Bytes ipv4Route(const char *destination, const Bytes &attributes, uint8_t length = 32, uint8_t kind = RTN_UNICAST) {
  rtmsg header{.rtm_family = AF_INET,
               .rtm_dst_len = length,
               .rtm_src_len = 0,
               .rtm_tos = 0,
               .rtm_table = RT_TABLE_MAIN,
               .rtm_protocol = RTPROT_STATIC,
               .rtm_scope = 0,
               .rtm_type = kind,
               .rtm_flags = 0};
  return message(RTM_NEWROUTE, bytesOf(header) + attribute(RTA_DST, fromHex(destination)) + attributes);
}

Bytes ipv6Route(const char *destination, uint8_t length, uint32_t flags) {
  rtmsg header{.rtm_family = AF_INET6,
               .rtm_dst_len = length,
               .rtm_src_len = 0,
               .rtm_tos = 0,
               .rtm_table = RT_TABLE_MAIN,
               .rtm_protocol = RTPROT_STATIC,
               .rtm_scope = 0,
               .rtm_type = RTN_UNICAST,
               .rtm_flags = flags};
  return message(RTM_NEWROUTE, bytesOf(header) + attribute(RTA_DST, fromHex(destination)) + OIF);
}

class RtoRouteTest : public RtoTest {
protected:
  RtoRouteTest() { scripted::script("rpcclt_tarnapiStackIfIndexIntIfNumGet= 0 5"); }

  static int process(NetlinkBytes datagram) { return rtoDatagramProcess(datagram, 0, rtoAcceptMsg); }

  // What RTO is told of what is queued, a line each.
  static std::string reported() {
    std::string text;
    scripted::takeCalls();
    while (const auto msg = queued()) {
      rtoExternalRouteReport(*msg);
    }
    for (const std::string &line : scripted::takeCalls()) {
      if (line.starts_with("rpcclt_tarnapiKernelRoute")) {
        text += line.substr(std::string("rpcclt_tarnapiKernelRoute").size()) + "\n";
      }
    }
    numExtRouteAdds = 0;
    numExtRouteDeletes = 0;
    return text;
  }
};

TEST_F(RtoRouteTest, Messages) {
  const std::string plain = " type 2 proto 7 reject 0 discard 0 report 1 metric 0 hops 1 [36] via 10.9.0.7 5\n";
  const std::string plain6 = " type 2 proto 0 reject 0 discard 0 report 1 metric 0 hops 1 [36] via 2001:db8::2 5\n";
  const std::string reject = " type 2 proto 7 reject 1 discard 0 report 1 metric 0 hops 0 [0]\n";
  const std::string direct6 = " type 2 proto 0 reject 0 discard 0 report 1 metric 0 hops 1 [36] via :: 5\n";
  const struct {
    const char *what;
    Bytes datagram;
    std::string reported; // none: invalid or ignored
    bool invalid = false;
  } CASES[] = {
      {"static with a metric", ROUTE_STATIC,
       "AddVr 3 10.50.0.0/16 type 2 proto 7 reject 0 discard 0 report 1 metric 77 hops 1 [36] via 10.9.0.7 5\n"},
      {"deleted", DELETED, "DelVr 3 10.51.0.0/16" + plain},
      {"default", DEFAULT, "AddVr 3 0.0.0.0/0" + plain},
      {"connected", CONNECTED,
       "AddVr 3 10.60.0.0/24 type 2 proto 7 reject 0 discard 0 report 1 metric 0 hops 1 [36] via 0.0.0.0 5\n"},
      {"blackhole", BLACKHOLE, "AddVr 3 10.52.0.0/16 type 2 proto 7 reject 0 discard 1 report 1 metric 0 hops 0 [0]\n"},
      {"unreachable", with(KIND_AT, RTN_UNREACHABLE, BLACKHOLE), "AddVr 3 10.52.0.0/16" + reject},
      {"prohibit", with(KIND_AT, RTN_PROHIBIT, BLACKHOLE), "AddVr 3 10.52.0.0/16" + reject},
      {"throw without an interface", with(KIND_AT, RTN_THROW, BLACKHOLE), "", true},
      {"unreachable with an interface", with(KIND_AT, RTN_UNREACHABLE, DELETED), "DelVr 3 10.51.0.0/16" + reject},
      {"metric goes before the attribute of type 8", MTU_AND_METRIC,
       "AddVr 3 10.57.0.0/16 type 2 proto 7 reject 0 discard 0 report 1 metric 5 hops 1 [36] via 10.9.0.7 5\n"},
      {"attribute of type 8", ipv4Route("0a010000", GATEWAY + OIF + attribute(RTA_METRICS, bytesOf(uint32_t{9})), 16),
       "AddVr 3 10.1.0.0/16 type 2 proto 7 reject 0 discard 0 report 1 metric 9 hops 1 [36] via 10.9.0.7 5\n"},
      {"multipath", MULTIPATH, "", true},
      {"interface that is not in the table", ipv4Route("0a010203", attribute(RTA_OIF, bytesOf(uint32_t{4}))), "", true},
      {"255.255.255.255", ipv4Route("ffffffff", OIF), "", true},
      {"255.255.255.255 without next hop", ipv4Route("ffffffff", {}, 32, RTN_BLACKHOLE), "", true},
      {"host", ipv4Route("0a010203", GATEWAY + OIF), "AddVr 3 10.1.2.3/32" + plain},
      {"length beyond 32", ipv4Route("0a010203", GATEWAY + OIF, 33), "AddVr 3 10.1.2.3/32" + plain},
      {"short attributes",
       ipv4Route("0a0102", attribute(RTA_OIF, "abc") + attribute(RTA_GATEWAY, "abc") + GATEWAY + OIF),
       "AddVr 3 0.0.0.0/0" + plain},
      {"attribute that does not fit", claiming(40, cut(4, ipv4Route("0a010203", OIF))), "", true},
      {"two messages", DELETED + DEFAULT, "DelVr 3 10.51.0.0/16" + plain + "AddVr 3 0.0.0.0/0" + plain},
      {"of the agent", with(PROTOCOL_AT, 25, ROUTE_STATIC), ""},
      {"of the agent, in another table", with(TABLE_AT, 100, with(PROTOCOL_AT, 25, ROUTE_STATIC)), ""},
      {"local table", LOCAL, ""},
      {"other table", OTHER_TABLE, ""},
      {"other type", with(TYPE_AT, RTM_GETROUTE, ROUTE_STATIC), ""},
      {"no route header", message(RTM_NEWROUTE, zeros(sizeof(rtmsg) - 1)), ""},
      {"IPv6", IPV6, "AddVr 3 2001:db8:1::/48" + plain6},
      {"IPv6 deleted", with(TYPE_AT, RTM_DELROUTE, IPV6), "DelVr 3 2001:db8:1::/48" + plain6},
      {"IPv6 default", IPV6_DEFAULT, "AddVr 3 ::/0" + plain6},
      {"IPv6 blackhole", IPV6_BLACKHOLE,
       "AddVr 3 2001:db8:2::/48 type 2 proto 0 reject 0 discard 1 report 1 metric 0 hops 0 [0]\n"},
      {"IPv6 multipath", IPV6_MULTIPATH, "", true},
      {"IPv4 in IPv6", ipv6Route("00000000000000000000ffff0a000000", 120, 0), "", true},
      {"almost IPv4 in IPv6", ipv6Route("00000000000000000000fffe0a000000", 120, 0),
       "AddVr 3 ::fffe:a00:0/120" + direct6},
      {"cloned host", ipv6Route("20010db8000000000000000000000009", 128, RTM_F_CLONED), "", true},
      {"cloned network", ipv6Route("20010db8000000000000000000000000", 64, RTM_F_CLONED),
       "AddVr 3 2001:db8::/64" + direct6},
      {"host with more flags", ipv6Route("20010db8000000000000000000000009", 128, RTM_F_CLONED | RTNH_F_LINKDOWN),
       "AddVr 3 2001:db8::9/128" + direct6},
      {"link-local", ipv6Route("fe800000000000000000000000000000", 64, 0), ""},
      {"end of link-local", ipv6Route("febf0000000000000000000000000000", 64, 0), ""},
      {"behind link-local", ipv6Route("fec00000000000000000000000000000", 64, 0), "AddVr 3 fec0::/64" + direct6},
      {"another family", with(ROUTE_AT, AF_MPLS, IPV6), "AddVr 3 2001:db8:1::/48" + plain6},
  };
  for (const auto &row : CASES) {
    EXPECT_EQ(readOf(row.datagram, process), 0) << row.what;
    EXPECT_EQ(reported(), row.reported) << row.what;
    EXPECT_EQ(counters(), row.invalid ? "invalid 1" : "") << row.what;
  }
}

TEST_F(RtoRouteTest, Ipv6InterfaceThatTheSwitchDoesNotKnow) {
  scripted::script("rpcclt_tarnapiStackIfIndexIntIfNumGet= -29");
  readOf(IPV6, process);
  EXPECT_EQ(scripted::takeCalls(), Lines{"rpcclt_tarnapiStackIfIndexIntIfNumGet 3"});
  EXPECT_EQ(counters(), "invalid 1");
  readOf(IPV6_BLACKHOLE, process);
  EXPECT_EQ(counters(), "");
  EXPECT_NE(reported(), "");
}

TEST_F(RtoRouteTest, MessagesThatBreakOff) {
  for (const Bytes &datagram : {ROUTE_STATIC, MULTIPATH, MTU_AND_METRIC, IPV6, IPV6_MULTIPATH, DELETED + DEFAULT}) {
    readEveryCut(datagram, process);
    for (size_t at = sizeof(nlmsghdr) + sizeof(rtmsg); at < datagram.size(); at += 4) {
      for (const uint8_t length : {uint8_t{0}, uint8_t{3}, uint8_t{5}, uint8_t{255}}) { // of what may be an attribute
        readOf(with(at, length, datagram), process);
      }
    }
    EXPECT_NE(reported() + counters(), "");
  }
}

// The agent runs so for a moment while it starts.
TEST_F(RtoRouteTest, WithoutTheTableOfInterfaces) {
  mirelIntIfInfoTable = nullptr;
  readOf(ROUTE_STATIC, process);
  EXPECT_EQ(counters(), "invalid 1");
}

TEST_F(RtoRouteTest, FullQueue) {
  for (int i = 0; i < 1024; ++i) {
    readOf(ROUTE_STATIC, process);
  }
  EXPECT_EQ(counters(), "");
  rtoDebugMask = 8;
  scripted::takeCalls();
  EXPECT_THAT(printed([] { readOf(DEFAULT, process); }), EndsWith(":  osapiMessageSend failed.\n"));
  EXPECT_EQ(
      scripted::takeCalls(),
      Lines{"log 3 24 application/routing/mirel/core/rto_netlink rtoExternalRouteProcess: osapiMessageSend failed, "});
  EXPECT_EQ(counters(), "dropped 1");
  queued();
  readOf(DEFAULT, process);
  EXPECT_EQ(counters(), "");
}

// Traces name their source line, which is cut out here.
TEST_F(RtoRouteTest, Traces) {
  const auto traced = [](const Bytes &datagram) {
    std::string text = printed([&] { readOf(datagram, process); });
    for (size_t at = 0; (at = text.find("[blue (VRF 3)]:rto", at)) != std::string::npos;) {
      const size_t name = at + std::string("[blue (VRF 3)]:").size();
      const size_t line = text.find(':', name) + 1;
      text.replace(at, text.find(": ", line) - at, text.substr(name, line - name - 1));
    }
    return text;
  };
  rtoDebugMask = 4;
  EXPECT_EQ(
      traced(BLACKHOLE),
      "rtoNetlinkListen:  in while : bytesProc 44 msg_len 44 remain_msgLen 28 \n\n"
      "rtoAcceptMsg: rcved message 24 table 254 protocol 3\n\n"
      "rtoExternalRouteProcess:   Action 1 \n\n"
      "rtoExternalRouteProcess: \nMsgHdrFields on Ext Route:- \nrtm_family [2] \nrtm_dst_len [16] \nrtm_src_len [0] "
      "\nrtm_tos [0] \nrtm_table [254] \nrtm_protocol [3] \nrtm_scope [0] \nrtm_type [6] \nrtm_flags [0]\n\n"
      "rtoExternalRouteProcess: Msg on Ext Route 10.52.0.0 mask 255.255.0.0 via 0.0.0.0 on IntIf 0 Action 1 \n\n"
      "rtoNetlinkListen:  in while after proc : bytesProc 0 msg_len 44 remain_msgLen 28 \n\n");
  rtoDebugMask = 8;
  EXPECT_EQ(
      traced(MULTIPATH),
      "rtoExternalRouteProcess: Unsupported rtattr_ptr->rta_type = 15\n"
      "rtoExternalRouteProcess: Unsupported rtattr_ptr->rta_type = 9\n"
      "rtoExternalRouteProcess: Invalid route! Route 10.54.0.0 mask 255.255.0.0 via 0.0.0.0 on IntIf 0 Action 1 \n\n");
  EXPECT_EQ(
      traced(ipv6Route("20010db8000000000000000000000009", 128, RTM_F_CLONED)),
      "rtoExternalRouteProcess: Invalid route! 2001:db8::9/128 via :: on IntIf 5 Action 3 netlink-route rtm_flags "
      "512\n\n");
  rtoDebugMask = 1;
  EXPECT_EQ(traced(DEFAULT), "rtoAcceptMsg: Enter \n\nrtoExternalRouteProcess: Enter \n\n"
                             "rtoExternalRouteProcess: Exit \n\nrtoAcceptMsg: Exit \n\n");
}

} // namespace
