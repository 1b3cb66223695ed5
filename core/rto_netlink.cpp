// The route netlink listener: a thread that owns one socket, bound to the route notifications of the namespace, and its
// receive buffer. It waits for the socket only, and between notifications reads the dump of a resync.

#include "rto_netlink.h"

#include "netlink_filter.h"
#include "rto_netlink_dump.h"
#include "rto_netlink_trace.h"
#include "unique_fd.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

Counter numRtoNetlinkRxErrors;

namespace {

constexpr char LOG_AREA[] = "application/routing/mirel/core/rto_netlink";

constexpr size_t RECEIVE_SIZE = 8192;
constexpr int SOCKET_BUFFER_SIZE = 1048576;
constexpr uint32_t ROUTE_GROUPS = RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_ROUTE;
constexpr uint32_t REOPEN_MSEC = 1000;
constexpr int LISTENER_NICE = -20; // before those it listens to: what it does not read in time is lost

enum ListenEnd : int { LISTEN_ENDED = 1, LISTEN_MALFORMED = 2 };

alignas(nlmsghdr) std::array<std::byte, RECEIVE_SIZE> receiveBuffer;

std::atomic<bool> setUpOnce = false; // successful or not

bool buffersEnlarge(int sock) {
  if (setsockopt(sock, SOL_SOCKET, SO_SNDBUF, &SOCKET_BUFFER_SIZE, sizeof SOCKET_BUFFER_SIZE) != 0) {
    const int error = errno;
    qvproc_logf(SEVERITY_ERROR, COMPONENT_RTO_NETLINK, LOG_AREA, __LINE__,
                "Netlink socket: Set socket option failed for option SO_SNDBUF, Error - %s\n", strerror(error));
    return false;
  }
  // Beyond the system's limit for receive buffers, if the agent has the right to.
  if (setsockopt(sock, SOL_SOCKET, SO_RCVBUFFORCE, &SOCKET_BUFFER_SIZE, sizeof SOCKET_BUFFER_SIZE) == 0) {
    return true;
  }
  if (setsockopt(sock, SOL_SOCKET, SO_RCVBUF, &SOCKET_BUFFER_SIZE, sizeof SOCKET_BUFFER_SIZE) != 0) {
    const int error = errno;
    qvproc_logf(SEVERITY_ERROR, COMPONENT_RTO_NETLINK, LOG_AREA, __LINE__,
                "Netlink socket: Set socket option failed for option SO_RCVBUF, Error - %s\n", strerror(error));
    return false;
  }
  return true;
}

bool localAddressBind(int sock, uint32_t groups, uint32_t &port) {
  sockaddr_nl local{};
  local.nl_family = AF_NETLINK;
  local.nl_groups = groups;
  if (bind(sock, reinterpret_cast<const sockaddr *>(&local), sizeof local) != 0) {
    qvproc_logf(SEVERITY_ERROR, COMPONENT_RTO_NETLINK, LOG_AREA, __LINE__, "Cannot bind netlink socket");
    return false;
  }
  socklen_t length = sizeof local;
  if (getsockname(sock, reinterpret_cast<sockaddr *>(&local), &length) != 0) {
    qvproc_logf(SEVERITY_ERROR, COMPONENT_RTO_NETLINK, LOG_AREA, __LINE__, "Cannot getsockname");
    return false;
  }
  if (length != sizeof local) {
    qvproc_logf(SEVERITY_ERROR, COMPONENT_RTO_NETLINK, LOG_AREA, __LINE__, "Incorrect address length %d",
                static_cast<int>(length));
    return false;
  }
  if (local.nl_family != AF_NETLINK) {
    qvproc_logf(SEVERITY_ERROR, COMPONENT_RTO_NETLINK, LOG_AREA, __LINE__, "Incorrect address family %d",
                local.nl_family);
    return false;
  }
  port = local.nl_pid;
  return true;
}

// As recvmsg(), without waiting longer than so long; 0 = without limit.
ssize_t timedReceive(RtoNetlinkHandle *handle, msghdr *message, uint32_t msec) {
  if (msec != handle->timeoutMsec) {
    const timeval limit{.tv_sec = msec / 1000, .tv_usec = static_cast<suseconds_t>(msec % 1000) * 1000};
    setsockopt(handle->fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    handle->timeoutMsec = msec;
  }
  return recvmsg(handle->fd, message, 0);
}

// As recvmsg(). The dump goes on only when there is no notification to read: after a loss the kernel also drops further
// notifications, without a new error, until the socket's queue is empty. `stepped` says whether it went on the last time.
ssize_t datagramReceive(RtoNetlinkHandle *handle, RtoDump &dump, bool &stepped, msghdr *message) {
  for (;;) {
    const ssize_t received =
        stepped ? recvmsg(handle->fd, message, MSG_DONTWAIT) : timedReceive(handle, message, dump.waitMsec());
    if (received >= 0 || errno != EAGAIN) {
      return received;
    }
    stepped = dump.ready();
    if (stepped) {
      dump.step();
    }
  }
}

void truncationReport(int flags) {
  MIREL_TRACE(TRACE_RTO_FAILURE, "rtoNetlinkListen", "Truncated message encountered - msg flags 0x%x\n", flags);
  qvproc_logf(SEVERITY_ERROR, COMPONENT_RTO_NETLINK, LOG_AREA, __LINE__,
              "Truncated message encountered - msg flags 0x%x", flags);
}

} // namespace

void *rtoNetlinkLinuxUpdatesHandler(void *) {
  const RtoCallTrace call("rtoNetlinkLinuxUpdatesHandler");
  pthread_setname_np(pthread_self(), "rto-listener");
  setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()), LISTENER_NICE);
  // Closing discards queued notifications, and none arrive until the socket is open again.
  for (;; rtoResyncRequest()) {
    RtoNetlinkHandle handle;
    const bool open = rtoNetlinkSocketOpen(&handle, ROUTE_GROUPS, NETLINK_ROUTE) == 0;
    setUpOnce = true;
    setUpOnce.notify_all();
    if (!open) {
      qvproc_logf(SEVERITY_CRITICAL, COMPONENT_RTO_NETLINK, LOG_AREA, __LINE__, "failed to open netlink socket");
      osapiSleepMSec(REOPEN_MSEC);
      continue;
    }
    rtoListenerPort = handle.port;
    rtoNetlinkListen(&handle, rtoAcceptMsg);
    rtoListenerPort = 0;
    qvproc_logf(SEVERITY_CRITICAL, COMPONENT_RTO_NETLINK, LOG_AREA, __LINE__,
                "RtNetlink failed to listen to netlink socket.");
    rtoNetlinkSocketClose(&handle);
  }
}

void rtoNetlinkSetUpAwait() {
  setUpOnce.wait(false);
}

int rtoNetlinkSocketOpen(RtoNetlinkHandle *handle, uint32_t groups, int protocol) {
  const RtoCallTrace call("rtoNetlinkSocketOpen");
  UniqueFd sock(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, protocol));
  if (!sock) {
    qvproc_logf(SEVERITY_ERROR, COMPONENT_RTO_NETLINK, LOG_AREA, __LINE__, "failed to open netlink socket");
    return 1;
  }
  netlinkOwnRoutesDrop(sock.get());
  uint32_t port = 0;
  if (!buffersEnlarge(sock.get()) || !localAddressBind(sock.get(), groups, port)) {
    return 1;
  }
  *handle = {.fd = sock.release(), .port = port, .sequence = static_cast<uint32_t>(time(nullptr))};
  return 0;
}

void rtoNetlinkSocketClose(RtoNetlinkHandle *handle) {
  const RtoCallTrace call("rtoNetlinkSocketClose");
  close(handle->fd);
  handle->fd = -1;
}

int rtoNetlinkListen(RtoNetlinkHandle *handle, RtoMessageHandler handler) {
  constexpr const char *OPERATION = "rtoNetlinkListen";
  const RtoCallTrace call(OPERATION);
  RtoDump dump(handle);
  bool stepped = false;
  for (;;) {
    sockaddr_nl sender{};
    iovec bytes{.iov_base = receiveBuffer.data(), .iov_len = receiveBuffer.size()};
    msghdr message{};
    message.msg_name = &sender;
    message.msg_namelen = sizeof sender;
    message.msg_iov = &bytes;
    message.msg_iovlen = 1;
    const ssize_t received = datagramReceive(handle, dump, stepped, &message);
    const int error = errno;
    MIREL_TRACE(TRACE_RTO_DETAIL, OPERATION, " rx message status %d \n", static_cast<int>(received));
    if (received < 0) {
      ++numRtoNetlinkRxErrors;
      if (error == ENOBUFS) {
        rtoResyncRequest();
      }
      continue;
    }
    if (received == 0) {
      MIREL_TRACE(TRACE_RTO_FAILURE, OPERATION, "EOF on netlink\n");
      qvproc_logf(SEVERITY_ERROR, COMPONENT_RTO_NETLINK, LOG_AREA, __LINE__, "EOF on netlink");
      return LISTEN_ENDED;
    }
    if (message.msg_namelen != sizeof sender) {
      const auto length = static_cast<int>(message.msg_namelen);
      MIREL_TRACE(TRACE_RTO_FAILURE, OPERATION, "Unexpected sender address length == %d\n", length);
      qvproc_logf(SEVERITY_ERROR, COMPONENT_RTO_NETLINK, LOG_AREA, __LINE__, "Unexpected sender address length == %d",
                  length);
      return LISTEN_MALFORMED;
    }
    const int result = rtoDatagramProcess(NetlinkBytes(receiveBuffer).first(static_cast<size_t>(received)),
                                          message.msg_flags, handler);
    if (result != 0) {
      return result;
    }
  }
}

int rtoDatagramProcess(NetlinkBytes rest, int flags, RtoMessageHandler handler) {
  constexpr const char *OPERATION = "rtoNetlinkListen";
  const bool truncated = (flags & MSG_TRUNC) != 0;
  nlmsghdr header;
  while (rest.size() >= sizeof header) {
    memcpy(&header, rest.data(), sizeof header);
    const auto length = static_cast<int>(header.nlmsg_len);
    const auto remaining = static_cast<int>(header.nlmsg_len - sizeof header);
    MIREL_TRACE(TRACE_RTO_DETAIL, OPERATION, " in while : bytesProc %d msg_len %d remain_msgLen %d \n\n",
                static_cast<int>(rest.size()), length, remaining);
    NetlinkMessage message;
    if (!NetlinkMessage::parse(rest, message)) {
      if (truncated) {
        truncationReport(flags);
        return LISTEN_ENDED;
      }
      MIREL_TRACE(TRACE_RTO_FAILURE, OPERATION, "Malformed message encountered: len=%d\n\n", length);
      qvproc_logf(SEVERITY_ERROR, COMPONENT_RTO_NETLINK, LOG_AREA, __LINE__, "Malformed message encountered: len=%d\n",
                  length);
      return LISTEN_MALFORMED;
    }
    const int result = handler(message);
    if (result != 0) {
      MIREL_TRACE(TRACE_RTO_FAILURE, OPERATION, "Call to processMessage failed. Error %d\n", result);
      return result;
    }
    rest = rest.subspan(std::min<size_t>(NLMSG_ALIGN(message.length), rest.size()));
    MIREL_TRACE(TRACE_RTO_DETAIL, OPERATION, " in while after proc : bytesProc %d msg_len %d remain_msgLen %d \n\n",
                static_cast<int>(rest.size()), length, remaining);
  }
  if (truncated) {
    truncationReport(flags);
    return 0;
  }
  if (!rest.empty()) {
    const auto remnant = static_cast<int>(rest.size());
    MIREL_TRACE(TRACE_RTO_FAILURE, OPERATION, "Encountered message remnant of size %d after processing message.\n\n",
                remnant);
    qvproc_logf(SEVERITY_ERROR, COMPONENT_RTO_NETLINK, LOG_AREA, __LINE__,
                "Encountered message remnant of size %d after processing message\n", remnant);
    return LISTEN_MALFORMED;
  }
  return 0;
}
