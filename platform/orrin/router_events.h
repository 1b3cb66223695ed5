// Router events: to all router clients of a VRF, kept for each until it acknowledges. What a client leaves behind goes to the
// next one of its name, and so does what happens in between.
#pragma once

#include "switch.h"

#include <cstdint>
#include <string>

namespace orrin {

// Where a starting orrin begins to count, so that a late acknowledgement of an event of the orrin before meets none of its own.
uint32_t firstEventSequence(const Switch &sw);

// Fills in length and sequence, and sends. Returns the sequence.
uint32_t sendRouterEvent(Switch &sw, uint32_t vrf, RppiEventMsg event);

// A tarnapi.h result.
int32_t acknowledgeEvent(Switch &sw, Client &client, uint32_t sequence);

// Is there a registered client of the VRF that has yet to acknowledge the event?
bool eventIsAwaited(const Switch &sw, uint32_t vrf, uint32_t sequence);

// What a client without a forerunner cannot ask for: the VRRP addresses of the interfaces that are up.
void greetNewcomer(Switch &sw, Client &client);

// All that a client has not acknowledged gives way to the interfaces as they are.
void startOver(Switch &sw, Client &client);

// A process has read the interfaces of a VRF to the end: its clients lack nothing but what events tell.
void noteWalked(Switch &sw, uint32_t vrf, uint32_t process);

// After a client was registered: everything that it has to know is sent.
void deliverEvents(Switch &sw, Client &client);

const char *eventName(uint16_t type);

} // namespace orrin
