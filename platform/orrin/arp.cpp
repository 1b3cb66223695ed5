// The ARP caches and the resolutions to the agents. Used by orrin's one thread. A resolution is not kept for an agent that is
// not there: its kernel asks for a neighbour before it uses it.

#include "arp.h"

#include "arp_resolution.h"
#include "netns.h"
#include "tarnapi.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace orrin {

namespace {

constexpr size_t NEIGHBOURS_MAX = 131072;
constexpr size_t RESOLUTIONS_MAX = 4096; // waiting for an agent that does not read

bool isOwn(const Interface &interface, uint32_t address) {
  const auto same = [address](const InterfaceAddress &each) { return each.address == address; };
  return (interface.primary && same(*interface.primary)) ||
         std::any_of(interface.secondaries.begin(), interface.secondaries.end(), same) ||
         std::any_of(interface.vrrp.begin(), interface.vrrp.end(), [address](const VrrpGroup &group) {
           return std::find(group.addresses.begin(), group.addresses.end(), address) != group.addresses.end();
         });
}

bool isOnLink(const Interface &interface, uint32_t address) {
  const auto covers = [address](const InterfaceAddress &each) {
    return ((each.address ^ address) & prefixMask(each.length)) == 0;
  };
  return (interface.primary && covers(*interface.primary)) ||
         std::any_of(interface.secondaries.begin(), interface.secondaries.end(), covers);
}

// Is there an interface of the VRF of which this is true of the address?
bool anyInterface(const Switch &sw, const Vrf &vrf, bool (*is)(const Interface &, uint32_t), uint32_t address) {
  return std::any_of(sw.interfaces.begin(), sw.interfaces.end(),
                     [&](const auto &entry) { return entry.second.vrf == vrf.id && is(entry.second, address); });
}

// The kernel's index where it is known: the number might be another device's index.
uint32_t indexForAgent(const Vrf &vrf, const Interface &interface) {
  const uint32_t index = interface.index != 0 ? interface.index : deviceIndexIn(vrf, interface.device);
  return index != 0 ? index : interface.number;
}

void sendResolution(Switch &sw, Vrf &vrf, uint32_t address, const Mac &mac, const Interface &interface) {
  ++vrf.resolutionsMade;
  if (vrf.resolutions.size() >= RESOLUTIONS_MAX) {
    ++vrf.resolutionsLost;
    return;
  }
  ArpResolutionMsg message{};
  message.msgType = ARP_RESOLUTION;
  message.msgLen = ARP_RESOLUTION_LENGTH;
  message.ipAddr = address;
  std::memcpy(message.macAddr, mac.data(), mac.size());
  message.ifIndex = indexForAgent(vrf, interface);
  message.vrId = vrf.id;
  vrf.resolutions.add({reinterpret_cast<const char *>(&message), sizeof message});
  flushResolutions(sw, vrf);
}

void appendNeighbour(const Vrf &vrf, uint32_t address, const ArpEntry &entry, std::string &out) {
  appendNumber(out += " vrf ", vrf.id);
  appendAddress(out += ' ', address);
  appendMac(out += " mac ", entry.mac);
  appendNumber(out += " interface ", entry.interface);
}

std::string reportedLine(const Vrf &vrf, uint32_t address, const ArpEntry &entry) {
  std::string line = "reported arp";
  appendNeighbour(vrf, address, entry, line);
  appendNumber(line += " ifindex ", entry.index);
  appendNumber(line += " state ", entry.state);
  return line;
}

} // namespace

std::string learnNeighbour(Switch &sw, Vrf &vrf, uint32_t address, const Mac &mac, const Interface &interface) {
  if (interface.vrf != vrf.id) {
    return "interface " + std::to_string(interface.number) + " is not in VRF " + std::to_string(vrf.id);
  }
  if (vrf.arp.size() >= NEIGHBOURS_MAX && !vrf.arp.contains(address)) {
    return "the ARP cache is full";
  }
  vrf.arp[address] = {ArpEntry::SWITCH, mac, interface.number, 0, 0};
  if (!sw.restoring) {
    sendResolution(sw, vrf, address, mac, interface);
  }
  return {};
}

bool forgetNeighbour(Vrf &vrf, uint32_t address) {
  return vrf.arp.erase(address) != 0;
}

void forgetNeighboursOn(Switch &sw, const Interface &interface) {
  std::erase_if(sw.vrfs.at(interface.vrf).arp,
                [&interface](const auto &entry) { return entry.second.interface == interface.number; });
}

int32_t addKernelNeighbour(Switch &sw, Vrf &vrf, uint32_t address, const Mac &mac, uint32_t index, uint32_t state) {
  if (anyInterface(sw, vrf, isOwn, address)) {
    return TARN_LOCAL_ADDR;
  }
  const auto held = vrf.arp.find(address);
  if (held != vrf.arp.end() && held->second.origin == ArpEntry::SWITCH) {
    return TARN_EXISTS;
  }
  if (held != vrf.arp.end() && held->second.mac == mac && held->second.index == index) {
    held->second.state = state; // the kernel announces each change of it
    return TARN_EXISTS;
  }
  if (held == vrf.arp.end() && vrf.arp.size() >= NEIGHBOURS_MAX) {
    return TARN_FULL;
  }
  ArpEntry &entry = vrf.arp[address];
  entry = {ArpEntry::KERNEL, mac, interfaceOfIndex(sw, vrf, index), index, state};
  sw.journal.append(reportedLine(vrf, address, entry));
  return TARN_OK;
}

int32_t deleteKernelNeighbour(Switch &sw, Vrf &vrf, uint32_t address, uint32_t index) {
  const auto held = vrf.arp.find(address);
  if (held == vrf.arp.end()) {
    return TARN_NOT_FOUND;
  }
  if (held->second.origin != ArpEntry::KERNEL) {
    return TARN_NOT_YET;
  }
  if (held->second.index != index) {
    return TARN_NOT_FOUND;
  }
  vrf.arp.erase(held);
  std::string line = "reported arp-gone";
  appendNumber(line += " vrf ", vrf.id);
  appendAddress(line += ' ', address);
  sw.journal.append(line);
  return TARN_OK;
}

// A kernel entry is no answer: the kernel asks because it doubts that very entry, and would never find out that the
// neighbour has gone.
int32_t resolveNeighbour(const Switch &sw, const Vrf &vrf, uint32_t address, Mac &mac) {
  const auto held = vrf.arp.find(address);
  if (held != vrf.arp.end() && held->second.origin == ArpEntry::SWITCH) {
    mac = held->second.mac;
    return TARN_OK;
  }
  return anyInterface(sw, vrf, isOnLink, address) ? TARN_NOT_YET : TARN_NOT_FOUND;
}

uint32_t interfaceOfIndex(const Switch &sw, const Vrf &vrf, uint32_t index) {
  const auto find = [&](auto is) -> uint32_t {
    const auto found = std::find_if(sw.interfaces.begin(), sw.interfaces.end(),
                                    [&](const auto &entry) { return entry.second.vrf == vrf.id && is(entry.second); });
    return found == sw.interfaces.end() ? 0 : found->first;
  };
  if (index == 0) {
    return 0;
  }
  if (const uint32_t number = find([index](const Interface &each) { return each.index == index; })) {
    return number;
  }
  const std::string device = deviceNameIn(vrf, index);
  return device.empty() ? 0 : find([&device](const Interface &each) { return each.device == device; });
}

void openResolutions(Vrf &vrf) {
  char path[48];
  std::snprintf(path, sizeof path, "/tmp/mirel-%02u/arp-socket", vrf.id);
  vrf.resolutions.open(path, Watched::ARP_SOCKET, vrf.id);
}

void flushResolutions(Switch &sw, Vrf &vrf) {
  // The second try is for an agent that has taken another's place: the first has found out that the other is gone.
  for (int attempt = 0; attempt < 2; ++attempt) {
    vrf.resolutions.flush(sw.poller, nowMs());
    if (vrf.resolutions.retryAtMs() == 0) {
      return;
    }
  }
  vrf.resolutionsLost += vrf.resolutions.size();
  vrf.resolutions.clear();
}

void appendLearned(const Vrf &vrf, std::string &out) {
  for (const auto &[address, entry] : vrf.arp) {
    if (entry.origin == ArpEntry::SWITCH) {
      appendNeighbour(vrf, address, entry, out += "arp learn");
      out += '\n';
    }
  }
}

void appendReportedNeighbours(const Vrf &vrf, std::string &out) {
  for (const auto &[address, entry] : vrf.arp) {
    if (entry.origin == ArpEntry::KERNEL) {
      out.append(reportedLine(vrf, address, entry)).append(1, '\n');
    }
  }
}

} // namespace orrin
