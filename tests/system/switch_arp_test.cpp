// orrin's ARP caches: what the agent's socket gets, what the calls answer, and what a start knows.

#include "arp_resolution.h"
#include "switch_fixture.h"
#include "unique_fd.h"

#include <csignal>
#include <cstring>
#include <filesystem>
#include <optional>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

namespace {

constexpr uint32_t NUD_REACHABLE = 2;

// The agent's end, made as the agent makes it.
class ArpSocket {
public:
  explicit ArpSocket(const std::string &folder) : fd_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    std::filesystem::remove_all(folder);
    std::filesystem::create_directory(folder);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    (folder + "/arp-socket").copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(bind(fd_.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
  }

  // The next datagram, empty when none comes.
  std::string receive(int milliseconds = 2000) {
    pollfd wait{fd_.get(), POLLIN, 0};
    std::string bytes(256, '\0');
    const ssize_t length = poll(&wait, 1, milliseconds) == 1 ? recv(fd_.get(), bytes.data(), bytes.size(), 0) : 0;
    bytes.resize(length > 0 ? static_cast<size_t>(length) : 0);
    return bytes;
  }
  uint32_t receiveAddress() {
    const std::string bytes = receive();
    ArpResolutionMsg message{};
    std::memcpy(&message, bytes.data(), std::min(bytes.size(), sizeof message));
    return message.ipAddr;
  }

private:
  UniqueFd fd_;
};

std::string resolution(uint32_t address, const char (&mac)[7], uint32_t index, uint32_t vrf) {
  ArpResolutionMsg message{};
  message.msgType = 1;
  message.msgLen = 36;
  message.ipAddr = address;
  std::memcpy(message.macAddr, mac, 6);
  message.ifIndex = index;
  message.vrId = vrf;
  return {reinterpret_cast<const char *>(&message), sizeof message};
}

class SwitchArp : public SwitchFixture {
protected:
  void SetUp() override {
    SwitchFixture::SetUp();
    orrin.run("interface set 11 address 10.1.0.1/24");
    orrin.run("interface secondary 11 add 10.3.0.1/24");
    orrin.run("interface vrrp 11 label 1 add 10.1.0.254");
  }

  static InetAddr inet(uint32_t address) {
    InetAddr addr{};
    addr.family = 1;
    addr.ipv4 = address;
    return addr;
  }

  int32_t add(uint32_t address, char lastByte = 5, uint32_t index = 7, uint32_t vrf = VRF) {
    char bytes[] = {2, 0, 0, 0, 0, lastByte};
    const tarn_buffdesc mac{sizeof bytes, bytes};
    const InetAddr addr = inet(address);
    return rpcclt_tarnapiKernelArpAdd(client, vrf, &addr, &mac, index, NUD_REACHABLE);
  }
  int32_t del(uint32_t address, uint32_t index = 7) {
    const InetAddr addr = inet(address);
    return rpcclt_tarnapiKernelArpDelete(client, VRF, &addr, index);
  }
  int32_t resolve(uint32_t address, std::string &mac) {
    mac.assign(8, '#');
    const tarn_buffdesc desc{6, mac.data()};
    const InetAddr addr = inet(address);
    return rpcclt_tarnapiArpResolve(client, VRF, &addr, &desc, address, 7, 0);
  }
  // VRF 3's resolutions, as "sent unsent lost".
  std::string resolutions() {
    const std::string json = orrin.run("show vrfs vrf 3 json");
    std::string text;
    for (const char *key : {"\"resolutions\":", "\"unsent\":", "\"lost\":"}) {
      const size_t begin = json.find(key) + std::strlen(key);
      text += (text.empty() ? "" : " ") + json.substr(begin, json.find(',', begin) - begin);
    }
    return text;
  }
};

TEST_F(SwitchArp, TheAgentIsToldOfWhatTheSwitchLearns) {
  ArpSocket blue("/tmp/mirel-03");
  orrin.run("arp learn vrf 3 10.1.0.5 mac 02:0a:ff:00:00:05 interface 11");
  EXPECT_EQ(blue.receive(), resolution(0x0A010005, "\x02\x0a\xff\0\0\x05", 11, 3)) << "no index is known";
  orrin.run("interface add 12 vrf 3 name 0/12 device rt2 index 77");
  orrin.run("arp learn vrf 3 10.1.0.5 mac 02:0a:ff:00:00:06 interface 12");
  EXPECT_EQ(blue.receive(), resolution(0x0A010005, "\x02\x0a\xff\0\0\x06", 77, 3)) << "learned anew";
  ArpSocket green("/tmp/mirel-120");
  orrin.run("vrf add 120 green netns /proc/" + std::to_string(getpid()) + "/ns/net");
  orrin.run("interface add 13 vrf 120 name 0/13 device lo");
  orrin.run("arp learn vrf 120 10.1.0.5 mac 02:00:00:00:00:07 interface 13");
  EXPECT_EQ(green.receive(), resolution(0x0A010005, "\x02\0\0\0\0\x07", 1, 120)) << "the kernel's index of lo";
  orrin.refusal("arp learn vrf 3 10.1.0.5 mac 02:00:00:00:00:07 interface 13");
  EXPECT_EQ(blue.receive(50), "");
}

TEST_F(SwitchArp, AnAgentThatIsNotThereIsCountedAndNotWaitedFor) {
  orrin.run("arp learn vrf 3 10.1.0.5 mac 02:00:00:00:00:05 interface 11");
  EXPECT_EQ(resolutions(), "0 0 1");
  for (int agent = 0; agent < 2; ++agent) {
    ArpSocket socket("/tmp/mirel-03");
    orrin.run("arp learn vrf 3 10.1.0.6 mac 02:00:00:00:00:06 interface 11");
    EXPECT_EQ(socket.receiveAddress(), 0x0A010006u) << "agent " << agent;
  }
  EXPECT_EQ(resolutions(), "2 0 1");
}

TEST_F(SwitchArp, ASlowAgentGetsEverythingInOrder) {
  constexpr uint32_t COUNT = 1000; // beyond what a socket's queue takes
  ArpSocket socket("/tmp/mirel-03");
  for (uint32_t number = 1; number <= COUNT; ++number) {
    orrin.run("arp learn vrf 3 11.0." + std::to_string(number >> 8) + "." + std::to_string(number & 255) +
              " mac 02:00:00:00:00:05 interface 11");
  }
  EXPECT_NE(orrin.run("show vrfs vrf 3 json").find("\"lost\":0"), std::string::npos);
  for (uint32_t number = 1; number <= COUNT; ++number) {
    ASSERT_EQ(socket.receiveAddress(), 0x0B000000 + number);
  }
  EXPECT_EQ(resolutions(), "1000 0 0");
}

TEST_F(SwitchArp, KernelEntriesAreTakenUnlessTheSwitchKnowsBetter) {
  orrin.run("arp learn vrf 3 10.1.0.9 mac 02:00:00:00:00:09 interface 11");
  for (const uint32_t own : {0x0A010001u, 0x0A030001u, 0x0A0100FEu}) {
    EXPECT_EQ(add(own), TARN_LOCAL_ADDR);
  }
  EXPECT_EQ(add(0x0A010009), TARN_EXISTS) << "the switch's";
  EXPECT_EQ(add(0x0A010005), TARN_OK);
  EXPECT_EQ(add(0x0A010005), TARN_EXISTS);
  EXPECT_EQ(add(0x0A010005, 6), TARN_OK) << "another MAC";
  EXPECT_EQ(add(0x0A010005, 6, 8), TARN_OK) << "another device";
  EXPECT_NE(add(0x0A010005, 5, 7, 4), TARN_OK) << "no such VRF";
  EXPECT_EQ(del(0x0A010009), TARN_NOT_YET) << "the switch's";
  EXPECT_EQ(del(0x0A010006), TARN_NOT_FOUND);
  EXPECT_EQ(del(0x0A010005, 7), TARN_NOT_FOUND) << "it has moved to device 8";
  EXPECT_EQ(del(0x0A010005, 8), TARN_OK);
  EXPECT_EQ(del(0x0A010005, 8), TARN_NOT_FOUND);
  EXPECT_EQ(add(0x0A010005), TARN_OK);
  orrin.run("arp learn vrf 3 10.1.0.5 mac 02:00:00:00:00:05 interface 11");
  EXPECT_EQ(del(0x0A010005), TARN_NOT_YET) << "the switch's from now on";
  orrin.run("arp del vrf 3 10.1.0.5");
  EXPECT_EQ(del(0x0A010005), TARN_NOT_FOUND);
  orrin.refusal("arp del vrf 3 10.1.0.5");
  for (const int32_t code : {-21, -24, -26, -28, -29}) {
    orrin.run("fault set KernelArpAdd result " + std::to_string(code) + " once");
    orrin.run("fault set KernelArpDelete result " + std::to_string(code) + " once");
    EXPECT_EQ(add(0x0A010007), code);
    EXPECT_EQ(del(0x0A010009), code);
  }
  EXPECT_EQ(rpcclt_rpc_failure_occured(), 0);
}

TEST_F(SwitchArp, AQuestionIsAnsweredFromWhatTheSwitchHasLearned) {
  std::string mac;
  orrin.run("arp learn vrf 3 10.1.0.9 mac 02:00:00:00:00:09 interface 11");
  ASSERT_EQ(add(0x0A010005), TARN_OK);
  EXPECT_EQ(resolve(0x0A010009, mac), TARN_OK);
  EXPECT_EQ(mac, std::string("\x02\0\0\0\0\x09##", 8));
  EXPECT_EQ(resolve(0x0A010005, mac), TARN_NOT_YET) << "the kernel's own word is no answer to the kernel";
  EXPECT_EQ(mac, "########");
  EXPECT_EQ(resolve(0x0A030077, mac), TARN_NOT_YET) << "on a secondary subnet";
  EXPECT_EQ(resolve(0x0B000001, mac), TARN_NOT_FOUND) << "on no interface";
  orrin.run("fault set ArpResolve result -26 once");
  EXPECT_EQ(resolve(0x0A010009, mac), TARN_FAILURE);
  EXPECT_EQ(mac, "########");
}

TEST_F(SwitchArp, AnOrrinStartedAnewKnowsBothKinds) {
  orrin.run("arp learn vrf 3 10.1.0.9 mac 02:00:00:00:00:09 interface 11");
  orrin.run("arp learn vrf 3 10.1.0.10 mac 02:00:00:00:00:0a interface 11");
  orrin.run("arp del vrf 3 10.1.0.10");
  ASSERT_EQ(add(0x0A010005), TARN_OK);
  ASSERT_EQ(add(0x0A010006), TARN_OK);
  ASSERT_EQ(del(0x0A010006), TARN_OK);
  orrin.run("interface set 11 address 10.1.0.9/24"); // learned before
  const std::string known = orrin.run("show arp json");
  EXPECT_NE(known.find("\"address\":\"10.1.0.5\",\"mac\":\"02:00:00:00:00:05\",\"origin\":\"kernel\""),
            std::string::npos)
      << known;
  EXPECT_NE(orrin.run("dump").find("arp learn vrf 3 10.1.0.9 mac 02:00:00:00:00:09 interface 11\n"), std::string::npos);
  EXPECT_EQ(orrin.run("dump").find("10.1.0.5"), std::string::npos) << "a kernel entry is not configured";
  ArpSocket socket("/tmp/mirel-03");
  for (int start = 0; start < 2; ++start) { // the second also reads what the first added
    orrin.end(SIGKILL);
    orrin.start();
    EXPECT_EQ(orrin.run("show arp json"), known);
  }
  EXPECT_EQ(socket.receive(50), "") << "nothing is learned by starting";
  orrin.run("interface del 11");
  EXPECT_EQ(orrin.run("show arp json").find("10.1.0.9"), std::string::npos) << "they go with their interface";
}

TEST_F(SwitchArp, GatewaysOfThePortsAreWhatTheOperatorSays) {
  const auto ask = [this](auto call) {
    InetAddr addr = inet(7);
    const int32_t result = call(client, &addr);
    return result == TARN_OK && addr.family == 1 ? std::to_string(addr.ipv4) : "error " + std::to_string(addr.ipv4);
  };
  const auto service = [&] { return ask(rpcclt_tarnapiServicePortGatewayIPv4AddrGet); };
  const auto network = [&] { return ask(rpcclt_tarnapiNetworkPortGatewayIPv4AddrGet); };
  EXPECT_EQ(service(), "error 7") << "there is none";
  orrin.run("gateway service-port 10.0.0.1");
  orrin.run("gateway network-port 10.0.0.2");
  EXPECT_EQ(service() + " " + network(), "167772161 167772162");
  orrin.run("fault set ServicePortGatewayIPv4AddrGet result -26");
  EXPECT_EQ(service() + " " + network(), "error 7 167772162") << "although it is published";
  orrin.end(SIGKILL);
  EXPECT_TRUE(within(50, [&] { return network() == "error 7"; })) << "an orrin that is gone publishes nothing";
  orrin.start();
  EXPECT_EQ(service() + " " + network(), "167772161 167772162");
  orrin.run("gateway service-port none");
  EXPECT_EQ(service() + " " + network(), "error 7 167772162");
}

TEST_F(SwitchArp, AKernelIndexBelongsToTheCallersVrf) {
  uint32_t number = 7;
  EXPECT_EQ(rpcclt_tarnapiStackIfIndexIntIfNumGet(client, 1, &number), TARN_NOT_FOUND);
  EXPECT_EQ(number, 7u);
  orrin.run("interface add 12 vrf 3 name 0/12 device lo index 1");
  uint32_t id = 0;
  ASSERT_EQ(registerRouterEvent(id), TARN_OK);
  EXPECT_EQ(rpcclt_tarnapiStackIfIndexIntIfNumGet(client, 1, &number), TARN_OK) << "by the registration";
  EXPECT_EQ(number, 12u);
  orrin.run("vrf add 5 green netns /proc/" + std::to_string(getpid()) + "/ns/net");
  orrin.run("interface add 13 vrf 5 name 0/13 device lo");
  EXPECT_EQ(rpcclt_tarnapiStackIfIndexIntIfNumGet(client, 1, &number), TARN_OK) << "by the namespace";
  EXPECT_EQ(number, 13u);
  EXPECT_EQ(rpcclt_tarnapiStackIfIndexIntIfNumGet(client, 4711, &number), TARN_NOT_FOUND);
  orrin.run("fault set StackIfIndexIntIfNumGet result -26 once");
  EXPECT_EQ(rpcclt_tarnapiStackIfIndexIntIfNumGet(client, 1, &number), TARN_FAILURE);
}

} // namespace
