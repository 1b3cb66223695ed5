// The kernel routes of the VRFs. Used by orrin's one thread; long walks keep the heartbeat going.

#include "kernel_routes.h"

#include "routes.h"
#include "tarnapi.h"

#include <algorithm>

namespace orrin {

namespace {

constexpr size_t BEAT_EVERY = 4096;

bool leavesThrough(const KernelRoute &route, uint32_t interface) {
  return std::any_of(route.hops.begin(), route.hops.end(),
                     [interface](const KernelRoute::Hop &hop) { return hop.interface == interface; });
}

// Does it go nowhere, or through interfaces of the VRF?
bool isPlaced(const Switch &sw, const Vrf &vrf, const KernelRoute &route) {
  const auto inVrf = [&](const KernelRoute::Hop &hop) {
    const auto interface = sw.interfaces.find(hop.interface);
    return interface != sw.interfaces.end() && interface->second.vrf == vrf.id;
  };
  const bool goesNowhere = route.reject || route.discard;
  return (goesNowhere || !route.hops.empty()) && std::all_of(route.hops.begin(), route.hops.end(), inVrf);
}

void refresh(Switch &sw, Vrf &vrf, const KernelRoute::Key &key) {
  if (!key.prefix.v6) {
    refreshRoute(sw, vrf, {ipv4Number(key.prefix), key.length});
  }
}

std::string line(const char *verb, const Vrf &vrf) {
  std::string text = verb;
  appendNumber(text += " vrf ", vrf.id);
  return text;
}

std::string goneLine(const Vrf &vrf, const KernelRoute::Key &key) {
  std::string text = line("reported route-gone", vrf);
  KernelRoute gone;
  gone.key = key;
  appendKernelRoute(text, gone);
  return text;
}

template <class Which> void dropWhere(Switch &sw, Vrf &vrf, Which which) {
  size_t walked = 0;
  for (auto entry = vrf.kernelRoutes.begin(); entry != vrf.kernelRoutes.end();) {
    if (++walked % BEAT_EVERY == 0) {
      sw.page.beat();
    }
    if (!which(entry->second)) {
      ++entry;
      continue;
    }
    const KernelRoute::Key key = entry->first;
    entry = vrf.kernelRoutes.erase(entry);
    refresh(sw, vrf, key);
  }
}

} // namespace

int32_t addKernelRoute(Switch &sw, Vrf &vrf, const KernelRoute &route) {
  if (!isPlaced(sw, vrf, route)) {
    return TARN_REFUSED;
  }
  const auto held = vrf.kernelRoutes.find(route.key);
  if (held != vrf.kernelRoutes.end() && held->second == route) {
    return TARN_EXISTS;
  }
  if (held == vrf.kernelRoutes.end() && vrf.kernelRoutes.size() >= vrf.kernelRoutesMax) {
    return TARN_FULL;
  }
  std::string text = line("reported route", vrf);
  appendKernelRoute(text, route);
  sw.journal.append(text);
  restoreKernelRoute(sw, vrf, route);
  return TARN_OK;
}

int32_t deleteKernelRoute(Switch &sw, Vrf &vrf, const KernelRoute &route) {
  const auto held = vrf.kernelRoutes.find(route.key);
  const bool anyHops = route.hops.empty() && !route.reject && !route.discard;
  if (held == vrf.kernelRoutes.end() || (!anyHops && held->second != route)) {
    return TARN_REFUSED;
  }
  sw.journal.append(goneLine(vrf, route.key));
  forgetKernelRoute(sw, vrf, route.key);
  return TARN_OK;
}

void restoreKernelRoute(Switch &sw, Vrf &vrf, KernelRoute route) {
  const KernelRoute::Key key = route.key;
  vrf.kernelRoutes.insert_or_assign(key, std::move(route));
  refresh(sw, vrf, key);
}

void forgetKernelRoute(Switch &sw, Vrf &vrf, const KernelRoute::Key &key) {
  vrf.kernelRoutes.erase(key);
  refresh(sw, vrf, key);
}

void dropSilentKernelRoutes(Switch &sw, const Interface &interface) {
  dropWhere(sw, sw.vrfs.at(interface.vrf), [&interface](const KernelRoute &route) {
    return !route.key.prefix.v6 && leavesThrough(route, interface.number);
  });
}

void dropKernelRoutes(Switch &sw, const Interface &interface) {
  dropWhere(sw, sw.vrfs.at(interface.vrf),
            [&interface](const KernelRoute &route) { return leavesThrough(route, interface.number); });
}

const KernelRoute *bestKernelRoute(const Vrf &vrf, const Prefix &prefix) {
  const KernelRoute::Key key{ipv4Address(prefix.address), prefix.length, 0};
  const auto found = vrf.kernelRoutes.lower_bound(key);
  return found != vrf.kernelRoutes.end() && found->first.samePrefix(key) ? &found->second : nullptr;
}

RouteAttrs attrsOf(const KernelRoute &route) {
  RouteAttrs attrs;
  attrs.type = RouteAttrs::KERNEL;
  attrs.reported = true;
  attrs.reject = route.reject;
  attrs.discard = route.discard;
  attrs.metric = route.key.metric;
  attrs.proto = route.proto;
  for (const KernelRoute::Hop &hop : route.hops) {
    attrs.hops.push_back({ipv4Number(hop.address), hop.interface});
  }
  return attrs;
}

void appendKernelRoutes(Switch &sw, const Vrf &vrf, std::string &out) {
  const std::string head = line("reported route", vrf);
  size_t walked = 0;
  for (const auto &[key, route] : vrf.kernelRoutes) {
    appendKernelRoute(out += head, route);
    out += '\n';
    if (++walked % BEAT_EVERY == 0) {
      sw.page.beat();
    }
  }
}

} // namespace orrin
