// libtarnapi.so against the real orrin: what a caller sees of answers, of an orrin that is gone, stopped, slow or started
// anew, and of best-route changes from the queue to the caller's records.

#include "event_socket.h"
#include "own_namespaces.h"
#include "switch_fixture.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <gtest/gtest.h>
#include <set>
#include <sys/wait.h>
#include <vector>

namespace {

constexpr uint32_t BATCH = 50;

struct Fetched {
  int32_t result = 0;
  std::vector<BestRouteRecord> records;
};

std::string prefixOf(const BestRouteRecord &record) {
  const uint32_t address = record.prefix.ipv4;
  return std::to_string(address >> 24) + "." + std::to_string(address >> 16 & 255) + "." +
         std::to_string(address >> 8 & 255) + "." + std::to_string(address & 255) + "/" +
         std::to_string(record.prefixLen);
}

class SwitchClient : public SwitchFixture {
protected:
  Fetched fetch(uint32_t id, uint32_t count = BATCH) {
    const tarn_buffdesc desc = clearedBuffer();
    return fetched(rpcclt_tarnapiBestRouteChangeNextGetMult(client, id, count, &desc));
  }

  // The first batch of the interface's routes, or the one after the key.
  Fetched interfaceRoutes(uint32_t id, uint32_t interface, const BestRouteRecord &key = {}) {
    const tarn_buffdesc desc = clearedBuffer();
    buffer[0].prefix.ipv4 = key.prefix.ipv4;
    buffer[0].prefixLen = key.prefixLen;
    return fetched(rpcclt_tarnapiIntfBestRoutesNextGet(client, id, interface, BATCH, &desc));
  }

  // All changes up to the last batch, as "add 10.0.0.0/8".
  std::vector<std::string> drain(uint32_t id) {
    static const char *const NAMES[] = {"add ", "del ", "mod "};
    std::vector<std::string> changes;
    for (int32_t result = TARN_OK; result == TARN_OK;) {
      const Fetched fetched = fetch(id);
      result = fetched.result;
      EXPECT_TRUE(result == TARN_OK || result == TARN_NO_MORE) << result;
      for (const BestRouteRecord &record : fetched.records) {
        changes.push_back(NAMES[record.changeType] + prefixOf(record));
      }
    }
    return changes;
  }

  std::string vrfName() {
    char text[65] = "unchanged";
    const tarn_buffdesc name{sizeof text, text};
    const int32_t result = rpcclt_tarnapiVrfNameGet(client, VRF, &name);
    return result == TARN_OK ? std::string(text) : "error " + std::to_string(result);
  }

private:
  tarn_buffdesc clearedBuffer() {
    buffer.assign(BATCH, BestRouteRecord{});
    return {static_cast<uint32_t>(buffer.size() * sizeof buffer[0]), reinterpret_cast<char *>(buffer.data())};
  }

  Fetched fetched(int32_t result) const {
    Fetched fetched{result, {}};
    std::copy_if(buffer.begin(), buffer.end(), std::back_inserter(fetched.records),
                 [](const BestRouteRecord &record) { return record.valid != 0; });
    return fetched;
  }

  std::vector<BestRouteRecord> buffer;
};

using Changes = std::vector<std::string>;

TEST_F(SwitchClient, TextsNeverLeaveTheirBuffer) {
  const std::string longName(60, 'n');
  orrin.run("interface add 12 vrf 3 name " + longName + " device exactly17letters_");
  char text[64];
  std::memset(text, '#', sizeof text);
  const tarn_buffdesc name{60, text};
  EXPECT_EQ(rpcclt_tarnapiRtrIntfNameGet(client, 12, &name), TARN_OK);
  EXPECT_EQ(std::string(text, sizeof text), longName + "####") << "a text that fills its buffer has no NUL";
  const tarn_buffdesc device{17, text};
  std::memset(text, '#', sizeof text);
  EXPECT_EQ(rpcclt_tarnapiRtrIntfIpStackStkNameGet(client, VRF, 12, &device), TARN_OK);
  EXPECT_EQ(std::string(text, 20), "exactly17letters_###");
  EXPECT_EQ(rpcclt_tarnapiRtrIntfIpStackStkNameGet(client, VRF, 11, &device), TARN_OK);
  EXPECT_STREQ(text, "rt1");
  EXPECT_EQ(text[4], 't') << "nothing is written behind the NUL";
}

TEST_F(SwitchClient, AFailingCallLeavesItsOutputs) {
  uint32_t type = 7;
  EXPECT_LT(rpcclt_tarnapiRtrIntfTypeGet(client, 99, &type), 0);
  EXPECT_EQ(type, 7u);
  char text[17] = "as before";
  const tarn_buffdesc name{sizeof text, text};
  EXPECT_LT(rpcclt_tarnapiRtrIntfIpStackStkNameGet(client, 4, 11, &name), 0) << "the interface is in VRF 3";
  EXPECT_LT(rpcclt_tarnapiVrfIntfNameGet(client, 4, &name), 0);
  EXPECT_STREQ(text, "as before");
  uint32_t id = 0;
  EXPECT_EQ(registerBestRoute(id, "mirel:4", 4), TARN_INVALID);
  EXPECT_EQ(id, 0u);
  EXPECT_EQ(rpcclt_rpc_failure_occured(), 0) << "a refusal is an answer";
}

TEST_F(SwitchClient, PublishedAnswersFollowTheSwitch) {
  uint32_t ready = 7;
  EXPECT_EQ(tarnapiSystemReadyStateGet(client, &ready), TARN_OK);
  EXPECT_EQ(ready, 1u);
  orrin.run("system not-ready");
  EXPECT_EQ(tarnapiSystemReadyStateGet(client, &ready), TARN_OK);
  EXPECT_EQ(ready, 0u);
  uint32_t type = 7;
  orrin.run("interface add 12 vrf 3 name lo1 device lo1 type 4");
  EXPECT_EQ(rpcclt_tarnapiRtrIntfTypeGet(client, 12, &type), TARN_OK);
  EXPECT_EQ(type, 4u);
  orrin.run("interface del 12");
  EXPECT_LT(rpcclt_tarnapiRtrIntfTypeGet(client, 12, &type), 0);
  orrin.run("fault set RtrIntfTypeGet result -22 once");
  orrin.run("interface add 12 vrf 3 name lo1 device lo1 type 5");
  EXPECT_LT(rpcclt_tarnapiRtrIntfTypeGet(client, 12, &type), 0) << "a fault sends the call the long way";
  EXPECT_EQ(rpcclt_tarnapiRtrIntfTypeGet(client, 12, &type), TARN_OK);
  EXPECT_EQ(type, 5u);
}

TEST_F(SwitchClient, FailsAtOnceWithoutOrrinAndRecovers) {
  EXPECT_EQ(vrfName(), "blue");
  orrin.end(SIGTERM);
  EXPECT_EQ(vrfName(), "error -26");
  EXPECT_EQ(rpcclt_rpc_failure_occured(), 1);
  EXPECT_EQ(rpcclt_rpc_failure_reset(), 0);
  EXPECT_EQ(rpcclt_tarnapiConnectivityCheck(client), TARN_FAILURE);
  EXPECT_EQ(rpcclt_rpc_failure_occured(), 1);
  EXPECT_EQ(rpcclt_rpc_failure_reset(), 0);
  EXPECT_EQ(rpcclt_rpc_failure_occured(), 0);
  orrin.start();
  EXPECT_EQ(rpcclt_tarnapiConnectivityCheck(client), 0);
  EXPECT_EQ(vrfName(), "blue") << "the state folder has kept it";
}

TEST_F(SwitchClient, ARegistrationIsRefusedByAnOrrinOnlyThatIsThere) {
  tarnapiClient *handle = nullptr;
  orrin.run("fault set tarnapiServiceClientRegister result -26 once");
  EXPECT_EQ(tarnapiServiceClientRegister("mirel", 1, 2001, &handle), TARN_FAILURE);
  EXPECT_EQ(handle, nullptr);
  orrin.end(SIGTERM);
  EXPECT_EQ(tarnapiServiceClientRegister("mirel", 1, 2001, &handle), TARN_OK);
  EXPECT_NE(handle, nullptr);
  EXPECT_EQ(rpcclt_rpc_failure_occured(), 0);
}

TEST_F(SwitchClient, ALateAnswerIsNeverAnotherCalls) {
  orrin.run("fault set VrfNameGet delay 5200 once");
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(vrfName(), "error -26");
  const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - begin);
  EXPECT_NEAR(static_cast<double>(took.count()), 5000, 150);
  EXPECT_EQ(rpcclt_rpc_failure_occured(), 1);
  uint32_t status = 0;
  EXPECT_EQ(rpcclt_tarnapiRoutingStartupStatusVr(client, 1, VRF, &status), TARN_OK);
  EXPECT_EQ(status, 1u);
  EXPECT_EQ(vrfName(), "blue");
}

TEST_F(SwitchClient, AStoppedOrrinIsNoticed) {
  uint32_t ready = 0;
  EXPECT_EQ(tarnapiSystemReadyStateGet(client, &ready), TARN_OK);
  orrin.sendSignal(SIGSTOP);
  const auto begin = std::chrono::steady_clock::now();
  int32_t result = TARN_OK;
  EXPECT_TRUE(within(9000, [&] { return (result = tarnapiSystemReadyStateGet(client, &ready)) != TARN_OK; }));
  const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - begin);
  EXPECT_EQ(result, TARN_FAILURE);
  EXPECT_LT(took.count(), 6800) << "a second until the heartbeat is old, and the time-out";
  orrin.sendSignal(SIGCONT);
  EXPECT_TRUE(within(2000, [&] { return tarnapiSystemReadyStateGet(client, &ready) == TARN_OK; }));
}

TEST_F(SwitchClient, AKilledOrrinIsNoticedAtOnce) {
  uint32_t ready = 0;
  EXPECT_EQ(tarnapiSystemReadyStateGet(client, &ready), TARN_OK);
  orrin.end(SIGKILL); // its page still looks alive
  EXPECT_TRUE(within(50, [&] { return tarnapiSystemReadyStateGet(client, &ready) == TARN_FAILURE; }));
  orrin.start();
  EXPECT_EQ(tarnapiSystemReadyStateGet(client, &ready), TARN_OK);
}

TEST_F(SwitchClient, AThreadsConnectionEndsWithIt) {
  const auto descriptors = [] {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), std::filesystem::directory_iterator());
  };
  vrfName();
  const auto before = descriptors();
  ptrdiff_t during = 0;
  std::thread caller([&] {
    EXPECT_EQ(vrfName(), "blue");
    during = descriptors();
  });
  caller.join();
  EXPECT_EQ(during, before + 1);
  EXPECT_EQ(descriptors(), before);
}

TEST_F(SwitchClient, AForkedChildHasAConnectionOfItsOwn) {
  EXPECT_EQ(vrfName(), "blue");
  const pid_t child = fork();
  if (child == 0) {
    bool good = true;
    for (int round = 0; round < 200; ++round) {
      good = good && vrfName() == "blue";
    }
    _exit(good ? 0 : 1);
  }
  for (int round = 0; round < 200; ++round) {
    EXPECT_EQ(vrfName(), "blue");
  }
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
}

TEST_F(SwitchClient, ARouteArrivesWithAllItsWords) {
  uint32_t id = 0;
  ASSERT_EQ(registerBestRoute(id), TARN_OK);
  EXPECT_NE(id, 0u);
  orrin.run("interface add 12 vrf 3 name 0/12 device rt2");
  orrin.run(
      "route add vrf 3 10.2.0.0/16 install-kernel reject discard via-vrf-device rfc5549 mpls flag8000 metric 5 proto 9 "
      "via 10.1.1.9 interface 11 via 10.1.2.9 interface 12");
  const Fetched fetched = fetch(id);
  EXPECT_EQ(fetched.result, TARN_NO_MORE);
  ASSERT_EQ(fetched.records.size(), 1u);
  BestRouteRecord expected{};
  expected.prefix.family = 1;
  expected.prefix.ipv4 = 0x0A020000;
  expected.prefixLen = 16;
  expected.routeType = 2;
  expected.routeProto = 9;
  expected.metric = 5;
  expected.numNextHops = 2;
  expected.rejectRoute = expected.discardRoute = expected.viaVrfDevice = expected.rfc5549 = 1;
  expected.flag8000 = expected.mplsRoute = expected.installKernelRoute = expected.valid = 1;
  expected.nextHops[0].addr.family = expected.nextHops[1].addr.family = 1;
  expected.nextHops[0].addr.ipv4 = 0x0A010109;
  expected.nextHops[0].intIfNum = 11;
  expected.nextHops[1].addr.ipv4 = 0x0A010209;
  expected.nextHops[1].intIfNum = 12;
  EXPECT_EQ(std::memcmp(&fetched.records[0], &expected, sizeof expected), 0);
}

TEST_F(SwitchClient, ABatchIsLastExactlyWhenNothingWaits) {
  uint32_t id = 0;
  ASSERT_EQ(registerBestRoute(id), TARN_OK);
  EXPECT_EQ(fetch(id).result, TARN_NO_MORE);
  orrin.run("routes add vrf 3 10.0.0.0/24 count 100 via 10.1.1.2 interface 11");
  EXPECT_EQ(fetch(id).result, TARN_OK);
  EXPECT_EQ(fetch(id).records.size(), 50u);
  EXPECT_EQ(fetch(id).result, TARN_NO_MORE);
  orrin.run("routes add vrf 3 11.0.0.0/24 count 50 via 10.1.1.2 interface 11");
  const Fetched full = fetch(id);
  EXPECT_EQ(full.records.size(), 50u);
  EXPECT_EQ(full.result, TARN_NO_MORE) << "exactly full, and the last";
}

TEST_F(SwitchClient, NothingIsHandedOutThatWasWithdrawnBefore) {
  uint32_t id = 0;
  ASSERT_EQ(registerBestRoute(id), TARN_OK);
  orrin.run("routes add vrf 3 10.0.0.0/24 count 5 via 10.1.1.2 interface 11");
  EXPECT_EQ(fetch(id, 2).result, TARN_OK);
  orrin.run("route del vrf 3 10.0.0.0/24"); // handed out
  orrin.run("route del vrf 3 10.0.3.0/24"); // fetched by the library, not handed out
  orrin.run("route add vrf 3 11.0.0.0/8 via 10.1.1.2 interface 11");
  EXPECT_EQ(drain(id),
            (Changes{"del 10.0.0.0/24", "add 10.0.2.0/24", "del 10.0.3.0/24", "add 10.0.4.0/24", "add 11.0.0.0/8"}));
}

TEST_F(SwitchClient, ARouteOfAnInterfaceIsWithdrawnThoughItsAdditionWasNotFetched) {
  uint32_t id = 0;
  ASSERT_EQ(registerBestRoute(id), TARN_OK);
  orrin.run("routes add vrf 3 10.0.0.0/24 count 2 via 10.1.1.2 interface 11");
  EXPECT_EQ(interfaceRoutes(id, 11).records.size(), 2u);
  orrin.run("route del vrf 3 10.0.0.0/24");
  EXPECT_EQ(interfaceRoutes(id, 11).records.size(), 1u);
  EXPECT_EQ(drain(id), (Changes{"del 10.0.0.0/24", "add 10.0.1.0/24"}));
}

TEST_F(SwitchClient, ClientsOfOneThreadTakeTurns) {
  uint32_t ids[2] = {};
  ASSERT_EQ(registerBestRoute(ids[0], "one"), TARN_OK);
  ASSERT_EQ(registerBestRoute(ids[1], "two"), TARN_OK);
  orrin.run("routes add vrf 3 10.0.0.0/24 count 120 via 10.1.1.2 interface 11");
  for (const size_t expected : {50, 50, 20, 0}) {
    EXPECT_EQ(fetch(ids[0]).records.size(), expected);
    EXPECT_EQ(fetch(ids[1]).records.size(), expected);
  }
}

TEST_F(SwitchClient, AHundredThousandChangesComeOnceEach) {
  uint32_t id = 0;
  ASSERT_EQ(registerBestRoute(id), TARN_OK);
  orrin.run("routes add vrf 3 20.0.0.0/32 count 100000 via 10.1.1.2 interface 11");
  const Changes changes = drain(id);
  EXPECT_EQ(changes.size(), 100000u);
  EXPECT_EQ(std::set<std::string>(changes.begin(), changes.end()).size(), changes.size());
  EXPECT_TRUE(drain(id).empty());
}

TEST_F(SwitchClient, ALostAnswerComesAgain) {
  uint32_t id = 0;
  ASSERT_EQ(registerBestRoute(id), TARN_OK);
  orrin.run("routes add vrf 3 10.0.0.0/24 count 60 via 10.1.1.2 interface 11");
  orrin.run("fault set BestRouteChangeNextGetMult drop once");
  EXPECT_EQ(fetch(id).result, TARN_FAILURE);
  orrin.run("route del vrf 3 10.0.0.0/24"); // its add may have been received
  const Changes changes = drain(id);
  ASSERT_EQ(changes.size(), 60u);
  EXPECT_EQ(changes[0], "del 10.0.0.0/24") << "and no addition";
  EXPECT_EQ(changes[1], "add 10.0.1.0/24");
}

TEST_F(SwitchClient, AFaultReachesACallThatTheLibraryCouldServe) {
  uint32_t id = 0;
  ASSERT_EQ(registerBestRoute(id), TARN_OK);
  orrin.run("routes add vrf 3 10.0.0.0/24 count 120 via 10.1.1.2 interface 11");
  EXPECT_EQ(fetch(id).records.size(), 50u);
  orrin.run("fault set rpcclt_tarnapiBestRouteChangeNextGetMult result -26 once");
  EXPECT_EQ(fetch(id).result, TARN_FAILURE);
  EXPECT_EQ(drain(id).size(), 70u) << "and nothing is lost";
}

TEST_F(SwitchClient, NotificationsWaitForTheSocketAndComeAgain) {
  orrin.run("route add vrf 3 10.0.0.0/8 via 10.1.1.2 interface 11");
  uint32_t id = 0;
  ASSERT_EQ(registerBestRoute(id), TARN_OK);
  std::this_thread::sleep_for(std::chrono::milliseconds(150)); // the first try has found no socket
  EventSocket socket(BEST_ROUTE_SOCKET, id);
  EXPECT_EQ(socket.receiveType(2000), TARNR_BEST_ROUTE_CHANGE);
  orrin.run("route add vrf 3 11.0.0.0/8 via 10.1.1.2 interface 11");
  EXPECT_EQ(socket.receiveType(50), 0) << "one notification until the client has fetched";
  orrin.run("keepalive period 1");
  EXPECT_EQ(socket.receiveType(2000), TARNR_KEEPALIVE);
  EXPECT_EQ(socket.receiveType(2000), TARNR_BEST_ROUTE_CHANGE) << "changes wait";
  drain(id);
  orrin.run("route del vrf 3 11.0.0.0/8");
  while (socket.receiveType(0) == TARNR_KEEPALIVE) {
  }
  EXPECT_TRUE(within(3000, [&] { return socket.receiveType(1000) == TARNR_BEST_ROUTE_CHANGE; }));
  orrin.run("keepalive hold vrf 3");
  while (socket.receiveType(0) != 0) {
  }
  EXPECT_EQ(socket.receiveType(1500), 0);
  orrin.run("keepalive release vrf 3");
  EXPECT_EQ(socket.receiveType(2500), TARNR_KEEPALIVE);
}

TEST_F(SwitchClient, ANameIsTakenAsLongAsItsProcessLives) {
  uint32_t id = 0;
  ASSERT_EQ(registerBestRoute(id), TARN_OK);
  uint32_t other = 0;
  EXPECT_EQ(registerBestRoute(other), TARN_EXISTS);
  EXPECT_EQ(other, 0u);
  EXPECT_EQ(rpcclt_tarnapiBestRouteEventDeregister(client, id), TARN_OK);
  EXPECT_EQ(rpcclt_tarnapiBestRouteEventDeregister(client, id), TARN_NOT_FOUND);
  const pid_t child = fork();
  if (child == 0) {
    _exit(registerBestRoute(other) == TARN_OK ? 0 : 1);
  }
  siginfo_t ended{};
  ASSERT_EQ(waitid(P_PID, static_cast<id_t>(child), &ended, WEXITED | WNOWAIT), 0);
  EXPECT_EQ(ended.si_status, 0);
  EXPECT_EQ(registerBestRoute(other), TARN_OK) << "its process has ended, though nobody has waited for it";
  EXPECT_GT(other, id) << "an id is used once";
  waitpid(child, nullptr, 0);
}

TEST_F(SwitchClient, TheClientListHas256Places) {
  uint32_t id = 0;
  for (int number = 0; number < 256; ++number) {
    ASSERT_EQ(registerBestRoute(id, "mirel:" + std::to_string(number)), TARN_OK);
  }
  EXPECT_EQ(registerBestRoute(id, "mirel:256"), TARN_FULL);
  EXPECT_EQ(rpcclt_tarnapiBestRouteEventDeregister(client, id), TARN_OK);
  EXPECT_EQ(registerBestRoute(id, "mirel:256"), TARN_OK);
}

TEST_F(SwitchClient, AnOrrinStartedAnewSendsWhatMayHaveBeenLost) {
  orrin.run("routes add vrf 3 10.0.0.0/16 count 3 via 10.1.1.2 interface 11");
  uint32_t id = 0;
  ASSERT_EQ(registerBestRoute(id), TARN_OK);
  EventSocket socket(BEST_ROUTE_SOCKET, id);
  EXPECT_EQ(drain(id).size(), 3u);
  drain(id);
  orrin.run("route del vrf 3 10.1.0.0/16"); // not fetched
  orrin.end(SIGKILL);
  orrin.start();
  while (socket.receiveType(2000) != TARNR_BEST_ROUTE_CHANGE) {
  }
  EXPECT_EQ(drain(id), (Changes{"add 10.0.0.0/16", "del 10.1.0.0/16", "add 10.2.0.0/16"}));
  drain(id); // acknowledges
  orrin.end(SIGTERM);
  orrin.start();
  EXPECT_EQ(drain(id), (Changes{"add 10.0.0.0/16", "add 10.2.0.0/16"})) << "the withdrawal is known";
}

TEST_F(SwitchClient, ABatchHeldWhenOrrinEndsIsNotLost) {
  uint32_t id = 0;
  ASSERT_EQ(registerBestRoute(id), TARN_OK);
  orrin.run("routes add vrf 3 20.0.0.0/32 count 20000 via 10.1.1.2 interface 11");
  std::set<std::string> prefixes;
  for (const BestRouteRecord &record : fetch(id).records) {
    prefixes.insert("add " + prefixOf(record));
  }
  EXPECT_EQ(prefixes.size(), BATCH);
  orrin.end(SIGKILL);
  orrin.start();
  EXPECT_EQ(rpcclt_tarnapiConnectivityCheck(client), TARN_OK);
  for (const std::string &change : drain(id)) {
    prefixes.insert(change);
  }
  EXPECT_EQ(prefixes.size(), 20000u);
  EXPECT_EQ(rpcclt_rpc_failure_occured(), 0);
}

TEST_F(SwitchClient, ASuccessorWithdrawsWhatItsForerunnerMayHold) {
  orrin.run("routes add vrf 3 10.0.0.0/16 count 2 via 10.1.1.2 interface 11");
  uint32_t id = 0;
  ASSERT_EQ(registerBestRoute(id), TARN_OK);
  drain(id);
  rpcclt_tarnapiBestRouteEventDeregister(client, id);
  orrin.run("route del vrf 3 10.0.0.0/16");
  ASSERT_EQ(registerBestRoute(id), TARN_OK);
  EXPECT_EQ(drain(id), (Changes{"del 10.0.0.0/16", "add 10.1.0.0/16"}));
}

// Withdrawals that were fetched but not handed out go to the next of the name: some routes outlive the agent that installed them.
TEST_F(SwitchClient, AWithdrawalThatNobodyWasHandedGoesToTheSuccessor) {
  constexpr size_t ROUTES = 20000; // withdrawals of several batches
  orrin.run("routes add vrf 3 20.0.0.0/32 count " + std::to_string(ROUTES) + " reject");
  uint32_t id = 0;
  ASSERT_EQ(registerBestRoute(id), TARN_OK);
  drain(id);
  orrin.run("routes del vrf 3 20.0.0.0/32 count " + std::to_string(ROUTES));
  std::set<std::string> told;
  for (int batch = 0; batch < 300; ++batch) {
    for (const BestRouteRecord &record : fetch(id).records) {
      told.insert("del " + prefixOf(record));
    }
  }
  EXPECT_LT(told.size(), ROUTES);
  EXPECT_EQ(rpcclt_tarnapiBestRouteEventDeregister(client, id), TARN_OK);
  ASSERT_EQ(registerBestRoute(id), TARN_OK);
  for (const std::string &change : drain(id)) {
    told.insert(change);
  }
  EXPECT_EQ(told.size(), ROUTES);
}

TEST_F(SwitchClient, InterfaceRoutesComeStrictlyAfterTheKey) {
  orrin.run("interface add 12 vrf 3 name 0/12 device rt2");
  orrin.run("routes add vrf 3 10.0.0.0/24 count 70 via 10.1.1.2 interface 11 via 10.1.2.2 interface 12");
  orrin.run("routes add vrf 3 9.0.0.0/24 count 5 via 10.1.1.2 interface 11");
  orrin.run("route add vrf 3 0.0.0.0/0 via 10.1.2.2 interface 12");
  uint32_t id = 0;
  ASSERT_EQ(registerBestRoute(id), TARN_OK);
  const Fetched first = interfaceRoutes(id, 12);
  EXPECT_EQ(first.result, TARN_OK);
  ASSERT_EQ(first.records.size(), BATCH);
  EXPECT_EQ(prefixOf(first.records.front()), "0.0.0.0/0");
  EXPECT_EQ(prefixOf(first.records.back()), "10.0.48.0/24");
  const Fetched second = interfaceRoutes(id, 12, first.records.back());
  EXPECT_EQ(second.result, TARN_NO_MORE);
  ASSERT_EQ(second.records.size(), 21u);
  EXPECT_EQ(prefixOf(second.records.front()), "10.0.49.0/24");
  const Fetched behind = interfaceRoutes(id, 12, second.records.back());
  EXPECT_EQ(behind.result, TARN_NO_MORE);
  EXPECT_TRUE(behind.records.empty());
}

TEST_F(SwitchClient, ThreadsCallAtTheSameTime) {
  std::vector<std::thread> callers;
  std::atomic<int> wrong{0};
  for (int thread = 0; thread < 8; ++thread) {
    callers.emplace_back([&] {
      for (int round = 0; round < 300; ++round) {
        uint32_t status = 0;
        wrong += vrfName() != "blue";
        wrong += rpcclt_tarnapiRoutingStartupStatusVr(client, 1, VRF, &status) != TARN_OK || status != 1;
      }
    });
  }
  for (std::thread &caller : callers) {
    caller.join();
  }
  EXPECT_EQ(wrong, 0);
}

TEST_F(SwitchClient, RouteTypesAreRegisteredUnderTheirProtocol) {
  ClientName name("kernel");
  ClientName code("K");
  ClientName typeName("Kernel");
  ClientName noCode("");
  uint32_t proto = 7;
  uint32_t type = 0;
  EXPECT_LT(rpcclt_tarnapiRouteTypeRegister(client, 1, proto, &typeName.desc, &noCode.desc, &type), 0);
  EXPECT_EQ(rpcclt_tarnapiRoutingProtocolRegister(client, VRF, 1, &name.desc, &code.desc, &proto), TARN_OK);
  EXPECT_EQ(proto, 7u);
  EXPECT_EQ(rpcclt_tarnapiRouteTypeRegister(client, 1, proto, &typeName.desc, &noCode.desc, &type), TARN_OK);
  EXPECT_NE(type, 0u);
}

} // namespace

int main(int argc, char **argv) {
  testing::InitGoogleTest(&argc, argv);
  enterOwnNamespaces(MIREL_BUILD_DIR);
  return RUN_ALL_TESTS();
}
