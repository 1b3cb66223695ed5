// A request and its answer, with deadlines: an agent that hangs does not hang its operator.

#include "mirelsh_request.h"

#include "devshell_protocol.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>

namespace {

constexpr std::chrono::seconds ANSWER_TIME{60};

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

} // namespace

std::optional<AgentReply> agentAsk(const Agent &agent, const std::vector<std::string> &words, std::string &problem) {
  const std::string who = "agent " + std::to_string(agent.pid);
  std::string request;
  for (const std::string &word : words) {
    request.append(word).push_back('\0');
  }
  const UniqueFd fd = agentConnect(agent.socketPath);
  if (!fd) {
    problem = who + " cannot be reached: " + strerror(errno);
    return std::nullopt;
  }
  if (send(fd.get(), request.data(), request.size(), MSG_NOSIGNAL) < 0) {
    problem = who + " did not take the request: " + strerror(errno);
    return std::nullopt;
  }
  std::vector<char> packet;
  DevshellAnswer answer;
  if (!receivePacket(fd.get(), packet) || packet.size() != sizeof answer) {
    problem = who + " does not answer";
    return std::nullopt;
  }
  memcpy(&answer, packet.data(), sizeof answer);
  std::optional<std::string> output = receiveText(fd.get(), answer.output);
  std::optional<std::string> message = output ? receiveText(fd.get(), answer.message) : std::nullopt;
  if (!message) {
    problem = who + " broke off its answer";
    return std::nullopt;
  }
  return AgentReply{answer.status, std::move(*output), std::move(*message)};
}
