// Tests 2, 3, 5 and 6: log files that grow, log messages by number, heap blocks that are never freed, memory up to a limit.

#include "proctest.h"
#include "qvproc.h"
#include "unique_fd.h"

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <malloc.h>
#include <sys/resource.h>
#include <unistd.h>

namespace {

constexpr char LOG_AREA[] = "process/proc_apps/proctest/test_app";
constexpr uint32_t SEVERITY_WARNING = 4;
constexpr uint32_t COMPONENT_SELF_TEST = 0;

constexpr int PASS_ENTRIES = 300;
constexpr int FIRST_LOG_COPIES = 3;
constexpr size_t RECORD_BYTES = 80;
constexpr mode_t LOG_MODE = 0777;

using Record = std::array<char, RECORD_BYTES>;

// Blocks of the memory limit test, 102400 bytes each.
constexpr size_t BLOCK_BYTES = 102400;
struct Block {
  Block *next;
  std::byte rest[BLOCK_BYTES - sizeof(Block *)];
};
static_assert(sizeof(Block) == BLOCK_BYTES);

UniqueFd logOpen(const char *path) {
  return UniqueFd(open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, LOG_MODE));
}

bool recordWrite(const UniqueFd &file, const Record &record) {
  for (size_t done = 0; done < record.size();) {
    const ssize_t written = write(file.get(), record.data() + done, record.size() - done);
    if (written < 0 && errno != EINTR) {
      return false;
    }
    done += written > 0 ? static_cast<size_t>(written) : 0;
  }
  return true;
}

bool recordsWrite(const UniqueFd &first, const UniqueFd &second, const Record &record) {
  for (int copy = 0; copy < FIRST_LOG_COPIES; ++copy) {
    if (!recordWrite(first, record)) {
      perror("write - fd1");
      return false;
    }
  }
  if (!recordWrite(second, record)) {
    perror("write - fd2");
    return false;
  }
  return true;
}

bool logFilesPass() {
  const UniqueFd first = logOpen("/tmp/logs/test1.log");
  if (!first) {
    perror("open - fd1");
    return false;
  }
  const UniqueFd second = logOpen("/tmp/logs/test2.log");
  if (!second) {
    perror("open - fd2");
    return false;
  }
  for (int entry = 0; entry < PASS_ENTRIES; ++entry) {
    Record record{};
    snprintf(record.data(), record.size(), "Test Log Entry %d\n", entry);
    if (!recordsWrite(first, second, record)) {
      return false;
    }
  }
  return true;
}

void trackedChild() {
  qvproc_memtrack_init();
}

// Newest first.
Block *blocksAllocate(unsigned long budget) {
  Block *head = nullptr;
  unsigned long total = 0;
  while (budget == 0 || total <= budget) {
    printf("Allocated %lu bytes\n", total);
    auto *block = static_cast<Block *>(calloc(1, sizeof(Block)));
    if (block == nullptr) {
      printf("Out of Memory.\n");
      break;
    }
    block->next = head;
    head = block;
    total += sizeof(Block);
  }
  return head;
}

} // namespace

void testLogFiles() {
  while (logFilesPass()) {
    sleep(1);
  }
}

void testLogCount() {
  // Without a standard input the flag file gets descriptor 0, and 0 has always counted as missing here.
  const auto last = static_cast<uint32_t>(flagRead("/tmp/debug-flags/PROC_SYSLOG_COUNT", STDIN_FILENO + 1));
  printf("Runinng SYSLOG test. PROC_SYSLOG_COUNT=%d\n", static_cast<int>(last));
  for (uint32_t message = 0;; ++message) {
    qvproc_logf(SEVERITY_WARNING, COMPONENT_SELF_TEST, LOG_AREA, __LINE__, "Test Message:%d",
                static_cast<int>(message));
    if (message == last && last != 0) {
      return;
    }
  }
}

void testMemoryTracking() {
  printf("Memtrack Test.\n");
  static void *p1 = malloc(10); // these two are never given back
  void *p2 = calloc(2, 20);
  char *p3 = strdup("Hello There!");
  void *p4 = memalign(8, 100);
  static void *p5 = valloc(110);
  void *p6 = nullptr;
  if (posix_memalign(&p6, 8, 120) != 0) {
    p6 = nullptr;
  }
  printf("p1:%p p2:%p p3:%p p4:%p p5:%p p6:%p\n", p1, p2, static_cast<void *>(p3), p4, p5, p6);

  // One line in three pieces: a pointer that realloc has taken back means nothing any more, not even in print.
  void *grown = realloc(nullptr, 200);
  printf("r1:%p ", grown);
  grown = realloc(grown, 220);
  printf("r2:%p ", grown);
  grown = realloc(grown, 0);
  printf("r3:%p\n", grown);
  free(p2);
  free(p3);
  inChild(idle);
  inChild(trackedChild);
}

void testMemoryLimit() {
  const auto budget = static_cast<unsigned long>(flagRead("/tmp/debug-flags/PROC_MAX_MEM"));
  rlimit addressSpace{};
  if (getrlimit(RLIMIT_AS, &addressSpace) != 0) {
    perror("getrlimit");
    addressSpace = {};
  }
  printf("Runinng SETRLIMIT test. PROC_MAX_MEM=%lu, rlim_max=%lu, rlim_cur=%lu\n", budget, addressSpace.rlim_max,
         addressSpace.rlim_cur);
  for (Block *block = blocksAllocate(budget); block != nullptr;) {
    Block *next = block->next;
    free(block);
    block = next;
  }
}
