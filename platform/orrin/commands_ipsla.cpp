// Commands about IP SLA operations, which orrinctl has asked the VRF's agent for. Used by orrin's one thread.

#include "commands.h"

#include "ipsla.h"
#include "report.h"

#include <set>

namespace orrin {

namespace {

// What the agent counts in microseconds fits 32 bits.
constexpr Range FREQUENCIES = {1, UINT32_MAX / 1000000}; // seconds
constexpr Range TIMEOUTS = {1, UINT32_MAX / 1000};       // milliseconds
constexpr Range THRESHOLDS = {0, UINT32_MAX / 1000};
constexpr Range SIZES = {0, UINT16_MAX - 20 - 8}; // an IPv4 datagram less its header and that of the echo request

struct Operation {
  Vrf *vrf = nullptr;
  uint32_t number = 0;
  IpSlaOperation settings;
};

bool takeSetting(Words &words, IpSlaOperation &settings, std::string &out) {
  const std::string_view word = words.take();
  if (word == "from") {
    return takeAddress(words, settings.source, out);
  }
  const struct {
    std::string_view name;
    uint32_t &value;
    Range range;
  } NUMBERS[] = {{"frequency", settings.frequency, FREQUENCIES},
                 {"threshold", settings.threshold, THRESHOLDS},
                 {"timeout", settings.timeout, TIMEOUTS},
                 {"size", settings.size, SIZES}};
  for (const auto &row : NUMBERS) {
    if (word == row.name) {
      return takeNumber(words, row.name, row.value, out, row.range);
    }
  }
  return refuse(out, notTheWord(word, "from, frequency, threshold, timeout or size"));
}

// vrf <id> <operation>
bool takeOperation(Switch &sw, Words &words, Operation &operation, std::string &out) {
  return takeKnownVrf(sw, words, operation.vrf, out) &&
         takeNumber(words, "operation", operation.number, out, {1, IPSLA_OPERATION_MAX});
}

// ipsla start vrf <id> <operation> to <address> [from <address>] [frequency <s>] [threshold <ms>] [timeout <ms>]
// [size <bytes>]
bool takeStart(Switch &sw, Words &words, Operation &operation, std::string &out) {
  if (!takeOperation(sw, words, operation, out) || !takeKeyword(words, "to", out) ||
      !takeAddress(words, operation.settings.target, out)) {
    return false;
  }
  while (!words.atEnd()) {
    if (!takeSetting(words, operation.settings, out)) {
      return false;
    }
  }
  return true;
}

bool ipSlaStart(Switch &sw, Words &words, std::string &out) {
  Operation operation;
  if (!takeStart(sw, words, operation, out)) {
    return false;
  }
  operation.vrf->operations[operation.number] = operation.settings;
  operation.vrf->reports.erase(operation.number);
  return true;
}

// ipsla stop vrf <id> <operation>
bool ipSlaStop(Switch &sw, Words &words, std::string &out) {
  Operation operation;
  if (!takeOperation(sw, words, operation, out) || !takeEnd(words, out)) {
    return false;
  }
  operation.vrf->operations.erase(operation.number);
  return true;
}

void showOperation(Report &report, const Vrf &vrf, uint32_t number) {
  static const IpSlaReports NONE;
  const auto operation = vrf.operations.find(number);
  const auto found = vrf.reports.find(number);
  const IpSlaReports &reports = found == vrf.reports.end() ? NONE : found->second;
  const uint64_t answered = reports.counts[IpSlaReports::IN_TIME] + reports.counts[IpSlaReports::ABOVE_THRESHOLD];
  std::string target;
  if (operation != vrf.operations.end()) {
    appendAddress(target, operation->second.target);
  }
  report.number(vrf.id);
  report.number(number);
  report.text(target.empty() ? "-" : target); // stopped, or not started from here
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
  static constexpr Column COLUMNS[] = {{"vrf", 10}, {"id", 4},         {"target", 16},  {"code", 5},
                                       {"ms", 8},   {"us", 10},        {"in-time", 8},  {"failed", 8},
                                       {"late", 8}, {"lowest-us", 10}, {"mean-us", 10}, {"highest-us", 0}};
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
    std::set<uint32_t> numbers; // kept, or reported
    for (const auto &[number, operation] : vrf.operations) {
      numbers.insert(number);
    }
    for (const auto &[number, reports] : vrf.reports) {
      numbers.insert(number);
    }
    for (const uint32_t number : numbers) {
      showOperation(report, vrf, number);
    }
  }
  report.finish();
  return true;
}

constexpr Command COMMANDS[] = {
    {"ipsla start", ipSlaStart, true},
    {"ipsla stop", ipSlaStop, true},
    {"ipsla show", ipSlaShow, false},
};

} // namespace

std::span<const Command> ipSlaCommands() {
  return COMMANDS;
}

void appendOperations(const Vrf &vrf, std::string &out) {
  for (const auto &[number, operation] : vrf.operations) {
    appendNumber(out += "ipsla start vrf ", vrf.id);
    appendNumber(out += ' ', number);
    appendAddress(out += " to ", operation.target);
    if (operation.source != 0) {
      appendAddress(out += " from ", operation.source);
    }
    appendNumber(out += " frequency ", operation.frequency);
    appendNumber(out += " threshold ", operation.threshold);
    appendNumber(out += " timeout ", operation.timeout);
    appendNumber(out += " size ", operation.size);
    out += '\n';
  }
}

} // namespace orrin
