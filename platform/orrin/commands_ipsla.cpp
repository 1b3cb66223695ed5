// Commands about IP SLA operations. Used by orrin's one thread.

#include "commands.h"

#include "report.h"

namespace orrin {

namespace {

void reportPut(Report &report, uint32_t vrf, uint32_t operation, const IpSlaReports &reports) {
  const uint64_t answered = reports.counts[IpSlaReports::IN_TIME] + reports.counts[IpSlaReports::ABOVE_THRESHOLD];
  report.number(vrf);
  report.number(operation);
  report.number(reports.code);
  report.number(reports.msec);
  report.number(reports.usec);
  for (const uint64_t count : reports.counts) {
    report.number(count);
  }
  report.number(answered == 0 ? 0 : reports.lowestUsec);
  report.number(answered == 0 ? 0 : reports.sumUsec / answered);
  report.number(reports.highestUsec);
}

// ipsla show [vrf <id>] [json]
bool ipSlaShow(Switch &sw, Words &words, std::string &out) {
  static constexpr Column COLUMNS[] = {{"vrf", 10},       {"id", 4},       {"code", 4},      {"ms", 10},
                                       {"us", 10},        {"in-time", 8},  {"failed", 8},    {"late", 8},
                                       {"lowest-us", 10}, {"mean-us", 10}, {"highest-us", 0}};
  const Vrf *only = nullptr;
  if (!takeVrfFilter(sw, words, only, out)) {
    return false;
  }
  const bool json = words.takeIf("json");
  if (!takeEnd(words, out)) {
    return false;
  }
  Report report(out, json, COLUMNS);
  for (const auto &[id, vrf] : sw.vrfs) {
    if (only != nullptr && only != &vrf) {
      continue;
    }
    for (const auto &[operation, reports] : vrf.ipSla) {
      reportPut(report, id, operation, reports);
    }
  }
  report.finish();
  return true;
}

constexpr Command COMMANDS[] = {
    {"ipsla show", ipSlaShow, false},
};

} // namespace

std::span<const Command> ipSlaCommands() {
  return COMMANDS;
}

} // namespace orrin
