// The real agent, as a process on the scripted platform (see scripted/scripted.h for script, trace and clock).
#ifndef MIREL_TESTS_AGENT_PROCESS_H
#define MIREL_TESTS_AGENT_PROCESS_H

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <sys/types.h>
#include <vector>

using Lines = std::vector<std::string>;

// The sockets that an agent of VRF 3 serves, with the client ids that the scripted platform hands out.
inline constexpr char ROUTER_EVENT_SOCKET[] = "/tmp/rppi_rec.0005";
inline constexpr char BEST_ROUTE_SOCKET[] = "/tmp/rppi_brc.0007";
inline constexpr char ARP_SOCKET[] = "/tmp/mirel-03/arp-socket";

// Whether the socket took the datagram.
bool sendDatagram(const std::string &socketPath, const std::string &bytes);

// A datagram of a type and a length, which it states; all else is filled with ones, and cut to the length.
std::string eventDatagram(uint16_t type, size_t length);

struct AgentOptions {
  std::vector<std::string> arguments = {"mirel-3"};
  std::string script = {};
  uint64_t clock = 1000;
  std::function<void()> beforeExec = {}; // in the child
};

class AgentProcess {
public:
  explicit AgentProcess(const AgentOptions &options);
  explicit AgentProcess(const std::string &script = "") : AgentProcess(AgentOptions{.script = script}) {}
  ~AgentProcess();
  AgentProcess(const AgentProcess &) = delete;
  AgentProcess &operator=(const AgentProcess &) = delete;

  pid_t pid() const { return pid_; }
  Lines trace() const; // the calls so far
  std::string output() const;
  std::string errors() const;

  void script(const std::string &lines);
  void clock(uint64_t seconds) { clock_->store(seconds); }
  // Moves the clock there, with a router keep-alive every two minutes on the way. Returns the trace of it.
  Lines keepAliveUntil(uint64_t seconds);
  void stop(); // suspends the process, and returns when it stands still
  void resume();

  // Waits until the agent has gone through its loop that many more times from start to end. Returns what the trace has
  // gained since the last call of this or of run(), since what the test did in between may have had its effect already.
  // Throws when it does not happen within a generous time; so do the next two.
  Lines passes(int count = 2);
  // Runs a debug operation between two passes and returns what it prints.
  std::string run(const std::string &operation);
  // Waits for the process to end: "exit 0", "signal 6".
  std::string end();

private:
  void waitUntil(const std::function<bool()> &condition, const std::string &what);
  bool ended();

  std::string folder_;
  std::atomic<uint64_t> *clock_;
  pid_t pid_ = -1;
  int status_ = -1;
  size_t seen_ = 0; // lines of the trace that have been returned
};

#endif
