// What the kernel knows about a client's process.
#pragma once

#include "unique_fd.h"

#include <cstdint>

namespace orrin {

bool processExists(uint32_t pid);
// In clock ticks since boot; tells a process from a later one of the same pid. 0 when there is none.
uint64_t processStartTime(uint32_t pid);
// A descriptor that becomes readable when the process ends, also one that its parent has not waited for.
UniqueFd openProcess(uint32_t pid);
bool processEnded(const UniqueFd &process);

} // namespace orrin
