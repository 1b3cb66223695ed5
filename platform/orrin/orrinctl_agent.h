// The commands that ask a VRF's agent, before orrin: stats, arp add, ipsla start and ipsla stop.
#pragma once

#include <string>
#include <string_view>

namespace orrin {

struct AgentOutcome {
  bool accepted = false;
  bool forTheSwitch = false; // accepted, and the switch keeps the line
  std::string text;
};

bool asksAgent(std::string_view line);
// For a line that does. Waits for the agent's replies.
AgentOutcome askAgent(std::string_view line);

} // namespace orrin
