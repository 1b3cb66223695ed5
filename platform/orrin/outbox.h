// Messages on their way to one local datagram socket of an agent, in order. What the socket does not take (full, or not bound
// yet) stays here: a full one is waited for through the poller, a missing one is tried again after a while.
#pragma once

#include "poller.h"
#include "rppi_event.h"
#include "unique_fd.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>

namespace orrin {

class Outbox {
public:
  static constexpr uint64_t RETRY_MS = 100;

  // The poller's events of the socket are of this kind and number.
  void open(std::string path, Watched kind, uint32_t number) {
    path_ = std::move(path);
    kind_ = kind;
    number_ = number;
  }
  void close();
  void clear() { messages_.clear(); }

  // The caller flushes afterwards.
  void add(std::string_view message) { messages_.emplace_back(message); }
  void add(const RppiEventMsg &message) { add({reinterpret_cast<const char *>(&message), message.msgLen}); }
  // Is there an event of the type among those that wait?
  bool holds(uint16_t type) const;

  void flush(Poller &poller, uint64_t nowMs);
  // The other end is gone; what waits is sent to whoever binds the path next.
  void lost() {
    socket_.reset();
    watched_ = false;
  }

  size_t size() const { return messages_.size(); }
  const std::string &path() const { return path_; }
  // When to flush again, 0 = no need: empty, or the poller will tell.
  uint64_t retryAtMs() const { return messages_.empty() ? 0 : retryAtMs_; }

private:
  bool connectSocket(Poller &poller);
  void setWritableWatch(Poller &poller, bool wanted);

  std::string path_;
  Watched kind_ = Watched::CLIENT_SOCKET;
  uint32_t number_ = 0;
  UniqueFd socket_;
  bool watched_ = false;
  std::deque<std::string> messages_;
  uint64_t retryAtMs_ = 0;
};

} // namespace orrin
