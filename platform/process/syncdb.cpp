// The sync database as the agent sees it. The interface has no call that subscribes to a record, so the library never has
// anything to tell: the notification descriptor is real and valid to select on, and never becomes readable.

#include "syncdb.h"

#include "syncdb_store.h"

#include <atomic>
#include <sys/eventfd.h>

extern "C" int32_t syncdbClientRegister(const char *, SyncdbClient *client) {
  static std::atomic<uint32_t> lastClientId{0};
  const int fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (fd < 0) {
    return 1;
  }
  client->syncdbNotifyFd = fd;
  client->clientId = lastClientId.fetch_add(1, std::memory_order_relaxed) + 1;
  return 0;
}

extern "C" int32_t syncdbGet(SyncdbClient *, const char *record, void *value, uint32_t size, uint32_t) {
  // An empty file holds no value: for the agent that is a record that it cannot read.
  return syncdbRecordRead(record, {static_cast<std::byte *>(value), size}) > 0 ? 0 : 1;
}

extern "C" int32_t syncdbSet(SyncdbClient *, const char *record, const void *value, uint32_t size) {
  return syncdbRecordReplace(record, {static_cast<const std::byte *>(value), size}) == 0 ? 0 : 1;
}
