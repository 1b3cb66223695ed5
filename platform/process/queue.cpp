// Message queues: a ring of fixed-size messages, a lock for it, and two counting semaphores, one for the messages and one for
// the free places. A thread waits on a counting semaphore only, holding nothing, so it may be cancelled there.

#include "osapi.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <memory>
#include <new>

struct osapiMsgQueue {
  uint32_t limit = 0;
  uint32_t msgSize = 0;
  osapiSema *messages = nullptr;
  osapiSema *places = nullptr;
  osapiSema *lock = nullptr; // of what follows
  uint32_t head = 0;
  uint32_t count = 0;
  std::unique_ptr<std::byte[]> ring;

  std::byte *at(uint32_t position) const {
    return ring.get() + size_t{msgSize} * ((uint64_t{head} + position) % limit);
  }
};

namespace {

enum QueueResult : int32_t { QUEUE_OK = 0, QUEUE_FAILED = 1 };

class QueueLock {
public:
  explicit QueueLock(osapiMsgQueue *queue) : sema_(queue->lock) { osapiSemaTake(sema_, QV_WAIT_FOREVER); }
  QueueLock(const QueueLock &) = delete;
  QueueLock &operator=(const QueueLock &) = delete;
  ~QueueLock() { osapiSemaGive(sema_); }

private:
  osapiSema *sema_;
};

void deleteIfCreated(osapiSema *sema) {
  if (sema != nullptr) {
    osapiSemaDelete(sema);
  }
}

void destroy(osapiMsgQueue *queue) {
  deleteIfCreated(queue->messages);
  deleteIfCreated(queue->places);
  deleteIfCreated(queue->lock);
  delete queue;
}

} // namespace

extern "C" osapiMsgQueue *osapiMsgQueueCreate(const char *, uint32_t count, uint32_t msgSize) {
  if (count == 0 || count > INT_MAX || msgSize == 0) {
    return nullptr;
  }
  auto *queue = new (std::nothrow) osapiMsgQueue;
  if (queue == nullptr) {
    return nullptr;
  }
  queue->limit = count;
  queue->msgSize = msgSize;
  queue->ring.reset(new (std::nothrow) std::byte[size_t{count} * msgSize]);
  queue->messages = osapiSemaCCreate(0, 0);
  queue->places = osapiSemaCCreate(0, count);
  queue->lock = osapiSemaMCreate(0);
  if (!queue->ring || queue->messages == nullptr || queue->places == nullptr || queue->lock == nullptr) {
    destroy(queue);
    return nullptr;
  }
  return queue;
}

extern "C" int32_t osapiMsgQueueDelete(osapiMsgQueue *queue) {
  destroy(queue);
  return QUEUE_OK;
}

extern "C" int32_t osapiMsgQueueLimitGet(osapiMsgQueue *queue, uint32_t *limit) {
  *limit = queue->limit;
  return QUEUE_OK;
}

extern "C" int32_t osapiMsgQueueGetNumMsgs(osapiMsgQueue *queue, uint32_t *count) {
  const QueueLock lock(queue);
  *count = queue->count;
  return QUEUE_OK;
}

extern "C" int32_t osapiMessageSend(osapiMsgQueue *queue, const void *message, uint32_t size, int32_t wait, uint32_t) {
  if (size > queue->msgSize && (wait == QV_WAIT_FOREVER || wait == QV_NO_WAIT)) {
    return QUEUE_FAILED;
  }
  const int32_t result = osapiSemaTake(queue->places, wait); // refuses another wait value with the queue's own result
  if (result != QUEUE_OK) {
    return result;
  }
  {
    const QueueLock lock(queue);
    std::byte *place = queue->at(queue->count);
    memcpy(place, message, size);
    memset(place + size, 0, queue->msgSize - size);
    ++queue->count;
  }
  osapiSemaGive(queue->messages);
  return QUEUE_OK;
}

// Apart from the wait, so that no object is alive on the frame that a cancelled thread never leaves.
[[gnu::noinline]] static void headTake(osapiMsgQueue *queue, void *buffer, uint32_t size) {
  {
    const QueueLock lock(queue);
    memcpy(buffer, queue->at(0), std::min(size, queue->msgSize));
    queue->head = (queue->head + 1) % queue->limit;
    --queue->count;
  }
  osapiSemaGive(queue->places);
}

extern "C" int32_t osapiMessageReceive(osapiMsgQueue *queue, void *buffer, uint32_t size, int32_t wait) {
  const int32_t result = osapiSemaTake(queue->messages, wait);
  if (result != QUEUE_OK) {
    return result;
  }
  headTake(queue, buffer, size);
  return QUEUE_OK;
}

extern "C" int32_t osapiMessagePeek(osapiMsgQueue *queue, void *buffer, uint32_t size, uint32_t position) {
  const QueueLock lock(queue);
  if (position >= queue->count) {
    return QUEUE_FAILED;
  }
  memcpy(buffer, queue->at(position), std::min(size, queue->msgSize));
  return QUEUE_OK;
}
