// The dump of a resync: after notifications were lost, the kernel's main table is read on a socket of its own, in parts, and
// each foreign route goes to the task, which reports what differs. Listener's thread, except rtoResyncRequestAndWake().

#include "rto_netlink_dump.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <memory>
#include <new>
#include <sys/socket.h>

uint32_t rtoWithdrawalCount = 0;
std::atomic<uint32_t> rtoListenerPort = 0;

namespace {

constexpr uint32_t INTERVAL_MSEC_MIN = 1000;
constexpr uint32_t INTERVAL_MSEC_MAX = 2000;
constexpr uint32_t ROOM_MSEC_MAX = 64;

// The most that the kernel puts into a datagram. It ends the table, as if it were complete, at a route that is too long for
// the buffer it is read into: one of 500 next hops for 8192 bytes.
constexpr size_t PART_SIZE = 32768;
constexpr size_t ROUTE_SIZE_MIN = sizeof(nlmsghdr) + sizeof(rtmsg) + 2 * (sizeof(rtattr) + 4); // table and destination
constexpr uint32_t QUEUED_MAX = EXT_ROUTE_QUEUE_DEPTH - PART_SIZE / ROUTE_SIZE_MIN;
alignas(nlmsghdr) std::array<std::byte, PART_SIZE> partBuffer;

std::atomic<bool> requested = false;
uint32_t losses = 0; // requests of the listener itself

struct Pace {
  uint32_t endedAt = 0; // of the last dump, milliseconds since boot
  uint32_t interval = INTERVAL_MSEC_MIN;

  uint32_t since() const { return osapiUpTimeMillisecondsGet() - endedAt; }
  void end() { endedAt = osapiUpTimeMillisecondsGet(); }
  void begin() { interval = since() < 2 * interval ? std::min(2 * interval, INTERVAL_MSEC_MAX) : INTERVAL_MSEC_MIN; }
} pace;

bool queueHasRoom() {
  uint32_t queued = 0;
  return osapiMsgQueueGetNumMsgs(extRouteQueue, &queued) == 0 && queued <= QUEUED_MAX;
}

bool markSend(uint32_t action) {
  std::unique_ptr<rto_extRoute_msg> msg(new (std::nothrow) rto_extRoute_msg());
  if (!msg) {
    return false;
  }
  msg->action = action;
  return rtoMessageSend(std::move(msg));
}

bool requestSend(int sock, uint16_t type, uint16_t flags, uint8_t family, uint32_t sequence) {
  struct {
    nlmsghdr header;
    rtmsg route;
  } request{};
  request.header.nlmsg_len = sizeof request;
  request.header.nlmsg_type = type;
  request.header.nlmsg_flags = static_cast<uint16_t>(NLM_F_REQUEST | flags);
  request.header.nlmsg_seq = sequence;
  request.route.rtm_family = family;
  request.route.rtm_table = RT_TABLE_MAIN;
  ssize_t sent;
  do {
    sent = send(sock, &request, sizeof request, 0);
  } while (sent < 0 && errno == EINTR);
  return sent >= 0;
}

// The error that ends a dump, 0 = none. Acknowledgement, error and end all begin with it.
int errorOf(const NetlinkMessage &message) {
  int error = 0;
  if (message.payload.size() >= sizeof error) {
    memcpy(&error, message.payload.data(), sizeof error);
  }
  return -error;
}

// A kernel without the family, or without a route in its main table yet, has nothing to dump.
bool meansEmpty(int error) {
  return error == 0 || error == ENOENT || error == EOPNOTSUPP || error == EAFNOSUPPORT;
}

} // namespace

void rtoResyncRequest() {
  ++losses;
  requested = true;
}

// A socket that is full needs no message: its listener is awake. So is one that opens its socket after the request.
void rtoResyncRequestAndWake() {
  const bool pending = requested.exchange(true);
  const uint32_t port = rtoListenerPort;
  if (pending || port == 0) {
    return;
  }
  const UniqueFd sock(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
  sockaddr_nl listener{};
  listener.nl_family = AF_NETLINK;
  listener.nl_pid = port;
  nlmsghdr nothing{};
  nothing.nlmsg_len = sizeof nothing;
  nothing.nlmsg_type = NLMSG_NOOP;
  sendto(sock.get(), &nothing, sizeof nothing, MSG_DONTWAIT, reinterpret_cast<const sockaddr *>(&listener),
         sizeof listener);
}

bool RtoDump::due() const {
  return stage_ != Stage::IDLE || (requested && pace.since() >= pace.interval);
}

bool RtoDump::ready() const {
  return due() && queueHasRoom();
}

uint32_t RtoDump::waitMsec() {
  if (due()) {
    roomMsec_ = std::min(2 * roomMsec_, ROOM_MSEC_MAX);
    return roomMsec_;
  }
  return requested ? pace.interval - std::min(pace.since(), pace.interval - 1) : 0;
}

void RtoDump::step() {
  roomMsec_ = ROOM_MSEC_MIN;
  switch (stage_) {
  case Stage::IDLE:
    begin();
    break;
  case Stage::END:
    end();
    break;
  default:
    partRead();
  }
}

void RtoDump::begin() {
  pace.begin();
  requested = false; // what is lost from now on requests another
  complete_ = true;
  losses_ = losses;
  withdrawals_ = rtoWithdrawalCount;
  sock_ = UniqueFd(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
  // Lets the kernel leave out the other tables; an older one sends them all.
  const int on = 1;
  setsockopt(sock_.get(), SOL_NETLINK, NETLINK_GET_STRICT_CHK, &on, sizeof on);
  if (!markSend(RT_RESYNC_BEGIN) || !stageEnter(Stage::PREPARE)) {
    breakOff();
  }
}

bool RtoDump::stageEnter(Stage stage) {
  stage_ = stage;
  const uint32_t sequence = ++handle_->sequence;
  switch (stage) {
  case Stage::PREPARE: // the kernel learns the size of the buffer from a read, too late for the part that it reads
    return requestSend(sock_.get(), NLMSG_NOOP, NLM_F_ACK, AF_UNSPEC, sequence);
  case Stage::IPV6:
    return requestSend(sock_.get(), RTM_GETROUTE, NLM_F_DUMP, AF_INET6, sequence);
  case Stage::IPV4:
  case Stage::IPV4_AGAIN: // has a route that the first left out when others of its address went
    return requestSend(sock_.get(), RTM_GETROUTE, NLM_F_DUMP, AF_INET, sequence);
  default:
    return true;
  }
}

// The kernel has made a part when the one before it is read, or the request sent: there is nothing to wait for.
void RtoDump::partRead() {
  const ssize_t received = recv(sock_.get(), partBuffer.data(), partBuffer.size(), MSG_DONTWAIT);
  if (received < 0 && errno == EINTR) {
    return;
  }
  if (received <= 0 || !messagesProcess(NetlinkBytes(partBuffer).first(static_cast<size_t>(received)))) {
    breakOff();
  }
}

bool RtoDump::messagesProcess(NetlinkBytes part) {
  for (const NetlinkMessage &message : netlinkMessages(part)) {
    if (message.seq != handle_->sequence) {
      continue;
    }
    complete_ = complete_ && (message.flags & NLM_F_DUMP_INTR) == 0;
    if (message.type == NLMSG_DONE || message.type == NLMSG_ERROR) {
      const bool mayLack = stage_ == Stage::IPV6 && withdrawals_ != rtoWithdrawalCount;
      complete_ = complete_ && !mayLack && meansEmpty(errorOf(message));
      return stageEnter(static_cast<Stage>(static_cast<int>(stage_) + 1));
    }
    rtmsg header;
    if (message.type == RTM_NEWROUTE && rtoRouteIsForeign(message, &header) && !rtoDumpedRouteProcess(message)) {
      return false;
    }
  }
  return true;
}

// Where the kernel resumes an IPv6 dump after a change it counts prefixes, so a withdrawal may make it leave some out. A dump
// beside which IPv6 routes were withdrawn, or notifications lost, proves no route gone; the next one may. A report that failed
// does not matter here: the task's record has it as pending.
void RtoDump::end() {
  if (!complete_ || losses_ != losses || !markSend(RT_RESYNC_END)) {
    breakOff();
    return;
  }
  pace.end();
  sock_.reset();
  stage_ = Stage::IDLE;
}

void RtoDump::breakOff() {
  pace.end();
  sock_.reset();
  stage_ = Stage::IDLE;
  rtoResyncRequest();
}
