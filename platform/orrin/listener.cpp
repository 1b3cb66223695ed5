// Listening sockets. Used by orrin's one thread.

#include "listener.h"

#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

namespace orrin {

namespace {

constexpr int BACKLOG = 128;
constexpr mode_t FOLDER_MODE = 0755;

bool failed(std::string &error, const std::string &path) {
  const int reason = errno;
  error = path + ": " + std::strerror(reason);
  return false;
}

} // namespace

Listener::~Listener() {
  if (fd_) {
    unlink(path_.c_str());
  }
}

bool Listener::open(const std::string &path, int type, Poller &poller, Watched kind, std::string &error) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof address.sun_path) {
    error = "\"" + path + "\" is no path for a socket";
    return false;
  }
  std::memcpy(address.sun_path, path.data(), path.size());
  const auto *name = reinterpret_cast<const sockaddr *>(&address);
  if (const size_t slash = path.rfind('/'); slash != std::string::npos && slash != 0) {
    mkdir(path.substr(0, slash).c_str(), FOLDER_MODE); // the bind below says what is wrong
  }
  UniqueFd fd(socket(AF_UNIX, type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  const UniqueFd probe(socket(AF_UNIX, type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!fd || !probe) {
    return failed(error, path);
  }
  if (connect(probe.get(), name, sizeof address) == 0 || errno == EAGAIN) {
    error = path + ": another orrin answers there";
    return false;
  }
  unlink(path.c_str());
  const mode_t before = umask(0177); // root alone, from the moment it exists
  const int bound = bind(fd.get(), name, sizeof address);
  const int reason = errno;
  umask(before);
  errno = reason;
  if (bound != 0 || listen(fd.get(), BACKLOG) != 0 || !poller.watch(fd.get(), EPOLLIN, kind)) {
    return failed(error, path);
  }
  fd_ = std::move(fd);
  path_ = path;
  poller_ = &poller;
  kind_ = kind;
  return true;
}

UniqueFd Listener::accept(uint32_t &process) {
  UniqueFd fd(accept4(fd_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
  const int reason = errno;
  if (!fd && (reason == EMFILE || reason == ENFILE || reason == ENOBUFS || reason == ENOMEM)) {
    poller_->change(fd_.get(), 0, kind_); // who waits stays in the queue, and would be reported without end
    paused_ = true;
  }
  ucred peer{};
  socklen_t length = sizeof peer;
  const bool known = fd && getsockopt(fd.get(), SOL_SOCKET, SO_PEERCRED, &peer, &length) == 0 && peer.pid > 0;
  process = known ? static_cast<uint32_t>(peer.pid) : 0;
  return fd;
}

void Listener::resume() {
  if (paused_) {
    paused_ = false;
    poller_->change(fd_.get(), EPOLLIN, kind_);
  }
}

} // namespace orrin
