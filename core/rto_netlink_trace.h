// What the sources of the kernel route import share to say what they do.
#pragma once

#include "mirel_address.h"
#include "mirel_trace.h"

// Traces the entry into an operation and, when it goes out of scope, the way out.
class RtoCallTrace {
public:
  explicit RtoCallTrace(const char *operation, int line = __builtin_LINE()) : operation_(operation), line_(line) {
    say("Enter \n\n");
  }
  RtoCallTrace(const RtoCallTrace &) = delete;
  RtoCallTrace &operator=(const RtoCallTrace &) = delete;
  ~RtoCallTrace() { say("Exit \n\n"); }

private:
  void say(const char *text) const {
    if (TRACE_RTO_CALLS.on()) {
      mirelTracePrint(TRACE_RTO_CALLS, line_, operation_, "%s", text);
    }
  }

  const char *operation_;
  int line_;
};

// Text of an address.
struct AddrText {
  char text[ADDR_TEXT_SIZE];

  explicit AddrText(uint32_t ipv4) { osapiInetNtoa(ipv4, text); }
  explicit AddrText(const uint8_t (&ipv6)[16]) { osapiInetNtop(TARN_FAMILY_IPV6, ipv6, text, sizeof text); }
};
