// The yardstick for bench/routes: route requests sent to the kernel one at a time, each answer waited for, with as little
// around them as a program can have: one message built once, one send() and one recv() a request. The requests are those
// that the agent's process library makes, but for the acknowledgement. With "ahead" it is the limit: so many requests go in
// one send(), and their acknowledgements are read together afterwards. "count" reads the kernel's table back. For
// bench/import it is another program than the agent: with a protocol of its own, and not faster than it is told to be.

#include "unique_fd.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <string_view>
#include <sys/socket.h>

namespace {

constexpr uint8_t AGENT_PROTOCOL = 25;
constexpr int64_t NSEC = 1'000'000'000;
constexpr uint32_t AHEAD_MAX = 64; // the acknowledgements of as many fit into any receive buffer
constexpr size_t DUMP_BUFFER_SIZE = 256 * 1024;

[[noreturn]] void fail(const char *what, int error) {
  fprintf(stderr, "route_raw: %s: %s\n", what, strerror(error));
  exit(1);
}

[[noreturn]] void usage() {
  fprintf(stderr, "usage: route_raw add|modify|del|count <first-prefix>/<length> <count> via <gateway> dev <device>"
                  " [proto <number>] [rate <requests a second>] [ahead <requests>]\n");
  exit(2);
}

// The routes of one invocation: consecutive prefixes of one length through one gateway.
struct RouteRange {
  uint32_t first = 0; // host byte order, as all addresses here
  uint32_t length = 0;
  uint32_t count = 0;
  uint32_t gateway = 0;
  uint32_t device = 0;
  uint8_t protocol = AGENT_PROTOCOL;
  uint32_t rate = 0;  // requests a second, 0 = as fast as they are answered
  uint32_t ahead = 1; // requests sent before their answers are read

  uint32_t step() const { return uint32_t{1} << (32 - length); }
  uint32_t prefix(uint32_t index) const { return first + index * step(); }
  bool contains(uint32_t address) const {
    return (address - first) % step() == 0 && (address - first) / step() < count;
  }
};

uint32_t numberRead(std::string_view text, uint32_t most) {
  uint32_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc{} || end != text.data() + text.size() || value > most) {
    usage();
  }
  return value;
}

uint32_t addressRead(const char *text) {
  in_addr address{};
  if (inet_pton(AF_INET, text, &address) != 1) {
    usage();
  }
  return ntohl(address.s_addr);
}

RouteRange rangeRead(int argc, char **argv) {
  char *slash = strchr(argv[2], '/');
  if (slash == nullptr || strcmp(argv[4], "via") != 0 || strcmp(argv[6], "dev") != 0) {
    usage();
  }
  *slash = '\0';
  RouteRange range;
  range.first = addressRead(argv[2]);
  range.length = numberRead(slash + 1, 32);
  range.count = numberRead(argv[3], UINT32_MAX);
  range.gateway = addressRead(argv[5]);
  range.device = if_nametoindex(argv[7]);
  if (range.device == 0) {
    fail(argv[7], errno);
  }
  for (int word = 8; word < argc; word += 2) {
    if (strcmp(argv[word], "proto") == 0) {
      range.protocol = static_cast<uint8_t>(numberRead(argv[word + 1], UINT8_MAX));
    } else if (strcmp(argv[word], "rate") == 0) {
      range.rate = numberRead(argv[word + 1], UINT32_MAX);
    } else if (strcmp(argv[word], "ahead") == 0) {
      range.ahead = std::max(numberRead(argv[word + 1], AHEAD_MAX), 1U);
    } else {
      usage();
    }
  }
  const uint64_t end = range.first + (uint64_t{range.count} << (32 - range.length));
  if (range.length == 0 || range.first % range.step() != 0 || end > (uint64_t{1} << 32)) {
    usage();
  }
  return range;
}

// Aligned by its members: header and attributes lie as the kernel expects them, without padding.
struct RouteRequest {
  nlmsghdr header;
  rtmsg route;
  rtattr dstHeader;
  uint32_t dst; // network byte order
  rtattr gatewayHeader;
  uint32_t gateway;
  rtattr deviceHeader;
  uint32_t device;
};
static_assert(sizeof(RouteRequest) == 52);

constexpr rtattr attribute(uint16_t type) {
  return {.rta_len = sizeof(rtattr) + sizeof(uint32_t), .rta_type = type};
}

RouteRequest addition(const RouteRange &range) {
  RouteRequest request{};
  request.header.nlmsg_len = sizeof request;
  request.header.nlmsg_type = RTM_NEWROUTE;
  request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK | NLM_F_CREATE | NLM_F_EXCL;
  request.route.rtm_family = AF_INET;
  request.route.rtm_dst_len = static_cast<uint8_t>(range.length);
  request.route.rtm_table = RT_TABLE_MAIN;
  request.route.rtm_protocol = range.protocol;
  request.route.rtm_scope = RT_SCOPE_UNIVERSE;
  request.route.rtm_type = RTN_UNICAST;
  request.route.rtm_flags = RTNH_F_ONLINK;
  request.dstHeader = attribute(RTA_DST);
  request.gatewayHeader = attribute(RTA_GATEWAY);
  request.gateway = htonl(range.gateway);
  request.deviceHeader = attribute(RTA_OIF);
  request.device = range.device;
  return request;
}

RouteRequest removal(const RouteRange &range) {
  RouteRequest request{};
  request.header.nlmsg_len = offsetof(RouteRequest, gatewayHeader);
  request.header.nlmsg_type = RTM_DELROUTE;
  request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK;
  request.route.rtm_family = AF_INET;
  request.route.rtm_dst_len = static_cast<uint8_t>(range.length);
  request.route.rtm_table = RT_TABLE_MAIN;
  request.route.rtm_protocol = range.protocol;
  request.route.rtm_scope = RT_SCOPE_NOWHERE;
  request.dstHeader = attribute(RTA_DST);
  return request;
}

UniqueFd routeSocketOpen() {
  UniqueFd fd(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
  sockaddr_nl kernel{};
  kernel.nl_family = AF_NETLINK;
  if (!fd || connect(fd.get(), reinterpret_cast<const sockaddr *>(&kernel), sizeof kernel) != 0) {
    fail("netlink socket", errno);
  }
  return fd;
}

struct RequestAnswer {
  nlmsghdr header;
  nlmsgerr result;
};

void answerCheck(const RequestAnswer &answer, size_t length, uint32_t sequence) {
  if (length < sizeof answer || answer.header.nlmsg_type != NLMSG_ERROR || answer.header.nlmsg_seq != sequence) {
    fail("answer", EBADMSG);
  }
  if (answer.result.error != 0) {
    fail(answer.result.msg.nlmsg_type == RTM_NEWROUTE ? "route add" : "route del", -answer.result.error);
  }
}

void requestMake(int fd, RouteRequest &request, uint32_t prefix) {
  request.dst = htonl(prefix);
  ++request.header.nlmsg_seq;
  if (send(fd, &request, request.header.nlmsg_len, 0) < 0) {
    fail("send", errno);
  }
  RequestAnswer answer;
  const ssize_t received = recv(fd, &answer, sizeof answer, 0);
  if (received < 0) {
    fail("receive", errno);
  }
  answerCheck(answer, static_cast<size_t>(received), request.header.nlmsg_seq);
}

// Requests that go to the kernel in one send(); it handles them in order, inside the call.
class Batch {
public:
  explicit Batch(int fd) : fd_(fd) {
    for (size_t i = 0; i < AHEAD_MAX; ++i) {
      parts_[i] = {.iov_base = &answers_[i], .iov_len = sizeof answers_[i]};
      messages_[i].msg_hdr.msg_iov = &parts_[i];
      messages_[i].msg_hdr.msg_iovlen = 1;
    }
  }

  void add(const RouteRequest &request, uint32_t prefix) {
    char *const place = bytes_.data() + length_;
    const uint32_t dst = htonl(prefix);
    const uint32_t seq = sequence_ + count_;
    memcpy(place, &request, request.header.nlmsg_len);
    memcpy(place + offsetof(RouteRequest, dst), &dst, sizeof dst);
    memcpy(place + offsetof(nlmsghdr, nlmsg_seq), &seq, sizeof seq);
    length_ += request.header.nlmsg_len; // a multiple of the alignment
    ++count_;
  }

  uint32_t count() const { return count_; }

  void make() {
    if (count_ == 0) {
      return;
    }
    if (send(fd_, bytes_.data(), length_, 0) < 0) {
      fail("send", errno);
    }
    for (uint32_t read = 0; read < count_;) {
      const int received = recvmmsg(fd_, messages_.data(), count_ - read, 0, nullptr);
      if (received < 0) {
        fail("receive", errno);
      }
      for (uint32_t i = 0; i < static_cast<uint32_t>(received); ++i, ++read) {
        answerCheck(answers_[i], messages_[i].msg_len, sequence_ + read);
      }
    }
    sequence_ += count_;
    count_ = 0;
    length_ = 0;
  }

private:
  const int fd_;
  uint32_t sequence_ = 1;
  uint32_t count_ = 0;
  size_t length_ = 0;
  alignas(nlmsghdr) std::array<char, AHEAD_MAX * sizeof(RouteRequest)> bytes_;
  std::array<RequestAnswer, AHEAD_MAX> answers_{};
  std::array<iovec, AHEAD_MAX> parts_{};
  std::array<mmsghdr, AHEAD_MAX> messages_{};
};

// Holds the requests back to the rate: the one with this number is due so long after the first.
class Pace {
public:
  explicit Pace(uint32_t rate) : rate_(rate) { clock_gettime(CLOCK_MONOTONIC, &start_); }

  void wait(uint32_t number) const {
    if (rate_ == 0) {
      return;
    }
    const int64_t due = start_.tv_nsec + int64_t{number} * NSEC / rate_;
    const timespec until{.tv_sec = start_.tv_sec + due / NSEC, .tv_nsec = due % NSEC};
    clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr);
  }

private:
  const uint32_t rate_;
  timespec start_{};
};

// A change is what it is for the agent: the old route is removed and the new one added, each on its own.
void requestsMake(const RouteRange &range, bool remove, bool add) {
  const UniqueFd fd = routeSocketOpen();
  RouteRequest del = removal(range);
  RouteRequest set = addition(range);
  const Pace pace(range.rate);
  for (uint32_t i = 0; i < range.count; ++i) {
    pace.wait(i);
    const uint32_t prefix = range.prefix(i);
    if (remove) {
      requestMake(fd.get(), del, prefix);
    }
    if (add) {
      requestMake(fd.get(), set, prefix);
    }
  }
}

void requestsMakeAhead(const RouteRange &range, bool remove, bool add) {
  const UniqueFd fd = routeSocketOpen();
  const RouteRequest del = removal(range);
  const RouteRequest set = addition(range);
  Batch batch(fd.get());
  for (uint32_t i = 0; i < range.count; ++i) {
    if (remove) {
      batch.add(del, range.prefix(i));
    }
    if (add) {
      batch.add(set, range.prefix(i));
    }
    if (batch.count() + 2 > range.ahead) {
      batch.make();
    }
  }
  batch.make();
}

struct TableCount {
  uint32_t all = 0;      // routes of the protocol in the main table
  uint32_t expected = 0; // those of them that are in the range, through its gateway and device
};

void routeCount(const RouteRange &range, const nlmsghdr *header, TableCount &count) {
  const auto *route = static_cast<const rtmsg *>(NLMSG_DATA(header));
  if (header->nlmsg_type != RTM_NEWROUTE || route->rtm_protocol != range.protocol ||
      route->rtm_table != RT_TABLE_MAIN) {
    return;
  }
  ++count.all;
  uint32_t dst = 0;
  uint32_t gateway = 0;
  uint32_t device = 0;
  int left = static_cast<int>(RTM_PAYLOAD(header));
  for (const rtattr *attr = RTM_RTA(route); RTA_OK(attr, left); attr = RTA_NEXT(attr, left)) {
    uint32_t value = 0;
    if (RTA_PAYLOAD(attr) == sizeof value) {
      memcpy(&value, RTA_DATA(attr), sizeof value);
    }
    if (attr->rta_type == RTA_DST) {
      dst = ntohl(value);
    } else if (attr->rta_type == RTA_GATEWAY) {
      gateway = ntohl(value);
    } else if (attr->rta_type == RTA_OIF) {
      device = value;
    }
  }
  if (route->rtm_dst_len == range.length && range.contains(dst) && gateway == range.gateway && device == range.device) {
    ++count.expected;
  }
}

// False after the last message of the dump.
bool dumpRead(int fd, const RouteRange &range, TableCount &count) {
  alignas(nlmsghdr) static std::array<char, DUMP_BUFFER_SIZE> buffer;
  const ssize_t received = recv(fd, buffer.data(), buffer.size(), MSG_TRUNC);
  if (received < 0) {
    fail("receive", errno);
  }
  if (received > static_cast<ssize_t>(buffer.size())) {
    fail("dump", EMSGSIZE);
  }
  auto left = static_cast<uint32_t>(received);
  for (const auto *header = reinterpret_cast<const nlmsghdr *>(buffer.data()); NLMSG_OK(header, left);
       header = NLMSG_NEXT(header, left)) {
    if ((header->nlmsg_flags & NLM_F_DUMP_INTR) != 0) {
      fail("dump", EINTR);
    }
    if (header->nlmsg_type == NLMSG_ERROR) {
      fail("dump", -static_cast<const nlmsgerr *>(NLMSG_DATA(header))->error);
    }
    if (header->nlmsg_type == NLMSG_DONE) {
      return false;
    }
    routeCount(range, header, count);
  }
  return true;
}

void countPrint(const RouteRange &range) {
  struct {
    nlmsghdr header;
    rtmsg route;
  } request{};
  request.header.nlmsg_len = sizeof request;
  request.header.nlmsg_type = RTM_GETROUTE;
  request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  request.route.rtm_family = AF_INET;

  const UniqueFd fd = routeSocketOpen();
  if (send(fd.get(), &request, sizeof request, 0) < 0) {
    fail("send", errno);
  }
  TableCount count;
  while (dumpRead(fd.get(), range, count)) {
  }
  printf("%u %u\n", count.all, count.expected);
}

} // namespace

int main(int argc, char **argv) {
  if (argc < 8 || argc % 2 != 0) {
    usage();
  }
  const std::string_view verb = argv[1];
  const RouteRange range = rangeRead(argc, argv);
  const auto make = range.ahead > 1 ? requestsMakeAhead : requestsMake;
  if (verb == "add") {
    make(range, false, true);
  } else if (verb == "modify") {
    make(range, true, true);
  } else if (verb == "del") {
    make(range, true, false);
  } else if (verb == "count") {
    countPrint(range);
  } else {
    usage();
  }
  return 0;
}
