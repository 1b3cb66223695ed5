// Route netlink, request by request. No state but the caller's socket and number; a socket has one caller at a time.

#include "netlink.h"

#include <algorithm>
#include <cerrno>
#include <linux/if_link.h>
#include <memory>
#include <net/if.h>
#include <new>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

namespace {

constexpr int RECEIVE_BUFFER_BYTES = 1 << 20;
constexpr timeval RECEIVE_TIMEOUT = {.tv_sec = 2, .tv_usec = 0};
constexpr size_t ANSWER_BYTES = 8192;     // a link with all its attributes
constexpr size_t DUMP_READ_BYTES = 65536; // the kernel makes the parts of a dump at most 32 KB

// The plain system calls, since send() and recv() are points of cancellation: a thread that was cancelled there would take a
// lock of its caller with it, and leaving and entering the cancellable state costs a route as much as the locks do.
bool sendWhole(int fd, NetlinkBytes request) {
  ssize_t sent;
  do {
    sent = syscall(SYS_sendto, fd, request.data(), request.size(), 0, nullptr, 0);
  } while (sent < 0 && errno == EINTR);
  return sent == static_cast<ssize_t>(request.size());
}

ssize_t receive(int fd, std::span<std::byte> buffer, int flags) {
  ssize_t length;
  do {
    length = syscall(SYS_recvfrom, fd, buffer.data(), buffer.size(), flags, nullptr, nullptr);
  } while (length < 0 && errno == EINTR);
  return length;
}

// The error number in an error message or at the end of a dump; 0 = none.
int errorOf(NetlinkBytes payload) {
  int32_t code = 0;
  if (payload.size() >= sizeof code) {
    memcpy(&code, payload.data(), sizeof code);
  }
  return -code;
}

} // namespace

UniqueFd netlinkOpen() {
  UniqueFd fd(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
  sockaddr_nl kernel{};
  kernel.nl_family = AF_NETLINK;
  // Once connected to the kernel, the socket refuses what other processes send to it.
  if (!fd || connect(fd.get(), reinterpret_cast<const sockaddr *>(&kernel), sizeof kernel) != 0) {
    return {};
  }
  if (setsockopt(fd.get(), SOL_SOCKET, SO_RCVBUFFORCE, &RECEIVE_BUFFER_BYTES, sizeof RECEIVE_BUFFER_BYTES) != 0) {
    setsockopt(fd.get(), SOL_SOCKET, SO_RCVBUF, &RECEIVE_BUFFER_BYTES, sizeof RECEIVE_BUFFER_BYTES);
  }
  setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &RECEIVE_TIMEOUT, sizeof RECEIVE_TIMEOUT);
  const int on = 1; // lets the kernel choose what a dump holds, by device, table or protocol
  setsockopt(fd.get(), SOL_NETLINK, NETLINK_GET_STRICT_CHK, &on, sizeof on);
  return fd;
}

NetlinkResult netlinkAsk(int fd, uint32_t &seq, NetlinkRequest &request, std::span<std::byte> reply,
                         AnswerWatch *watch) {
  const uint32_t number = ++seq;
  if (!sendWhole(fd, request.numbered(number))) {
    return {.carried = false, .error = errno};
  }
  if (watch != nullptr && watch->nothingCame(fd)) {
    return {.carried = true, .error = 0};
  }
  // The queue is read until it is empty: nothing may stay that a later request could meet, and an answer that the kernel
  // could not queue shows as ENOBUFS.
  std::array<std::byte, ANSWER_BYTES> buffer;
  NetlinkResult result = {.carried = true, .error = 0};
  bool answered = false;
  for (;;) {
    const ssize_t length = receive(fd, buffer, MSG_DONTWAIT);
    if (length < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      if (watch != nullptr) {
        watch->isEmpty(fd);
      }
      return result;
    }
    if (length < 0 && errno != ENOBUFS) {
      return {.carried = false, .error = errno};
    }
    if (length < 0 && !answered) {
      result = {.carried = false, .error = ENOBUFS};
    }
    for (const NetlinkMessage &message :
         netlinkMessages({buffer.data(), static_cast<size_t>(std::max<ssize_t>(length, 0))})) {
      if (message.seq != number) {
        continue;
      }
      answered = true;
      result = {.carried = true, .error = message.type == NLMSG_ERROR ? errorOf(message.payload) : 0};
      if (message.type != NLMSG_ERROR) {
        memcpy(reply.data(), message.payload.data(), std::min(reply.size(), message.payload.size()));
      }
    }
  }
}

NetlinkDump netlinkDump(int fd, uint32_t &seq, NetlinkRequest &request, uint16_t type,
                        void (*onEach)(NetlinkBytes payload, void *context), void *context) {
  NetlinkDump dump;
  const std::unique_ptr<std::byte[]> buffer(new (std::nothrow) std::byte[DUMP_READ_BYTES]);
  const uint32_t number = ++seq;
  if (!buffer || !sendWhole(fd, request.numbered(number))) {
    dump.error = buffer ? errno : ENOMEM;
    return dump;
  }
  for (;;) {
    const ssize_t length = receive(fd, {buffer.get(), DUMP_READ_BYTES}, 0);
    if (length < 0) {
      dump.error = errno;
      return dump;
    }
    for (const NetlinkMessage &message : netlinkMessages({buffer.get(), static_cast<size_t>(length)})) {
      if (message.seq != number) {
        continue;
      }
      dump.interrupted = dump.interrupted || (message.flags & NLM_F_DUMP_INTR) != 0;
      if (message.type == NLMSG_DONE || message.type == NLMSG_ERROR) {
        dump.error = errorOf(message.payload);
        dump.complete = dump.error == 0;
        return dump;
      }
      if (message.type == type) {
        onEach(message.payload, context);
      }
    }
  }
}

NetlinkResult netlinkDeviceIndex(int fd, uint32_t &seq, const char *device, uint32_t &ifIndex) {
  if (strlen(device) >= IFNAMSIZ) {
    return {.carried = true, .error = ENODEV}; // no device has such a name, and the request has no room for it
  }
  ifinfomsg anyLink{};
  NetlinkRequest request(RTM_GETLINK, 0, anyLink);
  request.attrText(IFLA_IFNAME, device);
  request.attr32(IFLA_EXT_MASK, RTEXT_FILTER_SKIP_STATS);
  ifinfomsg link{};
  const NetlinkResult result = netlinkAsk(fd, seq, request, std::as_writable_bytes(std::span(&link, 1)));
  if (!result.done()) {
    return result;
  }
  ifIndex = static_cast<uint32_t>(link.ifi_index);
  return ifIndex != 0 ? result : NetlinkResult{.carried = true, .error = ENODEV};
}
