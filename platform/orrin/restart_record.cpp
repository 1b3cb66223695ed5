// Creating and removing the restart flags. Used by orrin's one thread.

#include "restart_record.h"

#include "syncdb_store.h"

#include <array>
#include <cerrno>
#include <cstring>

namespace orrin {

namespace {

std::string recordName(uint32_t vrf) {
  return "Mirel Restart State-" + std::to_string(vrf);
}

} // namespace

bool createRestartRecord(uint32_t vrf, std::string &error) {
  constexpr std::array<std::byte, 1> NOT_STARTED{};
  if (syncdbRecordCreate(recordName(vrf), NOT_STARTED) != 0) {
    const int reason = errno;
    error = "sync database: \"" + recordName(vrf) + "\": " + std::strerror(reason);
    return false;
  }
  return true;
}

void removeRestartRecord(uint32_t vrf) {
  syncdbRecordRemove(recordName(vrf));
}

} // namespace orrin
