// Router interfaces: the router event client, and the handlers that apply each event to the kernel device of its interface.
// Main thread. A handler returns 0 when done or skipped and 1 when it failed, after logging why.
#pragma once

#include "mirel_context.h"
#include "rppi_event.h"

// Registers with the routing service, retrying every second while the platform is not ready, and creates the event socket.
// Fills *clientId and *sockFd. Returns 0, or -1 after logging why; a registration whose socket failed stays in place.
int mirelRouterEventClientStart(uint32_t pid, const tarn_buffdesc *clientName, Relaxed<uint32_t> *clientId,
                                Relaxed<int> *sockFd);

// Checks, counts, handles and acknowledges one datagram of the router-event socket. msg is zero beyond bytesRead.
void mirelRouterEventMsgProcess(const RppiEventMsg *msg, uint32_t bytesRead);

// The routing service has been silent too long: registers anew and replays every interface. Returns 0, or -1 when it
// could not register again.
int mirelHandleRouterEventClientTimeout(uint32_t pid, const tarn_buffdesc *clientName);

// Replays an enable of every router interface of the VRF, neither counted nor acknowledged.
void mirelPopulateRoutingInterfaceTable();

// Enable and disable.
int mirelRtrEnableHandler(const RppiEventMsg *msg);     // the kernel device takes on the interface's settings
int mirelRtrIntfEnableHandler(const RppiEventMsg *msg); // the best routes through the interface are installed
int mirelRtrDisableHandler(const RppiEventMsg *msg);

// Membership of the interface's device in 224.0.0.2, all routers: join 1, leave 0.
int mirelMcastGroupMembershipSet(uint32_t intIfNum, uint32_t join);

// Changes of single attributes.
int mirelRtrMtuHandler(const RppiEventMsg *msg);
int mirelRtrBwHandler(const RppiEventMsg *msg);
int mirelRtrUnreachHandler(const RppiEventMsg *msg);
int mirelRtrRedirectHandler(const RppiEventMsg *msg);
int mirelRtrVrrpIpHandler(const RppiEventMsg *msg);
int mirelRtrAddrHandler(const RppiEventMsg *msg);
int mirelRtrHostModeHandler(const RppiEventMsg *msg);
int mirelRtrCfgHandler(const RppiEventMsg *msg); // always 0: the handlers that it calls log their own failures

// ICMP settings of the whole VRF; always 0.
int mirelRtrRatelimitHandler();
int mirelRtrEchoReplyHandler();
int mirelRtrEchoIgnoreBcastHandler(uint32_t mode);
int mirelGlobalCfgInit(); // all three, once at start-up
