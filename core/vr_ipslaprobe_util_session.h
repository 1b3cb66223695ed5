// What the sources of the probe agent share: the sessions and their lock, the socket, the probe task, log and trace. The
// lock guards the table, its records, the count and the task's handle; it is taken before the API semaphore, never after.
#pragma once

#include "mirel_trace.h"
#include "vr_ipslaprobe_util.h"
#include "vr_ipslaprobe_util_icmp.h"

#include <array>
#include <cstdint>
#include <pthread.h>
#include <sys/time.h>

enum PingSessionState : uint32_t { PING_SESSION_ALLOCATED = 1, PING_SESSION_RUNNING = 2 };

enum PingResult : uint32_t {
  PING_NO_RESULT = 0,
  PING_REPLY = 1,
  PING_SOCKET_ERROR = 3,
  PING_TIMED_OUT = 4,
  PING_UNREACHABLE = 6,
};

// One operation. Times are in microseconds, modulo 2^32; addresses in host byte order.
struct pingSessionEntry {
  uint32_t sessionState; // PingSessionState
  uint32_t ipSlaId;
  uint32_t vrfId;
  int32_t sockFd; // -1 = none
  uint16_t icmpIdent;
  uint16_t dataSize;
  uint32_t targetAddr;
  uint32_t sourceAddr; // 0 = the kernel chooses
  uint32_t frequencyUsec;
  uint32_t timeoutUsec;
  uint32_t thresholdUsec;
  uint32_t tosValue;
  uint32_t timeToNextProbe;
  uint32_t timeToTimeout;
  uint32_t awaitingReply; // from a send to its report
  uint32_t rxCount;
  uint32_t txCount;
  uint16_t seqNum; // of the next request
  timeval txTime;
  uint64_t txMonotonicUsec; // the same on the clock that nobody sets
  timeval rxTime;           // of the last answer; 0 after each send
  uint32_t probeResult;     // PingResult
  uint32_t probeFailed;     // the last outcome has no round trip
  uint32_t rxSeqNum;
  uint32_t rttUsec;
  uint32_t rxIcmpType;
  uint32_t responderAddr;
  uint32_t waitedFor; // its socket is in the sets of the task's present wait
};

inline constexpr uint16_t ICMP_IDENT_OFFSET = 128; // identifier = IP SLA id and this

extern std::array<pingSessionEntry *, IP_SLA_ID_MAX + 1> pingSessionTable; // by IP SLA id; slot 0 stays empty
extern osapiSema *pingSessionTableSema;
extern uint32_t activeSessionCount; // running sessions
extern pthread_t probeAgentTaskId;  // the probe task, 0 = none
extern Relaxed<uint32_t> probeAgentDebugFlag;

class ProbeLock {
public:
  ProbeLock() { osapiSemaTake(pingSessionTableSema, QV_WAIT_FOREVER); }
  ~ProbeLock() { osapiSemaGive(pingSessionTableSema); }
  ProbeLock(const ProbeLock &) = delete;
  ProbeLock &operator=(const ProbeLock &) = delete;
};

// The record in the slot of the id's low 16 bits. 0, or 1 and null when there is none. Lock held.
uint32_t probeSessionEntryGet(uint32_t ipSlaId, pingSessionEntry **entry);
// Empties that slot; 1 when there is no such slot. Lock held.
uint32_t probeSessionEntryClear(uint32_t ipSlaId);

// Counts one more running session; the first one starts the probe task. Lock held.
uint32_t probeAgentNewProbeSessionHndlr();

// Opens the session's socket. Lock held.
uint32_t probeAgentProbeCreateSock(pingSessionEntry &entry);

// Serves the running sessions until there are none; the argument carries nothing.
void *probeAgentTask(void *);

// The steps of the task's passes; lock held.
timeval probeAgentGetProbeTimeout(); // how long to wait
// Whether the message answers the session's last request.
bool probeAgentPingValidate(const pingSessionEntry &entry, const IcmpMessage &message);
void probeAgentPingRxPdu(pingSessionEntry &entry); // one datagram of the session's socket
void probeAgentPingRxErr(pingSessionEntry &entry); // an error condition there
void probeElapsedTime(pingSessionEntry &entry, uint32_t elapsedUsec);
void probeAgentSendPingProbe(pingSessionEntry &entry);
uint32_t probeAgentProbeTimedOut(pingSessionEntry &entry);         // 1 if it does not run
uint32_t probeAgentPingResultNotifyIpSla(pingSessionEntry &entry); // 1 if it does not run

// One log of the probe agent. Texts are cut at 255 characters.
void probeAgentLog(uint32_t severity, uint32_t component, const char *format, ...)
    __attribute__((format(printf, 3, 4)));

// One trace, printed while probeAgentDebugFlag is 1.
void probeAgentTrace(const char *format, ...) __attribute__((format(printf, 1, 2)));

// Traces the begin and the end of an operation.
class ProbeCallTrace {
public:
  explicit ProbeCallTrace(const char *operation, int line = __builtin_LINE()) : operation_(operation), line_(line) {
    probeAgentTrace("%d: %s : \n", line_, operation_);
  }
  ~ProbeCallTrace() { probeAgentTrace("%d: %s : \n\n", line_, operation_); }
  ProbeCallTrace(const ProbeCallTrace &) = delete;
  ProbeCallTrace &operator=(const ProbeCallTrace &) = delete;

private:
  const char *operation_;
  int line_;
};
