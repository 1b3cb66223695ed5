// The switch: everything that orrin holds. Plain records, all used by the one thread; the sources beside this one change
// them: routes.cpp the route tables, kernel_routes.cpp what agents report of theirs, arp.cpp the ARP caches,
// interfaces.cpp the interfaces, clients.cpp the registrations, router_events.cpp the events.
#pragma once

#include "attr_table.h"
#include "change_queue.h"
#include "faults.h"
#include "journal.h"
#include "kernel_route.h"
#include "outbox.h"
#include "poller.h"
#include "publisher.h"

#include <array>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace orrin {

inline constexpr size_t VRF_NAME_MAX = 64;             // the buffer of a VRF's name has 65 bytes
inline constexpr size_t VRF_INTERFACE_NAME_MAX = 16;   // 17 bytes
inline constexpr size_t INTERFACE_NAME_MAX = 60;       // 60 bytes, without NUL when all are used
inline constexpr uint32_t INTERFACE_NUMBER_MAX = 1033; // as many as agents serve
inline constexpr size_t CLIENTS_MAX = 256;

using Mac = std::array<uint8_t, 6>;

// An address with its prefix length, in the order of the secondary-address walk.
struct InterfaceAddress {
  uint32_t address = 0;
  uint8_t length = 0;
  uint32_t index = 0; // of the label of a secondary

  std::pair<uint32_t, uint8_t> order() const { return {address, length}; }
};

// VRRP addresses under one label number; their place is part of the label, 0 = empty.
struct VrrpGroup {
  uint32_t label = 0;
  std::array<uint32_t, 32> addresses{};
};

struct Interface {
  enum Type : uint32_t { ORDINARY = 1, LOOPBACK = 4, TUNNEL = 5 };
  // A pending state waits for the router clients to acknowledge the pending event.
  enum State : uint8_t { DOWN, UP_PENDING, UP, DOWN_PENDING };

  uint32_t number = 0;
  uint32_t vrf = 0;
  std::string name;   // the switch's
  std::string device; // the kernel's
  uint32_t type = ORDINARY;
  uint32_t index = 0; // the kernel's of the device, 0 = its namespace is asked

  Mac mac{};
  std::optional<InterfaceAddress> primary;
  std::vector<InterfaceAddress> secondaries; // ascending
  std::vector<VrrpGroup> vrrp;
  uint32_t mtu = 1500;
  uint32_t bandwidth = 1000000;
  uint32_t unreachables = 1;
  uint32_t redirects = 1;

  State state = DOWN;
  bool wanted = false;      // enabled: up as long as the VRF routes
  bool bounce = false;      // down and up once more, as soon as it is up
  bool hostMode = false;    // no router for the others since it came up
  uint32_t waitsFor = 0;    // sequence of the pending event
  uint32_t ackTimeouts = 0; // pending events that not all clients acknowledged in time
};

// A neighbour. The subnets of a VRF do not overlap: an address has one entry.
struct ArpEntry {
  enum Origin : uint8_t { SWITCH, KERNEL };

  Origin origin = SWITCH;
  Mac mac{};
  uint32_t interface = 0; // 0 = not known
  uint32_t index = 0;     // KERNEL: of the device, as reported
  uint32_t state = 0;     // KERNEL: NUD_*
};

// An echo operation that the VRF's agent runs, by its number, 1 to 128.
struct IpSlaOperation {
  uint32_t target = 0;
  uint32_t source = 0;       // 0 = any
  uint32_t frequency = 10;   // seconds
  uint32_t threshold = 1000; // milliseconds, as the time-out
  uint32_t timeout = 1000;
  uint32_t size = 32; // bytes of payload
};

// What the agent reported of an IP SLA operation, since orrin was started. The round trips are those of the codes that
// have one.
struct IpSlaReports {
  enum Code : uint32_t { IN_TIME, FAILED, ABOVE_THRESHOLD, CODE_COUNT };

  uint32_t code = IN_TIME; // of the last one, as the two below
  uint32_t msec = 0;
  uint32_t usec = 0; // round trip; FAILED: since the request
  std::array<uint64_t, CODE_COUNT> counts{};
  uint32_t lowestUsec = UINT32_MAX;
  uint32_t highestUsec = 0;
  uint64_t sumUsec = 0;
};

struct Vrf {
  uint32_t id = 0;
  std::string name;
  std::string interfaceName;
  std::string netns; // name or path, empty = not said
  bool routing = false;
  uint32_t icmpBurst = 100;
  uint32_t icmpInterval = 1000; // as the platform counts it
  uint32_t icmpEchoReply = 1;
  bool keepaliveHeld = false;
  RouteMap routes; // the best of each prefix: the switch's own, or else what the agent reported
  std::map<KernelRoute::Key, KernelRoute> kernelRoutes;
  uint32_t kernelRoutesMax = 1000000;
  std::map<uint32_t, ArpEntry> arp; // by address
  Outbox resolutions;               // for the agent
  uint64_t resolutionsMade = 0;
  uint64_t resolutionsLost = 0;                  // no agent was there, or it did not read
  std::map<uint32_t, IpSlaOperation> operations; // IP SLA
  std::map<uint32_t, IpSlaReports> reports;      // by operation, which may be stopped
};

enum class ClientKind : uint8_t { BEST_ROUTE, ROUTER_EVENT };

// A registration, or, with `registered` false, what the next client of the same kind, VRF and name takes over.
struct Client {
  ClientKind kind = ClientKind::BEST_ROUTE;
  uint32_t id = 0;
  uint32_t vrf = 0;
  uint32_t pid = 0;     // as the client says
  uint32_t process = 0; // as the kernel says; 0 = the same as pid
  uint64_t started = 0; // start time of the process in clock ticks, 0 = not known
  std::string name;
  bool registered = false;
  bool notified = false; // of changes that it has not fetched to the end
  UniqueFd pidFd;        // becomes readable when the process ends
  Outbox outbox;
  ChangeQueue changes;             // BEST_ROUTE
  std::deque<RppiEventMsg> events; // ROUTER_EVENT: not acknowledged, ascending by eventSeq
  bool hadEvents = false;          // since the journal says that none was left
  bool walked = false;             // ROUTER_EVENT: has read the interfaces to the end, or is told them all by events
};

struct Protocol {
  uint32_t vrf = 0;
  uint32_t id = 0;
  std::string name;
  std::string code;
};

struct RouteType {
  uint32_t protocol = 0;
  uint32_t id = 0;
  std::string name;
  std::string code;
};

// When the acknowledgements of an interface's pending event are waited for no more.
struct AckWait {
  uint64_t dueMs = 0;
  uint32_t interface = 0;
  uint32_t sequence = 0;
};

// Of the switch's own ports; the agents leave these neighbours alone.
struct Gateways {
  std::optional<uint32_t> servicePort;
  std::optional<uint32_t> networkPort;
};

struct Switch {
  std::map<uint32_t, Vrf> vrfs;
  std::map<uint32_t, Interface> interfaces;
  std::map<uint32_t, Client> clients; // by id
  std::vector<Protocol> protocols;
  std::vector<RouteType> routeTypes;
  AttrTable attrs;
  uint32_t nextClientId = 1;
  uint32_t nextEventSequence = 1;
  std::deque<AckWait> ackWaits; // by due time
  uint32_t ackTimeout = 30;     // seconds
  bool systemReady = true;
  Gateways gateways;
  uint32_t keepalivePeriod = 30; // seconds
  uint64_t keepaliveDueMs = 0;
  bool keepaliveHeld = false;
  // The state folder is being read: clients only collect what they will have to be told, and the restart flags of agents that
  // run are left alone.
  bool restoring = false;
  FaultTable faults;
  Publisher page;
  Poller poller;
  Journal journal;
};

uint64_t nowMs();

Vrf *findVrf(Switch &sw, uint32_t id);
Interface *findInterface(Switch &sw, uint32_t number);

} // namespace orrin
