// What the agent says: the error log through the process library, and the debug trace on standard output.
#pragma once

#include "mirel_context.h"
#include "qvproc.h"

// Severities of the log (syslog numbering).
enum LogSeverity : uint32_t {
  SEVERITY_ALERT = 1,
  SEVERITY_CRITICAL = 2,
  SEVERITY_ERROR = 3,
  SEVERITY_WARNING = 4,
  SEVERITY_NOTICE = 5,
  SEVERITY_INFO = 6,
  SEVERITY_DEBUG = 7,
};

// Components of the log.
enum LogComponent : uint32_t { COMPONENT_RTO_NETLINK = 24, COMPONENT_MIREL = 156 };

// One error log of the agent with the VRF's name in front. The source says its area in a constant LOG_AREA. The few texts
// that carry no prefix, or the VRF's number while its name is not known, call qvproc_logf themselves.
#define MIREL_LOG(severity, format, ...)                                                                               \
  qvproc_logf(severity, COMPONENT_MIREL, LOG_AREA, __LINE__, "[VRF \"%s\"]: " format,                                  \
              mirelVrfName __VA_OPT__(, ) __VA_ARGS__)

// What a trace belongs to: the mask and the bit that switch it on. The traces of rtoDebugMask name their source line.
struct TraceClass {
  const Relaxed<uint32_t> &mask;
  uint32_t bit;
  bool namesLine;

  bool on() const { return (mask & bit) != 0; }
};

inline constexpr TraceClass TRACE_GENERAL{mirelDebugFlags, 0x1, false};
inline constexpr TraceClass TRACE_ARP{mirelDebugFlags, 0x2, false};
inline constexpr TraceClass TRACE_ROUTE_FAILURE{mirelDebugFlags, 0x4, false};
inline constexpr TraceClass TRACE_RTO_CALLS{rtoDebugMask, 0x1, true};
inline constexpr TraceClass TRACE_RTO_SUCCESS{rtoDebugMask, 0x2, true};
inline constexpr TraceClass TRACE_RTO_DETAIL{rtoDebugMask, 0x4, true};
inline constexpr TraceClass TRACE_RTO_FAILURE{rtoDebugMask, 0x8, true};

// Prints one trace, the prefix "[name (VRF id)]:operation: " in front, undivided by other threads' output.
void mirelTracePrint(const TraceClass &traceClass, int line, const char *operation, const char *format, ...)
    __attribute__((format(printf, 4, 5)));

// One trace of the operation named; costs one test while its bit is off, arguments are not evaluated then.
#define MIREL_TRACE(traceClass, operation, format, ...)                                                                \
  do {                                                                                                                 \
    if ((traceClass).on()) {                                                                                           \
      mirelTracePrint(traceClass, __LINE__, operation, format __VA_OPT__(, ) __VA_ARGS__);                             \
    }                                                                                                                  \
  } while (false)
