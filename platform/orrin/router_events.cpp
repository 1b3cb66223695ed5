// The event queues of the router clients. Used by orrin's one thread.

#include "router_events.h"

#include "interfaces.h"
#include "tarnapi.h"

#include <algorithm>

namespace orrin {

namespace {

// Beyond this a client is told of every interface anew instead: an agent that does not run must not cost ever more.
constexpr size_t EVENTS_MAX = 16384;
constexpr uint16_t FIRST_ACKNOWLEDGED = 101;
constexpr uint16_t LAST_ACKNOWLEDGED = 299;

struct EventName {
  uint16_t type;
  const char *name;
};

constexpr EventName EVENT_NAMES[] = {
    {TARNR_RTR_ENABLE, "routing-enable"},
    {TARNR_RTR_DISABLE, "routing-disable"},
    {TARNR_RTR_STARTUP_DONE, "startup-done"},
    {TARNR_RTR_INTF_CREATE, "interface-create"},
    {TARNR_RTR_INTF_DELETE, "interface-delete"},
    {TARNR_RTR_INTF_ENABLE, "enable"},
    {TARNR_RTR_INTF_ENABLE_PENDING, "enable-pending"},
    {TARNR_RTR_INTF_DISABLE, "disable"},
    {TARNR_RTR_INTF_DISABLE_PENDING, "disable-pending"},
    {TARNR_RTR_INTF_ADDR_CHANGE, "address"},
    {TARNR_RTR_INTF_MTU, "mtu"},
    {TARNR_RTR_INTF_BW_CHANGE, "bandwidth"},
    {TARNR_RTR_INTF_HOST_MODE, "host-mode"},
    {TARNR_RTR_INTF_CFG_CHANGE, "configuration"},
};

bool isAcknowledged(uint16_t type) {
  return type >= FIRST_ACKNOWLEDGED && type <= LAST_ACKNOWLEDGED;
}

std::deque<RppiEventMsg>::const_iterator findEvent(const Client &client, uint32_t sequence) {
  const auto event = std::lower_bound(client.events.begin(), client.events.end(), sequence,
                                      [](const RppiEventMsg &each, uint32_t wanted) { return each.eventSeq < wanted; });
  return event != client.events.end() && event->eventSeq == sequence ? event : client.events.end();
}

void keepEvent(Switch &sw, Client &client, RppiEventMsg event) {
  event.msgLen = sizeof event;
  event.eventSeq = sw.nextEventSequence++;
  client.events.push_back(event);
  client.hadEvents = true;
}

} // namespace

void startOver(Switch &sw, Client &client) {
  client.walked = true;
  client.events.clear();
  client.outbox.clear();
  if (sw.vrfs.at(client.vrf).routing) {
    keepEvent(sw, client, routerEvent(TARNR_RTR_STARTUP_DONE));
  }
  for (const auto &[number, interface] : sw.interfaces) {
    if (interface.vrf == client.vrf) {
      for (const RppiEventMsg &event : eventsOfState(interface)) {
        keepEvent(sw, client, event);
      }
    }
  }
  if (client.registered && !sw.restoring) {
    deliverEvents(sw, client);
  }
}

uint32_t firstEventSequence(const Switch &sw) {
  constexpr uint64_t STARTS = 2048; // and then over again
  constexpr uint32_t EVENTS = 1 << 20;
  return static_cast<uint32_t>(sw.journal.starts() % STARTS) * EVENTS + 1;
}

uint32_t sendRouterEvent(Switch &sw, uint32_t vrf, RppiEventMsg event) {
  event.msgLen = sizeof event;
  event.eventSeq = sw.nextEventSequence++;
  for (auto &[id, client] : sw.clients) {
    if (client.kind != ClientKind::ROUTER_EVENT || client.vrf != vrf) {
      continue;
    }
    if (isAcknowledged(event.msgType)) {
      client.events.push_back(event);
      client.hadEvents = true;
    }
    if (client.events.size() > EVENTS_MAX) {
      startOver(sw, client);
    } else if (client.registered && !sw.restoring) {
      client.outbox.add(event);
      client.outbox.flush(sw.poller, nowMs());
    }
  }
  return event.eventSeq;
}

void greetNewcomer(Switch &sw, Client &client) {
  for (const auto &[number, interface] : sw.interfaces) {
    if (interface.vrf == client.vrf && interface.state == Interface::UP) {
      for (const VrrpGroup &group : interface.vrrp) {
        keepEvent(sw, client, vrrpEvent(number, group, true));
      }
    }
  }
}

void noteWalked(Switch &sw, uint32_t vrf, uint32_t process) {
  for (auto &[id, client] : sw.clients) {
    const uint32_t owner = client.process != 0 ? client.process : client.pid;
    if (client.kind == ClientKind::ROUTER_EVENT && client.vrf == vrf && owner == process && !client.walked) {
      client.walked = true;
      sw.journal.append("client walked " + std::to_string(id));
    }
  }
}

void deliverEvents(Switch &sw, Client &client) {
  for (const RppiEventMsg &event : client.events) {
    client.outbox.add(event);
  }
  client.outbox.flush(sw.poller, nowMs());
}

int32_t acknowledgeEvent(Switch &sw, Client &client, uint32_t sequence) {
  const auto found = findEvent(client, sequence);
  if (found == client.events.end()) {
    return TARN_NOT_FOUND;
  }
  const RppiEventMsg event = *found;
  client.events.erase(found);
  eventAcknowledged(sw, event);
  if (client.events.empty() && client.hadEvents) {
    client.hadEvents = false;
    sw.journal.append("client settled " + std::to_string(client.id));
  }
  return TARN_OK;
}

bool eventIsAwaited(const Switch &sw, uint32_t vrf, uint32_t sequence) {
  return !sw.restoring && std::any_of(sw.clients.begin(), sw.clients.end(), [vrf, sequence](const auto &entry) {
    const Client &client = entry.second;
    return client.kind == ClientKind::ROUTER_EVENT && client.vrf == vrf && client.registered &&
           findEvent(client, sequence) != client.events.end();
  });
}

const char *eventName(uint16_t type) {
  for (const EventName &each : EVENT_NAMES) {
    if (each.type == type) {
      return each.name;
    }
  }
  return "other";
}

} // namespace orrin
