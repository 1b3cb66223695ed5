// Calls about IP SLA operations, and their start in an agent that has come. Used by orrin's one thread.

#include "ipsla.h"

#include <cstdio>

namespace orrin {

namespace {

constexpr uint64_t START_RETRY_MS = 500;
constexpr uint32_t START_TRIES = 240;

// An agent that has just come takes operations as soon as its start-up is through.
void tryAgain(Vrf &vrf) {
  if (++vrf.startTries < START_TRIES) {
    vrf.startAtMs = nowMs() + START_RETRY_MS;
    return;
  }
  std::fprintf(stderr, "orrin: the agent of VRF %u does not take its IP SLA operations\n", vrf.id);
  vrf.toStart.clear();
}

// The first operation that waits, if the agent that is asked is still the one that has come last.
struct Start {
  Switch &sw;
  uint32_t vrf;
  uint32_t operation;
  uint32_t agent;

  Vrf *wanted() const {
    Vrf *found = findVrf(sw, vrf);
    return found != nullptr && found->agentsCome == agent ? found : nullptr;
  }
};

void startNext(Vrf &vrf) {
  vrf.toStart.pop_front();
  vrf.startTries = 0;
  vrf.startAtMs = nowMs();
}

void startEnded(const Start &start, const AgentReply &reply) {
  Vrf *vrf = start.wanted();
  if (vrf == nullptr) {
    return;
  }
  if (!reply.trouble.empty()) {
    tryAgain(*vrf);
    return;
  }
  if (reply.result != 0) {
    std::fprintf(stderr, "orrin: the agent of VRF %u refused IP SLA operation %u\n", start.vrf, start.operation);
  }
  startNext(*vrf);
}

void stopEnded(const Start &start, const AgentReply &reply) {
  Vrf *vrf = start.wanted();
  if (vrf == nullptr) {
    return;
  }
  const auto operation = vrf->operations.find(start.operation);
  if (operation == vrf->operations.end()) { // removed in the meantime
    startNext(*vrf);
  } else if (!reply.trouble.empty() || reply.result != 0) {
    tryAgain(*vrf);
  } else {
    callProbeStart(start.sw, start.vrf, start.operation, operation->second,
                   [start](const AgentReply &started) { startEnded(start, started); });
  }
}

} // namespace

void callProbeStart(Switch &sw, uint32_t vrf, uint32_t number, const IpSlaOperation &operation, AgentCalls::Done done) {
  std::vector<std::string> arguments;
  for (const uint32_t value : {vrf, number, operation.target, operation.source, operation.frequency,
                               operation.threshold, operation.timeout, operation.size}) {
    arguments.push_back(wordArgument(value));
  }
  sw.agents.call(vrf, AgentProcedure::PROBE_START, arguments, std::move(done));
}

void callProbeStop(Switch &sw, uint32_t vrf, uint32_t number, AgentCalls::Done done) {
  sw.agents.call(vrf, AgentProcedure::PROBE_STOP, {wordArgument(vrf), wordArgument(number)}, std::move(done));
}

void startOperations(Vrf &vrf) {
  vrf.toStart.clear();
  for (const auto &[number, operation] : vrf.operations) {
    vrf.toStart.push_back(number);
  }
  vrf.startTries = 0;
  vrf.startAtMs = nowMs();
  ++vrf.agentsCome;
}

void runDueStarts(Switch &sw) {
  for (auto &[id, vrf] : sw.vrfs) {
    if (vrf.toStart.empty() || vrf.startAtMs == 0 || vrf.startAtMs > nowMs()) {
      continue;
    }
    vrf.startAtMs = 0;
    const Start start = {sw, id, vrf.toStart.front(), vrf.agentsCome};
    callProbeStop(sw, id, start.operation, [start](const AgentReply &stopped) { stopEnded(start, stopped); });
  }
}

uint64_t nextStartMs(const Switch &sw) {
  uint64_t next = 0;
  for (const auto &[id, vrf] : sw.vrfs) {
    if (!vrf.toStart.empty() && vrf.startAtMs != 0 && (next == 0 || vrf.startAtMs < next)) {
      next = vrf.startAtMs;
    }
  }
  return next;
}

std::string operationLine(uint32_t vrf, uint32_t number, const IpSlaOperation &operation) {
  std::string line = "ipsla start";
  appendNumber(line += " vrf ", vrf);
  appendNumber(line += ' ', number);
  appendAddress(line += " to ", operation.target);
  if (operation.source != 0) {
    appendAddress(line += " from ", operation.source);
  }
  appendNumber(line += " frequency ", operation.frequency);
  appendNumber(line += " threshold ", operation.threshold);
  appendNumber(line += " timeout ", operation.timeout);
  appendNumber(line += " size ", operation.size);
  return line;
}

void appendOperations(const Vrf &vrf, std::string &out) {
  for (const auto &[number, operation] : vrf.operations) {
    out.append(operationLine(vrf.id, number, operation)).append(1, '\n');
  }
}

} // namespace orrin
