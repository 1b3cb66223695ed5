// Put in front of a program's libraries (LD_PRELOAD), it shifts the program's wall clock by the seconds in the file that WALL_CLOCK
// names, a 64-bit number that may change at any time. The machine's own clock, and that which nobody sets, stay as they are.

#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/time.h>
#include <unistd.h>

namespace {

const int64_t *shiftOpen() {
  static const int64_t none = 0;
  const char *path = getenv("WALL_CLOCK");
  const int fd = path != nullptr ? open(path, O_RDONLY | O_CLOEXEC) : -1;
  if (fd < 0) {
    return &none;
  }
  const void *page = mmap(nullptr, sizeof(int64_t), PROT_READ, MAP_SHARED, fd, 0);
  close(fd);
  return page != MAP_FAILED ? static_cast<const int64_t *>(page) : &none;
}

const int64_t *const shift = shiftOpen();

int64_t seconds() {
  return __atomic_load_n(shift, __ATOMIC_RELAXED);
}

template <typename Function> Function next(const char *name) {
  return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

} // namespace

extern "C" {

[[gnu::visibility("default")]] int clock_gettime(clockid_t clock, timespec *time) noexcept {
  static const auto real = next<int (*)(clockid_t, timespec *)>("clock_gettime");
  const int result = real(clock, time);
  if (result == 0 && (clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE)) {
    time->tv_sec += seconds();
  }
  return result;
}

[[gnu::visibility("default")]] int gettimeofday(timeval *time, void *zone) noexcept {
  static const auto real = next<int (*)(timeval *, void *)>("gettimeofday");
  const int result = real(time, zone);
  if (result == 0) {
    time->tv_sec += seconds();
  }
  return result;
}

[[gnu::visibility("default")]] time_t time(time_t *out) noexcept {
  static const auto real = next<time_t (*)(time_t *)>("time");
  const time_t now = real(nullptr) + seconds();
  if (out != nullptr) {
    *out = now;
  }
  return now;
}

} // extern "C"
