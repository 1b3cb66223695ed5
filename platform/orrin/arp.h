// The ARP caches: neighbours that the switch has learned, which are configuration and of which the VRF's agent is told, and
// those that an agent reports of its kernel.
#pragma once

#include "switch.h"

#include <string>

namespace orrin {

// The switch has learned a neighbour, known or not: it is the switch's from now on, and the agent is told. Empty when done, else
// why not.
std::string learnNeighbour(Switch &sw, Vrf &vrf, uint32_t address, const Mac &mac, const Interface &interface);
// False when there is none.
bool forgetNeighbour(Vrf &vrf, uint32_t address);
// Those on an interface that is about to go.
void forgetNeighboursOn(Switch &sw, const Interface &interface);

// What agents report and ask. A tarnapi.h result; outputs are written on TARN_OK only.
int32_t addKernelNeighbour(Switch &sw, Vrf &vrf, uint32_t address, const Mac &mac, uint32_t index, uint32_t state);
int32_t deleteKernelNeighbour(Switch &sw, Vrf &vrf, uint32_t address, uint32_t index);
int32_t resolveNeighbour(const Switch &sw, const Vrf &vrf, uint32_t address, Mac &mac);

// The switch's number of an interface by the kernel's index of its device, 0 when it is not known.
uint32_t interfaceOfIndex(const Switch &sw, const Vrf &vrf, uint32_t index);

// Sends what waits for the VRF's agent.
void openResolutions(Vrf &vrf);
void flushResolutions(Switch &sw, Vrf &vrf);

// "arp learn ..." lines.
void appendLearned(const Vrf &vrf, std::string &out);
// "reported arp ..." lines.
void appendReportedNeighbours(const Vrf &vrf, std::string &out);

} // namespace orrin
