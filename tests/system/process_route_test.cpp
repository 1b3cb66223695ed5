// Routes of the process library in a kernel of the test's own.

#include "own_namespaces.h"
#include "process_support.h"

#include <cerrno>
#include <fstream>
#include <linux/filter.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

namespace {

constexpr uint32_t REJECT = 0x10;

enum { REMOVED = 0, NO_SUCH_ROUTE = 2, REFUSED = 1, NOT_CARRIED = 8 };

class Routes : public RouterDevices {
protected:
  int32_t add(const char *prefix, uint32_t length, const char *gateway, const char *device, uint32_t flags = 0) {
    return procOsapiAddMRoute(ip(prefix), mask(length), ip(gateway), 0, flags, device, &sock);
  }
  int32_t del(const char *prefix, uint32_t length) {
    return procOsapiDeleteMRoute(ip(prefix), mask(length), 0, 0, "", &sock);
  }
};

using Lines = std::vector<std::string>;

Lines routes(const std::string &selector) {
  return linesOf("ip -N -d route show " + selector);
}

std::string chosen(const std::string &address) {
  const std::string text = outputOf("ip route get " + address);
  return text.substr(0, text.find(" uid"));
}

} // namespace

TEST_F(Routes, everyShape) {
  struct Shape {
    const char *prefix;
    uint32_t length;
    const char *gateway;
    const char *device;
    uint32_t flags;
    const char *shown;
  };
  const Shape shapes[] = {
      {"20.0.0.0", 24, "10.0.0.2", "rt1", 0, "1 20.0.0.0/24 via 10.0.0.2 dev rt1 proto 25 scope 0 onlink"},
      {"20.0.1.0", 24, "192.0.2.9", "rt2", 0, "1 20.0.1.0/24 via 192.0.2.9 dev rt2 proto 25 scope 0 onlink"},
      {"20.0.2.0", 24, "0.0.0.0", "rt2", 0x2000, "1 20.0.2.0/24 dev rt2 proto 25 scope 253"},
      {"20.0.3.0", 24, "10.0.2.7", "", 0, "1 20.0.3.0/24 via 10.0.2.7 dev rt2 proto 25 scope 0"},
      {"20.0.4.4", 32, "10.0.0.2", "rt1", 0x8000 | 0x400000, "1 20.0.4.4 via 10.0.0.2 dev rt1 proto 25 scope 0 onlink"},
      {"20.0.5.0", 24, "10.0.0.2", "rt1", REJECT, "7 20.0.5.0/24 proto 25 scope 0"},
      {"0.0.0.0", 0, "10.0.0.2", "rt1", 0, "1 default via 10.0.0.2 dev rt1 proto 25 scope 0 onlink"},
      {"128.0.0.0", 1, "0.0.0.0", "", REJECT, "7 128.0.0.0/1 proto 25 scope 0"},
  };
  for (const Shape &shape : shapes) {
    const std::string exact = std::string("exact ") + shape.prefix + "/" + std::to_string(shape.length);
    EXPECT_EQ(add(shape.prefix, shape.length, shape.gateway, shape.device, shape.flags), 0) << exact;
    const Lines shown = routes(exact);
    ASSERT_EQ(shown.size(), 1u) << exact;
    EXPECT_EQ(shown[0], shape.shown);
    EXPECT_EQ(del(shape.prefix, shape.length), REMOVED) << exact;
    EXPECT_EQ(routes(exact), Lines{});
    EXPECT_EQ(del(shape.prefix, shape.length), NO_SUCH_ROUTE) << exact;
  }
}

TEST_F(Routes, refusedWithoutTraceInTheTable) {
  const Lines before = routes("");
  EXPECT_EQ(add("20.0.0.0", 24, "0.0.0.0", ""), REFUSED) << "neither gateway nor device";
  EXPECT_EQ(add("20.0.0.0", 24, "10.0.0.2", "rt1.is.far.too.l"), REFUSED) << "16 characters";
  EXPECT_EQ(add("20.0.0.0", 24, "10.0.0.2", "rt7"), REFUSED) << "no such device";
  EXPECT_EQ(add("20.0.0.1", 24, "10.0.0.2", "rt1"), REFUSED) << "bits beyond the mask";
  EXPECT_EQ(add("20.0.0.0", 24, "224.0.0.1", "rt1"), REFUSED) << "no unicast gateway";
  EXPECT_EQ(procOsapiAddMRoute(0, 32, ip("10.0.0.2"), 0, 0, "rt1", &sock), REFUSED) << "a mask that is no mask";
  EXPECT_EQ(procOsapiDeleteMRoute(0, 32, 0, 0, "", &sock), REFUSED);
  shell("ip link set rt2 down");
  EXPECT_EQ(add("20.0.0.0", 24, "10.0.2.2", "rt2"), REFUSED);
  shell("ip link set rt2 up");
  EXPECT_EQ(routes(""), before);
}

// The device's own address cannot be on-link; the kernel takes it as a gateway when it may look it up.
TEST_F(Routes, gatewayThatCannotBeOnLink) {
  EXPECT_EQ(add("20.0.0.0", 24, "10.0.0.1", "rt1"), 0);
  EXPECT_EQ(routes("exact 20.0.0.0/24"), Lines{"1 20.0.0.0/24 via 10.0.0.1 dev rt1 proto 25 scope 0"});
}

TEST_F(Routes, takesThePlaceOfItsOwnRouteOnly) {
  EXPECT_EQ(add("20.0.0.0", 24, "10.0.0.2", "rt1"), 0);
  EXPECT_EQ(add("20.0.0.0", 24, "10.0.0.2", "rt1"), 0);
  EXPECT_EQ(add("20.0.0.0", 24, "0.0.0.0", "rt2"), 0);
  EXPECT_EQ(add("20.0.0.0", 24, "10.0.2.9", "rt2", REJECT), 0);
  EXPECT_EQ(routes("exact 20.0.0.0/24"), Lines{"7 20.0.0.0/24 proto 25 scope 0"});
  EXPECT_EQ(del("20.0.0.0", 24), REMOVED);
  EXPECT_EQ(del("20.0.0.0", 24), NO_SUCH_ROUTE);
}

TEST_F(Routes, refusedWayTakesTheOldOneWithIt) {
  EXPECT_EQ(add("20.0.0.0", 24, "10.0.0.2", "rt1"), 0);
  shell("ip route append 20.0.0.0/24 via 10.0.0.9 proto static");
  shell("ip link set rt2 down");
  EXPECT_EQ(add("20.0.0.0", 24, "10.0.2.2", "rt2"), REFUSED);
  EXPECT_EQ(routes("exact 20.0.0.0/24"), Lines{"1 20.0.0.0/24 via 10.0.0.9 dev rt1 proto 4 scope 0"});
}

TEST_F(Routes, anotherProgramsRoutesSurvive) {
  shell("ip route add 20.0.0.0/24 via 10.0.0.9 proto static");
  shell("ip route add 20.0.0.0/24 via 10.0.0.8 proto static metric 100");
  shell("ip route add 20.0.0.0/24 tos 0x10 via 10.0.0.7 proto static");
  const Lines foreign = routes("20.0.0.0/24");
  ASSERT_EQ(foreign.size(), 3u);

  for (const char *gateway : {"10.0.0.2", "10.0.0.3"}) {
    EXPECT_EQ(add("20.0.0.0", 24, gateway, "rt1"), 0);
    EXPECT_NE(chosen("20.0.0.5").find(std::string("via ") + gateway), std::string::npos) << "ours is the one in use";
    EXPECT_EQ(routes("20.0.0.0/24").size(), foreign.size() + 1);
  }
  EXPECT_EQ(del("20.0.0.0", 24), REMOVED);
  EXPECT_EQ(routes("20.0.0.0/24"), foreign);
  EXPECT_EQ(del("20.0.0.0", 24), NO_SUCH_ROUTE);
  EXPECT_EQ(routes("20.0.0.0/24"), foreign);
}

TEST_F(Routes, connectedRouteSurvives) {
  const Lines connected = routes("10.0.0.0/24");
  EXPECT_EQ(del("10.0.0.0", 24), NO_SUCH_ROUTE);
  EXPECT_EQ(add("10.0.0.0", 24, "10.0.2.2", "rt2"), 0);
  EXPECT_EQ(del("10.0.0.0", 24), REMOVED);
  EXPECT_EQ(routes("10.0.0.0/24"), connected);
}

TEST_F(Routes, removalByGatewayAndDevice) {
  EXPECT_EQ(add("20.0.0.0", 24, "10.0.0.2", "rt1"), 0);
  const auto remove = [&](const char *gateway, const char *device) {
    return procOsapiDeleteMRoute(ip("20.0.0.0"), mask(24), ip(gateway), 1, device, &sock);
  };
  EXPECT_EQ(remove("10.0.0.3", "rt1"), NO_SUCH_ROUTE);
  EXPECT_EQ(remove("10.0.0.2", "rt2"), NO_SUCH_ROUTE);
  EXPECT_EQ(remove("10.0.0.2", "rt7"), NO_SUCH_ROUTE);
  EXPECT_EQ(remove("10.0.0.2", "rt1.is.far.too.l"), REFUSED);
  EXPECT_EQ(remove("10.0.0.2", "rt1"), REMOVED);
}

// A name is looked up anew after its device was renamed, removed or made again; what leaves through the old one stays there.
TEST_F(Routes, devicesChangeTheirNames) {
  EXPECT_EQ(add("20.0.0.0", 24, "0.0.0.0", "rt1"), 0);
  shell("ip link set rt1 down && ip link set rt1 name rt9 && ip link set rt9 up");
  EXPECT_EQ(add("20.0.1.0", 24, "0.0.0.0", "rt1"), REFUSED);
  shell("ip link set rt2 down && ip link set rt2 name rt1 && ip link set rt1 up");
  EXPECT_EQ(add("20.0.1.0", 24, "0.0.0.0", "rt1"), 0);
  shell("ip link del rt1");
  EXPECT_EQ(del("20.0.1.0", 24), NO_SUCH_ROUTE) << "the kernel dropped it with its device";
  shell("ip link add rt1 type veth peer name h2 && ip link set rt1 up");
  EXPECT_EQ(add("20.0.2.0", 24, "0.0.0.0", "rt1"), 0);
  EXPECT_EQ(routes("20.0.2.0/24"), Lines{"1 20.0.2.0/24 dev rt1 proto 25 scope 253 linkdown"});
}

TEST_F(Routes, noSocketIsATransportFailure) {
  const int fd = std::exchange(sock.fd, -1);
  for (const char *device : {"rt1", ""}) {
    EXPECT_EQ(add("20.0.0.0", 24, "10.0.0.2", device), NOT_CARRIED);
    EXPECT_EQ(procOsapiDeleteMRoute(ip("20.0.0.0"), mask(24), 0, 0, device, &sock), REFUSED);
  }
  sock.fd = fd;
}

// A refusal that some earlier request left in the queue is not the answer of the next.
TEST_F(Routes, staleAnswersAreNotTakenForAnothers) {
  struct {
    nlmsghdr header;
    rtmsg route;
  } bad{};
  bad.header = {sizeof bad, RTM_DELROUTE, NLM_F_REQUEST, sock.seq, 0};
  bad.route.rtm_family = AF_INET;
  bad.route.rtm_table = RT_TABLE_MAIN;
  bad.route.rtm_dst_len = 7;
  for (int i = 0; i < 3; ++i) {
    ASSERT_EQ(send(sock.fd, &bad, sizeof bad, 0), static_cast<ssize_t>(sizeof bad));
  }
  EXPECT_EQ(add("20.0.0.0", 24, "10.0.0.2", "rt1"), 0);
  EXPECT_EQ(add("21.0.0.0", 24, "10.0.0.2", "rt7"), REFUSED);
  EXPECT_EQ(del("20.0.0.0", 24), REMOVED);
}

// The receive queue overflows: the kernel may have had an answer that it could not deliver, so nothing is known.
TEST_F(Routes, lostAnswerIsATransportFailure) {
  const int group = RTNLGRP_LINK;
  const int smallest = 1;
  ASSERT_EQ(setsockopt(sock.fd, SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, &group, sizeof group), 0);
  ASSERT_EQ(setsockopt(sock.fd, SOL_SOCKET, SO_RCVBUF, &smallest, sizeof smallest), 0);
  shell("for i in 1 2 3 4 5 6 7 8; do ip link set rt2 mtu 140$i; done");
  EXPECT_EQ(add("20.0.0.0", 24, "10.0.0.2", "rt1", 0), NOT_CARRIED);
  EXPECT_EQ(add("20.0.0.0", 24, "10.0.0.2", "rt1", 0), 0);
  shell("for i in 1 2 3 4 5 6 7 8; do ip link set rt2 mtu 140$i; done");
  EXPECT_EQ(del("20.0.0.0", 24), REFUSED);
  EXPECT_EQ(del("20.0.0.0", 24), NO_SUCH_ROUTE);
}

// Where the kernel offers no shared memory to watch an answer in, as many containers do not, each request looks for its own.
TEST_F(Routes, refusalsAreSeenWithoutIoUring) {
  std::thread([this] {
    sock_filter refuse[] = {BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
                            BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_io_uring_setup, 0, 1),
                            BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EPERM),
                            BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)};
    const sock_fprog program = {std::size(refuse), refuse};
    prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0); // of this thread only, like the filter
    ASSERT_EQ(prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program), 0);
    ASSERT_EQ(procOsapiRouteNetlinkSocketInit(&sock), 0);
    EXPECT_EQ(add("20.0.0.0", 24, "10.0.0.2", "rt1"), 0);
    EXPECT_EQ(add("20.0.1.0", 24, "224.0.0.1", "rt1"), REFUSED);
    EXPECT_EQ(del("20.0.0.0", 24), REMOVED);
    EXPECT_EQ(del("20.0.0.0", 24), NO_SUCH_ROUTE);
  }).join();
}

TEST_F(Routes, oneSocketServesSeveralThreads) {
  std::vector<std::thread> threads;
  std::atomic<int> failures{0};
  for (uint32_t thread = 0; thread < 4; ++thread) {
    threads.emplace_back([&, thread] {
      for (uint32_t i = 0; i < 300; ++i) {
        const uint32_t dest = (20 + thread) << 24 | i << 8;
        failures += procOsapiAddMRoute(dest, mask(24), ip("10.0.0.2"), 1, 0, "rt1", &sock) != 0;
        failures += procOsapiDeleteMRoute(dest, mask(24), 0, 0, "", &sock) != REMOVED;
        failures += procOsapiDeleteMRoute(dest, mask(24), 0, 0, "", &sock) != NO_SUCH_ROUTE;
      }
    });
  }
  for (std::thread &thread : threads) {
    thread.join();
  }
  EXPECT_EQ(failures, 0);
}

TEST_F(Routes, initRemovesWhatAnEarlierAgentLeft) {
  std::ofstream batch("/tmp/routes");
  for (int i = 0; i < 20000; ++i) {
    batch << "route add 20." << i / 256 << '.' << i % 256 << ".0/24 via 10.0.0.2 dev rt1 onlink proto 25\n";
  }
  batch << "route add unreachable 30.0.0.0/8 proto 25\n"
           "route add blackhole 31.0.0.0/8 proto 25\n"
           "route add 0.0.0.0/0 via 10.0.0.2 proto 25\n"
           "route add 32.0.0.0/8 via 10.0.0.2 proto 25\n"
           "route append 32.0.0.0/8 via 10.0.0.3 proto 25\n"
           "route add 32.0.0.0/8 via 10.0.0.3 proto 25 metric 77\n"
           "route add 32.0.0.0/8 tos 0x10 via 10.0.0.3 proto 25\n"
           "route add 33.0.0.0/8 proto 25 nexthop via 10.0.0.2 nexthop via 10.0.2.2\n";
  batch.close();
  shell("ip -batch /tmp/routes");
  shell("ip route add 32.0.0.0/8 via 10.0.0.4 proto static metric 5");
  shell("ip route add 40.0.0.0/8 via 10.0.0.4 proto 26");
  shell("ip route add 41.0.0.0/8 via 10.0.0.4 proto 25 table 100");

  RouteNetlinkSock again = {-1, 0, sock.name};
  const auto start = std::chrono::steady_clock::now();
  ASSERT_EQ(procOsapiRouteNetlinkSocketInit(&again), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3));
  close(again.fd);

  EXPECT_EQ(routes("proto 25"), Lines{});
  EXPECT_EQ(routes("proto static").size(), 1u);
  EXPECT_EQ(routes("proto 26").size(), 1u);
  EXPECT_EQ(routes("proto kernel").size(), 2u);
  EXPECT_EQ(routes("table 100").size(), 1u);
}
