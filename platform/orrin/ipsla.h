// The IP SLA operations: the switch keeps which there are, the VRF's agent runs them and reports each outcome.
#pragma once

#include "agent_calls.h"
#include "switch.h"

#include <cstdint>
#include <string>

namespace orrin {

inline constexpr uint32_t IPSLA_OPERATION_MAX = 128;

// Ask the VRF's agent. Nothing that the switch keeps is changed.
void callProbeStart(Switch &sw, uint32_t vrf, uint32_t number, const IpSlaOperation &operation, AgentCalls::Done done);
void callProbeStop(Switch &sw, uint32_t vrf, uint32_t number, AgentCalls::Done done);

// An agent of the VRF has come: the operations are started in it. It may not be ready for them yet, and may run some of them
// already, so each is stopped first, again and again until that succeeds.
void startOperations(Vrf &vrf);
void runDueStarts(Switch &sw);
// 0 = no need.
uint64_t nextStartMs(const Switch &sw);

// "ipsla start vrf 3 5 to 10.0.0.1 ...", without line end.
std::string operationLine(uint32_t vrf, uint32_t number, const IpSlaOperation &operation);
void appendOperations(const Vrf &vrf, std::string &out);

} // namespace orrin
