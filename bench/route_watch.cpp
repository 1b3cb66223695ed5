// The clock of bench/routes: counts the route changes that the kernel announces in this namespace and prints the times of
// the first and the last. Every program that is measured is timed by this one, in the same way.
//
// What it costs them, all the same: the kernel makes and queues a copy of each announcement, which it does for any program
// that watches routes. Only the first announcement wakes this program; from then on it looks every millisecond and takes
// what is there, the first 28 bytes of each message, 64 messages in a system call: a seventh of the second processor while
// routes pass at full speed. It has real-time priority, so that a busy machine does not move its times, which are true to a
// millisecond.
//
// A lost announcement is an error, never a shorter time: the receive buffer is forced large, ENOBUFS ends the program with
// status 1, and so does a count that is not reached or is exceeded.

#include "unique_fd.h"

#include <array>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <poll.h>
#include <sched.h>
#include <string_view>
#include <sys/socket.h>

namespace {

constexpr uint8_t AGENT_PROTOCOL = 25;
constexpr int RECEIVE_BUFFER = 512 * 1024 * 1024; // bytes; a million announcements take less
constexpr size_t BATCH = 64;
constexpr int64_t NSEC = 1'000'000'000;
constexpr int64_t DRAIN_INTERVAL = 1'000'000;    // nanoseconds
constexpr int64_t EXCESS_INTERVAL = 100'000'000; // how long after the last change nothing more may come

[[noreturn]] void fail(const char *what, int error) {
  fprintf(stderr, "route_watch: %s: %s\n", what, strerror(error));
  exit(1);
}

[[noreturn]] void usage() {
  fprintf(stderr, "usage: route_watch <additions> <removals> <seconds without a change that mean failure>"
                  " [<protocol of the routes>]\n");
  exit(2);
}

uint32_t numberRead(std::string_view text) {
  uint32_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc{} || end != text.data() + text.size()) {
    usage();
  }
  return value;
}

int64_t now() {
  timespec time{};
  clock_gettime(CLOCK_MONOTONIC, &time);
  return time.tv_sec * NSEC + time.tv_nsec;
}

void sleepFor(int64_t nanoseconds) {
  const timespec time{.tv_sec = nanoseconds / NSEC, .tv_nsec = nanoseconds % NSEC};
  nanosleep(&time, nullptr);
}

struct ChangeCount {
  uint32_t additions = 0;
  uint32_t removals = 0;

  uint64_t sum() const { return uint64_t{additions} + removals; }
  bool operator==(const ChangeCount &) const = default;
};

// The front of an announcement, which says all that is counted.
struct Announcement {
  nlmsghdr header;
  rtmsg route;
};
static_assert(sizeof(Announcement) == 28);

class Watcher {
public:
  explicit Watcher(uint32_t protocol)
      : protocol_(protocol), fd_(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE)) {
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_groups = RTMGRP_IPV4_ROUTE;
    if (!fd_ || setsockopt(fd_.get(), SOL_SOCKET, SO_RCVBUFFORCE, &RECEIVE_BUFFER, sizeof RECEIVE_BUFFER) != 0 ||
        bind(fd_.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
      fail("netlink socket", errno);
    }
    for (size_t i = 0; i < BATCH; ++i) {
      parts_[i] = {.iov_base = &announcements_[i], .iov_len = sizeof announcements_[i]};
      messages_[i].msg_hdr.msg_iov = &parts_[i];
      messages_[i].msg_hdr.msg_iovlen = 1;
    }
  }

  void waitForFirst(int64_t idleMax) {
    pollfd ready{.fd = fd_.get(), .events = POLLIN, .revents = 0};
    const int count = poll(&ready, 1, static_cast<int>(idleMax / 1'000'000));
    if (count <= 0) {
      fail("no change was announced", count < 0 ? errno : ETIMEDOUT);
    }
  }

  // Counts all that is queued.
  void drain(ChangeCount &count) {
    for (;;) {
      // With MSG_TRUNC the length reported is the whole message's.
      const int received = recvmmsg(fd_.get(), messages_.data(), BATCH, MSG_DONTWAIT | MSG_TRUNC, nullptr);
      if (received < 0 && errno == EAGAIN) {
        return;
      }
      if (received < 0) {
        fail(errno == ENOBUFS ? "announcements were lost" : "receive", errno);
      }
      for (size_t i = 0; i < static_cast<size_t>(received); ++i) {
        announcementCount(announcements_[i], messages_[i].msg_len, count);
      }
    }
  }

private:
  void announcementCount(const Announcement &announcement, size_t length, ChangeCount &count) const {
    if (length < sizeof announcement || NLMSG_ALIGN(announcement.header.nlmsg_len) != NLMSG_ALIGN(length)) {
      fail("more or less than one message in a datagram", EBADMSG);
    }
    if (announcement.route.rtm_protocol != protocol_ || announcement.route.rtm_table != RT_TABLE_MAIN) {
      return;
    }
    if (announcement.header.nlmsg_type == RTM_NEWROUTE) {
      ++count.additions;
    } else if (announcement.header.nlmsg_type == RTM_DELROUTE) {
      ++count.removals;
    }
  }

  const uint32_t protocol_;
  UniqueFd fd_;
  std::array<Announcement, BATCH> announcements_{};
  std::array<iovec, BATCH> parts_{};
  std::array<mmsghdr, BATCH> messages_{};
};

void countFail(const char *what, const ChangeCount &count, const ChangeCount &expected) {
  fprintf(stderr, "route_watch: %s: %u additions of %u, %u removals of %u\n", what, count.additions, expected.additions,
          count.removals, expected.removals);
  exit(1);
}

} // namespace

int main(int argc, char **argv) {
  if (argc != 4 && argc != 5) {
    usage();
  }
  const ChangeCount expected{.additions = numberRead(argv[1]), .removals = numberRead(argv[2])};
  const int64_t idleMax = numberRead(argv[3]) * NSEC;
  const sched_param priority{.sched_priority = 1};
  if (sched_setscheduler(0, SCHED_FIFO, &priority) != 0) {
    fail("real-time priority", errno);
  }
  Watcher watcher(argc == 5 ? numberRead(argv[4]) : AGENT_PROTOCOL);
  puts("ready");
  fflush(stdout);

  watcher.waitForFirst(idleMax);
  const int64_t first = now();
  int64_t last = first;
  ChangeCount count;
  while (count.sum() < expected.sum()) {
    sleepFor(DRAIN_INTERVAL);
    const uint64_t before = count.sum();
    watcher.drain(count);
    if (count.sum() != before) {
      last = now();
    } else if (now() - last > idleMax) {
      countFail("changes are missing", count, expected);
    }
  }
  sleepFor(EXCESS_INTERVAL);
  watcher.drain(count);
  if (count != expected) {
    countFail("other changes than expected", count, expected);
  }
  printf("%lld\n", static_cast<long long>(last - first));
  return 0;
}
