// Looking at client processes. No state.

#include "process_info.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/syscall.h>

namespace orrin {

bool processExists(uint32_t pid) {
  return pid != 0 && pid <= INT32_MAX && (kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM);
}

uint64_t processStartTime(uint32_t pid) {
  char path[32];
  std::snprintf(path, sizeof path, "/proc/%u/stat", pid);
  const UniqueFd fd(open(path, O_RDONLY | O_CLOEXEC));
  char text[1024];
  const ssize_t length = fd ? read(fd.get(), text, sizeof text - 1) : -1;
  if (length <= 0) {
    return 0;
  }
  text[length] = '\0';
  // Field 2 is the name in parentheses, which may hold anything; the start time is the 20th field behind it.
  const char *field = std::strrchr(text, ')');
  for (int skipped = 0; field != nullptr && skipped < 20; ++skipped) {
    field = std::strchr(field + 1, ' ');
  }
  return field == nullptr ? 0 : std::strtoull(field, nullptr, 10);
}

UniqueFd openProcess(uint32_t pid) {
  return UniqueFd(static_cast<int>(syscall(SYS_pidfd_open, pid, 0))); // close-on-exec by itself
}

bool processEnded(const UniqueFd &process) {
  pollfd wait{process.get(), POLLIN, 0};
  return process && poll(&wait, 1, 0) == 1;
}

} // namespace orrin
