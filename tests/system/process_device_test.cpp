// Addresses, devices and IPv4 settings of the process library in a kernel of the test's own.

#include "osapi.h"
#include "own_namespaces.h"
#include "process_support.h"

#include <cerrno>
#include <gmock/gmock.h>
#include <net/if.h>
#include <sstream>
#include <sys/resource.h>
#include <utility>

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::UnorderedElementsAre;

// "10.0.0.1/24 brd 10.0.0.255 scope global rt1:1", an address each.
std::vector<std::string> addresses(const std::string &device) {
  std::vector<std::string> found;
  for (std::string line : linesOf("ip -4 -o address show dev " + device)) {
    line = line.substr(line.find("inet ") + 5);
    line = line.substr(0, line.find('\\'));
    line.erase(line.find_last_not_of(' ') + 1);
    found.push_back(line);
  }
  return found;
}

std::string ipv4(const std::string &name) {
  std::string text = fileText("/proc/sys/net/ipv4/" + name);
  text.erase(text.find_last_not_of('\n') + 1);
  return text;
}

class Addresses : public RouterDevices {
protected:
  int32_t add(const char *label, const char *address, uint32_t length, const char *broadcast = "0.0.0.0") {
    return procOsapiNetlinkIPv4Add(label, ip(address), mask(length), ip(broadcast), &sock);
  }
  int32_t del(const char *label, const char *address, uint32_t length) {
    return procOsapiNetlinkIPv4Del(label, ip(address), mask(length), &sock);
  }
};

using Devices = RouterDevices;

} // namespace

TEST_F(Addresses, addedAgainIsBroughtToLabelAndBroadcast) {
  shell("ip address flush dev rt1");
  EXPECT_EQ(add("rt1", "10.1.0.1", 24, "10.1.0.255"), 0);
  EXPECT_EQ(add("rt1:7", "10.1.0.2", 24, "10.1.0.255"), 0);
  EXPECT_EQ(add("rt1:3_0", "10.1.0.3", 32), 0);
  const auto expected = {"10.1.0.1/24 brd 10.1.0.255 scope global rt1", "10.1.0.3/32 scope global rt1:3_0",
                         "10.1.0.2/24 brd 10.1.0.255 scope global secondary rt1:7"};
  EXPECT_THAT(addresses("rt1"), testing::UnorderedElementsAreArray(expected));
  EXPECT_EQ(add("rt1", "10.1.0.1", 24, "10.1.0.255"), 0);
  EXPECT_EQ(add("rt1:7", "10.1.0.2", 24, "10.1.0.255"), 0);
  EXPECT_THAT(addresses("rt1"), testing::UnorderedElementsAreArray(expected));

  EXPECT_EQ(add("rt1:1", "10.1.0.1", 24), 0) << "another label, no broadcast";
  EXPECT_THAT(addresses("rt1"), UnorderedElementsAre(HasSubstr("10.1.0.1/24 scope global"), HasSubstr("10.1.0.3/32"),
                                                     HasSubstr("10.1.0.2/24 brd 10.1.0.255")));
  EXPECT_EQ(add("rt1", "10.1.0.1", 30), 0) << "another prefix is another address";
  EXPECT_EQ(addresses("rt1").size(), 4u);
}

TEST_F(Addresses, labelsThatTheKernelCannotHold) {
  shell("ip link add rt123456789abc type veth peer name h3 && ip link add rt123456789abcd type veth peer name h4");
  EXPECT_EQ(add("rt123456789abc:1", "10.3.0.1", 32), 0); // 14 characters and the colon fit
  EXPECT_EQ(add("rt123456789abcd:", "10.4.0.1", 32), 0); // the cut would lose the colon
  EXPECT_EQ(add("rt123456789abcd", "10.4.0.2", 32), 0);
  EXPECT_THAT(addresses("rt123456789abc"), ElementsAre("10.3.0.1/32 scope global rt123456789abc:"));
  EXPECT_THAT(addresses("rt123456789abcd"),
              ElementsAre("10.4.0.1/32 scope global rt123456789abcd", "10.4.0.2/32 scope global rt123456789abcd"));
  EXPECT_EQ(del("rt123456789abc:9", "10.3.0.1", 32), 0) << "the label does not choose";
  EXPECT_THAT(addresses("rt123456789abc"), ElementsAre());
  EXPECT_EQ(add("rt123456789abcde", "10.4.0.3", 32), 1);
  EXPECT_EQ(errno, ENODEV);
  shell("ip link del h3 && ip link del h4");
}

TEST_F(Addresses, removalLeavesTheRestOfTheSubnet) {
  shell("ip address flush dev rt1");
  for (const char *address : {"10.1.0.1", "10.1.0.2", "10.1.0.3"}) {
    EXPECT_EQ(add("rt1", address, 24), 0);
  }
  EXPECT_EQ(del("rt1", "10.1.0.2", 32), 1) << "another prefix";
  EXPECT_EQ(errno, EADDRNOTAVAIL);
  EXPECT_EQ(del("rt1", "10.1.0.1", 24), 0);
  EXPECT_THAT(addresses("rt1"),
              UnorderedElementsAre("10.1.0.2/24 scope global rt1", "10.1.0.3/24 scope global secondary rt1"));
  EXPECT_EQ(del("rt1", "10.1.0.1", 24), 1);
  EXPECT_EQ(errno, EADDRNOTAVAIL);
  EXPECT_EQ(del("rt7", "10.1.0.1", 24), 1);
  EXPECT_EQ(errno, ENODEV);
}

TEST_F(Addresses, stripTakesEveryAddressOfTheDevice) {
  for (int i = 2; i < 40; ++i) {
    const std::string last = std::to_string(i);
    EXPECT_EQ(add(("rt1:" + last).c_str(), ("10.0.0." + last).c_str(), 24), 0);
    EXPECT_EQ(add(("rt1:1_" + last).c_str(), ("10.0.9." + last).c_str(), 32), 0);
  }
  ASSERT_EQ(addresses("rt1").size(), 77u);
  const std::vector<std::string> others = addresses("rt2");
  EXPECT_EQ(osapiIfAddrDel("rt1"), 0);
  EXPECT_THAT(addresses("rt1"), ElementsAre());
  EXPECT_EQ(osapiIfAddrDel("rt1"), 0);
  EXPECT_EQ(addresses("rt2"), others);
  for (const std::string &device : {std::string("rt7"), std::string("rt123456789abcde"), std::string(4000, 'r')}) {
    EXPECT_EQ(osapiIfAddrDel(device.c_str()), 1);
    EXPECT_EQ(errno, ENODEV);
  }
}

TEST_F(Devices, hardwareAddressFlagsAndMtu) {
  const uint8_t mac[] = {0x02, 0x11, 0x22, 0x33, 0x44, 0x55};
  EXPECT_EQ(osapiIfMacSet("rt1", mac), 0);
  EXPECT_EQ(osapiIfMacSet("rt1", mac), 0);
  EXPECT_EQ(osapiIfIpv4MtuSet("rt1", 1400), 0);
  const std::string link = outputOf("ip link show dev rt1");
  EXPECT_THAT(link, HasSubstr("link/ether 02:11:22:33:44:55"));
  EXPECT_THAT(link, HasSubstr("mtu 1400"));
  for (const uint32_t mtu : {10u, 0xffffffffu}) {
    EXPECT_EQ(osapiIfIpv4MtuSet("rt1", mtu), 1) << mtu;
    EXPECT_EQ(errno, EINVAL) << mtu;
  }
  EXPECT_EQ(osapiIfFlagChange("rt1", IFF_UP, 0), 0);
  EXPECT_THAT(outputOf("ip link show dev rt1"), Not(HasSubstr(",UP")));
  EXPECT_EQ(osapiIfFlagChange("rt1", IFF_UP, 1), 0);
  EXPECT_THAT(outputOf("ip link show dev rt1"), HasSubstr(",UP"));
}

TEST_F(Devices, arpAsksUserSpace) {
  shell("ip link set rt1 arp off");
  EXPECT_EQ(osapiIfArpSet("rt1"), 0);
  EXPECT_THAT(outputOf("ip link show dev rt1"), Not(HasSubstr("NOARP")));
  EXPECT_EQ(ipv4("neigh/rt1/app_solicit"), "1");
}

TEST_F(Devices, redirectsFollowTheDeviceAlone) {
  shell("echo 1 > /proc/sys/net/ipv4/conf/all/send_redirects");
  EXPECT_EQ(osapiIfIpv4IcmpRedirectSendSet("rt1", 0), 0);
  EXPECT_EQ(ipv4("conf/all/send_redirects"), "0") << "or the device sends them whatever its own setting says";
  EXPECT_EQ(ipv4("conf/rt1/send_redirects"), "0");
  EXPECT_EQ(ipv4("conf/rt2/send_redirects"), "1");
  EXPECT_EQ(osapiIfIpv4IcmpRedirectSendSet("rt1", 2), 0);
  EXPECT_EQ(ipv4("conf/rt1/send_redirects"), "1");
}

TEST_F(Devices, icmpSettingsOfTheNamespace) {
  EXPECT_EQ(osapiIpv4IcmpRatelimitSet(80, 2000), 0);
  EXPECT_EQ(ipv4("icmp_msgs_burst"), "80");
  EXPECT_EQ(ipv4("icmp_ratelimit"), "2000");
  EXPECT_EQ(osapiIpv4IcmpRatelimitSet(0xffffffff, 0xffffffff), 0);
  EXPECT_EQ(ipv4("icmp_msgs_burst"), "2147483647");
  EXPECT_GE(std::stoul(ipv4("icmp_ratelimit")), 2147483647u) << "which the kernel rounds to its clock";
  for (const uint32_t ignore : {1u, 0u}) {
    EXPECT_EQ(osapiIpv4IcmpIgnoreEchoRequestSet(ignore), 0);
    EXPECT_EQ(osapiIpv4IcmpEchoIgnoreBcastSet(ignore), 0);
    EXPECT_EQ(ipv4("icmp_echo_ignore_all"), std::to_string(ignore));
    EXPECT_EQ(ipv4("icmp_echo_ignore_broadcasts"), std::to_string(ignore));
  }
}

TEST_F(Devices, unreachablesSucceedAndAreNotedOnce) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(osapiIfIpv4IcmpSendDestinationUnreachableSet("rt1", 1), 0);
  EXPECT_EQ(osapiIfIpv4IcmpSendDestinationUnreachableSet("rt1", 0), 0);
  EXPECT_EQ(osapiIfIpv4IcmpSendDestinationUnreachableSet("rt2", 0), 0);
  const std::string log = testing::internal::GetCapturedStderr();
  EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 1) << log;
  EXPECT_THAT(log, HasSubstr(" info "));
}

TEST_F(Devices, namesOfNoDevice) {
  const uint8_t mac[6] = {};
  for (const char *name : {"rt7", "rt1.is.far.too.long", "", "../rt1", "all/x"}) {
    uint32_t index = 77;
    EXPECT_NE(osapiStackIfIndexGet(name, &index), 0) << name;
    EXPECT_EQ(index, 77u) << name;
    EXPECT_EQ(osapiIfMacSet(name, mac), 1) << name;
    EXPECT_EQ(osapiIfFlagChange(name, IFF_UP, 1), 1) << name;
    EXPECT_EQ(osapiIfArpSet(name), 1) << name;
    EXPECT_EQ(osapiIfIpv4MtuSet(name, 1400), 1) << name;
    EXPECT_EQ(osapiIfIpv4IcmpSendDestinationUnreachableSet(name, 0), 1) << name;
    EXPECT_EQ(osapiIfIpv4IcmpRedirectSendSet(name, 0), 1) << name;
    EXPECT_NE(errno, 0);
  }
}

// The agent logs errno.
TEST_F(Devices, noDescriptorLeft) {
  const uint8_t mac[6] = {};
  uint32_t index = 0;
  rlimit files{};
  getrlimit(RLIMIT_NOFILE, &files);
  const rlimit none{.rlim_cur = 0, .rlim_max = files.rlim_max};
  setrlimit(RLIMIT_NOFILE, &none);
  const auto errorOf = [](int32_t result) { return result == 0 ? 0 : std::exchange(errno, 0); };
  const std::vector<int> errors = {
      errorOf(osapiStackIfIndexGet("rt1", &index)),
      errorOf(osapiIfMacSet("rt1", mac)),
      errorOf(osapiIfFlagChange("rt1", IFF_UP, 1)),
      errorOf(osapiIfArpSet("rt1")),
      errorOf(osapiIfIpv4MtuSet("rt1", 1400)),
      errorOf(osapiIfAddrDel("rt1")),
      errorOf(osapiIfIpv4IcmpSendDestinationUnreachableSet("rt1", 0)),
      errorOf(osapiIfIpv4IcmpRedirectSendSet("rt1", 0)),
      errorOf(osapiIpv4IcmpRatelimitSet(80, 2000)),
  };
  setrlimit(RLIMIT_NOFILE, &files);
  EXPECT_THAT(errors, testing::Each(EMFILE));
}
