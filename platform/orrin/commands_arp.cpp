// Commands about neighbours, and, in the state folder, what agents reported of theirs. Used by orrin's one thread.

#include "commands.h"

#include "arp.h"

namespace orrin {

namespace {

// arp ...

bool arpLearn(Switch &sw, Words &words, std::string &out) {
  Vrf *vrf = nullptr;
  Interface *interface = nullptr;
  uint32_t address = 0;
  Mac mac{};
  if (!takeKnownVrf(sw, words, vrf, out) || !takeHostAddress(words, address, out) || !takeKeyword(words, "mac", out) ||
      !takeHostMac(words, mac, out) || !takeKeyword(words, "interface", out) ||
      !takeInterface(sw, words, interface, out) || !takeEnd(words, out)) {
    return false;
  }
  out = learnNeighbour(sw, *vrf, address, mac, *interface);
  return out.empty();
}

bool arpDel(Switch &sw, Words &words, std::string &out) {
  Vrf *vrf = nullptr;
  uint32_t address = 0;
  if (!takeKnownVrf(sw, words, vrf, out) || !takeAddress(words, address, out) || !takeEnd(words, out)) {
    return false;
  }
  return forgetNeighbour(*vrf, address) || refuse(out, "VRF " + std::to_string(vrf->id) + " has no such neighbour");
}

constexpr Command COMMANDS[] = {
    {"arp learn", arpLearn, true},
    {"arp del", arpDel, true},
};

} // namespace

std::span<const Command> arpCommands() {
  return COMMANDS;
}

} // namespace orrin
