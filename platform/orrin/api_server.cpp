// Connections of the request socket. Used by orrin's one thread.

#include "api_server.h"


#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <sys/uio.h>

namespace orrin {

namespace {

constexpr size_t CONNECTIONS_MAX = 2048;

// The greeting, with the descriptor of the published page.
bool greet(int fd, int page) {
  tarnwire::Hello hello{tarnwire::PROTOCOL, sizeof(tarnwire::Published)};
  iovec data{&hello, sizeof hello};
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof page)] = {};
  msghdr message{};
  message.msg_iov = &data;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof control;
  cmsghdr *header = CMSG_FIRSTHDR(&message);
  header->cmsg_level = SOL_SOCKET;
  header->cmsg_type = SCM_RIGHTS;
  header->cmsg_len = CMSG_LEN(sizeof page);
  std::memcpy(CMSG_DATA(header), &page, sizeof page);
  return sendmsg(fd, &message, MSG_DONTWAIT | MSG_NOSIGNAL) == sizeof hello;
}

} // namespace

bool ApiServer::open(const std::string &path, std::string &error) {
  return listener_.open(path, SOCK_SEQPACKET, sw_.poller, Watched::API_LISTENER, error);
}

void ApiServer::acceptConnections() {
  uint32_t process = 0;
  while (UniqueFd fd = listener_.accept(process)) {
    const uint32_t number = nextNumber_++;
    if (connections_.size() >= CONNECTIONS_MAX || !greet(fd.get(), sw_.page.fd()) ||
        !sw_.poller.watch(fd.get(), EPOLLIN, Watched::API_CONNECTION, number)) {
      continue;
    }
    connections_[number] = {std::move(fd), process};
  }
}

void ApiServer::serve(uint32_t number, uint32_t events) {
  const auto entry = connections_.find(number);
  if (entry == connections_.end()) {
    return;
  }
  const bool open = (events & EPOLLIN) == 0 || receive(number, entry->second);
  if (!open || (events & (EPOLLHUP | EPOLLERR)) != 0) {
    close(number);
  }
}

// One datagram; false when the connection has ended.
bool ApiServer::receive(uint32_t number, const Connection &connection) {
  char buffer[tarnwire::REQUEST_MAX + 1]; // a longer one is seen by its length
  const ssize_t length = recv(connection.fd.get(), buffer, sizeof buffer, MSG_DONTWAIT);
  const int reason = errno;
  if (length < 0) {
    return reason == EAGAIN || reason == EINTR;
  }
  if (length < static_cast<ssize_t>(sizeof(tarnwire::Request)) ||
      length > static_cast<ssize_t>(tarnwire::REQUEST_MAX)) {
    return false;
  }
  take(number, {buffer, static_cast<size_t>(length)});
  return true;
}

void ApiServer::take(uint32_t number, std::string_view bytes) {
  tarnwire::Request request;
  std::memcpy(&request, bytes.data(), sizeof request);
  if (request.op >= tarnwire::OP_COUNT) {
    return answer(number, bytes, nullptr);
  }
  const auto op = static_cast<tarnwire::Op>(request.op);
  const std::optional<Fault> fault = sw_.faults.hit(op);
  sw_.page.fault(op, sw_.faults.at(op).has_value());
  if (!fault || fault->delayMs == 0) {
    return answer(number, bytes, fault ? &*fault : nullptr);
  }
  // Nothing more is read from the connection until then; that it ends is still reported.
  sw_.poller.change(connections_.at(number).fd.get(), 0, Watched::API_CONNECTION, number);
  delayed_.emplace(nowMs() + fault->delayMs, Delayed{number, std::string(bytes), *fault});
}

void ApiServer::answer(uint32_t number, std::string_view bytes, const Fault *fault) {
  const Connection &connection = connections_.at(number);
  tarnwire::Request request;
  std::memcpy(&request, bytes.data(), sizeof request);
  Answer answer;
  if (fault != nullptr && fault->result) {
    answer.reply.result = *fault->result;
  } else {
    answerRequest(sw_, request, {number, connection.process, bytes.substr(sizeof request)}, answer);
  }
  sw_.journal.flush();
  if (fault != nullptr && fault->drop) {
    return;
  }
  answer.reply.sequence = request.sequence;
  iovec data[2] = {{&answer.reply, sizeof answer.reply}, {answer.tail.data(), answer.tail.size()}};
  msghdr message{};
  message.msg_iov = data;
  message.msg_iovlen = 2;
  if (sendmsg(connection.fd.get(), &message, MSG_DONTWAIT | MSG_NOSIGNAL) < 0) {
    close(number);
  }
}

void ApiServer::answerDue() {
  const uint64_t now = nowMs();
  while (!delayed_.empty() && delayed_.begin()->first <= now) {
    const Delayed held = std::move(delayed_.begin()->second);
    delayed_.erase(delayed_.begin());
    const auto entry = connections_.find(held.number);
    if (entry == connections_.end()) { // its caller has given up: the call is not made
      continue;
    }
    sw_.poller.change(entry->second.fd.get(), EPOLLIN, Watched::API_CONNECTION, held.number);
    answer(held.number, held.request, &held.fault);
  }
}

} // namespace orrin
