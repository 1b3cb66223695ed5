// Statistics identifiers and the kernel's counters behind them: one table. On the RPC server's thread; the counters are the
// statistics monitor's.

#include "mirel_context.h"
#include "mirel_rpc.h"
#include "snmp_monitor.h"

#include <algorithm>
#include <iterator>

namespace {

struct StatsRow {
  uint32_t statsId;
  const KernelCounter *counter; // null = a success without a value
};

// Sorted by identifier.
constexpr StatsRow STATS[] = {
    {0xF0000, &ipStats[IP_IN_RECEIVES]},
    {0xF0001, &ipStats[IP_IN_HDR_ERRORS]},
    {0xF0002, &ipStats[IP_IN_ADDR_ERRORS]},
    {0xF0003, &ipStats[IP_FORW_DATAGRAMS]},
    {0xF0004, &ipStats[IP_IN_UNKNOWN_PROTOS]},
    {0xF0005, &ipStats[IP_IN_DISCARDS]},
    {0xF0006, &ipStats[IP_IN_DELIVERS]},
    {0xF0007, &ipStats[IP_REASM_REQDS]},
    {0xF0008, &ipStats[IP_REASM_OKS]},
    {0xF0009, &ipStats[IP_REASM_FAILS]},
    {0xF000A, &ipStats[IP_FRAG_OKS]},
    {0xF000B, &ipStats[IP_FRAG_FAILS]},
    {0xF000C, &ipStats[IP_FRAG_CREATES]},
    {0xF000E, &icmpStats[ICMP_IN_ERRORS]},
    {0xF000F, &icmpStats[ICMP_IN_DEST_UNREACHS]},
    {0xF0010, &icmpStats[ICMP_IN_TIME_EXCDS]},
    {0xF0011, &icmpStats[ICMP_IN_PARM_PROBS]},
    {0xF0012, &icmpStats[ICMP_IN_SRC_QUENCHS]},
    {0xF0013, &icmpStats[ICMP_IN_REDIRECTS]},
    {0xF0014, &icmpStats[ICMP_IN_ECHOS]},
    {0xF0015, &icmpStats[ICMP_IN_ECHO_REPS]},
    {0xF0016, &icmpStats[ICMP_IN_TIMESTAMPS]},
    {0xF0017, &icmpStats[ICMP_IN_TIMESTAMP_REPS]},
    {0xF0018, &icmpStats[ICMP_IN_ADDR_MASKS]},
    {0xF0019, &icmpStats[ICMP_IN_ADDR_MASK_REPS]},
    {0xF0100, &ipStats[IP_OUT_REQUESTS]},
    {0xF0101, &ipStats[IP_OUT_DISCARDS]},
    {0xF0102, &ipStats[IP_OUT_NO_ROUTES]},
    {0xF0104, &icmpStats[ICMP_OUT_ERRORS]},
    {0xF0105, &icmpStats[ICMP_OUT_DEST_UNREACHS]},
    {0xF0106, &icmpStats[ICMP_OUT_TIME_EXCDS]},
    {0xF0107, &icmpStats[ICMP_OUT_PARM_PROBS]},
    {0xF0108, &icmpStats[ICMP_OUT_SRC_QUENCHS]},
    {0xF0109, &icmpStats[ICMP_OUT_REDIRECTS]},
    {0xF010A, &icmpStats[ICMP_OUT_ECHOS]},
    {0xF010B, &icmpStats[ICMP_OUT_ECHO_REPS]},
    {0xF010C, &icmpStats[ICMP_OUT_TIMESTAMPS]},
    {0xF010D, &icmpStats[ICMP_OUT_TIMESTAMP_REPS]},
    {0xF010E, &icmpStats[ICMP_OUT_ADDR_MASKS]},
    {0xF010F, &icmpStats[ICMP_OUT_ADDR_MASK_REPS]},
    {0xF0200, nullptr},
    {0xF0201, &ipStats[IP_REASM_TIMEOUT]},
};

static_assert(std::ranges::is_sorted(STATS, {}, &StatsRow::statsId));

} // namespace

uint32_t mirelRpcStatsGet(uint32_t vrfId, uint32_t statsId, uint32_t *value) {
  if (mirelVrfIdDiffers(vrfId) != 0) {
    return 1;
  }
  const StatsRow *row = std::ranges::lower_bound(STATS, statsId, {}, &StatsRow::statsId);
  if (row == std::end(STATS) || row->statsId != statsId) {
    return 1;
  }
  if (row->counter != nullptr) {
    *value = static_cast<uint32_t>(row->counter->get());
  }
  return 0;
}
