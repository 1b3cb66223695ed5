// Tests 1, 4, 7, 8 and 9: a supervisor's processes. They fork, become daemons, crash, hang under a watchdog, take all of the
// processor and start other programs.

#include "proctest.h"
#include "qvproc.h"

#include <cstdio>
#include <cstdlib>
#include <unistd.h>

namespace {

constexpr unsigned CRASH_AFTER_S = 5;
constexpr unsigned COMMAND_EVERY_S = 5;
constexpr unsigned NEVER_FAIL_S = 20; // armed anew every NEVER_FAIL_RESTART_S
constexpr unsigned NEVER_FAIL_RESTART_S = 2;
constexpr unsigned FAIL_S = 60;
constexpr unsigned CLEAR_S = 90;
constexpr unsigned CLEAR_AFTER_S = 60;
constexpr unsigned GO_AWAY_S = 65;

void trackedChild() {
  qvproc_memtrack_init();
  printf("[%d]:[%d] - Test Child Proc\n", getpgrp(), getpid());
}

void daemonizedChild() {
  qvproc_memtrack_init();
  printf("[%d]:[%d] - Daemonized Test Child Proc\n", getpgrp(), getpid());
}

void daemonizingChild() {
  qvproc_memtrack_init();
  inChild(daemonizedChild);
  exit(0);
}

void crash() {
  sleep(CRASH_AFTER_S);
  abort();
}

void neverFail() {
  for (;;) {
    qvproc_watchdog_start(NEVER_FAIL_S, "never-fail");
    sleep(NEVER_FAIL_RESTART_S);
  }
}

void failAfterAMinute() {
  qvproc_watchdog_start(FAIL_S, "fail-after-60");
}

void clearAfterAMinute() {
  qvproc_watchdog_start(CLEAR_S, "clear-after-60");
  sleep(CLEAR_AFTER_S);
  qvproc_watchdog_stop();
}

void goAway() {
  qvproc_watchdog_start(GO_AWAY_S, "go-away");
  exit(0);
}

} // namespace

void testChildProcesses() {
  inChild(trackedChild);
  inChild(daemonizingChild);
}

void testCrashingProcesses() {
  for (int children = 0; children < 3; ++children) {
    inChild(crash);
  }
  crash();
}

void testHangWatchdog() {
  printf("Process Hang Watchdog Test\n");
  inChild(neverFail);
  inChild(failAfterAMinute);
  inChild(clearAfterAMinute);
  inChild(goAway);
}

void testProcessorHog() {
  for (;;) {
    asm volatile(""); // a loop without any effect may be left out by the compiler
  }
}

void testShellCommand() {
  for (;;) {
    static_cast<void>(!system("ifconfig lo"));
    sleep(COMMAND_EVERY_S);
  }
}
