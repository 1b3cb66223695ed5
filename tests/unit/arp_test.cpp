// What the switch has resolved, on its way into the kernel's ARP cache.

#include "mirel_arp.h"
#include "router_test.h"
#include "unique_fd.h"

#include <cstring>
#include <fstream>
#include <net/if.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

namespace {

class ArpTest : public RouterTest {
protected:
  static void SetUpTestSuite() {
    RouterTest::SetUpTestSuite();
    shell("ip link set rt1 up && ip link set h1 up");
  }

  ArpTest() { arpIoctlSock = requests.get(); }
  ~ArpTest() override { arpIoctlSock = -1; }

  const uint32_t kernelIndex = if_nametoindex("rt1");
  const UniqueFd requests{socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
};

ArpResolutionMsg resolution(uint32_t ifIndex) {
  ArpResolutionMsg msg{};
  msg.msgType = 1;
  msg.msgLen = 36;
  msg.reserved4 = UINT32_MAX;
  msg.ipAddr = ipv4(192, 0, 2, 9);
  memset(msg.reserved12, 0xff, sizeof msg.reserved12);
  memcpy(msg.macAddr, "\x02\x00\x00\x00\x00\x09", MAC_LENGTH);
  memset(msg.reserved30, 0xff, sizeof msg.reserved30);
  msg.ifIndex = ifIndex;
  msg.vrId = 3;
  return msg;
}

// Whether the kernel holds the neighbour of resolution(), valid and not permanent.
bool kernelHasNeighbour() {
  try {
    shell("ip neigh show dev rt1 | grep -q '^192.0.2.9 lladdr 02:00:00:00:00:09 STALE'");
  } catch (const std::runtime_error &) {
    return false;
  }
  shell("ip neigh del 192.0.2.9 dev rt1");
  return true;
}

TEST_F(ArpTest, Resolutions) {
  constexpr uint32_t NUMBER = 1033; // of an interface; the kernel has no such index
  const std::string index = std::to_string(kernelIndex);
  const std::string name = "rpcclt_tarnapiRtrIntfTypeGet 1033\nrpcclt_tarnapiRtrIntfIpStackStkNameGet 3 1033 [17]\n";
  const std::string there = " 192.0.2.9 via rt1";
  const std::string asked = name + "osapiStackIfIndexGet rt1\n";
  const struct {
    const char *what;
    void (*change)(ArpResolutionMsg &msg);
    std::string script;
    std::string calls; // a line each
    const char *trace; // its beginning; "Updated" is the one success
  } CASES[] = {
      {"kernel index", [](ArpResolutionMsg &msg) { msg.ifIndex = if_nametoindex("rt1"); }, "", "", "Updated ARP in"},
      {"interface number", [](ArpResolutionMsg &) {}, "osapiStackIfIndexGet: 0 " + index, asked, "Updated ARP in"},
      {"unknown interface", [](ArpResolutionMsg &) {}, "osapiStackIfIndexGet: 1", asked, "Failed to update ARP"},
      {"interface of another kernel", [](ArpResolutionMsg &) {}, "osapiStackIfIndexGet: 0 1033", asked,
       "Failed to update ARP in the Linux stack. Ipaddr -1073741303, ifindex 1033, vrId 3 mac 02:00:00:00:00:09\n\n"},
      {"interface without a name", [](ArpResolutionMsg &) {}, "rpcclt_tarnapiRtrIntfIpStackStkNameGet: -29", name,
       "Failed to update ARP"},
      {"other type", [](ArpResolutionMsg &msg) { msg.msgType = 2; }, "", "", "Received message of the wrong type 2\n"},
      {"length with the header", [](ArpResolutionMsg &msg) { msg.msgLen = 40; }, "", "",
       "Received message has wrong length 40\n"},
      {"other VRF", [](ArpResolutionMsg &msg) { msg.vrId = 4; }, "", "",
       "Received ARP resolution for VRF ID 4 in VRF 3\n\n"},
      {"empty", [](ArpResolutionMsg &msg) { msg = {}; }, "", "", "Received message of the wrong type 0\n"},
  };
  for (const auto &row : CASES) {
    ArpResolutionMsg msg = resolution(NUMBER);
    row.change(msg);
    scripted::script(row.script);
    mirelDebugFlags = 2;
    int result = -1;
    const std::string trace = printed([&] { result = mirelArpEvntHandle(&msg); });
    EXPECT_TRUE(trace.starts_with(std::string("[blue (VRF 3)]:mirelArpEvntHandle: ") + row.trace))
        << row.what << ": " << trace;
    const bool success = trace.find(": Updated ") != std::string::npos;
    EXPECT_EQ(result, success ? 0 : 1) << row.what;
    EXPECT_EQ(kernelHasNeighbour(), success) << row.what;
    std::string calls;
    for (const std::string &line : scripted::takeCalls()) {
      calls += line + '\n';
    }
    EXPECT_EQ(calls, row.calls) << row.what;
  }
}

// What an earlier run left behind must not stand in the way.
TEST_F(ArpTest, Socket) {
  const struct {
    uint32_t vrfId;
    const char *folder;
  } CASES[] = {{3, "/tmp/mirel-03"}, {120, "/tmp/mirel-120"}};
  for (const auto &row : CASES) {
    const std::string folder = row.folder;
    mirelVrfId = row.vrfId;
    Relaxed<int> earlier = -1;
    Relaxed<int> fd = -1;
    ASSERT_EQ(mirelCreateArpSock(&earlier), 0) << folder;
    std::ofstream(folder + "/left") << "behind";
    scripted::takeCalls();
    ASSERT_EQ(mirelCreateArpSock(&fd), 0) << folder;
    EXPECT_EQ(scripted::takeCalls(), (Lines{"system rm -rf " + folder, "system mkdir " + folder}));
    sockaddr_un bound{};
    socklen_t length = sizeof bound;
    ASSERT_EQ(getsockname(fd, reinterpret_cast<sockaddr *>(&bound), &length), 0);
    EXPECT_EQ(bound.sun_path, folder + "/arp-socket");
    struct stat info;
    EXPECT_NE(stat((folder + "/left").c_str(), &info), 0) << folder;
    EXPECT_EQ(stat(bound.sun_path, &info), 0) << folder;
    close(earlier);
    close(fd);
  }
}

TEST_F(ArpTest, SocketThatCannotBeBound) {
  scripted::script("system: 0\nsystem: 0");
  shell("rm -rf /tmp/mirel-03");
  mirelDebugFlags = 2;
  Relaxed<int> fd = -1;
  int result = -1;
  testing::internal::CaptureStderr();
  EXPECT_EQ(printed([&] { result = mirelCreateArpSock(&fd); }),
            "[blue (VRF 3)]:mirelCreateArpSock: server socket creation failed\n");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "bind: No such file or directory\n");
  EXPECT_EQ(result, 1);
  EXPECT_EQ(fd, -1);
}

} // namespace
