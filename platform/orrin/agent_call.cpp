// One request to an agent and its reply. The socket is bound to a path with the process's number, so that several processes can
// ask one agent, and is unlinked after the call.

#include "agent_call.h"

#include "rpc_crc.h"
#include "rpc_datagram.h"
#include "switch.h"
#include "unique_fd.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

namespace orrin {

namespace {

constexpr const char *SERVICE = "mirel";
constexpr const char *CLIENT = "ctl";
constexpr uint64_t ANSWER_MS = 2000;

template <typename Value> void append(std::string &bytes, const Value &value) {
  bytes.append(reinterpret_cast<const char *>(&value), sizeof value);
}

sockaddr_un addressOf(const char *format, const char *name, uint32_t number) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::snprintf(address.sun_path, sizeof address.sun_path, format, name, static_cast<int>(number));
  return address;
}

// The number of the request stands where the server leaves the bytes as they are: a reply that comes too late does not pass
// for that to the next request.
std::string requestOf(uint64_t number, AgentProcedure procedure, const std::vector<std::string> &arguments) {
  RpcMsgHeader header{};
  std::string area;
  const auto slot = [&](const std::string &bytes) {
    header.argOffset[header.argCount++] = static_cast<uint32_t>(area.size());
    append(area, static_cast<int32_t>(bytes.size()));
    area += bytes;
  };
  slot(wordArgument(0)); // the result
  for (const std::string &argument : arguments) {
    slot(argument);
  }
  header.procedure = static_cast<uint32_t>(procedure);
  header.totalLength = static_cast<uint32_t>(sizeof header + area.size() + RPC_CRC_SIZE);
  std::memcpy(header.reserved12, &number, sizeof number);
  std::string request;
  append(request, header);
  request += area;
  append(request, rpcCrc32(reinterpret_cast<const uint8_t *>(request.data()), request.size()));
  return request;
}

// The bytes of a slot of the reply, which has those of the request where the request had them; none when it does not fit.
std::string slotOf(std::string_view reply, const RpcMsgHeader &header, uint32_t slot) {
  int32_t length = 0;
  const uint64_t at = uint64_t{sizeof header} + header.argOffset[slot];
  if (at + sizeof length > reply.size()) {
    return {};
  }
  std::memcpy(&length, reply.data() + at, sizeof length);
  const bool inside = length > 0 && at + sizeof length + static_cast<uint64_t>(length) <= reply.size();
  return inside ? std::string(reply.substr(at + sizeof length, static_cast<size_t>(length))) : std::string();
}

// False for what is no reply to this request.
bool readReply(const std::string &request, std::string_view bytes, AgentReply &reply) {
  RpcMsgHeader asked;
  RpcMsgHeader header;
  if (bytes.size() < sizeof header) {
    return false;
  }
  std::memcpy(&asked, request.data(), sizeof asked);
  std::memcpy(&header, bytes.data(), sizeof header);
  if (bytes.size() == sizeof header && header.totalLength == RPC_REFUSED && header.argCount == 0) {
    reply.trouble = "refused the request as damaged";
    return true;
  }
  if (bytes.size() + RPC_CRC_SIZE != request.size() ||
      std::memcmp(header.reserved12, asked.reserved12, sizeof header.reserved12) != 0) {
    return false;
  }
  if (header.status != RPC_STATUS_DONE) {
    reply.trouble = "answered with status " + std::to_string(header.status);
    return true;
  }
  reply.result = argumentWord(slotOf(bytes, asked, 0));
  for (uint32_t slot = 1; slot < asked.argCount; ++slot) {
    reply.arguments.push_back(slotOf(bytes, asked, slot));
  }
  return true;
}

AgentReply troubleOf(int error) {
  AgentReply reply;
  reply.absent = error == ENOENT || error == ECONNREFUSED || error == ECONNRESET || error == ENOTCONN;
  reply.trouble = reply.absent      ? "is not there"
                  : error == EAGAIN ? "has not answered in time"
                                    : std::string("cannot be reached: ") + std::strerror(error);
  return reply;
}

} // namespace

std::string wordArgument(uint32_t value) {
  std::string bytes;
  append(bytes, value);
  return bytes;
}

uint32_t argumentWord(const std::string &bytes) {
  uint32_t value = 0;
  if (bytes.size() >= sizeof value) {
    std::memcpy(&value, bytes.data(), sizeof value);
  }
  return value;
}

namespace {

// Returns an errno, 0 when sent.
int send(int fd, uint32_t vrf, const sockaddr_un &own, const std::string &request) {
  const sockaddr_un agent = addressOf(RPC_SERVER_PATH, SERVICE, vrf);
  const timeval patience{ANSWER_MS / 1000, 0};
  setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
  unlink(own.sun_path); // left by a process of the same number that was killed in the middle of a call
  const bool sent = connect(fd, reinterpret_cast<const sockaddr *>(&agent), sizeof agent) == 0 &&
                    bind(fd, reinterpret_cast<const sockaddr *>(&own), sizeof own) == 0 &&
                    ::send(fd, request.data(), request.size(), MSG_NOSIGNAL) >= 0;
  return sent ? 0 : errno;
}

AgentReply receive(int fd, const std::string &request) {
  const uint64_t deadline = nowMs() + ANSWER_MS;
  std::array<char, 4096> bytes; // longer than any request of ours
  for (uint64_t now = nowMs(); now < deadline; now = nowMs()) {
    pollfd readable = {fd, POLLIN, 0};
    if (poll(&readable, 1, static_cast<int>(deadline - now)) <= 0) {
      continue;
    }
    const ssize_t length = recv(fd, bytes.data(), bytes.size(), MSG_DONTWAIT);
    const int error = errno;
    if (length < 0 && error != EAGAIN && error != EINTR) {
      return troubleOf(error);
    }
    AgentReply reply;
    if (length >= 0 && readReply(request, {bytes.data(), static_cast<size_t>(length)}, reply)) {
      return reply;
    }
  }
  return troubleOf(EAGAIN);
}

} // namespace

AgentReply callAgent(uint32_t vrf, AgentProcedure procedure, const std::vector<std::string> &arguments) {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  const std::string request = requestOf(
      static_cast<uint64_t>(now.tv_sec) * 1000000000 + static_cast<uint64_t>(now.tv_nsec), procedure, arguments);
  const sockaddr_un own = addressOf(RPC_CLIENT_PATH, CLIENT, static_cast<uint32_t>(getpid()));
  const UniqueFd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  const int error = fd ? send(fd.get(), vrf, own, request) : errno;
  AgentReply reply = error == 0 ? receive(fd.get(), request) : troubleOf(error);
  unlink(own.sun_path);
  return reply;
}

} // namespace orrin
