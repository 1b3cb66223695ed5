// One datagram of the kernel's neighbour notifications.

#include "agent.h"

#include "mirel_arp.h"

namespace {

constexpr size_t RECEIVE_SIZE = 512;

}

int LLVMFuzzerInitialize(int *, char ***) {
  agentSetUp();
  return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::vector<uint8_t> datagram = received(data, size, RECEIVE_SIZE);
  mirelNeighbourDatagramProcess(netlinkBytes(datagram.data(), datagram.size()));
  agentInputEnd();
  return 0;
}
