// The registered clients. Used by orrin's one thread.

#include "clients.h"

#include "interfaces.h"
#include "process_info.h"
#include "router_events.h"
#include "tarnapi.h"

#include <algorithm>
#include <cstdio>

namespace orrin {

namespace {

RppiEventMsg eventMessage(uint16_t type) {
  RppiEventMsg message{};
  message.msgType = type;
  message.msgLen = sizeof message;
  return message;
}

void send(Switch &sw, Client &client, const RppiEventMsg &message) {
  client.outbox.add(message);
  client.outbox.flush(sw.poller, nowMs());
}

std::string eventPath(const Client &client) {
  char path[32];
  std::snprintf(path, sizeof path, client.kind == ClientKind::BEST_ROUTE ? "/tmp/rppi_brc.%04u" : "/tmp/rppi_rec.%04u",
                client.id);
  return path;
}

Client *findNamed(Switch &sw, ClientKind kind, uint32_t vrf, std::string_view name) {
  for (auto &[id, client] : sw.clients) {
    if (client.kind == kind && client.vrf == vrf && client.name == name) {
      return &client;
    }
  }
  return nullptr;
}

void notify(Switch &sw, Client &client) {
  client.notified = true;
  if (!client.outbox.holds(TARNR_BEST_ROUTE_CHANGE)) {
    send(sw, client, eventMessage(TARNR_BEST_ROUTE_CHANGE));
  }
}

void activate(Switch &sw, Client &client, UniqueFd pidFd) {
  client.registered = true;
  client.notified = false;
  client.outbox.open(eventPath(client), Watched::CLIENT_SOCKET, client.id);
  client.pidFd = std::move(pidFd);
  if (client.pidFd) {
    sw.poller.watch(client.pidFd.get(), EPOLLIN, Watched::CLIENT_PROCESS, client.id);
  }
  if (client.kind == ClientKind::BEST_ROUTE) {
    client.changes.activate(sw.vrfs.at(client.vrf).routes, [&sw] { sw.page.beat(); });
    notifyBestRouteClients(sw, {&client});
  } else {
    deliverEvents(sw, client);
  }
}

void retire(Switch &sw, Client &client) {
  sw.journal.append("client drop " + std::to_string(client.id));
  client.registered = false;
  client.outbox.close();
  client.pidFd.reset();
  client.changes.retire();
  if (client.kind == ClientKind::ROUTER_EVENT) {
    stopWaitingForClients(sw, client.vrf);
  }
}

// What the client's forerunner, which goes, was owed; without one, what it cannot ask for. A client that is restored may have
// acknowledged that already: twice does no harm.
void takeOver(Switch &sw, Client &client, Client *before) {
  if (before != nullptr) {
    client.changes = std::move(before->changes);
    client.events = std::move(before->events);
    client.hadEvents = before->hadEvents;
    sw.clients.erase(before->id);
  } else if (client.kind == ClientKind::ROUTER_EVENT) {
    greetNewcomer(sw, client);
  }
}

// What unregistered clients left is kept for so many names; the oldest goes first.
void limitLegacies(Switch &sw) {
  const auto isLegacy = [](const auto &entry) { return !entry.second.registered; };
  const auto legacies = std::count_if(sw.clients.begin(), sw.clients.end(), isLegacy);
  if (legacies > static_cast<ptrdiff_t>(CLIENTS_MAX)) {
    sw.clients.erase(std::find_if(sw.clients.begin(), sw.clients.end(), isLegacy));
  }
}

} // namespace

const char *kindName(ClientKind kind) {
  return kind == ClientKind::BEST_ROUTE ? "best-route" : "router-event";
}

std::string clientLine(const Client &client) {
  std::string line = std::string("client ") + kindName(client.kind);
  appendNumber(line += ' ', client.id);
  appendNumber(line += " vrf ", client.vrf);
  appendNumber(line += " pid ", client.pid);
  if (client.process != 0) {
    appendNumber(line += " process ", client.process);
  }
  if (client.started != 0) {
    appendNumber(line += " started ", client.started);
  }
  return line + " name " + client.name;
}

int32_t registerClient(Switch &sw, ClientKind kind, uint32_t vrf, const Applicant &who, std::string_view name,
                       uint32_t &id) {
  Client client;
  Client *before = findNamed(sw, kind, vrf, name);
  if (before != nullptr) {
    // A stated pid that nobody has is as good as gone, whoever made the call.
    if (before->registered && processExists(before->pid) && !processEnded(before->pidFd)) {
      return TARN_EXISTS;
    }
    if (before->registered) {
      retire(sw, *before);
    }
  }
  const auto registered =
      std::count_if(sw.clients.begin(), sw.clients.end(), [](const auto &entry) { return entry.second.registered; });
  if (registered >= static_cast<ptrdiff_t>(CLIENTS_MAX)) {
    return TARN_FULL;
  }
  client.kind = kind;
  client.id = sw.nextClientId++;
  client.vrf = vrf;
  client.pid = who.pid;
  client.process = who.process == who.pid ? 0 : who.process;
  client.started = processStartTime(who.process);
  client.name = name;
  takeOver(sw, client, before);
  id = client.id;
  sw.journal.append(clientLine(client));
  activate(sw, sw.clients[id] = std::move(client), openProcess(who.process));
  return TARN_OK;
}

std::string restoreClient(Switch &sw, Client client) {
  if (sw.clients.contains(client.id)) {
    return "there is a client " + std::to_string(client.id) + " already";
  }
  takeOver(sw, client, findNamed(sw, client.kind, client.vrf, client.name));
  client.changes.retire();
  client.registered = true;
  sw.nextClientId = std::max(sw.nextClientId, client.id + 1);
  sw.clients[client.id] = std::move(client);
  return {};
}

void resumeClients(Switch &sw) {
  for (auto &[id, client] : sw.clients) {
    if (!client.registered) {
      continue;
    }
    const uint32_t process = client.process != 0 ? client.process : client.pid;
    client.registered = false;
    if (processExists(process) && processStartTime(process) == client.started) {
      if (client.kind == ClientKind::ROUTER_EVENT && !client.walked) {
        startOver(sw, client); // it may have been reading the interfaces when their orrin ended
      }
      activate(sw, client, openProcess(process));
    }
  }
}

bool dropClient(Switch &sw, uint32_t id) {
  const auto entry = sw.clients.find(id);
  if (entry == sw.clients.end() || !entry->second.registered) {
    return false;
  }
  retire(sw, entry->second);
  limitLegacies(sw);
  return true;
}

void forgetClients(Switch &sw, uint32_t vrf) {
  std::erase_if(sw.clients, [vrf](const auto &entry) { return entry.second.vrf == vrf; });
}

Client *findClient(Switch &sw, ClientKind kind, uint32_t id) {
  const auto entry = sw.clients.find(id);
  const bool found = entry != sw.clients.end() && entry->second.kind == kind && entry->second.registered;
  return found ? &entry->second : nullptr;
}

std::vector<Client *> bestRouteClients(Switch &sw, uint32_t vrf) {
  std::vector<Client *> clients;
  for (auto &[id, client] : sw.clients) {
    if (client.kind == ClientKind::BEST_ROUTE && client.vrf == vrf) {
      clients.push_back(&client);
    }
  }
  return clients;
}

void notifyBestRouteClients(Switch &sw, const std::vector<Client *> &clients) {
  for (Client *client : clients) {
    if (client->registered && !sw.restoring && !client->notified && client->changes.waiting() != 0) {
      notify(sw, *client);
    }
  }
}

void sendKeepalives(Switch &sw) {
  for (auto &[id, client] : sw.clients) {
    if (!client.registered || sw.keepaliveHeld || sw.vrfs.at(client.vrf).keepaliveHeld) {
      continue;
    }
    if (!client.outbox.holds(TARNR_KEEPALIVE)) {
      send(sw, client, eventMessage(TARNR_KEEPALIVE));
    }
    if (client.kind == ClientKind::BEST_ROUTE && client.changes.hasWork()) {
      notify(sw, client);
    }
  }
}

uint64_t nextRetryMs(const Switch &sw) {
  uint64_t next = 0;
  for (const auto &[id, client] : sw.clients) {
    const uint64_t at = client.outbox.retryAtMs();
    if (at != 0 && (next == 0 || at < next)) {
      next = at;
    }
  }
  return next;
}

void flushDueOutboxes(Switch &sw) {
  const uint64_t now = nowMs();
  for (auto &[id, client] : sw.clients) {
    const uint64_t at = client.outbox.retryAtMs();
    if (at != 0 && at <= now) {
      client.outbox.flush(sw.poller, now);
    }
  }
}

} // namespace orrin
