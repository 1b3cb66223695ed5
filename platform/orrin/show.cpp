// The answers of `show`. Used by orrin's one thread; long walks keep the heartbeat going.

#include "clients.h"
#include "commands.h"
#include "interfaces.h"
#include "report.h"
#include "router_events.h"

#include <algorithm>

namespace orrin {

namespace {

constexpr size_t BEAT_EVERY = 4096;

struct Wanted {
  const Vrf *only = nullptr;
  bool json = false;

  bool vrf(uint32_t id) const { return only == nullptr || only->id == id; }
};

// What a function that appends to a text makes of the value.
template <class Value>
std::string textOf(void (*append)(std::string &, Value), const std::type_identity_t<Value> &value) {
  std::string text;
  append(text, value);
  return text;
}

constexpr Column VRF_COLUMNS[] = {{"vrf", 10},      {"name", 16},          {"interface", 16}, {"routing", 7},
                                  {"routes", 8},    {"kernel-routes", 13}, {"arp", 6},        {"interfaces", 10},
                                  {"keepalive", 9}, {"resolutions", 11},   {"unsent", 6},     {"lost", 6},
                                  {"netns", 0}};

void vrfRows(Switch &sw, const Wanted &wanted, Report &report) {
  for (const auto &[id, vrf] : sw.vrfs) {
    if (!wanted.vrf(id)) {
      continue;
    }
    const auto interfaces =
        std::count_if(sw.interfaces.begin(), sw.interfaces.end(),
                      [wantedId = vrf.id](const auto &entry) { return entry.second.vrf == wantedId; });
    report.row(id, vrf.name, vrf.interfaceName, vrf.routing ? "on" : "off", vrf.routes.size(), vrf.kernelRoutes.size(),
               vrf.arp.size(), interfaces, sw.keepaliveHeld || vrf.keepaliveHeld ? "held" : "sent",
               vrf.resolutionsMade - vrf.resolutionsLost - vrf.resolutions.size(), vrf.resolutions.size(),
               vrf.resolutionsLost, vrf.netns);
  }
}

const char *typeName(uint32_t type) {
  return type == Interface::LOOPBACK ? "loopback" : type == Interface::TUNNEL ? "tunnel" : "ordinary";
}

void appendInterfaceAddress(std::string &out, const InterfaceAddress &address) {
  appendAddress(out, address.address);
  appendNumber(out += '/', address.length);
}

// "10.1.2.1/24:1 vrrp 3_0 10.1.1.254", every address beside the primary with its label's number.
std::string moreAddresses(const Interface &interface) {
  std::string text;
  for (const InterfaceAddress &each : interface.secondaries) {
    appendInterfaceAddress(text += ' ', each);
    appendNumber(text += ':', each.index);
  }
  for (const VrrpGroup &group : interface.vrrp) {
    for (size_t slot = 0; slot < group.addresses.size(); ++slot) {
      if (group.addresses[slot] != 0) {
        appendNumber(text += " vrrp ", group.label);
        appendNumber(text += '_', slot);
        appendAddress(text += ' ', group.addresses[slot]);
      }
    }
  }
  return text.empty() ? text : text.substr(1);
}

constexpr Column INTERFACE_COLUMNS[] = {
    {"interface", 9},     {"vrf", 10},      {"name", 16},         {"device", 15},       {"type", 4}, {"kind", 8},
    {"index", 5},         {"state", 12},    {"mac", 17},          {"address", 18},      {"mtu", 5},  {"bandwidth", 10},
    {"unreachables", 12}, {"redirects", 9}, {"ack-timeouts", 12}, {"more-addresses", 0}};

void interfaceRows(Switch &sw, const Wanted &wanted, Report &report) {
  for (const auto &[number, interface] : sw.interfaces) {
    if (wanted.vrf(interface.vrf)) {
      report.row(number, interface.vrf, interface.name, interface.device, interface.type, typeName(interface.type),
                 interface.index, stateName(interface.state), textOf(appendMac, interface.mac),
                 interface.primary ? textOf(appendInterfaceAddress, *interface.primary) : std::string(), interface.mtu,
                 interface.bandwidth, interface.unreachables, interface.redirects, interface.ackTimeouts,
                 moreAddresses(interface));
    }
  }
}

constexpr Column ROUTE_COLUMNS[] = {{"vrf", 10}, {"prefix", 18}, {"origin", 6}, {"best", 4}, {"options", 0}};

void ownRouteRow(const Vrf &vrf, const RouteMap::Entry &entry, const RouteAttrs &attrs, Report &report) {
  const std::string options = textOf(appendRouteAttrs, attrs);
  report.row(vrf.id, textOf(appendPrefix, entry.prefix()), "switch", true,
             std::string_view(options).substr(options.empty() ? 0 : 1));
}

void kernelRouteRow(const Vrf &vrf, const KernelRoute &route, bool best, Report &report) {
  report.row(vrf.id, textOf(appendKernelPrefix, route.key), "kernel", best,
             "kernel" + textOf(appendKernelWords, route));
}

void routeRowsOf(Switch &sw, const Vrf &vrf, Report &report) {
  size_t walked = 0;
  const auto beat = [&] {
    if (++walked % BEAT_EVERY == 0) {
      sw.page.beat();
    }
  };
  auto kernel = vrf.kernelRoutes.begin();
  for (auto place = vrf.routes.first(); const RouteMap::Entry *entry = vrf.routes.at(place);
       place = vrf.routes.next(place), beat()) {
    const bool reported = sw.attrs.reported(entry->value);
    if (!reported) {
      ownRouteRow(vrf, *entry, decodeAttrs(sw.attrs.body(entry->value)), report);
    }
    // Every prefix of an IPv4 kernel route is in the table, in the same order.
    const KernelRoute::Key key{ipv4Address(entry->address), entry->length, 0};
    for (bool best = reported; kernel != vrf.kernelRoutes.end() && kernel->first.samePrefix(key); ++kernel, beat()) {
      kernelRouteRow(vrf, kernel->second, best, report);
      best = false;
    }
  }
  for (bool best = true; kernel != vrf.kernelRoutes.end(); beat()) {
    const KernelRoute::Key &key = kernel->first;
    kernelRouteRow(vrf, kernel->second, best, report);
    best = ++kernel == vrf.kernelRoutes.end() || !kernel->first.samePrefix(key);
  }
}

void routeRows(Switch &sw, const Wanted &wanted, Report &report) {
  for (const auto &[id, vrf] : sw.vrfs) {
    if (wanted.vrf(id)) {
      routeRowsOf(sw, vrf, report);
    }
  }
}

// The kernel's name of a neighbour's state, as `ip neigh` has it.
std::string neighbourState(uint32_t state) {
  constexpr const char *NAMES[] = {"incomplete", "reachable", "stale", "delay",
                                   "probe",      "failed",    "noarp", "permanent"};
  for (uint32_t bit = 0; bit < std::size(NAMES); ++bit) {
    if (state == 1u << bit) {
      return NAMES[bit];
    }
  }
  return std::to_string(state);
}

constexpr Column ARP_COLUMNS[] = {{"vrf", 10},      {"address", 15}, {"mac", 17},     {"origin", 6},
                                  {"interface", 9}, {"device", 15},  {"ifindex", 10}, {"state", 0}};

void arpRows(Switch &sw, const Wanted &wanted, Report &report) {
  for (const auto &[id, vrf] : sw.vrfs) {
    if (!wanted.vrf(id)) {
      continue;
    }
    for (const auto &[address, entry] : vrf.arp) {
      const Interface *interface = findInterface(sw, entry.interface);
      const bool kernel = entry.origin == ArpEntry::KERNEL;
      report.row(id, textOf(appendAddress, address), textOf(appendMac, entry.mac), kernel ? "kernel" : "switch",
                 entry.interface, interface == nullptr ? std::string() : interface->device, entry.index,
                 kernel ? neighbourState(entry.state) : std::string());
    }
    sw.page.beat();
  }
}

constexpr Column CLIENT_COLUMNS[] = {{"client", 6}, {"kind", 12},           {"vrf", 10},    {"name", 16},
                                     {"pid", 8},    {"state", 10},          {"waiting", 8}, {"in-flight", 9},
                                     {"unsent", 6}, {"unacknowledged", 14}, {"socket", 0}};

void clientRows(Switch &sw, const Wanted &wanted, Report &report) {
  for (const auto &[id, client] : sw.clients) {
    if (wanted.vrf(client.vrf)) {
      report.row(id, kindName(client.kind), client.vrf, client.name, client.pid,
                 client.registered ? "registered" : "gone", client.changes.waiting(), client.changes.inFlight(),
                 client.outbox.size(), client.events.size(), client.outbox.path());
    }
  }
}

constexpr Column FAULT_COLUMNS[] = {{"call", 40}, {"result", 6}, {"delay", 6}, {"drop", 4}, {"times", 0}};

void faultRows(Switch &sw, const Wanted &, Report &report) {
  for (const tarnwire::OpInfo &info : tarnwire::OPS) {
    if (const std::optional<Fault> &fault = sw.faults.at(info.op)) {
      const std::string result = fault->result ? std::to_string(*fault->result) : std::string();
      const std::string times = std::to_string(fault->times);
      report.row(info.function, Worded{result, fault->result ? result : "null"}, fault->delayMs, fault->drop,
                 Worded{fault->times == 0 ? "always" : times, times});
    }
  }
}

constexpr Column EVENT_COLUMNS[] = {{"client", 6}, {"vrf", 10},      {"sequence", 10},    {"type", 4},
                                    {"event", 16}, {"interface", 9}, {"configuration", 0}};

// Events that a client has not acknowledged.
void eventRows(Switch &sw, const Wanted &wanted, Report &report) {
  for (const auto &[id, client] : sw.clients) {
    for (const RppiEventMsg &event : client.events) {
      if (wanted.vrf(client.vrf)) {
        report.row(id, client.vrf, event.eventSeq, event.msgType, eventName(event.msgType), event.intIfNum,
                   event.cfgEvent);
      }
    }
  }
}

struct Subject {
  std::string_view word;
  std::span<const Column> columns;
  void (*rows)(Switch &sw, const Wanted &wanted, Report &report);
};

constexpr Subject SUBJECTS[] = {
    {"vrfs", VRF_COLUMNS, vrfRows},          {"interfaces", INTERFACE_COLUMNS, interfaceRows},
    {"routes", ROUTE_COLUMNS, routeRows},    {"arp", ARP_COLUMNS, arpRows},
    {"clients", CLIENT_COLUMNS, clientRows}, {"faults", FAULT_COLUMNS, faultRows},
    {"events", EVENT_COLUMNS, eventRows},
};

const Subject *subjectOf(std::string_view word) {
  const auto subject =
      std::find_if(std::begin(SUBJECTS), std::end(SUBJECTS), [word](const Subject &each) { return each.word == word; });
  return subject == std::end(SUBJECTS) ? nullptr : subject;
}

void appendReport(Switch &sw, const Subject &subject, const Wanted &wanted, std::string &out) {
  Report report(out, wanted.json, subject.columns);
  subject.rows(sw, wanted, report);
  report.finish();
}

std::string gatewayText(const std::optional<uint32_t> &address) {
  return address ? textOf(appendAddress, *address) : std::string();
}

// A line for each member in the table, one object in JSON.
void showStatus(Switch &sw, const Wanted &wanted, std::string &out) {
  constexpr size_t WIDTH = 18;
  auto member = [&, before = "{\n"](std::string_view key, std::string_view value, bool quoted) mutable {
    if (!wanted.json) {
      out.append(key).append(WIDTH - key.size(), ' ').append(value) += '\n';
      return;
    }
    appendJsonText(out += before, key);
    out += ':';
    if (quoted) {
      appendJsonText(out, value);
    } else {
      out += value;
    }
    before = ",\n";
  };
  size_t routes = 0;
  for (const auto &[id, vrf] : sw.vrfs) {
    routes += vrf.routes.size();
  }
  member("system", sw.systemReady ? "ready" : "not-ready", true);
  member("service-gateway", gatewayText(sw.gateways.servicePort), true);
  member("network-gateway", gatewayText(sw.gateways.networkPort), true);
  member("routes", std::to_string(routes), false);
  member("interfaces", std::to_string(sw.interfaces.size()), false);
  member("keepalive-period", std::to_string(sw.keepalivePeriod), false);
  member("keepalive", sw.keepaliveHeld ? "held" : "sent", true);
  member("state-folder", sw.journal.folder(), true);
  member("state", sw.journal.trouble().empty() ? "kept" : sw.journal.trouble(), true);
  for (const std::string_view word : {"vrfs", "clients", "faults"}) {
    std::string rows;
    appendReport(sw, *subjectOf(word), wanted, rows);
    if (wanted.json) {
      rows.pop_back(); // the line end
      member(word, rows, false);
    } else {
      out.append(word).append("\n").append(rows) += '\n';
    }
  }
  out += wanted.json ? "\n}\n" : "";
}

} // namespace

bool showCommand(Switch &sw, Words &words, std::string &out) {
  const std::string_view word = words.take();
  const Subject *subject = subjectOf(word);
  if (subject == nullptr && word != "status") {
    out = "show: vrfs, interfaces, routes, arp, clients, events, faults or status";
    out += word.empty() ? "" : ", not \"" + std::string(word) + "\"";
    return false;
  }
  Wanted wanted;
  if (!takeVrfFilter(sw, words, wanted.only, out)) {
    return false;
  }
  wanted.json = words.takeIf("json");
  if (!takeEnd(words, out)) {
    return false;
  }
  if (subject == nullptr) {
    showStatus(sw, wanted, out);
  } else {
    appendReport(sw, *subject, wanted, out);
  }
  return true;
}

} // namespace orrin
