// The comparison of neighbours: what the agent reported of the kernel's ARP cache against the cache. What the switch has
// learned itself, and the gateways of its ports, no agent reports; and the kernel ages what it was told of them.
#include "orrinctl_mirror.h"
#include "orrinctl_netlink.h"

#include <arpa/inet.h>
#include <cstdio>
#include <linux/neighbour.h>
#include <net/if.h>

namespace {

constexpr uint16_t VALID_STATES = NUD_REACHABLE | NUD_STALE | NUD_DELAY | NUD_PROBE | NUD_PERMANENT;
constexpr std::array<uint8_t, 6> BROADCAST = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};

using Neighbours = std::map<uint32_t, MirrorNeighbour>;

void addNeighbour(const NetlinkMessage &message, Neighbours &neighbours) {
  const auto header = headerOf<ndmsg>(message);
  if (message.type != RTM_NEWNEIGH || !header || header->ndm_family != AF_INET ||
      (header->ndm_state & VALID_STATES) == 0) {
    return;
  }
  uint32_t address = 0;
  MirrorNeighbour neighbour;
  neighbour.index = static_cast<uint32_t>(header->ndm_ifindex);
  for (const NetlinkAttr &attr : attrsBehind<ndmsg>(message)) {
    if (attr.type == NDA_DST) {
      address = ntohl(numberOf(attr));
    } else if (attr.type == NDA_LLADDR && attr.data.size() == neighbour.mac.size()) {
      std::memcpy(neighbour.mac.data(), attr.data.data(), neighbour.mac.size());
    }
  }
  if (neighbour.mac != BROADCAST) {
    neighbours[address] = neighbour;
  }
}

std::string readKernelNeighbours(Neighbours &neighbours) {
  ndmsg header{};
  header.ndm_family = AF_INET;
  KernelDump dump;
  const std::string error = dump.run(
      RTM_GETNEIGH, header, [&] { neighbours.clear(); },
      [&](const NetlinkMessage &message) { addNeighbour(message, neighbours); });
  return error.empty() ? error : "neighbours: " + error;
}

std::string textOf(const MirrorNeighbour &neighbour) {
  std::string text;
  std::array<char, IF_NAMESIZE> name{};
  orrin::appendMac(text, neighbour.mac);
  const bool known = if_indextoname(neighbour.index, name.data()) != nullptr;
  return text.append(" dev ").append(known ? name.data() : "if" + std::to_string(neighbour.index));
}

} // namespace

std::string compareNeighbours(const MirrorVrf &vrf, DeviceNames & /*devices*/, bool print, MirrorCounts &counts) {
  Neighbours kernel;
  if (std::string error = readKernelNeighbours(kernel); !error.empty()) {
    return error;
  }
  for (const uint32_t address : vrf.notReported) {
    kernel.erase(address);
  }
  counts = {vrf.neighbours.size(), vrf.neighbours.size(), kernel.size(), 0};
  const auto report = [&](char sign, uint32_t address, const std::string &what) {
    ++counts.different;
    if (print) {
      std::string text;
      orrin::appendAddress(text, address);
      std::printf("%c vrf %u neighbour %s %s\n", sign, vrf.id, text.c_str(), what.c_str());
    }
  };
  for (const auto &[address, neighbour] : vrf.neighbours) {
    const auto have = kernel.find(address);
    if (have == kernel.end()) {
      report('-', address, textOf(neighbour));
    } else if (have->second != neighbour) {
      report('~', address, "switch " + textOf(neighbour) + ", kernel " + textOf(have->second));
    }
  }
  for (const auto &[address, neighbour] : kernel) {
    if (!vrf.neighbours.contains(address)) {
      report('+', address, textOf(neighbour));
    }
  }
  return {};
}
