// One operation, asked of an agent over its debug shell's socket.
#pragma once

#include "mirelsh_agents.h"

struct AgentReply {
  int32_t status; // DevshellStatus, or what the operation returned
  std::string output;
  std::string message;
};

// The agent's reply to the operation and its arguments, or why there is none.
std::optional<AgentReply> agentAsk(const Agent &agent, const std::vector<std::string> &words, std::string &problem);
