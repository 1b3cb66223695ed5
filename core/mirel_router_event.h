// The routing service's events: the one table of their types, and the local datagram socket on which a client of the
// service receives them.
#pragma once

#include "mirel_context.h"
#include "rppi_event.h"

#include <span>

struct RouterEventType {
  uint32_t type;
  const char *enumName;
  const char *name;                          // what traces and logs print
  Counter MirelIntfEventStats::*intfCounter; // counter per interface, or null
  bool hasFixedRow;                          // listed by the show operation of all types
};

// Every type that has a name, ascending.
std::span<const RouterEventType> mirelRouterEventTypes();

// The row of a type, or null.
const RouterEventType *mirelRouterEventTypeFind(uint32_t msgType);

// Printable name of a type, "UNKNOWN" for one without a row; never freed.
const char *mirelRouterEventNameGet(uint32_t msgType);

// Creates a client's event socket, bound at pathFormat filled with clientId. Returns 0 with the descriptor stored, or -1
// after one log line with *sockFd left as it was. The socket stays blocking: readers pass MSG_DONTWAIT.
int mirelCreateRppiSock(const char *pathFormat, uint32_t clientId, Relaxed<int> *sockFd);
