// What the tests of the route import share: a queue, and interface 5, whose device has the kernel index 3 of the messages
// noted down.
#ifndef MIREL_TESTS_RTO_TEST_H
#define MIREL_TESTS_RTO_TEST_H

#include "core_test.h"
#include "mirel_router_table.h"
#include "netlink_bytes.h"
#include "rto_netlink.h"

#include <memory>

// "ip route add 10.50.0.0/16 via 10.9.0.7 dev rt1 proto static metric 77": attributes table, 1, 6, 5, 4.
inline const Bytes ROUTE_STATIC =
    fromHex("4400000018000006838b036b5403000002100000fe0400010000000008000f00fe0000000800010"
            "00a320000080006004d000000080005000a0900070800040003000000");

class RtoTest : public CoreTest {
protected:
  RtoTest() {
    mirelIntIfInfoAllocate();
    table.reset(mirelIntIfInfoTable.load());
    table[5].ipstkIfIndex = 3;
    extRouteQueue = osapiMsgQueueCreate("", 1024, sizeof(rto_extRoute_msg *));
    rtoNetlinkStatsClear();
    scripted::takeCalls();
  }
  ~RtoTest() override {
    rtoDebugMask = 0;
    while (queued()) {
    }
    rtoNetlinkFini();
    mirelIntIfInfoTable = nullptr;
  }

  // The next message of the queue, null when there is none.
  static std::unique_ptr<rto_extRoute_msg> queued() {
    rto_extRoute_msg *msg = nullptr;
    osapiMessageReceive(extRouteQueue, &msg, sizeof msg, QV_NO_WAIT);
    return std::unique_ptr<rto_extRoute_msg>(msg);
  }

  // Every counter that is not 0, since the last look.
  static std::string counters() {
    const struct {
      const char *name;
      const Counter &counter;
    } ROWS[] = {
        {"added", numExtRouteAdds},         {"not added", numExtRouteAddErrors},
        {"deleted", numExtRouteDeletes},    {"not deleted", numExtRouteDeleteErrors},
        {"dropped", numExtRouteQueueDrops}, {"invalid", numExtRouteInvalid},
        {"errors", numRtoNetlinkRxErrors},
    };
    std::string text;
    for (const auto &row : ROWS) {
      if (row.counter != 0) {
        text += std::string(text.empty() ? "" : ", ") + row.name + " " + std::to_string(row.counter);
      }
    }
    rtoNetlinkStatsClear();
    return text;
  }

  std::unique_ptr<MirelIntIfInfo[]> table;
};

#endif
