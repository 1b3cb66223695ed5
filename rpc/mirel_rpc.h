// The agent's program on the RPC server: counters of the kernel, IP SLA probes, kernel ARP entries. Every operation fails
// for another VRF than the agent's. Results are 0 or 1. On the server's thread.
#pragma once

#include "rpcsrv.h"

#include <cstdint>

inline constexpr uint32_t MIREL_RPC_INSTANCE = 1; // of the server
inline constexpr uint32_t MIREL_RPC_SERVICE = 0;
inline constexpr uint32_t MIREL_RPC_PROGRAM = 0;

enum RpcProcedure : uint32_t {
  RPC_STATS_GET = 1,
  RPC_PROBE_START = 2,
  RPC_PROBE_STOP = 3,
  RPC_ARP_ENTRY_ADD = 4,
  RPC_PROCEDURES
};

// The procedures by number.
const rpcProcTable *mirelRpcProcTableGet();

// The server runs long before what the probe and ARP procedures work with; until this is called, by start-up and once, they
// fail.
void mirelRpcControlsOpen();

// The low 32 bits of the counter of a statistics identifier. One identifier succeeds without a value.
uint32_t mirelRpcStatsGet(uint32_t vrfId, uint32_t statsId, uint32_t *value);

// Creates a probe session and sets it running. Addresses in host order, frequency in seconds, threshold and time-out in
// milliseconds, payload in bytes. A session that could not be started stays until it is stopped.
uint32_t mirelRpcProbeStart(uint32_t vrfId, uint32_t ipSlaId, uint32_t targetAddr, uint32_t sourceAddr,
                            uint32_t frequencySec, uint32_t thresholdMsec, uint32_t timeoutMsec, uint32_t payloadSize);

uint32_t mirelRpcProbeStop(uint32_t vrfId, uint32_t ipSlaId);

// Writes an entry on the device of the switch's interface into the kernel's ARP cache. The address is in network order,
// mac has 6 bytes; the last value has no effect.
uint32_t mirelRpcArpEntryAdd(uint32_t vrfId, uint32_t addrNetworkOrder, const uint8_t *mac, uint32_t intIfNum,
                             uint32_t unused);
