// The semaphore layer by itself.

#include "osapi.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <gtest/gtest.h>
#include <memory>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;

enum { TAKEN = 0, NOT_TAKEN = 1, BAD_TIMEOUT = 2 };

struct Delete {
  void operator()(osapiSema *sema) const { EXPECT_EQ(osapiSemaDelete(sema), 0); }
};
using Sema = std::unique_ptr<osapiSema, Delete>;

Sema mutexSema() {
  return Sema(osapiSemaMCreateTrack("file", 1, 0));
}

Sema countingSema(uint32_t count) {
  return Sema(osapiSemaCCreateTrack("file", 1, 0, count));
}

int32_t inAnotherThread(int32_t (*call)(osapiSema *), osapiSema *sema) {
  int32_t result = -1;
  std::thread([&] { result = call(sema); }).join();
  return result;
}

int32_t tryTake(osapiSema *sema) {
  return osapiSemaTake(sema, QV_NO_WAIT);
}

// Takes, works, gives and takes again at once, as a busy thread does with the lock of the platform API.
class TightLoop {
public:
  explicit TightLoop(osapiSema *sema)
      : thread_([this, sema] {
          while (!stop_) {
            osapiSemaTake(sema, QV_WAIT_FOREVER);
            ++rounds_;
            for (const Clock::time_point until = Clock::now() + HOLD; Clock::now() < until;) {
            }
            osapiSemaGive(sema);
          }
        }) {}
  ~TightLoop() {
    stop_ = true;
    thread_.join();
  }

  uint32_t rounds() const { return rounds_; }

  void letRun() const {
    for (const uint32_t until = rounds_ + 3; rounds_ < until;) {
      std::this_thread::yield();
    }
  }

private:
  static constexpr std::chrono::microseconds HOLD{1000};

  std::atomic<bool> stop_{false};
  std::atomic<uint32_t> rounds_{0};
  std::thread thread_;
};

} // namespace

TEST(Sema, otherTimeoutsAreRefusedAndChangeNothing) {
  const Sema mutex = mutexSema();
  const Sema counting = countingSema(1);
  for (const int32_t timeout : {5, -2, INT32_MAX, INT32_MIN}) {
    EXPECT_EQ(osapiSemaTake(mutex.get(), timeout), BAD_TIMEOUT);
    EXPECT_EQ(osapiSemaTake(counting.get(), timeout), BAD_TIMEOUT);
  }
  EXPECT_EQ(inAnotherThread(tryTake, counting.get()), TAKEN);
  EXPECT_EQ(osapiSemaTake(mutex.get(), QV_NO_WAIT), TAKEN);
  EXPECT_EQ(osapiSemaGive(mutex.get()), 0);
  EXPECT_NE(osapiSemaGive(mutex.get()), 0);
}

TEST(Sema, mutexBelongsToItsThreadUntilGivenAsOftenAsTaken) {
  const Sema sema = mutexSema();
  EXPECT_EQ(osapiSemaTake(sema.get(), QV_WAIT_FOREVER), TAKEN);
  EXPECT_EQ(osapiSemaTake(sema.get(), QV_NO_WAIT), TAKEN);
  EXPECT_EQ(osapiSemaTake(sema.get(), QV_WAIT_FOREVER), TAKEN);
  EXPECT_EQ(inAnotherThread(osapiSemaGive, sema.get()), 1) << "a thread gave what it does not hold";
  for (int held = 3; held > 0; --held) {
    EXPECT_EQ(inAnotherThread(tryTake, sema.get()), NOT_TAKEN) << held;
    EXPECT_EQ(osapiSemaGive(sema.get()), 0);
  }
  const auto takeAndGive = [](osapiSema *other) { return tryTake(other) + osapiSemaGive(other); };
  EXPECT_EQ(inAnotherThread(takeAndGive, sema.get()), 0);
}

TEST(Sema, countingSemaphoreCountsAcrossThreads) {
  const Sema sema = countingSema(2);
  EXPECT_EQ(osapiSemaTake(sema.get(), QV_WAIT_FOREVER), TAKEN);
  EXPECT_EQ(osapiSemaTake(sema.get(), QV_WAIT_FOREVER), TAKEN);
  EXPECT_EQ(osapiSemaTake(sema.get(), QV_NO_WAIT), NOT_TAKEN);
  EXPECT_EQ(inAnotherThread(osapiSemaGive, sema.get()), 0);
  EXPECT_EQ(osapiSemaTake(sema.get(), QV_NO_WAIT), TAKEN);
  EXPECT_EQ(osapiSemaCCreateTrack("file", 1, 0, UINT32_MAX), nullptr) << "a count that the semaphore cannot hold";
}

TEST(Sema, interruptedWaitGoesOn) {
  struct sigaction action {};
  action.sa_handler = [](int) {};
  sigaction(SIGUSR1, &action, nullptr); // without SA_RESTART
  const Sema sema = countingSema(0);
  std::atomic<bool> started{false};
  std::atomic<int32_t> result{-1};
  std::thread waiter([&] {
    started = true;
    result = osapiSemaTake(sema.get(), QV_WAIT_FOREVER);
  });
  while (!started) {
    std::this_thread::yield();
  }
  for (int i = 0; i < 50; ++i) {
    pthread_kill(waiter.native_handle(), SIGUSR1);
    std::this_thread::yield();
  }
  EXPECT_EQ(result, -1);
  osapiSemaGive(sema.get());
  waiter.join();
  EXPECT_EQ(result, TAKEN);
}

// Counted in turns of the others, not in time, which other work of the machine stretches. With a plain mutex the worst wait is
// often a thousand turns and more on two cores.
TEST(Sema, busyThreadsDoNotStarveAnother) {
  const Sema sema = mutexSema();
  const TightLoop first(sema.get());
  const TightLoop second(sema.get());
  uint32_t worst = 0;
  for (int i = 0; i < 100; ++i) {
    first.letRun();
    const uint32_t before = first.rounds() + second.rounds();
    ASSERT_EQ(osapiSemaTake(sema.get(), QV_WAIT_FOREVER), TAKEN);
    worst = std::max(worst, first.rounds() + second.rounds() - before);
    osapiSemaGive(sema.get());
  }
  EXPECT_LE(worst, 200u);
}
