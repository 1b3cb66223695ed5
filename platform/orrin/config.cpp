// The switch's configuration printed as commands: for `dump`, and for the state folder. Used by orrin's one thread.

#include "clients.h"
#include "commands.h"
#include "routes.h"

namespace orrin {

namespace {

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
}

void appendClient(const Client &client, std::string &out) {
  out.append(clientLine(client)).append(1, '\n');
  const auto withdrawn = client.changes.withdrawn();
  for (auto place = withdrawn.first(); const auto *entry = withdrawn.at(place); place = withdrawn.next(place)) {
    appendNumber(out += "client withdrawn ", client.id);
    appendPrefix(out += ' ', entry->prefix());
    out += '\n';
  }
  if (!client.registered) {
    appendNumber(out += "client drop ", client.id);
    out += '\n';
  }
}

} // namespace

void appendConfig(Switch &sw, const Vrf *only, bool runs, std::string &out) {
  const auto wanted = [only](uint32_t vrf) { return only == nullptr || only->id == vrf; };
  if (only == nullptr) {
    if (!sw.systemReady) {
      out += "system not-ready\n";
    }
    appendNumber(out += "keepalive period ", sw.keepalivePeriod);
    out += '\n';
  }
  for (const auto &[id, vrf] : sw.vrfs) {
    if (wanted(id)) {
      appendVrf(vrf, out);
    }
  }
  for (const auto &[number, interface] : sw.interfaces) {
    if (wanted(interface.vrf)) {
      appendInterface(interface, out);
    }
  }
  for (const auto &[id, vrf] : sw.vrfs) {
    if (wanted(id)) {
      appendRoutes(sw, vrf, runs, out);
    }
  }
}

bool dumpCommand(Switch &sw, Words &words, std::string &out) {
  const Vrf *only = nullptr;
  if (!takeVrfFilter(sw, words, only, out) || !takeEnd(words, out)) {
    return false;
  }
  appendConfig(sw, only, false, out);
  return true;
}

bool writeState(Switch &sw, std::string &error) {
  std::string text;
  appendConfig(sw, nullptr, true, text);
  for (const auto &[id, client] : sw.clients) {
    appendClient(client, text);
    sw.page.beat();
  }
  appendNumber(text += "client next ", sw.nextClientId);
  text += '\n';
  return sw.journal.rewrite(text, error);
}

} // namespace orrin
