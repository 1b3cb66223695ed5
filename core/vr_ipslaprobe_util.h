// The IP SLA probe agent: ICMP echo operations that the switch starts and stops in this VRF, and whose outcomes the agent
// reports to it. All results are 0 for success and 1 for failure. Addresses are IPv4 in host byte order. Any thread, once
// vrIpSlaProbeAgentProcessInit() has run.
#pragma once

#include <cstdint>

inline constexpr uint32_t IP_SLA_ID_MIN = 1;
inline constexpr uint32_t IP_SLA_ID_MAX = 128;

// Makes the lock of the session table. Start-up, once.
uint32_t vrIpSlaProbeAgentProcessInit();

// Creates the session of the operation; fails when the id is out of range or has a session. A source address of 0 leaves
// the choice to the kernel. Of the payload size (bytes) the low 16 bits count.
uint32_t probeAgentProbeSessionAlloc(uint32_t ipSlaId, uint32_t targetAddr, uint32_t sourceAddr, uint32_t frequencySec,
                                     uint32_t thresholdMsec, uint32_t timeoutMsec, uint32_t payloadSize);

// Sets a created session running. When that fails for want of a socket, the session stays and may be started again.
uint32_t probeAgentProbeSessionStart(uint32_t ipSlaId);

// Removes the session, running or not. No such session is a success, an id out of range is not.
uint32_t probeAgentProbeSessionStop(uint32_t ipSlaId);

// Ends the probe task and removes every session; always 0.
uint32_t probeAgentCnfgrUconfigPhase2Process();

// The operator's trace flag: 1 prints the probe agent's traces on standard output.
void probeAgentDebugSet(uint32_t flag);
uint32_t probeAgentDebugGet();
