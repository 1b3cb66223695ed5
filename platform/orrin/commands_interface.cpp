// Commands about router interfaces. Used by orrin's one thread.

#include "commands.h"

#include "routes.h"

namespace orrin {

namespace {

// interface ...

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
  sw.page.interface(interface);
  sw.interfaces[interface.number] = std::move(interface);
  return true;
}

bool interfaceDel(Switch &sw, Words &words, std::string &out) {
  uint32_t number = 0;
  if (!takeNumber(words, "interface", number, out) || !takeEnd(words, out)) {
    return false;
  }
  if (findInterface(sw, number) == nullptr) {
    return refuse(out, "there is no interface " + std::to_string(number));
  }
  if (const size_t routes = routesThrough(sw, number); routes != 0) {
    return refuse(out, std::to_string(routes) + " routes leave through interface " + std::to_string(number));
  }
  sw.page.interfaceGone(number);
  sw.interfaces.erase(number);
  return true;
}

constexpr Command COMMANDS[] = {
    {"interface add", interfaceAdd, true},
    {"interface del", interfaceDel, true},
};

} // namespace

std::span<const Command> interfaceCommands() {
  return COMMANDS;
}

} // namespace orrin
