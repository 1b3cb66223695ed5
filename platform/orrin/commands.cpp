// The commands and what they do to the switch. Used by orrin's one thread.

#include "commands.h"

#include "clients.h"
#include "restart_record.h"
#include "routes.h"
#include "tarnapi.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>

namespace orrin {

namespace {

constexpr uint32_t LONGEST_PERIOD = 86400;  // seconds
constexpr uint32_t LONGEST_DELAY = 3600000; // milliseconds

bool refuse(std::string &out, std::string text) {
  out = std::move(text);
  return false;
}

std::string noSuchWord(std::string_view word, std::string_view wanted) {
  std::string text(wanted);
  return word.empty() ? text + " missing" : text + " expected, not \"" + std::string(word) + "\"";
}

// One of two words: true for the first.
bool takeEither(Words &words, std::string_view yes, std::string_view no, bool &value, std::string &out) {
  const std::string_view word = words.take();
  if (word != yes && word != no) {
    return refuse(out, noSuchWord(word, std::string(yes) + " or " + std::string(no)));
  }
  value = word == yes;
  return true;
}

// vrf ...

bool vrfAdd(Switch &sw, Words &words, std::string &out) {
  Vrf vrf;
  if (!takeNumber(words, "vrf", vrf.id, out) || !takeName(words, "name", VRF_NAME_MAX, vrf.name, out)) {
    return false;
  }
  vrf.interfaceName = "vrf" + std::to_string(vrf.id);
  if (words.takeIf("interface") && !takeName(words, "interface", VRF_INTERFACE_NAME_MAX, vrf.interfaceName, out)) {
    return false;
  }
  if (words.takeIf("netns") && !takeName(words, "netns", PATH_MAX, vrf.netns, out)) {
    return false;
  }
  if (!takeEnd(words, out)) {
    return false;
  }
  for (const auto &[id, other] : sw.vrfs) {
    if (id == vrf.id || other.name == vrf.name) {
      return refuse(out, "there is a VRF " + std::to_string(id) + " \"" + other.name + "\" already");
    }
  }
  std::string error;
  if (!createRestartRecord(vrf.id, error)) {
    return refuse(out, error);
  }
  sw.page.vrf(vrf);
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
  removeRestartRecord(vrf->id);
  sw.vrfs.erase(vrf->id);
  return true;
}

bool vrfSet(Switch &sw, Words &words, std::string &out) {
  Vrf *vrf = nullptr;
  bool on = false;
  if (!takeVrf(sw, words, vrf, out) || !takeKeyword(words, "routing", out) ||
      !takeEither(words, "on", "off", on, out) || !takeEnd(words, out)) {
    return false;
  }
  vrf->routing = on;
  return true;
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

// route and routes ...

bool editOne(Switch &sw, Words &words, RouteEdit edit, std::string &out) {
  Route route;
  if (!parseRoute(words, route, out)) {
    return false;
  }
  out = editRoutes(sw, edit, route.vrf, route.prefix, 1, route.attrs);
  return out.empty();
}

bool editMany(Switch &sw, Words &words, RouteEdit edit, std::string &out) {
  Route route;
  uint32_t count = 0;
  if (!takeKeyword(words, "vrf", out) || !takeNumber(words, "vrf", route.vrf, out) ||
      !takePrefix(words, route.prefix, out) || !takeKeyword(words, "count", out) ||
      !takeNumber(words, "count", count, out)) {
    return false;
  }
  const bool good = edit == RouteEdit::REMOVE ? takeEnd(words, out) : parseRouteAttrs(words, route.attrs, out);
  if (!good) {
    return false;
  }
  out = editRoutes(sw, edit, route.vrf, route.prefix, count, route.attrs);
  return out.empty();
}

bool routeAdd(Switch &sw, Words &words, std::string &out) {
  return editOne(sw, words, RouteEdit::ADD, out);
}

bool routeModify(Switch &sw, Words &words, std::string &out) {
  return editOne(sw, words, RouteEdit::MODIFY, out);
}

bool routeDel(Switch &sw, Words &words, std::string &out) {
  Route route;
  if (!takeKeyword(words, "vrf", out) || !takeNumber(words, "vrf", route.vrf, out) ||
      !takePrefix(words, route.prefix, out) || !takeEnd(words, out)) {
    return false;
  }
  out = editRoutes(sw, RouteEdit::REMOVE, route.vrf, route.prefix, 1, {});
  return out.empty();
}

bool routesAdd(Switch &sw, Words &words, std::string &out) {
  return editMany(sw, words, RouteEdit::ADD, out);
}

bool routesModify(Switch &sw, Words &words, std::string &out) {
  return editMany(sw, words, RouteEdit::MODIFY, out);
}

bool routesDel(Switch &sw, Words &words, std::string &out) {
  return editMany(sw, words, RouteEdit::REMOVE, out);
}

// keepalive ...

bool keepalivePeriod(Switch &sw, Words &words, std::string &out) {
  uint32_t seconds = 0;
  if (!takeNumber(words, "period", seconds, out) || !takeEnd(words, out)) {
    return false;
  }
  if (seconds == 0 || seconds > LONGEST_PERIOD) {
    return refuse(out, "period: 1 to " + std::to_string(LONGEST_PERIOD) + " seconds");
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

// fault ...

bool takeCall(Words &words, tarnwire::Op &op, std::string &out) {
  const std::string_view word = words.take();
  const std::optional<tarnwire::Op> named = opNamed(word);
  if (!named) {
    return refuse(out, word.empty() ? "call missing" : "\"" + std::string(word) + "\" is no call of the platform");
  }
  op = *named;
  return true;
}

bool takeResult(Words &words, Fault &fault, std::string &out) {
  std::string_view word = words.take();
  const bool negative = word.starts_with('-');
  uint32_t number = 0;
  if (!parseNumber(word.substr(negative ? 1 : 0), number) || number > INT32_MAX) {
    return refuse(out, noSuchWord(word, "result: a number"));
  }
  const auto value = static_cast<int32_t>(number);
  fault.result = negative ? -value : value;
  return true;
}

bool takeFaultOption(Words &words, Fault &fault, std::string &out) {
  const std::string_view word = words.take();
  if (word == "result") {
    return takeResult(words, fault, out);
  }
  if (word == "delay" || word == "times") {
    uint32_t &field = word == "delay" ? fault.delayMs : fault.times;
    if (!takeNumber(words, word, field, out)) {
      return false;
    }
    return (field != 0 && fault.delayMs <= LONGEST_DELAY) || refuse(out, std::string(word) + ": out of range");
  }
  if (word == "drop") {
    fault.drop = true;
  } else if (word == "once" || word == "always") {
    fault.times = word == "once" ? 1 : 0;
  } else {
    return refuse(out, "\"" + std::string(word) + "\" is no word of a fault");
  }
  return true;
}

bool faultSet(Switch &sw, Words &words, std::string &out) {
  tarnwire::Op op{};
  Fault fault;
  if (!takeCall(words, op, out)) {
    return false;
  }
  while (!words.atEnd()) {
    if (!takeFaultOption(words, fault, out)) {
      return false;
    }
  }
  if (!fault.result && fault.delayMs == 0 && !fault.drop) {
    fault.result = TARN_FAILURE;
  }
  sw.faults.set(op, fault);
  sw.page.fault(op, true);
  return true;
}

bool faultClear(Switch &sw, Words &words, std::string &out) {
  tarnwire::Op only{};
  const bool all = words.atEnd();
  if (!all && (!takeCall(words, only, out) || !takeEnd(words, out))) {
    return false;
  }
  for (const tarnwire::OpInfo &info : tarnwire::OPS) {
    if (all || info.op == only) {
      sw.faults.clear(info.op);
      sw.page.fault(info.op, false);
    }
  }
  return true;
}

// client ...

bool clientDrop(Switch &sw, Words &words, std::string &out) {
  uint32_t id = 0;
  if (!takeNumber(words, "client", id, out) || !takeEnd(words, out)) {
    return false;
  }
  return dropClient(sw, id) || refuse(out, "there is no client " + std::to_string(id));
}

// The four below stand in the state folder only.

bool onlyRestoring(const Switch &sw, std::string &out) {
  return sw.restoring || refuse(out, "only the state folder registers clients");
}

bool restoreAs(Switch &sw, Words &words, ClientKind kind, std::string &out) {
  Client client;
  client.kind = kind;
  Vrf *vrf = nullptr;
  uint32_t started = 0;
  if (!onlyRestoring(sw, out) || !takeNumber(words, "client", client.id, out) || !takeKeyword(words, "vrf", out) ||
      !takeVrf(sw, words, vrf, out) || !takeKeyword(words, "pid", out) || !takeNumber(words, "pid", client.pid, out) ||
      (words.takeIf("process") && !takeNumber(words, "process", client.process, out)) ||
      (words.takeIf("started") && !takeNumber(words, "started", started, out)) || !takeKeyword(words, "name", out) ||
      !takeName(words, "name", tarnwire::NAME_MAX_BYTES, client.name, out) || !takeEnd(words, out)) {
    return false;
  }
  client.vrf = vrf->id;
  client.started = started;
  out = restoreClient(sw, std::move(client));
  return out.empty();
}

bool clientBestRoute(Switch &sw, Words &words, std::string &out) {
  return restoreAs(sw, words, ClientKind::BEST_ROUTE, out);
}

bool clientRouterEvent(Switch &sw, Words &words, std::string &out) {
  return restoreAs(sw, words, ClientKind::ROUTER_EVENT, out);
}

bool takeRestoredClient(Switch &sw, Words &words, Client *&client, std::string &out) {
  uint32_t id = 0;
  if (!onlyRestoring(sw, out) || !takeNumber(words, "client", id, out)) {
    return false;
  }
  const auto entry = sw.clients.find(id);
  client = entry == sw.clients.end() ? nullptr : &entry->second;
  return client != nullptr || refuse(out, "there is no client " + std::to_string(id));
}

bool clientSettled(Switch &sw, Words &words, std::string &out) {
  Client *client = nullptr;
  if (!takeRestoredClient(sw, words, client, out) || !takeEnd(words, out)) {
    return false;
  }
  client->changes.settle();
  return true;
}

bool clientWithdrawn(Switch &sw, Words &words, std::string &out) {
  Client *client = nullptr;
  Prefix prefix;
  if (!takeRestoredClient(sw, words, client, out) || !takePrefix(words, prefix, out) || !takeEnd(words, out)) {
    return false;
  }
  client->changes.note(prefix, ChangeQueue::DELETE);
  return true;
}

bool clientNext(Switch &sw, Words &words, std::string &out) {
  return onlyRestoring(sw, out) && takeNumber(words, "client", sw.nextClientId, out) && takeEnd(words, out);
}

constexpr Command COMMANDS[] = {
    {"vrf add", vrfAdd, true},
    {"vrf del", vrfDel, true},
    {"vrf set", vrfSet, true},
    {"system", systemReady, true},
    {"interface add", interfaceAdd, true},
    {"interface del", interfaceDel, true},
    {"route add", routeAdd, true},
    {"route modify", routeModify, true},
    {"route del", routeDel, true},
    {"routes add", routesAdd, true},
    {"routes modify", routesModify, true},
    {"routes del", routesDel, true},
    {"keepalive period", keepalivePeriod, true},
    {"keepalive hold", keepaliveHold, false},
    {"keepalive release", keepaliveRelease, false},
    {"fault set", faultSet, false},
    {"fault clear", faultClear, false},
    {"client drop", clientDrop, false}, // writes the journal itself
    {"client best-route", clientBestRoute, false},
    {"client router-event", clientRouterEvent, false},
    {"client settled", clientSettled, false},
    {"client withdrawn", clientWithdrawn, false},
    {"client next", clientNext, false},
    {"show", showCommand, false},
    {"dump", dumpCommand, false},
};

// The command that the line begins with; null with the reason when there is none.
const Command *findCommand(Words &words, std::string &out) {
  const std::string first(words.take());
  const std::string both = first + " " + std::string(words.peek());
  bool firstIsKnown = false;
  for (const Command &command : COMMANDS) {
    if (command.name == first) {
      return &command;
    }
    if (command.name == both) {
      words.take();
      return &command;
    }
    firstIsKnown = firstIsKnown || command.name.starts_with(first + " ");
  }
  out = firstIsKnown ? noSuchWord(words.peek(), "a command of \"" + first + "\"") : "\"" + first + "\" is no command";
  return nullptr;
}

} // namespace

bool takeName(Words &words, std::string_view what, size_t longest, std::string &name, std::string &out) {
  const std::string_view word = words.take();
  if (word.empty()) {
    return refuse(out, std::string(what) + " missing");
  }
  if (word.size() > longest) {
    return refuse(out, std::string(what) + ": \"" + std::string(word) + "\" is longer than " + std::to_string(longest));
  }
  name = word;
  return true;
}

bool takeVrf(Switch &sw, Words &words, Vrf *&vrf, std::string &out) {
  uint32_t id = 0;
  if (!takeNumber(words, "vrf", id, out)) {
    return false;
  }
  vrf = findVrf(sw, id);
  return vrf != nullptr || refuse(out, "there is no VRF " + std::to_string(id));
}

bool takeVrfFilter(Switch &sw, Words &words, const Vrf *&only, std::string &out) {
  Vrf *vrf = nullptr;
  if (words.takeIf("vrf") && !takeVrf(sw, words, vrf, out)) {
    return false;
  }
  only = vrf;
  return true;
}

bool runCommand(Switch &sw, std::string_view line, std::string &out) {
  out.clear();
  Words words(line);
  if (words.atEnd()) {
    return true;
  }
  const Command *command = findCommand(words, out);
  if (command == nullptr || !command->handler(sw, words, out)) {
    return false;
  }
  if (command->kept) {
    sw.journal.append(line);
  }
  return true;
}

bool runScript(Switch &sw, const std::string &path, std::string &error) {
  std::ifstream script(path);
  if (!script) {
    const int reason = errno;
    error = path + ": " + std::strerror(reason);
    return false;
  }
  std::string line;
  std::string out;
  for (size_t number = 1; std::getline(script, line); ++number) {
    if (!runCommand(sw, line, out)) {
      error = path + ":" + std::to_string(number) + ": " + out;
      return false;
    }
  }
  return true;
}

} // namespace orrin
