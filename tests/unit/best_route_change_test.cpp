// Best-route changes: which kernel route each becomes, what is counted, and how far a drain goes.

#include "core_test.h"
#include "mirel_best_route.h"

#include <cstring>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// 10.0.0.0/8 via 192.0.2.1 on interface 5, to be changed as a test wants it.
BestRouteRecord route() {
  BestRouteRecord record{};
  record.prefix.family = TARN_FAMILY_IPV4;
  record.prefix.ipv4 = ipv4(10, 0, 0, 0);
  record.prefixLen = 8;
  record.routeType = 3;
  record.numNextHops = 1;
  record.nextHops[0].addr = {.family = TARN_FAMILY_IPV4, .ipv4 = ipv4(192, 0, 2, 1)};
  record.nextHops[0].intIfNum = 5;
  record.valid = 1;
  return record;
}

BestRouteRecord routeWith(const std::function<void(BestRouteRecord &)> &change) {
  BestRouteRecord record = route();
  change(record);
  return record;
}

class BestRouteChangeTest : public CoreTest {
protected:
  BestRouteChangeTest() { scripted::script("rpcclt_tarnapiRtrIntfIpStackStkNameGet= 0 rt5"); }

  static Lines kernelCalls() {
    Lines calls = scripted::takeCalls();
    std::erase_if(calls, [](const std::string &line) { return !line.starts_with("procOsapi"); });
    return calls;
  }
};

const std::string ADD = "procOsapiAddMRoute 10.0.0.0 255.0.0.0 ";
const std::string DELETE = "procOsapiDeleteMRoute 10.0.0.0 255.0.0.0 0.0.0.0 0 ''";

TEST_F(BestRouteChangeTest, FlagsNextHopAndDevice) {
  using Route = BestRouteRecord;
  const struct {
    const char *what;
    std::function<void(Route &)> change;
    std::string added;    // arguments after the mask; empty = no kernel call
    std::string modified; // the same; "=" = as added
  } CASES[] = {
      {"plain", [](Route &) {}, "192.0.2.1 5 0x0 rt5", "="},
      {"reject", [](Route &r) { r.rejectRoute = 1; }, "192.0.2.1 5 0x10 rt5", "="},
      {"discard alone is no flag", [](Route &r) { r.discardRoute = 1; }, "192.0.2.1 5 0x0 rt5", "="},
      {"flag8000", [](Route &r) { r.flag8000 = 1; }, "192.0.2.1 5 0x8000 rt5", "="},
      {"any non-zero byte", [](Route &r) { r.flag8000 = r.rejectRoute = 0x80; }, "192.0.2.1 5 0x8010 rt5", "="},
      {"via VRF device", [](Route &r) { r.viaVrfDevice = 1; }, "0.0.0.0 5 0x1000 rt0.blue_stk", "="},
      {"MPLS", [](Route &r) { r.mplsRoute = 1; }, "0.0.0.0 0 0x80000 rt_mpls", "="},
      {"RFC 5549", [](Route &r) { r.rfc5549 = 1; }, "0.0.0.0 0 0x2000 rfc5549if", "="},
      {"MPLS goes before RFC 5549", [](Route &r) { r.mplsRoute = r.rfc5549 = 1; }, "0.0.0.0 0 0x80000 rt_mpls", "="},
      {"via VRF device, no MPLS", [](Route &r) { r.viaVrfDevice = r.mplsRoute = 1; }, "0.0.0.0 5 0x1000 rt0.blue_stk",
       "="},
      {"via VRF device with RFC 5549", [](Route &r) { r.viaVrfDevice = r.rfc5549 = 1; },
       "0.0.0.0 0 0x3000 rt0.blue_stk", "="},
      {"all three", [](Route &r) { r.viaVrfDevice = r.rfc5549 = r.mplsRoute = 1; }, "0.0.0.0 0 0x3000 rt0.blue_stk",
       "="},
      {"MPLS, reject, flag8000", [](Route &r) { r.mplsRoute = r.rejectRoute = r.flag8000 = 1; },
       "0.0.0.0 0 0x88010 rt_mpls", "="},
      {"type 0 is installed", [](Route &r) { r.routeType = 0; }, "192.0.2.1 5 0x0 rt5", "="},
      {"type 255 is installed", [](Route &r) { r.routeType = 255; }, "192.0.2.1 5 0x0 rt5", "="},
      {"local", [](Route &r) { r.routeType = 1; }, "", "="},
      {"local, whatever else is set", [](Route &r) { r.routeType = r.installKernelRoute = r.mplsRoute = 1; }, "", "="},
      {"kernel", [](Route &r) { r.routeType = 2; }, "", "="},
      {"kernel to install",
       [](Route &r) {
         r.routeType = 2;
         r.installKernelRoute = 1;
       },
       "192.0.2.1 5 0x400000 rt5", ""},
      {"kernel to install, MPLS",
       [](Route &r) {
         r.routeType = 2;
         r.installKernelRoute = r.mplsRoute = 1;
       },
       "0.0.0.0 0 0x480000 rt_mpls", ""},
      {"install flag on another type", [](Route &r) { r.installKernelRoute = 1; }, "192.0.2.1 5 0x0 rt5", "="},
      {"lowest next hop",
       [](Route &r) {
         r.numNextHops = 2;
         r.nextHops[0].addr.ipv4 = ipv4(10, 1, 1, 9);
         r.nextHops[0].intIfNum = 3;
         r.nextHops[1].addr.ipv4 = ipv4(10, 1, 1, 2);
         r.nextHops[1].intIfNum = 4;
       },
       "10.1.1.2 4 0x0 rt5", "="},
      {"no next hops is entry 0", [](Route &r) { r.numNextHops = 0; }, "192.0.2.1 5 0x0 rt5", "="},
      {"next hop without interface", [](Route &r) { r.nextHops[0].intIfNum = 0; }, "192.0.2.1 0 0x0 ''", "="},
      {"nothing at all", [](Route &r) { r.nextHops[0] = {}; }, "0.0.0.0 0 0x0 ''", "="},
  };
  for (const auto &row : CASES) {
    const BestRouteRecord record = routeWith(row.change);
    const std::string modified = row.modified == "=" ? row.added : row.modified;
    EXPECT_EQ(MirelRouteAdd(&record, record.nextHops), 0) << row.what;
    EXPECT_EQ(kernelCalls(), row.added.empty() ? Lines{} : Lines{ADD + row.added}) << row.what;
    EXPECT_EQ(MirelRouteMod(&record, record.nextHops), 0) << row.what;
    EXPECT_EQ(kernelCalls(), modified.empty() ? Lines{} : (Lines{DELETE, ADD + modified})) << row.what;
    MirelRouteDel(&record);
    EXPECT_EQ(kernelCalls(), Lines{DELETE}) << row.what;
  }
}

TEST_F(BestRouteChangeTest, PrefixLengths) {
  const struct {
    uint8_t length;
    const char *mask;
  } CASES[] = {{0, "0.0.0.0"}, {1, "128.0.0.0"}, {32, "255.255.255.255"}, {33, "0.0.0.32"}};
  for (const auto &row : CASES) {
    const BestRouteRecord record = routeWith([&](BestRouteRecord &r) { r.prefixLen = row.length; });
    MirelRouteAdd(&record, record.nextHops);
    EXPECT_THAT(kernelCalls(),
                ElementsAre(std::string("procOsapiAddMRoute 10.0.0.0 ") + row.mask + " 192.0.2.1 5 0x0 rt5"));
  }
}

// Each question is asked for each kernel call, in this order.
TEST_F(BestRouteChangeTest, QuestionsBeforeTheKernel) {
  const BestRouteRecord plain = route();
  MirelRouteMod(&plain, plain.nextHops);
  EXPECT_THAT(scripted::takeCalls(),
              ElementsAre("tarnapiSystemReadyStateGet", DELETE, "tarnapiSystemReadyStateGet",
                          "rpcclt_tarnapiRtrIntfTypeGet 5", "rpcclt_tarnapiRtrIntfIpStackStkNameGet 3 5 [17]",
                          ADD + "192.0.2.1 5 0x0 rt5"));
  const BestRouteRecord via = routeWith([](BestRouteRecord &r) { r.viaVrfDevice = 1; });
  MirelRouteAdd(&via, via.nextHops);
  EXPECT_THAT(scripted::takeCalls(), ElementsAre("tarnapiSystemReadyStateGet", "rpcclt_tarnapiVrfIntfNameGet 3 [17]",
                                                 ADD + "0.0.0.0 5 0x1000 rt0.blue_stk"));
}

TEST_F(BestRouteChangeTest, InterfaceWithoutDevice) {
  scripted::script("rpcclt_tarnapiRtrIntfTypeGet: 0 5");
  const BestRouteRecord record = route();
  MirelRouteAdd(&record, record.nextHops);
  EXPECT_THAT(kernelCalls(), ElementsAre(ADD + "192.0.2.1 5 0x0 ''"));
}

// Whatever becomes of a VRF interface name that leaves no room for its suffix, the device never outgrows its 16 characters.
TEST_F(BestRouteChangeTest, LongVrfInterfaceNames) {
  const BestRouteRecord record = routeWith([](BestRouteRecord &r) { r.viaVrfDevice = 1; });
  for (size_t length = 0; length <= 17; ++length) {
    const std::string name(length, 'v');
    SCRIPTED_HOOK(rpcclt_tarnapiVrfIntfNameGet, [&name](tarnapiClient *, uint32_t, const tarn_buffdesc *out) {
      memcpy(out->pstart, name.c_str(), std::min<size_t>(out->size, name.size() + 1));
      return TARN_OK;
    });
    MirelRouteAdd(&record, record.nextHops);
    const Lines calls = kernelCalls();
    if (length <= 12) {
      EXPECT_THAT(calls, ElementsAre(ADD + "0.0.0.0 5 0x1000 " + name + "_stk"));
    } else if (!calls.empty()) {
      const std::string device = calls[0].substr(calls[0].rfind(' ') + 1);
      EXPECT_LE(device.size(), 16u);
    }
  }
}

// The counters that moved, by name.
std::string ledger() {
  const struct {
    const char *name;
    const Counter &counter;
  } COUNTERS[] = {{"added", statsHandle.numRoutesAdded},       {"addErrors", statsHandle.numRouteAddErrors},
                  {"deleted", statsHandle.numRoutesDeleted},   {"deleteErrors", statsHandle.numRouteDeleteErrors},
                  {"modified", statsHandle.numRoutesModified}, {"modifyErrors", statsHandle.numRouteModifyErrors},
                  {"stack", statsHandle.numStackErrors},       {"rpc", statsHandle.numRpcErrors},
                  {"get", statsHandle.numBestRouteGetErrors},  {"active", statsHandle.numActiveRoutes}};
  std::string text;
  for (const auto &row : COUNTERS) {
    if (row.counter != 0) {
      text += std::string(text.empty() ? "" : " ") + row.name + "=" + std::to_string(static_cast<int32_t>(row.counter));
    }
  }
  statsHandle = MirelStats{};
  return text;
}

// One drain of one record, so that what the drain itself counts is in the ledger too.
TEST_F(BestRouteChangeTest, Ledger) {
  enum Change : uint8_t { ADDED, DELETED, MODIFIED };
  const struct {
    Change change;
    uint8_t routeType;
    const char *script;
    const char *expected;
  } CASES[] = {
      {ADDED, 3, "", "added=1 active=1"},
      {ADDED, 3, "procOsapiAddMRoute: 1", "addErrors=1 stack=1"},
      {ADDED, 3, "procOsapiAddMRoute: 2", "addErrors=1 stack=1"},
      {ADDED, 3, "procOsapiAddMRoute: 8", "addErrors=1 stack=1 rpc=1"},
      {ADDED, 3, "procOsapiAddMRoute: -7", "addErrors=1 stack=1"},
      {ADDED, 1, "procOsapiAddMRoute: 8", "added=1 active=1"},
      {ADDED, 2, "procOsapiAddMRoute: 8", "added=1 active=1"},
      {ADDED, 3, "tarnapiSystemReadyStateGet: 0 0\nprocOsapiAddMRoute: 1", "added=1 active=1"},
      {ADDED, 3, "tarnapiSystemReadyStateGet: -26\nprocOsapiAddMRoute: 1", "addErrors=1 stack=1"},
      {MODIFIED, 3, "", "modified=1"},
      {MODIFIED, 3, "procOsapiDeleteMRoute: 1", "modified=1"},
      {MODIFIED, 3, "procOsapiDeleteMRoute: 8", "modified=1"},
      {MODIFIED, 3, "procOsapiAddMRoute: 1", "modifyErrors=1 stack=1"},
      {MODIFIED, 3, "procOsapiAddMRoute: 8", "modifyErrors=1 stack=1 rpc=1"},
      {MODIFIED, 1, "", ""},
      {MODIFIED, 2, "", ""},
      {MODIFIED, 3, "tarnapiSystemReadyStateGet: 0 0\ntarnapiSystemReadyStateGet: 0 0\nprocOsapiAddMRoute: 1",
       "modified=1"},
      {DELETED, 3, "", "deleted=1 active=-1"},
      {DELETED, 3, "procOsapiDeleteMRoute: 1", "deleteErrors=1"},
      {DELETED, 3, "procOsapiDeleteMRoute: 2", "deleted=1 active=-1"},
      {DELETED, 3, "procOsapiDeleteMRoute: 8", "deleted=1 active=-1"},
      {DELETED, 3, "procOsapiDeleteMRoute: -1", "deleted=1 active=-1"},
      {DELETED, 1, "procOsapiDeleteMRoute: 1", "deleteErrors=1"},
      {DELETED, 2, "", "deleted=1 active=-1"},
      {DELETED, 3, "tarnapiSystemReadyStateGet: 0 0\nprocOsapiDeleteMRoute: 1", "deleted=1 active=-1"},
  };
  for (const auto &row : CASES) {
    SCRIPTED_HOOK(rpcclt_tarnapiBestRouteChangeNextGetMult,
                  [&row](tarnapiClient *, uint32_t, uint32_t, const tarn_buffdesc *out) {
                    const BestRouteRecord record = routeWith([&row](BestRouteRecord &r) {
                      r.changeType = row.change;
                      r.routeType = row.routeType;
                    });
                    memcpy(out->pstart, &record, sizeof record);
                    return TARN_NO_MORE;
                  });
    scripted::script(row.script);
    bestRouteChangePending = 1;
    mirelBestRoutesProcess();
    EXPECT_EQ(ledger(), row.expected) << int{row.change} << " of type " << int{row.routeType} << ", " << row.script;
    // What the row did not use up must not answer the next one's calls.
    scripted::reset();
    tarnapiServiceClientRegister("test", 1, 1, &tarnapiClientHandle);
  }
}

TEST_F(BestRouteChangeTest, NotReadyLeavesTheKernelAlone) {
  scripted::script("tarnapiSystemReadyStateGet= 0 0");
  const BestRouteRecord record = route();
  MirelRouteAdd(&record, record.nextHops);
  MirelRouteMod(&record, record.nextHops);
  MirelRouteDel(&record);
  EXPECT_THAT(kernelCalls(), IsEmpty());
}

TEST_F(BestRouteChangeTest, NoNextHopList) {
  const BestRouteRecord record = route();
  EXPECT_EQ(MirelRouteAdd(&record, nullptr), 1);
  EXPECT_THAT(kernelCalls(), IsEmpty());
  EXPECT_EQ(ledger(), "addErrors=1");
  EXPECT_EQ(MirelRouteMod(&record, nullptr), 1);
  EXPECT_THAT(kernelCalls(), ElementsAre(DELETE)); // gone before the next hop is looked for
  EXPECT_EQ(ledger(), "modifyErrors=1");
}

TEST_F(BestRouteChangeTest, StatusOfTheKernelIsReturned) {
  const BestRouteRecord record = route();
  scripted::script("procOsapiAddMRoute= 8");
  EXPECT_EQ(MirelRouteAdd(&record, record.nextHops), 8);
  EXPECT_EQ(MirelRouteMod(&record, record.nextHops), 8);
}

TEST_F(BestRouteChangeTest, Traces) {
  const BestRouteRecord plain = routeWith([](BestRouteRecord &r) { r.nextHops[0].intIfNum = 0x1f; });
  const BestRouteRecord mpls = routeWith([](BestRouteRecord &r) { r.mplsRoute = 1; });
  const BestRouteRecord rfc5549 = routeWith([](BestRouteRecord &r) { r.rfc5549 = 1; });
  const BestRouteRecord local = routeWith([](BestRouteRecord &r) { r.routeType = 1; });
  const BestRouteRecord kernel = routeWith([](BestRouteRecord &r) { r.routeType = 2; });
  const BestRouteRecord nowhere = routeWith([](BestRouteRecord &r) { r.prefix.family = 9; });
  const auto add = [](const BestRouteRecord &r) { return [&r] { MirelRouteAdd(&r, r.nextHops); }; };
  const auto modify = [](const BestRouteRecord &r) { return [&r] { MirelRouteMod(&r, r.nextHops); }; };
  const std::string vrf = "[blue (VRF 3)]:";
  const std::string stack = vrf + "mirelStkIfNameGet: rt5 is the stack interface name for interface ";
  const struct {
    std::function<void()> action;
    std::string expected;
  } CASES[] = {
      {add(plain), vrf + "MirelRouteAdd: MirelRouteAdd added route for 10.0.0.0/8 \n" + vrf +
                       "MirelRouteAdd: Adding route to 10.0.0.0/8  with next hop 192.0.2.1 on interface 1f in stack\n" +
                       stack + "31\n"},
      {modify(plain), stack + "31\n" + vrf + "MirelRouteMod: MirelRouteMod Modified route for 10.0.0.0/8 \n"},
      {add(mpls), vrf + "MirelRouteAdd: MirelRouteAdd added route for 10.0.0.0/8 \n" + vrf +
                      "MirelRouteAdd: Adding MPLS route to 10.0.0.0/8  with next hop 250.0.0.6 in stack\n"},
      {modify(rfc5549), vrf + "MirelRouteMod: Adding RFC5549 route to 10.0.0.0/8  with next hop 250.0.0.2 in stack\n" +
                            vrf + "MirelRouteMod: MirelRouteMod Modified route for 10.0.0.0/8 \n"},
      {add(local), vrf + "MirelRouteAdd: MirelRouteAdd ignored local route 10.0.0.0/8 \n"},
      {modify(local), vrf + "MirelRouteMod: MirelRouteMod ignored local route 10.0.0.0/8 \n"},
      {add(kernel), vrf + "MirelRouteAdd: MirelRouteAdd ignored kernel route 10.0.0.0/8 \n"},
      {modify(kernel), vrf + "MirelRouteMod: MirelRouteMod ignored kernel route 10.0.0.0/8 \n"},
      {[&] { MirelRouteDel(&plain); }, vrf + "MirelRouteDel: MirelRouteDel deleted route for 10.0.0.0/8 \n"},
      {[&] { MirelRouteAdd(&plain, nullptr); },
       vrf + "MirelRouteAdd: MirelRouteAdd added route for 10.0.0.0/8 \n" + vrf +
           "MirelRouteAdd: Failed to get next hop details for 10.0.0.0/8 \n\n"},
      {[&] { MirelRouteMod(&plain, nullptr); },
       vrf + "MirelRouteMod: Failed to get next hop details for 10.0.0.0/8 \n\n"},
  };
  mirelDebugFlags = 1;
  for (const auto &row : CASES) {
    EXPECT_EQ(printed(row.action), row.expected);
  }
  for (const auto &[action, first] :
       {std::pair<std::function<void()>, const char *>{add(nowhere),
                                                       "MirelRouteAdd: Error in getting the address for route add\n"},
        {modify(nowhere), "MirelRouteMod: Error in getting the address for route add\n"},
        {[&] { MirelRouteDel(&nowhere); }, "MirelRouteDel: Error in getting the address for route del\n"}}) {
    EXPECT_THAT(printed(action), testing::StartsWith(vrf + first));
  }
}

// RTO with batches to hand out. Each fetch may take a while by the set clock.
class DrainTest : public BestRouteChangeTest {
protected:
  struct Batch {
    int32_t status;
    std::vector<BestRouteRecord> records;
  };

  DrainTest() {
    scripted::clockSet(now);
    bestRouteChangePending = 1;
    SCRIPTED_HOOK(rpcclt_tarnapiBestRouteChangeNextGetMult,
                  [this](tarnapiClient *, uint32_t, uint32_t, const tarn_buffdesc *out) { return fetch(out); });
  }

  int32_t fetch(const tarn_buffdesc *out) {
    const Batch batch = batches.empty() ? Batch{TARN_NO_MORE, {}} : batches.front();
    if (!batches.empty()) {
      batches.erase(batches.begin());
    }
    EXPECT_EQ(out->size, 89200u);
    EXPECT_EQ(std::count(out->pstart, out->pstart + out->size, '\0'), out->size) << "buffer not cleared";
    EXPECT_FALSE(apiSemaphoreFree());
    std::copy(batch.records.begin(), batch.records.end(), reinterpret_cast<BestRouteRecord *>(out->pstart));
    scripted::clockSet(now += secondsPerFetch);
    ++fetches;
    return batch.status;
  }

  std::vector<Batch> batches;
  uint64_t now = 5000;
  uint32_t secondsPerFetch = 0;
  int fetches = 0;
};

BestRouteRecord numbered(uint8_t number, uint8_t changeType = 0) {
  return routeWith([=](BestRouteRecord &r) {
    r.prefix.ipv4 = ipv4(10, number, 0, 0);
    r.prefixLen = 16;
    r.changeType = changeType;
  });
}

TEST_F(DrainTest, NothingPendingFetchesNothing) {
  bestRouteChangePending = 0;
  mirelBestRoutesProcess();
  EXPECT_EQ(fetches, 0);
  EXPECT_EQ(brc_client_keepalive_time, 0u);
}

TEST_F(DrainTest, LastBatchCarriesRecordsToo) {
  batches = {{TARN_OK, {numbered(1)}}, {TARN_NO_MORE, {numbered(2), numbered(3, 2), numbered(4, 1)}}};
  mirelBestRoutesProcess();
  EXPECT_EQ(scripted::calls()[0], "rpcclt_tarnapiBestRouteChangeNextGetMult 7 50 [89200]");
  EXPECT_THAT(kernelCalls(), ElementsAre("procOsapiAddMRoute 10.1.0.0 255.255.0.0 192.0.2.1 5 0x0 rt5",
                                         "procOsapiAddMRoute 10.2.0.0 255.255.0.0 192.0.2.1 5 0x0 rt5",
                                         "procOsapiDeleteMRoute 10.3.0.0 255.255.0.0 0.0.0.0 0 ''",
                                         "procOsapiAddMRoute 10.3.0.0 255.255.0.0 192.0.2.1 5 0x0 rt5",
                                         "procOsapiDeleteMRoute 10.4.0.0 255.255.0.0 0.0.0.0 0 ''"));
  EXPECT_EQ(bestRouteChangePending, 0u);
  EXPECT_EQ(brc_client_keepalive_time, 5000u);
  EXPECT_EQ(ledger(), "added=2 deleted=1 modified=1 active=1");
}

TEST_F(DrainTest, RecordsThatAreNotValidAreSkipped) {
  std::vector<BestRouteRecord> records(50, numbered(1));
  for (BestRouteRecord &record : records) {
    record.valid = 0;
  }
  records[49].valid = 0x80;
  batches = {{TARN_NO_MORE, records}};
  mirelBestRoutesProcess();
  EXPECT_EQ(kernelCalls().size(), 1u);
}

TEST_F(DrainTest, FailedFetchGivesUp) {
  batches = {{TARN_OK, {numbered(1)}}, {TARN_FAILURE, {numbered(2)}}, {TARN_NO_MORE, {numbered(3)}}};
  now = 6000;
  scripted::clockSet(now);
  mirelDebugFlags = 1;
  EXPECT_THAT(printed(mirelBestRoutesProcess),
              testing::EndsWith("[blue (VRF 3)]:mirelBestRoutesProcess: Error -26 retrieving best route changes.\n"));
  EXPECT_EQ(fetches, 2);
  EXPECT_EQ(bestRouteChangePending, 0u);
  EXPECT_EQ(brc_client_keepalive_time, 6000u);
  EXPECT_EQ(ledger(), "added=1 get=1 active=1");
}

// The budget is compared between batches, and only more than the budget ends the drain.
TEST_F(DrainTest, TimeBudget) {
  const struct {
    uint32_t budget, secondsPerFetch;
    uint64_t start;
    int fetches;
  } CASES[] = {
      {1, 2, 5000, 1},
      {1, 1, 5000, 2},
      {0, 1, 5000, 1},
      {0, 0, 5000, 11},
      {3, 1, 5000, 4},
      {1, 1, 0xffffffff, 2}, // across the wrap of the clock
      {UINT32_MAX, 100, 5000, 11},
  };
  for (const auto &row : CASES) {
    batches.assign(10, {TARN_OK, {}});
    fetches = 0;
    now = row.start;
    scripted::clockSet(now);
    secondsPerFetch = row.secondsPerFetch;
    mirelBestRouteApplyTime = row.budget;
    bestRouteChangePending = 1;
    mirelBestRoutesProcess();
    EXPECT_EQ(fetches, row.fetches) << row.budget;
    EXPECT_EQ(bestRouteChangePending, row.fetches == 11 ? 0u : 1u) << row.budget;
    EXPECT_EQ(brc_client_keepalive_time, static_cast<uint32_t>(now)) << row.budget;
  }
}

TEST_F(DrainTest, LastBatchEndsTheDrainHoweverLongItTook) {
  batches = {{TARN_NO_MORE, {}}};
  secondsPerFetch = 100;
  mirelBestRoutesProcess();
  EXPECT_EQ(bestRouteChangePending, 0u);
  EXPECT_EQ(brc_client_keepalive_time, 5100u);
}

TEST_F(DrainTest, NextCallGoesOnWhereTheLastStopped) {
  secondsPerFetch = 2;
  batches = {{TARN_OK, {numbered(1)}}, {TARN_NO_MORE, {numbered(2)}}};
  mirelBestRoutesProcess();
  EXPECT_EQ(kernelCalls().size(), 1u);
  mirelBestRoutesProcess();
  EXPECT_THAT(kernelCalls(), ElementsAre("procOsapiAddMRoute 10.2.0.0 255.255.0.0 192.0.2.1 5 0x0 rt5"));
  EXPECT_EQ(bestRouteChangePending, 0u);
}

TEST_F(DrainTest, Traces) {
  batches = {{TARN_OK, {}}, {TARN_NO_MORE, {numbered(1, 3), numbered(1, 255)}}};
  mirelDebugFlags = 1;
  const std::string prefix = "[blue (VRF 3)]:mirelBestRoutesProcess: ";
  EXPECT_EQ(printed(mirelBestRoutesProcess), prefix + "Fetching 50 best routes from RTO.\n" + prefix +
                                                 "Fetching 50 best routes from RTO. Client ID = 7\n" + prefix +
                                                 "Invalid route change type 3\n" + prefix +
                                                 "Invalid route change type 255\n");
  EXPECT_THAT(kernelCalls(), IsEmpty());
}

TEST_F(DrainTest, FailuresAreTracedUnderTheirOwnBitAndStopNothing) {
  batches = {{TARN_NO_MORE, {numbered(1), numbered(2, 2), numbered(3)}}};
  scripted::script("procOsapiAddMRoute: 8\nprocOsapiAddMRoute: 1");
  mirelDebugFlags = 4;
  const std::string prefix = "[blue (VRF 3)]:mirelBestRoutesProcess: ";
  EXPECT_EQ(printed(mirelBestRoutesProcess), prefix + "Failed to add route to 10.1.0.0/16, error = 8\n\n" + prefix +
                                                 "Failed to modify route to 10.2.0.0/16, error = 1\n\n");
  EXPECT_EQ(ledger(), "added=1 addErrors=1 modifyErrors=1 stack=2 rpc=1 active=1");
}

TEST_F(DrainTest, PlatformCallsAreUnderTheSemaphore) {
  scripted::observe([](const std::string &line) {
    if (line.starts_with("rpcclt_") || line.starts_with("tarnapi")) {
      EXPECT_FALSE(apiSemaphoreFree()) << line;
    }
  });
  batches = {{TARN_NO_MORE, {numbered(1), numbered(2, 1), routeWith([](BestRouteRecord &r) { r.viaVrfDevice = 1; })}}};
  mirelBestRoutesProcess();
  EXPECT_TRUE(apiSemaphoreFree());
}

} // namespace
