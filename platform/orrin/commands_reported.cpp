// What agents reported, brought back: these commands stand in the state folder only. Used by orrin's one thread.

#include "commands.h"

#include "arp.h"
#include "kernel_routes.h"

namespace orrin {

namespace {

// reported ...

bool takeNeighbour(Switch &sw, Words &words, Vrf *&vrf, uint32_t &address, std::string &out) {
  return onlyRestoring(sw, out) && takeKnownVrf(sw, words, vrf, out) && takeAddress(words, address, out);
}

bool reportedArp(Switch &sw, Words &words, std::string &out) {
  Vrf *vrf = nullptr;
  uint32_t address = 0;
  ArpEntry entry;
  entry.origin = ArpEntry::KERNEL;
  if (!takeNeighbour(sw, words, vrf, address, out) || !takeKeyword(words, "mac", out) ||
      !takeMac(words, entry.mac, out) || !takeKeyword(words, "interface", out) ||
      !takeNumber(words, "interface", entry.interface, out) || !takeKeyword(words, "ifindex", out) ||
      !takeNumber(words, "ifindex", entry.index, out) || !takeKeyword(words, "state", out) ||
      !takeNumber(words, "state", entry.state, out) || !takeEnd(words, out)) {
    return false;
  }
  vrf->arp[address] = entry;
  return true;
}

bool reportedArpGone(Switch &sw, Words &words, std::string &out) {
  Vrf *vrf = nullptr;
  uint32_t address = 0;
  if (!takeNeighbour(sw, words, vrf, address, out) || !takeEnd(words, out)) {
    return false;
  }
  forgetNeighbour(*vrf, address);
  return true;
}

bool takeRoute(Switch &sw, Words &words, Vrf *&vrf, KernelRoute &route, std::string &out) {
  return onlyRestoring(sw, out) && takeKnownVrf(sw, words, vrf, out) && parseKernelRoute(words, route, out);
}

bool reportedRoute(Switch &sw, Words &words, std::string &out) {
  Vrf *vrf = nullptr;
  KernelRoute route;
  if (!takeRoute(sw, words, vrf, route, out)) {
    return false;
  }
  restoreKernelRoute(sw, *vrf, std::move(route));
  return true;
}

bool reportedRouteGone(Switch &sw, Words &words, std::string &out) {
  Vrf *vrf = nullptr;
  KernelRoute route;
  if (!takeRoute(sw, words, vrf, route, out)) {
    return false;
  }
  forgetKernelRoute(sw, *vrf, route.key);
  return true;
}

constexpr Command COMMANDS[] = {
    {"reported arp", reportedArp, false},
    {"reported arp-gone", reportedArpGone, false},
    {"reported route", reportedRoute, false},
    {"reported route-gone", reportedRouteGone, false},
};

} // namespace

std::span<const Command> reportedCommands() {
  return COMMANDS;
}

} // namespace orrin
