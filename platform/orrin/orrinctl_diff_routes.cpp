// The comparison of routes. Both sides come in ascending order and are walked together once.
#include "grammar.h"
#include "orrinctl_mirror.h"

#include <algorithm>
#include <cstdio>
#include <linux/rtnetlink.h>
#include <span>

namespace {

// The way a route goes, in the words of `ip route`.
std::string wayText(const MirrorRoute &route, const DeviceNames &devices) {
  switch (route.type) {
  case RTN_UNICAST:
    break;
  case RTN_UNREACHABLE:
    return "unreachable";
  case RTN_BLACKHOLE:
    return "blackhole";
  case RTN_PROHIBIT:
    return "prohibit";
  default:
    return "type " + std::to_string(route.type);
  }
  std::string text;
  if (route.gateway != 0) {
    text = "via ";
    orrin::appendAddress(text, route.gateway);
  }
  if (route.device != 0 && route.device != MirrorRoute::ANY_DEVICE) {
    text += text.empty() ? "dev " : " dev ";
    text += devices.nameOf(route.device);
  }
  return text.empty() ? "nowhere" : text;
}

bool sameWay(const MirrorRoute &expected, const MirrorRoute &kernel) {
  return expected.type == kernel.type && expected.gateway == kernel.gateway &&
         (expected.device == kernel.device || expected.device == MirrorRoute::ANY_DEVICE);
}

// Counts the differences of one VRF and, unless a summary is all that is wanted, prints each.
class RouteComparison {
public:
  RouteComparison(const MirrorVrf &vrf, const DeviceNames &devices, bool print)
      : vrf_(vrf), devices_(devices), print_(print) {}

  size_t run(std::span<const MirrorRoute> kernel) {
    auto have = kernel.begin();
    for (const MirrorRoute &want : vrf_.routes) {
      for (; have != kernel.end() && have->key() < want.key(); ++have) {
        report('+', *have, wayText(*have, devices_));
      }
      auto last = have;
      while (last != kernel.end() && last->key() == want.key()) {
        ++last;
      }
      compare(want, {have, last});
      have = last;
    }
    for (; have != kernel.end(); ++have) {
      report('+', *have, wayText(*have, devices_));
    }
    return differences_;
  }

private:
  // `have` is every route of that prefix in the kernel; more than one is already a fault.
  void compare(const MirrorRoute &want, std::span<const MirrorRoute> have) {
    if (have.empty()) {
      report('-', want, wayText(want, devices_));
      return;
    }
    auto match = std::find_if(have.begin(), have.end(), [&](const MirrorRoute &route) { return sameWay(want, route); });
    if (match == have.end()) {
      match = have.begin();
      report('~', want, "switch " + wayText(want, devices_) + ", kernel " + wayText(*match, devices_));
    }
    for (auto extra = have.begin(); extra != have.end(); ++extra) {
      if (extra != match) {
        report('+', *extra, wayText(*extra, devices_));
      }
    }
  }

  void report(char sign, const MirrorRoute &route, const std::string &way) {
    ++differences_;
    if (!print_) {
      return;
    }
    std::string prefix;
    orrin::appendPrefix(prefix, {route.prefix, route.length});
    std::printf("%c vrf %u route %s %s\n", sign, vrf_.id, prefix.c_str(), way.c_str());
  }

  const MirrorVrf &vrf_;
  const DeviceNames &devices_;
  const bool print_;
  size_t differences_ = 0;
};

} // namespace

std::string compareRoutes(const MirrorVrf &vrf, DeviceNames &devices, bool print, MirrorCounts &counts) {
  std::vector<MirrorRoute> kernel;
  std::string error = readKernelRoutes(devices, kernel);
  if (error.empty()) {
    counts = {vrf.switchRoutes, vrf.routes.size(), kernel.size(), RouteComparison(vrf, devices, print).run(kernel)};
  }
  return error;
}
