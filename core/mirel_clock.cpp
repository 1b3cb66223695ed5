// The agent's clock, a source of its own so that a test can put a clock it sets in its place.

#include "mirel_context.h"

#include <ctime>

uint32_t currentGetTime() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<uint32_t>(now.tv_sec);
}
