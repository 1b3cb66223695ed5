// What orrin refuses: every command cut after each of its words and with one too many, and words that make no sense. Each is
// refused with a reason, and changes nothing.

#include "commands.h"
#include "switch.h"

#include <gtest/gtest.h>

namespace {

using namespace orrin;

constexpr const char *CONFIGURATION[] = {
    "vrf add 3 blue interface vrfblue netns blue",
    "vrf add 5 spare",
    "interface add 11 vrf 3 name 1/0/1 device rt1",
    "interface set 11 address 10.1.0.1/24",
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
    {"route add vrf 3 10.6.0.0/16 metric 4 via 10.1.1.2 interface 11", 11},
    {"route modify vrf 3 10.9.0.0/16 reject metric 7", 6},
    {"route del vrf 3 10.9.0.0/16", 5},
    {"routes add vrf 3 10.5.0.0/24 count 4 reject", 8},
    {"routes modify vrf 3 10.7.0.0/24 count 4 discard", 8},
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
    {"client drop 1", 3},
};

struct Refusal {
  const char *line;
  const char *reason;
};

constexpr Refusal REFUSALS[] = {
    {"frobnicate", "\"frobnicate\" is no command"},
    {"vrf", "a command of \"vrf\" missing"},
    {"show clocks", "show: vrfs, interfaces, routes, arp, clients, events, faults or status, not \"clocks\""},

    {"vrf add 2147483648 red", "vrf: 0 to 2147483647, not 2147483648"},
    {"vrf add 3 red", "there is a VRF 3 \"blue\" netns blue already"},
    {"vrf add 4 blue", "there is a VRF 3 \"blue\" netns blue already"},
    {"vrf add 4 red netns blue", "there is a VRF 3 \"blue\" netns blue already"},
    {"vrf add 4 a/b", "name: \"a/b\" cannot name a file or device"},
    {"vrf add 4 red interface ..", "interface: \"..\" cannot name a file or device"},
    {"vrf add 4 red interface seventeen-letters", "interface: \"seventeen-letters\" is longer than 16"},
    {"vrf add 4 red netns run/red", "netns: \"run/red\" cannot name a file or device"},
    {"vrf set 3 routing maybe", "on or off expected, not \"maybe\""},
    {"vrf set 3 icmp-ratelimit 4294967295 5", "burst: 0 to 2147483647, not 4294967295"},
    {"vrf set 3 icmp-echo-reply 2", "mode: 0 to 1, not 2"},
    {"vrf set 3 colour red", "routing, icmp-ratelimit, icmp-echo-reply or kernel-routes expected, not \"colour\""},
    {"gateway service-port 255.255.255.255", "a unicast address expected, not \"255.255.255.255\""},
    {"keepalive period 86401", "period: 1 to 86400, not 86401"},
    {"event timeout 0", "timeout: 1 to 86400, not 0"},
    {"event send vrf 3 type 65536", "type: 0 to 65535, not 65536"},

    {"interface add 0 vrf 3 name a device b", "interface: 1 to 1033, not 0"},
    {"interface add 1034 vrf 3 name a device b", "interface: 1 to 1033, not 1034"},
    {"interface add 13 vrf 9 name a device b", "there is no VRF 9"},
    {"interface add 11 vrf 3 name a device b", "there is an interface 11 \"1/0/1\" with device \"rt1\" already"},
    {"interface add 13 vrf 5 name 1/0/1 device b", "there is an interface 11 \"1/0/1\" with device \"rt1\" already"},
    {"interface add 13 vrf 3 name a device rt1", "there is an interface 11 \"1/0/1\" with device \"rt1\" already"},
    {"interface add 13 vrf 3 name a device b/c", "device: \"b/c\" cannot name a file or device"},
    {"interface add 13 vrf 3 name a device b index 0", "index: 1 to 2147483647, not 0"},
    {"interface add 13 vrf 3 name a device b colour red", "\"colour\" is no word of an interface"},
    {"interface set 11 mtu large", "mtu: \"large\" is no number"},
    {"interface set 11 mtu 67", "mtu: 68 to 65535, not 67"},
    {"interface set 11 mtu 65536", "mtu: 68 to 65535, not 65536"},
    {"interface set 11 mtu 4294967296", "mtu: \"4294967296\" is no number"},
    {"interface set 11 redirects 2", "redirects: 0 to 1, not 2"},
    {"interface set 11 mac 00:11:22:33:44", "mac: \"00:11:22:33:44\" is no MAC address"},
    {"interface set 11 mac 00:00:00:00:00:00", "mac: \"00:00:00:00:00:00\" is no unicast MAC address"},
    {"interface set 11 mac 01:00:5e:00:00:01", "mac: \"01:00:5e:00:00:01\" is no unicast MAC address"},
    {"interface set 11 mac ff:ff:ff:ff:ff:ff", "mac: \"ff:ff:ff:ff:ff:ff\" is no unicast MAC address"},
    {"interface set 11 mtu 1400 address 10.1.1.1", "address: \"10.1.1.1\" is no address with its prefix length"},
    {"interface set 11 address 10.1.1.1/0", "address: \"10.1.1.1/0\" is no address with its prefix length"},
    {"interface set 11 address 10.1.1.0/24", "address: \"10.1.1.0/24\" is no unicast address of its subnet"},
    {"interface set 11 address 10.1.1.255/24", "address: \"10.1.1.255/24\" is no unicast address of its subnet"},
    {"interface set 11 address 0.1.1.1/24", "address: \"0.1.1.1/24\" is no unicast address of its subnet"},
    {"interface set 11 address 127.0.0.1/32", "address: \"127.0.0.1/32\" is no unicast address of its subnet"},
    {"interface set 11 address 224.0.0.1/31", "address: \"224.0.0.1/31\" is no unicast address of its subnet"},
    {"interface set 11 address 10.1.2.1/25", "interface 11 has that address already"},
    {"interface set 12 address 10.1.2.9/25", "interface 11 is in that subnet already"},
    {"interface set 11 colour red", "a setting of an interface expected, not \"colour\""},
    {"interface secondary 11 add 10.1.0.1/25", "interface 11 has that address already"},
    {"interface secondary 11 add 10.1.2.1/16", "interface 11 has that address already"},
    {"interface secondary 12 add 10.1.9.1/16", "interface 11 is in that subnet already"},
    {"interface secondary 11 add 10.1.3.1/24 index 1", "there is an index 1 already"},
    {"interface secondary 11 add 10.1.3.1/24 index 2147483648", "index: 0 to 2147483647, not 2147483648"},
    {"interface secondary 11 del 10.9.9.9/24", "interface 11 has no such secondary address"},
    {"interface vrrp 11 label 0 add 10.1.0.9", "label: 1 to 255, not 0"},
    {"interface vrrp 11 label 256 add 10.1.0.9", "label: 1 to 255, not 256"},
    {"interface vrrp 11 label 2 add 10.1.1.254", "interface 11 has that VRRP address already"},
    {"interface vrrp 11 label 2 add 10.1.0.9 10.1.0.9", "interface 11 has that VRRP address already"},
    {"interface vrrp 11 label 2 add 10.1.0.9 slot 32", "slot: 0 to 31, not 32"},
    {"interface vrrp 11 label 1 add 10.1.0.9 slot 0", "there is no free slot for \"10.1.0.9\""},
    {"interface disable 12", "interface 12 is not enabled"},

    {"route add vrf -1", "vrf: \"-1\" is no number"},
    {"route add vrf 3 10.0.0.0", "\"10.0.0.0\" is no prefix"},
    {"route add vrf 3 10.0.0.256/8", "\"10.0.0.256/8\" is no prefix"},
    {"route add vrf 3 10.0.0.0.0/8", "\"10.0.0.0.0/8\" is no prefix"},
    {"route add vrf 3 10.0.0.0/33", "\"10.0.0.0/33\": prefix length above 32"},
    {"route add vrf 3 10.0.0.1/31", "\"10.0.0.1/31\": address bits beyond the prefix length"},
    {"route add vrf 3 10.0.0.0/8 mpls metric 5", "a route needs a next hop, a type, reject, discard or via-vrf-device"},
    {"route add vrf 3 10.0.0.0/8 meric 4", "\"meric\" is no word of a route"},
    {"route add vrf 3 10.0.0.0/8 reject proto 256", "proto: 0 to 255, not 256"},
    {"route add vrf 3 10.0.0.0/8 via 10.1.1", "via: \"10.1.1\" is no unicast address"},
    {"route add vrf 3 10.0.0.0/8 via 224.0.0.1 interface 11", "via: \"224.0.0.1\" is no unicast address"},
    {"route add vrf 3 10.0.0.0/8 via 10.1.1.1 intf 3", "\"interface\" expected, not \"intf\""},
    {"route add vrf 3 10.0.0.0/8 via 10.1.1.1 interface 13", "interface 13 is not in VRF 3"},
    {"route add vrf 3 10.9.0.0/16 reject", "VRF 3 has a route 10.9.0.0/16 already"},
    {"route modify vrf 3 10.0.0.0/8 reject", "VRF 3 has no route 10.0.0.0/8"},
    {"routes add vrf 3 255.255.255.0/24 count 2 reject", "count: 2 prefixes go beyond 255.255.255.255"},
    {"routes add vrf 3 10.0.0.0/8 count 0 reject", "count: 1 to 4294967295, not 0"},
    {"reported route vrf 3 10.0.0.0", "prefix: \"10.0.0.0\" is wrong"},
    {"reported route vrf 3 10.0.0.0/33", "prefix: \"10.0.0.0/33\" is wrong"},
    {"reported route vrf 3 10.0.0.1/31", "prefix: \"10.0.0.1/31\" is wrong"},
    {"reported route vrf 3 2001:db8::/129", "prefix: \"2001:db8::/129\" is wrong"},
    {"reported route vrf 3 2001:db8::1/127", "prefix: \"2001:db8::1/127\" is wrong"},
    {"reported route vrf 3 10.0.0.0/8 via fe80::1 interface 3", "via: \"fe80::1\" is wrong"},
    {"reported route vrf 3 10.0.0.0/8 mpls", "kernel route: \"mpls\" is wrong"},

    {"arp learn vrf 3 224.0.0.9 mac 02:00:00:00:00:09 interface 11", "a unicast address expected, not \"224.0.0.9\""},
    {"arp learn vrf 3 10.1.1.9 mac 03:00:00:00:00:09 interface 11",
     "mac: \"03:00:00:00:00:09\" is no unicast MAC address"},
    {"ipsla start vrf 3 129 to 10.1.1.2", "operation: 1 to 128, not 129"},
    {"ipsla start vrf 3 6 to 0.0.0.0", "an address expected, not \"0.0.0.0\""},
    {"ipsla start vrf 3 6 to 10.1.1.2 frequency 0", "frequency: 1 to 4294, not 0"},
    {"ipsla start vrf 3 6 to 10.1.1.2 timeout 0", "timeout: 1 to 4294967, not 0"},
    {"ipsla start vrf 3 6 to 10.1.1.2 threshold 4294968", "threshold: 0 to 4294967, not 4294968"},
    {"ipsla start vrf 3 6 to 10.1.1.2 size 65508", "size: 0 to 65507, not 65508"},
    {"ipsla start vrf 3 6 to 10.1.1.2 colour 5",
     "from, frequency, threshold, timeout or size expected, not \"colour\""},

    {"fault set NoSuchCall", "\"NoSuchCall\" is no call of the platform"},
    {"fault set VrfNameGet delay 3600001", "delay: 1 to 3600000, not 3600001"},
    {"fault set VrfNameGet times 0", "times: 1 to 4294967295, not 0"},
    {"fault set VrfNameGet result -soon", "result: a number expected, not \"-soon\""},
    {"fault set VrfNameGet colour", "\"colour\" is no word of a fault"},
    {"client best-route 1 vrf 3 pid 1 name x", "only the state folder says so"},
};

std::string dump(Switch &sw) {
  std::string configuration;
  std::string reported;
  std::string clients;
  EXPECT_TRUE(runCommand(sw, "dump", configuration) && runCommand(sw, "dump reported", reported) &&
              runCommand(sw, "show clients json", clients));
  return configuration + reported + clients;
}

void configure(Switch &sw) {
  sw.restoring = true; // which allows every command
  std::string out;
  for (const char *line : CONFIGURATION) {
    ASSERT_TRUE(runCommand(sw, line, out)) << line << ": " << out;
  }
}

TEST(OrrinCommand, BrokenOffItIsRefusedAndDoesNothing) {
  for (const Row &row : COMMANDS) {
    Switch sw;
    configure(sw);
    std::string out;
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

TEST(OrrinCommand, NonsenseIsRefusedAndDoesNothing) {
  Switch sw;
  configure(sw);
  const std::string before = dump(sw);
  for (const Refusal &each : REFUSALS) {
    sw.restoring = std::string_view(each.line).starts_with("reported");
    std::string out;
    EXPECT_FALSE(runCommand(sw, each.line, out)) << each.line;
    EXPECT_EQ(out, each.reason) << each.line;
  }
  EXPECT_EQ(dump(sw), before);
}

// The bounds themselves, and what looks like a clash and is none.
TEST(OrrinCommand, WhatASwitchHoldsIsTaken) {
  Switch sw;
  configure(sw);
  std::string out;
  for (const char *line : {
           "vrf add 2147483647 red netns /run/netns/red",
           "interface add 1033 vrf 5 name 1/0/9 device rt1 index 2147483647",
           "interface set 1033 mtu 68 address 10.1.0.9/31", // of another VRF
           "interface set 11 mtu 65535 address 10.1.0.1/25 mac fe:ff:ff:ff:ff:ff",
           "interface set 12 address 10.1.3.0/31",
           "interface secondary 12 add 10.1.3.1/31 index 0",
           "interface secondary 11 add 10.1.0.9/24 index 2147483647",
           "interface vrrp 11 label 255 add 10.1.0.1 slot 31",
           "route add vrf 3 0.0.0.0/0 via 0.0.0.0 interface 11",
           "route add vrf 3 100.64.0.0/10 via-vrf-device proto 255",
           "event send vrf 3 type 110 interface 4294967295",
           "ipsla start vrf 3 128 to 10.1.1.2 frequency 4294 threshold 0 timeout 1 size 65507",
           "reported arp vrf 3 224.0.0.9 mac 01:00:5e:00:00:09 interface 0 ifindex 41 state 64",
       }) {
    EXPECT_TRUE(runCommand(sw, line, out)) << line << ": " << out;
  }
}

} // namespace
