// The states of the router interfaces. Used by orrin's one thread. An interface comes up in two steps: the pending event, which
// all router clients of the VRF acknowledge or let time out, then the enable event; and goes down likewise.

#include "interfaces.h"

#include "clients.h"
#include "kernel_routes.h"
#include "router_events.h"
#include "routes.h"

#include <algorithm>

namespace orrin {

namespace {

constexpr uint32_t ADD = 1;
constexpr uint32_t REMOVE = 2;

void awaitAcknowledgement(Switch &sw, Interface &interface, Interface::State state, uint16_t pendingEvent) {
  interface.state = state;
  interface.waitsFor = sendRouterEvent(sw, interface.vrf, routerEvent(pendingEvent, interface.number));
  const AckWait wait{nowMs() + uint64_t{sw.ackTimeout} * 1000, interface.number, interface.waitsFor};
  // Most often the end; the timeout may have been longer for those before.
  sw.ackWaits.insert(std::upper_bound(sw.ackWaits.begin(), sw.ackWaits.end(), wait,
                                      [](const AckWait &one, const AckWait &other) { return one.dueMs < other.dueMs; }),
                     wait);
}

void goUp(Switch &sw, Interface &interface) {
  interface.bounce = false;
  interface.hostMode = false;
  awaitAcknowledgement(sw, interface, Interface::UP_PENDING, TARNR_RTR_INTF_ENABLE_PENDING);
}

void goDown(Switch &sw, Interface &interface) {
  interface.bounce = false;
  awaitAcknowledgement(sw, interface, Interface::DOWN_PENDING, TARNR_RTR_INTF_DISABLE_PENDING);
}

void arriveUp(Switch &sw, Interface &interface) {
  interface.state = Interface::UP;
  sendRouterEvent(sw, interface.vrf, routerEvent(TARNR_RTR_INTF_ENABLE, interface.number));
  for (const VrrpGroup &group : interface.vrrp) {
    sendRouterEvent(sw, interface.vrf, vrrpEvent(interface.number, group, true));
  }
  if (!mayBeUp(sw, interface) || interface.bounce) {
    goDown(sw, interface);
  }
}

void arriveDown(Switch &sw, Interface &interface) {
  interface.state = Interface::DOWN;
  dropSilentKernelRoutes(sw, interface);
  sendRouterEvent(sw, interface.vrf, routerEvent(TARNR_RTR_INTF_DISABLE, interface.number));
  if (mayBeUp(sw, interface)) {
    goUp(sw, interface);
  }
}

// Goes on for as long as nobody is waited for.
void advance(Switch &sw, Interface &interface) {
  while (interface.waitsFor != 0 && !eventIsAwaited(sw, interface.vrf, interface.waitsFor)) {
    interface.waitsFor = 0;
    if (interface.state == Interface::UP_PENDING) {
      arriveUp(sw, interface);
    } else {
      arriveDown(sw, interface);
    }
  }
}

// The agents' kernels have dropped the routes through the interface, with its device.
void resendRoutes(Switch &sw, const Interface &interface) {
  if (routesThrough(sw, interface.number) != 0) {
    requeueRoutesThrough(sw, sw.vrfs.at(interface.vrf), interface.number);
  }
}

} // namespace

const char *stateName(Interface::State state) {
  constexpr const char *NAMES[] = {"down", "up-pending", "up", "down-pending"};
  return NAMES[state];
}

bool mayBeUp(const Switch &sw, const Interface &interface) {
  return interface.wanted && sw.vrfs.at(interface.vrf).routing;
}

RppiEventMsg routerEvent(uint16_t type, uint32_t interface) {
  RppiEventMsg event{};
  event.msgType = type;
  event.intIfNum = interface;
  return event;
}

RppiEventMsg configEvent(ConfigChange change, uint32_t interface) {
  RppiEventMsg event = routerEvent(TARNR_RTR_INTF_CFG_CHANGE, interface);
  event.cfgEvent = static_cast<uint32_t>(change);
  return event;
}

RppiEventMsg addressEvent(uint32_t interface, const InterfaceAddress &address, bool add) {
  RppiEventMsg event = routerEvent(TARNR_RTR_INTF_ADDR_CHANGE, interface);
  event.addrOp = add ? ADD : REMOVE;
  event.ipAddr = address.address;
  event.ipMask = prefixMask(address.length);
  event.addrLabelNum = address.index;
  return event;
}

RppiEventMsg vrrpEvent(uint32_t interface, const VrrpGroup &group, bool add) {
  RppiEventMsg event = configEvent(ConfigChange::VRRP, interface);
  event.vrrpLabelNum = group.label;
  event.vrrpOp = add ? ADD : REMOVE;
  std::copy(group.addresses.begin(), group.addresses.end(), event.vrrpAddr);
  return event;
}

void enableInterface(Switch &sw, Interface &interface) {
  interface.wanted = true;
  if (mayBeUp(sw, interface) && (interface.state == Interface::DOWN || interface.state == Interface::UP)) {
    goUp(sw, interface);
  }
  advance(sw, interface);
}

void disableInterface(Switch &sw, Interface &interface) {
  interface.wanted = false;
  if (interface.state == Interface::UP) {
    goDown(sw, interface);
  }
  advance(sw, interface);
}

void followRouting(Switch &sw, const Vrf &vrf) {
  for (auto &[number, interface] : sw.interfaces) {
    if (interface.vrf != vrf.id) {
      continue;
    }
    if (mayBeUp(sw, interface) && interface.state == Interface::DOWN) {
      goUp(sw, interface);
    } else if (!vrf.routing && interface.state == Interface::UP) {
      goDown(sw, interface);
    }
    advance(sw, interface);
  }
}

void bounceInterface(Switch &sw, Interface &interface) {
  if (interface.state == Interface::UP) {
    goDown(sw, interface);
  } else if (interface.state == Interface::UP_PENDING) {
    interface.bounce = true; // the clients may have read the old identity
  }
  advance(sw, interface);
}

void sendInterfaceEvent(Switch &sw, const Interface &interface, const RppiEventMsg &event) {
  if (interface.state != Interface::DOWN) {
    sendRouterEvent(sw, interface.vrf, event);
  }
}

void eventAcknowledged(Switch &sw, const RppiEventMsg &event) {
  Interface *interface = findInterface(sw, event.intIfNum);
  if (interface == nullptr) {
    return;
  }
  if (event.msgType == TARNR_RTR_INTF_ENABLE || event.msgType == TARNR_RTR_INTF_HOST_MODE) {
    resendRoutes(sw, *interface);
  }
  if (event.eventSeq == interface->waitsFor) {
    advance(sw, *interface);
  }
}

void stopWaitingForClients(Switch &sw, uint32_t vrf) {
  for (auto &[number, interface] : sw.interfaces) {
    if (interface.vrf == vrf) {
      advance(sw, interface);
    }
  }
}

uint64_t nextAckTimeoutMs(const Switch &sw) {
  return sw.ackWaits.empty() ? 0 : sw.ackWaits.front().dueMs;
}

void endAckWaits(Switch &sw) {
  const uint64_t now = nowMs();
  while (!sw.ackWaits.empty() && sw.ackWaits.front().dueMs <= now) {
    const AckWait wait = sw.ackWaits.front();
    sw.ackWaits.pop_front();
    Interface *interface = findInterface(sw, wait.interface);
    if (interface == nullptr || interface->waitsFor != wait.sequence) {
      continue;
    }
    ++interface->ackTimeouts;
    interface->waitsFor = 0;
    if (interface->state == Interface::UP_PENDING) {
      arriveUp(sw, *interface);
    } else {
      arriveDown(sw, *interface);
    }
    advance(sw, *interface);
  }
}

std::vector<RppiEventMsg> eventsOfState(const Interface &interface) {
  std::vector<RppiEventMsg> events = {routerEvent(TARNR_RTR_INTF_DISABLE, interface.number)};
  if (interface.state == Interface::UP || interface.state == Interface::UP_PENDING) {
    events.push_back(routerEvent(TARNR_RTR_INTF_ENABLE_PENDING, interface.number));
  }
  if (interface.state == Interface::UP) {
    events.push_back(routerEvent(TARNR_RTR_INTF_ENABLE, interface.number));
    for (const VrrpGroup &group : interface.vrrp) {
      events.push_back(vrrpEvent(interface.number, group, true));
    }
  }
  return events;
}

} // namespace orrin
