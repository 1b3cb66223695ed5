// Commands about VRFs, the system, events and keep-alives. Used by orrin's one thread.

#include "commands.h"

#include "arp.h"
#include "clients.h"
#include "interfaces.h"
#include "restart_record.h"
#include "router_events.h"
#include "routes.h"

#include <climits>

namespace orrin {

namespace {

constexpr Range PERIODS = {1, 86400};            // seconds
constexpr Range KERNEL_NUMBERS = {0, INT32_MAX}; // settings of the kernel, and what the agent prints as int

// vrf ...

// A path, or the name of one that the system's tools keep.
bool takeNamespace(Words &words, std::string &netns, std::string &out) {
  return words.peek().starts_with('/') ? takeName(words, "netns", PATH_MAX - 1, netns, out)
                                       : takeFileName(words, "netns", NAME_MAX, netns, out);
}

bool vrfAdd(Switch &sw, Words &words, std::string &out) {
  Vrf vrf;
  if (!takeNumber(words, "vrf", vrf.id, out, KERNEL_NUMBERS) ||
      !takeFileName(words, "name", VRF_NAME_MAX, vrf.name, out)) {
    return false;
  }
  vrf.interfaceName = "vrf" + std::to_string(vrf.id);
  if (words.takeIf("interface") && !takeFileName(words, "interface", VRF_INTERFACE_NAME_MAX, vrf.interfaceName, out)) {
    return false;
  }
  if (words.takeIf("netns") && !takeNamespace(words, vrf.netns, out)) {
    return false;
  }
  if (!takeEnd(words, out)) {
    return false;
  }
  for (const auto &[id, other] : sw.vrfs) {
    if (id == vrf.id || other.name == vrf.name || (!vrf.netns.empty() && other.netns == vrf.netns)) {
      return refuse(out, "there is a VRF " + std::to_string(id) + " \"" + other.name + "\"" +
                             (other.netns.empty() ? "" : " netns " + other.netns) + " already");
    }
  }
  if (!sw.restoring && !createRestartRecord(vrf.id, out)) {
    return false;
  }
  sw.page.vrf(vrf);
  openResolutions(vrf);
  sw.vrfs[vrf.id] = std::move(vrf);
  return true;
}

bool vrfDel(Switch &sw, Words &words, std::string &out) {
  Vrf *vrf = nullptr;
  if (!takeVrf(sw, words, vrf, out) || !takeEnd(words, out)) {
    return false;
  }
  forgetClients(sw, vrf->id);
  removeAllRoutes(sw, *vrf);
  for (const auto &[number, interface] : sw.interfaces) {
    if (interface.vrf == vrf->id) {
      sw.page.interfaceGone(number);
    }
  }
  std::erase_if(sw.interfaces, [vrf](const auto &entry) { return entry.second.vrf == vrf->id; });
  sw.page.vrfGone(vrf->id);
  if (!sw.restoring) {
    removeRestartRecord(vrf->id);
  }
  sw.vrfs.erase(vrf->id);
  return true;
}

bool setRouting(Switch &sw, Words &words, Vrf &vrf, std::string &out) {
  bool on = false;
  if (!takeEither(words, "on", "off", on, out) || !takeEnd(words, out)) {
    return false;
  }
  vrf.routing = on;
  sendRouterEvent(sw, vrf.id, routerEvent(on ? TARNR_RTR_ENABLE : TARNR_RTR_DISABLE));
  followRouting(sw, vrf);
  if (on) {
    sendRouterEvent(sw, vrf.id, routerEvent(TARNR_RTR_STARTUP_DONE));
  }
  return true;
}

bool setIcmpRatelimit(Switch &sw, Words &words, Vrf &vrf, std::string &out) {
  uint32_t burst = 0;
  uint32_t interval = 0;
  if (!takeNumber(words, "burst", burst, out, KERNEL_NUMBERS) ||
      !takeNumber(words, "interval", interval, out, KERNEL_NUMBERS) || !takeEnd(words, out)) {
    return false;
  }
  vrf.icmpBurst = burst;
  vrf.icmpInterval = interval;
  sendRouterEvent(sw, vrf.id, configEvent(ConfigChange::RATE_LIMIT));
  return true;
}

bool setIcmpEchoReply(Switch &sw, Words &words, Vrf &vrf, std::string &out) {
  uint32_t mode = 0;
  if (!takeNumber(words, "mode", mode, out, {0, 1}) || !takeEnd(words, out)) {
    return false;
  }
  vrf.icmpEchoReply = mode;
  sendRouterEvent(sw, vrf.id, configEvent(ConfigChange::ECHO_REPLY));
  return true;
}

bool setKernelRoutesMax(Words &words, Vrf &vrf, std::string &out) {
  uint32_t count = 0;
  if (!takeNumber(words, "kernel-routes", count, out) || !takeEnd(words, out)) {
    return false;
  }
  vrf.kernelRoutesMax = count;
  return true;
}

bool vrfSet(Switch &sw, Words &words, std::string &out) {
  Vrf *vrf = nullptr;
  if (!takeVrf(sw, words, vrf, out)) {
    return false;
  }
  const std::string_view word = words.take();
  if (word == "routing") {
    return setRouting(sw, words, *vrf, out);
  }
  if (word == "icmp-ratelimit") {
    return setIcmpRatelimit(sw, words, *vrf, out);
  }
  if (word == "icmp-echo-reply") {
    return setIcmpEchoReply(sw, words, *vrf, out);
  }
  if (word == "kernel-routes") {
    return setKernelRoutesMax(words, *vrf, out);
  }
  return refuse(out, notTheWord(word, "routing, icmp-ratelimit, icmp-echo-reply or kernel-routes"));
}

bool systemReady(Switch &sw, Words &words, std::string &out) {
  bool ready = false;
  if (!takeEither(words, "ready", "not-ready", ready, out) || !takeEnd(words, out)) {
    return false;
  }
  sw.systemReady = ready;
  sw.page.systemReady(ready);
  return true;
}

bool gateway(Switch &sw, Words &words, std::string &out) {
  bool service = false;
  std::optional<uint32_t> address;
  if (!takeEither(words, "service-port", "network-port", service, out)) {
    return false;
  }
  if (!words.takeIf("none") && !takeHostAddress(words, address.emplace(), out)) {
    return false;
  }
  if (!takeEnd(words, out)) {
    return false;
  }
  (service ? sw.gateways.servicePort : sw.gateways.networkPort) = address;
  sw.page.gateways(sw.gateways);
  return true;
}

// keepalive ...

bool keepalivePeriod(Switch &sw, Words &words, std::string &out) {
  uint32_t seconds = 0;
  if (!takeNumber(words, "period", seconds, out, PERIODS) || !takeEnd(words, out)) {
    return false;
  }
  sw.keepalivePeriod = seconds;
  sw.keepaliveDueMs = 0; // at once, then in the new rhythm
  return true;
}

bool setKeepaliveHold(Switch &sw, Words &words, bool held, std::string &out) {
  Vrf *vrf = nullptr;
  const bool one = words.takeIf("vrf");
  if ((one && !takeVrf(sw, words, vrf, out)) || !takeEnd(words, out)) {
    return false;
  }
  (one ? vrf->keepaliveHeld : sw.keepaliveHeld) = held;
  return true;
}

bool keepaliveHold(Switch &sw, Words &words, std::string &out) {
  return setKeepaliveHold(sw, words, true, out);
}

bool keepaliveRelease(Switch &sw, Words &words, std::string &out) {
  return setKeepaliveHold(sw, words, false, out);
}

// An event of any type, for its own sake.
bool eventSend(Switch &sw, Words &words, std::string &out) {
  Vrf *vrf = nullptr;
  uint32_t type = 0;
  RppiEventMsg event{};
  if (!takeKeyword(words, "vrf", out) || !takeVrf(sw, words, vrf, out) || !takeKeyword(words, "type", out) ||
      !takeNumber(words, "type", type, out, {0, UINT16_MAX}) ||
      (words.takeIf("interface") && !takeNumber(words, "interface", event.intIfNum, out)) ||
      (words.takeIf("cfg") && !takeNumber(words, "cfg", event.cfgEvent, out)) || !takeEnd(words, out)) {
    return false;
  }
  event.msgType = static_cast<uint16_t>(type);
  sendRouterEvent(sw, vrf->id, event);
  return true;
}

bool eventTimeout(Switch &sw, Words &words, std::string &out) {
  uint32_t seconds = 0;
  if (!takeNumber(words, "timeout", seconds, out, PERIODS) || !takeEnd(words, out)) {
    return false;
  }
  sw.ackTimeout = seconds;
  return true;
}

constexpr Command COMMANDS[] = {
    {"vrf add", vrfAdd, true},
    {"vrf del", vrfDel, true},
    {"vrf set", vrfSet, true},
    {"system", systemReady, true},
    {"gateway", gateway, true},
    {"keepalive period", keepalivePeriod, true},
    {"event send", eventSend, false},
    {"event timeout", eventTimeout, true},
    {"keepalive hold", keepaliveHold, false},
    {"keepalive release", keepaliveRelease, false},
};

} // namespace

std::span<const Command> switchCommands() {
  return COMMANDS;
}

} // namespace orrin
