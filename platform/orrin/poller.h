// One epoll set whose events carry what they are about: a kind and a number. Descriptors leave it by being closed.
#pragma once

#include "unique_fd.h"

#include <cstdint>
#include <span>
#include <sys/epoll.h>

namespace orrin {

enum class Watched : uint32_t {
  SIGNAL,
  API_LISTENER,
  CONTROL_LISTENER,
  API_CONNECTION,
  CONTROL_CONNECTION,
  CLIENT_SOCKET,
  CLIENT_PROCESS,
  ARP_SOCKET
};

class Poller {
public:
  struct Event {
    Watched kind;
    uint32_t number;
    uint32_t events;
  };

  Poller();
  bool good() const { return static_cast<bool>(epoll_); }

  // events 0 reports only a hang-up.
  bool watch(int fd, uint32_t events, Watched kind, uint32_t number = 0);
  void change(int fd, uint32_t events, Watched kind, uint32_t number = 0);

  // Waits at most so long; the events are valid until the next call.
  std::span<const Event> wait(int milliseconds);

private:
  static constexpr int BATCH = 64;

  UniqueFd epoll_;
  Event events_[BATCH]{};
};

} // namespace orrin
