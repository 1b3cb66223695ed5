// Every command of orrin, broken off after each of its words and with one too many: refused with a reason, and nothing done.

#include "commands.h"
#include "switch.h"

#include <gtest/gtest.h>

namespace {

using namespace orrin;

constexpr const char *CONFIGURATION[] = {
    "vrf add 3 blue interface vrfblue netns blue",
    "vrf add 5 spare",
    "interface add 11 vrf 3 name 1/0/1 device rt1",
    "interface secondary 11 add 10.1.2.1/24 index 1",
    "interface vrrp 11 label 1 add 10.1.1.254",
    "interface enable 11",
    "interface add 12 vrf 3 name 1/0/2 device rt2",
    "route add vrf 3 10.9.0.0/16 via 10.1.1.2 interface 11",
    "routes add vrf 3 10.7.0.0/24 count 4 via 10.1.1.2 interface 11",
    "arp learn vrf 3 10.1.1.2 mac 02:00:00:00:00:02 interface 11",
    "ipsla start vrf 3 5 to 10.1.1.2",
    "reported arp vrf 3 10.1.1.9 mac 02:00:00:00:00:09 interface 11 ifindex 41 state 2",
    "reported route vrf 3 10.4.0.0/16 via 10.1.1.2 interface 11",
    "client best-route 1 vrf 3 pid 4194303 started 1 name mirel:3",
    "client router-event 2 vrf 3 pid 4194303 started 1 name mirel:3",
};

struct Row {
  const char *line;
  size_t shortest; // what it has to say at least, in words
};

constexpr Row COMMANDS[] = {
    {"vrf add 4 red interface vrfred netns red", 4},
    {"vrf del 5", 3},
    {"vrf set 3 routing on", 5},
    {"vrf set 3 icmp-ratelimit 5 6", 6},
    {"vrf set 3 icmp-echo-reply 1", 5},
    {"vrf set 3 kernel-routes 7", 5},
    {"system not-ready", 2},
    {"gateway service-port 10.0.0.1", 3},
    {"interface add 13 vrf 3 name 1/0/3 device rt3 type 5 index 7", 9},
    {"interface del 12", 3},
    {"interface set 11 address 10.1.1.1/24 mac 02:00:00:00:00:01 mtu 1400 bandwidth 5", 5},
    {"interface secondary 11 add 10.1.3.1/24 index 4", 5},
    {"interface secondary 11 del 10.1.2.1/24", 5},
    {"interface vrrp 11 label 1 add 10.1.1.253 slot 3", 7},
    {"interface vrrp 11 label 1 del 10.1.1.254", 7},
    {"interface enable 12", 3},
    {"interface host-mode 12", 3},
    {"interface disable 11", 3},
    {"route add vrf 3 10.6.0.0/16 metric 4 via 10.1.1.2 interface 11", 5},
    {"route modify vrf 3 10.9.0.0/16 metric 7", 5},
    {"route del vrf 3 10.9.0.0/16", 5},
    {"routes add vrf 3 10.5.0.0/24 count 4 reject", 7},
    {"routes modify vrf 3 10.7.0.0/24 count 4 discard", 7},
    {"routes del vrf 3 10.7.0.0/24 count 4", 7},
    {"arp learn vrf 3 10.1.1.4 mac 02:00:00:00:00:04 interface 11", 9},
    {"arp del vrf 3 10.1.1.2", 5},
    {"ipsla start vrf 3 6 to 10.1.1.2 from 10.1.1.1 frequency 5 threshold 100 timeout 200 size 64", 7},
    {"ipsla stop vrf 3 5", 5},
    {"ipsla show vrf 3 json", 2},
    {"keepalive period 5", 3},
    {"keepalive hold vrf 3", 2},
    {"event timeout 5", 3},
    {"event send vrf 3 type 105 interface 11 cfg 2", 6},
    {"fault set VrfNameGet result -1 delay 5 drop times 3", 3},
    {"fault clear VrfNameGet", 2},
    {"show interfaces vrf 3 json", 2},
    {"dump reported vrf 3", 1},
    {"reported arp vrf 3 10.1.1.8 mac 02:00:00:00:00:08 interface 11 ifindex 41 state 2", 13},
    {"reported arp-gone vrf 3 10.1.1.9", 5},
    {"reported route vrf 3 10.3.0.0/16 via 10.1.1.2 interface 11", 5},
    {"reported route-gone vrf 3 10.4.0.0/16", 5},
    {"client best-route 7 vrf 3 pid 4194303 process 4 started 1 name other", 9},
    {"client settled 1", 3},
    {"client walked 2", 3},
    {"client withdrawn 1 10.2.0.0/16", 4},
    {"client next 9", 3},
    {"client drop 1", 3},
};

std::string dump(Switch &sw) {
  std::string configuration;
  std::string reported;
  std::string clients;
  EXPECT_TRUE(runCommand(sw, "dump", configuration) && runCommand(sw, "dump reported", reported) &&
              runCommand(sw, "show clients json", clients));
  return configuration + reported + clients;
}

TEST(OrrinCommand, BrokenOffItIsRefusedAndDoesNothing) {
  for (const Row &row : COMMANDS) {
    Switch sw;
    sw.restoring = true; // which allows every command
    std::string out;
    for (const char *line : CONFIGURATION) {
      ASSERT_TRUE(runCommand(sw, line, out)) << line << ": " << out;
    }
    const std::string before = dump(sw);
    const std::string_view whole = row.line;
    size_t words = 0;
    for (size_t end = 0; end != std::string_view::npos && ++words < row.shortest;) {
      end = whole.find(' ', end + 1);
      out.clear();
      EXPECT_FALSE(runCommand(sw, whole.substr(0, end), out)) << whole.substr(0, end);
      EXPECT_FALSE(out.empty()) << whole.substr(0, end);
    }
    EXPECT_FALSE(runCommand(sw, std::string(whole) + " more", out)) << whole;
    EXPECT_EQ(dump(sw), before) << whole;
    EXPECT_TRUE(runCommand(sw, whole, out)) << whole << ": " << out;
  }
}

} // namespace
