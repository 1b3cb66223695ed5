// The words of orrin's command lines: what is read is printed again the same. orrin_command_test.cpp has what is refused.

#include "grammar.h"
#include "kernel_route.h"

#include <gtest/gtest.h>

namespace {

using namespace orrin;

std::string reprinted(std::string_view line) {
  Words words(line);
  Route route;
  std::string error;
  EXPECT_TRUE(words.takeIf("route") && words.takeIf("add")) << line;
  if (!parseRoute(words, route, error)) {
    return error;
  }
  std::string out;
  appendRoute(out, route);
  return out;
}

TEST(OrrinGrammar, RouteLinesComeBackAsTheyWere) {
  for (const char *line : {
           "route add vrf 3 0.0.0.0/0 via 10.1.1.2 interface 11",
           "route add vrf 0 255.255.255.255/32 reject",
           "route add vrf 4294967295 10.0.0.0/8 local reject discard via-vrf-device rfc5549 mpls flag8000 metric 5 "
           "proto 7 "
           "via 10.1.1.9 interface 3 via 10.1.1.2 interface 4",
           "route add vrf 3 10.2.0.0/16 kernel",
           "route add vrf 3 10.2.0.0/16 install-kernel via 1.2.3.4 interface 0",
       }) {
    EXPECT_EQ(reprinted(line), line);
  }
  EXPECT_EQ(reprinted("route add vrf 3 10.0.0.0/8 install-kernel local"), "route add vrf 3 10.0.0.0/8 local");
  EXPECT_EQ(reprinted("route add\tvrf 3  10.0.0.0/8 reject # why"), "route add vrf 3 10.0.0.0/8 reject");
}

TEST(OrrinGrammar, ARouteHoldsAtMost48NextHops) {
  std::string line = "route add vrf 3 10.0.0.0/8";
  for (int hop = 0; hop < 48; ++hop) {
    line += " via 10.1.1.1 interface 3";
  }
  EXPECT_EQ(reprinted(line), line);
  EXPECT_EQ(reprinted(line + " via 10.1.1.1 interface 3"), "via: more than 48 next hops");
}

std::string reprintedKernelRoute(std::string_view line) {
  Words words(line);
  KernelRoute route;
  std::string out;
  if (parseKernelRoute(words, route, out)) {
    appendKernelRoute(out, route);
  }
  return out;
}

TEST(OrrinGrammar, KernelRoutesOfBothFamiliesComeBackAsTheyWere) {
  for (const char *line : {
           " 0.0.0.0/0 via 10.1.1.2 interface 11",
           " 255.255.255.255/32 reject",
           " 10.0.0.0/8 discard metric 4294967295 proto 7",
           " ::/0 via fe80::1 interface 3 via :: interface 4",
           " 2001:db8::1/128 reject metric 5",
       }) {
    EXPECT_EQ(reprintedKernelRoute(line), line);
  }
}

} // namespace
