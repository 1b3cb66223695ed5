// Agents of the VRF before this one and beside it.
//
// The restart flag of the VRF, one byte in the sync database: 0 until the first agent has started, 1 from then on. The
// platform creates the record; the agent only reads and writes it.
#pragma once

#include "syncdb.h"

#include <cstdint>

// Makes this process the only agent of the VRF in its network namespace, until it ends. False when another one does not end
// within a short wait: *holder is its process id, or 0 if it cannot be found.
bool mirelAgentLock(uint32_t *holder);

// The stored byte; 1 when it cannot be read, so that an unreadable flag counts as a restart.
uint8_t mirelRestartStatusGet();

// Stores value unless the record holds it already. The record is always that of mirelVrfId. Returns 0, or 1 when the record
// cannot be read or written.
int mirelRestartStatusSet(uint32_t vrfId, SyncdbClient *client, uint8_t value);
