// The kernel's neighbours on their way into the switch's ARP cache, and its questions answered from there. The messages are
// those of a kernel, noted down, and what can be made of them by hand.

#include "mirel_arp.h"
#include "netlink_bytes.h"
#include "router_test.h"
#include "unique_fd.h"

#include <net/if.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>

namespace {

using testing::EndsWith;
using testing::ExitedWithCode;

// "ip neigh add 10.9.0.7 lladdr 02:00:00:00:00:07 dev rt1 nud reachable", rt1 having index 3: attributes 1, 2, 4, 3.
const Bytes NEW = fromHex("4c0000001c0000000000000047030000020000000300000002000001080001000a0900070a000200020000000007"
                          "000008000400000000001400030000000000000000000000000002000000");
// "ip neigh del" of it, which tells of a failed entry first.
const Bytes NEW_FAILED = fromHex("400000001c0000000000000050030000020000000300000020000001080001000a090007080004000000"
                                 "00001400030078000000780000007800000001000000");
const Bytes DEL = fromHex("400000001d0000000000000000000000020000000300000020000001080001000a09000708000400000000001400"
                          "030078000000780000007800000000000000");
// The kernel asks for 10.9.0.9.
const Bytes GET = fromHex("400000001e0001000000000000000000020000000300000001000001080001000a09000908000400030000001400"
                          "030070170000000000000000000001000000");

constexpr size_t FLAGS_AT = offsetof(nlmsghdr, nlmsg_flags);
constexpr size_t FAMILY_AT = sizeof(nlmsghdr) + offsetof(ndmsg, ndm_family);
constexpr size_t IFINDEX_AT = sizeof(nlmsghdr) + offsetof(ndmsg, ndm_ifindex);

const Bytes ADDRESS = attribute(NDA_DST, fromHex("0a090007"));
const Bytes MAC = attribute(NDA_LLADDR, fromHex("020000000007"));
const Bytes BROADCAST = attribute(NDA_LLADDR, fromHex("ffffffffffff"));
const Bytes PROBES = attribute(NDA_PROBES, zeros(4));

Bytes neighbour(uint16_t type, uint16_t state, const Bytes &attributes) {
  ndmsg header{};
  header.ndm_family = AF_INET;
  header.ndm_ifindex = 3;
  header.ndm_state = state;
  return message(type, bytesOf(header) + attributes);
}

const std::string ADD_CALL = "rpcclt_tarnapiKernelArpAdd 3 10.9.0.7 020000000007[6] 3 2\n";
const std::string DELETE_CALL = "rpcclt_tarnapiKernelArpDelete 3 10.9.0.7 3\n";
const std::string RESOLVE_CALL = "rpcclt_tarnapiArpResolve 3 10.9.0.9 [6] 10.9.0.9 3 0\n";
const std::string ADDED =
    "log 6 156 application/routing/mirel/core/mirel_arp Kernel ARP entry is successfully added in to "
    "the ARP cache of VRF \"blue\".\n";
const std::string DELETED =
    "log 6 156 application/routing/mirel/core/mirel_arp Kernel ARP entry is successfully deleted "
    "from ARP cache of VRF \"blue\".\n";
const std::string BROADCAST_IGNORED =
    "log 5 156 application/routing/mirel/core/mirel_arp Ignoring the kernel ARP entry "
    "added with broadcat MAC in VRF \"blue\".\n";

class NeighbourTest : public RouterTest {
protected:
  static void SetUpTestSuite() {
    RouterTest::SetUpTestSuite();
    shell("ip link set rt1 up && ip link set h1 up");
  }

  NeighbourTest() { arpIoctlSock = requests.get(); }
  ~NeighbourTest() override { arpIoctlSock = -1; }

  // The calls but those for the two gateways, a line each, since the last look.
  static std::string calls() {
    std::string text;
    for (const std::string &line : scripted::takeCalls()) {
      if (line.find("PortGateway") == std::string::npos) {
        text += line + '\n';
      }
    }
    return text;
  }

  // Every counter that is not 0, since the last look.
  static std::string counters() {
    const struct {
      const char *name;
      const Counter &counter;
    } ROWS[] = {
        {"adds", statsHandle.numKernelArpAddsRcvd}, {"added", statsHandle.numKernelArpAddsProcessed},
        {"dels", statsHandle.numKernelArpDelsRcvd}, {"deleted", statsHandle.numKernelArpDelsProcessed},
        {"requests", statsHandle.numArpReqs},       {"request errors", statsHandle.numArpReqErrors},
        {"resolves", statsHandle.numArpResolves},   {"resolve errors", statsHandle.numArpResolveErrors},
    };
    std::string text;
    for (const auto &row : ROWS) {
      if (row.counter != 0) {
        text += std::string(text.empty() ? "" : ", ") + row.name + " " + std::to_string(row.counter);
      }
    }
    statsHandle = MirelStats{};
    return text;
  }

  const UniqueFd requests{socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
};

TEST_F(NeighbourTest, Messages) {
  const std::string service = "rpcclt_tarnapiServicePortGatewayIPv4AddrGet: 0 ";
  const std::string network = "rpcclt_tarnapiNetworkPortGatewayIPv4AddrGet: 0 ";
  const Bytes reachable = neighbour(RTM_NEWNEIGH, NUD_REACHABLE, MAC + PROBES + ADDRESS);
  const struct {
    const char *what;
    Bytes datagram;
    std::string script;
    std::string calls;
    std::string counters;
  } CASES[] = {
      {"new", NEW, "", ADD_CALL + ADDED, "adds 1, added 1"},
      {"new and failed", NEW_FAILED, "", DELETE_CALL + DELETED, "adds 1, deleted 1"},
      {"new and failed, with a MAC", neighbour(RTM_NEWNEIGH, NUD_FAILED, ADDRESS + MAC), "", DELETE_CALL + DELETED,
       "adds 1, deleted 1"},
      {"dropped", DEL, "", DELETE_CALL + DELETED, "dels 1, deleted 1"},
      {"attributes the other way round", reachable, "", ADD_CALL + ADDED, "adds 1, added 1"},
      {"new without a MAC", neighbour(RTM_NEWNEIGH, NUD_INCOMPLETE, ADDRESS), "", "", "adds 1"},
      {"new without an address", neighbour(RTM_NEWNEIGH, NUD_REACHABLE, MAC), "", "", "adds 1"},
      {"failed without an address", neighbour(RTM_NEWNEIGH, NUD_FAILED, MAC), "", "", "adds 1"},
      {"dropped without an address", neighbour(RTM_DELNEIGH, NUD_STALE, MAC), "", "", "dels 1"},
      {"gateway of the service port", NEW, service + "10.9.0.7", "", "adds 1"},
      {"gateway of the network port", DEL, network + "10.9.0.7", "", "dels 1"},
      {"other gateways", NEW, service + "10.9.0.8\n" + network + "10.9.0.9", ADD_CALL + ADDED, "adds 1, added 1"},
      {"address 0 is no gateway", neighbour(RTM_DELNEIGH, NUD_STALE, attribute(NDA_DST, zeros(4))), "",
       "rpcclt_tarnapiKernelArpDelete 3 0.0.0.0 3\n" + DELETED, "dels 1, deleted 1"},
      {"broadcast", neighbour(RTM_NEWNEIGH, NUD_REACHABLE, ADDRESS + BROADCAST), "", BROADCAST_IGNORED, "adds 1"},
      {"broadcast before the address of a drop", neighbour(RTM_DELNEIGH, NUD_STALE, BROADCAST + ADDRESS), "",
       BROADCAST_IGNORED, "dels 1"},
      {"nothing is read behind the address of a drop", neighbour(RTM_DELNEIGH, NUD_STALE, ADDRESS + BROADCAST), "",
       DELETE_CALL + DELETED, "dels 1, deleted 1"},
      {"short attributes",
       neighbour(RTM_NEWNEIGH, NUD_REACHABLE,
                 attribute(NDA_DST, "abc") + attribute(NDA_LLADDR, "abcde") + MAC + ADDRESS),
       "", ADD_CALL + ADDED, "adds 1, added 1"},
      {"attribute that does not fit", cut(4, neighbour(RTM_NEWNEIGH, NUD_REACHABLE, ADDRESS + MAC)), "", "", "adds 1"},
      {"claims more than came", claiming(4096, NEW), "", ADD_CALL + ADDED, "adds 1, added 1"},
      {"claims less than came", claiming(36, NEW), "", "", "adds 1"},
      {"claims less than its header", claiming(12, NEW), "", "", ""},
      {"only the first message", NEW + DEL, "", ADD_CALL + ADDED, "adds 1, added 1"},
      {"IPv6", with(FAMILY_AT, AF_INET6, NEW), "", "", ""},
      {"flags of a request", with(FLAGS_AT, NLM_F_REQUEST | NLM_F_MULTI, DEL), "", DELETE_CALL + DELETED,
       "dels 1, deleted 1"},
      {"other flags", with(FLAGS_AT + 1, NLM_F_CREATE >> 8, NEW), "", "", ""},
      {"other type", message(RTM_NEWROUTE, zeros(60)), "", "", ""},
      {"question", GET, "", RESOLVE_CALL, "requests 1, resolves 1"},
      {"question without an interface", GET, "rpcclt_tarnapiArpResolve: -29", RESOLVE_CALL,
       "requests 1, request errors 1"},
      {"question without an answer", GET, "rpcclt_tarnapiArpResolve: -26", RESOLVE_CALL, "requests 1"},
      {"question without an address", neighbour(RTM_GETNEIGH, NUD_INCOMPLETE, MAC), "", "", "request errors 1"},
      {"question, address behind others",
       neighbour(RTM_GETNEIGH, NUD_INCOMPLETE, PROBES + MAC + attribute(NDA_DST, fromHex("0a090009"))), "",
       RESOLVE_CALL, "requests 1, resolves 1"},
      {"question for IPv6", with(FAMILY_AT, AF_INET6, GET), "", "", ""},
  };
  for (const auto &row : CASES) {
    startAgain();
    scripted::script(row.script);
    readOf(row.datagram, mirelNeighbourDatagramProcess);
    std::string made = calls();
    made = made.substr(0, made.find("rpcclt_tarnapiRtrIntf")); // index 3 may be a device, or be looked for
    EXPECT_EQ(made, row.calls) << row.what;
    EXPECT_EQ(counters(), row.counters) << row.what;
  }
}

TEST_F(NeighbourTest, MessagesThatBreakOff) {
  for (const Bytes &datagram : {NEW, NEW_FAILED, DEL, GET, NEW + DEL}) {
    readEveryCut(datagram, mirelNeighbourDatagramProcess);
    for (size_t at = sizeof(nlmsghdr) + sizeof(ndmsg); at < datagram.size(); at += 4) {
      for (const uint8_t length : {uint8_t{0}, uint8_t{3}, uint8_t{5}, uint8_t{255}}) { // of what may be an attribute
        readOf(with(at, length, datagram), mirelNeighbourDatagramProcess);
      }
    }
  }
  EXPECT_NE(counters(), "");
}

// What the switch answers is told by the last trace.
TEST_F(NeighbourTest, Answers) {
  const std::string add = "Failed to add Kernel ARP entry in to ARP cache";
  const std::string del = "Failed to delete Kernel ARP entry from ARP cache";
  const struct {
    const Bytes &datagram;
    const char *script;
    std::string trace;
  } CASES[] = {
      {NEW, "", "Kernel ARP entry is successfully added in to the ARP cache.\n"},
      {NEW, "rpcclt_tarnapiKernelArpAdd: -24", add + " as it is an existing entry.\n"},
      {NEW, "rpcclt_tarnapiKernelArpAdd: -21", add + " as the address belongs to a local interface.\n"},
      {NEW, "rpcclt_tarnapiKernelArpAdd: -29", add + ".\n"},
      {DEL, "", "Kernel ARP entry is successfully deleted from ARP cache.\n"},
      {DEL, "rpcclt_tarnapiKernelArpDelete: -29", del + " as the entry does not exist.\n"},
      {DEL, "rpcclt_tarnapiKernelArpDelete: -28", del + " as it is not a kernel entry.\n"},
      {DEL, "rpcclt_tarnapiKernelArpDelete: -24", del + ".\n"},
  };
  for (const auto &row : CASES) {
    mirelDebugFlags = 2;
    scripted::script(row.script);
    EXPECT_THAT(printed([&] { readOf(row.datagram, mirelNeighbourDatagramProcess); }),
                EndsWith("]:process_neigh_add_del: " + row.trace));
    EXPECT_EQ(calls().find("log ") != std::string::npos, row.script[0] == '\0') << row.trace;
  }
  scripted::script("rpcclt_tarnapiArpResolve: -29");
  const std::string name = "[blue (VRF 3)]:process_getneigh_request: ";
  EXPECT_EQ(printed([] { readOf(GET, mirelNeighbourDatagramProcess); }),
            name + "ndmsg attributes:\n" + name + "ndm_family = 2\n" + name + "ndm_ifindex = 3\n" + name +
                "state = 0x1\n" + name + "flags = 0x0\n" + name + "found ip address 0xa090009\n" + name +
                "Failed to get interface number for IP Addr a090009\n");
}

TEST_F(NeighbourTest, AnsweredQuestionIsWrittenIntoTheKernel) {
  const Bytes question = with(IFINDEX_AT, static_cast<uint8_t>(if_nametoindex("rt1")), GET);
  scripted::script("rpcclt_tarnapiArpResolve: 0 02aabbccddee");
  readOf(question, mirelNeighbourDatagramProcess);
  EXPECT_NO_THROW(shell("ip neigh show dev rt1 | grep -q '^10.9.0.9 lladdr 02:aa:bb:cc:dd:ee STALE'"));
  shell("ip neigh del 10.9.0.9 dev rt1");
}

// IPv6 neighbours do not even reach the socket, so that the first message is the one of an IPv4 neighbour.
TEST_F(NeighbourTest, MessagesOfTheKernel) {
  ASSERT_EQ(mirelArpNetlinkInit(&arpd_nl_fd), 0);
  shell("ip -6 neigh add 2001:db8::7 lladdr 02:00:00:00:00:08 dev rt1; "
        "ip neigh add 10.9.0.7 lladdr 02:00:00:00:00:07 dev rt1 nud reachable");
  pollfd readable{.fd = arpd_nl_fd, .events = POLLIN, .revents = 0};
  ASSERT_EQ(poll(&readable, 1, 10000), 1);
  EXPECT_EQ(mirelArpNetlinkEvntHandle(), 0);
  const std::string index = std::to_string(if_nametoindex("rt1"));
  EXPECT_EQ(calls(), "rpcclt_tarnapiKernelArpAdd 3 10.9.0.7 020000000007[6] " + index + " 2\n" + ADDED);
  EXPECT_EQ(counters(), "adds 1, added 1");
  shell("ip neigh del 10.9.0.7 dev rt1");
  close(arpIoctlSock);
  close(arpd_nl_fd);
  arpd_nl_fd = -1;
  mirelArpNetlinkEvntHandle();
  EXPECT_EQ(counters(), "request errors 1");
}

// As if so many descriptors were left. What is done at the end of a process may need some again.
[[noreturn]] void setUpWithDescriptors(unsigned left) {
  static rlimit many;
  getrlimit(RLIMIT_NOFILE, &many);
  atexit([] { setrlimit(RLIMIT_NOFILE, &many); });
  const int next = dup(STDERR_FILENO);
  close(next);
  const rlimit few{.rlim_cur = static_cast<rlim_t>(next) + left, .rlim_max = many.rlim_max};
  setrlimit(RLIMIT_NOFILE, &few);
  Relaxed<int> fd = -1;
  mirelArpNetlinkInit(&fd);
  abort();
}

TEST_F(NeighbourTest, SetupThatFails) {
  EXPECT_EXIT(setUpWithDescriptors(0), ExitedWithCode(0), "cannot open netlink socket: Too many open files");
  EXPECT_EXIT(setUpWithDescriptors(1), ExitedWithCode(0), "socket open on ioctl socket failed: Too many open files");
}

} // namespace
