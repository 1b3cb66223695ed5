// Commands about router interfaces. Used by orrin's one thread.

#include "commands.h"

#include "arp.h"
#include "interfaces.h"
#include "kernel_routes.h"
#include "router_events.h"
#include "routes.h"

#include <algorithm>

namespace orrin {

namespace {

constexpr Range NUMBERS = {1, INTERFACE_NUMBER_MAX};
constexpr Range KERNEL_INDICES = {1, INT32_MAX};
constexpr Range MTUS = {68, UINT16_MAX}; // as IPv4 needs and has room for
constexpr Range MODES = {0, 1};
constexpr Range LABELS = {0, INT32_MAX}; // the agent prints it as int
constexpr Range VRRP_LABELS = {1, UINT8_MAX};
constexpr Range VRRP_SLOTS = {0, std::tuple_size_v<decltype(VrrpGroup::addresses)> - 1};

bool takeInterfaceOptions(Words &words, Interface &interface, std::string &out) {
  while (!words.atEnd()) {
    const std::string_view word = words.take();
    if (word != "type" && word != "index") {
      return refuse(out, "\"" + std::string(word) + "\" is no word of an interface");
    }
    const bool good = word == "type" ? takeNumber(words, word, interface.type, out)
                                     : takeNumber(words, word, interface.index, out, KERNEL_INDICES);
    if (!good) {
      return false;
    }
  }
  return true;
}

// Locally administered, and another one for each interface.
Mac defaultMac(uint32_t number) {
  return {2,
          0,
          static_cast<uint8_t>(number >> 24),
          static_cast<uint8_t>(number >> 16),
          static_cast<uint8_t>(number >> 8),
          static_cast<uint8_t>(number)};
}

// No two have the same number or name, nor the same device in a VRF.
bool isNew(const Switch &sw, const Interface &interface, std::string &out) {
  for (const auto &[number, other] : sw.interfaces) {
    const bool sameDevice = other.vrf == interface.vrf && other.device == interface.device;
    if (number == interface.number || other.name == interface.name || sameDevice) {
      return refuse(out, "there is an interface " + std::to_string(number) + " \"" + other.name + "\" with device \"" +
                             other.device + "\" already");
    }
  }
  return true;
}

bool interfaceAdd(Switch &sw, Words &words, std::string &out) {
  Interface interface;
  Vrf *vrf = nullptr;
  if (!takeNumber(words, "interface", interface.number, out, NUMBERS) || !takeKeyword(words, "vrf", out) ||
      !takeVrf(sw, words, vrf, out) || !takeKeyword(words, "name", out) ||
      !takeName(words, "name", INTERFACE_NAME_MAX, interface.name, out) || !takeKeyword(words, "device", out) ||
      !takeFileName(words, "device", INTERFACE_NAME_MAX, interface.device, out) ||
      !takeInterfaceOptions(words, interface, out)) {
    return false;
  }
  interface.vrf = vrf->id;
  if (!isNew(sw, interface, out)) {
    return false;
  }
  interface.mac = defaultMac(interface.number);
  sw.page.interface(interface);
  sendRouterEvent(sw, vrf->id, routerEvent(TARNR_RTR_INTF_CREATE, interface.number));
  sw.interfaces[interface.number] = std::move(interface);
  return true;
}

bool interfaceDel(Switch &sw, Words &words, std::string &out) {
  Interface *interface = nullptr;
  if (!takeInterface(sw, words, interface, out) || !takeEnd(words, out)) {
    return false;
  }
  const uint32_t number = interface->number;
  if (interface->state != Interface::DOWN) {
    return refuse(out, "interface " + std::to_string(number) + " is " + stateName(interface->state) + ", not down");
  }
  if (const size_t routes = routesThrough(sw, number); routes != 0) {
    return refuse(out, std::to_string(routes) + " routes leave through interface " + std::to_string(number));
  }
  sendRouterEvent(sw, interface->vrf, routerEvent(TARNR_RTR_INTF_DELETE, number));
  forgetNeighboursOn(sw, *interface);
  dropKernelRoutes(sw, *interface);
  sw.page.interfaceGone(number);
  sw.interfaces.erase(number);
  return true;
}

// What can be set, and how the clients hear of it.
struct Setting {
  std::string_view word;
  uint32_t Interface::*field;
  Range range;
  uint16_t event;
  ConfigChange change; // with a configuration event
};

constexpr Setting SETTINGS[] = {
    {"mtu", &Interface::mtu, MTUS, TARNR_RTR_INTF_MTU, {}},
    {"bandwidth", &Interface::bandwidth, {}, TARNR_RTR_INTF_BW_CHANGE, {}},
    {"unreachables", &Interface::unreachables, MODES, TARNR_RTR_INTF_CFG_CHANGE, ConfigChange::UNREACHABLES},
    {"redirects", &Interface::redirects, MODES, TARNR_RTR_INTF_CFG_CHANGE, ConfigChange::REDIRECTS},
};

bool takeSetting(Words &words, Interface &interface, std::string &out) {
  const std::string_view word = words.take();
  if (word == "mac") {
    return takeHostMac(words, interface.mac, out);
  }
  if (word == "no-address") {
    interface.primary.reset();
    return true;
  }
  if (word == "address") {
    InterfaceAddress address;
    const bool good = takeInterfaceAddress(words, word, address.address, address.length, out);
    interface.primary = good ? std::optional(address) : interface.primary;
    return good;
  }
  for (const Setting &setting : SETTINGS) {
    if (word == setting.word) {
      return takeNumber(words, word, interface.*setting.field, out, setting.range);
    }
  }
  return refuse(out, notTheWord(word, "a setting of an interface"));
}

bool overlap(const InterfaceAddress &one, const InterfaceAddress &other) {
  return ((one.address ^ other.address) & prefixMask(std::min(one.length, other.length))) == 0;
}

// An interface has an address once, and the subnets of a VRF's interfaces do not overlap.
bool mayHave(const Switch &sw, const Interface &interface, const InterfaceAddress &address, std::string &out) {
  for (const auto &[number, other] : sw.interfaces) {
    const bool own = number == interface.number;
    const Interface &holder = own ? interface : other;
    const auto clashes = [&](const InterfaceAddress &held) {
      return own ? held.address == address.address : overlap(held, address);
    };
    if (holder.vrf == interface.vrf && ((holder.primary && clashes(*holder.primary)) ||
                                        std::any_of(holder.secondaries.begin(), holder.secondaries.end(), clashes))) {
      return refuse(out, "interface " + std::to_string(number) +
                             (own ? " has that address already" : " is in that subnet already"));
    }
  }
  return true;
}

bool samePrimary(const Interface &one, const Interface &other) {
  return one.primary.has_value() == other.primary.has_value() &&
         (!one.primary || one.primary->order() == other.primary->order());
}

bool interfaceSet(Switch &sw, Words &words, std::string &out) {
  Interface *interface = nullptr;
  if (!takeInterface(sw, words, interface, out)) {
    return false;
  }
  const Interface before = *interface;
  Interface wanted = before;
  do {
    if (!takeSetting(words, wanted, out)) {
      return false;
    }
  } while (!words.atEnd());
  if (wanted.primary && !samePrimary(before, wanted)) {
    Interface others = wanted;
    others.primary.reset();
    if (!mayHave(sw, others, *wanted.primary, out)) {
      return false;
    }
  }
  *interface = wanted;
  for (const Setting &setting : SETTINGS) {
    if (before.*setting.field != wanted.*setting.field) {
      RppiEventMsg event = routerEvent(setting.event, wanted.number);
      event.cfgEvent = static_cast<uint32_t>(setting.change);
      sendInterfaceEvent(sw, wanted, event);
    }
  }
  if (before.mac != wanted.mac || !samePrimary(before, wanted)) {
    bounceInterface(sw, *interface);
  }
  return true;
}

uint32_t freeIndex(const Interface &interface) {
  uint32_t index = 1;
  const auto taken = [&](const InterfaceAddress &each) { return each.index == index; };
  while (std::any_of(interface.secondaries.begin(), interface.secondaries.end(), taken)) {
    ++index;
  }
  return index;
}

bool addSecondary(Switch &sw, Interface &interface, InterfaceAddress address, bool indexed, std::string &out) {
  auto &all = interface.secondaries;
  address.index = indexed ? address.index : freeIndex(interface);
  if (!mayHave(sw, interface, address, out)) {
    return false;
  }
  if (std::any_of(all.begin(), all.end(), [&](const auto &each) { return each.index == address.index; })) {
    return refuse(out, "there is an index " + std::to_string(address.index) + " already");
  }
  all.insert(std::find_if(all.begin(), all.end(), [&](const auto &each) { return each.order() > address.order(); }),
             address);
  sendInterfaceEvent(sw, interface, addressEvent(interface.number, address, true));
  return true;
}

bool removeSecondary(Switch &sw, Interface &interface, const InterfaceAddress &address, std::string &out) {
  auto &all = interface.secondaries;
  const auto found =
      std::find_if(all.begin(), all.end(), [&](const auto &each) { return each.order() == address.order(); });
  if (found == all.end()) {
    return refuse(out, "interface " + std::to_string(interface.number) + " has no such secondary address");
  }
  const InterfaceAddress removed = *found;
  all.erase(found);
  sendInterfaceEvent(sw, interface, addressEvent(interface.number, removed, false));
  return true;
}

bool interfaceSecondary(Switch &sw, Words &words, std::string &out) {
  Interface *interface = nullptr;
  InterfaceAddress address;
  bool add = false;
  if (!takeInterface(sw, words, interface, out) || !takeEither(words, "add", "del", add, out) ||
      !takeInterfaceAddress(words, "secondary", address.address, address.length, out)) {
    return false;
  }
  const bool indexed = add && words.takeIf("index");
  if ((indexed && !takeNumber(words, "index", address.index, out, LABELS)) || !takeEnd(words, out)) {
    return false;
  }
  return add ? addSecondary(sw, *interface, address, indexed, out) : removeSecondary(sw, *interface, address, out);
}

bool holds(const VrrpGroup &group, uint32_t address) {
  return std::find(group.addresses.begin(), group.addresses.end(), address) != group.addresses.end();
}

// "<a> [slot <n>]" once or more, each into its slot of `group`; without a slot into the first that is free in `taken` too.
bool takeVrrpAddresses(Words &words, const Interface &interface, const VrrpGroup &taken, VrrpGroup &group,
                       std::string &out) {
  do {
    const std::string_view word = words.peek();
    uint32_t address = 0;
    if (!takeHostAddress(words, address, out)) {
      return false;
    }
    if (holds(group, address) || std::any_of(interface.vrrp.begin(), interface.vrrp.end(),
                                             [address](const VrrpGroup &each) { return holds(each, address); })) {
      return refuse(out, "interface " + std::to_string(interface.number) + " has that VRRP address already");
    }
    uint32_t slot = 0;
    if (words.takeIf("slot")) {
      if (!takeNumber(words, "slot", slot, out, VRRP_SLOTS)) {
        return false;
      }
    } else {
      while (slot < group.addresses.size() && (taken.addresses[slot] != 0 || group.addresses[slot] != 0)) {
        ++slot;
      }
    }
    if (slot >= group.addresses.size() || taken.addresses[slot] != 0 || group.addresses[slot] != 0) {
      return refuse(out, "there is no free slot for \"" + std::string(word) + "\"");
    }
    group.addresses[slot] = address;
  } while (!words.atEnd());
  return true;
}

bool addVrrp(Switch &sw, Interface &interface, Words &words, VrrpGroup &held, std::string &out) {
  VrrpGroup added{held.label, {}};
  if (!takeVrrpAddresses(words, interface, held, added, out)) {
    return false;
  }
  for (size_t slot = 0; slot < added.addresses.size(); ++slot) {
    held.addresses[slot] |= added.addresses[slot]; // one of the two is 0
  }
  sendInterfaceEvent(sw, interface, vrrpEvent(interface.number, added, true));
  return true;
}

bool removeVrrp(Switch &sw, Interface &interface, Words &words, VrrpGroup &held, std::string &out) {
  VrrpGroup removed{held.label, {}};
  VrrpGroup left = held;
  do {
    const std::string_view word = words.take();
    uint32_t address = 0;
    const bool good = parseAddress(word, address) && address != 0;
    const auto slot = std::find(left.addresses.begin(), left.addresses.end(), address);
    if (!good || slot == left.addresses.end()) {
      return refuse(out, notTheWord(word, "a VRRP address of the label"));
    }
    removed.addresses[static_cast<size_t>(slot - left.addresses.begin())] = address;
    *slot = 0;
  } while (!words.atEnd());
  held = left;
  sendInterfaceEvent(sw, interface, vrrpEvent(interface.number, removed, false));
  return true;
}

bool interfaceVrrp(Switch &sw, Words &words, std::string &out) {
  Interface *interface = nullptr;
  uint32_t label = 0;
  bool add = false;
  if (!takeInterface(sw, words, interface, out) || !takeKeyword(words, "label", out) ||
      !takeNumber(words, "label", label, out, VRRP_LABELS) || !takeEither(words, "add", "del", add, out)) {
    return false;
  }
  auto &groups = interface->vrrp;
  auto group = std::find_if(groups.begin(), groups.end(), [label](const auto &each) { return each.label == label; });
  if (group == groups.end()) {
    group = groups.insert(groups.end(), VrrpGroup{label, {}});
  }
  const bool done = add ? addVrrp(sw, *interface, words, *group, out) : removeVrrp(sw, *interface, words, *group, out);
  std::erase_if(groups, [](const VrrpGroup &each) { return each.addresses == VrrpGroup{}.addresses; });
  return done;
}

bool interfaceEnable(Switch &sw, Words &words, std::string &out) {
  Interface *interface = nullptr;
  if (!takeInterface(sw, words, interface, out) || !takeEnd(words, out)) {
    return false;
  }
  enableInterface(sw, *interface);
  return true;
}

bool interfaceDisable(Switch &sw, Words &words, std::string &out) {
  Interface *interface = nullptr;
  if (!takeInterface(sw, words, interface, out) || !takeEnd(words, out)) {
    return false;
  }
  if (!interface->wanted) {
    return refuse(out, "interface " + std::to_string(interface->number) + " is not enabled");
  }
  disableInterface(sw, *interface);
  return true;
}

bool interfaceHostMode(Switch &sw, Words &words, std::string &out) {
  Interface *interface = nullptr;
  if (!takeInterface(sw, words, interface, out) || !takeEnd(words, out)) {
    return false;
  }
  interface->hostMode = interface->state != Interface::DOWN;
  if (interface->hostMode) {
    dropSilentKernelRoutes(sw, *interface); // the agent takes the device down and up
  }
  sendInterfaceEvent(sw, *interface, routerEvent(TARNR_RTR_INTF_HOST_MODE, interface->number));
  return true;
}

constexpr Command COMMANDS[] = {
    {"interface add", interfaceAdd, true},         {"interface del", interfaceDel, true},
    {"interface set", interfaceSet, true},         {"interface secondary", interfaceSecondary, true},
    {"interface vrrp", interfaceVrrp, true},       {"interface enable", interfaceEnable, true},
    {"interface disable", interfaceDisable, true}, {"interface host-mode", interfaceHostMode, true},
};

} // namespace

std::span<const Command> interfaceCommands() {
  return COMMANDS;
}

} // namespace orrin
