// A program with a debug shell, run by process_shell_test as `process_shell_agent agent-<vrf>`. It prints lines of its own
// from each of two threads from the first byte on its standard input to the second, while operations print theirs.

#include "qvproc.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>
#include <unistd.h>

namespace {

constexpr unsigned PRINT_MAX = 1000000; // should nobody say that it is enough

std::mutex sharedLock;
std::atomic<bool> enough{false};

int32_t arguments(int32_t argc, const char *const *argv) {
  for (int32_t i = 0; i < argc; ++i) {
    printf("%d=%s\n", i, argv[i]);
  }
  return argv[argc] == nullptr ? 0 : 7;
}

int32_t refuse(int32_t, const char *const *) {
  fputs("said before", stdout);
  return 1;
}

int32_t fail(int32_t, const char *const *) {
  return 42;
}

// Prints in pieces, sometimes under the lock that the other threads print under, and ends without a line end.
int32_t lines(int32_t, const char *const *argv) {
  const int count = atoi(argv[1]);
  for (int i = 0; i < count; ++i) {
    std::unique_lock lock(sharedLock, std::defer_lock);
    if (i % 16 == 0) {
      lock.lock();
    }
    fputs("operation", stdout);
    putchar(' ');
    printf("%d%s", i, i + 1 < count ? "\n" : ".");
  }
  fflush(stdout);
  return 0;
}

int32_t pid(int32_t, const char *const *) {
  printf("%d", getpid());
  return 0;
}

// A line whole under the stream's lock, as traces are printed, and one in pieces with the other lock held.
void printLines(const char *who) {
  for (unsigned i = 0; i < PRINT_MAX && !enough; ++i) {
    flockfile(stdout);
    printf("%s ", who);
    printf("%u end\n", i);
    funlockfile(stdout);
    const std::lock_guard lock(sharedLock);
    printf("%s whole %u end\n", who, i);
  }
}

} // namespace

int main(int argc, char **argv) {
  const bool early = argc > 2 && std::string(argv[2]) == "buffer-early";
  if (early) {
    setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
  }
  qvproc_devshell_register("arguments", "<any>...", arguments);
  qvproc_devshell_register("refuse", "<number>\nrefuses it", refuse);
  qvproc_devshell_init();
  qvproc_devshell_init();
  if (!early) {
    setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
  }
  qvproc_devshell_register("fail", nullptr, fail);
  qvproc_devshell_register("lines", "<count>", lines);
  qvproc_devshell_register("pid", "", pid);
  printf("ready, and then half a line:");
  fflush(stdout);
  char byte;
  if (read(STDIN_FILENO, &byte, 1) == 1) {
    std::thread first(printLines, "first");
    std::thread second(printLines, "second");
    enough = read(STDIN_FILENO, &byte, 1) >= 0;
    first.join();
    second.join();
    printf("all printed\n");
  }
  while (read(STDIN_FILENO, &byte, 1) == 1) {
  }
}
