// Put in front of a program's libraries (LD_PRELOAD), it shifts the program's clocks by the seconds in the file that SET_CLOCKS
// names, two 64-bit numbers that may change at any time: the wall clock's, and that of the clock which nobody sets, so that long
// silences pass at once. Sleeps until a time of the latter last as long as they would. The machine's own clocks stay as they are.

#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/time.h>
#include <unistd.h>

namespace {

struct Shifts {
  int64_t wall;
  int64_t monotonic;
};

const Shifts *shiftsOpen() {
  static const Shifts none{};
  const char *path = getenv("SET_CLOCKS");
  const int fd = path != nullptr ? open(path, O_RDONLY | O_CLOEXEC) : -1;
  if (fd < 0) {
    return &none;
  }
  const void *page = mmap(nullptr, sizeof(Shifts), PROT_READ, MAP_SHARED, fd, 0);
  close(fd);
  return page != MAP_FAILED ? static_cast<const Shifts *>(page) : &none;
}

const Shifts *const shifts = shiftsOpen();

int64_t wallShift() {
  return __atomic_load_n(&shifts->wall, __ATOMIC_RELAXED);
}

int64_t monotonicShift() {
  return __atomic_load_n(&shifts->monotonic, __ATOMIC_RELAXED);
}

template <typename Function> Function next(const char *name) {
  return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

} // namespace

extern "C" {

// The coarse clock that nobody sets is not shifted: orrin's heartbeat is a time of it.
[[gnu::visibility("default")]] int clock_gettime(clockid_t clock, timespec *time) noexcept {
  static const auto real = next<int (*)(clockid_t, timespec *)>("clock_gettime");
  const int result = real(clock, time);
  if (result == 0 && (clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE)) {
    time->tv_sec += wallShift();
  } else if (result == 0 && clock == CLOCK_MONOTONIC) {
    time->tv_sec += monotonicShift();
  }
  return result;
}

[[gnu::visibility("default")]] int clock_nanosleep(clockid_t clock, int flags, const timespec *until, timespec *left) {
  static const auto real = next<int (*)(clockid_t, int, const timespec *, timespec *)>("clock_nanosleep");
  timespec unshifted = *until;
  if (clock == CLOCK_MONOTONIC && (flags & TIMER_ABSTIME) != 0) {
    unshifted.tv_sec -= monotonicShift();
  }
  return real(clock, flags, &unshifted, left);
}

[[gnu::visibility("default")]] int gettimeofday(timeval *time, void *zone) noexcept {
  static const auto real = next<int (*)(timeval *, void *)>("gettimeofday");
  const int result = real(time, zone);
  if (result == 0) {
    time->tv_sec += wallShift();
  }
  return result;
}

[[gnu::visibility("default")]] time_t time(time_t *out) noexcept {
  static const auto real = next<time_t (*)(time_t *)>("time");
  const time_t now = real(nullptr) + wallShift();
  if (out != nullptr) {
    *out = now;
  }
  return now;
}

} // extern "C"
