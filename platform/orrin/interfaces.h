// Router interfaces: bringing them up and down with their router clients, and telling of changed settings.
#pragma once

#include "switch.h"

#include <vector>

namespace orrin {

enum class ConfigChange : uint32_t {
  DISABLE = 1,
  UNREACHABLES = 2,
  REDIRECTS = 3,
  RATE_LIMIT = 4,
  ECHO_REPLY = 5,
  VRRP = 6,
};

// Enabled, and the VRF routes: else the interface stays down until it does.
bool mayBeUp(const Switch &sw, const Interface &interface);

RppiEventMsg routerEvent(uint16_t type, uint32_t interface = 0);
RppiEventMsg configEvent(ConfigChange change, uint32_t interface = 0);
RppiEventMsg addressEvent(uint32_t interface, const InterfaceAddress &address, bool add);
RppiEventMsg vrrpEvent(uint32_t interface, const VrrpGroup &group, bool add);

// Up, as soon as its VRF routes; once more if it is up already. Down. Down and up again, to take over a new identity; nothing for one that is down.
void enableInterface(Switch &sw, Interface &interface);
void disableInterface(Switch &sw, Interface &interface);
void bounceInterface(Switch &sw, Interface &interface);
// The VRF's routing was switched on or off: its enabled interfaces come up or go down.
void followRouting(Switch &sw, const Vrf &vrf);

// An event of an interface's setting, if the interface is not down.
void sendInterfaceEvent(Switch &sw, const Interface &interface, const RppiEventMsg &event);

// A client has acknowledged: an interface may have waited for it, and its routes may have to be sent again.
void eventAcknowledged(Switch &sw, const RppiEventMsg &event);
// A client has gone: nobody waits for it any more.
void stopWaitingForClients(Switch &sw, uint32_t vrf);

uint64_t nextAckTimeoutMs(const Switch &sw);
void endAckWaits(Switch &sw);

// What brings a device to the interface's state, whatever it was in.
std::vector<RppiEventMsg> eventsOfState(const Interface &interface);

const char *stateName(Interface::State state);

} // namespace orrin
