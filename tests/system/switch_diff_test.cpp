// `orrinctl diff` of what is reported to the switch: the test is both the agent, which reports, and the other programs, which
// change the kernel of the VRF's namespace.

#include "own_namespaces.h"
#include "switch_fixture.h"

#include <arpa/inet.h>
#include <array>
#include <cstdio>
#include <net/if.h>

namespace {

constexpr uint32_t GREEN = 5;
constexpr uint32_t INTERFACE = 51;

InetAddr inet(const char *text) {
  InetAddr addr{};
  addr.family = std::string(text).find(':') == std::string::npos ? 1 : 2;
  EXPECT_EQ(inet_pton(addr.family == 1 ? AF_INET : AF_INET6, text, addr.ipv6), 1) << text;
  addr.ipv4 = addr.family == 1 ? ntohl(addr.ipv4) : addr.ipv4;
  return addr;
}

class SwitchDiff : public SwitchFixture {
protected:
  void SetUp() override {
    SwitchFixture::SetUp();
    shell("set -e; ip link add rt1 type veth peer name far1; ip link set rt1 up; ip link set far1 up; "
          "ip addr add 10.1.0.1/24 dev rt1; ip -6 addr add 2001:db8:1::1/64 dev rt1 nodad");
    orrin.run("vrf add 5 green netns /proc/" + std::to_string(getpid()) + "/ns/net");
    orrin.run("vrf set 5 routing on");
    orrin.run("interface add 51 vrf 5 name 0/51 device rt1");
    orrin.run("interface enable 51");
  }
  void TearDown() override { shell("ip route flush proto static; ip link del rt1"); }

  // What it prints; the status says whether there is anything.
  static std::string diff(const char *area) {
    FILE *output = popen((std::string(MIREL_BUILD_DIR "/bin/orrinctl diff vrf 5 ") + area).c_str(), "r");
    std::string text;
    std::array<char, 4096> part;
    for (size_t count; (count = fread(part.data(), 1, part.size(), output)) > 0;) {
      text.append(part.data(), count);
    }
    EXPECT_EQ(WEXITSTATUS(pclose(output)), text.empty() ? 0 : 1) << text;
    return text;
  }

  void neighbour(const char *address, char lastByte) {
    char bytes[] = {2, 0, 0, 0, 0, lastByte};
    const tarn_buffdesc mac{sizeof bytes, bytes};
    const InetAddr addr = inet(address);
    EXPECT_EQ(rpcclt_tarnapiKernelArpAdd(client, GREEN, &addr, &mac, if_nametoindex("rt1"), 2), TARN_OK);
  }

  // Discards without a gateway.
  void route(const char *prefix, uint8_t length, const char *gateway, uint32_t metric = 0) {
    RtoRouteRecord record{};
    NextHopRecord hop{};
    record.prefix = inet(prefix);
    record.prefixLen = length;
    record.routeType = 2;
    record.routeProto = record.prefix.family == 1 ? 7 : 0;
    record.metric = metric;
    record.discardRoute = gateway == nullptr;
    record.numNextHops = gateway == nullptr ? 0 : 1;
    if (gateway != nullptr) {
      hop.addr = inet(gateway);
      hop.intIfNum = INTERFACE;
    }
    const tarn_buffdesc hops{record.numNextHops * static_cast<uint32_t>(sizeof hop), reinterpret_cast<char *>(&hop)};
    EXPECT_EQ(rpcclt_tarnapiKernelRouteAddVr(client, GREEN, &record, &hops), TARN_OK) << prefix;
  }
};

TEST_F(SwitchDiff, NeighboursAreTheKernelsValidOnes) {
  shell("set -e; ip neigh add 10.1.0.5 lladdr 02:00:00:00:00:05 dev rt1 nud stale;"
        "ip neigh add 10.1.0.6 lladdr 02:00:00:00:00:06 dev rt1 nud permanent;"
        "ip neigh add 10.1.0.7 lladdr 02:00:00:00:00:07 dev rt1 nud noarp;"
        "ip neigh add 10.1.0.8 lladdr 02:00:00:00:00:08 dev rt1 nud failed;"
        "ip neigh add 10.1.0.9 lladdr ff:ff:ff:ff:ff:ff dev rt1 nud permanent;"
        "ip neigh add 10.1.0.10 lladdr 02:00:00:00:00:0a dev rt1 nud stale;"
        "ip neigh add 10.1.0.11 lladdr 02:00:00:00:00:0b dev rt1 nud stale");
  neighbour("10.1.0.5", 5);
  neighbour("10.1.0.6", 6);
  orrin.run("arp learn vrf 5 10.1.0.10 mac 02:00:00:00:00:0f interface 51");
  orrin.run("gateway network-port 10.1.0.11");
  EXPECT_EQ(diff("neighbours"), "");
  orrin.run("gateway network-port none");
  shell("set -e; ip neigh del 10.1.0.5 dev rt1; ip neigh replace 10.1.0.6 lladdr 02:00:00:00:00:66 dev rt1 nud stale");
  EXPECT_EQ(diff("neighbours"),
            "- vrf 5 neighbour 10.1.0.5 02:00:00:00:00:05 dev rt1\n"
            "~ vrf 5 neighbour 10.1.0.6 switch 02:00:00:00:00:06 dev rt1, kernel 02:00:00:00:00:66 dev rt1\n"
            "+ vrf 5 neighbour 10.1.0.11 02:00:00:00:00:0b dev rt1\n");
}

TEST_F(SwitchDiff, KernelRoutesAreThoseThatAnAgentReports) {
  shell("set -e; ip route add 20.0.0.0/8 via 10.1.0.2 metric 77 proto static;"
        "ip route add 20.0.0.0/8 via 10.1.0.3 proto static;"
        "ip route add blackhole 21.0.0.0/8 proto static;"
        "ip -6 route add 2001:db8::/32 via 2001:db8:1::2 metric 5 proto static;"
        "ip route add 22.0.0.0/8 via 10.1.0.2 proto 25;"
        "ip route add 23.0.0.0/8 via 10.1.0.2 table 77 proto static;"
        "ip route add 24.0.0.0/8 proto static nexthop via 10.1.0.2 nexthop via 10.1.0.3;"
        "ip route add 25.0.0.0/8 dev far1 proto static");
  route("10.1.0.0", 24, "0.0.0.0");
  route("2001:db8:1::", 64, "::", 0);
  route("20.0.0.0", 8, "10.1.0.2", 77);
  route("20.0.0.0", 8, "10.1.0.3");
  route("21.0.0.0", 8, nullptr);
  route("2001:db8::", 32, "2001:db8:1::2");
  EXPECT_EQ(diff("kernel-routes"), "");
  shell("set -e; ip route del 20.0.0.0/8 metric 77; ip route replace 20.0.0.0/8 via 10.1.0.4 proto static;"
        "ip route add unreachable 26.0.0.0/8 metric 9 proto static; ip -6 route del 2001:db8::/32");
  EXPECT_EQ(diff("kernel-routes"), "~ vrf 5 kernel-route 20.0.0.0/8 switch proto 7 via 10.1.0.3 interface 51, kernel "
                                   "proto 7 via 10.1.0.4 interface 51\n"
                                   "- vrf 5 kernel-route 20.0.0.0/8 metric 77 proto 7 via 10.1.0.2 interface 51\n"
                                   "+ vrf 5 kernel-route 26.0.0.0/8 reject metric 9 proto 7\n"
                                   "- vrf 5 kernel-route 2001:db8::/32 via 2001:db8:1::2 interface 51\n");
}

} // namespace
