// Tasks and time.

#include "osapi.h"

#include <cerrno>
#include <ctime>
#include <memory>
#include <new>
#include <pthread.h>

namespace {

constexpr uint32_t TASK_NAME_SIZE = 16; // of the kernel, NUL included
constexpr uint32_t MSEC_PER_SEC = 1000;
constexpr long NSEC_PER_MSEC = 1000000;
constexpr long NSEC_PER_SEC = 1000000000;

struct TaskStart {
  void *(*entry)(void *arg);
  void *arg;
  char name[TASK_NAME_SIZE];
};

// The thread names itself: a task that detaches itself and ends at once leaves no thread to name from outside. Nothing but
// numbers is alive on this frame while the entry runs, since a thread that is cancelled never leaves it.
void *taskRun(void *start) {
  const TaskStart *task = static_cast<TaskStart *>(start);
  pthread_setname_np(pthread_self(), task->name);
  void *(*const entry)(void *arg) = task->entry;
  void *const arg = task->arg;
  delete task;
  return entry(arg);
}

timespec sinceBoot() {
  timespec now{};
  clock_gettime(CLOCK_BOOTTIME, &now);
  return now;
}

} // namespace

extern "C" uint64_t osapiTaskCreate(const char *name, void *(*entry)(void *arg), uint32_t, void *arg, uint32_t,
                                    uint32_t, uint32_t) {
  std::unique_ptr<TaskStart> start(new (std::nothrow) TaskStart{.entry = entry, .arg = arg, .name = {}});
  if (!start) {
    errno = ENOMEM;
    return 0;
  }
  osapiStrncpySafe(start->name, name, sizeof start->name);
  pthread_t thread;
  const int error = pthread_create(&thread, nullptr, taskRun, start.get());
  if (error != 0) {
    errno = error;
    return 0;
  }
  start.release(); // the thread's
  return thread;
}

extern "C" int32_t osapiSleepMSec(uint32_t milliseconds) {
  timespec until{};
  clock_gettime(CLOCK_MONOTONIC, &until);
  until.tv_sec += milliseconds / MSEC_PER_SEC;
  until.tv_nsec += static_cast<long>(milliseconds % MSEC_PER_SEC) * NSEC_PER_MSEC;
  if (until.tv_nsec >= NSEC_PER_SEC) {
    until.tv_nsec -= NSEC_PER_SEC;
    ++until.tv_sec;
  }
  while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) == EINTR) {
  }
  return 0;
}

extern "C" uint32_t osapiUpTimeRaw() {
  return static_cast<uint32_t>(sinceBoot().tv_sec);
}

extern "C" uint32_t osapiUpTimeMillisecondsGet() {
  const timespec now = sinceBoot();
  return static_cast<uint32_t>(static_cast<uint64_t>(now.tv_sec) * MSEC_PER_SEC +
                               static_cast<uint64_t>(now.tv_nsec / NSEC_PER_MSEC));
}
