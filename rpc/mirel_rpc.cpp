// The procedures that the agent serves: their table, the reading of their arguments, and what probes and ARP entries are
// asked of. On the RPC server's thread, one at a time; arguments lie unaligned in the request.

#include "mirel_rpc.h"

#include "mirel_arp.h"
#include "mirel_context.h"
#include "mirel_router_table.h"
#include "vr_ipslaprobe_util.h"

#include <arpa/inet.h>
#include <array>
#include <atomic>

namespace {

constexpr int16_t WORD = sizeof(uint32_t);
constexpr uint32_t FAILURE = 1;

std::atomic<bool> controlsOpen; // orders what start-up has made before what the procedures read of it

bool usable(uint32_t vrfId) {
  return mirelVrfIdDiffers(vrfId) == 0 && controlsOpen.load(std::memory_order_acquire);
}

// Whether every slot of the procedure behind the result is there and as long as it says.
bool argsPresent(const rpcProcDesc &desc, uint32_t argCount, rpcArgRef *const *args) {
  if (argCount < desc.slotCount) {
    return false;
  }
  for (uint32_t slot = 1; slot < desc.slotCount; ++slot) {
    if (args[slot]->length < static_cast<uint32_t>(desc.slotSizes[slot])) {
      return false;
    }
  }
  return true;
}

uint32_t wordOf(const rpcArgRef *arg) {
  return rpcLoad<uint32_t>(arg->data);
}

uint32_t statsGet(rpcArgRef *const *args) {
  uint32_t value = wordOf(args[3]);
  const uint32_t result = mirelRpcStatsGet(wordOf(args[1]), wordOf(args[2]), &value);
  rpcStore(args[3]->data, value);
  return result;
}

uint32_t probeStart(rpcArgRef *const *args) {
  return mirelRpcProbeStart(wordOf(args[1]), wordOf(args[2]), wordOf(args[3]), wordOf(args[4]), wordOf(args[5]),
                            wordOf(args[6]), wordOf(args[7]), wordOf(args[8]));
}

uint32_t probeStop(rpcArgRef *const *args) {
  return mirelRpcProbeStop(wordOf(args[1]), wordOf(args[2]));
}

uint32_t arpEntryAdd(rpcArgRef *const *args) {
  return mirelRpcArpEntryAdd(wordOf(args[1]), wordOf(args[2]), args[3]->data, wordOf(args[4]), wordOf(args[5]));
}

// A handler of the server's kind around what reads the arguments, once they are known to be there.
template <const rpcProcDesc &DESC, uint32_t (*CALL)(rpcArgRef *const *args)>
uint32_t handler(uint32_t argCount, rpcArgRef *const *args, uint32_t *result) {
  return *result = argsPresent(DESC, argCount, args) ? CALL(args) : FAILURE;
}

extern const rpcProcDesc STATS_GET;
extern const rpcProcDesc PROBE_START;
extern const rpcProcDesc PROBE_STOP;
extern const rpcProcDesc ARP_ENTRY_ADD;

constexpr rpcProcDesc STATS_GET{handler<STATS_GET, statsGet>, 4, {WORD, WORD, WORD, WORD}};
constexpr rpcProcDesc PROBE_START{
    handler<PROBE_START, probeStart>, 9, {WORD, WORD, WORD, WORD, WORD, WORD, WORD, WORD, WORD}};
constexpr rpcProcDesc PROBE_STOP{handler<PROBE_STOP, probeStop>, 3, {WORD, WORD, WORD}};
constexpr rpcProcDesc ARP_ENTRY_ADD{handler<ARP_ENTRY_ADD, arpEntryAdd>, 6, {WORD, WORD, WORD, MAC_LENGTH, WORD, WORD}};

constexpr std::array<const rpcProcDesc *, RPC_PROCEDURES> PROCEDURES = {nullptr, &STATS_GET, &PROBE_START, &PROBE_STOP,
                                                                        &ARP_ENTRY_ADD};

constexpr rpcProcTable mirelRpcProcTable{PROCEDURES};

} // namespace

const rpcProcTable *mirelRpcProcTableGet() {
  return &mirelRpcProcTable;
}

void mirelRpcControlsOpen() {
  controlsOpen.store(true, std::memory_order_release);
}

uint32_t mirelRpcProbeStart(uint32_t vrfId, uint32_t ipSlaId, uint32_t targetAddr, uint32_t sourceAddr,
                            uint32_t frequencySec, uint32_t thresholdMsec, uint32_t timeoutMsec, uint32_t payloadSize) {
  if (!usable(vrfId)) {
    return FAILURE;
  }
  const uint32_t result = probeAgentProbeSessionAlloc(ipSlaId, targetAddr, sourceAddr, frequencySec, thresholdMsec,
                                                      timeoutMsec, payloadSize);
  return result != 0 ? result : probeAgentProbeSessionStart(ipSlaId);
}

uint32_t mirelRpcProbeStop(uint32_t vrfId, uint32_t ipSlaId) {
  return usable(vrfId) ? probeAgentProbeSessionStop(ipSlaId) : FAILURE;
}

uint32_t mirelRpcArpEntryAdd(uint32_t vrfId, uint32_t addrNetworkOrder, const uint8_t *mac, uint32_t intIfNum,
                             uint32_t) {
  if (!usable(vrfId)) {
    return FAILURE;
  }
  char name[STK_IF_NAME_SIZE] = {};
  uint32_t ifIndex = 0;
  if (mirelStkIfNameGet(intIfNum, name) != 0 || osapiStackIfIndexGet(name, &ifIndex) != 0) {
    return FAILURE;
  }
  return static_cast<uint32_t>(mirelKernelArpSet(ntohl(addrNetworkOrder), mac, ifIndex));
}
