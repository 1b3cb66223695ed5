// The hang watchdog of a process: a timer of the kernel, whose signal ends the process. There is no thread: one would not
// follow the process through its forks. The signal finds the process anywhere, perhaps inside malloc or with the lock of a
// stream taken, so the handler formats nothing: the line for the log is made when the watchdog is armed, and the handler
// stamps it, writes it and aborts. Any thread.

#include "log.h"
#include "qvproc.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <unistd.h>

namespace {

constexpr uint32_t SEVERITY_CRITICAL = 2;
constexpr uint32_t COMPONENT_SELF_TEST = 0;
constexpr int LOG_PATIENCE_MSEC = 1000;

struct Watchdog {
  timer_t timer{};
  bool hasTimer = false;
  bool armed = false;
  LogLine line;
};
Watchdog watchdog; // whose turn it is may touch it
std::atomic_flag turnTaken;

// A spin lock, since the handler takes it too, in whichever thread the signal finds.
void turnTake() {
  while (turnTaken.test_and_set(std::memory_order_acquire)) {
    sched_yield();
  }
}

void turnGive() {
  turnTaken.clear(std::memory_order_release);
}

// With all signals blocked: a handler that interrupted the holder and then hung would lock the watchdog's own handler out.
class Turn {
public:
  Turn() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &callersMask_);
    turnTake();
  }
  Turn(const Turn &) = delete;
  Turn &operator=(const Turn &) = delete;
  ~Turn() {
    turnGive();
    pthread_sigmask(SIG_SETMASK, &callersMask_, nullptr);
  }

private:
  sigset_t callersMask_{};
};

// Timers are not inherited, and a thread that held the turn is not there in the child.
void forgetInChild() {
  watchdog.hasTimer = false;
  watchdog.armed = false;
  turnGive();
}

const int forgetRegistered = pthread_atfork(nullptr, nullptr, forgetInChild);

int watchdogSignal() {
  return SIGRTMAX - 2;
}

// The signal may come late, when another thread has armed the watchdog anew, or from somebody else.
bool ranOut() {
  itimerspec left{};
  return watchdog.armed && timer_gettime(watchdog.timer, &left) == 0 && left.it_value.tv_sec == 0 &&
         left.it_value.tv_nsec == 0;
}

void expire(int) {
  const int interruptedErrno = errno;
  turnTake();
  if (!ranOut()) {
    turnGive();
    errno = interruptedErrno;
    return;
  }
  // A log that nobody reads may be what the process hangs on: it must not hold up its end.
  pollfd log = {.fd = STDERR_FILENO, .events = POLLOUT, .revents = 0};
  if (poll(&log, 1, LOG_PATIENCE_MSEC) > 0) {
    logLineWrite(watchdog.line);
  }
  abort();
}

bool timerMake() {
  struct sigaction action {};
  action.sa_handler = expire;
  action.sa_flags = SA_RESTART | SA_ONSTACK;
  sigfillset(&action.sa_mask);
  if (sigaction(watchdogSignal(), &action, nullptr) != 0) {
    return false;
  }
  sigevent event{};
  event.sigev_notify = SIGEV_SIGNAL;
  event.sigev_signo = watchdogSignal();
  watchdog.hasTimer = timer_create(CLOCK_MONOTONIC, &event, &watchdog.timer) == 0;
  return watchdog.hasTimer;
}

// 0 seconds disarm it.
bool timerSet(uint32_t seconds) {
  itimerspec once{};
  once.it_value.tv_sec = seconds;
  const bool set = timer_settime(watchdog.timer, 0, &once, nullptr) == 0;
  watchdog.armed = set && seconds != 0;
  return set;
}

} // namespace

extern "C" int32_t qvproc_watchdog_start(uint32_t seconds, const char *name) {
  if (seconds == 0 || name == nullptr) {
    errno = EINVAL;
    return 1;
  }
  {
    const Turn turn;
    if (!watchdog.hasTimer && !timerMake()) {
      return 1;
    }
    logLineMake(watchdog.line, SEVERITY_CRITICAL, COMPONENT_SELF_TEST, "platform/process/watchdog", __LINE__,
                "process %d: watchdog \"%s\" ran out after %u s, ending the process", getpid(), name, seconds);
    if (!timerSet(seconds)) {
      return 1;
    }
  }
  // Whoever started the program may have left every signal blocked.
  sigset_t own;
  sigemptyset(&own);
  sigaddset(&own, watchdogSignal());
  pthread_sigmask(SIG_UNBLOCK, &own, nullptr);
  return 0;
}

extern "C" int32_t qvproc_watchdog_stop() {
  const Turn turn;
  if (watchdog.hasTimer) {
    timerSet(0);
  }
  return 0;
}
