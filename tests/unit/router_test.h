// What the tests of router interfaces share: interface 5 of VRF 3, whose device rt1 exists in the test's own namespace.
#ifndef MIREL_TESTS_ROUTER_TEST_H
#define MIREL_TESTS_ROUTER_TEST_H

#include "core_test.h"
#include "mirel_router.h"
#include "mirel_router_table.h"
#include "own_namespaces.h"

#include <memory>

inline const std::string TYPE_GET = "rpcclt_tarnapiRtrIntfTypeGet 5";
inline const std::string NAME_GET = "rpcclt_tarnapiRtrIntfIpStackStkNameGet 3 5 [17]";

inline std::string routerLog(int severity, const std::string &text) {
  return "log " + std::to_string(severity) + " 156 application/routing/mirel/core/mirel_router [VRF \"blue\"]: " + text;
}

inline Lines operator+(Lines lines, const Lines &more) {
  lines.insert(lines.end(), more.begin(), more.end());
  return lines;
}

inline RppiEventMsg routerEvent(uint16_t type, uint32_t intIfNum = 5) {
  RppiEventMsg msg{};
  msg.msgType = type;
  msg.msgLen = sizeof msg;
  msg.eventSeq = 88;
  msg.intIfNum = intIfNum;
  return msg;
}

class RouterTest : public CoreTest {
protected:
  static void SetUpTestSuite() { shell("ip link add rt1 type veth peer name h1"); }
  static void TearDownTestSuite() { shell("ip link del rt1"); }

  RouterTest() {
    mirelIntIfInfoAllocate();
    table.reset(mirelIntIfInfoTable.load());
    rppi_evnt_client_id = 5;
    rppi_evnt_keepalive_time = 0;
    startAgain();
  }
  ~RouterTest() override {
    startAgain();
    mirelIntIfInfoTable = nullptr;
  }

  // Back to an empty script, no record, and rt1 outside the group.
  static void startAgain() {
    scripted::reset();
    mirelVrfId = 3;
    mirelDebugFlags = 0;
    mirelMcastGroupMembershipSet(5, 0);
    scripted::takeCalls();
  }

  static Lines kernelCalls() {
    Lines calls = scripted::takeCalls();
    std::erase_if(calls,
                  [](const std::string &line) { return !line.starts_with("osapi") && !line.starts_with("procOsapi"); });
    return calls;
  }

  std::unique_ptr<MirelIntIfInfo[]> table;
};

#endif
