// The debug shell's thread: takes connections, reads one request from each, runs it and sends the answer. It owns its sockets
// and holds no lock while it waits; however an operator's end behaves, only this thread and other operators wait for it, and
// no longer than the times below.

#include "devshell.h"
#include "devshell_protocol.h"
#include "library_thread.h"
#include "run_dir.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds REQUEST_TIME{2000}; // from connection to request
constexpr milliseconds ANSWER_TIME{2000};  // to take the whole answer
constexpr milliseconds NO_DESCRIPTOR_PAUSE{200};
constexpr size_t WAITING_MAX = 16; // connections without a request; further ones stay in the kernel's queue
constexpr int CONNECTION_QUEUE = 128;

struct Waiting {
  UniqueFd fd;
  Clock::time_point until;
};

// The thread's, for the life of the process: never freed, since the process may exit while the thread runs.
struct Server {
  UniqueFd listener;
  std::vector<Waiting> waiting;
};

int millisecondsLeft(Clock::time_point until) {
  const auto left = std::chrono::ceil<milliseconds>(until - Clock::now()).count();
  return static_cast<int>(std::max<int64_t>(left, 0));
}

// Sends one packet; false when the operator is gone or does not read in time.
bool sendPacket(int fd, std::span<const char> packet, Clock::time_point until) {
  for (;;) {
    if (send(fd, packet.data(), packet.size(), MSG_NOSIGNAL | MSG_DONTWAIT) >= 0) {
      return true;
    }
    if (errno == EINTR) {
      continue;
    }
    pollfd writable = {.fd = fd, .events = POLLOUT, .revents = 0};
    const int left = millisecondsLeft(until);
    if (errno != EAGAIN || left == 0 || (poll(&writable, 1, left) < 0 && errno != EINTR)) {
      return false;
    }
  }
}

void answer(int fd, const DevshellOutcome &outcome) {
  const Clock::time_point until = Clock::now() + ANSWER_TIME;
  struct stat file {};
  if (outcome.output && fstat(outcome.output.get(), &file) != 0) {
    return;
  }
  const DevshellAnswer head = {outcome.status, static_cast<uint32_t>(outcome.message.size()),
                               static_cast<uint64_t>(file.st_size)};
  if (!sendPacket(fd, {reinterpret_cast<const char *>(&head), sizeof head}, until)) {
    return;
  }
  std::array<char, DEVSHELL_CHUNK_MAX> chunk;
  for (off_t at = 0; at < file.st_size;) {
    const ssize_t length = pread(outcome.output.get(), chunk.data(), chunk.size(), at);
    if (length <= 0 || !sendPacket(fd, {chunk.data(), static_cast<size_t>(length)}, until)) {
      return;
    }
    at += length;
  }
  if (!outcome.message.empty()) {
    sendPacket(fd, outcome.message, until);
  }
}

// Reads and serves the request of a connection on which something arrived; the connection ends either way.
void serve(UniqueFd fd) {
  std::array<char, DEVSHELL_REQUEST_MAX> request;
  const ssize_t length = recv(fd.get(), request.data(), request.size(), MSG_DONTWAIT | MSG_TRUNC);
  if (length <= 0) {
    return;
  }
  if (static_cast<size_t>(length) > request.size()) {
    answer(fd.get(), {DEVSHELL_REFUSED, {}, "request too long"});
    return;
  }
  answer(fd.get(), devshellRun({request.data(), static_cast<size_t>(length)}));
}

void takeConnection(Server &server) {
  UniqueFd fd(accept4(server.listener.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
  if (fd) {
    server.waiting.push_back({std::move(fd), Clock::now() + REQUEST_TIME});
  } else if (errno == EMFILE || errno == ENFILE || errno == ENOMEM || errno == ENOBUFS) {
    poll(nullptr, 0,
         static_cast<int>(NO_DESCRIPTOR_PAUSE.count())); // the connection stays, and poll would return at once
  }
}

void waitOnce(Server &server) {
  std::vector<Waiting> &waiting = server.waiting;
  std::array<pollfd, WAITING_MAX + 1> polled;
  const size_t count = waiting.size();
  int timeout = -1;
  for (size_t i = 0; i < count; ++i) {
    polled[i] = {.fd = waiting[i].fd.get(), .events = POLLIN, .revents = 0};
    const int left = millisecondsLeft(waiting[i].until);
    timeout = timeout < 0 ? left : std::min(timeout, left);
  }
  const bool room = count < WAITING_MAX;
  polled[count] = {.fd = room ? server.listener.get() : -1, .events = POLLIN, .revents = 0};
  if (poll(polled.data(), count + 1, timeout) < 0) {
    return;
  }
  for (size_t i = 0; i < count; ++i) {
    if (polled[i].revents != 0) {
      serve(std::move(waiting[i].fd));
    }
  }
  const Clock::time_point now = Clock::now();
  std::erase_if(waiting, [now](const Waiting &client) { return !client.fd || client.until <= now; });
  if (polled[count].revents != 0) {
    takeConnection(server);
  }
}

void *run(void *server) {
  for (;;) {
    waitOnce(*static_cast<Server *>(server));
  }
}

// The socket's mode is 0600 from its birth: the kernel takes it from the unbound socket, less the umask. It gets its name
// when it listens: mirelsh removes one that refuses.
UniqueFd listenAt(const std::string &path) {
  const std::string unready = path + ".new";
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (unready.size() >= sizeof address.sun_path) {
    errno = ENAMETOOLONG;
    return {};
  }
  memcpy(address.sun_path, unready.c_str(), unready.size());
  UniqueFd fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  unlink(unready.c_str()); // of an earlier process of this number
  if (!fd || fchmod(fd.get(), S_IRUSR | S_IWUSR) != 0 ||
      bind(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
      listen(fd.get(), CONNECTION_QUEUE) != 0 || rename(unready.c_str(), path.c_str()) != 0) {
    return {};
  }
  return fd;
}

} // namespace

int devshellServerStart() {
  mkdir(qvprocRunDir().c_str(), 0755);
  mkdir(devshellDir().c_str(), 0700);
  auto server = std::make_unique<Server>();
  server->listener = listenAt(devshellDir() + "/" + std::to_string(getpid()) + ".sock");
  if (!server->listener) {
    return -1;
  }
  const int error = libraryThreadStart("devshell", run, server.get());
  if (error != 0) {
    errno = error;
    return -1;
  }
  server.release();
  return 0;
}
