// One read of the link dump by which a restarted agent finds the links to flap.

#include "agent.h"

#include "mirel_route_flush.h"

namespace {

constexpr size_t RECEIVE_SIZE = 4096;

}

int LLVMFuzzerInitialize(int *, char ***) {
  agentSetUp();
  return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::vector<uint8_t> read = received(data, size, RECEIVE_SIZE);
  mirelLinkDumpRead(netlinkBytes(read.data(), read.size()));
  agentInputEnd();
  return 0;
}
