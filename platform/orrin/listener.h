// A listening local socket at a path that belongs to this orrin.
#pragma once

#include "poller.h"
#include "unique_fd.h"

#include <cstdint>
#include <string>

namespace orrin {

class Listener {
public:
  Listener() = default;
  Listener(const Listener &) = delete;
  Listener &operator=(const Listener &) = delete;
  ~Listener();

  // Takes the path: a socket file that nobody answers at is removed. False with the reason.
  bool open(const std::string &path, int type, Poller &poller, Watched kind, std::string &error);

  // The next connection, non-blocking; none when nobody waits, or when there are no means to serve it: the poller then tells
  // of the listener no more until resume(). The peer's process in the caller's pid namespace, 0 = unknown.
  UniqueFd accept(uint32_t &process);
  void resume();

private:
  UniqueFd fd_;
  std::string path_;
  Poller *poller_ = nullptr;
  Watched kind_{};
  bool paused_ = false;
};

} // namespace orrin
