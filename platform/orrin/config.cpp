// The switch's configuration and the agents' reports printed as commands, for `dump`. Used by orrin's one thread.

#include "arp.h"
#include "clients.h"
#include "commands.h"
#include "ipsla.h"
#include "kernel_routes.h"
#include "router_events.h"
#include "routes.h"

#include <algorithm>

namespace orrin {

namespace {

void appendGateway(std::string_view port, const std::optional<uint32_t> &address, std::string &out) {
  if (address) {
    appendAddress(out.append("gateway ").append(port).append(1, ' '), *address);
    out += '\n';
  }
}

void appendVrf(const Vrf &vrf, std::string &out) {
  appendNumber(out += "vrf add ", vrf.id);
  out.append(1, ' ').append(vrf.name).append(" interface ").append(vrf.interfaceName);
  if (!vrf.netns.empty()) {
    out.append(" netns ").append(vrf.netns);
  }
  out += '\n';
  if (vrf.routing) {
    appendNumber(out += "vrf set ", vrf.id);
    out += " routing on\n";
  }
  const Vrf fresh;
  if (vrf.icmpBurst != fresh.icmpBurst || vrf.icmpInterval != fresh.icmpInterval) {
    appendNumber(out += "vrf set ", vrf.id);
    appendNumber(out += " icmp-ratelimit ", vrf.icmpBurst);
    appendNumber(out += ' ', vrf.icmpInterval);
    out += '\n';
  }
  if (vrf.icmpEchoReply != fresh.icmpEchoReply) {
    appendNumber(out += "vrf set ", vrf.id);
    appendNumber(out += " icmp-echo-reply ", vrf.icmpEchoReply);
    out += '\n';
  }
  if (vrf.kernelRoutesMax != fresh.kernelRoutesMax) {
    appendNumber(out += "vrf set ", vrf.id);
    appendNumber(out += " kernel-routes ", vrf.kernelRoutesMax);
    out += '\n';
  }
}

void appendSettings(const Interface &interface, std::string &out) {
  appendNumber(out += "interface set ", interface.number);
  appendMac(out += " mac ", interface.mac);
  if (interface.primary) {
    appendAddress(out += " address ", interface.primary->address);
    appendNumber(out += '/', interface.primary->length);
  }
  appendNumber(out += " mtu ", interface.mtu);
  appendNumber(out += " bandwidth ", interface.bandwidth);
  appendNumber(out += " unreachables ", interface.unreachables);
  appendNumber(out += " redirects ", interface.redirects);
  out += '\n';
}

void appendAddresses(const Interface &interface, std::string &out) {
  for (const InterfaceAddress &each : interface.secondaries) {
    appendNumber(out += "interface secondary ", interface.number);
    appendAddress(out += " add ", each.address);
    appendNumber(out += '/', each.length);
    appendNumber(out += " index ", each.index);
    out += '\n';
  }
  for (const VrrpGroup &group : interface.vrrp) {
    for (size_t slot = 0; slot < group.addresses.size(); ++slot) {
      if (group.addresses[slot] != 0) {
        appendNumber(out += "interface vrrp ", interface.number);
        appendNumber(out += " label ", group.label);
        appendAddress(out += " add ", group.addresses[slot]);
        appendNumber(out += " slot ", slot);
        out += '\n';
      }
    }
  }
}

void appendSwitchCommand(std::string_view command, uint32_t interface, std::string &out) {
  appendNumber(out.append(command), interface);
  out += '\n';
}

void appendInterface(const Interface &interface, std::string &out) {
  appendNumber(out += "interface add ", interface.number);
  appendNumber(out += " vrf ", interface.vrf);
  out.append(" name ").append(interface.name).append(" device ").append(interface.device);
  if (interface.type != Interface::ORDINARY) {
    appendNumber(out += " type ", interface.type);
  }
  if (interface.index != 0) {
    appendNumber(out += " index ", interface.index);
  }
  out += '\n';
  appendSettings(interface, out);
  appendAddresses(interface, out);
}

// Of one VRF or of all (null).
void appendConfig(Switch &sw, const Vrf *only, std::string &out) {
  const auto wanted = [only](uint32_t vrf) { return only == nullptr || only->id == vrf; };
  if (only == nullptr) {
    if (!sw.systemReady) {
      out += "system not-ready\n";
    }
    appendNumber(out += "keepalive period ", sw.keepalivePeriod);
    appendNumber(out += "\nevent timeout ", sw.ackTimeout);
    out += '\n';
  }
  appendGateway("service-port", sw.gateways.servicePort, out); // for every VRF
  appendGateway("network-port", sw.gateways.networkPort, out);
  for (const auto &[id, vrf] : sw.vrfs) {
    if (wanted(id)) {
      appendVrf(vrf, out);
    }
  }
  for (const auto &[number, interface] : sw.interfaces) {
    if (wanted(interface.vrf)) {
      appendInterface(interface, out);
      if (interface.wanted) {
        appendSwitchCommand("interface enable ", number, out);
      }
      if (interface.hostMode) {
        appendSwitchCommand("interface host-mode ", number, out);
      }
    }
  }
  for (const auto &[id, vrf] : sw.vrfs) {
    if (wanted(id)) {
      appendLearned(vrf, out);
      appendOperations(vrf, out);
      appendRoutes(sw, vrf, true, out);
    }
  }
}

void appendReported(Switch &sw, const Vrf *only, std::string &out) {
  for (const auto &[id, vrf] : sw.vrfs) {
    if (only == nullptr || only->id == id) {
      appendReportedNeighbours(vrf, out);
      appendKernelRoutes(sw, vrf, out);
    }
  }
}

} // namespace

bool dumpCommand(Switch &sw, Words &words, std::string &out) {
  const Vrf *only = nullptr;
  const bool reported = words.takeIf("reported");
  if (!takeVrfFilter(sw, words, only, out) || !takeEnd(words, out)) {
    return false;
  }
  if (reported) {
    appendReported(sw, only, out);
  } else {
    appendConfig(sw, only, out);
  }
  return true;
}

} // namespace orrin
