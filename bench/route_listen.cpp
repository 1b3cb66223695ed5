// The peer of bench/import: receives route notifications as the agent's listener does, with the same groups and buffers, and only
// counts them. Says "ready", takes what comes until nothing has come for a second, and prints how many announcements it took, how
// often the kernel told it that some were lost, and the nanoseconds of processor time from the first to the last.

#include "unique_fd.h"

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>

namespace {

constexpr int RECEIVE_BUFFER = 1024 * 1024;
constexpr size_t BUFFER_BYTES = 8192;
constexpr int FIRST_WITHIN_MS = 30000;
constexpr timeval SILENCE = {.tv_sec = 1, .tv_usec = 0};

[[noreturn]] void fail(const char *what) {
  const int error = errno;
  fprintf(stderr, "route_listen: %s: %s\n", what, strerror(error));
  exit(1);
}

UniqueFd listenerOpen() {
  UniqueFd fd(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
  sockaddr_nl address{};
  address.nl_family = AF_NETLINK;
  address.nl_groups = RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_ROUTE;
  if (!fd || setsockopt(fd.get(), SOL_SOCKET, SO_RCVBUFFORCE, &RECEIVE_BUFFER, sizeof RECEIVE_BUFFER) != 0 ||
      setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &SILENCE, sizeof SILENCE) != 0 ||
      bind(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
    fail("netlink socket");
  }
  return fd;
}

int64_t processorTime() {
  timespec time{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

struct Count {
  uint64_t announcements = 0;
  uint64_t losses = 0;
};

// False when nothing came for so long.
bool receive(int fd, Count &count) {
  alignas(nlmsghdr) static std::array<char, BUFFER_BYTES> buffer;
  sockaddr_nl sender{};
  iovec data{buffer.data(), buffer.size()};
  msghdr message{};
  message.msg_name = &sender;
  message.msg_namelen = sizeof sender;
  message.msg_iov = &data;
  message.msg_iovlen = 1;
  const ssize_t received = recvmsg(fd, &message, 0);
  if (received < 0) {
    const int error = errno;
    count.losses += error == ENOBUFS ? 1 : 0;
    return error != EAGAIN;
  }
  auto left = static_cast<uint32_t>(received);
  for (const auto *header = reinterpret_cast<const nlmsghdr *>(buffer.data()); NLMSG_OK(header, left);
       header = NLMSG_NEXT(header, left)) {
    ++count.announcements;
  }
  return true;
}

} // namespace

int main() {
  const UniqueFd fd = listenerOpen();
  printf("ready\n");
  fflush(stdout);
  pollfd first{fd.get(), POLLIN, 0};
  if (poll(&first, 1, FIRST_WITHIN_MS) != 1) {
    fprintf(stderr, "route_listen: no announcement came\n");
    return 1;
  }
  Count count;
  const int64_t start = processorTime();
  while (receive(fd.get(), count)) {
  }
  printf("%llu %llu %lld\n", static_cast<unsigned long long>(count.announcements),
         static_cast<unsigned long long>(count.losses), static_cast<long long>(processorTime() - start));
  return 0;
}
