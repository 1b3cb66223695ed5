// Sending to one socket of an agent without ever waiting for it.

#include "outbox.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>

namespace orrin {

namespace {

// A sender with the default buffer gets only some 280 small datagrams into any queue.
constexpr int SEND_BUFFER = 4 * 1024 * 1024;

} // namespace

void Outbox::close() {
  messages_.clear();
  lost();
}

bool Outbox::holds(uint16_t type) const {
  return std::any_of(messages_.begin(), messages_.end(), [type](const std::string &message) {
    return message.compare(0, sizeof type, reinterpret_cast<const char *>(&type), sizeof type) == 0;
  });
}

bool Outbox::connectSocket(Poller &poller) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path_.size() >= sizeof address.sun_path) {
    return false;
  }
  std::memcpy(address.sun_path, path_.data(), path_.size());
  UniqueFd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!fd) {
    return false;
  }
  if (setsockopt(fd.get(), SOL_SOCKET, SO_SNDBUFFORCE, &SEND_BUFFER, sizeof SEND_BUFFER) != 0) {
    setsockopt(fd.get(), SOL_SOCKET, SO_SNDBUF, &SEND_BUFFER, sizeof SEND_BUFFER);
  }
  if (connect(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
    return false;
  }
  if (!poller.watch(fd.get(), 0, kind_, number_)) {
    return false;
  }
  socket_ = std::move(fd);
  watched_ = false;
  return true;
}

void Outbox::setWritableWatch(Poller &poller, bool wanted) {
  if (wanted != watched_) {
    poller.change(socket_.get(), wanted ? uint32_t{EPOLLOUT} : 0, kind_, number_);
    watched_ = wanted;
  }
}

void Outbox::flush(Poller &poller, uint64_t nowMs) {
  while (!messages_.empty()) {
    if (!socket_ && !connectSocket(poller)) {
      retryAtMs_ = nowMs + RETRY_MS;
      return;
    }
    const std::string &message = messages_.front();
    const ssize_t sent = send(socket_.get(), message.data(), message.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent >= 0) {
      messages_.pop_front();
      continue;
    }
    const int error = errno;
    if (error == EAGAIN) {
      retryAtMs_ = 0;
      setWritableWatch(poller, true);
      return;
    }
    if (error != EINTR) { // the socket at the other end was closed
      lost();
      retryAtMs_ = nowMs + RETRY_MS;
      return;
    }
  }
  if (socket_) {
    setWritableWatch(poller, false);
  }
}

} // namespace orrin
