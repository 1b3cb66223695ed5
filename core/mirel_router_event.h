// The routing service's events: the one table of their types, and the local datagram socket on which a client of the
// service receives them.
#pragma once

#include "mirel_context.h"
#include "rppi_event.h"

#include <span>

// What the router event client does with a type.
enum class EventRole {
  HANDLED,   // the handler is called
  NOTED,     // nothing but a trace
  KEEPALIVE, // the sign of life, dealt with before the dispatch
  UNKNOWN,   // not expected on this socket
};

struct RouterEventType {
  uint32_t type;
  const char *enumName;
  const char *name; // what traces and logs print
  EventRole role;
  int (*handler)(const RppiEventMsg *msg);   // of a HANDLED type: 0, or not after logging why
  Counter MirelIntfEventStats::*intfCounter; // counted per interface before the handler is called, or null
  bool hasFixedRow;                          // listed by the show operation of all types
};

// Every type that has a name, ascending.
std::span<const RouterEventType> mirelRouterEventTypes();

// The row of a type, or null.
const RouterEventType *mirelRouterEventTypeFind(uint32_t msgType);

// Printable name of a type, "UNKNOWN" for one without a row; never freed.
const char *mirelRouterEventNameGet(uint32_t msgType);

// Handlers of the events that only the router event client knows.
int mirelRtrStartupDoneHandler(const RppiEventMsg *msg);   // starts the best-route client, or ends the process
int mirelRtrEnableEventHandler(const RppiEventMsg *msg);   // installs the best routes through the interface
int mirelRtrEnablePendingHandler(const RppiEventMsg *msg); // applies pending best routes first, then enables

// Creates a client's event socket, bound at pathFormat filled with clientId. Returns 0 with the descriptor stored, or -1
// after one log line with *sockFd left as it was. The socket stays blocking: readers pass MSG_DONTWAIT.
int mirelCreateRppiSock(const char *pathFormat, uint32_t clientId, Relaxed<int> *sockFd);
