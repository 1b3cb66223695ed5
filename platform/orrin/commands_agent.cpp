// Commands that ask an agent and change nothing in the switch. Used by orrin's one thread.

#include "commands.h"

#include "agent_calls.h"
#include "report.h"

#include <cstdio>
#include <memory>
#include <optional>

namespace orrin {

namespace {

struct Statistic {
  uint32_t id;
  std::string_view name; // of the MIB-II object; empty for the one that has no value
};

// What agents count, by identifier.
constexpr Statistic STATISTICS[] = {
    {0xF0000, "ipInReceives"},
    {0xF0001, "ipInHdrErrors"},
    {0xF0002, "ipInAddrErrors"},
    {0xF0003, "ipForwDatagrams"},
    {0xF0004, "ipInUnknownProtos"},
    {0xF0005, "ipInDiscards"},
    {0xF0006, "ipInDelivers"},
    {0xF0007, "ipReasmReqds"},
    {0xF0008, "ipReasmOKs"},
    {0xF0009, "ipReasmFails"},
    {0xF000A, "ipFragOKs"},
    {0xF000B, "ipFragFails"},
    {0xF000C, "ipFragCreates"},
    {0xF000E, "icmpInErrors"},
    {0xF000F, "icmpInDestUnreachs"},
    {0xF0010, "icmpInTimeExcds"},
    {0xF0011, "icmpInParmProbs"},
    {0xF0012, "icmpInSrcQuenchs"},
    {0xF0013, "icmpInRedirects"},
    {0xF0014, "icmpInEchos"},
    {0xF0015, "icmpInEchoReps"},
    {0xF0016, "icmpInTimestamps"},
    {0xF0017, "icmpInTimestampReps"},
    {0xF0018, "icmpInAddrMasks"},
    {0xF0019, "icmpInAddrMaskReps"},
    {0xF0100, "ipOutRequests"},
    {0xF0101, "ipOutDiscards"},
    {0xF0102, "ipOutNoRoutes"},
    {0xF0104, "icmpOutErrors"},
    {0xF0105, "icmpOutDestUnreachs"},
    {0xF0106, "icmpOutTimeExcds"},
    {0xF0107, "icmpOutParmProbs"},
    {0xF0108, "icmpOutSrcQuenchs"},
    {0xF0109, "icmpOutRedirects"},
    {0xF010A, "icmpOutEchos"},
    {0xF010B, "icmpOutEchoReps"},
    {0xF010C, "icmpOutTimestamps"},
    {0xF010D, "icmpOutTimestampReps"},
    {0xF010E, "icmpOutAddrMasks"},
    {0xF010F, "icmpOutAddrMaskReps"},
    {0xF0200, ""},
    {0xF0201, "ipReasmTimeout"},
};

struct StatisticsJob {
  Switch &sw;
  uint32_t vrf;
  bool json;
  OutcomeTaker answer;
  std::vector<std::optional<uint32_t>> values; // of the statistics asked so far; none = the agent has none
};

std::string statisticsTable(const StatisticsJob &job) {
  static constexpr Column COLUMNS[] = {{"id", 10}, {"name", 22}, {"value", 0}};
  std::string out;
  Report report(out, job.json, COLUMNS);
  for (size_t row = 0; row < std::size(STATISTICS); ++row) {
    char id[16];
    std::snprintf(id, sizeof id, "0x%X", STATISTICS[row].id);
    report.text(id);
    report.text(STATISTICS[row].name.empty() ? "-" : STATISTICS[row].name);
    const std::string value = job.values[row] ? std::to_string(*job.values[row]) : "";
    report.custom(value.empty() ? "-" : value, value.empty() ? "null" : value);
  }
  report.finish();
  return out;
}

void askNextStatistic(const std::shared_ptr<StatisticsJob> &job) {
  constexpr size_t VALUE = 2; // among the arguments
  const Statistic &statistic = STATISTICS[job->values.size()];
  job->sw.agents.call(
      job->vrf, AgentProcedure::STATS_GET, {wordArgument(job->vrf), wordArgument(statistic.id), wordArgument(0)},
      [job, hasValue = !statistic.name.empty()](const AgentReply &reply) {
        if (!reply.trouble.empty()) {
          job->answer({false, false, agentRefusal(job->vrf, reply)});
          return;
        }
        const bool counted = reply.result == 0 && hasValue;
        job->values.push_back(counted ? std::optional(argumentWord(reply.arguments[VALUE])) : std::nullopt);
        if (job->values.size() < std::size(STATISTICS)) {
          askNextStatistic(job);
        } else {
          job->answer({true, false, statisticsTable(*job)});
        }
      });
}

// stats vrf <id> [json]
bool stats(Switch &sw, Words &words, std::string &out, OutcomeTaker answer) {
  Vrf *vrf = nullptr;
  if (!takeKnownVrf(sw, words, vrf, out)) {
    return false;
  }
  const bool json = words.takeIf("json");
  if (!takeEnd(words, out)) {
    return false;
  }
  askNextStatistic(std::make_shared<StatisticsJob>(StatisticsJob{sw, vrf->id, json, std::move(answer), {}}));
  return true;
}

std::string addressArgument(uint32_t address) {
  return {static_cast<char>(address >> 24), static_cast<char>(address >> 16), static_cast<char>(address >> 8),
          static_cast<char>(address)};
}

// arp add vrf <id> <address> mac <m> interface <n>. The interface is the agent's to judge.
bool arpAdd(Switch &sw, Words &words, std::string &out, OutcomeTaker answer) {
  Vrf *vrf = nullptr;
  uint32_t address = 0;
  uint32_t interface = 0;
  Mac mac{};
  if (!takeKnownVrf(sw, words, vrf, out) || !takeHostAddress(words, address, out) || !takeKeyword(words, "mac", out) ||
      !takeHostMac(words, mac, out) || !takeKeyword(words, "interface", out) ||
      !takeNumber(words, "interface", interface, out) || !takeEnd(words, out)) {
    return false;
  }
  const std::string macBytes(reinterpret_cast<const char *>(mac.data()), mac.size());
  sw.agents.call(vrf->id, AgentProcedure::ARP_ENTRY_ADD,
                 {wordArgument(vrf->id), addressArgument(address), macBytes, wordArgument(interface), wordArgument(0)},
                 [id = vrf->id, answer = std::move(answer)](const AgentReply &reply) {
                   std::string refusal = agentRefusal(id, reply);
                   answer({refusal.empty(), false, std::move(refusal)});
                 });
  return true;
}

constexpr Command COMMANDS[] = {
    {"stats", nullptr, false, stats},
    {"arp add", nullptr, false, arpAdd},
};

} // namespace

std::string agentRefusal(uint32_t vrf, const AgentReply &reply) {
  const std::string agent = "the agent of VRF " + std::to_string(vrf) + ' ';
  if (!reply.trouble.empty()) {
    return agent + reply.trouble;
  }
  return reply.result == 0 ? std::string() : agent + "refused it with " + std::to_string(reply.result);
}

std::span<const Command> agentCommands() {
  return COMMANDS;
}

} // namespace orrin
