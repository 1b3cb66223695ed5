// A listening local socket at a path that belongs to this orrin.
#pragma once

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
  bool open(const std::string &path, int type, std::string &error);
  int fd() const { return fd_.get(); }

  // The next connection, non-blocking; none when nobody waits. The peer's process in the caller's pid namespace, 0 = unknown.
  UniqueFd accept(uint32_t &process) const;

private:
  UniqueFd fd_;
  std::string path_;
};

} // namespace orrin
