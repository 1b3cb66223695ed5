// Looking things up in the switch. Used by orrin's one thread.

#include "switch.h"

#include <ctime>

namespace orrin {

uint64_t nowMs() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1000000;
}

Vrf *findVrf(Switch &sw, uint32_t id) {
  const auto entry = sw.vrfs.find(id);
  return entry == sw.vrfs.end() ? nullptr : &entry->second;
}

Interface *findInterface(Switch &sw, uint32_t number) {
  const auto entry = sw.interfaces.find(number);
  return entry == sw.interfaces.end() ? nullptr : &entry->second;
}

} // namespace orrin
