// The comparison of interfaces: links, IPv4 addresses and membership of the all-routers group. One that is not up only has to be
// down and without addresses.
#include "orrinctl_diff.h"
#include "orrinctl_netlink.h"

#include <arpa/inet.h>
#include <compare>
#include <fstream>
#include <net/if.h>
#include <sstream>

namespace orrin {

namespace {

constexpr const char *MEMBERSHIPS = "/proc/thread-self/net/igmp";
constexpr uint32_t ALL_ROUTERS = 0xE0000002; // 224.0.0.2
constexpr size_t LABEL_MAX = 15;

// What a row is about, in the order in which differences are printed; addresses are rows of their own.
struct InterfaceKey {
  uint32_t number = 0;
  enum Aspect : uint8_t { STATE, DEVICE, MAC, MTU, MEMBERSHIP, ADDRESS } aspect = STATE;
  uint32_t address = 0;
  uint8_t length = 0;
  std::string label;

  auto operator<=>(const InterfaceKey &) const = default;
};

using InterfaceRows = Comparison::Rows<InterfaceKey>;

struct Address {
  uint32_t address = 0;
  uint8_t length = 0;
  std::string label;
};

// A kernel device, as it is or as it should be.
struct Device {
  std::string name;
  bool up = false;
  Mac mac{};
  uint32_t mtu = 0;
  bool allRouters = false;
  std::vector<Address> addresses;
};

using Devices = std::map<uint32_t, Device>; // by index

std::string textOf(const NetlinkAttr &attr) {
  const auto *text = reinterpret_cast<const char *>(attr.data.data());
  return {text, strnlen(text, attr.data.size())};
}

void addLink(const NetlinkMessage &message, Devices &devices) {
  const auto header = headerOf<ifinfomsg>(message);
  if (message.type != RTM_NEWLINK || !header) {
    return;
  }
  Device device;
  device.up = (header->ifi_flags & IFF_UP) != 0;
  for (const NetlinkAttr &attr : attrsBehind<ifinfomsg>(message)) {
    if (attr.type == IFLA_IFNAME) {
      device.name = textOf(attr);
    } else if (attr.type == IFLA_MTU) {
      device.mtu = numberOf(attr);
    } else if (attr.type == IFLA_ADDRESS && attr.data.size() == device.mac.size()) {
      std::memcpy(device.mac.data(), attr.data.data(), device.mac.size());
    }
  }
  devices[static_cast<uint32_t>(header->ifi_index)] = std::move(device);
}

void addAddress(const NetlinkMessage &message, Devices &devices) {
  const auto header = headerOf<ifaddrmsg>(message);
  if (message.type != RTM_NEWADDR || !header || header->ifa_family != AF_INET) {
    return;
  }
  Address address;
  address.length = header->ifa_prefixlen;
  for (const NetlinkAttr &attr : attrsBehind<ifaddrmsg>(message)) {
    if (attr.type == IFA_LOCAL) {
      address.address = ntohl(numberOf(attr));
    } else if (attr.type == IFA_LABEL) {
      address.label = textOf(attr);
    }
  }
  if (const auto device = devices.find(header->ifa_index); device != devices.end()) {
    device->second.addresses.push_back(std::move(address));
  }
}

// A line for each device, "<index>\t<name>: <count> ...", and below it one for each group, the address in the kernel's
// byte order as hexadecimal digits.
std::string readMemberships(Devices &devices) {
  std::ifstream file(MEMBERSHIPS);
  if (!file) {
    return systemError(std::string("cannot read ") + MEMBERSHIPS);
  }
  uint32_t index = 0;
  std::string line;
  std::getline(file, line); // the heading
  while (std::getline(file, line)) {
    std::istringstream words(line);
    if (!line.starts_with('\t')) {
      words >> index;
      continue;
    }
    uint32_t group = 0;
    words >> std::hex >> group;
    if (const auto device = devices.find(index); ntohl(group) == ALL_ROUTERS && device != devices.end()) {
      device->second.allRouters = true;
    }
  }
  return {};
}

std::string readKernelDevices(Devices &devices) {
  KernelDump dump;
  std::string error = dump.run(
      RTM_GETLINK, ifinfomsg{}, [&] { devices.clear(); },
      [&](const NetlinkMessage &message) { addLink(message, devices); });
  if (!error.empty()) {
    return "links: " + error;
  }
  ifaddrmsg wanted{};
  wanted.ifa_family = AF_INET;
  const auto withoutAddresses = [&] {
    for (auto &[index, device] : devices) {
      device.addresses.clear();
    }
  };
  error = dump.run(RTM_GETADDR, wanted, withoutAddresses,
                   [&](const NetlinkMessage &message) { addAddress(message, devices); });
  if (!error.empty()) {
    return "addresses: " + error;
  }
  return readMemberships(devices);
}

// The label of an address as the kernel has it: at most 15 characters, and the device's name where the cut would lose the colon.
std::string kernelLabel(const std::string &device, const std::string &suffix) {
  return device.size() < LABEL_MAX ? (device + ":" + suffix).substr(0, LABEL_MAX) : device;
}

Device wantedDevice(const Interface &interface) {
  Device device;
  if (interface.state != Interface::UP) {
    return device;
  }
  device = {interface.device, true, interface.mac, interface.mtu, true, {}};
  if (interface.primary) {
    device.addresses.push_back({interface.primary->address, interface.primary->length, interface.device});
  }
  for (const InterfaceAddress &each : interface.secondaries) {
    device.addresses.push_back({each.address, each.length, kernelLabel(interface.device, std::to_string(each.index))});
  }
  for (const VrrpGroup &group : interface.vrrp) {
    for (size_t slot = 0; slot < group.addresses.size() && interface.type != Interface::LOOPBACK; ++slot) {
      if (group.addresses[slot] != 0) {
        const std::string suffix = std::to_string(group.label) + '_' + std::to_string(slot);
        device.addresses.push_back({group.addresses[slot], 32, kernelLabel(interface.device, suffix)});
      }
    }
  }
  return device;
}

void addRows(const Interface &interface, const Device &device, Comparison &comparison, InterfaceRows &rows) {
  const auto add = [&](InterfaceKey::Aspect aspect, const std::string &way) {
    rows.push_back({{interface.number, aspect, 0, 0, {}}, comparison.wayOf(way)});
  };
  std::string mac;
  appendMac(mac, device.mac);
  add(InterfaceKey::STATE, device.up ? "up" : "down");
  if (interface.state == Interface::UP) {
    add(InterfaceKey::MAC, mac);
    add(InterfaceKey::MTU, std::to_string(device.mtu));
    if (device.allRouters && !interface.hostMode) { // where it depends on what came last
      add(InterfaceKey::MEMBERSHIP, "");
    }
  }
  for (const Address &each : device.addresses) {
    rows.push_back(
        {{interface.number, InterfaceKey::ADDRESS, each.address, each.length, each.label}, comparison.wayOf("")});
  }
}

std::string nameOf(const Interface &interface, const InterfaceKey &key) {
  constexpr const char *ASPECTS[] = {"", " no such device", " mac", " mtu", " membership of 224.0.0.2", " address "};
  std::string name = "interface ";
  appendNumber(name, key.number);
  name.append(1, ' ').append(interface.device).append(ASPECTS[key.aspect]);
  if (key.aspect == InterfaceKey::ADDRESS) {
    appendPrefix(name, {key.address, key.length});
    name.append(" label ").append(key.label);
  }
  return name;
}

} // namespace

std::string compareInterfaces(const Switch &sw, const Vrf &vrf, Comparison &comparison) {
  if (vrf.id == 0) {
    return {}; // the default VRF's devices are the switch's own: nobody mirrors them
  }
  Devices devices;
  if (std::string error = readKernelDevices(devices); !error.empty()) {
    return error;
  }
  InterfaceRows wanted;
  InterfaceRows kernel;
  for (const auto &[number, interface] : sw.interfaces) {
    if (interface.vrf != vrf.id || !hasDevice(interface)) {
      continue;
    }
    const bool up = interface.state == Interface::UP;
    const auto device = std::ranges::find_if(
        devices, [&name = interface.device](const auto &entry) { return entry.second.name == name; });
    ++comparison.onSwitch;
    comparison.wanted += up ? 1 : 0;
    if (device != devices.end()) {
      comparison.inKernel += device->second.up ? 1 : 0;
      addRows(interface, wantedDevice(interface), comparison, wanted);
      addRows(interface, device->second, comparison, kernel);
    } else if (up) {
      wanted.push_back({{number, InterfaceKey::DEVICE, 0, 0, {}}, comparison.wayOf("")});
    }
  }
  comparison.run(wanted, kernel, [&](const InterfaceKey &key) { return nameOf(sw.interfaces.at(key.number), key); });
  return {};
}

} // namespace orrin
