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

bool takeInterfaceOptions(Words &words, Interface &interface, std::string &out) {
  while (!words.atEnd()) {
    const std::string_view word = words.take();
    uint32_t *field = word == "type" ? &interface.type : word == "index" ? &interface.index : nullptr;
    if (field == nullptr) {
      return refuse(out, "\"" + std::string(word) + "\" is no word of an interface");
    }
    if (!takeNumber(words, word, *field, out)) {
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

bool interfaceAdd(Switch &sw, Words &words, std::string &out) {
  Interface interface;
  Vrf *vrf = nullptr;
  if (!takeNumber(words, "interface", interface.number, out) || !takeKeyword(words, "vrf", out) ||
      !takeVrf(sw, words, vrf, out) || !takeKeyword(words, "name", out) ||
      !takeName(words, "name", INTERFACE_NAME_MAX, interface.name, out) || !takeKeyword(words, "device", out) ||
      !takeName(words, "device", INTERFACE_NAME_MAX, interface.device, out) ||
      !takeInterfaceOptions(words, interface, out)) {
    return false;
  }
  if (interface.number == 0) {
    return refuse(out, "interface: 0 means none");
  }
  if (sw.interfaces.contains(interface.number)) {
    return refuse(out, "there is an interface " + std::to_string(interface.number) + " already");
  }
  interface.vrf = vrf->id;
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
  uint16_t event;
  ConfigChange change; // with a configuration event
};

constexpr Setting SETTINGS[] = {
    {"mtu", &Interface::mtu, TARNR_RTR_INTF_MTU, {}},
    {"bandwidth", &Interface::bandwidth, TARNR_RTR_INTF_BW_CHANGE, {}},
    {"unreachables", &Interface::unreachables, TARNR_RTR_INTF_CFG_CHANGE, ConfigChange::UNREACHABLES},
    {"redirects", &Interface::redirects, TARNR_RTR_INTF_CFG_CHANGE, ConfigChange::REDIRECTS},
};

bool takeSetting(Words &words, Interface &interface, std::string &out) {
  const std::string_view word = words.take();
  if (word == "mac") {
    return takeMac(words, interface.mac, out);
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
      return takeNumber(words, word, interface.*setting.field, out);
    }
  }
  return refuse(out, notTheWord(word, "a setting of an interface"));
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
  for (const InterfaceAddress &each : all) {
    if (each.order() == address.order() || each.index == address.index) {
      return refuse(out, "the address or its index is there already");
    }
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
  if ((indexed && !takeNumber(words, "index", address.index, out)) || !takeEnd(words, out)) {
    return false;
  }
  return add ? addSecondary(sw, *interface, address, indexed, out) : removeSecondary(sw, *interface, address, out);
}

// "<a> [slot <n>]" once or more, each into its slot of `group`; without a slot into the first that is free in `taken` too.
bool takeVrrpAddresses(Words &words, const VrrpGroup &taken, VrrpGroup &group, std::string &out) {
  do {
    const std::string_view word = words.take();
    uint32_t address = 0;
    if (!parseAddress(word, address) || address == 0) {
      return refuse(out, notTheWord(word, "an address"));
    }
    uint32_t slot = 0;
    if (words.takeIf("slot")) {
      if (!takeNumber(words, "slot", slot, out)) {
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
  if (!takeVrrpAddresses(words, held, added, out)) {
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
      !takeNumber(words, "label", label, out) || !takeEither(words, "add", "del", add, out)) {
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
