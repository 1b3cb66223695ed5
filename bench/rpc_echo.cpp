// For bench/rpc, which measures the agent's RPC server against the least that a datagram server can do.
//
//   rpc_echo serve <path>             sends back what it receives, without its last four bytes, until it is ended
//   rpc_echo ask <path> <vrf> <n>     n requests for a counter, one after the other's answer; prints the nanoseconds that all took

#include "rpc_crc.h"
#include "rpc_datagram.h"
#include "unique_fd.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>

namespace {

constexpr const char *OWN_PATH = "/tmp/dxcbench.00";
constexpr uint32_t IP_IN_RECEIVES = 0xF0000;
constexpr uint32_t STATS_GET = 1;
constexpr size_t ARGUMENTS = 4; // the result, VRF, identifier, value
constexpr timeval ANSWER_TIME = {.tv_sec = 5, .tv_usec = 0};

struct Argument {
  int32_t length = sizeof(uint32_t);
  uint32_t value = 0;
};

struct Request {
  RpcMsgHeader header{};
  std::array<Argument, ARGUMENTS> arguments;
  uint32_t crc = 0;
};
static_assert(sizeof(Request) == sizeof(RpcMsgHeader) + ARGUMENTS * sizeof(Argument) + RPC_CRC_SIZE);

int fail(const char *what) {
  std::fprintf(stderr, "rpc_echo: %s: %s\n", what, std::strerror(errno));
  return EXIT_FAILURE;
}

sockaddr_un addressOf(const char *path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::snprintf(address.sun_path, sizeof address.sun_path, "%s", path);
  return address;
}

UniqueFd socketAt(const char *path) {
  const sockaddr_un address = addressOf(path);
  UniqueFd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  unlink(path);
  return bind(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 ? std::move(fd) : UniqueFd();
}

int serve(const char *path) {
  static std::array<uint8_t, RPC_MSG_MAX> buffer;
  const UniqueFd fd = socketAt(path);
  if (!fd) {
    return fail(path);
  }
  for (;;) {
    sockaddr_un peer;
    socklen_t peerLength = sizeof peer;
    const ssize_t length =
        recvfrom(fd.get(), buffer.data(), buffer.size(), 0, reinterpret_cast<sockaddr *>(&peer), &peerLength);
    if (length < RPC_CRC_SIZE || sendto(fd.get(), buffer.data(), static_cast<size_t>(length) - RPC_CRC_SIZE, 0,
                                        reinterpret_cast<const sockaddr *>(&peer), peerLength) < 0) {
      return fail("serve");
    }
  }
}

Request requestOf(uint32_t vrf) {
  Request request;
  request.header.totalLength = sizeof request;
  request.header.procedure = STATS_GET;
  request.header.argCount = ARGUMENTS;
  for (uint32_t slot = 0; slot < ARGUMENTS; ++slot) {
    request.header.argOffset[slot] = slot * static_cast<uint32_t>(sizeof(Argument));
  }
  request.arguments[1].value = vrf;
  request.arguments[2].value = IP_IN_RECEIVES;
  request.crc = rpcCrc32(reinterpret_cast<const uint8_t *>(&request), offsetof(Request, crc));
  return request;
}

int ask(const char *path, uint32_t vrf, uint64_t count) {
  const UniqueFd fd = socketAt(OWN_PATH);
  const sockaddr_un server = addressOf(path);
  setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &ANSWER_TIME, sizeof ANSWER_TIME);
  if (!fd || connect(fd.get(), reinterpret_cast<const sockaddr *>(&server), sizeof server) != 0) {
    return fail(path);
  }
  const Request request = requestOf(vrf);
  std::array<uint8_t, sizeof request> reply;
  const auto begin = std::chrono::steady_clock::now();
  for (uint64_t i = 0; i < count; ++i) {
    if (send(fd.get(), &request, sizeof request, 0) < 0 ||
        recv(fd.get(), reply.data(), reply.size(), 0) != static_cast<ssize_t>(sizeof request - RPC_CRC_SIZE)) {
      return fail("no answer");
    }
  }
  const std::chrono::nanoseconds took = std::chrono::steady_clock::now() - begin;
  RpcMsgHeader header;
  Argument result;
  std::memcpy(&header, reply.data(), sizeof header);
  std::memcpy(&result, reply.data() + sizeof header, sizeof result);
  if (header.status != RPC_STATUS_DONE || result.value != 0) {
    std::fprintf(stderr, "rpc_echo: status %d, result %u\n", header.status, result.value);
    return EXIT_FAILURE;
  }
  unlink(OWN_PATH);
  std::printf("%lld\n", static_cast<long long>(took.count()));
  return EXIT_SUCCESS;
}

} // namespace

int main(int argc, char **argv) {
  const std::string_view verb = argc > 1 ? argv[1] : "";
  if (verb == "serve" && argc == 3) {
    return serve(argv[2]);
  }
  if (verb == "ask" && argc == 5) {
    return ask(argv[2], static_cast<uint32_t>(std::strtoul(argv[3], nullptr, 10)), std::strtoull(argv[4], nullptr, 10));
  }
  std::fputs("usage: rpc_echo serve <path> | ask <path> <vrf> <requests>\n", stderr);
  return EXIT_FAILURE;
}
