// Debug traces on standard output, from any thread.

#include "mirel_trace.h"

#include <cstdarg>
#include <cstdio>

void mirelTracePrint(const TraceClass &traceClass, int line, const char *operation, const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  flockfile(stdout);
  if (traceClass.namesLine) {
    printf("[%s (VRF %u)]:%s:%d: ", mirelVrfName, mirelVrfId, operation, line);
  } else {
    printf("[%s (VRF %u)]:%s: ", mirelVrfName, mirelVrfId, operation);
  }
  vprintf(format, arguments);
  funlockfile(stdout);
  va_end(arguments);
}
