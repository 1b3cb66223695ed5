// One datagram for a running probe session, which waits for the answer to its last request: first as bytes that end where the
// datagram does, as the session's own buffer is far longer and would hide a step beyond it, then on the socket, a pair's end that
// is made once.

#include "agent.h"

#include "vr_ipslaprobe_util_session.h"

#include <array>
#include <cstdlib>
#include <sys/socket.h>

namespace {

std::array<int, 2> pair = {-1, -1};

pingSessionEntry sessionWaiting() {
  pingSessionEntry entry{};
  entry.sessionState = PING_SESSION_RUNNING;
  entry.ipSlaId = 5;
  entry.icmpIdent = 5 + ICMP_IDENT_OFFSET;
  entry.sockFd = pair[0];
  entry.dataSize = 4;
  entry.seqNum = 1;
  entry.awaitingReply = 1;
  return entry;
}

} // namespace

int LLVMFuzzerInitialize(int *, char ***) {
  agentSetUp();
  if (socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, pair.data()) != 0) {
    abort();
  }
  return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  pingSessionEntry entry = sessionWaiting();
  if (IcmpMessage message{}; probeIcmpParse({data, size}, message)) {
    probeAgentPingValidate(entry, message);
  }
  if (send(pair[1], data, size, MSG_DONTWAIT) == static_cast<ssize_t>(size)) {
    probeAgentPingRxPdu(entry);
  }
  agentInputEnd();
  return 0;
}
