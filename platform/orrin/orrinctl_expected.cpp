// The switch's side of a comparison: reads a configuration dump and works out what each interface and route is in the kernel.
// The rules are those by which the agent installs; what it cannot install is still expected, so that its absence shows. Only
// a route through an interface that is not enabled is not: the kernel holds none through a device that is down.
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
constexpr uint32_t LOOPBACK_TYPE = 4; // has no VRRP addresses in the kernel
constexpr uint32_t TUNNEL_TYPE = 5;   // has no kernel device of its own
constexpr size_t LABEL_MAX = 15;

bool belongsInKernel(const orrin::RouteAttrs &attrs) {
  return attrs.type != orrin::RouteAttrs::LOCAL && (attrs.type != orrin::RouteAttrs::KERNEL || attrs.installKernel);
}

class DumpReader {
public:
  DumpReader(DeviceNames &devices, std::deque<MirrorVrf> &vrfs)
      : devices_(devices), vrfs_(vrfs), mplsDevice_(devices.idOf(MPLS_DEVICE)),
        rfc5549Device_(devices.idOf(RFC5549_DEVICE)) {}

  bool line(std::string_view text) {
    Words words(text);
    const std::string_view noun = words.take();
    const std::string_view verb = words.take();
    if (noun == "vrf" && verb == "add") {
      return vrf(words);
    }
    if (noun == "vrf" && verb == "set") {
      return vrfSet(words);
    }
    if (noun == "route" && verb == "add") {
      return route(words);
    }
    if (noun == "arp" && verb == "learn") {
      return neighbour(words);
    }
    if (noun == "gateway") {
      return gateway(words);
    }
    return noun != "interface" || interface(verb, words);
  }

  const std::string &error() const { return error_; }

  // After the last line.
  void finish() {
    for (MirrorVrf &vrf : vrfs_) {
      vrf.notReported.insert(gateways_.begin(), gateways_.end());
    }
  }

private:
  struct Vrf {
    MirrorVrf *mirror;
    uint16_t ownDevice; // <vrf-interface>_stk
    bool routing = false;
  };

  struct Device {
    MirrorInterface *interface;
    uint16_t id;
    const Vrf *vrf;
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
    const uint32_t id = vrf.id;
    known_[id] = {&vrfs_.emplace_back(std::move(vrf)), devices_.idOf(ownDevice)};
    return true;
  }

  bool vrfSet(Words &words) {
    uint32_t id = 0;
    if (!orrin::takeNumber(words, "vrf", id, error_)) {
      return false;
    }
    const auto vrf = known_.find(id);
    if (vrf != known_.end() && words.takeIf("routing")) {
      vrf->second.routing = words.takeIf("on");
    }
    return true;
  }

  bool neighbour(Words &words) {
    uint32_t id = 0;
    uint32_t address = 0;
    if (!orrin::takeKeyword(words, "vrf", error_) || !orrin::takeNumber(words, "vrf", id, error_)) {
      return false;
    }
    const auto vrf = known_.find(id);
    if (vrf == known_.end() || !orrin::parseAddress(words.take(), address)) {
      error_ = "no neighbour of a VRF";
      return false;
    }
    vrf->second.mirror->notReported.insert(address);
    return true;
  }

  bool gateway(Words &words) {
    if (!orrin::parseAddress(words.take(), gateways_.emplace_back())) {
      error_ = "no address";
      return false;
    }
    return true;
  }

  bool interface(std::string_view verb, Words &words) {
    uint32_t number = 0;
    if (!orrin::takeNumber(words, "interface", number, error_)) {
      return false;
    }
    if (verb == "add") {
      return interfaceAdd(number, words);
    }
    const auto known = interfaces_.find(number);
    if (known == interfaces_.end()) {
      return true; // a tunnel
    }
    MirrorInterface &interface = *known->second.interface;
    if (verb == "set") {
      return interfaceSet(interface, words);
    }
    if (verb == "secondary") {
      return secondary(interface, words);
    }
    if (verb == "vrrp") {
      return vrrp(interface, words);
    }
    interface.wanted.up = interface.wanted.up || (verb == "enable" && known->second.vrf->routing);
    interface.hostMode = interface.hostMode || verb == "host-mode";
    return true;
  }

  bool interfaceAdd(uint32_t number, Words &words) {
    MirrorInterface interface;
    interface.number = number;
    uint32_t vrf = 0;
    while (!words.atEnd()) {
      const std::string_view what = words.take();
      if (what == "device") {
        interface.device = words.take();
      } else if ((what == "vrf" && !orrin::takeNumber(words, what, vrf, error_)) ||
                 (what == "type" && !orrin::takeNumber(words, what, interface.type, error_))) {
        return false;
      }
    }
    const auto owner = known_.find(vrf);
    if (owner == known_.end()) {
      error_ = "interface of an unknown vrf";
      return false;
    }
    if (interface.type != TUNNEL_TYPE) {
      auto &all = owner->second.mirror->interfaces;
      const uint16_t id = devices_.idOf(interface.device);
      interfaces_[number] = {&all.emplace_back(std::move(interface)), id, &owner->second};
    }
    return true;
  }

  bool interfaceSet(MirrorInterface &interface, Words &words) {
    while (!words.atEnd()) {
      const std::string_view what = words.take();
      MirrorAddress primary;
      if (what == "mac") {
        if (!orrin::takeMac(words, interface.wanted.mac, error_)) {
          return false;
        }
      } else if (what == "mtu") {
        if (!orrin::takeNumber(words, what, interface.wanted.mtu, error_)) {
          return false;
        }
      } else if (what == "address") {
        if (!orrin::takeInterfaceAddress(words, what, primary.address, primary.length, error_)) {
          return false;
        }
        addAddress(interface, primary, "");
      }
    }
    return true;
  }

  bool secondary(MirrorInterface &interface, Words &words) {
    MirrorAddress address;
    uint32_t index = 0;
    if (!orrin::takeKeyword(words, "add", error_) ||
        !orrin::takeInterfaceAddress(words, "secondary", address.address, address.length, error_) ||
        !orrin::takeKeyword(words, "index", error_) || !orrin::takeNumber(words, "index", index, error_)) {
      return false;
    }
    addAddress(interface, address, std::to_string(index));
    return true;
  }

  bool vrrp(MirrorInterface &interface, Words &words) {
    uint32_t label = 0;
    uint32_t slot = 0;
    MirrorAddress address{.address = 0, .length = 32, .label = {}};
    if (!orrin::takeKeyword(words, "label", error_) || !orrin::takeNumber(words, "label", label, error_) ||
        !orrin::takeKeyword(words, "add", error_) || !orrin::parseAddress(words.take(), address.address) ||
        !orrin::takeKeyword(words, "slot", error_) || !orrin::takeNumber(words, "slot", slot, error_)) {
      return false;
    }
    if (interface.type != LOOPBACK_TYPE) {
      addAddress(interface, address, std::to_string(label) + '_' + std::to_string(slot));
    }
    return true;
  }

  static void addAddress(MirrorInterface &interface, MirrorAddress &address, const std::string &suffix) {
    address.label = kernelLabel(interface.device, suffix);
    interface.wanted.addresses.push_back(std::move(address));
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
    MirrorVrf &mirror = *vrf->second.mirror;
    ++mirror.switchRoutes;
    if (belongsInKernel(route_.attrs)) {
      inKernel(vrf->second, mirror.routes);
    }
    return true;
  }

  void inKernel(const Vrf &vrf, std::vector<MirrorRoute> &routes) const {
    const orrin::RouteAttrs &attrs = route_.attrs;
    MirrorRoute route;
    route.prefix = route_.prefix.address;
    route.length = route_.prefix.length;
    route.type = attrs.reject ? RTN_UNREACHABLE : RTN_UNICAST;
    if (attrs.reject) {
      // needs no device
    } else if (attrs.viaVrfDevice) {
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
      if (vrf.mirror->id != 0 && device != interfaces_.end() && !device->second.interface->wanted.up) {
        return;
      }
      route.gateway = lowest->address;
      route.device = device != interfaces_.end() ? device->second.id : MirrorRoute::ANY_DEVICE;
    }
    routes.push_back(route);
  }

  DeviceNames &devices_;
  std::deque<MirrorVrf> &vrfs_; // a deque, so that what is known of its elements stays where it is
  const uint16_t mplsDevice_;
  const uint16_t rfc5549Device_;
  std::map<uint32_t, Vrf> known_;
  std::map<uint32_t, Device> interfaces_;
  std::vector<uint32_t> gateways_; // of the switch's ports, which are every VRF's
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

std::string kernelLabel(std::string_view device, std::string_view suffix) {
  std::string label(device);
  if (!suffix.empty() && device.size() < LABEL_MAX) {
    label.append(1, ':').append(suffix).resize(std::min(label.size(), LABEL_MAX));
  }
  return label;
}

std::string readDump(std::string_view dump, DeviceNames &devices, std::deque<MirrorVrf> &vrfs) {
  DumpReader reader(devices, vrfs);
  while (!dump.empty()) {
    const size_t end = std::min(dump.find('\n'), dump.size());
    const std::string_view line = dump.substr(0, end);
    if (!reader.line(line)) {
      return "\"" + std::string(line) + "\": " + reader.error();
    }
    dump.remove_prefix(std::min(end + 1, dump.size()));
  }
  reader.finish();
  for (MirrorVrf &vrf : vrfs) {
    std::sort(vrf.routes.begin(), vrf.routes.end(),
              [](const MirrorRoute &a, const MirrorRoute &b) { return a.key() < b.key(); });
    for (MirrorInterface &interface : vrf.interfaces) {
      if (!interface.wanted.up) {
        interface.wanted.addresses.clear();
      }
      std::sort(interface.wanted.addresses.begin(), interface.wanted.addresses.end());
    }
  }
  return {};
}
