// One RPC request to the agent's procedures. Most mutations are sealed: length and CRC put right and the status cleared, since
// no change of anything else would get past the server's first check.

#include "agent.h"

#include "mirel_rpc.h"
#include "rpc_crc.h"
#include "vr_ipslaprobe_util_session.h"

#include <pthread.h>

extern "C" size_t LLVMFuzzerMutate(uint8_t *data, size_t size, size_t maxSize);
extern "C" size_t LLVMFuzzerCustomMutator(uint8_t *data, size_t size, size_t maxSize, unsigned seed);

namespace {

constexpr unsigned UNSEALED_ONE_IN = 16;

RpcProgramSlots programs;

void seal(uint8_t *data, size_t size) {
  if (size < sizeof(RpcMsgHeader)) {
    return;
  }
  rpcStore(data + offsetof(RpcMsgHeader, totalLength), static_cast<uint32_t>(size));
  rpcStore(data + offsetof(RpcMsgHeader, status), uint32_t{0});
  rpcStore(data + size - RPC_CRC_SIZE, rpcCrc32(data, size - RPC_CRC_SIZE));
}

} // namespace

size_t LLVMFuzzerCustomMutator(uint8_t *data, size_t size, size_t maxSize, unsigned seed) {
  size = LLVMFuzzerMutate(data, size, maxSize);
  if (seed % UNSEALED_ONE_IN != 0) {
    seal(data, size);
  }
  return size;
}

int LLVMFuzzerInitialize(int *, char ***) {
  agentSetUp();
  programs[MIREL_RPC_PROGRAM] = mirelRpcProcTableGet();
  mirelRpcControlsOpen();
  return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  std::vector<uint8_t> buffer = received(data, size, RPC_MSG_MAX);
  buffer.resize(std::max(buffer.size(), sizeof(RpcMsgHeader)));
  probeAgentTaskId = pthread_self(); // a task that serves already: the first session starts none
  const size_t reply = rpcsrvMsgProcess(programs, buffer, size);
  if (reply > buffer.size()) {
    __builtin_trap();
  }
  probeAgentTaskId = 0;
  probeAgentCnfgrUconfigPhase2Process();
  agentInputEnd();
  return 0;
}
