// Calls over the calling thread's own connection. The only thing shared between threads is the failure indication. A thread
// may be cancelled at any time: not within a call, whose frames hold what must be given back.

#include "connection.h"

#include "tarnapi.h"
#include "unique_fd.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <new>
#include <poll.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/un.h>

namespace tarnclient {

namespace {

constexpr uint64_t CALL_LIMIT_MS = 5000;
constexpr int SEALS_WANTED = F_SEAL_SHRINK; // what is mapped stays there to be read

std::atomic<bool> failed{false};

uint64_t milliseconds() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1000000;
}

class NoCancel {
public:
  NoCancel() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_); }
  ~NoCancel() { pthread_setcancelstate(before_, nullptr); }
  NoCancel(const NoCancel &) = delete;
  NoCancel &operator=(const NoCancel &) = delete;

private:
  int before_ = PTHREAD_CANCEL_ENABLE;
};

class PageMapping {
public:
  PageMapping() = default;
  PageMapping(const PageMapping &) = delete;
  PageMapping &operator=(const PageMapping &) = delete;
  ~PageMapping() { reset(); }

  void reset() {
    if (page_ != nullptr) {
      munmap(page_, sizeof(tarnwire::Published));
      page_ = nullptr;
    }
  }

  bool map(int fd) {
    struct stat status {};
    if ((fcntl(fd, F_GET_SEALS) & SEALS_WANTED) != SEALS_WANTED || fstat(fd, &status) != 0 ||
        status.st_size < static_cast<off_t>(sizeof(tarnwire::Published))) {
      return false;
    }
    void *memory = mmap(nullptr, sizeof(tarnwire::Published), PROT_READ, MAP_SHARED, fd, 0);
    page_ = memory == MAP_FAILED ? nullptr : static_cast<tarnwire::Published *>(memory);
    return page_ != nullptr;
  }

  const tarnwire::Published *get() const { return page_; }

private:
  tarnwire::Published *page_ = nullptr;
};

enum class Outcome { DONE, STALE, FAILED };

class Connection {
public:
  Outcome exchange(const tarnwire::Request &request, std::string_view tail, uint64_t deadline, Answer &answer);
  bool ready(uint64_t deadline);
  void close() { socket_.reset(); }
  const tarnwire::Published *page(uint64_t coarseNow);
  uint32_t nextSequence() { return ++sequence_; }

private:
  bool open(uint64_t deadline);
  bool connectSocket(uint64_t deadline);
  bool takeHello(uint64_t deadline);
  bool waitFor(short events, uint64_t deadline) const;
  bool hungUp() const;

  UniqueFd socket_;
  pid_t owner_ = 0; // the process that made the connection; a forked child makes its own
  uint32_t sequence_ = 0;
  PageMapping page_;
  uint64_t lookedMs_ = 0; // when the socket was last looked at for the page's sake
  alignas(8) std::byte buffer_[tarnwire::REPLY_MAX];
};

// Too large for thread-local storage of a library, and most threads of a process never call.
thread_local std::unique_ptr<Connection> threadConnection;

bool Connection::waitFor(short events, uint64_t deadline) const {
  for (;;) {
    const uint64_t now = milliseconds();
    pollfd wait{socket_.get(), events, 0};
    const int ready = poll(&wait, 1, now < deadline ? static_cast<int>(deadline - now) : 0);
    if (ready > 0) {
      return true;
    }
    if (ready == 0 || errno != EINTR) {
      return false;
    }
  }
}

bool Connection::hungUp() const {
  const NoCancel noCancel;
  pollfd look{socket_.get(), 0, 0};
  return poll(&look, 1, 0) == 1;
}

// Null when orrin's end of the connection is gone, of which the page itself says nothing. A look at it costs a system call: one
// for each tick of the coarse clock.
const tarnwire::Published *Connection::page(uint64_t coarseNow) {
  if (socket_ && lookedMs_ != coarseNow) {
    lookedMs_ = coarseNow;
    if (hungUp()) {
      close();
    }
  }
  return socket_ ? page_.get() : nullptr;
}

bool Connection::connectSocket(uint64_t deadline) {
  const char *named = std::getenv(tarnwire::SOCKET_VARIABLE);
  const std::string_view path = named != nullptr && *named != '\0' ? named : tarnwire::DEFAULT_SOCKET;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) {
    return false;
  }
  std::memcpy(address.sun_path, path.data(), path.size());
  UniqueFd fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  while (fd && connect(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
    if (errno != EAGAIN || milliseconds() >= deadline) { // EAGAIN: so many others are in the listener's queue
      return false;
    }
    poll(nullptr, 0, 10);
  }
  socket_ = std::move(fd);
  return static_cast<bool>(socket_);
}

bool Connection::takeHello(uint64_t deadline) {
  if (!waitFor(POLLIN, deadline)) {
    return false;
  }
  tarnwire::Hello hello{};
  iovec data{&hello, sizeof hello};
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
  msghdr message{};
  message.msg_iov = &data;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = CMSG_LEN(sizeof(int)); // the rest of the space would hold another descriptor
  const ssize_t length = recvmsg(socket_.get(), &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
  const cmsghdr *header = length > 0 ? CMSG_FIRSTHDR(&message) : nullptr;
  int fd = -1;
  if (header != nullptr && header->cmsg_type == SCM_RIGHTS && header->cmsg_len == CMSG_LEN(sizeof fd)) {
    std::memcpy(&fd, CMSG_DATA(header), sizeof fd);
  }
  const UniqueFd page(fd);
  return length == sizeof hello && hello.protocol == tarnwire::PROTOCOL &&
         hello.publishedSize == sizeof(tarnwire::Published) && page && page_.map(page.get());
}

bool Connection::open(uint64_t deadline) {
  page_.reset();
  if (connectSocket(deadline) && takeHello(deadline)) {
    owner_ = getpid();
    return true;
  }
  close();
  page_.reset();
  return false;
}

bool Connection::ready(uint64_t deadline) {
  if (socket_ && owner_ != getpid()) {
    close(); // the parent's: an answer on it could be the parent's too
  }
  return socket_ || open(deadline);
}

Outcome Connection::exchange(const tarnwire::Request &request, std::string_view tail, uint64_t deadline,
                             Answer &answer) {
  iovec data[2] = {{const_cast<tarnwire::Request *>(&request), sizeof request},
                   {const_cast<char *>(tail.data()), tail.size()}};
  msghdr message{};
  message.msg_iov = data;
  message.msg_iovlen = 2;
  while (sendmsg(socket_.get(), &message, MSG_DONTWAIT | MSG_NOSIGNAL) < 0) {
    const int error = errno;
    if (error == EAGAIN && waitFor(POLLOUT, deadline)) {
      continue;
    }
    if (error != EINTR) {
      return error == EPIPE || error == ECONNRESET ? Outcome::STALE : Outcome::FAILED;
    }
  }
  while (waitFor(POLLIN, deadline)) {
    const ssize_t length = recv(socket_.get(), buffer_, sizeof buffer_, MSG_DONTWAIT);
    if (length < 0 && (errno == EAGAIN || errno == EINTR)) {
      continue;
    }
    tarnwire::Reply reply;
    if (length < static_cast<ssize_t>(sizeof reply)) {
      return Outcome::FAILED;
    }
    std::memcpy(&reply, buffer_, sizeof reply);
    if (reply.sequence != request.sequence) {
      return Outcome::FAILED;
    }
    answer = {reply.result, reply.values, {buffer_ + sizeof reply, static_cast<size_t>(length) - sizeof reply}};
    return Outcome::DONE;
  }
  return Outcome::FAILED;
}

// False when no answer came; `answer` is then as it was.
bool callOn(Connection &connection, tarnwire::Op op, const std::array<uint32_t, 6> &args, std::string_view tail,
            Answer &answer) {
  const uint64_t deadline = milliseconds() + CALL_LIMIT_MS;
  // The second try is for a connection whose orrin has gone since the last call: it has not seen this request.
  for (int attempt = 0; attempt < 2 && connection.ready(deadline); ++attempt) {
    const tarnwire::Request request{op, connection.nextSequence(), args};
    const Outcome outcome = connection.exchange(request, tail, deadline, answer);
    if (outcome == Outcome::DONE) {
      return true;
    }
    connection.close();
    if (outcome == Outcome::FAILED) {
      break;
    }
  }
  return false;
}

} // namespace

bool callIfThere(tarnwire::Op op, const std::array<uint32_t, 6> &args, std::string_view tail, Answer &answer) {
  const NoCancel noCancel;
  if (tail.size() > tarnwire::OPS[op].tailMax) {
    answer.result = TARN_INVALID;
    return true;
  }
  if (threadConnection == nullptr) {
    threadConnection.reset(new (std::nothrow) Connection);
  }
  return threadConnection != nullptr && callOn(*threadConnection, op, args, tail, answer);
}

Answer call(tarnwire::Op op, const std::array<uint32_t, 6> &args, std::string_view tail) {
  Answer answer;
  answer.result = TARN_FAILURE;
  if (!callIfThere(op, args, tail, answer)) {
    failed.store(true, std::memory_order_relaxed);
  }
  return answer;
}

const tarnwire::Published *publishedFor(tarnwire::Op op) {
  const uint64_t now = tarnwire::coarseMilliseconds();
  const tarnwire::Published *page = threadConnection == nullptr ? nullptr : threadConnection->page(now);
  if (page == nullptr || page->askFor[op].load(std::memory_order_acquire) != 0) {
    return nullptr;
  }
  // Both times are of the coarse clock, whose steps may be seen in either order by two processors.
  const uint64_t heartbeat = page->heartbeatMs.load(std::memory_order_acquire);
  return now > heartbeat + tarnwire::HEARTBEAT_LIMIT_MS ? nullptr : page;
}

bool failureOccurred() {
  return failed.load(std::memory_order_relaxed);
}

void failureReset() {
  failed.store(false, std::memory_order_relaxed);
}

} // namespace tarnclient
