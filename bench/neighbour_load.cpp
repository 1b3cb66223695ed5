// For bench/neighbours: adds neighbours to a device of this namespace one at a time, and, with "listen", is the bare listener
// that the agent is compared with: a thread that subscribes as the agent does and stamps each notification as soon as recv()
// has returned it. Printed are, for each neighbour, its address and the times before the request was sent and after the
// notification was read (0 without listener), nanoseconds of the monotonic clock. "del" removes them again.

#include "unique_fd.h"

#include <arpa/inet.h>
#include <array>
#include <atomic>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <linux/neighbour.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <string_view>
#include <sys/socket.h>
#include <thread>
#include <vector>

namespace {

constexpr int64_t NSEC = 1'000'000'000;
constexpr int64_t INTERVAL = 2'000'000; // between two changes: each finds everyone asleep
constexpr timeval SILENCE = {.tv_sec = 2, .tv_usec = 0};
constexpr uint32_t COUNT_MAX = 1000;
constexpr size_t BUFFER_BYTES = 512;

[[noreturn]] void fail(const char *what, int error) {
  fprintf(stderr, "neighbour_load: %s: %s\n", what, strerror(error));
  exit(1);
}

int64_t now() {
  timespec time{};
  clock_gettime(CLOCK_MONOTONIC, &time);
  return time.tv_sec * NSEC + time.tv_nsec;
}

struct NeighbourRequest {
  nlmsghdr header;
  ndmsg neighbour;
  rtattr addressHeader;
  uint32_t address; // network byte order
  rtattr macHeader;
  std::array<uint8_t, 8> mac; // six bytes and padding
};

NeighbourRequest requestOf(uint32_t device, bool add) {
  NeighbourRequest request{};
  request.header.nlmsg_len = sizeof request;
  request.header.nlmsg_type = add ? RTM_NEWNEIGH : RTM_DELNEIGH;
  request.header.nlmsg_flags = static_cast<uint16_t>(NLM_F_REQUEST | NLM_F_ACK | (add ? NLM_F_CREATE | NLM_F_EXCL : 0));
  request.neighbour.ndm_family = AF_INET;
  request.neighbour.ndm_ifindex = static_cast<int>(device);
  request.neighbour.ndm_state = NUD_REACHABLE;
  request.addressHeader = {.rta_len = RTA_LENGTH(4), .rta_type = NDA_DST};
  request.macHeader = {.rta_len = RTA_LENGTH(6), .rta_type = NDA_LLADDR};
  return request;
}

UniqueFd socketOpen(uint32_t groups) {
  UniqueFd fd(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
  sockaddr_nl address{};
  address.nl_family = AF_NETLINK;
  address.nl_groups = groups;
  if (!fd || setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &SILENCE, sizeof SILENCE) != 0 ||
      bind(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
    fail("netlink socket", errno);
  }
  return fd;
}

struct Sample {
  int64_t sent = 0;
  std::atomic<int64_t> received = 0;
};

// Finds the neighbour by the last two bytes of its MAC, which are its number.
void notificationStamp(const char *bytes, size_t length, std::vector<Sample> &samples, int64_t time) {
  nlmsghdr header;
  if (length < sizeof header + sizeof(ndmsg)) {
    return;
  }
  memcpy(&header, bytes, sizeof header);
  auto left = static_cast<int>(length - NLMSG_LENGTH(sizeof(ndmsg)));
  for (auto *attr = reinterpret_cast<const rtattr *>(bytes + NLMSG_LENGTH(sizeof(ndmsg)));
       header.nlmsg_type == RTM_NEWNEIGH && RTA_OK(attr, left); attr = RTA_NEXT(attr, left)) {
    if (attr->rta_type != NDA_LLADDR || RTA_PAYLOAD(attr) != 6) {
      continue;
    }
    std::array<uint8_t, 6> mac;
    memcpy(mac.data(), RTA_DATA(attr), mac.size());
    const size_t number = static_cast<size_t>(mac[4]) << 8 | mac[5];
    int64_t none = 0;
    if (number < samples.size()) {
      samples[number].received.compare_exchange_strong(none, time);
    }
  }
}

void listen(int fd, std::vector<Sample> &samples) {
  alignas(nlmsghdr) std::array<char, BUFFER_BYTES> buffer;
  for (;;) {
    const ssize_t length = recv(fd, buffer.data(), buffer.size(), 0);
    const int64_t time = now();
    if (length < 0) {
      return; // nothing for so long
    }
    notificationStamp(buffer.data(), static_cast<size_t>(length), samples, time);
  }
}

struct Answer {
  nlmsghdr header;
  nlmsgerr result;
};

void requestsMake(NeighbourRequest request, uint32_t first, std::vector<Sample> &samples) {
  const UniqueFd fd = socketOpen(0);
  for (uint32_t number = 0; number < samples.size(); ++number) {
    request.address = htonl(first + number);
    request.mac = {2, 0, 0, 1, static_cast<uint8_t>(number >> 8), static_cast<uint8_t>(number)};
    ++request.header.nlmsg_seq;
    samples[number].sent = now();
    Answer answer{};
    if (send(fd.get(), &request, sizeof request, 0) < 0 || recv(fd.get(), &answer, sizeof answer, 0) < 0) {
      fail("request", errno);
    }
    if (answer.result.error != 0) {
      fail("request", -answer.result.error);
    }
    const timespec pause{.tv_sec = 0, .tv_nsec = INTERVAL};
    nanosleep(&pause, nullptr);
  }
}

} // namespace

int main(int argc, char **argv) {
  const std::string_view verb = argc == 5 ? argv[1] : "";
  const uint32_t device = argc == 5 ? if_nametoindex(argv[2]) : 0;
  in_addr first{};
  const unsigned long count = argc == 5 ? strtoul(argv[4], nullptr, 10) : 0;
  if ((verb != "add" && verb != "listen" && verb != "del") || device == 0 || inet_pton(AF_INET, argv[3], &first) != 1 ||
      count == 0 || count > COUNT_MAX) {
    fprintf(stderr, "usage: neighbour_load add|listen|del <device> <first address> <1 to %u>\n", COUNT_MAX);
    return 2;
  }
  std::vector<Sample> samples(count);
  const NeighbourRequest request = requestOf(device, verb != "del");
  const UniqueFd fd = verb == "listen" ? socketOpen(RTMGRP_NEIGH) : UniqueFd();
  std::thread listener;
  if (fd) {
    listener = std::thread([&] { listen(fd.get(), samples); });
  }
  requestsMake(request, ntohl(first.s_addr), samples);
  if (listener.joinable()) {
    listener.join();
  }
  for (uint32_t number = 0; number < count; ++number) {
    printf("%" PRIu32 " %" PRId64 " %" PRId64 "\n", ntohl(first.s_addr) + number, samples[number].sent,
           samples[number].received.load());
  }
  return 0;
}
