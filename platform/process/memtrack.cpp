// Memory tracking of a process: the bytes of the heap in use when it began, and one log line about what has been added when
// the process ends by exit. Any thread. The allocator counts a freed block in use as long as it waits in a thread's cache
// for the next request of its size, so a few kilobytes say nothing.

#include "qvproc.h"

#include <atomic>
#include <cstdlib>
#include <malloc.h>
#include <unistd.h>

namespace {

constexpr uint32_t SEVERITY_INFO = 6;
constexpr uint32_t COMPONENT_SELF_TEST = 0;

std::atomic<pid_t> trackedIn{0}; // a forked child inherits it with the exit handler, and tracks nothing of its own yet
std::atomic<size_t> bytesAtStart{0};

size_t heapBytesInUse() {
  const struct mallinfo2 heap = mallinfo2();
  return heap.uordblks + heap.hblkhd;
}

void logAtExit() {
  if (trackedIn.load(std::memory_order_acquire) != getpid()) {
    return;
  }
  const size_t inUse = heapBytesInUse();
  const auto added = static_cast<long long>(inUse - bytesAtStart.load(std::memory_order_relaxed));
  qvproc_logf(SEVERITY_INFO, COMPONENT_SELF_TEST, "platform/process/memtrack", __LINE__,
              "process %d: memory tracking: %lld bytes added, %zu in use", getpid(), added, inUse);
}

} // namespace

extern "C" int32_t qvproc_memtrack_init() {
  static std::atomic<bool> handlerRegistered{false};
  if (!handlerRegistered.exchange(true) && atexit(logAtExit) != 0) {
    handlerRegistered = false;
    return 1;
  }
  bytesAtStart.store(heapBytesInUse(), std::memory_order_relaxed);
  trackedIn.store(getpid(), std::memory_order_release);
  return 0;
}
