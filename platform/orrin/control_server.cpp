// Connections of the control socket. Used by orrin's one thread.

#include "control_server.h"

#include <cerrno>
#include <sys/socket.h>

namespace orrin {

namespace {

constexpr size_t CONNECTIONS_MAX = 256;
constexpr size_t LINE_MAX_BYTES = 65536;   // without a line end in it, a connection is not one of ours
constexpr size_t OUTPUT_AT_ONCE = 1 << 20; // commands of a pass are run until their answers reach this

} // namespace

bool ControlServer::open(const std::string &path, std::string &error) {
  return listener_.open(path, SOCK_STREAM, sw_.poller, Watched::CONTROL_LISTENER, error);
}

void ControlServer::acceptConnections() {
  uint32_t process = 0;
  while (UniqueFd fd = listener_.accept(process)) {
    const uint32_t number = nextNumber_++;
    if (connections_.size() < CONNECTIONS_MAX &&
        sw_.poller.watch(fd.get(), EPOLLIN, Watched::CONTROL_CONNECTION, number)) {
      connections_[number].fd = std::move(fd);
    }
  }
}

void ControlServer::serve(uint32_t number, uint32_t events) {
  const auto entry = connections_.find(number);
  if (entry == connections_.end()) {
    return;
  }
  Connection &connection = entry->second;
  if ((events & EPOLLIN) != 0 && !receive(connection)) {
    connections_.erase(entry);
    return;
  }
  runLines(connection);
  if (!sendOutput(connection) || (connection.ended && connection.output.empty())) {
    connections_.erase(entry);
    return;
  }
  const bool moreToRun = connection.input.find('\n') != std::string::npos;
  const uint32_t wanted = !connection.output.empty() || moreToRun ? EPOLLOUT : EPOLLIN;
  sw_.poller.change(connection.fd.get(), wanted, Watched::CONTROL_CONNECTION, number);
}

bool ControlServer::receive(Connection &connection) {
  char buffer[65536];
  const ssize_t length = recv(connection.fd.get(), buffer, sizeof buffer, MSG_DONTWAIT);
  const int reason = errno;
  if (length < 0) {
    return reason == EAGAIN || reason == EINTR;
  }
  if (length == 0) { // the other side may still want its answers
    connection.ended = true;
    return true;
  }
  connection.input.append(buffer, static_cast<size_t>(length));
  return connection.input.size() <= LINE_MAX_BYTES || connection.input.find('\n') != std::string::npos;
}

void ControlServer::runLines(Connection &connection) {
  struct Outcome {
    bool accepted;
    bool kept; // in the journal: it is done when it is on file
    std::string text;
  };
  std::vector<Outcome> outcomes;
  size_t bytes = connection.output.size();
  size_t begin = 0;
  for (size_t end; bytes < OUTPUT_AT_ONCE && (end = connection.input.find('\n', begin)) != std::string::npos;
       begin = end + 1) {
    const uint64_t before = sw_.journal.appended();
    Outcome &outcome = outcomes.emplace_back();
    outcome.accepted = runCommand(sw_, std::string_view(connection.input).substr(begin, end - begin), outcome.text);
    outcome.kept = sw_.journal.appended() != before;
    bytes += outcome.text.size();
    sw_.page.beat();
  }
  connection.input.erase(0, begin);
  const bool onFile = sw_.journal.flush();
  for (Outcome &outcome : outcomes) {
    if (outcome.accepted && outcome.kept && !onFile) {
      outcome.accepted = false;
      outcome.text = "done, but not kept for the next start: " + sw_.journal.trouble();
    }
    std::string &text = outcome.text;
    if (!text.empty() && text.back() != '\n') {
      text += '\n';
    }
    connection.output.append(outcome.accepted ? "0 " : "1 ");
    connection.output.append(std::to_string(text.size())).append(1, '\n').append(text);
  }
}

// False when the connection is lost.
bool ControlServer::sendOutput(Connection &connection) {
  while (connection.sent < connection.output.size()) {
    const ssize_t sent = send(connection.fd.get(), connection.output.data() + connection.sent,
                              connection.output.size() - connection.sent, MSG_DONTWAIT | MSG_NOSIGNAL);
    const int reason = errno;
    if (sent < 0) {
      return reason == EAGAIN || reason == EINTR;
    }
    connection.sent += static_cast<size_t>(sent);
  }
  connection.output.clear();
  connection.output.shrink_to_fit();
  connection.sent = 0;
  return true;
}

} // namespace orrin
