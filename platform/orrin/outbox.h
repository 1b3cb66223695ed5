// Messages on their way to one client's event socket, in order. What the socket does not take (full, or not bound yet)
// stays here: a full one is waited for through the poller, a missing one is tried again after a while.
#pragma once

#include "poller.h"
#include "rppi_event.h"
#include "unique_fd.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>

namespace orrin {

class Outbox {
public:
  static constexpr uint64_t RETRY_MS = 100;

  void open(std::string path, uint32_t client) {
    path_ = std::move(path);
    client_ = client;
  }
  void close();
  void clear() { messages_.clear(); }

  // The caller flushes afterwards.
  void add(const RppiEventMsg &message) { messages_.push_back(message); }
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
  uint32_t client_ = 0;
  UniqueFd socket_;
  bool watched_ = false;
  std::deque<RppiEventMsg> messages_;
  uint64_t retryAtMs_ = 0;
};

} // namespace orrin
