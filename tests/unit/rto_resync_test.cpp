// The resync after lost notifications: what the task reports of a dump, the record it compares with, and the dump itself, in
// front of the kernel.

#include "own_namespaces.h"
#include "rto_netlink_dump.h"
#include "rto_netlink_known.h"
#include "rto_test.h"

#include <fstream>
#include <map>
#include <net/if.h>
#include <random>
#include <set>
#include <sys/socket.h>

namespace {

// ---- the task: conversations
//
// "+1a" notifies of an addition of 10.1.0.0/16 via 10.9.0.10, "-1a" of its withdrawal, "=1a" is a route of the dump; "+1A" is
// 2001:db8:1::/48 via 2001:db8::a. "{" begins a dump, ")" ends it, "." lets the task withdraw what it finds gone, "}" is both.
// "!-25" sets RTO's answer, "!-26s" one that takes five seconds. What RTO is told reads the same; it stands for a next hop "-"
// where there is none.

class RtoResyncTest : public RtoTest {
protected:
  RtoResyncTest() {
    SCRIPTED_HOOK(rpcclt_tarnapiKernelRouteAddVr,
                  [this](auto, auto, auto route, auto hops) { return rto('+', route, hops); });
    SCRIPTED_HOOK(rpcclt_tarnapiKernelRouteDelVr,
                  [this](auto, auto, auto route, auto hops) { return rto('-', route, hops); });
    scripted::clockSet(100);
  }

  int32_t rto(char operation, const RtoRouteRecord *route, const tarn_buffdesc *hops) {
    const bool ipv6 = route->prefix.family == TARN_FAMILY_IPV6;
    const int prefix = ipv6 ? route->prefix.ipv6[5] : route->prefix.ipv4 >> 16 & 0xff;
    NextHopRecord hop{};
    if (hops->size != 0) {
      memcpy(&hop, hops->pstart, sizeof hop);
    }
    const int gateway = ipv6 ? hop.addr.ipv6[15] : hop.addr.ipv4 & 0xff;
    const char letter = gateway == 0 ? '-' : static_cast<char>((ipv6 ? 'A' : 'a') + gateway - 10);
    said += std::string(said.empty() ? "" : " ") + operation + std::to_string(prefix) + letter;
    if (slow) {
      scripted::clockSet(clock += 5);
    }
    return answer;
  }

  static void tell(uint32_t action, char prefix, char gateway) {
    rto_extRoute_msg msg{};
    msg.action = action;
    const auto number = static_cast<uint8_t>(prefix - '0');
    if (gateway >= 'a') {
      msg.ipv4.destination = ipv4(10, number, 0, 0);
      msg.ipv4.mask = 0xffff0000;
      msg.ipv4.nextHops[0] = {.gateway = ipv4(10, 9, 0, static_cast<uint32_t>(gateway - 'a' + 10)), .intIfNum = 5};
      msg.ipv4.numNextHops = 1;
    } else {
      msg.action += 2;
      memcpy(msg.ipv6.destination, "\x20\x01\x0d\xb8\0", 5);
      msg.ipv6.destination[5] = number;
      msg.ipv6.prefixLen = 48;
      msg.ipv6.nextHops[0].gateway[15] = static_cast<uint8_t>(gateway - 'A' + 10);
      msg.ipv6.nextHops[0].intIfNum = 5;
      msg.ipv6.numNextHops = 1;
    }
    rtoExternalRouteReport(msg);
  }

  static void mark(uint32_t action) {
    rto_extRoute_msg msg{};
    msg.action = action;
    rtoExternalRouteReport(msg);
  }

  std::string converse(const std::string &text) {
    said.clear();
    answer = 0;
    slow = false;
    std::istringstream words(text);
    for (std::string word; words >> word;) {
      switch (word[0]) {
      case '!':
        answer = atoi(&word[1]);
        slow = word.ends_with("s");
        break;
      case '{':
        mark(RT_RESYNC_BEGIN);
        break;
      case ')':
        mark(RT_RESYNC_END);
        break;
      case '}':
        mark(RT_RESYNC_END);
        [[fallthrough]];
      case '.':
        while (rtoWithdrawNext()) {
        }
        break;
      default:
        tell(word[0] == '+'   ? RT_NETLINK_ADD
             : word[0] == '-' ? uint32_t{RT_NETLINK_DELETE}
                              : uint32_t{RT_RESYNC_ROUTE},
             word[1], word[2]);
      }
    }
    return said;
  }

  std::string said;
  int32_t answer = 0;
  bool slow = false;
  uint64_t clock = 100;
};

TEST_F(RtoResyncTest, Conversations) {
  const struct {
    const char *what;
    const char *conversation;
    const char *said;
    const char *counters;
  } CASES[] = {
      {"nothing differs", "+1a +2b +1A { =1a =2b =1A }", "+1a +2b +1A", "added 3"},
      {"a missed addition", "+1a { =1a =2a =2A } { =1a =2a =2A }", "+1a +2a +2A", "added 3"},
      {"a missed withdrawal", "+1a +2a { =2a } { =2a }", "+1a +2a -1a", "added 2, deleted 1"},
      {"a missed withdrawal, IPv6", "+1A { } { }", "+1A -1-", "added 1, deleted 1"},
      {"another next hop", "+1a +1A { =1b =1B } { =1b =1B }", "+1a +1A +1b +1B", "added 4"},
      {"a notification is newer than the dump", "+1a +2a { -1a +3a +2b =1a =2a }", "+1a +2a -1a +3a +2b",
       "added 4, deleted 1"},
      {"but not than the next dump", "+1a { -1a { =1a }", "+1a -1a +1a", "added 2, deleted 1"},
      {"a dump that breaks off proves nothing", "+1a +2a { =1a { =1a =2a }", "+1a +2a", "added 2"},
      {"a route comes back before its withdrawal", "+1a { ) +1b .", "+1a +1b", "added 2"},
      {"a route goes before its withdrawal", "+1a { ) -1a .", "+1a -1a", "added 1, deleted 1"},
      {"of one key the first counts", "+1a +1b { =1a =1b } { =1a =1b }", "+1a +1b +1a", "added 3"},
      {"RTO knows it", "!-24 +1a { =1a } !0 { }", "+1a -1a", "deleted 1"},
      {"RTO refuses it", "!-25 +1a { =1a } { } { =1a }", "+1a +1a", "not added 2"},
      {"RTO refuses it, but not its successor", "!-23 +1a !0 { =1b }", "+1a +1b", "added 1, not added 1"},
      {"RTO refuses the successor, and holds the first", "+1a !-25 +1b -1b !0 { }", "+1a +1b -1b -1a",
       "added 1, not added 1, deleted 1"},
      {"the addition failed", "!-26 +1a { =1a } !0 { =1a } { =1a }", "+1a +1a +1a", "added 1, not added 1"},
      {"the withdrawal failed", "+1a !-26 -1a !0 { } { }", "+1a -1a -1a", "added 1, deleted 1, not deleted 1"},
      {"the withdrawal failed, and the route is back", "+1a !-26 -1a !0 { =1a } { =1a }", "+1a -1a +1a",
       "added 2, not deleted 1"},
      {"the resync's withdrawal failed", "+1a !-26 { } { } !0 { } { }", "+1a -1a -1a -1a",
       "added 1, deleted 1, not deleted 1"},
      {"RTO has nothing to withdraw", "+1a !-25 { } !0 { }", "+1a -1a", "added 1"},
      {"RTO withdraws only what it holds", "+1b !-25 -1a !0 { }", "+1b -1a -1b", "added 1, deleted 1"},
      {"RTO has dropped routes in silence", "+1a +2a +1a { =1a =2a } { =1a =2a }", "+1a +2a +1a +1a +2a", "added 5"},
      {"RTO does not answer: one report a resync", "{ !-26s =1a =2a =3a } !0 { =1a =2a =3a }", "+1a +1a +2a +3a",
       "added 3, not added 1"},
      {"the same for withdrawals", "+1a +1b !-26s { } !0 { }", "+1a +1b -1b -1b", "added 2, deleted 1, not deleted 1"},
  };
  for (const auto &row : CASES) {
    EXPECT_EQ(converse(row.conversation), row.said) << row.what;
    EXPECT_EQ(counters(), row.counters) << row.what;
    converse("{ } { }"); // forgets what is left
    EXPECT_EQ(rtoKnownRoutes.size(), 0u) << row.what;
    EXPECT_EQ(rtoKnownRoutes.capacity(), 0u) << row.what << ": no memory without a route";
    counters();
  }
}

// A resync withdraws route by route, between which the task takes what is in its queue.
TEST_F(RtoResyncTest, ManyWithdrawals) {
  constexpr uint32_t COUNT = 5000;
  rto_extRoute_msg msg{};
  msg.action = RT_NETLINK_ADD;
  for (uint32_t i = 0; i < COUNT; ++i) {
    msg.ipv4.destination = i << 8;
    msg.ipv4.mask = 0xffffff00;
    rtoExternalRouteReport(msg);
  }
  mark(RT_RESYNC_BEGIN);
  msg.action = RT_RESYNC_ROUTE;
  rtoExternalRouteReport(msg);
  mark(RT_RESYNC_END);
  while (rtoWithdrawNext()) {
  }
  EXPECT_EQ(counters(), "added 5000, deleted 4999");
  EXPECT_EQ(rtoKnownRoutes.size(), 1u);
}

// Where every dump breaks off, because routes are withdrawn all the time, the record must not keep those.
TEST_F(RtoResyncTest, WithdrawalsBetweenDumps) {
  constexpr uint32_t COUNT = 5000;
  rto_extRoute_msg msg{};
  msg.ipv4.mask = 0xffffff00;
  for (uint32_t i = 0; i < COUNT; ++i) {
    if (i % 500 == 0) {
      mark(RT_RESYNC_BEGIN);
    }
    msg.ipv4.destination = i << 8;
    for (const uint32_t action : {RT_NETLINK_ADD, RT_NETLINK_DELETE}) {
      msg.action = action;
      rtoExternalRouteReport(msg);
    }
  }
  EXPECT_EQ(rtoKnownRoutes.size(), 500u);
  mark(RT_RESYNC_BEGIN);
  EXPECT_EQ(rtoKnownRoutes.capacity(), 0u);
}

// Against a map, at random, with few keys so that most are met again.
TEST(RtoKnownTable, HoldsWhatAMapHolds) {
  RtoKnownTable table;
  std::map<uint64_t, uint32_t> model;
  std::mt19937 random(1);
  for (uint32_t round = 0; round < 200000; ++round) {
    const uint64_t range = round < 100000 ? 20000 : 1 + (200000 - round) / 20; // grows, then shrinks
    RtoKnownRoute route{
        .key = {random() % range, 7}, .gateway = round, .intIfNum = 1, .prefixLen = 24, .flags = RTO_KNOWN_USED};
    if (random() % 2 == 0) {
      ASSERT_TRUE(table.place(route));
      model[route.key[0]] = round;
    } else if (RtoKnownRoute *found = table.find(route)) {
      ASSERT_EQ(found->gateway, model.at(route.key[0]));
      table.erase(found);
      model.erase(route.key[0]);
    } else {
      ASSERT_FALSE(model.contains(route.key[0]));
    }
    ASSERT_EQ(table.size(), model.size());
    ASSERT_LE(table.capacity() * sizeof(RtoKnownRoute), 32 * (table.size() + 32));
  }
  table.removeAll();
}

// A resync withdraws from the first slot on. What is left must not crowd in the last slots, where each search walks far.
TEST(RtoKnownTable, StaysSpreadWhileTheFirstSlotsAreEmptied) {
  RtoKnownTable table;
  for (uint64_t i = 0; i < 20000; ++i) {
    ASSERT_TRUE(
        table.place({.key = {0, i << 8}, .gateway = 0, .intIfNum = 1, .prefixLen = 24, .flags = RTO_KNOWN_USED}));
  }
  for (size_t slot = 0; table.size() > 5000; slot = slot < table.capacity() ? slot : 0) {
    if (table.at(slot).flags != 0) {
      table.erase(&table.at(slot));
    } else {
      ++slot;
    }
  }
  size_t run = 0, longest = 0;
  for (size_t slot = 0; slot < table.capacity(); ++slot) {
    run = table.at(slot).flags != 0 ? run + 1 : 0;
    longest = std::max(longest, run);
  }
  EXPECT_LT(longest, table.size() / 5);
  table.removeAll();
}

// ---- the dump, in front of the kernel

class RtoDumpTest : public RtoTest {
protected:
  static void SetUpTestSuite() {
    shell("ip link add rt1 type veth peer name h1 && ip link set rt1 addrgenmode none up && "
          "ip link set h1 addrgenmode none up && ip addr add 10.9.0.1/24 dev rt1 && ip addr add 2001:db8::1/64 dev rt1 "
          "nodad");
  }
  static void TearDownTestSuite() { shell("ip link del rt1"); }

  RtoDumpTest() {
    scripted::script("rpcclt_tarnapiStackIfIndexIntIfNumGet= 0 5");
    table[5].ipstkIfIndex = if_nametoindex("rt1");
    handle.sequence = 1;
    request(); // another test may have left one
    run();
    told();
  }

  // Lets the time between two dumps pass, and asks for one.
  static void request() {
    static uint64_t clock = 1000;
    scripted::clockSet(clock += 100);
    rtoResyncRequest();
  }

  // Steps until the dump is over, or needs room.
  void run() {
    while (dump.ready()) {
      dump.step();
    }
  }

  // What the task is told, a word each: "{", prefixes when they come first, "}".
  static std::string told() {
    std::string text;
    while (const auto msg = queued()) {
      const bool ipv6 = msg->action == RT_RESYNC_ROUTE6;
      char address[46];
      osapiInetNtop(ipv6 ? TARN_FAMILY_IPV6 : TARN_FAMILY_IPV4,
                    ipv6 ? static_cast<const void *>(msg->ipv6.destination) : &msg->ipv4.destination, address,
                    sizeof address);
      const std::string word = msg->action == RT_RESYNC_BEGIN ? "{" : msg->action == RT_RESYNC_END ? "}" : address;
      if ((" " + text + " ").find(" " + word + " ") == std::string::npos) { // IPv4 comes twice
        text += std::string(text.empty() ? "" : " ") + word;
      }
    }
    return text;
  }

  RtoNetlinkHandle handle;
  RtoDump dump{&handle};
};

TEST_F(RtoDumpTest, HoldsTheForeignRoutesOfTheMainTable) {
  shell("ip route add 10.50.0.0/16 via 10.9.0.7 && ip route add blackhole 10.51.0.0/16 && "
        "ip route add 10.52.0.0/16 via 10.9.0.7 proto 25 && ip route add 10.53.0.0/16 via 10.9.0.7 table 100 && "
        "ip -6 route add 2001:db8:5::/48 via 2001:db8::7");
  EXPECT_FALSE(dump.ready()) << "not before a request";
  EXPECT_EQ(dump.waitMsec(), 0u);
  request();
  run();
  EXPECT_EQ(told(), "{ 2001:db8:: 2001:db8:5:: 10.9.0.0 10.50.0.0 10.51.0.0 }");
  EXPECT_EQ(dump.waitMsec(), 0u);
  EXPECT_EQ(counters(), "");
  shell("ip route flush proto boot && ip -6 route flush proto boot && ip route del 10.52.0.0/16 && ip route del "
        "blackhole 10.51.0.0/16 || true");
}

// The listener reads a withdrawal.
void withdrawn(uint8_t family) {
  rtmsg header{};
  header.rtm_family = family;
  header.rtm_table = RT_TABLE_MAIN;
  readOf(message(RTM_DELROUTE, bytesOf(header)),
         [](NetlinkBytes datagram) { return rtoDatagramProcess(datagram, 0, rtoAcceptMsg); });
}

// Only a dump that nothing has disturbed may prove that a route is gone.
TEST_F(RtoDumpTest, BreaksOffWhereItProvesNothing) {
  const std::pair<const char *, std::function<void()>> DISTURBANCES[] = {
      {"another loss", rtoResyncRequest},
      {"an IPv6 withdrawal", [] { withdrawn(AF_INET6); }},
      {"a switch that does not answer",
       [] { scripted::script("rpcclt_tarnapiStackIfIndexIntIfNumGet: -26\nrpcclt_rpc_failure_occured: 1"); }},
  };
  for (const auto &[what, disturb] : DISTURBANCES) {
    request();
    dump.step();
    disturb();
    run();
    EXPECT_EQ(told().back() == '}', false) << what;
    EXPECT_GT(dump.waitMsec(), 100u) << what << ": the next one, after a while";
    request();
    run();
    EXPECT_EQ(told(), "{ 2001:db8:: 10.9.0.0 }") << what;
  }
  request();
  dump.step();
  rtoResyncRequestAndWake();
  withdrawn(AF_INET);
  run();
  EXPECT_EQ(told(), "{ 2001:db8:: 10.9.0.0 }") << "what may go on for ever must not keep the end back";
  for (const char *answer : {"-29", "-26"}) {
    scripted::script(std::string("rpcclt_tarnapiStackIfIndexIntIfNumGet: ") + answer);
    request();
    run();
    EXPECT_EQ(told(), "{ 10.9.0.0 }") << "an interface that the switch does not know";
  }
}

TEST_F(RtoDumpTest, GoesOnWhenTheQueueHasRoom) {
  const auto fill = [] {
    for (int i = 0; i < 300; ++i) {
      EXPECT_TRUE(rtoMessageSend(std::make_unique<rto_extRoute_msg>()));
    }
  };
  request();
  dump.step();
  fill();
  EXPECT_FALSE(dump.ready());
  const uint32_t first = dump.waitMsec();
  EXPECT_GT(dump.waitMsec(), first) << "looks at the queue ever more seldom";
  while (queued()) {
  }
  run();
  EXPECT_EQ(told(), "2001:db8:: 10.9.0.0 }");
  request();
  fill();
  EXPECT_FALSE(dump.ready()) << "nor does it begin";
}

// The kernel resumes an IPv4 dump by counting the routes of the address that it stopped at. The agent's own routes may go
// there without a notification that the listener reads.
TEST_F(RtoDumpTest, LeavesNoRouteOutWhereOwnRoutesGo) {
  std::ofstream own("/tmp/own"), others("/tmp/others");
  for (int i = 0; i < 512; ++i) {
    const std::string route = "10.1" + std::to_string(i / 256) + "." + std::to_string(i % 256) + ".0/24 via 10.9.0.7 ";
    own << "route add " << route << "proto 25\n";
    others << "route add " << route << "metric 5\n";
  }
  own.close();
  others.close();
  shell("ip -batch /tmp/others");
  for (const uint32_t shift : {0u, 1u}) { // a part ends between two addresses or between the routes of one
    shell("ip -batch /tmp/own && ip route add blackhole 10.0.0.0/8 metric " + std::to_string(shift));
    request();
    for (int step = 0; step < 4; ++step) { // begin, prepare, IPv6 and its end
      dump.step();
    }
    shell("ip route flush proto 25");
    std::set<uint32_t> found;
    while (dump.ready()) {
      dump.step();
      while (const auto msg = queued()) {
        found.insert(msg->action == RT_RESYNC_ROUTE ? msg->ipv4.destination : 0);
      }
    }
    EXPECT_EQ(found.size(), 1u + 1 + 1 + 512) << "no route, connected, blackhole, others";
  }
  shell("ip route flush proto boot && ip route flush type blackhole");
}

// A route of 600 next hops, to 0/0 or ::/0.
Bytes longRoute(uint8_t family, const Bytes &gateway) {
  rtmsg header{};
  header.rtm_family = family;
  header.rtm_table = RT_TABLE_MAIN;
  header.rtm_protocol = RTPROT_BOOT;
  header.rtm_type = RTN_UNICAST;
  Bytes hops;
  for (uint16_t i = 0x0202; i < 0x0202 + 600; ++i) {
    const Bytes address = attribute(RTA_GATEWAY, cut(2, gateway) + bytesOf(i));
    rtnexthop hop{};
    hop.rtnh_len = static_cast<uint16_t>(sizeof hop + address.size());
    hop.rtnh_ifindex = static_cast<int>(if_nametoindex("rt1"));
    hops += bytesOf(hop) + address;
  }
  return message(RTM_NEWROUTE, bytesOf(header) + attribute(RTA_MULTIPATH, hops), NLM_F_REQUEST | NLM_F_CREATE);
}

// The kernel tells nobody that it has ended a table at a route that is too long for the reader's buffer, which is smaller for
// the first datagram on a socket.
TEST_F(RtoDumpTest, GoesOnBehindALongRoute) {
  shell("ip addr add 10.8.0.1/16 dev rt1");
  const UniqueFd sock(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
  for (const Bytes &route :
       {longRoute(AF_INET, fromHex("0a080000")), longRoute(AF_INET6, fromHex("20010db8000000000000000000000000"))}) {
    ASSERT_EQ(send(sock.get(), route.data(), route.size(), 0), static_cast<ssize_t>(route.size()));
  }
  shell("ip route add 10.54.0.0/16 via 10.9.0.7 && ip -6 route add 2001:db8:2::/48 via 2001:db8::7");
  shell("(ip route get 192.0.2.1 && ip -6 route get 2001:db9::1) >/dev/null"); // ip itself cannot list them
  request();
  run();
  EXPECT_EQ(told(), "{ 2001:db8:: 2001:db8:2:: 10.8.0.0 10.9.0.0 10.54.0.0 }") << "several next hops have no interface";
  shell("ip route del default && ip -6 route del default && ip addr del 10.8.0.1/16 dev rt1 && "
        "ip route flush proto boot && ip -6 route flush proto boot");
}

} // namespace
