// The route tables and the ARP caches, for `show`. Used by orrin's one thread; long walks keep the heartbeat going.

#include "report.h"
#include "show.h"

namespace orrin {

namespace {

constexpr size_t BEAT_EVERY = 4096;

// One row of a route table, whichever table it comes from.
struct RouteRow {
  std::string prefix;
  std::string options; // with metric, protocol and next hops in the table, without them in JSON
  std::string hops;    // in JSON
  uint32_t metric = 0;
  uint32_t proto = 0;
  bool kernel = false;
  bool best = true;
};

class RouteReport {
public:
  RouteReport(Switch &sw, bool json, std::string &out) : sw_(sw), json_(json), report_(out, json, columns(json)) {}

  void vrf(const Vrf &vrf) {
    auto kernel = vrf.kernelRoutes.begin();
    for (auto place = vrf.routes.first(); const RouteMap::Entry *entry = vrf.routes.at(place);
         place = vrf.routes.next(place)) {
      const bool reported = sw_.attrs.reported(entry->value);
      if (!reported) {
        put(vrf.id, ownRow(*entry));
      }
      // Every prefix of an IPv4 kernel route is in the table, in the same order.
      const KernelRoute::Key key{ipv4Address(entry->address), entry->length, 0};
      for (bool best = reported; kernel != vrf.kernelRoutes.end() && kernel->first.samePrefix(key); ++kernel) {
        put(vrf.id, kernelRow(kernel->second, best));
        best = false;
      }
    }
    const KernelRoute::Key *before = nullptr;
    for (; kernel != vrf.kernelRoutes.end(); ++kernel) {
      put(vrf.id, kernelRow(kernel->second, before == nullptr || !kernel->first.samePrefix(*before)));
      before = &kernel->first;
    }
  }
  void finish() { report_.finish(); }

private:
  static std::span<const Column> columns(bool json) {
    static constexpr Column TABLE[] = {{"vrf", 10}, {"prefix", 18}, {"origin", 6}, {"best", 4}, {"options", 0}};
    static constexpr Column JSON[] = {{"vrf", 0},     {"prefix", 0}, {"origin", 0}, {"best", 0},
                                      {"options", 0}, {"metric", 0}, {"proto", 0},  {"nexthops", 0}};
    return json ? std::span<const Column>(JSON) : std::span<const Column>(TABLE);
  }

  RouteRow ownRow(const RouteMap::Entry &entry) const {
    RouteRow row;
    RouteAttrs attrs = decodeAttrs(sw_.attrs.body(entry.value));
    appendPrefix(row.prefix, entry.prefix());
    row.metric = attrs.metric;
    row.proto = attrs.proto;
    if (json_) { // have members of their own
      for (const NextHop &hop : attrs.hops) {
        addHop(row, ipv4Address(hop.address), hop.interface);
      }
      attrs.hops.clear();
      attrs.metric = attrs.proto = 0;
    }
    appendRouteAttrs(row.options, attrs);
    return row;
  }

  RouteRow kernelRow(KernelRoute route, bool best) const {
    RouteRow row;
    appendKernelPrefix(row.prefix, route.key);
    row.metric = route.key.metric;
    row.proto = route.proto;
    row.kernel = true;
    row.best = best;
    if (json_) {
      for (const KernelRoute::Hop &hop : route.hops) {
        addHop(row, hop.address, hop.interface);
      }
      route.hops.clear();
      route.key.metric = route.proto = 0;
    }
    row.options = " kernel";
    appendKernelWords(row.options, route);
    return row;
  }

  static void addHop(RouteRow &row, const IpAddress &address, uint32_t interface) {
    appendIpAddress(row.hops += row.hops.empty() ? "{\"via\":\"" : ",{\"via\":\"", address);
    appendNumber(row.hops += "\",\"interface\":", interface);
    row.hops += '}';
  }

  void put(uint32_t vrf, const RouteRow &row) {
    report_.number(vrf);
    report_.text(row.prefix);
    report_.text(row.kernel ? "kernel" : "switch");
    report_.yesNo(row.best);
    report_.text(row.options.empty() ? std::string_view() : std::string_view(row.options).substr(1));
    if (json_) {
      report_.number(row.metric);
      report_.number(row.proto);
      report_.custom({}, "[" + row.hops + "]");
    }
    if (++walked_ % BEAT_EVERY == 0) {
      sw_.page.beat();
    }
  }

  Switch &sw_;
  const bool json_;
  Report report_;
  size_t walked_ = 0;
};

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

} // namespace

void showRoutes(Switch &sw, const Wanted &wanted, std::string &out) {
  RouteReport report(sw, wanted.json, out);
  for (const auto &[id, vrf] : sw.vrfs) {
    if (wanted.vrf(id)) {
      report.vrf(vrf);
    }
  }
  report.finish();
}

void showArp(Switch &sw, const Wanted &wanted, std::string &out) {
  static constexpr Column COLUMNS[] = {{"vrf", 10},      {"address", 15}, {"mac", 17},     {"origin", 6},
                                       {"interface", 9}, {"device", 15},  {"ifindex", 10}, {"state", 0}};
  Report report(out, wanted.json, COLUMNS);
  for (const auto &[id, vrf] : sw.vrfs) {
    if (!wanted.vrf(id)) {
      continue;
    }
    for (const auto &[address, entry] : vrf.arp) {
      const Interface *interface = findInterface(sw, entry.interface);
      const bool kernel = entry.origin == ArpEntry::KERNEL;
      std::string text;
      report.number(id);
      appendAddress(text, address);
      report.text(text);
      text.clear();
      appendMac(text, entry.mac);
      report.text(text);
      report.text(kernel ? "kernel" : "switch");
      report.number(entry.interface);
      report.text(interface == nullptr ? std::string_view() : std::string_view(interface->device));
      report.number(entry.index);
      report.text(kernel ? neighbourState(entry.state) : std::string());
    }
    sw.page.beat();
  }
  report.finish();
}

} // namespace orrin
