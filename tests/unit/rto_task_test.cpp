// Reports to RTO: what becomes of each answer, the task that makes them, and the operator's counters.

#include "mirel_debug.h"
#include "rto_test.h"

#include <thread>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const std::string AREA = " 156 application/routing/mirel/core/rto_netlink ";

rto_extRoute_msg ipv4Message(uint32_t action) {
  rto_extRoute_msg msg{};
  msg.action = action;
  msg.ipv4.destination = ipv4(10, 1, 0, 0);
  msg.ipv4.mask = 0xffff0000;
  msg.ipv4.routeType = 2;
  msg.ipv4.nextHops[0] = {.gateway = ipv4(10, 9, 0, 7), .intIfNum = 5};
  msg.ipv4.numNextHops = 1;
  return msg;
}

rto_extRoute_msg ipv6Message(uint32_t action) {
  rto_extRoute_msg msg{};
  msg.action = action;
  memcpy(msg.ipv6.destination, "\x20\x01\x0d\xb8", 4);
  msg.ipv6.prefixLen = 48;
  msg.ipv6.routeType = 2;
  memcpy(msg.ipv6.nextHops[0].gateway, "\x20\x01\x0d\xb8\0\0\0\0\0\0\0\0\0\0\0\x02", 16);
  msg.ipv6.nextHops[0].intIfNum = 5;
  msg.ipv6.numNextHops = 1;
  return msg;
}

class RtoTaskTest : public RtoTest {};

TEST_F(RtoTaskTest, Outcomes) {
  const std::string call = "rpcclt_tarnapiKernelRoute";
  const std::string route4 = "kernel route ip 10.1.0.0 mask 255.255.0.0 via 10.9.0.7 on IntIf 5.";
  const std::string route6 = "kernel IPv6 route 2001:db8::/48 via 2001:db8::2 on IntIf 5.";
  const struct {
    rto_extRoute_msg msg;
    std::string call;
    std::string doing; // in the log
    std::string route;
    std::string counter;
    int silent; // status
    int noted;
  } OPERATIONS[] = {
      {ipv4Message(1), call + "AddVr", "add", route4, "added", 6, 7},
      {ipv4Message(2), call + "DelVr", "delet", route4, "deleted", 5, -1},
      {ipv6Message(3), call + "AddVr", "add", route6, "added", 6, 7},
      {ipv6Message(4), call + "DelVr", "delet", route6, "deleted", 5, -1},
  };
  const struct {
    const char *result;
    int status;
  } RESULTS[] = {{"0", 0}, {"-26", 1}, {"-25", 5}, {"-24", 6}, {"-23", 7}, {"-29", 5}, {"1", 5}};
  for (const auto &operation : OPERATIONS) {
    for (const auto &row : RESULTS) {
      scripted::script(operation.call + ": " + row.result);
      rtoExternalRouteReport(operation.msg);
      const Lines calls = scripted::takeCalls();
      const std::string what = operation.call + " " + operation.route + " " + row.result;
      ASSERT_FALSE(calls.empty()) << what;
      EXPECT_TRUE(calls[0].starts_with(operation.call + " 3 ")) << what;
      Lines logs(calls.begin() + 1, calls.end());
      if (row.status == 0) {
        EXPECT_EQ(logs, Lines{"log 6" + AREA + "Successfully " + operation.doing + "ed " + operation.route}) << what;
        EXPECT_EQ(counters(), operation.counter + " 1") << what;
      } else if (row.status == operation.silent) {
        EXPECT_THAT(logs, IsEmpty()) << what;
        EXPECT_EQ(counters(), "") << what;
      } else {
        EXPECT_EQ(logs,
                  Lines{std::string("log ") + (row.status == operation.noted ? "6" : "3") + AREA + "Failed " +
                        operation.doing + "ing " + operation.route + " Error: " + std::to_string(row.status) + "."})
            << what;
        EXPECT_EQ(counters(), "not " + operation.counter + " 1") << what;
      }
    }
  }
}

// What the platform gets is shown with the messages of the kernel; these come from nowhere.
TEST_F(RtoTaskTest, Messages) {
  rto_extRoute_msg many = ipv4Message(RT_NETLINK_ADD);
  many.ipv4.numNextHops = 17;
  rtoExternalRouteReport(many);
  std::string hops = " via 10.9.0.7 5";
  for (int i = 1; i < 16; ++i) {
    hops += " via 0.0.0.0 0";
  }
  EXPECT_EQ(scripted::takeCalls().front(),
            "rpcclt_tarnapiKernelRouteAddVr 3 10.1.0.0/16 type 2 proto 0 reject 0 discard 0 "
            "report 0 metric 0 hops 16 [576]" +
                hops);
  for (const uint32_t action : {0u, 5u, 6u, UINT32_MAX}) {
    rtoExternalRouteReport(ipv4Message(action));
    EXPECT_THAT(scripted::takeCalls(), ElementsAre("log 3 24 application/routing/mirel/core/rto_netlink Action " +
                                                   std::to_string(static_cast<int>(action)) + " not supported "));
  }
}

TEST_F(RtoTaskTest, FailureIsTracedWithItsStatus) {
  rtoDebugMask = 8;
  scripted::script("rpcclt_tarnapiKernelRouteAddVr: -22\nrpcclt_tarnapiKernelRouteDelVr: -26");
  const std::string text = printed([] {
    rtoExternalRouteReport(ipv4Message(RT_NETLINK_ADD));
    rtoExternalRouteReport(ipv6Message(RT_NETLINK_DELETE6));
  });
  EXPECT_THAT(text,
              testing::MatchesRegex(".*]:mirelToRtoRouteAdd:[0-9]+:  tarnapiKernelRouteAddVr failed. rc = 5\n"
                                    ".*]:mirelToRtoRoute6Delete:[0-9]+:  tarnapiKernelRouteDelVr failed. rc = 1\n"));
}

TEST_F(RtoTaskTest, CountersOfTheOperator) {
  mirelShellOperationsRegister();
  uint32_t value = 0;
  for (Counter *counter : {&numExtRouteAdds, &numExtRouteAddErrors, &numExtRouteDeletes, &numExtRouteDeleteErrors,
                           &numExtRouteQueueDrops, &numExtRouteInvalid, &numRtoNetlinkRxErrors}) {
    *counter = ++value;
  }
  EXPECT_EQ(printed([] { scripted::run("rtoNetlinkStatsShow"); }),
            "\nCount of successful route add: 1\n"
            "\nCount of unsuccessful route add: 2\n"
            "\nCount of successful route delete: 3\n"
            "\nCount of unsuccessful route delete: 4\n"
            "\nCount of queue drops while queueing to qv-ext-route-task: 5\n"
            "\nCount of invalid routes recieved and discarded: 6\n"
            "\nCount of RTO netlink socket receive errors: 7\n");
  numExtRouteAdds = UINT32_MAX;
  EXPECT_THAT(printed([] { scripted::run("rtoNetlinkStatsShow json"); }),
              testing::HasSubstr("\"numExtRouteAdds\": 4294967295"));
  EXPECT_EQ(printed([] { scripted::run("rtoNetlinkStatsClear"); }), "");
  EXPECT_EQ(counters(), "");
}

} // namespace
