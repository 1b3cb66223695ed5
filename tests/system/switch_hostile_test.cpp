// What reaches orrin from those who mean it ill or do not know better: broken requests, broken command lines, bad scripts and a
// state folder that was tampered with. It refuses or hangs up, and goes on serving the others.

#include "switch_fixture.h"
#include "tarnapi_wire.h"
#include "unique_fd.h"

#include <algorithm>
#include <csignal>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <vector>

namespace {

class SwitchHostile : public SwitchFixture {
protected:
  UniqueFd dial(const std::string &path, int type) const {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    UniqueFd fd(socket(AF_UNIX, type | SOCK_CLOEXEC, 0));
    EXPECT_EQ(connect(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address), 0) << path;
    return fd;
  }

  UniqueFd dialApi() const {
    UniqueFd fd = dial(orrin.socket(), SOCK_SEQPACKET);
    tarnwire::Hello hello{};
    EXPECT_EQ(recv(fd.get(), &hello, sizeof hello, 0), static_cast<ssize_t>(sizeof hello));
    EXPECT_EQ(hello.protocol, tarnwire::PROTOCOL);
    return fd;
  }

  // The reply to a datagram; empty when orrin hangs up.
  std::string reply(const UniqueFd &fd, const std::string &datagram) const {
    EXPECT_GE(send(fd.get(), datagram.data(), datagram.size(), MSG_NOSIGNAL), 0);
    pollfd wait{fd.get(), POLLIN, 0};
    EXPECT_EQ(poll(&wait, 1, 3000), 1);
    std::string bytes(tarnwire::REPLY_MAX, '\0');
    const ssize_t length = recv(fd.get(), bytes.data(), bytes.size(), MSG_DONTWAIT);
    bytes.resize(length > 0 ? static_cast<size_t>(length) : 0);
    return bytes;
  }

  void stillServes() {
    uint32_t status = 0;
    EXPECT_EQ(rpcclt_tarnapiRoutingStartupStatusVr(client, 1, VRF, &status), TARN_OK);
    EXPECT_EQ(status, 1u);
  }
};

std::string requestBytes(uint32_t op, const std::string &tail = {}) {
  tarnwire::Request request{op, 77, {}};
  request.args.fill(0xFFFFFFFF);
  return std::string(reinterpret_cast<const char *>(&request), sizeof request) + tail;
}

int32_t resultOf(const std::string &bytes) {
  tarnwire::Reply reply{};
  EXPECT_GE(bytes.size(), sizeof reply);
  std::memcpy(&reply, bytes.data(), std::min(bytes.size(), sizeof reply));
  EXPECT_EQ(reply.sequence, 77u);
  return reply.result;
}

TEST_F(SwitchHostile, RequestsOfTheWrongSizeCostTheirConnection) {
  for (const size_t size : {size_t{1}, sizeof(tarnwire::Request) - 1, tarnwire::REQUEST_MAX + 1, size_t{60000}}) {
    const UniqueFd fd = dialApi();
    EXPECT_EQ(resultOf(reply(fd, requestBytes(tarnwire::CONNECTIVITY_CHECK))), TARN_OK);
    EXPECT_EQ(reply(fd, std::string(size, '\xff')), "") << size;
  }
  stillServes();
}

TEST_F(SwitchHostile, EveryCallBearsAnyArguments) {
  const UniqueFd fd = dialApi();
  EXPECT_EQ(resultOf(reply(fd, requestBytes(tarnwire::OP_COUNT))), TARN_INVALID);
  EXPECT_EQ(resultOf(reply(fd, requestBytes(0xFFFFFFFF))), TARN_INVALID);
  for (const tarnwire::OpInfo &info : tarnwire::OPS) {
    for (const std::string &tail :
         {std::string(), std::string("\n\0 x", 4), std::string(255, 'n'), std::string(500, 'n')}) {
      EXPECT_LE(resultOf(reply(fd, requestBytes(info.op, tail))), 0) << info.function;
    }
  }
  stillServes();
}

TEST_F(SwitchHostile, KernelRoutesAreReadNoFurtherThanTheyReach) {
  const UniqueFd fd = dialApi();
  tarnwire::Request request{tarnwire::KERNEL_ROUTE_ADD, 77, {VRF}};
  tarnwire::ReportedRoute route{1, {}, 7, 0, 0, 2, 0, 0};
  const std::string head(reinterpret_cast<const char *>(&request), sizeof request);
  for (const char *bytes : {"\0", "\xff", "\1"}) {
    const std::string tail =
        std::string(reinterpret_cast<const char *>(&route), sizeof route) + std::string(500, bytes[0]);
    for (size_t size = 0; size <= tarnwire::REPORT_MAX_BYTES; ++size) {
      EXPECT_LT(resultOf(reply(fd, head + tail.substr(0, size))), 0) << size;
    }
  }
  EXPECT_EQ(orrin.run("show routes json"), "[]\n");
  stillServes();
}

TEST_F(SwitchHostile, CommandLinesWithoutEndCostTheirConnection) {
  const UniqueFd fd = dial(orrin.socket() + ".control", SOCK_STREAM);
  const std::string flood(300000, 'x');
  EXPECT_GT(send(fd.get(), flood.data(), flood.size(), MSG_NOSIGNAL), 0);
  pollfd wait{fd.get(), POLLIN, 0};
  EXPECT_EQ(poll(&wait, 1, 3000), 1);
  char byte;
  EXPECT_LE(recv(fd.get(), &byte, 1, MSG_DONTWAIT), 0);
  stillServes();
}

TEST_F(SwitchHostile, WithoutDescriptorsNewcomersWaitAndNobodySpins) {
  const UniqueFd served = dialApi();
  ucred peer{};
  socklen_t length = sizeof peer;
  ASSERT_EQ(getsockopt(served.get(), SOL_SOCKET, SO_PEERCRED, &peer, &length), 0);
  rlim_t lowestFree = 0;
  while (std::filesystem::is_symlink("/proc/" + std::to_string(peer.pid) + "/fd/" + std::to_string(lowestFree))) {
    ++lowestFree;
  }
  rlimit before{};
  ASSERT_EQ(prlimit(peer.pid, RLIMIT_NOFILE, nullptr, &before), 0);
  const rlimit few{lowestFree, before.rlim_max};
  ASSERT_EQ(prlimit(peer.pid, RLIMIT_NOFILE, &few, nullptr), 0);

  clockid_t clock;
  timespec from{};
  timespec to{};
  ASSERT_EQ(clock_getcpuclockid(peer.pid, &clock), 0);
  const UniqueFd newcomer = dial(orrin.socket(), SOCK_SEQPACKET);
  pollfd wait{newcomer.get(), POLLIN, 0};
  clock_gettime(clock, &from);
  EXPECT_EQ(poll(&wait, 1, 400), 0);
  clock_gettime(clock, &to);
  EXPECT_LT((to.tv_sec - from.tv_sec) * 1000 + (to.tv_nsec - from.tv_nsec) / 1000000, 100) << "ms of a processor";
  stillServes();
  ASSERT_EQ(prlimit(peer.pid, RLIMIT_NOFILE, &before, nullptr), 0);
  EXPECT_EQ(poll(&wait, 1, 3000), 1) << "it is greeted";
}

TEST_F(SwitchHostile, AReaderThatDoesNotReadHoldsUpNobody) {
  orrin.run("routes add vrf 3 20.0.0.0/32 count 200000 via 10.1.1.2 interface 11");
  const UniqueFd fd = dial(orrin.socket() + ".control", SOCK_STREAM);
  std::string lines;
  for (int count = 0; count < 20; ++count) {
    lines += "show routes\n";
  }
  EXPECT_GT(send(fd.get(), lines.data(), lines.size(), MSG_NOSIGNAL), 0);
  for (int round = 0; round < 50; ++round) {
    stillServes();
  }
  EXPECT_NE(orrin.run("show status").find("200000"), std::string::npos);
}

TEST_F(SwitchHostile, ADumpMakesTheSameSwitch) {
  for (const char *line :
       {"interface add 12 vrf 3 name 0/12 device rt2 type 4 index 9",
        "interface set 12 mac 0a:bc:de:f0:12:34 address 10.1.2.1/25 mtu 1400 redirects 0",
        "interface secondary 12 add 10.1.3.1/24 index 4", "interface vrrp 12 label 2 add 10.1.2.9 slot 31",
        "interface enable 12", "vrf set 3 icmp-ratelimit 5 6", "vrf set 3 icmp-echo-reply 0",
        "route add vrf 3 0.0.0.0/0 install-kernel reject metric 3 via 10.1.2.2 interface 12",
        "routes add vrf 3 10.0.0.0/24 count 1000 via 10.1.1.2 interface 11", "system not-ready",
        "keepalive period 7"}) {
    orrin.run(line);
  }
  const std::string dump = orrin.run("dump");
  orrin.end(SIGKILL);
  orrin.start();
  EXPECT_EQ(orrin.run("dump"), dump) << "from the state folder";
  orrin.end(SIGKILL);
  const std::string script = orrin.folder() + "/script";
  std::ofstream(script) << dump;
  std::filesystem::remove_all(orrin.folder() + "/state");
  orrin.start({"--script", script});
  EXPECT_EQ(orrin.run("dump"), dump);
}

TEST_F(SwitchHostile, ABadStartEndsWithFileAndLine) {
  std::string complaint;
  EXPECT_EQ(WEXITSTATUS(orrin.end(SIGTERM)), 0);
  const std::string script = orrin.folder() + "/script";
  std::ofstream(script) << "# fine\nvrf add 3 blue\n\nvrf ad 4 red\n";
  std::filesystem::remove_all(orrin.folder() + "/state");
  EXPECT_EQ(WEXITSTATUS(orrin.startFailing({"--script", script}, complaint)), 1);
  EXPECT_NE(complaint.find(script + ":4: "), std::string::npos) << complaint;
  EXPECT_EQ(WEXITSTATUS(orrin.startFailing({"--script", "/no/such/file"}, complaint)), 1);
  EXPECT_EQ(WEXITSTATUS(orrin.startFailing({"--colour"}, complaint)), 2);
  std::ofstream(orrin.folder() + "/state/commands") << "vrf add x y\nvrf add 5 red\n";
  orrin.start();
  EXPECT_NE(orrin.run("dump").find("vrf add 5 red"), std::string::npos) << "kept lines are taken one by one";
}

} // namespace
