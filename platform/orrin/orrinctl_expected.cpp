// The switch's side of a comparison: reads a configuration dump and works out what each route is in the kernel. The rules
// are those by which the agent installs; a route that it cannot install is still expected, so that its absence shows.
#include "grammar.h"
#include "orrinctl_mirror.h"

#include <algorithm>
#include <linux/rtnetlink.h>
#include <map>

using orrin::Words;

namespace {

constexpr std::string_view VRF_DEVICE_SUFFIX = "_stk";
constexpr std::string_view MPLS_DEVICE = "rt_mpls";
constexpr std::string_view RFC5549_DEVICE = "rfc5549if";
constexpr uint32_t TUNNEL_TYPE = 5; // has no kernel device of its own

bool belongsInKernel(const orrin::RouteAttrs &attrs) {
  return attrs.type != orrin::RouteAttrs::LOCAL && (attrs.type != orrin::RouteAttrs::KERNEL || attrs.installKernel);
}

class DumpReader {
public:
  DumpReader(DeviceNames &devices, std::vector<MirrorVrf> &vrfs)
      : devices_(devices), vrfs_(vrfs), mplsDevice_(devices.idOf(MPLS_DEVICE)),
        rfc5549Device_(devices.idOf(RFC5549_DEVICE)) {}

  bool line(std::string_view text) {
    Words words(text);
    const std::string_view noun = words.take();
    if ((noun != "vrf" && noun != "interface" && noun != "route") || !words.takeIf("add")) {
      return true; // a setting that says nothing about the kernel's routes
    }
    return noun == "vrf" ? vrf(words) : noun == "interface" ? interface(words) : route(words);
  }

  const std::string &error() const { return error_; }

private:
  struct Vrf {
    size_t index;
    uint16_t ownDevice; // <vrf-interface>_stk
  };

  bool vrf(Words &words) {
    MirrorVrf vrf;
    if (!orrin::takeNumber(words, "vrf", vrf.id, error_)) {
      return false;
    }
    vrf.name = words.take();
    std::string ownDevice;
    while (!words.atEnd()) {
      const std::string_view what = words.take();
      const std::string_view value = words.take();
      if (what == "netns") {
        vrf.netns = value;
      } else if (what == "interface") {
        ownDevice = std::string(value).append(VRF_DEVICE_SUFFIX);
      }
    }
    known_[vrf.id] = {vrfs_.size(), devices_.idOf(ownDevice)};
    vrfs_.push_back(std::move(vrf));
    return true;
  }

  bool interface(Words &words) {
    uint32_t number = 0;
    if (!orrin::takeNumber(words, "interface", number, error_)) {
      return false;
    }
    std::string_view device;
    uint32_t type = 0;
    while (!words.atEnd()) {
      const std::string_view what = words.take();
      if (what == "device") {
        device = words.take();
      } else if (what == "type" && !orrin::takeNumber(words, what, type, error_)) {
        return false;
      }
    }
    if (type != TUNNEL_TYPE) {
      interfaces_[number] = devices_.idOf(device);
    }
    return true;
  }

  bool route(Words &words) {
    route_.attrs = {};
    if (!orrin::parseRoute(words, route_, error_)) {
      return false;
    }
    const auto vrf = known_.find(route_.vrf);
    if (vrf == known_.end()) {
      error_ = "route of an unknown vrf";
      return false;
    }
    MirrorVrf &mirror = vrfs_[vrf->second.index];
    ++mirror.switchRoutes;
    if (belongsInKernel(route_.attrs)) {
      mirror.expected.push_back(inKernel(vrf->second));
    }
    return true;
  }

  MirrorRoute inKernel(const Vrf &vrf) const {
    const orrin::RouteAttrs &attrs = route_.attrs;
    MirrorRoute route;
    route.prefix = route_.prefix.address;
    route.length = route_.prefix.length;
    route.type = attrs.reject ? RTN_UNREACHABLE : RTN_UNICAST;
    if (attrs.reject) {
      return route;
    }
    if (attrs.viaVrfDevice) {
      route.device = vrf.ownDevice;
    } else if (attrs.mpls) {
      route.device = mplsDevice_;
    } else if (attrs.rfc5549) {
      route.device = rfc5549Device_;
    } else if (!attrs.hops.empty()) {
      const auto lowest = std::min_element(attrs.hops.begin(), attrs.hops.end(), [](const auto &a, const auto &b) {
        return a.address < b.address; // the first among equals
      });
      const auto device = interfaces_.find(lowest->interface);
      route.gateway = lowest->address;
      route.device = device != interfaces_.end() ? device->second : MirrorRoute::ANY_DEVICE;
    }
    return route;
  }

  DeviceNames &devices_;
  std::vector<MirrorVrf> &vrfs_;
  const uint16_t mplsDevice_;
  const uint16_t rfc5549Device_;
  std::map<uint32_t, Vrf> known_;
  std::map<uint32_t, uint16_t> interfaces_;
  orrin::Route route_;
  std::string error_;
};

} // namespace

uint16_t DeviceNames::idOf(std::string_view name) {
  const auto known = std::find(names_.begin(), names_.end(), name);
  const auto id = static_cast<uint16_t>(known - names_.begin());
  if (known == names_.end()) {
    names_.emplace_back(name);
  }
  return id;
}

std::string readDump(std::string_view dump, DeviceNames &devices, std::vector<MirrorVrf> &vrfs) {
  DumpReader reader(devices, vrfs);
  while (!dump.empty()) {
    const size_t end = std::min(dump.find('\n'), dump.size());
    const std::string_view line = dump.substr(0, end);
    if (!reader.line(line)) {
      return "\"" + std::string(line) + "\": " + reader.error();
    }
    dump.remove_prefix(std::min(end + 1, dump.size()));
  }
  for (MirrorVrf &vrf : vrfs) {
    std::sort(vrf.expected.begin(), vrf.expected.end(),
              [](const MirrorRoute &a, const MirrorRoute &b) { return a.key() < b.key(); });
  }
  return {};
}
