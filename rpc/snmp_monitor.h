// The IP and ICMP counters of the namespace's kernel, copied by a thread every ten seconds. Until the first copy all are 0.
#pragma once

#include "relaxed.h"

#include <array>
#include <cstdint>
#include <pthread.h>

enum IpStat : uint32_t {
  IP_FORWARDING,
  IP_DEFAULT_TTL,
  IP_IN_RECEIVES,
  IP_IN_HDR_ERRORS,
  IP_IN_ADDR_ERRORS,
  IP_FORW_DATAGRAMS,
  IP_IN_UNKNOWN_PROTOS,
  IP_IN_DISCARDS,
  IP_IN_DELIVERS,
  IP_OUT_REQUESTS,
  IP_OUT_DISCARDS,
  IP_OUT_NO_ROUTES,
  IP_REASM_TIMEOUT,
  IP_REASM_REQDS,
  IP_REASM_OKS,
  IP_REASM_FAILS,
  IP_FRAG_OKS,
  IP_FRAG_FAILS,
  IP_FRAG_CREATES,
  IP_STATS
};

enum IcmpStat : uint32_t {
  ICMP_IN_MSGS,
  ICMP_IN_ERRORS,
  ICMP_IN_CSUM_ERRORS,
  ICMP_IN_DEST_UNREACHS,
  ICMP_IN_TIME_EXCDS,
  ICMP_IN_PARM_PROBS,
  ICMP_IN_SRC_QUENCHS,
  ICMP_IN_REDIRECTS,
  ICMP_IN_ECHOS,
  ICMP_IN_ECHO_REPS,
  ICMP_IN_TIMESTAMPS,
  ICMP_IN_TIMESTAMP_REPS,
  ICMP_IN_ADDR_MASKS,
  ICMP_IN_ADDR_MASK_REPS,
  ICMP_OUT_MSGS,
  ICMP_OUT_ERRORS,
  ICMP_OUT_DEST_UNREACHS,
  ICMP_OUT_TIME_EXCDS,
  ICMP_OUT_PARM_PROBS,
  ICMP_OUT_SRC_QUENCHS,
  ICMP_OUT_REDIRECTS,
  ICMP_OUT_ECHOS,
  ICMP_OUT_ECHO_REPS,
  ICMP_OUT_TIMESTAMPS,
  ICMP_OUT_TIMESTAMP_REPS,
  ICMP_OUT_ADDR_MASKS,
  ICMP_OUT_ADDR_MASK_REPS,
  ICMP_STATS
};

using KernelCounter = Relaxed<uint64_t>; // written by the monitor alone

extern std::array<KernelCounter, IP_STATS> ipStats;
extern std::array<KernelCounter, ICMP_STATS> icmpStats;

extern pthread_t snmpMonitorThread;

// Thread entry: refreshes the counters every ten seconds, for the first time after ten. No argument.
void *snmpMonitorTask(void *);

// Copies the counters now. Returns 0, or -1 when a file cannot be opened; the counters then stay.
int snmpStatsRefresh();

// The same with files of a counter and a release of one's own.
int snmpStatsRead(const char *snmpPath, const char *releasePath);
