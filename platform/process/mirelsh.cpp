// mirelsh: runs one operation of the debug shell of a running agent and prints what it prints. The agents are found by their
// sockets in <run>/shell; which VRF one serves is in its first argument.

#include "devshell_protocol.h"
#include "run_dir.h"
#include "unique_fd.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <optional>
#include <poll.h>
#include <string_view>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <vector>

namespace {

constexpr std::string_view AGENT_PROGRAM = "mirel";

constexpr int EXIT_FAILED = 1;
constexpr std::chrono::seconds ANSWER_TIME{60};
constexpr timeval CONNECT_TIME = {.tv_sec = 5, .tv_usec = 0};
constexpr size_t COMMAND_LINE_MAX = 4096;

constexpr char USAGE[] = "usage: mirelsh <vrf> <operation> [arguments]\n"
                         "       mirelsh <vrf> help        list the operations of the VRF's agent\n"
                         "       mirelsh --list            list the running agents\n";

struct Agent {
  int pid;
  std::optional<uint32_t> vrf; // none: the process has a debug shell but is no agent of a VRF
  std::string commandLine;
  std::string socketPath;
};

int fail(const std::string &message) {
  fprintf(stderr, "mirelsh: %s\n", message.c_str());
  return EXIT_FAILED;
}

template <typename Number> std::optional<Number> numberRead(std::string_view text) {
  Number number{};
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

UniqueFd connectTo(const std::string &path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) {
    errno = ENAMETOOLONG;
    return {};
  }
  memcpy(address.sun_path, path.c_str(), path.size());
  UniqueFd fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &CONNECT_TIME, sizeof CONNECT_TIME); // holds for connect and send
  if (!fd || connect(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
    return {};
  }
  return fd;
}

// The processes with a debug shell, in the order of their numbers. Sockets that dead processes left are removed.
std::vector<Agent> agentsFind() {
  std::vector<Agent> agents;
  const std::unique_ptr<DIR, int (*)(DIR *)> folder(opendir(devshellDir().c_str()), closedir);
  while (const dirent *entry = folder ? readdir(folder.get()) : nullptr) {
    constexpr std::string_view SUFFIX = ".sock";
    const std::string_view name(entry->d_name);
    const std::optional<int> pid =
        name.ends_with(SUFFIX) ? numberRead<int>(name.substr(0, name.size() - SUFFIX.size())) : std::nullopt;
    if (!pid) {
      continue;
    }
    std::string path = devshellDir() + "/" + entry->d_name;
    if (processRuns(*pid)) {
      agents.push_back(agentOf(*pid, std::move(path)));
    } else if (!connectTo(path) && errno == ECONNREFUSED) {
      unlink(path.c_str()); // nobody listens, not even a process whose number counts elsewhere
    }
  }
  std::sort(agents.begin(), agents.end(), [](const Agent &a, const Agent &b) { return a.pid < b.pid; });
  return agents;
}

int list() {
  printf("%8s %10s  %s\n", "PID", "VRF", "COMMAND");
  for (const Agent &agent : agentsFind()) {
    printf("%8d %10s  %s\n", agent.pid, agent.vrf ? std::to_string(*agent.vrf).c_str() : "-",
           agent.commandLine.c_str());
  }
  return 0;
}

// One packet of the answer; false when the agent ended, or did not answer in time.
bool receivePacket(int fd, std::vector<char> &packet) {
  pollfd readable = {.fd = fd, .events = POLLIN, .revents = 0};
  packet.resize(DEVSHELL_CHUNK_MAX);
  if (poll(&readable, 1, static_cast<int>(std::chrono::milliseconds(ANSWER_TIME).count())) != 1) {
    return false;
  }
  const ssize_t length = recv(fd, packet.data(), packet.size(), 0);
  packet.resize(static_cast<size_t>(std::max<ssize_t>(length, 0)));
  return length > 0;
}

// The next `size` bytes of the answer. They are taken in full before anything is printed: the agent does not wait for a
// reader of ours that stops, a pager for example.
std::optional<std::string> receiveText(int fd, uint64_t size) {
  std::string text;
  std::vector<char> packet;
  while (text.size() < size) {
    if (!receivePacket(fd, packet) || packet.size() > size - text.size()) {
      return std::nullopt;
    }
    text.append(packet.data(), packet.size());
  }
  return text;
}

int run(const Agent &agent, const std::string &request) {
  const std::string who = "agent " + std::to_string(agent.pid);
  const UniqueFd fd = connectTo(agent.socketPath);
  if (!fd) {
    return fail(who + " cannot be reached: " + strerror(errno));
  }
  if (send(fd.get(), request.data(), request.size(), MSG_NOSIGNAL) < 0) {
    return fail(who + " did not take the request: " + strerror(errno));
  }
  std::vector<char> packet;
  DevshellAnswer answer;
  if (!receivePacket(fd.get(), packet) || packet.size() != sizeof answer) {
    return fail(who + " does not answer");
  }
  memcpy(&answer, packet.data(), sizeof answer);
  const std::optional<std::string> output = receiveText(fd.get(), answer.output);
  const std::optional<std::string> message = output ? receiveText(fd.get(), answer.message) : std::nullopt;
  if (!message) {
    return fail(who + " broke off its answer");
  }
  if (fwrite(output->data(), 1, output->size(), stdout) != output->size() || fflush(stdout) != 0) {
    return fail(std::string("cannot print: ") + strerror(errno));
  }
  return answer.status == DEVSHELL_DONE ? 0 : fail(*message);
}

std::optional<Agent> agentOfVrf(uint32_t vrf, std::string &problem) {
  std::vector<Agent> agents = agentsFind();
  std::erase_if(agents, [vrf](const Agent &agent) { return agent.vrf != vrf; });
  if (agents.size() == 1) {
    return agents.front();
  }
  problem = agents.empty() ? "no agent runs for VRF " + std::to_string(vrf)
                           : "several agents run for VRF " + std::to_string(vrf) + ":";
  for (const Agent &agent : agents) {
    problem += " " + std::to_string(agent.pid);
  }
  return std::nullopt;
}

} // namespace

int main(int argc, char **argv) {
  if (argc == 2 && strcmp(argv[1], "--list") == 0) {
    return list();
  }
  if (argc == 2 && (strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0)) {
    fputs(USAGE, stdout);
    return 0;
  }
  const std::optional<uint32_t> vrf = argc >= 2 ? numberRead<uint32_t>(argv[1]) : std::nullopt;
  if (!vrf || argc < 3) {
    fputs(USAGE, stderr);
    return EXIT_FAILED;
  }
  std::string request;
  for (int i = 2; i < argc; ++i) {
    request.append(argv[i]).push_back('\0');
  }
  std::string problem;
  const std::optional<Agent> agent = agentOfVrf(*vrf, problem);
  return agent ? run(*agent, request) : fail(problem);
}
