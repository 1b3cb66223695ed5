// The answers of `show`. Used by orrin's one thread.

#include "show.h"
#include "clients.h"
#include "commands.h"
#include "interfaces.h"
#include "report.h"
#include "router_events.h"

#include <algorithm>

namespace orrin {

namespace {

const char *typeName(uint32_t type) {
  switch (type) {
  case Interface::LOOPBACK:
    return "loopback";
  case Interface::TUNNEL:
    return "tunnel";
  default:
    return "ordinary";
  }
}

void showVrfs(Switch &sw, const Wanted &wanted, std::string &out) {
  static constexpr Column COLUMNS[] = {{"vrf", 10},      {"name", 16},          {"interface", 16}, {"routing", 7},
                                       {"routes", 8},    {"kernel-routes", 13}, {"arp", 6},        {"interfaces", 10},
                                       {"keepalive", 9}, {"resolutions", 11},   {"unsent", 6},     {"lost", 6},
                                       {"netns", 0}};
  Report report(out, wanted.json, COLUMNS);
  for (const auto &[id, vrf] : sw.vrfs) {
    if (!wanted.vrf(id)) {
      continue;
    }
    const auto interfaces =
        std::count_if(sw.interfaces.begin(), sw.interfaces.end(),
                      [wantedId = vrf.id](const auto &entry) { return entry.second.vrf == wantedId; });
    report.number(id);
    report.text(vrf.name);
    report.text(vrf.interfaceName);
    report.text(vrf.routing ? "on" : "off");
    report.number(vrf.routes.size());
    report.number(vrf.kernelRoutes.size());
    report.number(vrf.arp.size());
    report.signedNumber(interfaces);
    report.text(sw.keepaliveHeld || vrf.keepaliveHeld ? "held" : "sent");
    report.number(vrf.resolutionsMade - vrf.resolutionsLost - vrf.resolutions.size());
    report.number(vrf.resolutions.size());
    report.number(vrf.resolutionsLost);
    report.text(vrf.netns);
  }
  report.finish();
}

std::string textOf(const InterfaceAddress &address) {
  std::string text;
  appendAddress(text, address.address);
  appendNumber(text += '/', address.length);
  return text;
}

// "10.1.2.1/24:1 vrrp 3_0 10.1.1.254", every address beside the primary with its label's number.
std::string moreAddresses(const Interface &interface) {
  std::string text;
  for (const InterfaceAddress &each : interface.secondaries) {
    appendNumber(text += " " + textOf(each) + ":", each.index);
  }
  for (const VrrpGroup &group : interface.vrrp) {
    for (size_t slot = 0; slot < group.addresses.size(); ++slot) {
      if (group.addresses[slot] != 0) {
        appendNumber(text += " vrrp ", group.label);
        appendNumber(text += '_', slot);
        appendAddress(text += ' ', group.addresses[slot]);
      }
    }
  }
  return text.empty() ? text : text.substr(1);
}

void showInterfaces(Switch &sw, const Wanted &wanted, std::string &out) {
  static constexpr Column COLUMNS[] = {
      {"interface", 9},     {"vrf", 10},      {"name", 16},         {"device", 15},
      {"type", 4},          {"kind", 8},      {"index", 5},         {"state", 12},
      {"mac", 17},          {"address", 18},  {"mtu", 5},           {"bandwidth", 10},
      {"unreachables", 12}, {"redirects", 9}, {"ack-timeouts", 12}, {"more-addresses", 0}};
  Report report(out, wanted.json, COLUMNS);
  for (const auto &[number, interface] : sw.interfaces) {
    if (!wanted.vrf(interface.vrf)) {
      continue;
    }
    std::string mac;
    appendMac(mac, interface.mac);
    report.number(number);
    report.number(interface.vrf);
    report.text(interface.name);
    report.text(interface.device);
    report.number(interface.type);
    report.text(typeName(interface.type));
    report.number(interface.index);
    report.text(stateName(interface.state));
    report.text(mac);
    report.text(interface.primary ? textOf(*interface.primary) : std::string());
    report.number(interface.mtu);
    report.number(interface.bandwidth);
    report.number(interface.unreachables);
    report.number(interface.redirects);
    report.number(interface.ackTimeouts);
    report.text(moreAddresses(interface));
  }
  report.finish();
}

// Events that a client has not acknowledged.
void showEvents(Switch &sw, const Wanted &wanted, std::string &out) {
  static constexpr Column COLUMNS[] = {{"client", 6}, {"vrf", 10},      {"sequence", 10},    {"type", 4},
                                       {"event", 16}, {"interface", 9}, {"configuration", 0}};
  Report report(out, wanted.json, COLUMNS);
  for (const auto &[id, client] : sw.clients) {
    for (const RppiEventMsg &event : client.events) {
      if (!wanted.vrf(client.vrf)) {
        break;
      }
      report.number(id);
      report.number(client.vrf);
      report.number(event.eventSeq);
      report.number(event.msgType);
      report.text(eventName(event.msgType));
      report.number(event.intIfNum);
      report.number(event.cfgEvent);
    }
  }
  report.finish();
}

void showClients(Switch &sw, const Wanted &wanted, std::string &out) {
  static constexpr Column COLUMNS[] = {{"client", 6}, {"kind", 12},           {"vrf", 10},    {"name", 16},
                                       {"pid", 8},    {"state", 10},          {"waiting", 8}, {"in-flight", 9},
                                       {"unsent", 6}, {"unacknowledged", 14}, {"socket", 0}};
  Report report(out, wanted.json, COLUMNS);
  for (const auto &[id, client] : sw.clients) {
    if (!wanted.vrf(client.vrf)) {
      continue;
    }
    report.number(id);
    report.text(kindName(client.kind));
    report.number(client.vrf);
    report.text(client.name);
    report.number(client.pid);
    report.text(client.registered ? "registered" : "gone");
    report.number(client.changes.waiting());
    report.number(client.changes.inFlight());
    report.number(client.outbox.size());
    report.number(client.events.size());
    report.text(client.outbox.path());
  }
  report.finish();
}

void showFaults(Switch &sw, const Wanted &wanted, std::string &out) {
  static constexpr Column COLUMNS[] = {{"call", 40}, {"result", 6}, {"delay", 6}, {"drop", 4}, {"times", 0}};
  Report report(out, wanted.json, COLUMNS);
  for (const tarnwire::OpInfo &info : tarnwire::OPS) {
    const std::optional<Fault> &fault = sw.faults.at(info.op);
    if (!fault) {
      continue;
    }
    report.text(info.function);
    const std::string result = fault->result ? std::to_string(*fault->result) : std::string();
    report.custom(result, fault->result ? result : "null");
    report.number(fault->delayMs);
    report.yesNo(fault->drop);
    report.custom(fault->times == 0 ? "always" : std::to_string(fault->times), std::to_string(fault->times));
  }
  report.finish();
}

// A member of the status: a row of two columns in the table, a member of one object in JSON.
class StatusLines {
public:
  StatusLines(std::string &out, bool json) : out_(out), json_(json) { out_ += json_ ? "{" : ""; }
  void finish() { out_ += json_ ? "\n}\n" : ""; }

  void member(std::string_view key, std::string_view table, std::string_view json) {
    if (!json_) {
      out_.append(key);
      if (!table.starts_with('\n')) {
        out_.append(key.size() < WIDTH ? WIDTH - key.size() : 1, ' ');
      }
      out_.append(table).append(1, '\n');
      return;
    }
    out_ += first_ ? "\n" : ",\n";
    first_ = false;
    appendJsonText(out_, key);
    out_.append(":").append(json);
  }
  void text(std::string_view key, std::string_view value) {
    std::string json;
    appendJsonText(json, value);
    member(key, value, json);
  }
  void number(std::string_view key, uint64_t value) { member(key, std::to_string(value), std::to_string(value)); }
  // A whole report under the key.
  template <class Show> void rows(std::string_view key, Show show) {
    std::string rows;
    show(rows);
    rows.pop_back(); // the line end
    member(key, "\n" + rows + "\n", rows);
  }

private:
  static constexpr size_t WIDTH = 18;

  std::string &out_;
  const bool json_;
  bool first_ = true;
};

std::string addressText(const std::optional<uint32_t> &address) {
  std::string text;
  if (address) {
    appendAddress(text, *address);
  }
  return text;
}

void showStatus(Switch &sw, const Wanted &wanted, std::string &out) {
  size_t routes = 0;
  for (const auto &[id, vrf] : sw.vrfs) {
    routes += vrf.routes.size();
  }
  StatusLines lines(out, wanted.json);
  lines.text("system", sw.systemReady ? "ready" : "not-ready");
  lines.text("service-gateway", addressText(sw.gateways.servicePort));
  lines.text("network-gateway", addressText(sw.gateways.networkPort));
  lines.number("routes", routes);
  lines.number("interfaces", sw.interfaces.size());
  lines.number("keepalive-period", sw.keepalivePeriod);
  lines.text("keepalive", sw.keepaliveHeld ? "held" : "sent");
  lines.text("state-folder", sw.journal.folder());
  lines.text("state", sw.journal.trouble().empty() ? std::string_view("kept") : std::string_view(sw.journal.trouble()));
  lines.rows("vrfs", [&](std::string &rows) { showVrfs(sw, wanted, rows); });
  lines.rows("clients", [&](std::string &rows) { showClients(sw, wanted, rows); });
  lines.rows("faults", [&](std::string &rows) { showFaults(sw, wanted, rows); });
  lines.finish();
}

struct Subject {
  std::string_view word;
  void (*show)(Switch &sw, const Wanted &wanted, std::string &out);
};

constexpr Subject SUBJECTS[] = {
    {"vrfs", showVrfs},       {"interfaces", showInterfaces}, {"routes", showRoutes}, {"arp", showArp},
    {"clients", showClients}, {"faults", showFaults},         {"events", showEvents}, {"status", showStatus},
};

} // namespace

bool showCommand(Switch &sw, Words &words, std::string &out) {
  const std::string_view word = words.take();
  const auto subject =
      std::find_if(std::begin(SUBJECTS), std::end(SUBJECTS), [word](const Subject &each) { return each.word == word; });
  if (subject == std::end(SUBJECTS)) {
    out = "show: vrfs, interfaces, routes, arp, clients, events, faults or status";
    out += word.empty() ? "" : ", not \"" + std::string(word) + "\"";
    return false;
  }
  Wanted wanted;
  if (!takeVrfFilter(sw, words, wanted.only, out)) {
    return false;
  }
  wanted.json = words.takeIf("json");
  if (!takeEnd(words, out)) {
    return false;
  }
  subject->show(sw, wanted, out);
  return true;
}

} // namespace orrin
