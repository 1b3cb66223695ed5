// The self-test application: one test of the process library, or of the supervision of a process, a start. Which one is a
// number in a flag file. One thread; the process ends only where its test ends it.

#include "proctest.h"
#include "unique_fd.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr char TEST_NUMBER_FLAG[] = "/tmp/debug-flags/PROCTEST";
constexpr size_t FLAG_BYTES = 80; // the last one stays 0

// Number 0 and a missing flag file say the same.
void testNone() {
  printf("Did not find /tmp/debug-flags/PROCTEST file.\n");
}

// By number.
constexpr std::array TESTS = {
    testNone,        testChildProcesses, testLogFiles,     testLogCount,     testCrashingProcesses, testMemoryTracking,
    testMemoryLimit, testHangWatchdog,   testProcessorHog, testShellCommand, testLibrary,
};

} // namespace

void idle() {
  for (;;) {
    sleep(1);
  }
}

void inChild(void (*work)()) {
  const pid_t child = fork();
  if (child == 0) {
    work();
    idle();
  }
  if (child < 0) {
    perror("fork");
  }
}

long flagRead(const char *path, int lowestFd) {
  const UniqueFd file(open(path, O_RDONLY | O_CLOEXEC));
  std::array<char, FLAG_BYTES> text{};
  if (file.get() < lowestFd || read(file.get(), text.data(), text.size() - 1) < 0) {
    return 0;
  }
  return strtol(text.data(), nullptr, 10);
}

int main() {
  // Whoever reads a pipe or a file sees each line at once, and no child of a fork finds text to print again.
  setvbuf(stdout, nullptr, _IONBF, 0);

  const auto number = static_cast<unsigned long>(flagRead(TEST_NUMBER_FLAG)); // unsigned: no test is negative
  printf("Test Application Process is Running. PROCTEST=%d\n", static_cast<int>(number));
  if (number < TESTS.size()) {
    TESTS[number]();
  } else {
    printf("Unsupported test.\n");
  }
  idle();
}
