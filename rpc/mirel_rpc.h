// The agent's program on the RPC server: counters of the kernel, kernel ARP entries. Every operation fails
// for another VRF than the agent's. Results are 0 or 1. On the server's thread.
#pragma once

#include "rpcsrv.h"

#include <cstdint>

inline constexpr uint32_t MIREL_RPC_INSTANCE = 1; // of the server
inline constexpr uint32_t MIREL_RPC_SERVICE = 0;
inline constexpr uint32_t MIREL_RPC_PROGRAM = 0;

enum RpcProcedure : uint32_t { RPC_STATS_GET = 1, RPC_ARP_ENTRY_ADD = 4, RPC_PROCEDURES };

// The procedures by number.
const rpcProcTable *mirelRpcProcTableGet();

// The server runs long before what the ARP procedure works with; until this is called, by start-up and once, it
// fails.
void mirelRpcControlsOpen();

// The low 32 bits of the counter of a statistics identifier. One identifier succeeds without a value.
uint32_t mirelRpcStatsGet(uint32_t vrfId, uint32_t statsId, uint32_t *value);

// Writes an entry on the device of the switch's interface into the kernel's ARP cache. The address is in network order,
// mac has 6 bytes; the last value has no effect.
uint32_t mirelRpcArpEntryAdd(uint32_t vrfId, uint32_t addrNetworkOrder, const uint8_t *mac, uint32_t intIfNum,
                             uint32_t unused);
