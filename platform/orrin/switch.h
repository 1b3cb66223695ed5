// The switch: everything that orrin holds. Plain records, all used by the one thread; the sources beside this one change
// them: routes.cpp the route tables, clients.cpp the registrations, the commands and requests the rest.
#pragma once

#include "attr_table.h"
#include "change_queue.h"
#include "faults.h"
#include "journal.h"
#include "outbox.h"
#include "poller.h"
#include "publisher.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace orrin {

inline constexpr size_t VRF_NAME_MAX = 64;           // the buffer of a VRF's name has 65 bytes
inline constexpr size_t VRF_INTERFACE_NAME_MAX = 16; // 17 bytes
inline constexpr size_t INTERFACE_NAME_MAX = 60;     // 60 bytes, without NUL when all are used
inline constexpr size_t CLIENTS_MAX = 256;

struct Interface {
  enum Type : uint32_t { ORDINARY = 1, LOOPBACK = 4, TUNNEL = 5 };

  uint32_t number = 0;
  uint32_t vrf = 0;
  std::string name;   // the switch's
  std::string device; // the kernel's
  uint32_t type = ORDINARY;
  uint32_t index = 0; // the kernel's, in the default VRF
};

struct Vrf {
  uint32_t id = 0;
  std::string name;
  std::string interfaceName;
  std::string netns; // name or path, empty = not said
  bool routing = false;
  bool keepaliveHeld = false;
  RouteMap routes;
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
  ChangeQueue changes; // BEST_ROUTE
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

struct Switch {
  std::map<uint32_t, Vrf> vrfs;
  std::map<uint32_t, Interface> interfaces;
  std::map<uint32_t, Client> clients; // by id
  std::vector<Protocol> protocols;
  std::vector<RouteType> routeTypes;
  AttrTable attrs;
  uint32_t nextClientId = 1;
  bool systemReady = true;
  uint32_t keepalivePeriod = 30; // seconds
  uint64_t keepaliveDueMs = 0;
  bool keepaliveHeld = false;
  bool restoring = false; // the state folder is being read: clients only collect what they will have to be told
  FaultTable faults;
  Publisher page;
  Poller poller;
  Journal journal;
};

uint64_t nowMs();

Vrf *findVrf(Switch &sw, uint32_t id);
Interface *findInterface(Switch &sw, uint32_t number);

} // namespace orrin
