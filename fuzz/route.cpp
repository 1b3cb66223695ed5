// One datagram of the kernel's route notifications, from the listener through the queue to what the task reports to RTO. A
// datagram longer than the listener's buffer is one that the kernel cut.

#include "agent.h"

#include "rto_netlink.h"

#include <memory>
#include <sys/socket.h>

namespace {

constexpr size_t RECEIVE_SIZE = 8192;

void reportQueued() {
  rto_extRoute_msg *queued = nullptr;
  while (osapiMessageReceive(extRouteQueue, &queued, sizeof queued, QV_NO_WAIT) == 0) {
    const std::unique_ptr<rto_extRoute_msg> msg(queued);
    rtoExternalRouteReport(*msg);
  }
}

} // namespace

int LLVMFuzzerInitialize(int *, char ***) {
  agentSetUp();
  return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::vector<uint8_t> datagram = received(data, size, RECEIVE_SIZE);
  rtoDatagramProcess(netlinkBytes(datagram.data(), datagram.size()), size > RECEIVE_SIZE ? MSG_TRUNC : 0, rtoAcceptMsg);
  reportQueued();
  agentInputEnd();
  return 0;
}
