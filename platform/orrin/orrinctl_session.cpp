// The control connection: one non-blocking local stream socket. Both directions move in the same poll, so that a long
// script cannot lock up with orrin, each waiting for the other to read.
#include "orrinctl_session.h"

#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <utility>

namespace {

constexpr const char *DEFAULT_SOCKET = "/run/orrin/api";
constexpr const char *CONTROL_SUFFIX = ".control";
constexpr int ANSWER_TIMEOUT_MS = 60'000;
constexpr size_t RECEIVE_STEP = 256 * 1024;
constexpr size_t LONGEST_HEADER = 24;

std::string controlPath() {
  const char *api = std::getenv("ORRIN_SOCKET");
  return std::string(api != nullptr && *api != '\0' ? api : DEFAULT_SOCKET) + CONTROL_SUFFIX;
}

} // namespace

ControlAnswer askOrrin(const std::string &command) {
  ControlSession session;
  if (!session.connect()) {
    return {false, session.error()};
  }
  session.queue(command);
  return session.wait(-1) == ControlSession::Event::Answer ? session.takeAnswer()
                                                           : ControlAnswer{false, session.error()};
}

bool ControlSession::connect() {
  const std::string path = controlPath();
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  if (path.size() >= sizeof addr.sun_path) {
    error_ = "socket path too long: " + path;
    return false;
  }
  path.copy(addr.sun_path, path.size());

  // Connected before it becomes non-blocking: a full backlog is waited for.
  fd_.reset(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (fd_.get() < 0 || ::connect(fd_.get(), reinterpret_cast<const sockaddr *>(&addr), sizeof addr) != 0) {
    const int err = errno;
    error_ = "cannot reach orrin at " + path + ": " + std::strerror(err);
    return false;
  }
  return true;
}

void ControlSession::queue(std::string_view command) {
  out_.append(command);
  out_.push_back('\n');
  ++unanswered_;
}

ControlSession::Event ControlSession::lost(std::string why) {
  error_ = std::move(why);
  return Event::Lost;
}

ControlSession::Event ControlSession::wait(int input) {
  for (;;) {
    switch (parseAnswer()) {
    case Parsed::Whole:
      return Event::Answer;
    case Parsed::Broken:
      return lost("orrin's answer makes no sense");
    case Parsed::Partial:
      break;
    }

    pollfd fds[2] = {{fd_.get(), POLLIN, 0}, {input, POLLIN, 0}};
    if (unsent() > 0) {
      fds[0].events |= POLLOUT;
    }
    const int ready = poll(fds, 2, unanswered_ > 0 ? ANSWER_TIMEOUT_MS : -1);
    if (ready < 0) {
      const int err = errno;
      if (err == EINTR) {
        continue;
      }
      return lost(std::string("poll: ") + std::strerror(err));
    }
    if (ready == 0) {
      return lost("orrin has not answered for a minute");
    }
    if ((fds[0].revents & POLLOUT) != 0 && !sendSome()) {
      return Event::Lost;
    }
    if ((fds[0].revents & (POLLIN | POLLHUP | POLLERR)) != 0 && !receiveSome()) {
      return Event::Lost;
    }
    if (fds[1].revents != 0) {
      return Event::Input;
    }
  }
}

bool ControlSession::sendSome() {
  const ssize_t n = send(fd_.get(), out_.data() + sent_, unsent(), MSG_DONTWAIT | MSG_NOSIGNAL);
  if (n < 0) {
    const int err = errno;
    // A peer that is gone may have answered first: let the read say how it ends.
    if (err == EAGAIN || err == EINTR || err == EPIPE || err == ECONNRESET) {
      return true;
    }
    error_ = std::string("cannot send to orrin: ") + std::strerror(err);
    return false;
  }
  sent_ += static_cast<size_t>(n);
  if (sent_ == out_.size()) {
    out_.clear();
    sent_ = 0;
  }
  return true;
}

bool ControlSession::receiveSome() {
  const size_t old = in_.size();
  in_.resize(old + RECEIVE_STEP);
  const ssize_t n = recv(fd_.get(), in_.data() + old, RECEIVE_STEP, MSG_DONTWAIT);
  const int err = errno;
  in_.resize(old + (n > 0 ? static_cast<size_t>(n) : 0));
  if (n > 0 || (n < 0 && (err == EAGAIN || err == EINTR))) {
    return true;
  }
  error_ = n == 0 ? "orrin closed the connection" : std::string("cannot read from orrin: ") + std::strerror(err);
  return false;
}

ControlSession::Parsed ControlSession::parseAnswer() {
  const std::string_view rest = std::string_view(in_).substr(taken_);
  const size_t end = rest.substr(0, LONGEST_HEADER).find('\n');
  if (end == std::string_view::npos) {
    return rest.size() >= LONGEST_HEADER ? Parsed::Broken : Parsed::Partial;
  }
  const char *const stop = rest.data() + end;
  unsigned status = 0;
  const auto first = std::from_chars(rest.data(), stop, status);
  if (first.ec != std::errc{} || status > 1 || first.ptr == stop || *first.ptr != ' ') {
    return Parsed::Broken;
  }
  size_t length = 0;
  const auto second = std::from_chars(first.ptr + 1, stop, length);
  if (second.ec != std::errc{} || second.ptr != stop || unanswered_ == 0) {
    return Parsed::Broken;
  }
  if (rest.size() - end - 1 < length) {
    return Parsed::Partial;
  }
  accepted_ = status == 0;
  textStart_ = taken_ + end + 1;
  textLength_ = length;
  return Parsed::Whole;
}

ControlAnswer ControlSession::takeAnswer() {
  ControlAnswer answer{accepted_, in_.substr(textStart_, textLength_)};
  taken_ = textStart_ + textLength_;
  --unanswered_;
  if (taken_ == in_.size()) {
    in_.clear();
    taken_ = 0;
  } else if (taken_ > RECEIVE_STEP) {
    in_.erase(0, taken_);
    taken_ = 0;
  }
  return answer;
}
