// The best routes of one interface: how far one call fetches, where the next goes on, and the queue in between.

#include "core_test.h"
#include "mirel_best_route.h"
#include "mirel_intf_best_route.h"

#include <algorithm>
#include <cstring>
#include <deque>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr uint32_t FIRST = ipv4(10, 0, 0, 0);

BestRouteRecord route(uint32_t prefix, uint8_t prefixLen = 24) {
  BestRouteRecord record{};
  record.prefix.family = TARN_FAMILY_IPV4;
  record.prefix.ipv4 = prefix;
  record.prefixLen = prefixLen;
  record.routeType = 3;
  record.numNextHops = 1;
  record.nextHops[0].addr = {.family = TARN_FAMILY_IPV4, .ipv4 = ipv4(192, 0, 2, 1)};
  record.valid = 1;
  return record;
}

struct Batch {
  int32_t status;
  std::vector<BestRouteRecord> records;
  uint32_t seconds = 0; // that the fetch takes
};

Batch fullBatch(uint32_t first, uint32_t seconds = 0) {
  Batch batch{.status = TARN_OK, .records = {}, .seconds = seconds};
  for (uint32_t i = 0; i < BEST_ROUTE_BATCH; ++i) {
    batch.records.push_back(route(first + i * 256));
  }
  return batch;
}

std::string text(const IntfBestRouteCursor &cursor) {
  char buffer[64];
  snprintf(buffer, sizeof buffer, "%u: %x/%u", cursor.intIfNum, cursor.prefix, cursor.prefixLen);
  return buffer;
}

// The fetches are answered from the list of batches; the last batch is never followed.
class IntfBestRouteTest : public CoreTest {
protected:
  IntfBestRouteTest() {
    clockSet(5000);
    SCRIPTED_HOOK(rpcclt_tarnapiIntfBestRoutesNextGet,
                  [this](tarnapiClient *, uint32_t clientId, uint32_t intIfNum, uint32_t count,
                         const tarn_buffdesc *out) { return fetch(clientId, intIfNum, count, *out); });
  }
  ~IntfBestRouteTest() override { queueTake(); }

  void clockSet(uint64_t seconds) {
    clock = seconds;
    scripted::clockSet(seconds);
  }

  int32_t fetch(uint32_t clientId, uint32_t intIfNum, uint32_t count, const tarn_buffdesc &out) {
    EXPECT_EQ(clientId, 7u);
    EXPECT_EQ(count, BEST_ROUTE_BATCH);
    EXPECT_FALSE(apiSemaphoreFree());
    std::vector<BestRouteRecord> records(BEST_ROUTE_BATCH);
    EXPECT_EQ(out.size, records.size() * sizeof records[0]);
    memcpy(records.data(), out.pstart, out.size);
    keys.push_back(text({.intIfNum = intIfNum, .prefix = records[0].prefix.ipv4, .prefixLen = records[0].prefixLen}));
    records[0].prefix.ipv4 = 0;
    records[0].prefixLen = 0;
    const std::vector<BestRouteRecord> cleared(BEST_ROUTE_BATCH);
    EXPECT_EQ(memcmp(records.data(), cleared.data(), out.size), 0) << "more than the key in the buffer";
    if (batches.empty()) {
      ADD_FAILURE() << "fetched once too often";
      return TARN_FAILURE;
    }
    const Batch batch = batches.front();
    batches.pop_front();
    std::copy(batch.records.begin(), batch.records.end(), reinterpret_cast<BestRouteRecord *>(out.pstart));
    clockSet(clock + batch.seconds);
    return batch.status;
  }

  static Lines kernelCalls() {
    Lines calls = scripted::takeCalls();
    std::erase_if(calls, [](const std::string &line) { return !line.starts_with("procOsapi"); });
    return calls;
  }

  static void add(uint32_t intIfNum) {
    const IntfBestRouteCursor cursor{.intIfNum = intIfNum, .prefix = 0, .prefixLen = 0};
    mirelIntfBestRoutesAdd(&cursor);
  }

  static void enqueue(uint32_t intIfNum, uint32_t prefix) {
    enqueueMirel(&intfBestRouteQueue, new IntfBestRouteCursor{.intIfNum = intIfNum, .prefix = prefix, .prefixLen = 24});
  }

  // What is queued; the queue is empty then.
  static Lines queueTake() {
    Lines queued;
    EXPECT_EQ(intfBestRouteQueue.head == nullptr, intfBestRouteQueue.count == 0);
    while (IntfBestRouteCursor *cursor = dequeueMirel(&intfBestRouteQueue)) {
      queued.push_back(text(*cursor));
      delete cursor;
    }
    EXPECT_EQ(intfBestRouteQueue.count, 0u);
    EXPECT_EQ(intfBestRouteQueue.tail, nullptr);
    return queued;
  }

  std::deque<Batch> batches;
  Lines keys;
  uint64_t clock = 0;
};

TEST_F(IntfBestRouteTest, EachRouteIsRemovedThenAdded) {
  Batch batch = fullBatch(FIRST);
  batch.status = TARN_NO_MORE;
  batch.records.resize(30);
  batch.records[3].valid = 0;
  batches = {batch};
  scripted::script("procOsapiDeleteMRoute: 1\nprocOsapiAddMRoute: 1\nprocOsapiAddMRoute: 8"); // none ends the batch
  add(5);
  EXPECT_THAT(keys, ElementsAre("5: 0/0"));
  const Lines calls = kernelCalls();
  ASSERT_EQ(calls.size(), 58u);
  for (size_t i = 0; i < calls.size(); i += 2) {
    const size_t third = i / 2 + (i >= 6 ? 1 : 0);
    const std::string prefix = " 10.0." + std::to_string(third) + ".0 255.255.255.0 ";
    EXPECT_EQ(calls[i], "procOsapiDeleteMRoute" + prefix + "0.0.0.0 0 ''");
    EXPECT_EQ(calls[i + 1], "procOsapiAddMRoute" + prefix + "192.0.2.1 0 0x0 ''");
  }
  EXPECT_THAT(queueTake(), IsEmpty());
  EXPECT_EQ(statsHandle.numRoutesAdded, 27u);
  EXPECT_EQ(statsHandle.numRouteAddErrors, 2u);
  EXPECT_EQ(statsHandle.numRpcErrors, 1u);
  EXPECT_EQ(statsHandle.numRouteDeleteErrors, 1u);
  EXPECT_EQ(brc_client_keepalive_time, 5000u);
}

TEST_F(IntfBestRouteTest, OnlyAdditionsAreMade) {
  for (const uint8_t type : {uint8_t{1}, uint8_t{2}, uint8_t{255}}) {
    BestRouteRecord record = route(FIRST);
    record.changeType = type;
    batches = {{.status = TARN_NO_MORE, .records = {record}}};
    mirelDebugFlags = 1;
    EXPECT_THAT(printed([] { add(5); }),
                testing::EndsWith("[blue (VRF 3)]:mirelIntfBestRoutesAdd: Invalid interface best-route change type " +
                                  std::to_string(type) + "\n"));
    EXPECT_THAT(kernelCalls(), IsEmpty());
  }
}

// The next fetch begins after record 49 whatever that holds; the budget is compared between batches, "more than".
TEST_F(IntfBestRouteTest, WhereTheNextFetchBegins) {
  Batch holed = fullBatch(FIRST);
  holed.records[49].valid = 0;
  Batch empty = fullBatch(FIRST);
  empty.records[49] = {};
  const Batch last{.status = TARN_NO_MORE, .records = {route(ipv4(10, 9, 0, 0))}};
  const Batch failed{.status = TARN_FAILURE, .records = {}};
  struct Case {
    const char *what;
    std::deque<Batch> batches;
    uint64_t start;
    Lines keys;
    Lines queued;
    uint32_t errors;
  };
  const std::vector<Case> cases = {
      {"goes on", {fullBatch(FIRST), last}, 5000, {"5: 0/0", "5: a003100/24"}, {}, 0},
      {"time is just enough", {fullBatch(FIRST, 1), last}, 5000, {"5: 0/0", "5: a003100/24"}, {}, 0},
      {"time is over", {fullBatch(FIRST, 2)}, 5000, {"5: 0/0"}, {"5: a003100/24"}, 0},
      {"time is over in the second batch",
       {fullBatch(FIRST, 1), fullBatch(ipv4(10, 8, 0, 0), 1)},
       5000,
       {"5: 0/0", "5: a003100/24"},
       {"5: a083100/24"},
       0},
      {"time over the 32-bit wrap", {fullBatch(FIRST, 1), last}, 0xFFFFFFFF, {"5: 0/0", "5: a003100/24"}, {}, 0},
      {"the last batch takes its time", {{TARN_NO_MORE, {}, 100}}, 5000, {"5: 0/0"}, {}, 0},
      {"record 49 invalid", {holed, last}, 5000, {"5: 0/0", "5: a003100/24"}, {}, 0},
      {"record 49 empty", {empty, last}, 5000, {"5: 0/0", "5: 0/0"}, {}, 0},
      {"fails at once", {failed}, 5000, {"5: 0/0"}, {}, 1},
      {"fails in the second batch", {fullBatch(FIRST), failed}, 5000, {"5: 0/0", "5: a003100/24"}, {}, 1},
  };
  for (const Case &row : cases) {
    clockSet(row.start);
    keys.clear();
    batches = row.batches;
    statsHandle = MirelStats{};
    brc_client_keepalive_time = 0;
    add(5);
    EXPECT_EQ(keys, row.keys) << row.what;
    EXPECT_THAT(batches, IsEmpty()) << row.what;
    EXPECT_EQ(queueTake(), row.queued) << row.what;
    EXPECT_EQ(statsHandle.numBestRouteGetErrors, row.errors) << row.what;
    EXPECT_EQ(brc_client_keepalive_time, static_cast<uint32_t>(clock)) << row.what;
    EXPECT_TRUE(apiSemaphoreFree()) << row.what;
  }
}

// One interface a call, those that run out of time again go behind the others.
TEST_F(IntfBestRouteTest, QueuedInterfacesTakeTurns) {
  batches = {fullBatch(FIRST, 2), fullBatch(FIRST, 2)};
  add(5);
  add(9);
  batches = {fullBatch(ipv4(10, 8, 0, 0), 2),
             {.status = TARN_NO_MORE, .records = {}},
             {.status = TARN_NO_MORE, .records = {}}};
  keys.clear();
  for (int call = 0; call < 4; ++call) {
    mirelIntfBestRoutesProcess();
  }
  EXPECT_THAT(keys, ElementsAre("5: a003100/24", "9: a003100/24", "5: a083100/24"));
  EXPECT_THAT(queueTake(), IsEmpty());
}

TEST_F(IntfBestRouteTest, EmptyQueue) {
  mirelDebugFlags = 1;
  EXPECT_EQ(printed(mirelIntfBestRoutesProcess),
            "[blue (VRF 3)]:mirelIntfBestRoutesProcess: Installing interface best-routes from RTO.\n"
            "[blue (VRF 3)]:dequeueMirel: Trying to dequeue from Mirel Queue...\n");
  EXPECT_EQ(printed([] { deleteNodeIntfBestRoute(5); }),
            "[blue (VRF 3)]:deleteNodeIntfBestRoute: Trying to delete (intIfNum:5) node from Mirel Queue...\n"
            "[blue (VRF 3)]:deleteNodeIntfBestRoute: Successfully deleted (intIfNum:5) node from Mirel Queue.\n");
  EXPECT_THAT(scripted::takeCalls(), IsEmpty());
}

TEST_F(IntfBestRouteTest, Discard) {
  const struct {
    std::vector<uint32_t> queued;
    std::vector<uint32_t> left;
  } CASES[] = {
      {{5, 7, 5, 9}, {7, 9}}, {{7, 9}, {7, 9}}, {{5, 5}, {}}, {{7, 5}, {7}}, {{5}, {}},
  };
  for (const auto &row : CASES) {
    uint32_t prefix = 0;
    for (const uint32_t intIfNum : row.queued) {
      enqueue(intIfNum, ++prefix);
    }
    deleteNodeIntfBestRoute(5);
    EXPECT_EQ(intfBestRouteQueue.count, row.left.size());
    const Lines queued = queueTake();
    Lines expected;
    for (const uint32_t intIfNum : row.left) {
      const auto at = std::find(row.queued.begin(), row.queued.end(), intIfNum) - row.queued.begin();
      expected.push_back(text({.intIfNum = intIfNum, .prefix = static_cast<uint32_t>(at) + 1, .prefixLen = 24}));
    }
    EXPECT_EQ(queued, expected);
  }
}

TEST_F(IntfBestRouteTest, Traces) {
  mirelDebugFlags = 1 | 4;
  batches = {fullBatch(FIRST, 1), {.status = TARN_FAILURE, .records = {}}};
  for (BestRouteRecord &record : batches[0].records) {
    record.valid = record.prefix.ipv4 == FIRST;
  }
  scripted::script("procOsapiAddMRoute: 8");
  const std::string prefix = "[blue (VRF 3)]:mirelIntfBestRoutesAdd: ";
  const std::string traces = printed([] { add(5); });
  EXPECT_TRUE(traces.starts_with(prefix + "Fetching 50 interface best-routes from RTO.\n" + prefix +
                                 "First route: intIfNum:5, prefix:0, mask:0.\n"))
      << traces;
  EXPECT_TRUE(traces.ends_with(prefix + "Failed to add route to 10.0.0.0/24, error = 8\n\n" + prefix +
                               "Fetching 50 interface best-routes from RTO. Client ID = 7\n" + prefix +
                               "Next route: intIfNum:5, prefix:a003100, mask:ffffff00.\n" + prefix +
                               "Error -26 retrieving interface 5 best-routes.\n"))
      << traces;
  batches = {fullBatch(FIRST, 2)};
  batches[0].records.assign(BEST_ROUTE_BATCH, {});
  EXPECT_THAT(printed([] { add(5); }),
              testing::EndsWith(prefix + "Enqueuing route: intIfNum:5, prefix:0, prefixLen:0.\n"
                                         "[blue (VRF 3)]:enqueueMirel: Trying to enqueue to Mirel Queue...\n"
                                         "[blue (VRF 3)]:enqueueMirel: Successfully enqueued to Mirel Queue.\n"));
}

} // namespace
