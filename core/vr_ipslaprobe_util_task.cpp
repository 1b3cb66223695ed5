// The probe task: waits on the sockets of all running sessions at once, sends each session's echo requests, takes the
// answers, measures round trips and reports every outcome to the switch. A thread that lives while a session runs; it holds
// the table's lock but for its wait. Its descriptor sets are the thread's own: it may be cancelled in the wait, where no
// frame is unwound, so that nothing that needs an end may be alive there.

#include "api_lock.h"
#include "vr_ipslaprobe_util_icmp.h"
#include "vr_ipslaprobe_util_session.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstring>
#include <ctime>
#include <memory>
#include <netinet/in.h>
#include <netinet/ip_icmp.h>
#include <new>
#include <optional>
#include <sys/select.h>
#include <sys/socket.h>
#include <tuple>

namespace {

constexpr const char *TASK_OPERATION = "probeAgentTask";

constexpr uint32_t USEC_PER_SEC = 1000000;
constexpr uint32_t USEC_PER_MSEC = 1000;
constexpr long NSEC_PER_USEC = 1000;
constexpr size_t BUFFER_SIZE = 13029; // for messages up to this; a session with larger ones gets larger buffers

enum ProbeReturnCode : uint32_t { PROBE_IN_TIME = 0, PROBE_FAILED = 1, PROBE_ABOVE_THRESHOLD = 2 };

// What one wait is about.
struct ProbeWait {
  fd_set readable;
  fd_set failed;
  int highest;
  timeval limit;
};

thread_local ProbeWait probeWait;

timeval timeOfDay() {
  timeval now{};
  gettimeofday(&now, nullptr);
  return now;
}

bool before(const timeval &left, const timeval &right) {
  return std::tie(left.tv_sec, left.tv_usec) < std::tie(right.tv_sec, right.tv_usec);
}

template <typename Action> void forRunningSessions(Action action) {
  for (pingSessionEntry *entry : pingSessionTable) {
    if (entry != nullptr && entry->sessionState == PING_SESSION_RUNNING) {
      action(*entry);
    }
  }
}

std::unique_ptr<uint8_t[]> bufferMake(size_t size, const char *operation) {
  std::unique_ptr<uint8_t[]> buffer(new (std::nothrow) uint8_t[size]());
  if (!buffer) {
    probeAgentLog(SEVERITY_ALERT, COMPONENT_MIREL, " %s : malloc failed\n", operation);
  }
  return buffer;
}

// ---- answers

// Receives one datagram without waiting. The kernel's receive time of it, if it tells one, is stored in received.
ssize_t datagramReceive(int sock, uint8_t *buffer, size_t size, std::optional<timeval> &received) {
  iovec room{.iov_base = buffer, .iov_len = size};
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(timeval))];
  msghdr message{};
  message.msg_iov = &room;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof control;
  const ssize_t length = recvmsg(sock, &message, MSG_DONTWAIT);
  const cmsghdr *extra = length >= 0 ? CMSG_FIRSTHDR(&message) : nullptr;
  if (extra != nullptr && extra->cmsg_level == SOL_SOCKET && extra->cmsg_type == SCM_TIMESTAMP) {
    timeval stamp;
    memcpy(&stamp, CMSG_DATA(extra), sizeof stamp);
    received = stamp;
  }
  return length;
}

bool unreachableValidate(const pingSessionEntry &entry, const IcmpMessage &message) {
  if (message.payload.empty()) {
    probeAgentLog(SEVERITY_NOTICE, COMPONENT_MIREL, "Invalid ICMP Unreachable Packet Received. ");
    return false;
  }
  uint16_t icmpIdent = 0;
  if (!probeQuotedIdentGet(message.payload, icmpIdent)) {
    probeAgentLog(SEVERITY_NOTICE, COMPONENT_MIREL,
                  "Received ICMP Unreachable Packet Length is too small to verify the pkt belongs to this session or "
                  "not");
    return false;
  }
  return icmpIdent == entry.icmpIdent && probeEchoRequestQuoted(message.payload);
}

bool replyValidate(const pingSessionEntry &entry, const IcmpMessage &message) {
  if (message.payload.size() != entry.dataSize) {
    probeAgentLog(SEVERITY_NOTICE, COMPONENT_MIREL,
                  "Invalid pkt len in ICMP Response . Expected = %u, Got = %u. Ignoring error and continuing\n",
                  entry.dataSize, static_cast<uint32_t>(message.payload.size()));
  }
  if (message.ident != entry.icmpIdent) {
    return false;
  }
  const uint16_t expected = static_cast<uint16_t>(entry.seqNum - 1);
  if (message.seqNum != expected) {
    probeAgentLog(SEVERITY_WARNING, COMPONENT_MIREL,
                  "Invalid sequence number in ICMP Response. Expected %u, Got = %u\n", expected, message.seqNum);
    return false;
  }
  return true;
}

[[gnu::noinline]] uint64_t monotonicUsec() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<uint64_t>(now.tv_sec) * USEC_PER_SEC + static_cast<uint64_t>(now.tv_nsec / NSEC_PER_USEC);
}

// Where the clock was set meanwhile, its difference is nonsense, and no more time can have gone by than has until now.
uint32_t usecSinceSend(const pingSessionEntry &entry, const timeval &until) {
  uint32_t usec = 0;
  probeTimeUSecElapsed(until, entry.txTime, &usec);
  return static_cast<uint32_t>(std::min<uint64_t>(usec, monotonicUsec() - entry.txMonotonicUsec));
}

// The kernel's receive time where the clock was not set meanwhile, else now.
timeval answerTime(const pingSessionEntry &entry, const std::optional<timeval> &received) {
  const timeval now = timeOfDay();
  const bool plausible = received && !before(*received, entry.txTime) && !before(now, *received);
  return plausible ? *received : now;
}

// ---- the pass

void probeAgentSetFd(ProbeWait &wait) {
  const ProbeCallTrace call("probeAgentSetFd");
  FD_ZERO(&wait.readable);
  FD_ZERO(&wait.failed);
  wait.highest = 0;
  forRunningSessions([&](pingSessionEntry &entry) {
    FD_SET(entry.sockFd, &wait.readable);
    FD_SET(entry.sockFd, &wait.failed);
    wait.highest = std::max(wait.highest, entry.sockFd);
    entry.waitedFor = 1;
  });
}

// A session that was started during the wait is only looked at for its timers: its descriptor may be one of the sets
// that belonged to a session stopped meanwhile.
void sessionsServe(const ProbeWait &wait, uint32_t elapsedUsec) {
  forRunningSessions([&](pingSessionEntry &entry) {
    if (entry.waitedFor != 0 && FD_ISSET(entry.sockFd, &wait.readable)) {
      probeAgentPingRxPdu(entry);
    }
    if (entry.waitedFor != 0 && entry.sockFd > 0 && FD_ISSET(entry.sockFd, &wait.failed)) {
      probeAgentPingRxErr(entry);
    }
    probeElapsedTime(entry, elapsedUsec);
  });
}

// Serves what the wait of so many microseconds brought, unless none has been yet, and prepares the next wait. False ends the
// task: no session runs, or it was cancelled while it did not wait. Not inlined, as the clock's reading is not: its locals
// must be gone in the wait.
[[gnu::noinline]] bool nextPass(ProbeWait &wait, bool waited, uint32_t elapsedUsec) {
  const ProbeLock lock;
  if (pthread_equal(probeAgentTaskId, pthread_self()) == 0) {
    return false;
  }
  if (waited) {
    sessionsServe(wait, elapsedUsec);
  }
  if (activeSessionCount == 0) {
    probeAgentTaskId = 0;
    return false;
  }
  probeAgentSetFd(wait);
  wait.limit = probeAgentGetProbeTimeout();
  return true;
}

void cancellationEnable() {
  const int error = pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
  if (error != 0) {
    probeAgentLog(SEVERITY_ALERT, COMPONENT_MIREL, "unable enable cancelation for probeAgentTask thread err %d:%s\n",
                  error, strerror(error));
  }
}

void cancellationDisable() {
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
}

void waitFailed(ProbeWait &wait, int result) {
  FD_ZERO(&wait.readable);
  FD_ZERO(&wait.failed);
  probeAgentLog(SEVERITY_WARNING, COMPONENT_MIREL, "osapiSelect Returns error %d in %s \n", result, TASK_OPERATION);
}

// Waits, the only place where the task can be cancelled, and returns the microseconds that took. The time is the
// monotonic clock's, since setting the time of day must not run the timers out.
uint32_t cancellableWait(ProbeWait &wait) {
  const uint64_t begin = monotonicUsec();
  cancellationEnable();
  const int result = select(wait.highest + 1, &wait.readable, nullptr, &wait.failed, &wait.limit);
  cancellationDisable();
  if (result < 0) {
    waitFailed(wait, result);
  }
  return static_cast<uint32_t>(monotonicUsec() - begin);
}

} // namespace

timeval probeAgentGetProbeTimeout() {
  const ProbeCallTrace call("probeAgentGetProbeTimeout");
  uint32_t residue = UINT32_MAX;
  forRunningSessions([&](const pingSessionEntry &entry) {
    residue = std::min(residue, entry.timeToNextProbe);
    if (entry.awaitingReply == 1) {
      residue = std::min(residue, entry.timeToTimeout);
    }
  });
  if (residue > USEC_PER_SEC) {
    return {.tv_sec = 1, .tv_usec = 0};
  }
  residue = std::max(residue, 1u); // a wait of no time would be a poll
  return {.tv_sec = residue / USEC_PER_SEC, .tv_usec = residue % USEC_PER_SEC};
}

void *probeAgentTask(void *) {
  cancellationDisable(); // a thread is born with it enabled, but cannot be cancelled before it first waits
  pthread_detach(pthread_self());
  probeAgentTrace("%d: %s : \n", __LINE__, TASK_OPERATION);
  uint32_t elapsedUsec = 0;
  for (bool waited = false; nextPass(probeWait, waited, elapsedUsec); waited = true) {
    elapsedUsec = cancellableWait(probeWait);
  }
  probeAgentTrace("%d: %s : \n\n", __LINE__, TASK_OPERATION);
  return nullptr;
}

bool probeAgentPingValidate(const pingSessionEntry &entry, const IcmpMessage &message) {
  const ProbeCallTrace call("probeAgentPingValidate");
  switch (message.type) {
  case ICMP_DEST_UNREACH:
    return unreachableValidate(entry, message);
  case ICMP_ECHOREPLY:
    return replyValidate(entry, message);
  default:
    return false;
  }
}

void probeAgentPingRxPdu(pingSessionEntry &entry) {
  constexpr const char *OPERATION = "probeAgentPingRxPdu";
  const ProbeCallTrace call(OPERATION);
  const size_t size = std::max(BUFFER_SIZE, IP_HEADER_MAX + ICMP_HEADER_SIZE + entry.dataSize);
  const std::unique_ptr<uint8_t[]> buffer = bufferMake(size, OPERATION);
  if (!buffer) {
    return;
  }
  std::optional<timeval> received;
  const ssize_t length = datagramReceive(entry.sockFd, buffer.get(), size, received);
  IcmpMessage message{};
  if (length < 0 || !probeIcmpParse({buffer.get(), static_cast<size_t>(length)}, message) ||
      !probeAgentPingValidate(entry, message)) {
    return;
  }
  entry.rxTime = answerTime(entry, received);
  if (message.type == ICMP_ECHOREPLY) {
    entry.probeResult = PING_REPLY;
    entry.rttUsec = usecSinceSend(entry, entry.rxTime);
    entry.probeFailed = 0;
    ++entry.rxCount;
    entry.rxSeqNum = message.seqNum;
  } else {
    entry.probeResult = PING_UNREACHABLE;
    entry.rttUsec = 0;
    entry.probeFailed = 1;
    entry.rxSeqNum = 0;
  }
  entry.rxIcmpType = message.type;
  entry.responderAddr = message.source;
  probeAgentPingResultNotifyIpSla(entry);
}

void probeAgentPingRxErr(pingSessionEntry &entry) {
  const ProbeCallTrace call("probeAgentPingRxErr");
  entry.probeResult = PING_SOCKET_ERROR;
  entry.probeFailed = 1;
  probeAgentPingResultNotifyIpSla(entry);
}

void probeElapsedTime(pingSessionEntry &entry, uint32_t elapsedUsec) {
  const ProbeCallTrace call("probeElapsedTime");
  if (entry.awaitingReply == 1) {
    if (elapsedUsec >= entry.timeToTimeout) {
      probeAgentProbeTimedOut(entry);
      entry.timeToTimeout = 0;
    } else {
      entry.timeToTimeout -= elapsedUsec;
    }
  }
  if (elapsedUsec >= entry.timeToNextProbe) {
    probeAgentSendPingProbe(entry);
  } else {
    entry.timeToNextProbe -= elapsedUsec;
  }
}

void probeAgentSendPingProbe(pingSessionEntry &entry) {
  constexpr const char *OPERATION = "probeAgentSendPingProbe";
  const ProbeCallTrace call(OPERATION);
  entry.timeToNextProbe = entry.frequencyUsec;
  entry.timeToTimeout = entry.timeoutUsec;
  const size_t length = ICMP_HEADER_SIZE + entry.dataSize;
  const std::unique_ptr<uint8_t[]> buffer = bufferMake(std::max(BUFFER_SIZE, length), OPERATION);
  if (!buffer) {
    return;
  }
  probeEchoRequestWrite({buffer.get(), length}, entry.icmpIdent, entry.seqNum);
  ++entry.seqNum;
  sockaddr_in target{};
  target.sin_family = AF_INET;
  target.sin_addr.s_addr = htonl(entry.targetAddr);
  entry.rxTime = {};
  entry.probeResult = PING_NO_RESULT;
  entry.probeFailed = 0;
  entry.awaitingReply = 1; // also when it cannot be sent: reported as a time-out
  entry.txTime = timeOfDay();
  entry.txMonotonicUsec = monotonicUsec();
  // A full send buffer must not hold up the other sessions.
  if (sendto(entry.sockFd, buffer.get(), length, MSG_DONTWAIT, reinterpret_cast<const sockaddr *>(&target),
             sizeof target) < 0) {
    probeAgentLog(SEVERITY_WARNING, COMPONENT_MIREL, "vrProbeAgent: Failed to send ICMPv4 Echo Request packet.\n");
    return;
  }
  ++entry.txCount;
}

uint32_t probeAgentProbeTimedOut(pingSessionEntry &entry) {
  const ProbeCallTrace call("probeAgentProbeTimedOut");
  if (entry.sessionState != PING_SESSION_RUNNING) {
    return 1;
  }
  if (entry.rxTime.tv_sec == 0 && entry.rxTime.tv_usec == 0) {
    entry.probeResult = PING_TIMED_OUT;
    entry.probeFailed = 1;
    probeAgentPingResultNotifyIpSla(entry);
  }
  return 0;
}

uint32_t probeAgentPingResultNotifyIpSla(pingSessionEntry &entry) {
  const ProbeCallTrace call("probeAgentPingResultNotifyIpSla");
  if (entry.sessionState != PING_SESSION_RUNNING) {
    return 1;
  }
  entry.awaitingReply = 0;
  uint32_t code = entry.rttUsec > entry.thresholdUsec ? PROBE_ABOVE_THRESHOLD : PROBE_IN_TIME;
  uint32_t usec = entry.rttUsec;
  uint32_t msec = usec / USEC_PER_MSEC;
  if (entry.probeFailed == 1) {
    code = PROBE_FAILED;
    msec = 0;
    usec = usecSinceSend(entry, timeOfDay());
  }
  const ApiLock lock;
  if (rpcclt_tarnapiMirelProbeResultIpSlaNotify(tarnapiClientHandle, mirelVrfId, entry.ipSlaId, code, msec, usec) !=
      TARN_OK) {
    probeAgentLog(SEVERITY_WARNING, COMPONENT_MIREL,
                  "VRF-ID: %d, Failed to notify IP SLA return code %d for IP SLA %d.", mirelVrfId, code, entry.ipSlaId);
  }
  return 0;
}
