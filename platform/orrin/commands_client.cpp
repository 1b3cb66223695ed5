// The lines of the state folder about registrations. Used by orrin's one thread.

#include "commands.h"

#include "clients.h"
#include "router_events.h"

namespace orrin {

namespace {

bool clientDrop(Switch &sw, Words &words, std::string &out) {
  uint32_t id = 0;
  if (!onlyRestoring(sw, out) || !takeNumber(words, "client", id, out) || !takeEnd(words, out)) {
    return false;
  }
  return dropClient(sw, id) || refuse(out, "there is no client " + std::to_string(id));
}

bool restoreAs(Switch &sw, Words &words, ClientKind kind, std::string &out) {
  Client client;
  client.kind = kind;
  Vrf *vrf = nullptr;
  if (!onlyRestoring(sw, out) || !takeNumber(words, "client", client.id, out) || !takeKeyword(words, "vrf", out) ||
      !takeVrf(sw, words, vrf, out) || !takeKeyword(words, "pid", out) || !takeNumber(words, "pid", client.pid, out) ||
      (words.takeIf("process") && !takeNumber(words, "process", client.process, out)) ||
      (words.takeIf("started") && !takeNumber(words, "started", client.started, out)) ||
      !takeKeyword(words, "name", out) || !takeName(words, "name", tarnwire::NAME_MAX_BYTES, client.name, out) ||
      !takeEnd(words, out)) {
    return false;
  }
  client.vrf = vrf->id;
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
  client->events.clear();
  client->hadEvents = false;
  return true;
}

bool clientWalked(Switch &sw, Words &words, std::string &out) {
  Client *client = nullptr;
  if (!takeRestoredClient(sw, words, client, out) || !takeEnd(words, out)) {
    return false;
  }
  client->walked = true;
  return true;
}

constexpr Command COMMANDS[] = {
    {"client drop", clientDrop, false}, // writes the journal itself
    {"client best-route", clientBestRoute, false},
    {"client router-event", clientRouterEvent, false},
    {"client settled", clientSettled, false},
    {"client walked", clientWalked, false},
};

} // namespace

std::span<const Command> clientCommands() {
  return COMMANDS;
}

} // namespace orrin
