// The table of probe sessions: the operations with which the switch's requests create, start and stop them, on the RPC
// server's thread, and the log and trace of the whole probe agent. The table owns its records; the first running session
// starts the probe task, which ends itself when none runs.

#include "vr_ipslaprobe_util_session.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <netinet/in.h>
#include <new>
#include <sys/socket.h>
#include <unistd.h>

std::array<pingSessionEntry *, IP_SLA_ID_MAX + 1> pingSessionTable = {};
osapiSema *pingSessionTableSema = nullptr;
uint32_t activeSessionCount = 0;
pthread_t probeAgentTaskId = 0;
Relaxed<uint32_t> probeAgentDebugFlag;

namespace {

constexpr char LOG_AREA[] = "application/routing/mirel/core/vr_ipslaprobe_util";
constexpr uint32_t LOG_LINE = 327; // one for all: every log comes from here
constexpr size_t TEXT_SIZE = 256;

constexpr uint32_t USEC_PER_SEC = 1000000;
constexpr uint32_t USEC_PER_MSEC = 1000;
constexpr uint32_t TOS_UNIT = 4; // a type of service stands two bits up in the octet

bool idValid(uint32_t ipSlaId, const char *operation) {
  if (ipSlaId >= IP_SLA_ID_MIN && ipSlaId <= IP_SLA_ID_MAX) {
    return true;
  }
  probeAgentLog(SEVERITY_WARNING, COMPONENT_MIREL, "Invalid IPSLA Id %u passed to %s.", ipSlaId, operation);
  return false;
}

void tosSet(const pingSessionEntry &entry) {
  const uint32_t tos = TOS_UNIT * entry.tosValue;
  if (setsockopt(entry.sockFd, IPPROTO_IP, IP_TOS, &tos, sizeof tos) != 0) {
    probeAgentLog(SEVERITY_WARNING, COMPONENT_MIREL, "Unable to set IP_TOS option");
  }
}

void probeTaskCancel() {
  const ProbeLock lock;
  if (probeAgentTaskId != 0) {
    pthread_cancel(probeAgentTaskId);
    probeAgentTaskId = 0;
  }
}

bool sessionExists(uint32_t ipSlaId) {
  const ProbeLock lock;
  return pingSessionTable[ipSlaId] != nullptr;
}

} // namespace

void probeAgentLog(uint32_t severity, uint32_t component, const char *format, ...) {
  char text[TEXT_SIZE];
  va_list values;
  va_start(values, format);
  vsnprintf(text, sizeof text, format, values);
  va_end(values);
  qvproc_logf(severity, component, LOG_AREA, LOG_LINE, "[VRF-ID:%d] %s", static_cast<int>(mirelVrfIdGet()), text);
}

void probeAgentTrace(const char *format, ...) {
  if (probeAgentDebugFlag != 1) {
    return;
  }
  char text[TEXT_SIZE];
  va_list values;
  va_start(values, format);
  vsnprintf(text, sizeof text, format, values);
  va_end(values);
  printf("\n [VRF-ID:%d] %s.", static_cast<int>(mirelVrfIdGet()), text);
}

void probeAgentDebugSet(uint32_t flag) {
  probeAgentDebugFlag = flag;
}

uint32_t probeAgentDebugGet() {
  return probeAgentDebugFlag;
}

uint32_t probeSessionEntryGet(uint32_t ipSlaId, pingSessionEntry **entry) {
  const uint16_t slot = static_cast<uint16_t>(ipSlaId);
  *entry = slot < pingSessionTable.size() ? pingSessionTable[slot] : nullptr;
  return *entry != nullptr ? 0 : 1;
}

uint32_t probeSessionEntryClear(uint32_t ipSlaId) {
  const uint16_t slot = static_cast<uint16_t>(ipSlaId);
  if (slot >= pingSessionTable.size()) {
    return 1;
  }
  pingSessionTable[slot] = nullptr;
  return 0;
}

uint32_t vrIpSlaProbeAgentProcessInit() {
  const ProbeCallTrace call("vrIpSlaProbeAgentProcessInit");
  probeAgentTrace("%d: %s :  VRF-ID : %d \n", __LINE__, "vrIpSlaProbeAgentProcessInit", mirelVrfIdGet());
  pingSessionTable = {};
  pingSessionTableSema = osapiSemaMCreate(0);
  if (pingSessionTableSema == nullptr) {
    probeAgentLog(SEVERITY_ALERT, COMPONENT_MIREL, "VRF-ID : %d,Failure creating semaphore for pingSessionTable.",
                  mirelVrfIdGet());
    return 1;
  }
  const ProbeLock lock;
  activeSessionCount = 0;
  return 0;
}

uint32_t probeAgentProbeSessionAlloc(uint32_t ipSlaId, uint32_t targetAddr, uint32_t sourceAddr, uint32_t frequencySec,
                                     uint32_t thresholdMsec, uint32_t timeoutMsec, uint32_t payloadSize) {
  constexpr const char *OPERATION = "probeAgentProbeSessionAlloc";
  const ProbeCallTrace call(OPERATION);
  if (!idValid(ipSlaId, OPERATION)) {
    return 1;
  }
  const ProbeLock lock;
  pingSessionEntry *entry = nullptr;
  if (probeSessionEntryGet(ipSlaId, &entry) == 0) {
    probeAgentLog(SEVERITY_WARNING, COMPONENT_MIREL, "Cannot allocate entry - duplicate IP SLA Id.\n");
    return 1;
  }
  entry = new (std::nothrow) pingSessionEntry{};
  if (entry == nullptr) {
    probeAgentLog(SEVERITY_ALERT, COMPONENT_MIREL, " %s : malloc failed\n", OPERATION);
    return 1;
  }
  entry->icmpIdent = static_cast<uint16_t>(ipSlaId + ICMP_IDENT_OFFSET);
  entry->ipSlaId = ipSlaId;
  entry->vrfId = mirelVrfIdGet();
  entry->targetAddr = targetAddr;
  entry->sourceAddr = sourceAddr;
  entry->frequencyUsec = frequencySec * USEC_PER_SEC;
  entry->timeoutUsec = timeoutMsec * USEC_PER_MSEC;
  entry->thresholdUsec = thresholdMsec * USEC_PER_MSEC;
  entry->sockFd = -1;
  entry->sessionState = PING_SESSION_ALLOCATED;
  entry->dataSize = static_cast<uint16_t>(payloadSize);
  pingSessionTable[ipSlaId] = entry;
  return 0;
}

uint32_t probeAgentProbeSessionStart(uint32_t ipSlaId) {
  constexpr const char *OPERATION = "probeAgentProbeSessionStart";
  const ProbeCallTrace call(OPERATION);
  if (!idValid(ipSlaId, OPERATION)) {
    return 1;
  }
  const ProbeLock lock;
  pingSessionEntry *entry = nullptr;
  if (probeSessionEntryGet(ipSlaId, &entry) != 0) {
    return 1;
  }
  if (entry->sessionState != PING_SESSION_ALLOCATED) {
    probeAgentLog(SEVERITY_WARNING, COMPONENT_MIREL, "Invalid state - cannot start session");
    return 1;
  }
  if (probeAgentProbeCreateSock(*entry) != 0) {
    return 1;
  }
  tosSet(*entry);
  entry->sessionState = PING_SESSION_RUNNING;
  return probeAgentNewProbeSessionHndlr();
}

uint32_t probeAgentNewProbeSessionHndlr() {
  const ProbeCallTrace call("probeAgentNewProbeSessionHndlr");
  ++activeSessionCount;
  // A task that was told in its wait that the last session is gone and the next one there serves on.
  if (activeSessionCount != 1 || probeAgentTaskId != 0) {
    return 0;
  }
  pthread_t task;
  const int error = pthread_create(&task, nullptr, probeAgentTask, nullptr);
  if (error != 0) {
    probeAgentLog(SEVERITY_ALERT, COMPONENT_MIREL, "Could not spawn probeAgentTask err %d:%s\n", error,
                  strerror(error));
    return 1;
  }
  probeAgentTaskId = task;
  return 0;
}

uint32_t probeAgentProbeSessionStop(uint32_t ipSlaId) {
  constexpr const char *OPERATION = "probeAgentProbeSessionStop";
  const ProbeCallTrace call(OPERATION);
  if (!idValid(ipSlaId, OPERATION)) {
    return 1;
  }
  const ProbeLock lock;
  pingSessionEntry *entry = nullptr;
  if (probeSessionEntryGet(ipSlaId, &entry) != 0) {
    probeAgentLog(SEVERITY_WARNING, COMPONENT_MIREL, "Entry of IPSLA Id %u passed to %s does not exist.", ipSlaId,
                  OPERATION);
    return 0;
  }
  if (entry->sessionState == PING_SESSION_RUNNING) {
    --activeSessionCount;
  }
  if (entry->sockFd > 0) {
    close(entry->sockFd);
  }
  delete entry;
  probeSessionEntryClear(ipSlaId);
  return 0;
}

uint32_t probeAgentCnfgrUconfigPhase2Process() {
  const ProbeCallTrace call("probeAgentCnfgrUconfigPhase2Process");
  probeTaskCancel();
  for (uint32_t ipSlaId = IP_SLA_ID_MIN; ipSlaId <= IP_SLA_ID_MAX; ++ipSlaId) {
    if (sessionExists(ipSlaId)) {
      probeAgentProbeSessionStop(ipSlaId);
    }
  }
  return 0;
}
