// The listener on its socket: datagrams that another program sends, and the kernel's own.

#include "own_namespaces.h"
#include "rto_test.h"
#include "unique_fd.h"

#include <atomic>
#include <chrono>
#include <fstream>
#include <mutex>
#include <net/if.h>
#include <set>
#include <sstream>
#include <sys/socket.h>
#include <thread>

namespace {

constexpr uint32_t ROUTE_GROUPS = RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_ROUTE;
const std::string LOG = "log 3 24 application/routing/mirel/core/rto_netlink ";

class RtoListenTest : public RtoTest {
protected:
  RtoListenTest() {
    EXPECT_EQ(rtoNetlinkSocketOpen(&handle, ROUTE_GROUPS, NETLINK_ROUTE), 0);
    types.clear();
  }
  ~RtoListenTest() override {
    if (handle.fd >= 0) {
      rtoNetlinkSocketClose(&handle);
    }
  }

  // One datagram to the listener's socket.
  void sendTo(const Bytes &datagram) const {
    sockaddr_nl to{};
    socklen_t length = sizeof to;
    ASSERT_EQ(getsockname(handle.fd, reinterpret_cast<sockaddr *>(&to), &length), 0);
    to.nl_groups = 0;
    const UniqueFd sock(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
    ASSERT_EQ(sendto(sock.get(), datagram.data(), datagram.size(), 0, reinterpret_cast<const sockaddr *>(&to), length),
              static_cast<ssize_t>(datagram.size()));
  }

  static int noteType(const NetlinkMessage &message) {
    types += std::to_string(message.type) + " ";
    return message.type == 77 ? 5 : 0;
  }

  RtoNetlinkHandle handle;
  static inline std::string types; // of the messages that the handler has seen
};

Bytes ofType(uint16_t type) {
  return message(type, zeros(8));
}

// What each datagram brings, and how a listen ends that meets it. A sound one is followed by one that ends the listen.
TEST_F(RtoListenTest, Datagrams) {
  const std::string malformed = LOG + "Malformed message encountered: len=";
  const std::string truncated = LOG + "Truncated message encountered - msg flags 0x20";
  const std::string remnant = LOG + "Encountered message remnant of size ";
  const Bytes stop = ofType(77);
  const struct {
    const char *what;
    Bytes datagram;
    int result;
    const char *types;
    Lines logs;
  } CASES[] = {
      {"one message", ofType(24), 5, "24 77 ", {}},
      {"two messages", ofType(24) + ofType(25), 5, "24 25 77 ", {}},
      {"a message of header only", message(30, {}), 5, "30 77 ", {}},
      {"message whose padding is cut", cut(3, message(24, "x")), 5, "24 77 ", {}},
      {"the handler refuses", ofType(24) + stop + ofType(25), 5, "24 77 ", {}},
      {"too long", claiming(28, ofType(24)), 2, "", {malformed + "28", ""}},
      {"far too long", claiming(UINT32_MAX, ofType(24)), 2, "", {malformed + "-1", ""}},
      {"shorter than its header", claiming(15, ofType(24)), 2, "", {malformed + "15", ""}},
      {"second one too long", ofType(24) + claiming(28, ofType(25)), 2, "24 ", {malformed + "28", ""}},
      {"remnant", ofType(24) + zeros(15), 2, "24 ", {remnant + "15 after processing message", ""}},
      {"less than a header", zeros(4), 2, "", {remnant + "4 after processing message", ""}},
      {"longer than the buffer, cut inside a message", message(24, zeros(8180)), 1, "", {truncated}},
      {"longer than the buffer, cut between messages",
       message(24, zeros(8192 - 16)) + ofType(25),
       5,
       "24 77 ",
       {truncated}},
      {"longer than the buffer, cut in a header",
       message(24, zeros(8192 - 16 - 8)) + ofType(25),
       5,
       "24 77 ",
       {truncated}},
  };
  for (const auto &row : CASES) {
    types.clear();
    sendTo(row.datagram);
    sendTo(stop);
    EXPECT_EQ(rtoNetlinkListen(&handle, noteType), row.result) << row.what;
    EXPECT_EQ(types, row.types) << row.what;
    Lines logs;
    for (const std::string &line : scripted::takeCalls()) {
      std::istringstream text(line); // a text that ends its line makes two
      for (std::string part; std::getline(text, part);) {
        logs.push_back(part);
      }
      if (line.ends_with("\n")) {
        logs.push_back("");
      }
    }
    EXPECT_EQ(logs, row.logs) << row.what;
    for (char rest; recv(handle.fd, &rest, sizeof rest, MSG_DONTWAIT) >= 0;) {
    }
  }
  EXPECT_EQ(counters(), "");
}

Bytes ofRoute(uint16_t type, uint8_t routeTable, uint8_t protocol) {
  rtmsg header{};
  header.rtm_table = routeTable;
  header.rtm_protocol = protocol;
  return message(type, bytesOf(header));
}

// The kernel's filter takes away what the agent has announced itself, and not a byte more.
TEST_F(RtoListenTest, OwnRoutesDoNotArrive) {
  sendTo(ofRoute(RTM_NEWROUTE, RT_TABLE_MAIN, 25));
  sendTo(ofRoute(RTM_DELROUTE, RT_TABLE_MAIN, 25) + zeros(100));
  sendTo(ofRoute(RTM_NEWROUTE, RT_TABLE_MAIN, 24));
  sendTo(ofRoute(RTM_DELROUTE, RT_TABLE_LOCAL, 25));
  sendTo(ofRoute(RTM_GETROUTE, RT_TABLE_MAIN, 25));
  sendTo(ofRoute(RTM_NEWLINK, RT_TABLE_MAIN, 25));
  sendTo(claiming(24, cut(4, ofRoute(RTM_NEWROUTE, RT_TABLE_MAIN, 25)))); // short by its flags
  sendTo(ofType(77));
  EXPECT_EQ(rtoNetlinkListen(&handle, noteType), 5);
  EXPECT_EQ(types, "24 25 26 16 24 77 ");
}

TEST_F(RtoListenTest, SocketsThatEndTheListen) {
  int pair[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
  RtoNetlinkHandle other;
  other.fd = pair[0];
  ASSERT_EQ(write(pair[1], "x", 1), 1);
  EXPECT_EQ(rtoNetlinkListen(&other, noteType), 2);
  close(pair[1]);
  EXPECT_EQ(rtoNetlinkListen(&other, noteType), 1);
  EXPECT_EQ(scripted::takeCalls(), (Lines{LOG + "Unexpected sender address length == 0", LOG + "EOF on netlink"}));
  rtoNetlinkSocketClose(&other);
  EXPECT_EQ(other.fd, -1);
}

TEST_F(RtoListenTest, Socket) {
  int size = 0;
  socklen_t length = sizeof size;
  getsockopt(handle.fd, SOL_SOCKET, SO_RCVBUF, &size, &length);
  EXPECT_EQ(size, 2 * 1048576) << "the kernel doubles what it is asked for";
  EXPECT_NE(handle.sequence, 0u);
  RtoNetlinkHandle none;
  EXPECT_EQ(rtoNetlinkSocketOpen(&none, 0, 9999), 1);
  EXPECT_EQ(none.fd, -1);
  EXPECT_EQ(scripted::takeCalls(), Lines{LOG + "failed to open netlink socket"});
}

// The listener on a thread of its own, in front of the kernel; the test is the task. While the gate is shut, the listener
// stands still with a message in its hand, and the kernel drops what finds no room in the socket.
class RtoLossTest : public RtoListenTest {
protected:
  static void SetUpTestSuite() {
    shell("ip link add rt1 type veth peer name h1 && ip link set rt1 up && ip link set h1 up && "
          "ip addr add 10.9.0.1/24 dev rt1");
  }
  static void TearDownTestSuite() { shell("ip link del rt1"); }

  RtoLossTest() {
    table[5].ipstkIfIndex = if_nametoindex("rt1");
    rtoNetlinkSocketClose(&handle);
    EXPECT_EQ(rtoNetlinkSocketOpen(&handle, ROUTE_GROUPS, NETLINK_ROUTE), 0); // without what set-up has announced
    const int small = 4096;
    setsockopt(handle.fd, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
  }

  static int gated(const NetlinkMessage &message) {
    { const std::lock_guard pass(gate); }
    return message.type == 77 ? 5 : rtoAcceptMsg(message);
  }

  // 250 routes 10.<net>.x.0/24, in one go.
  static void routes(const char *verb, int net) {
    std::ofstream batch("/tmp/routes");
    for (int i = 0; i < 250; ++i) {
      batch << "route " << verb << " 10." << net << "." << i << ".0/24 via 10.9.0.7 proto static\n";
    }
    batch.close();
    shell("ip -batch /tmp/routes");
  }

  // Takes messages until a dump has come whole; returns how many routes of the net it holds.
  static size_t dumped(int net) {
    std::set<uint32_t> found;
    for (const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
         std::chrono::steady_clock::now() < deadline; std::this_thread::yield()) {
      const auto msg = queued();
      if (msg && msg->action == RT_RESYNC_BEGIN) {
        found.clear();
      } else if (msg && msg->action == RT_RESYNC_ROUTE &&
                 (msg->ipv4.destination >> 16 & 0xff) == static_cast<uint32_t>(net)) {
        found.insert(msg->ipv4.destination);
      } else if (msg && msg->action == RT_RESYNC_END) {
        return found.size();
      }
    }
    ADD_FAILURE() << "no whole dump came";
    return 0;
  }

  static inline std::mutex gate;
};

TEST_F(RtoLossTest, ADumpFollowsLostNotifications) {
  int result = 0;
  gate.lock();
  routes("add", 201);
  std::thread listener([&] { result = rtoNetlinkListen(&handle, gated); });
  gate.unlock();
  EXPECT_EQ(dumped(201), 250u);
  EXPECT_GE(numRtoNetlinkRxErrors, 1u);

  // A second loss within the second: the dump comes when it is over, though no notification comes then.
  gate.lock();
  const uint32_t errors = numRtoNetlinkRxErrors;
  routes("del", 201);
  gate.unlock();
  EXPECT_EQ(dumped(201), 0u);
  EXPECT_GE(numRtoNetlinkRxErrors, errors + 1);

  sendTo(ofType(77));
  listener.join();
  EXPECT_EQ(result, 5);
}

} // namespace
