// The comparison of neighbours: what the agent reported of the kernel's ARP cache against the cache. What the switch has
// learned itself, and the gateways of its ports, no agent reports; and the kernel ages what it was told of them.
#include "orrinctl_diff.h"
#include "orrinctl_netlink.h"

#include <arpa/inet.h>
#include <linux/neighbour.h>

namespace orrin {

namespace {

constexpr uint16_t VALID_STATES = NUD_REACHABLE | NUD_STALE | NUD_DELAY | NUD_PROBE | NUD_PERMANENT;
constexpr Mac BROADCAST = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};

using NeighbourRows = Comparison::Rows<uint32_t>; // by address

uint32_t wayOf(const Mac &mac, uint32_t index, Comparison &comparison) {
  std::string text;
  appendMac(text, mac);
  return comparison.wayOf(text.append(" dev ").append(comparison.deviceOf(index)));
}

bool isReported(const Switch &sw, const Vrf &vrf, uint32_t address) {
  const auto known = vrf.arp.find(address);
  return address != sw.gateways.servicePort && address != sw.gateways.networkPort &&
         (known == vrf.arp.end() || known->second.origin == ArpEntry::KERNEL);
}

void addNeighbour(const NetlinkMessage &message, Comparison &comparison, NeighbourRows &rows) {
  const auto header = headerOf<ndmsg>(message);
  if (message.type != RTM_NEWNEIGH || !header || header->ndm_family != AF_INET ||
      (header->ndm_state & VALID_STATES) == 0) {
    return;
  }
  uint32_t address = 0;
  Mac mac{};
  for (const NetlinkAttr &attr : attrsBehind<ndmsg>(message)) {
    if (attr.type == NDA_DST) {
      address = ntohl(numberOf(attr));
    } else if (attr.type == NDA_LLADDR && attr.data.size() == mac.size()) {
      std::memcpy(mac.data(), attr.data.data(), mac.size());
    }
  }
  if (mac != BROADCAST) {
    rows.push_back({address, wayOf(mac, static_cast<uint32_t>(header->ndm_ifindex), comparison)});
  }
}

} // namespace

std::string compareNeighbours(const Switch &sw, const Vrf &vrf, Comparison &comparison) {
  ndmsg header{};
  header.ndm_family = AF_INET;
  KernelDump dump;
  NeighbourRows kernel;
  const std::string error = dump.run(
      RTM_GETNEIGH, header, [&] { kernel.clear(); },
      [&](const NetlinkMessage &message) { addNeighbour(message, comparison, kernel); });
  if (!error.empty()) {
    return "neighbours: " + error;
  }
  std::erase_if(kernel, [&](const auto &row) { return !isReported(sw, vrf, row.key); });
  NeighbourRows reported;
  for (const auto &[address, entry] : vrf.arp) {
    if (entry.origin == ArpEntry::KERNEL) {
      reported.push_back({address, wayOf(entry.mac, entry.index, comparison)});
    }
  }
  comparison.onSwitch = comparison.wanted = reported.size();
  comparison.inKernel = kernel.size();
  const auto nameOf = [](uint32_t address) {
    std::string name = "neighbour ";
    appendAddress(name, address);
    return name;
  };
  comparison.run(reported, kernel, nameOf, true); // the switch holds one of an address, the kernel one a device
  return {};
}

} // namespace orrin
