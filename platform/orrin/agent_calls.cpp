// Requests to agents and their replies. Used by orrin's one thread.

#include "agent_calls.h"

#include "rpc_crc.h"
#include "rpc_datagram.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>

namespace orrin {

namespace {

constexpr const char *SERVICE = "mirel";
constexpr uint64_t FULL_RETRY_MS = 20;

template <typename Value> void append(std::string &bytes, const Value &value) {
  bytes.append(reinterpret_cast<const char *>(&value), sizeof value);
}

sockaddr_un addressOf(const char *format, uint32_t vrf) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::snprintf(address.sun_path, sizeof address.sun_path, format, SERVICE, static_cast<int>(vrf));
  return address;
}

// The number of the request stands where the server leaves the bytes as they are: a reply that comes too late does not pass
// for that to the next request.
std::string requestOf(uint32_t number, AgentProcedure procedure, const std::vector<std::string> &arguments) {
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

AgentReply troubleOf(std::string why, bool absent) {
  AgentReply reply;
  reply.trouble = std::move(why);
  reply.absent = absent;
  return reply;
}

AgentReply troubleOf(int error) {
  const bool absent = error == ENOENT || error == ECONNREFUSED || error == ECONNRESET || error == ENOTCONN;
  return troubleOf(absent ? "is not there" : std::string("cannot be reached: ") + std::strerror(error), absent);
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

void AgentCalls::call(uint32_t vrf, AgentProcedure procedure, const std::vector<std::string> &arguments, Done done) {
  const uint32_t number = nextNumber_++;
  lines_[vrf].calls.push_back({number, requestOf(number, procedure, arguments), std::move(done)});
}

bool AgentCalls::open(uint32_t vrf, Line &line) {
  const sockaddr_un own = addressOf(RPC_CLIENT_PATH, vrf);
  const sockaddr_un agent = addressOf(RPC_SERVER_PATH, vrf);
  UniqueFd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!fd || connect(fd.get(), reinterpret_cast<const sockaddr *>(&agent), sizeof agent) != 0) {
    return false;
  }
  unlink(own.sun_path); // an orrin that ended in the middle of a call leaves it
  if (bind(fd.get(), reinterpret_cast<const sockaddr *>(&own), sizeof own) != 0 ||
      !poller_.watch(fd.get(), EPOLLIN, Watched::AGENT_CALL, vrf)) {
    return false;
  }
  line.socket = std::move(fd);
  line.bound = true;
  return true;
}

void AgentCalls::send(uint32_t vrf, Line &line, uint64_t nowMs) {
  if (line.givenUpMs == 0) {
    line.givenUpMs = nowMs + ANSWER_MS;
  }
  const std::string &request = line.calls.front().request;
  if (!line.socket && !open(vrf, line)) {
    finish(vrf, line, troubleOf(errno));
    return;
  }
  const bool sent = ::send(line.socket.get(), request.data(), request.size(), MSG_DONTWAIT | MSG_NOSIGNAL) >= 0;
  const int error = errno;
  if (sent) {
    line.sent = true;
    line.dueMs = line.givenUpMs;
  } else if (error == EAGAIN || error == EINTR) {
    line.dueMs = nowMs + FULL_RETRY_MS;
  } else {
    finish(vrf, line, troubleOf(error));
  }
}

// The end of the first call. What it calls may ask for more.
void AgentCalls::finish(uint32_t vrf, Line &line, const AgentReply &reply) {
  const Waiting ended = std::move(line.calls.front());
  line.calls.pop_front();
  line.sent = false;
  line.dueMs = 0;
  line.givenUpMs = 0;
  if (!reply.trouble.empty()) { // whoever listens there next gets a new connection
    line.socket.reset();
  }
  ended.done(reply);
  if (line.calls.empty()) {
    if (line.bound) {
      unlink(addressOf(RPC_CLIENT_PATH, vrf).sun_path);
    }
    lines_.erase(vrf);
  }
}

void AgentCalls::serve(uint32_t vrf) {
  const auto entry = lines_.find(vrf);
  if (entry == lines_.end() || !entry->second.socket) {
    return;
  }
  Line &line = entry->second;
  std::array<char, 4096> bytes; // longer than any request of ours
  const ssize_t length = recv(line.socket.get(), bytes.data(), bytes.size(), MSG_DONTWAIT);
  const int error = errno;
  if (length < 0) {
    if (error != EAGAIN && error != EINTR) {
      finish(vrf, line, troubleOf(error));
    }
    return;
  }
  AgentReply reply;
  if (line.sent && readReply(line.calls.front().request, {bytes.data(), static_cast<size_t>(length)}, reply)) {
    finish(vrf, line, reply);
  }
}

void AgentCalls::runDue(uint64_t nowMs) {
  for (auto next = lines_.begin(); next != lines_.end();) {
    const uint32_t vrf = next->first;
    Line &line = next->second;
    ++next; // the end of its last call ends the line
    if (line.dueMs > nowMs) {
      continue;
    }
    if (line.givenUpMs != 0 && line.givenUpMs <= nowMs) {
      finish(vrf, line, troubleOf("has not answered in time", false));
    } else {
      send(vrf, line, nowMs);
    }
  }
}

uint64_t AgentCalls::nextDueMs() const {
  uint64_t next = 0;
  for (const auto &[vrf, line] : lines_) {
    const uint64_t due = std::max<uint64_t>(line.dueMs, 1); // 0 = at once
    next = next == 0 ? due : std::min(next, due);
  }
  return next;
}

} // namespace orrin
