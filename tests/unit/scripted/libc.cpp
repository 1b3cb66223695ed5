// The few functions of the C library that stand in the way of a quick test, defined here too: the dynamic linker finds
// these first. The monotonic clock stands where the test has put it, select() waits no longer than SCRIPTED_SELECT_MS, a
// shell command is recorded, and carried out unless the script answers it, and pthread_mutexattr_init() fails when the script says so.

#include "recorder.h"

#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dlfcn.h>
#include <fcntl.h>
#include <linux/netlink.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

std::atomic<uint64_t> ownClock; // 0 = the kernel's clock
std::atomic<const std::atomic<uint64_t> *> clockSeconds = &ownClock;
long selectMilliseconds = LONG_MAX;

// Runs before main, while clock_gettime may be in use already.
__attribute__((constructor)) void environmentRead() {
  if (const char *limit = getenv("SCRIPTED_SELECT_MS")) {
    selectMilliseconds = strtol(limit, nullptr, 10);
  }
  const char *path = getenv("SCRIPTED_CLOCK");
  const int fd = path == nullptr ? -1 : open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    return;
  }
  void *page = mmap(nullptr, sizeof(uint64_t), PROT_READ, MAP_SHARED, fd, 0);
  close(fd);
  if (page != MAP_FAILED) {
    clockSeconds = static_cast<const std::atomic<uint64_t> *>(page);
  }
}

// What a watched descriptor is, in a word that is the same in every run.
std::string descriptorText(int fd) {
  sockaddr_storage storage{};
  socklen_t length = sizeof storage;
  if (getsockname(fd, reinterpret_cast<sockaddr *>(&storage), &length) != 0) {
    return errno == ENOTSOCK ? "file" : "closed";
  }
  if (storage.ss_family == AF_UNIX) {
    sockaddr_un local;
    memcpy(&local, &storage, sizeof local);
    return local.sun_path;
  }
  return storage.ss_family == AF_NETLINK ? "netlink" : "socket";
}

// A line for the set, only when it is not that of the thread's last time.
void selectRecord(int count, const fd_set *readable, const timeval *wait) {
  thread_local std::string last;
  std::vector<std::string> watched;
  int highest = -1;
  for (int fd = 0; fd < count; ++fd) {
    if (FD_ISSET(fd, readable)) {
      watched.push_back(descriptorText(fd));
      highest = fd;
    }
  }
  std::sort(watched.begin(), watched.end());
  std::string line = "select";
  for (const std::string &text : watched) {
    line += " " + text;
  }
  line += " " + std::to_string(wait->tv_sec) + "." + std::to_string(wait->tv_usec) + "s";
  line += highest + 1 == count ? "" : " (count is " + std::to_string(count) + ")";
  if (line != last) {
    scripted::traceTo(line);
    last = line;
  }
}

[[gnu::noinline]] timespec waitLimit(const timeval &wait) {
  const long milliseconds = std::min(selectMilliseconds, wait.tv_sec * 1000 + wait.tv_usec / 1000);
  return {milliseconds / 1000, milliseconds % 1000 * 1000000};
}

// Records the call; true when the script answers it.
[[gnu::noinline]] bool selectAnswered(int count, const fd_set *readable, const timeval *wait, int &result) {
  if (readable != nullptr && wait != nullptr) {
    selectRecord(count, readable, wait);
  }
  const auto answer = scripted::queuedAnswer("select");
  if (!answer) {
    return false;
  }
  const int error = answer->outputs.empty() ? 0 : atoi(answer->outputs[0].c_str());
  scripted::traceTo("select fails with " + std::to_string(error));
  result = answer->result;
  errno = error;
  return true;
}

} // namespace

void scripted::clockSet(uint64_t seconds) {
  ownClock = seconds;
}

#pragma GCC visibility push(default)

extern "C" int clock_gettime(clockid_t id, timespec *now) noexcept {
  const uint64_t seconds = id == CLOCK_MONOTONIC ? clockSeconds.load()->load() : 0;
  if (seconds == 0) {
    return static_cast<int>(syscall(SYS_clock_gettime, id, now));
  }
  now->tv_sec = static_cast<time_t>(seconds);
  now->tv_nsec = 0;
  return 0;
}

extern "C" int select(int count, fd_set *readable, fd_set *writable, fd_set *failed, timeval *wait) {
  static thread_local int result;
  static thread_local timespec limit; // nothing may be alive on a stack where a thread is cancelled
  if (selectAnswered(count, readable, wait, result)) {
    return result;
  }
  if (wait != nullptr) {
    limit = waitLimit(*wait);
  }
  return pselect(count, readable, writable, failed, wait == nullptr ? nullptr : &limit, nullptr);
}

extern "C" int system(const char *command) {
  scripted::traceTo(std::string("system ") + command);
  if (const auto answer = scripted::queuedAnswer("system")) {
    return answer->result;
  }
  static const auto real = reinterpret_cast<decltype(&system)>(dlsym(RTLD_NEXT, "system"));
  return real(command);
}

extern "C" int pthread_mutexattr_init(pthread_mutexattr_t *attributes) noexcept {
  if (const auto answer = scripted::queuedAnswer("pthread_mutexattr_init")) {
    return answer->result;
  }
  *attributes = {};
  return 0;
}

#pragma GCC visibility pop
