// Interface best routes: fetched in batches and installed when an interface comes up, parked in a queue when time runs out.
// Main thread; the queue has no lock. Cursors and links are the only memory that the main loop allocates here.

#include "mirel_intf_best_route.h"

#include "api_lock.h"
#include "mirel_address.h"
#include "mirel_best_route.h"
#include "mirel_trace.h"

#include <array>
#include <cstring>
#include <new>

MirelQueue intfBestRouteQueue = {};

namespace {

std::array<BestRouteRecord, BEST_ROUTE_BATCH> intfBestRouteBuf;

int32_t batchFetch(const IntfBestRouteCursor &key) {
  memset(intfBestRouteBuf.data(), 0, sizeof intfBestRouteBuf);
  intfBestRouteBuf[0].prefix.ipv4 = key.prefix;
  intfBestRouteBuf[0].prefixLen = key.prefixLen;
  const tarn_buffdesc records{.size = sizeof intfBestRouteBuf,
                              .pstart = reinterpret_cast<char *>(intfBestRouteBuf.data())};
  return apiCall(rpcclt_tarnapiIntfBestRoutesNextGet, brc_client_id.get(), key.intIfNum, BEST_ROUTE_BATCH, &records);
}

// What the kernel may hold under the prefix goes first.
void routeApply(const BestRouteRecord &record) {
  if (record.changeType != CHANGE_ADD) {
    MIREL_TRACE(TRACE_GENERAL, "mirelIntfBestRoutesAdd", "Invalid interface best-route change type %d\n",
                record.changeType);
    return;
  }
  MirelRouteDel(&record);
  const int32_t status = MirelRouteAdd(&record, record.nextHops);
  if (status != 0) {
    mirelRouteFailureCount("mirelIntfBestRoutesAdd", "add", record, status);
  }
}

// A fetch that follows this batch begins after its last record, also when that is empty.
IntfBestRouteCursor keyAfterBatch(uint32_t intIfNum) {
  const BestRouteRecord &last = intfBestRouteBuf.back();
  return {.intIfNum = intIfNum, .prefix = last.prefix.ipv4, .prefixLen = last.prefixLen};
}

void continuationPark(const IntfBestRouteCursor &key) {
  auto *parked = new (std::nothrow) IntfBestRouteCursor(key);
  if (parked == nullptr) {
    return;
  }
  MIREL_TRACE(TRACE_GENERAL, "mirelIntfBestRoutesAdd", "Enqueuing route: intIfNum:%d, prefix:%x, prefixLen:%d.\n",
              parked->intIfNum, parked->prefix, parked->prefixLen);
  if (!enqueueMirel(&intfBestRouteQueue, parked)) {
    delete parked;
  }
  brc_client_keepalive_time = currentGetTime();
}

} // namespace

void mirelIntfBestRoutesAdd(const IntfBestRouteCursor *cursor) {
  constexpr const char *OPERATION = "mirelIntfBestRoutesAdd";
  const uint32_t start = currentGetTime();
  IntfBestRouteCursor key = *cursor;
  MIREL_TRACE(TRACE_GENERAL, OPERATION, "Fetching %d interface best-routes from RTO.\n", BEST_ROUTE_BATCH);
  MIREL_TRACE(TRACE_GENERAL, OPERATION, "First route: intIfNum:%d, prefix:%x, mask:%x.\n", key.intIfNum, key.prefix,
              pfxLenToMask(key.prefixLen));
  for (;;) {
    const int32_t status = batchFetch(key);
    if (status != TARN_OK && status != TARN_NO_MORE) {
      brc_client_keepalive_time = currentGetTime();
      MIREL_TRACE(TRACE_GENERAL, OPERATION, "Error %d retrieving interface %d best-routes.\n", status, key.intIfNum);
      ++statsHandle.numBestRouteGetErrors;
      return;
    }
    for (const BestRouteRecord &record : intfBestRouteBuf) {
      if (record.valid != 0) {
        routeApply(record);
      }
    }
    if (status == TARN_NO_MORE) {
      brc_client_keepalive_time = currentGetTime();
      return;
    }
    key = keyAfterBatch(key.intIfNum);
    if (currentGetTime() - start > mirelBestRouteApplyTime) {
      continuationPark(key);
      return;
    }
    MIREL_TRACE(TRACE_GENERAL, OPERATION, "Fetching %d interface best-routes from RTO. Client ID = %d\n",
                BEST_ROUTE_BATCH, brc_client_id.get());
    MIREL_TRACE(TRACE_GENERAL, OPERATION, "Next route: intIfNum:%d, prefix:%x, mask:%x.\n", key.intIfNum, key.prefix,
                pfxLenToMask(key.prefixLen));
  }
}

void mirelIntfBestRoutesProcess() {
  constexpr const char *OPERATION = "mirelIntfBestRoutesProcess";
  MIREL_TRACE(TRACE_GENERAL, OPERATION, "Installing interface best-routes from RTO.\n");
  IntfBestRouteCursor *cursor = dequeueMirel(&intfBestRouteQueue);
  if (cursor == nullptr) {
    return;
  }
  MIREL_TRACE(TRACE_GENERAL, OPERATION, "Adding interface best-routes from RTO to Linux stack.\n");
  mirelIntfBestRoutesAdd(cursor);
  delete cursor;
}

bool enqueueMirel(MirelQueue *queue, IntfBestRouteCursor *item) {
  constexpr const char *OPERATION = "enqueueMirel";
  MIREL_TRACE(TRACE_GENERAL, OPERATION, "Trying to enqueue to Mirel Queue...\n");
  auto *link = new (std::nothrow) MirelQueueLink{.item = item, .next = nullptr};
  if (link == nullptr) {
    return false;
  }
  (queue->head == nullptr ? queue->head : queue->tail->next) = link;
  queue->tail = link;
  ++queue->count;
  MIREL_TRACE(TRACE_GENERAL, OPERATION, "Successfully enqueued to Mirel Queue.\n");
  return true;
}

IntfBestRouteCursor *dequeueMirel(MirelQueue *queue) {
  constexpr const char *OPERATION = "dequeueMirel";
  MIREL_TRACE(TRACE_GENERAL, OPERATION, "Trying to dequeue from Mirel Queue...\n");
  MirelQueueLink *link = queue->head;
  if (link == nullptr) {
    return nullptr;
  }
  IntfBestRouteCursor *item = link->item;
  queue->head = link->next;
  if (queue->head == nullptr) {
    queue->tail = nullptr;
  }
  delete link;
  --queue->count;
  MIREL_TRACE(TRACE_GENERAL, OPERATION, "Successfully dequeued from Mirel Queue.\n");
  return item;
}

void deleteNodeIntfBestRoute(int32_t intIfNum) {
  constexpr const char *OPERATION = "deleteNodeIntfBestRoute";
  MIREL_TRACE(TRACE_GENERAL, OPERATION, "Trying to delete (intIfNum:%d) node from Mirel Queue...\n", intIfNum);
  for (uint32_t left = intfBestRouteQueue.count; left > 0; --left) {
    IntfBestRouteCursor *item = dequeueMirel(&intfBestRouteQueue);
    if (item->intIfNum == static_cast<uint32_t>(intIfNum)) {
      MIREL_TRACE(TRACE_GENERAL, OPERATION, "Deleting (intIfNum:%d) node...\n", intIfNum);
      delete item;
    } else if (!enqueueMirel(&intfBestRouteQueue, item)) {
      delete item;
    }
  }
  MIREL_TRACE(TRACE_GENERAL, OPERATION, "Successfully deleted (intIfNum:%d) node from Mirel Queue.\n", intIfNum);
}
