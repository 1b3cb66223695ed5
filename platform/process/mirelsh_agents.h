// The processes that have a debug shell, and which VRF each serves.
#pragma once

#include "unique_fd.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

struct Agent {
  int pid;
  std::optional<uint32_t> vrf; // none: the process has a debug shell but is no agent of a VRF
  std::string commandLine;
  std::string socketPath;
};

// In the order of their numbers; none, with the reason, when they cannot be looked for. Sockets that dead processes left are
// removed.
std::optional<std::vector<Agent>> agentsFind(std::string &problem);

// The one agent of the VRF, or why there is none.
std::optional<Agent> agentOfVrf(uint32_t vrf, std::string &problem);

// A connection to a debug shell's socket; none, with errno, when nobody takes it.
UniqueFd agentConnect(const std::string &socketPath);
