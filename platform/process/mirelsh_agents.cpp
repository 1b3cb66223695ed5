// The agents are found by their sockets in <run>/shell; which VRF one serves is in its first argument.

#include "mirelsh_agents.h"

#include "run_dir.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr std::string_view AGENT_PROGRAM = "mirel";
constexpr timeval CONNECT_TIME = {.tv_sec = 5, .tv_usec = 0};
constexpr size_t COMMAND_LINE_MAX = 4096;

std::optional<int> pidRead(std::string_view text) {
  int number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc{} && end == text.data() + text.size() ? std::optional(number) : std::nullopt;
}

std::vector<std::string> argumentsOf(int pid) {
  const std::string path = "/proc/" + std::to_string(pid) + "/cmdline";
  const UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  std::array<char, COMMAND_LINE_MAX> bytes;
  const ssize_t length = fd ? read(fd.get(), bytes.data(), bytes.size()) : 0;
  std::vector<std::string> arguments;
  for (ssize_t at = 0; at < length;) {
    arguments.emplace_back(bytes.data() + at, strnlen(bytes.data() + at, static_cast<size_t>(length - at)));
    at += static_cast<ssize_t>(arguments.back().size()) + 1;
  }
  return arguments;
}

std::string programOf(int pid) {
  const UniqueFd fd(open(("/proc/" + std::to_string(pid) + "/comm").c_str(), O_RDONLY | O_CLOEXEC));
  char name[16];
  const ssize_t length = read(fd.get(), name, sizeof name);
  return length > 0 ? std::string(name, static_cast<size_t>(length - 1)) : ""; // without its line end
}

// The number after the last hyphen of the first argument, as the agent reads it; an agent whose argument has none serves
// VRF 0.
std::optional<uint32_t> vrfOf(int pid, const std::string &argument) {
  const size_t hyphen = argument.rfind('-');
  if (hyphen != std::string::npos) {
    return static_cast<uint32_t>(strtol(argument.c_str() + hyphen + 1, nullptr, 10));
  }
  return programOf(pid) == AGENT_PROGRAM ? std::optional<uint32_t>(0) : std::nullopt;
}

Agent agentOf(int pid, std::string socketPath) {
  Agent agent = {pid, std::nullopt, "", std::move(socketPath)};
  const std::vector<std::string> arguments = argumentsOf(pid);
  for (const std::string &argument : arguments) {
    agent.commandLine += (agent.commandLine.empty() ? "" : " ") + argument;
  }
  if (arguments.size() > 1) {
    agent.vrf = vrfOf(pid, arguments[1]);
  }
  return agent;
}

bool processRuns(int pid) {
  return access(("/proc/" + std::to_string(pid)).c_str(), F_OK) == 0;
}

UniqueFd connectTo(const std::string &path, int socketFlags) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) {
    errno = ENAMETOOLONG;
    return {};
  }
  memcpy(address.sun_path, path.c_str(), path.size());
  UniqueFd fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | socketFlags, 0));
  setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &CONNECT_TIME, sizeof CONNECT_TIME); // holds for connect and send
  if (!fd || connect(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
    return {};
  }
  return fd;
}

// A socket that refuses is a dead process's, also when another process has got its number since. One whose queue is full, or
// that is not ours to ask, is somebody's.
bool somebodyListens(const std::string &path) {
  return connectTo(path, SOCK_NONBLOCK) || errno != ECONNREFUSED;
}

} // namespace

UniqueFd agentConnect(const std::string &path) {
  return connectTo(path, 0);
}

std::optional<std::vector<Agent>> agentsFind(std::string &problem) {
  std::vector<Agent> agents;
  const std::unique_ptr<DIR, int (*)(DIR *)> folder(opendir(devshellDir().c_str()), closedir);
  if (folder == nullptr && errno != ENOENT) { // without the folder no agent has ever run
    problem = "cannot look for agents in " + devshellDir() + ": " + strerror(errno);
    return std::nullopt;
  }
  while (const dirent *entry = folder ? readdir(folder.get()) : nullptr) {
    constexpr std::string_view SUFFIX = ".sock";
    const std::string_view name(entry->d_name);
    const std::optional<int> pid =
        name.ends_with(SUFFIX) ? pidRead(name.substr(0, name.size() - SUFFIX.size())) : std::nullopt;
    if (!pid) {
      continue;
    }
    std::string path = devshellDir() + "/" + entry->d_name;
    if (!somebodyListens(path)) {
      unlink(path.c_str());
    } else if (processRuns(*pid)) { // not so where its number counts elsewhere
      agents.push_back(agentOf(*pid, std::move(path)));
    }
  }
  std::sort(agents.begin(), agents.end(), [](const Agent &a, const Agent &b) { return a.pid < b.pid; });
  return agents;
}

std::optional<Agent> agentOfVrf(uint32_t vrf, std::string &problem) {
  std::optional<std::vector<Agent>> agents = agentsFind(problem);
  if (!agents) {
    return std::nullopt;
  }
  std::erase_if(*agents, [vrf](const Agent &agent) { return agent.vrf != vrf; });
  if (agents->size() == 1) {
    return agents->front();
  }
  if (agents->empty()) {
    problem = "no agent runs for VRF " + std::to_string(vrf);
    return std::nullopt;
  }
  problem = "several agents run for VRF " + std::to_string(vrf) + ", end all but one of the processes";
  for (const Agent &agent : *agents) {
    problem += " " + std::to_string(agent.pid);
  }
  return std::nullopt;
}
