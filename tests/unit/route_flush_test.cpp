// Which links a kernel route flush takes down and up: from dumps made by hand, and from the kernel's own.

#include "core_test.h"
#include "mirel_best_route.h"
#include "mirel_route_flush.h"
#include "netlink_bytes.h"
#include "own_namespaces.h"

#include <net/if.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const std::string LOG = "log 3 156 application/routing/mirel/core/mirel [VRF \"blue\"]: ";

Bytes name(const std::string &text) {
  return attribute(IFLA_IFNAME, text + '\0');
}

Bytes link(int index, unsigned flags, const Bytes &attributes) {
  ifinfomsg info{};
  info.ifi_index = index;
  info.ifi_flags = flags;
  return message(RTM_NEWLINK, bytesOf(info) + attributes);
}

Bytes upLink(const Bytes &attributes) {
  return link(4, IFF_UP | IFF_RUNNING, attributes);
}

Bytes done() {
  return message(NLMSG_DONE, zeros(4));
}

bool dumpRead(const Bytes &read) {
  return readOf(read, mirelLinkDumpRead);
}

Lines flapOf(const std::string &device) {
  return {"osapiIfFlagChange " + device + " 1 0", "osapiIfFlagChange " + device + " 1 1"};
}

Lines operator+(Lines left, const Lines &right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

class RouteFlushTest : public CoreTest {};

TEST_F(RouteFlushTest, Reads) {
  const std::string badType = LOG + "Some error in retreiving netlink RTM_NEWLINK message type ";
  const std::string noName = LOG + "Unable to get interface name for interface idx ";
  const struct {
    const char *what;
    Bytes read;
    bool ended;
    Lines calls;
  } CASES[] = {
      {"router link", upLink(name("rt1")), false, flapOf("rt1")},
      {"rt anywhere in the name", upLink(name("port7")), false, flapOf("port7")},
      {"another name", upLink(name("lo")), false, {}},
      {"link that is down", link(4, IFF_RUNNING, name("rt1")), false, {}},
      {"other attributes around", upLink(attribute(IFLA_ADDRESS, "rt1rt1") + name("rt2") + attribute(IFLA_MTU, "1234")),
       false, flapOf("rt2")},
      {"last name counts", upLink(name("rt1") + name("rt2")), false, flapOf("rt2")},
      {"last name counts, and is no router link", upLink(name("rt1") + name("eth0")), false, {}},
      {"last name is all of the name", upLink(name("port7") + attribute(IFLA_IFNAME, "lo")), false, {}},
      {"name without NUL", upLink(attribute(IFLA_IFNAME, "rt5")), false, flapOf("rt5")},
      {"no name", link(9, IFF_UP, attribute(IFLA_MTU, "1234")), false, {noName + "9"}},
      {"no attributes", link(9, IFF_UP, {}), false, {noName + "9"}},
      {"name is not kept for the next message", upLink(name("rt1")) + link(9, IFF_UP, {}), false,
       flapOf("rt1") + Lines{noName + "9"}},
      {"attribute too long", upLink(cut(4, name("rt1"))), false, {noName + "4"}},
      {"attribute too long after the name", upLink(name("rt1") + cut(8, attribute(IFLA_IFNAME, "eth00000000"))), false,
       flapOf("rt1")},
      {"attribute shorter than its header", upLink(zeros(4)), false, {noName + "4"}},
      {"end", done(), true, {}},
      {"end in the middle", upLink(name("rt1")) + done() + upLink(name("rt2")), true, flapOf("rt1") + flapOf("rt2")},
      {"error ends the dump", message(NLMSG_ERROR, zeros(20)), true, {badType + "2, length 36"}},
      {"links before and after an error", upLink(name("rt1")) + message(NLMSG_ERROR, zeros(20)) + upLink(name("rt2")),
       true, flapOf("rt1") + Lines{badType + "2, length 36"} + flapOf("rt2")},
      {"another type", message(RTM_NEWADDR, zeros(8)), false, {badType + "20, length 24"}},
      {"nothing", {}, false, {}},
      {"less than a header", zeros(15), false, {}},
      {"length of the read", claiming(40, upLink(name("rt1"))), false, flapOf("rt1")},
      {"length below a header", claiming(15, upLink(name("rt1"))), false, {}},
      {"length just above the read", claiming(45, upLink(name("rt1"))), false, {}},
      {"length above the read", claiming(4096, upLink(name("rt1"))), false, {}},
      {"second message cut", upLink(name("rt1")) + cut(4, upLink(name("rt2"))), false, flapOf("rt1")},
  };
  for (const auto &row : CASES) {
    EXPECT_EQ(dumpRead(row.read), row.ended) << row.what;
    EXPECT_EQ(scripted::takeCalls(), row.calls) << row.what;
  }
}

TEST_F(RouteFlushTest, ReadsThatBreakOff) {
  const Bytes dump = upLink(attribute(IFLA_ADDRESS, "abcdef") + name("rt1")) + link(5, 0, {}) +
                     message(RTM_NEWLINK, zeros(3)) + message(NLMSG_ERROR, {}) + done();
  readEveryCut(dump, mirelLinkDumpRead);
  EXPECT_THAT(scripted::takeCalls(), testing::Contains("osapiIfFlagChange rt1 1 1"));
}

TEST_F(RouteFlushTest, FlapThatFails) {
  scripted::script("osapiIfFlagChange: 1");
  dumpRead(upLink(name("rt1")) + upLink(name("rt2")));
  const Lines calls = scripted::takeCalls();
  ASSERT_EQ(calls.size(), 5u);
  EXPECT_EQ(calls[2], LOG + "Failed to flap the interface rt1.");
  EXPECT_EQ(calls[4], "osapiIfFlagChange rt2 1 1");
}

// Enough links for several reads.
TEST_F(RouteFlushTest, LinksOfTheKernel) {
  shell("for i in 1 2 3 4 5 6; do ip link add rt$i type veth peer name h$i || exit 1; done;"
        "for d in rt1 rt3 rt6 h2 lo; do ip link set $d up || exit 1; done");
  mirelKernelRoutesFlush();
  shell("for i in 1 2 3 4 5 6; do ip link del rt$i || exit 1; done");
  const Lines expected = flapOf("rt1") + flapOf("rt3") + flapOf("rt6");
  EXPECT_THAT(scripted::takeCalls(), testing::UnorderedElementsAreArray(expected));
}

TEST_F(RouteFlushTest, LeavesNoDescriptor) {
  const int before = dup(0);
  close(before);
  mirelKernelRoutesFlush();
  const int after = dup(0);
  close(after);
  EXPECT_EQ(after, before);
}

} // namespace
