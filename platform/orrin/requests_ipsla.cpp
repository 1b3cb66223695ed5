// The call with which agents report the outcome of a probe. Used by orrin's one thread.

#include "ipsla.h"
#include "request_handlers.h"
#include "tarnapi.h"

#include <algorithm>

namespace orrin {

int32_t probeResult(const Call &call) {
  Vrf *vrf = findVrf(call.sw, call.args[0]);
  const uint32_t operation = call.args[1];
  const uint32_t code = call.args[2];
  if (vrf == nullptr) {
    return TARN_NOT_FOUND;
  }
  if (operation == 0 || operation > IPSLA_OPERATION_MAX || code >= IpSlaReports::CODE_COUNT) {
    return TARN_INVALID;
  }
  IpSlaReports &reports = vrf->reports[operation];
  reports.code = code;
  reports.msec = call.args[3];
  reports.usec = call.args[4];
  ++reports.counts[code];
  if (code != IpSlaReports::FAILED) {
    reports.lowestUsec = std::min(reports.lowestUsec, reports.usec);
    reports.highestUsec = std::max(reports.highestUsec, reports.usec);
    reports.sumUsec += reports.usec;
  }
  return TARN_OK;
}

} // namespace orrin
