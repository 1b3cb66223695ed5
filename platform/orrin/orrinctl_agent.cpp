// Commands that ask the VRF's agent. What it took of an operation is the switch's to keep.

#include "orrinctl_agent.h"

#include "agent_call.h"
#include "commands.h"
#include "report.h"

#include <cstdio>

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

// Empty when the agent did it.
std::string agentRefusal(uint32_t vrf, const AgentReply &reply) {
  const std::string agent = "the agent of VRF " + std::to_string(vrf) + ' ';
  if (!reply.trouble.empty()) {
    return agent + reply.trouble;
  }
  return reply.result == 0 ? std::string() : agent + "refused it with " + std::to_string(reply.result);
}

bool takeVrfNumber(Words &words, uint32_t &vrf, std::string &out) {
  return takeKeyword(words, "vrf", out) && takeNumber(words, "vrf", vrf, out, {0, INT32_MAX});
}

// stats vrf <id> [json]
bool stats(Words &words, std::string_view /*line*/, std::string &out) {
  static constexpr Column COLUMNS[] = {{"id", 10}, {"name", 22}, {"value", 0}};
  constexpr size_t VALUE = 2; // among the arguments
  uint32_t vrf = 0;
  if (!takeVrfNumber(words, vrf, out)) {
    return false;
  }
  const bool json = words.takeIf("json");
  if (!takeEnd(words, out)) {
    return false;
  }
  std::string table;
  Report report(table, json, COLUMNS);
  for (const Statistic &statistic : STATISTICS) {
    const AgentReply reply =
        callAgent(vrf, AgentProcedure::STATS_GET, {wordArgument(vrf), wordArgument(statistic.id), wordArgument(0)});
    if (!reply.trouble.empty()) {
      return refuse(out, agentRefusal(vrf, reply));
    }
    char id[16];
    std::snprintf(id, sizeof id, "0x%X", statistic.id);
    const bool counted = reply.result == 0 && !statistic.name.empty();
    const std::string value = counted ? std::to_string(argumentWord(reply.arguments[VALUE])) : "";
    report.text(id);
    report.text(statistic.name.empty() ? "-" : statistic.name);
    report.custom(value.empty() ? "-" : value, value.empty() ? "null" : value);
  }
  report.finish();
  out = std::move(table);
  return true;
}

std::string addressArgument(uint32_t address) {
  return {static_cast<char>(address >> 24), static_cast<char>(address >> 16), static_cast<char>(address >> 8),
          static_cast<char>(address)};
}

// arp add vrf <id> <address> mac <m> interface <n>. The interface is the agent's to judge.
bool arpAdd(Words &words, std::string_view /*line*/, std::string &out) {
  uint32_t vrf = 0;
  uint32_t address = 0;
  uint32_t interface = 0;
  Mac mac{};
  if (!takeVrfNumber(words, vrf, out) || !takeHostAddress(words, address, out) || !takeKeyword(words, "mac", out) ||
      !takeHostMac(words, mac, out) || !takeKeyword(words, "interface", out) ||
      !takeNumber(words, "interface", interface, out) || !takeEnd(words, out)) {
    return false;
  }
  const std::string macBytes(reinterpret_cast<const char *>(mac.data()), mac.size());
  out = agentRefusal(vrf, callAgent(vrf, AgentProcedure::ARP_ENTRY_ADD,
                                    {wordArgument(vrf), addressArgument(address), macBytes, wordArgument(interface),
                                     wordArgument(0)}));
  return out.empty();
}

// The line is read by the switch's own command, in a switch that has nothing but the VRF.
bool takeOperation(Words &words, std::string_view line, Switch &sw, uint32_t &vrf, uint32_t &number, std::string &out) {
  sw.restoring = true; // does nothing to the machine
  return takeVrfNumber(words, vrf, out) && runCommand(sw, "vrf add " + std::to_string(vrf) + " any", out) &&
         runCommand(sw, line, out) && takeNumber(words, "operation", number, out);
}

bool ipSlaStart(Words &words, std::string_view line, std::string &out) {
  Switch sw;
  uint32_t vrf = 0;
  uint32_t number = 0;
  if (!takeOperation(words, line, sw, vrf, number, out)) {
    return false;
  }
  const IpSlaOperation &operation = sw.vrfs.at(vrf).operations.at(number);
  std::vector<std::string> arguments;
  for (const uint32_t value : {vrf, number, operation.target, operation.source, operation.frequency,
                               operation.threshold, operation.timeout, operation.size}) {
    arguments.push_back(wordArgument(value));
  }
  out = agentRefusal(vrf, callAgent(vrf, AgentProcedure::PROBE_START, arguments));
  return out.empty();
}

// An agent that is not there runs nothing.
bool ipSlaStop(Words &words, std::string_view line, std::string &out) {
  Switch sw;
  uint32_t vrf = 0;
  uint32_t number = 0;
  if (!takeOperation(words, line, sw, vrf, number, out)) {
    return false;
  }
  const AgentReply reply = callAgent(vrf, AgentProcedure::PROBE_STOP, {wordArgument(vrf), wordArgument(number)});
  out = reply.absent ? std::string() : agentRefusal(vrf, reply);
  return out.empty();
}

struct AskingCommand {
  std::string_view first;
  std::string_view second; // empty = any
  bool (*handler)(Words &words, std::string_view line, std::string &out);
  bool kept;
};

constexpr AskingCommand COMMANDS[] = {{"stats", "", stats, false},
                                      {"arp", "add", arpAdd, false},
                                      {"ipsla", "start", ipSlaStart, true},
                                      {"ipsla", "stop", ipSlaStop, true}};

const AskingCommand *findCommand(Words &words) {
  const std::string_view first = words.take();
  for (const AskingCommand &command : COMMANDS) {
    if (first == command.first && (command.second.empty() || words.takeIf(command.second))) {
      return &command;
    }
  }
  return nullptr;
}

} // namespace

bool asksAgent(std::string_view line) {
  Words words(line);
  return findCommand(words) != nullptr;
}

AgentOutcome askAgent(std::string_view line) {
  Words words(line);
  const AskingCommand &command = *findCommand(words);
  AgentOutcome outcome;
  outcome.accepted = command.handler(words, line, outcome.text);
  outcome.forTheSwitch = outcome.accepted && command.kept;
  return outcome;
}

} // namespace orrin
