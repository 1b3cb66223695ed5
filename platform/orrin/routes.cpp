// The route tables. Used by orrin's one thread; long walks keep the heartbeat going.

#include "routes.h"

#include "clients.h"
#include "kernel_routes.h"
#include "tarnapi_wire.h"

namespace orrin {

namespace {

constexpr size_t BEAT_EVERY = 8192; // routes between two heartbeats

class Beat {
public:
  explicit Beat(Switch &sw) : sw_(sw) {}
  void operator()() {
    if (++count_ % BEAT_EVERY == 0) {
      sw_.page.beat();
    }
  }

private:
  Switch &sw_;
  size_t count_ = 0;
};

std::string textOf(const Prefix &prefix) {
  std::string text;
  appendPrefix(text, prefix);
  return text;
}

uint64_t stepOf(uint8_t length) {
  return uint64_t{1} << (32 - length);
}

Prefix nth(const Prefix &first, uint32_t index) {
  return {static_cast<uint32_t>(first.address + index * stepOf(first.length)), first.length};
}

std::string refusal(Switch &sw, RouteEdit edit, const Vrf &vrf, const Prefix &first, uint32_t count,
                    const RouteAttrs &attrs) {
  if (first.address + uint64_t{count} * stepOf(first.length) > uint64_t{1} << 32) {
    return "count: " + std::to_string(count) + " prefixes go beyond 255.255.255.255";
  }
  for (const NextHop &hop : attrs.hops) {
    const Interface *interface = hop.interface == 0 ? nullptr : findInterface(sw, hop.interface);
    if (hop.interface != 0 && (interface == nullptr || interface->vrf != vrf.id)) {
      return "interface " + std::to_string(hop.interface) + " is not in VRF " + std::to_string(vrf.id);
    }
  }
  Beat beat(sw);
  for (uint32_t index = 0; index < count; ++index) {
    const Prefix prefix = nth(first, index);
    const AttrId *held = vrf.routes.find(prefix);
    const bool there = held != nullptr && !sw.attrs.reported(*held);
    if (there && edit == RouteEdit::ADD) {
      return "VRF " + std::to_string(vrf.id) + " has a route " + textOf(prefix) + " already";
    }
    if (!there && edit != RouteEdit::ADD) {
      return "VRF " + std::to_string(vrf.id) + " has no route " + textOf(prefix);
    }
    beat();
  }
  return {};
}

// By number of the attributes: do they mention the interface?
std::vector<bool> attrsThrough(const Switch &sw, uint32_t interface) {
  std::vector<bool> through(sw.attrs.slots());
  for (AttrId id = 0; id < through.size(); ++id) {
    through[id] = sw.attrs.mentions(id, interface);
  }
  return through;
}

// These two return what a client must be told. The attributes come with the reference that the table takes.
ChangeQueue::Kind setRoute(Switch &sw, Vrf &vrf, const Prefix &prefix, AttrId attrs) {
  AttrId *held = vrf.routes.find(prefix);
  if (held == nullptr) {
    vrf.routes.insert(prefix, attrs);
    return ChangeQueue::ADD;
  }
  // A modify does not carry a route from one type to another: the agent passes over it for local and kernel routes.
  const bool sameKind =
      sw.attrs.type(*held) == sw.attrs.type(attrs) && sw.attrs.reported(*held) == sw.attrs.reported(attrs);
  sw.attrs.release(*held);
  *held = attrs;
  return sameKind ? ChangeQueue::MODIFY : ChangeQueue::REPLACE;
}

// What is left is the kernel's, if it has one.
ChangeQueue::Kind withdrawRoute(Switch &sw, Vrf &vrf, const Prefix &prefix) {
  if (const KernelRoute *kernel = bestKernelRoute(vrf, prefix)) {
    return setRoute(sw, vrf, prefix, sw.attrs.intern(encodeAttrs(attrsOf(*kernel)), 1));
  }
  sw.attrs.release(*vrf.routes.find(prefix));
  vrf.routes.erase(prefix);
  return ChangeQueue::DELETE;
}

void tell(Switch &sw, const std::vector<Client *> &clients, const Prefix &prefix, ChangeQueue::Kind what) {
  for (Client *client : clients) {
    client->changes.note(prefix, what);
  }
  sw.page.tableChanged();
}

} // namespace

std::string editRoutes(Switch &sw, RouteEdit edit, uint32_t vrfId, const Prefix &first, uint32_t count,
                       const RouteAttrs &attrs) {
  Vrf *vrf = findVrf(sw, vrfId);
  if (vrf == nullptr) {
    return "there is no VRF " + std::to_string(vrfId);
  }
  std::string why = refusal(sw, edit, *vrf, first, count, attrs);
  if (!why.empty()) {
    return why;
  }
  const AttrId id = edit == RouteEdit::REMOVE ? 0 : sw.attrs.intern(encodeAttrs(attrs), count);
  const std::vector<Client *> clients = bestRouteClients(sw, vrfId);
  Beat beat(sw);
  for (uint32_t index = 0; index < count; ++index) {
    const Prefix prefix = nth(first, index);
    const ChangeQueue::Kind kind =
        edit == RouteEdit::REMOVE ? withdrawRoute(sw, *vrf, prefix) : setRoute(sw, *vrf, prefix, id);
    tell(sw, clients, prefix, kind);
    beat();
  }
  notifyBestRouteClients(sw, clients);
  return {};
}

void refreshRoute(Switch &sw, Vrf &vrf, const Prefix &prefix) {
  const AttrId *held = vrf.routes.find(prefix);
  const KernelRoute *best = bestKernelRoute(vrf, prefix);
  const bool ownIsThere = held != nullptr && !sw.attrs.reported(*held);
  if (ownIsThere || (held == nullptr && best == nullptr) ||
      (held != nullptr && best != nullptr && sw.attrs.body(*held) == encodeAttrs(attrsOf(*best)))) {
    return;
  }
  const std::vector<Client *> clients = bestRouteClients(sw, vrf.id);
  tell(sw, clients, prefix, withdrawRoute(sw, vrf, prefix));
  notifyBestRouteClients(sw, clients);
}

size_t routesThrough(const Switch &sw, uint32_t interface) {
  size_t routes = 0;
  for (AttrId id = 0; id < sw.attrs.slots(); ++id) {
    if (sw.attrs.mentions(id, interface) && !sw.attrs.reported(id)) {
      routes += sw.attrs.references(id);
    }
  }
  return routes;
}

bool encodeRoutesThrough(Switch &sw, const Vrf &vrf, uint32_t interface, const Prefix &key, uint32_t limit,
                         std::string &out) {
  const std::vector<bool> wanted = attrsThrough(sw, interface);
  uint32_t records = 0;
  RouteMap::Place place = vrf.routes.notBefore(key);
  const bool fromStart = key == Prefix{};
  Beat beat(sw);
  for (; const RouteMap::Entry *entry = vrf.routes.at(place); place = vrf.routes.next(place)) {
    beat();
    if (!wanted[entry->value] || (!fromStart && entry->prefix() == key)) {
      continue;
    }
    if (records == limit) {
      return true;
    }
    const tarnwire::RouteKey record{entry->address, entry->length, tarnwire::ROUTE_ADD, {}};
    out.append(reinterpret_cast<const char *>(&record), sizeof record).append(sw.attrs.body(entry->value));
    ++records;
  }
  return false;
}

void requeueRoutesThrough(Switch &sw, const Vrf &vrf, uint32_t interface) {
  const std::vector<bool> wanted = attrsThrough(sw, interface);
  const std::vector<Client *> clients = bestRouteClients(sw, vrf.id);
  Beat beat(sw);
  for (RouteMap::Place place = vrf.routes.first(); const RouteMap::Entry *entry = vrf.routes.at(place);
       place = vrf.routes.next(place)) {
    for (Client *client : clients) {
      if (wanted[entry->value]) {
        client->changes.note(entry->prefix(), ChangeQueue::ADD);
      }
    }
    beat();
  }
  notifyBestRouteClients(sw, clients);
}

void removeAllRoutes(Switch &sw, Vrf &vrf) {
  Beat beat(sw);
  for (RouteMap::Place place = vrf.routes.first(); const RouteMap::Entry *entry = vrf.routes.at(place);
       place = vrf.routes.next(place)) {
    sw.attrs.release(entry->value);
    beat();
  }
  vrf.routes.clear();
  sw.page.tableChanged();
}

void appendRoutes(Switch &sw, const Vrf &vrf, bool runs, std::string &out) {
  std::string attrText;
  AttrId attrsOfText = 0;
  Beat beat(sw);
  for (RouteMap::Place place = vrf.routes.first(); const RouteMap::Entry *entry = vrf.routes.at(place);) {
    beat();
    const RouteMap::Entry head = *entry;
    if (sw.attrs.reported(head.value)) {
      place = vrf.routes.next(place);
      continue;
    }
    uint64_t count = 1;
    for (place = vrf.routes.next(place); runs && (entry = vrf.routes.at(place)) != nullptr;
         place = vrf.routes.next(place)) {
      if (entry->length != head.length || entry->value != head.value ||
          entry->address != head.address + count * stepOf(head.length)) {
        break;
      }
      ++count;
    }
    if (attrText.empty() || attrsOfText != head.value) {
      attrText = "\n";
      std::string words;
      appendRouteAttrs(words, decodeAttrs(sw.attrs.body(head.value)));
      attrText = words + "\n";
      attrsOfText = head.value;
    }
    appendNumber(out += count > 1 ? "routes add vrf " : "route add vrf ", vrf.id);
    appendPrefix(out += ' ', head.prefix());
    if (count > 1) {
      appendNumber(out += " count ", count);
    }
    out += attrText;
  }
}

} // namespace orrin
