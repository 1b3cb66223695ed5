// Registrations and what is sent to the registered: keep-alives and notifications.
#pragma once

#include "switch.h"

#include <string>
#include <string_view>
#include <vector>

namespace orrin {

// Who asks: the pid it states, and the process at the other end of its connection.
struct Applicant {
  uint32_t pid = 0;
  uint32_t process = 0;
};

// A tarnapi.h result; `id` is written on TARN_OK only.
int32_t registerClient(Switch &sw, ClientKind kind, uint32_t vrf, const Applicant &who, std::string_view name,
                       uint32_t &id);
// A registration that is kept already, with its id.
std::string restoreClient(Switch &sw, Client client);
// After the state folder was read: who still lives goes on, the others only leave what their successors must know.
void resumeClients(Switch &sw);

// Ends a registration; false when there is no such client.
bool dropClient(Switch &sw, uint32_t id);
// Forgets a VRF's clients and all that they left.
void forgetClients(Switch &sw, uint32_t vrf);

Client *findClient(Switch &sw, ClientKind kind, uint32_t id);
// Of a VRF, the unregistered too.
std::vector<Client *> bestRouteClients(Switch &sw, uint32_t vrf);

// Tells those that have changes waiting and do not know it.
void notifyBestRouteClients(Switch &sw, const std::vector<Client *> &clients);
// Keep-alives to all; best-route clients with changes waiting are notified again.
void sendKeepalives(Switch &sw);

// When the next outbox wants to be flushed, 0 = none.
uint64_t nextRetryMs(const Switch &sw);
void flushDueOutboxes(Switch &sw);

// "client best-route <id> vrf <vrf> pid <pid> ... name <name>"
std::string clientLine(const Client &client);
const char *kindName(ClientKind kind);

} // namespace orrin
