// Memory tracking and watchdog of the process library, each in child processes of the test, which end as the library has it.

#include "process_support.h"
#include "qvproc.h"
#include "unique_fd.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <gmock/gmock.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

using testing::ContainsRegex;
using testing::IsEmpty;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool OWN_ALLOCATOR = true; // the sanitizer's, which the C library's counts know nothing of
#else
constexpr bool OWN_ALLOCATOR = false;
#endif

constexpr size_t LARGE = 1 << 20;
constexpr long NOISE = 64 * 1024; // of the allocator

// Runs the work in a child, whose standard error is a pipe, and then ends the child with status 0.
class Child {
public:
  explicit Child(const std::function<void()> &work) {
    int ends[2];
    EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
    pid_ = fork();
    if (pid_ == 0) {
      dup2(ends[1], STDERR_FILENO);
      const rlimit none{};
      setrlimit(RLIMIT_CORE, &none);
      work();
      exit(0);
    }
    close(ends[1]);
    log_.reset(ends[0]);
  }

  // Once; one that does not end by itself is ended.
  int status() {
    int status = -1;
    if (!eventually([&] { return waitpid(pid_, &status, WNOHANG) == pid_; })) {
      kill(pid_, SIGKILL);
      waitpid(pid_, &status, 0);
    }
    return status;
  }

  std::string log() const {
    std::string text;
    char chunk[4096];
    for (ssize_t length; (length = read(log_.get(), chunk, sizeof chunk)) > 0;) {
      text.append(chunk, static_cast<size_t>(length));
    }
    return text;
  }

  pid_t pid() const { return pid_; }

private:
  pid_t pid_ = -1;
  UniqueFd log_;
};

void *kept = nullptr; // reachable, or the leak sanitizer complains

void keep(size_t bytes) {
  kept = malloc(bytes);
  memset(kept, 1, bytes);
}

// The bytes of each line, in the order of the processes' ends.
std::vector<long> bytesAdded(const std::string &log) {
  std::vector<long> added;
  std::istringstream lines(log);
  for (std::string line; std::getline(lines, line);) {
    EXPECT_THAT(line, ContainsRegex(" info 0 platform/process/memtrack:[0-9]+: process [0-9]+: memory tracking: "
                                    "-?[0-9]+ bytes added, [0-9]+ in use$"));
    added.push_back(std::stol(line.substr(line.find("tracking: ") + strlen("tracking: "))));
  }
  return added;
}

bool abortedBy(int status) {
  return WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT;
}

[[noreturn]] void hang() {
  for (;;) {
    pause();
  }
}

void fillStandardError() {
  const int flags = fcntl(STDERR_FILENO, F_GETFL);
  fcntl(STDERR_FILENO, F_SETFL, flags | O_NONBLOCK);
  while (write(STDERR_FILENO, "x", 1) == 1) {
  }
  fcntl(STDERR_FILENO, F_SETFL, flags);
}

} // namespace

TEST(Memtrack, tellsAtTheEndWhatWasAddedSinceItBegan) {
  const struct {
    const char *what;
    void (*work)();
    std::vector<long> expected; // a line each
  } cases[] = {
      {"a block is kept",
       [] {
         qvproc_memtrack_init();
         keep(LARGE);
       },
       {static_cast<long>(LARGE)}},
      {"an older block is freed",
       [] {
         keep(LARGE);
         qvproc_memtrack_init();
         free(kept);
       },
       {-static_cast<long>(LARGE)}},
      {"a second call begins anew",
       [] {
         qvproc_memtrack_init();
         keep(LARGE);
         qvproc_memtrack_init();
       },
       {0}},
      {"a forked child tracks nothing until it says so",
       [] {
         qvproc_memtrack_init();
         keep(LARGE);
         const pid_t silent = fork();
         if (silent == 0) {
           exit(0);
         }
         waitpid(silent, nullptr, 0);
         const pid_t anew = fork();
         if (anew == 0) {
           qvproc_memtrack_init();
           exit(0);
         }
         waitpid(anew, nullptr, 0);
       },
       {0, static_cast<long>(LARGE)}},
      {"nothing was asked for", [] { keep(LARGE); }, {}},
  };
  for (const auto &test : cases) {
    SCOPED_TRACE(test.what);
    Child child(test.work);
    EXPECT_EQ(child.status(), 0);
    const std::vector<long> added = bytesAdded(child.log());
    ASSERT_EQ(added.size(), test.expected.size());
    for (size_t i = 0; i < added.size() && !OWN_ALLOCATOR; ++i) {
      EXPECT_LT(std::abs(added[i] - test.expected[i]), NOISE);
    }
  }
}

TEST(Watchdog, namesItselfAndAbortsAProcessThatHangs) {
  Child hanging([] {
    qvproc_watchdog_start(1, "first");
    qvproc_watchdog_start(1, "the \"last\"\nof all");
    hang();
  });
  Child unheard([] {
    fillStandardError(); // and nobody reads it
    qvproc_watchdog_start(1, "unheard");
    hang();
  });
  Child deaf([] {
    sigset_t all;
    sigfillset(&all);
    sigprocmask(SIG_SETMASK, &all, nullptr);
    qvproc_watchdog_start(1, "deaf");
    hang();
  });
  Child forked([] {
    qvproc_watchdog_start(20, "parent's");
    const pid_t child = fork();
    if (child == 0) {
      qvproc_watchdog_start(1, "child's");
      sleep(10);
      _exit(1);
    }
    int status = 0;
    waitpid(child, &status, 0);
    _exit(abortedBy(status) ? 0 : 1);
  });

  EXPECT_TRUE(abortedBy(unheard.status()));
  EXPECT_TRUE(abortedBy(hanging.status()));
  EXPECT_THAT(hanging.log(), testing::MatchesRegex(
                                 "[-0-9]{10}T[0-9:]{8}\\.[0-9]{3}Z crit 0 platform/process/watchdog:[0-9]+: process " +
                                 std::to_string(hanging.pid()) +
                                 ": watchdog \"the \"last\" of all\" ran out after 1 s, ending the process\n"));
  EXPECT_TRUE(abortedBy(deaf.status()));
  EXPECT_THAT(deaf.log(), testing::HasSubstr("watchdog \"deaf\""));
  EXPECT_EQ(forked.status(), 0);
  EXPECT_THAT(forked.log(),
              testing::AllOf(testing::HasSubstr("child's"), testing::Not(testing::HasSubstr("parent's"))));
}

TEST(Watchdog, leavesAProcessAlone) {
  const auto moment = [](int milliseconds) { std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds)); };
  Child lively([&] {
    for (int i = 0; i < 8; ++i) {
      qvproc_watchdog_start(1, "in time");
      moment(200);
    }
  });
  Child stopped([&] {
    qvproc_watchdog_stop(); // of none
    qvproc_watchdog_start(1, "stopped");
    qvproc_watchdog_stop();
    moment(1500);
  });
  Child childHasNone([&] {
    qvproc_watchdog_start(1, "parent's");
    if (fork() == 0) {
      qvproc_watchdog_stop();
      moment(1500);
      exit(0);
    }
    qvproc_watchdog_stop();
    int status = -1;
    wait(&status);
    exit(status);
  });
  Child signalled([&] {
    qvproc_watchdog_start(20, "not yet");
    raise(SIGRTMAX - 2);
    qvproc_watchdog_stop();
    raise(SIGRTMAX - 2);
  });
  Child busy([&] { // every thread has its turn, while signals run out and children are forked
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i) {
      threads.emplace_back([&] {
        while (!stop) {
          qvproc_watchdog_start(1, "turn");
          raise(SIGRTMAX - 2);
        }
      });
    }
    for (int i = 0; i < 20; ++i) {
      const pid_t child = fork();
      if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL); // if it should wait for a turn that never comes
        _exit(qvproc_watchdog_start(5, "child's") + qvproc_watchdog_stop());
      }
      int status = -1;
      waitpid(child, &status, 0);
      if (status != 0) {
        _exit(9);
      }
    }
    stop = true;
    for (std::thread &thread : threads) {
      thread.join();
    }
    qvproc_watchdog_stop();
  });
  for (Child *child : {&lively, &stopped, &childHasNone, &signalled, &busy}) {
    EXPECT_EQ(child->status(), 0);
    EXPECT_THAT(child->log(), IsEmpty());
  }
}

TEST(Watchdog, startsNoThreadAndRefusesNonsense) {
  const auto threads = [] {
    const std::filesystem::directory_iterator tasks("/proc/self/task");
    return std::distance(begin(tasks), end(tasks));
  };
  const auto before = threads();
  EXPECT_EQ(qvproc_watchdog_start(20, "threads"), 0);
  EXPECT_EQ(threads(), before);
  EXPECT_EQ(qvproc_watchdog_start(0, "at once"), 1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(qvproc_watchdog_start(1, nullptr), 1);
  EXPECT_EQ(qvproc_watchdog_stop(), 0);
}
