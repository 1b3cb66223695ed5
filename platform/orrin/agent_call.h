// One call of a procedure that an agent serves (rpc_datagram.h).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace orrin {

enum class AgentProcedure : uint32_t { STATS_GET = 1, PROBE_START, PROBE_STOP, ARP_ENTRY_ADD };

struct AgentReply {
  std::string trouble; // why there is no result, empty when there is one
  bool absent = false; // with trouble: no agent listens
  uint32_t result = 0;
  std::vector<std::string> arguments; // the bytes of slot 1 and so on, as they came back
};

// The bytes of a number in host order, for an argument; and the number again.
std::string wordArgument(uint32_t value);
uint32_t argumentWord(const std::string &bytes);

// Waits at most two seconds for the reply. The arguments are the bytes of slot 1 and so on.
AgentReply callAgent(uint32_t vrf, AgentProcedure procedure, const std::vector<std::string> &arguments);

} // namespace orrin
