// The main loop: one select() over the event sockets, one datagram a socket and pass, then the timers. Main thread; every
// handler runs to completion here. Nothing is allocated.

#include "mirel.h"

#include "mirel_arp.h"
#include "mirel_best_route.h"
#include "mirel_intf_best_route.h"
#include "mirel_router.h"
#include "mirel_router_event.h"
#include "mirel_trace.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sys/select.h>
#include <sys/socket.h>

namespace {

constexpr char LOG_AREA[] = "application/routing/mirel/core/mirel";
constexpr const char *OPERATION = "main"; // the name in every trace of the loop

constexpr size_t RECEIVE_SIZE = 256;
constexpr time_t SELECT_SECONDS = 1;
constexpr uint32_t ROUTER_EVENT_SILENCE_MAX = 120; // seconds
constexpr uint32_t BEST_ROUTE_SILENCE_MAX = 240;   // seconds
constexpr uint32_t RPC_FAILURE_MAX = 30;           // seconds
constexpr int32_t RPC_FAILURE_SEEN = 1;

struct LoopTimers {
  uint32_t bestRoutes;
  uint32_t intfBestRoutes;
  uint32_t rpcFailure; // 0 = no failure seen yet; never set back
};

std::array<char, RECEIVE_SIZE> receiveBuffer;
fd_set readSet;

enum class Pass { SERVICE, TIMERS_ONLY, RESTART };

enum class Read { MESSAGE, NOTHING, FAILED };

// One datagram into the cleared receive buffer, cut to its size; a message has one byte or more.
Read datagramRead(int fd, uint32_t &length) {
  receiveBuffer.fill(0);
  ssize_t received;
  do {
    received = recvfrom(fd, receiveBuffer.data(), receiveBuffer.size(), MSG_DONTWAIT, nullptr, nullptr);
  } while (received < 0 && errno == EINTR);
  if (received < 0 && errno == EAGAIN) {
    return Read::NOTHING;
  }
  if (received <= 0) {
    return Read::FAILED;
  }
  length = static_cast<uint32_t>(received);
  return Read::MESSAGE;
}

// The record at the front of the receive buffer; what a short datagram lacks is zero.
template <typename Message> Message messageRead() {
  Message msg;
  static_assert(sizeof msg <= RECEIVE_SIZE);
  memcpy(&msg, receiveBuffer.data(), sizeof msg);
  return msg;
}

// FD_SET beyond FD_SETSIZE would write past the set. Logs a descriptor once: logged keeps the last one of its place.
bool fitsReadSet(int fd, int &logged) {
  if (fd < FD_SETSIZE) {
    return true;
  }
  if (fd != logged) {
    logged = fd;
    MIREL_LOG(SEVERITY_ERROR, "Socket fd %d is beyond the limit of %d for select and is not watched.", fd, FD_SETSIZE);
  }
  return false;
}

int readSetFill() {
  const std::array descriptors = {rppi_evnt_fd.get(), brc_sock_fd.get(), arp_sock_fd.get(), syncdbClient.syncdbNotifyFd,
                                  arpd_nl_fd.get()};
  static std::array<int, descriptors.size()> logged;
  FD_ZERO(&readSet);
  int highest = -1;
  for (size_t i = 0; i < descriptors.size(); ++i) {
    const int fd = descriptors[i];
    if (fd != -1 && fitsReadSet(fd, logged[i])) {
      FD_SET(fd, &readSet);
      highest = std::max(highest, fd);
    }
  }
  return highest;
}

// Asked right before each service: an earlier handler of the same pass may have closed or created the socket.
bool isReady(int fd) {
  return fd != -1 && fd < FD_SETSIZE && FD_ISSET(fd, &readSet);
}

Pass waitForEvents() {
  const int highest = readSetFill();
  timeval timeout{.tv_sec = SELECT_SECONDS, .tv_usec = 0};
  const int ready = select(highest + 1, &readSet, nullptr, nullptr, &timeout);
  if (ready > 0) {
    return Pass::SERVICE;
  }
  if (ready == 0) {
    return Pass::TIMERS_ONLY;
  }
  const int error = errno;
  if (error == EINTR) {
    return Pass::RESTART;
  }
  MIREL_LOG(SEVERITY_ERROR, "select() error %d (%s)", error, strerror(error));
  return Pass::TIMERS_ONLY;
}

void serviceNeighbours() {
  if (!isReady(arpd_nl_fd)) {
    return;
  }
  MIREL_TRACE(TRACE_GENERAL, OPERATION, "Received an event from arpd netlink socket\n");
  mirelArpNetlinkEvntHandle();
}

void serviceRouterEvents() {
  const int fd = rppi_evnt_fd;
  if (!isReady(fd)) {
    return;
  }
  uint32_t length = 0;
  const Read outcome = datagramRead(fd, length);
  if (outcome == Read::FAILED) {
    MIREL_LOG(SEVERITY_ERROR, "Failed to read socket with fd %d for router event client", fd);
  }
  if (outcome != Read::MESSAGE) {
    return;
  }
  const auto msg = messageRead<RppiEventMsg>();
  MIREL_TRACE(TRACE_GENERAL, OPERATION,
              "Received message for router event service with msg type %s and length %u bytes\n",
              mirelRouterEventNameGet(msg.msgType), length);
  mirelRouterEventMsgProcess(&msg, length);
}

void serviceBestRoutes() {
  const int fd = brc_sock_fd;
  if (!isReady(fd)) {
    return;
  }
  uint32_t length = 0;
  const Read outcome = datagramRead(fd, length);
  if (outcome == Read::FAILED) {
    MIREL_LOG(SEVERITY_ERROR, "Failed to read socket with fd %d for best route client", fd);
  }
  if (outcome != Read::MESSAGE) {
    return;
  }
  const auto msg = messageRead<RppiEventMsg>();
  MIREL_TRACE(TRACE_GENERAL, OPERATION,
              "Received message for best route service with msg type %s and length %u bytes\n",
              mirelRouterEventNameGet(msg.msgType), length);
  mirelBestRouteMsgProcess(msg);
}

void serviceArpResolutions() {
  const int fd = arp_sock_fd;
  if (!isReady(fd)) {
    return;
  }
  uint32_t length = 0;
  const Read outcome = datagramRead(fd, length);
  if (outcome == Read::NOTHING) {
    return;
  }
  if (outcome == Read::FAILED) {
    MIREL_LOG(SEVERITY_ERROR, "Failed to read socket with fd %d for ARP resolution", fd);
    ++statsHandle.numArpResolveErrors;
    return;
  }
  MIREL_TRACE(TRACE_GENERAL, OPERATION, "Received an event from arp socket\n");
  const auto msg = messageRead<ArpResolutionMsg>();
  if (mirelArpEvntHandle(&msg) != 0) {
    MIREL_LOG(SEVERITY_ERROR, "Error in handling ARP resolution message from orrin process");
    ++statsHandle.numArpResolveErrors;
    return;
  }
  ++statsHandle.numArpResolves;
}

// The process library drains its descriptor itself.
void serviceSyncDb() {
  if (!isReady(syncdbClient.syncdbNotifyFd) || !TRACE_GENERAL.on()) {
    return;
  }
  MIREL_TRACE(TRACE_GENERAL, OPERATION, "Received an event from syncdb socket\n");
  mirelSyncDbCfgChangeHandle();
}

void bestRouteTimers(LoopTimers &timers) {
  uint32_t now = currentGetTime();
  if (now - timers.bestRoutes >= mirelBestRoutePollTime) {
    timers.bestRoutes = now;
    mirelBestRoutesProcess();
  }
  now = currentGetTime();
  if (now - timers.intfBestRoutes >= mirelBestRoutePollTime) {
    timers.intfBestRoutes = now;
    mirelIntfBestRoutesProcess();
  }
}

void routerEventKeepAliveCheck() {
  if (currentGetTime() - rppi_evnt_keepalive_time <= ROUTER_EVENT_SILENCE_MAX) {
    return;
  }
  ++statsHandle.numRecTimeout;
  if (mirelHandleRouterEventClientTimeout(mirelPid, &clientNameDesc) != 0) {
    MIREL_LOG(SEVERITY_ERROR, "Error in handling router event client timeout for Mirel.");
    exit(0);
  }
}

void bestRouteKeepAliveCheck() {
  if (currentGetTime() - brc_client_keepalive_time <= BEST_ROUTE_SILENCE_MAX || brc_sock_fd == -1) {
    return;
  }
  ++statsHandle.numBrcTimeout;
  if (mirelHandleBestRouteClientTimeout(mirelPid, &clientNameDesc) != 0) {
    MIREL_LOG(SEVERITY_ERROR, "Error in handling best route client timeout for Mirel.");
    exit(0);
  }
  MIREL_LOG(SEVERITY_NOTICE,
            "Best route client Keep alive events for Mirel timed out.De-regiseter and re-registering for the Best "
            "route change events.Flushing all the routes from linux stack.");
}

void rpcHealthCheck(LoopTimers &timers) {
  if (rpcclt_rpc_failure_occured() != RPC_FAILURE_SEEN) {
    return;
  }
  const uint32_t now = currentGetTime();
  if (timers.rpcFailure == 0) {
    timers.rpcFailure = now;
    return;
  }
  if (now - timers.rpcFailure > RPC_FAILURE_MAX) {
    MIREL_LOG(SEVERITY_CRITICAL, "Application out of sync with orrin. mirel processpid -  %u exiting.", mirelPid);
    rpcclt_rpc_failure_reset();
  }
}

} // namespace

void mirelMainLoop() {
  const uint32_t now = currentGetTime();
  LoopTimers timers{.bestRoutes = now, .intfBestRoutes = now, .rpcFailure = 0};
  brc_client_keepalive_time = now;
  for (;;) {
    const Pass pass = waitForEvents();
    if (pass == Pass::RESTART) {
      continue;
    }
    if (pass == Pass::SERVICE) {
      serviceNeighbours();
      serviceRouterEvents();
      serviceBestRoutes();
      serviceArpResolutions();
      serviceSyncDb();
    }
    bestRouteTimers(timers);
    routerEventKeepAliveCheck();
    bestRouteKeepAliveCheck();
    rpcHealthCheck(timers);
  }
}
