// One datagram of the switch's ARP resolution.

#include "agent.h"

#include "mirel_arp.h"

#include <algorithm>

int LLVMFuzzerInitialize(int *, char ***) {
  agentSetUp();
  return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  ArpResolutionMsg msg{};
  memcpy(&msg, data, std::min(size, sizeof msg));
  mirelArpEvntHandle(&msg);
  agentInputEnd();
  return 0;
}
