// Netlink dumps for the comparisons.
#include "orrinctl_netlink.h"

#include <array>
#include <cerrno>
#include <sys/socket.h>
#include <sys/time.h>

namespace {

constexpr int DUMP_ATTEMPTS = 2;
constexpr time_t DUMP_TIMEOUT_S = 30;
constexpr size_t DUMP_BUFFER = 64 * 1024; // the kernel fills at most 32 KiB a read

std::array<std::byte, DUMP_BUFFER> buffer;

// Until a socket's first read the kernel takes its buffer for a small one, and ends a dump at a route that does not fit. An
// answer to nothing shows the size.
std::string showBufferSize(int fd) {
  nlmsghdr nothing{};
  nothing.nlmsg_len = sizeof nothing;
  nothing.nlmsg_type = NLMSG_NOOP;
  nothing.nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK;
  if (send(fd, &nothing, sizeof nothing, 0) < 0 || recv(fd, buffer.data(), buffer.size(), 0) < 0) {
    return systemError("cannot ask the kernel");
  }
  return {};
}

} // namespace

std::string systemError(const std::string &what) {
  const int err = errno;
  return what + ": " + std::strerror(err);
}

std::string KernelDump::open() {
  fd_.reset(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
  if (fd_.get() < 0) {
    return systemError("netlink socket");
  }
  // Without strict checking the kernel ignores the filter in a header; what it sends is looked at again in any case.
  const int on = 1;
  setsockopt(fd_.get(), SOL_NETLINK, NETLINK_GET_STRICT_CHK, &on, sizeof on);
  const timeval patience{DUMP_TIMEOUT_S, 0};
  setsockopt(fd_.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  return showBufferSize(fd_.get());
}

KernelDump::End KernelDump::readAnswers(const Each &each, std::string &error) {
  bool changed = false;
  for (;;) {
    const ssize_t n = recv(fd_.get(), buffer.data(), buffer.size(), 0);
    if (n < 0) {
      if (errno == EINTR) {
        continue;
      }
      error = systemError("cannot read the kernel's answer");
      return End::Failed;
    }
    for (const NetlinkMessage &message : netlinkMessages({buffer.data(), static_cast<size_t>(n)})) {
      changed = changed || (message.flags & NLM_F_DUMP_INTR) != 0;
      if (message.type == NLMSG_DONE) {
        return changed ? End::Changed : End::Complete;
      }
      if (message.type == NLMSG_ERROR) {
        error = "the kernel refuses to answer";
        return End::Failed;
      }
      each(message);
    }
  }
}

std::string KernelDump::runRequest(const void *request, size_t size, const std::function<void()> &again,
                                   const Each &each) {
  if (fd_.get() < 0) {
    if (std::string error = open(); !error.empty()) {
      return error;
    }
  }
  End end = End::Changed;
  // A table that never stands still is compared as it was last seen; the answer is as old as the table is anyway.
  for (int attempt = 0; attempt < DUMP_ATTEMPTS && end == End::Changed; ++attempt) {
    if (attempt > 0) {
      again();
    }
    if (send(fd_.get(), request, size, 0) < 0) {
      return systemError("cannot ask the kernel");
    }
    std::string error;
    end = readAnswers(each, error);
    if (end == End::Failed) {
      return error;
    }
  }
  return {};
}
