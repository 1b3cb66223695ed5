// Calls of the procedures that agents serve (rpc_datagram.h). An agent is sent one request at a time, the others wait behind
// it; orrin itself waits for none. The socket is there only while calls to the agent are under way.
#pragma once

#include "poller.h"
#include "unique_fd.h"

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
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

class AgentCalls {
public:
  // From the loop, never from within call().
  using Done = std::function<void(const AgentReply &)>;

  static constexpr uint64_t ANSWER_MS = 2000;

  explicit AgentCalls(Poller &poller) : poller_(poller) {}

  // The arguments are the bytes of slot 1 and so on.
  void call(uint32_t vrf, AgentProcedure procedure, const std::vector<std::string> &arguments, Done done);

  // The socket of calls to the VRF's agent has something to read.
  void serve(uint32_t vrf);
  // Sends what waits, and gives up what got no answer in time.
  void runDue(uint64_t nowMs);
  // When to run it next, 0 = no need.
  uint64_t nextDueMs() const;

private:
  struct Waiting {
    uint32_t number;
    std::string request;
    Done done;
  };

  struct Line {
    UniqueFd socket;
    bool bound = false;        // the path of ours is there
    std::deque<Waiting> calls; // of which the first is under way
    bool sent = false;         // it is
    uint64_t dueMs = 0;        // to send it, or to give it up
    uint64_t givenUpMs = 0;    // 0 = not tried yet
  };

  bool open(uint32_t vrf, Line &line);
  void send(uint32_t vrf, Line &line, uint64_t nowMs);
  void finish(uint32_t vrf, Line &line, const AgentReply &reply);

  Poller &poller_;
  std::map<uint32_t, Line> lines_; // by VRF, while there are calls
  uint32_t nextNumber_ = 1;
};

} // namespace orrin
