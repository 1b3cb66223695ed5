// The route tables and the ARP caches, for `show`. Used by orrin's one thread; long walks keep the heartbeat going.

#include "report.h"
#include "show.h"

#include <algorithm>

namespace orrin {

namespace {

constexpr size_t BEAT_EVERY = 4096;

constexpr Column ROUTE_COLUMNS[] = {{"vrf", 10}, {"prefix", 18}, {"origin", 6}, {"best", 4}, {"options", 0}};

class RouteReport {
public:
  RouteReport(Switch &sw, bool json, std::string &out) : sw_(sw), report_(out, json, ROUTE_COLUMNS) {}

  void vrf(const Vrf &vrf) {
    auto kernel = vrf.kernelRoutes.begin();
    for (auto place = vrf.routes.first(); const RouteMap::Entry *entry = vrf.routes.at(place);
         place = vrf.routes.next(place)) {
      const bool reported = sw_.attrs.reported(entry->value);
      if (!reported) {
        putOwn(vrf.id, *entry);
      }
      // Every prefix of an IPv4 kernel route is in the table, in the same order.
      const KernelRoute::Key key{ipv4Address(entry->address), entry->length, 0};
      for (bool best = reported; kernel != vrf.kernelRoutes.end() && kernel->first.samePrefix(key); ++kernel) {
        putKernel(vrf.id, kernel->second, best);
        best = false;
      }
    }
    const KernelRoute::Key *before = nullptr;
    for (; kernel != vrf.kernelRoutes.end(); ++kernel) {
      putKernel(vrf.id, kernel->second, before == nullptr || !kernel->first.samePrefix(*before));
      before = &kernel->first;
    }
  }
  void finish() { report_.finish(); }

private:
  void putOwn(uint32_t vrf, const RouteMap::Entry &entry) {
    std::string prefix;
    std::string options;
    appendPrefix(prefix, entry.prefix());
    appendRouteAttrs(options, decodeAttrs(sw_.attrs.body(entry.value)));
    put(vrf, prefix, "switch", true, options);
  }

  void putKernel(uint32_t vrf, const KernelRoute &route, bool best) {
    std::string prefix;
    std::string options = " kernel";
    appendKernelPrefix(prefix, route.key);
    appendKernelWords(options, route);
    put(vrf, prefix, "kernel", best, options);
  }

  // `options` begin with a blank or are empty.
  void put(uint32_t vrf, std::string_view prefix, std::string_view origin, bool best, std::string_view options) {
    report_.number(vrf);
    report_.text(prefix);
    report_.text(origin);
    report_.yesNo(best);
    report_.text(options.substr(std::min<size_t>(options.size(), 1)));
    if (++walked_ % BEAT_EVERY == 0) {
      sw_.page.beat();
    }
  }

  Switch &sw_;
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
