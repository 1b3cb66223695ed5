// Log, sync database, queues, tasks, text and exported names of the process library.

#include "osapi.h"
#include "own_namespaces.h"
#include "process_support.h"
#include "qvproc.h"
#include "syncdb.h"
#include "syncdb_store.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <gmock/gmock.h>
#include <poll.h>
#include <thread>

namespace {

using testing::MatchesRegex;

constexpr char AREA[] = "application/routing/mirel/core/mirel_arp";

template <typename Log> std::string logged(Log log) {
  testing::internal::CaptureStderr();
  log();
  return testing::internal::GetCapturedStderr();
}

std::span<const std::byte> bytesOf(const std::string &text) {
  return std::as_bytes(std::span(text));
}

} // namespace

TEST(Log, oneLineARecord) {
  const std::string stamp = "[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9:]{8}\\.[0-9]{3}Z ";
  errno = ENOENT;
  EXPECT_THAT(logged([] { qvproc_logf(3, 156, AREA, 12, "[VRF \"%s\"]: failed: %d (%m)", "blue", 7); }),
              MatchesRegex(stamp + "error 156 " + AREA +
                           ":12: \\[VRF \"blue\"\\]: failed: 7 \\(No such file or directory\\)\n"));
  EXPECT_EQ(errno, ENOENT);
  EXPECT_THAT(logged([] { qvproc_logf(4, 24, AREA, 1, "carries its own end\n\n"); }),
              MatchesRegex(stamp + "warning 24 [^\n]*: carries its own end\n"));
  EXPECT_THAT(logged([] { qvproc_logf(99, 24, AREA, 1, "forged\n2026 error \x1b[2J%s", "\x7f\t."); }),
              MatchesRegex(stamp + "debug 24 [^\n]*: forged 2026 error  \\[2J \t\\.\n"));
}

TEST(Log, stampIsTheTimeInUtc) {
  const std::string line = logged([] { qvproc_logf(6, 0, AREA, 1, "now"); });
  tm stamp{};
  EXPECT_STREQ(strptime(line.c_str(), "%Y-%m-%dT%H:%M:%S", &stamp), line.substr(19).c_str());
  EXPECT_NEAR(static_cast<double>(timegm(&stamp)), static_cast<double>(time(nullptr)), 2.0);
}

TEST(Log, journalPrefixInsteadOfATime) {
  setenv("JOURNAL_STREAM", "8:1234", 1);
  EXPECT_EQ(logged([] { qvproc_logf(5, 156, "a/b", 3, "text"); }), "<5>notice 156 a/b:3: text\n");
  unsetenv("JOURNAL_STREAM");
}

TEST(Log, longTextsAreCut) {
  for (const size_t size : {1900u, 2000u, 2048u, 4096u, 100000u}) {
    const std::string text(size, 'x');
    const std::string line = logged([&] { qvproc_logf(3, 156, AREA, 1, "%s\n", text.c_str()); });
    EXPECT_LE(line.size(), 2048u);
    EXPECT_EQ(line.find('\n'), line.size() - 1);
    EXPECT_EQ(line.ends_with("x...\n"), size > 1900) << size;
  }
  const std::string area(5000, 'a');
  EXPECT_LE(logged([&] { qvproc_logf(3, 156, area.c_str(), 1, "text"); }).size(), 2048u);
}

TEST(Log, threadsDoNotMixLines) {
  const std::string log = logged([] {
    std::vector<std::thread> threads;
    for (char letter = 'a'; letter < 'e'; ++letter) {
      threads.emplace_back([letter] {
        const std::string text(1000, letter);
        for (int i = 0; i < 200; ++i) {
          qvproc_logf(6, 0, "f", 1, "%s", text.c_str());
        }
      });
    }
    for (std::thread &thread : threads) {
      thread.join();
    }
  });
  std::istringstream lines(log);
  int count = 0;
  for (std::string line; std::getline(lines, line); ++count) {
    ASSERT_TRUE(line.ends_with(": " + std::string(1000, line.back()))) << line;
  }
  EXPECT_EQ(count, 800);
}

TEST(SyncDb, recordsAreReadAndReplacedButNotCreated) {
  const std::string name = "Mirel Restart State-3";
  SyncdbClient client{};
  ASSERT_EQ(syncdbClientRegister("mirel", &client), 0);
  uint8_t value = 9;
  EXPECT_NE(syncdbGet(&client, name.c_str(), &value, 1, 0), 0);
  EXPECT_NE(syncdbSet(&client, name.c_str(), &value, 1), 0);
  EXPECT_EQ(value, 9);
  EXPECT_EQ(syncdbRecordCreate(name, bytesOf(std::string(1, '\0'))), 0);
  EXPECT_EQ(syncdbGet(&client, name.c_str(), &value, 1, 0), 0);
  EXPECT_EQ(value, 0);

  value = 1;
  EXPECT_EQ(syncdbSet(&client, name.c_str(), &value, 1), 0);
  EXPECT_EQ(syncdbRecordCreate(name, bytesOf("x")), 0) << "a record that exists keeps its value";
  uint8_t two[2] = {7, 7};
  EXPECT_EQ(syncdbGet(&client, name.c_str(), two, 2, 0), 0);
  EXPECT_EQ(two[0], 1);
  EXPECT_EQ(two[1], 7);

  pollfd notification = {.fd = client.syncdbNotifyFd, .events = POLLIN, .revents = 0};
  EXPECT_EQ(poll(&notification, 1, 0), 0);
  EXPECT_EQ(syncdbRecordRemove(name), 0);
  EXPECT_EQ(syncdbRecordRemove(name), 0);
  EXPECT_NE(syncdbSet(&client, name.c_str(), &value, 1), 0);
  EXPECT_TRUE(std::filesystem::is_empty("/tmp/qvproc/syncdb"));
}

TEST(SyncDb, namesThatAreNoFileOfTheFolder) {
  shell(
      "mkdir -p /tmp/qvproc/syncdb && echo secret > /tmp/qvproc/outside && ln -sf ../outside /tmp/qvproc/syncdb/link");
  SyncdbClient client{};
  char value[8] = "same";
  for (const std::string &name : {std::string("../outside"), std::string(".."), std::string("."), std::string(),
                                  std::string(300, 'x'), std::string("/tmp/qvproc/outside"), std::string("link")}) {
    EXPECT_NE(syncdbGet(&client, name.c_str(), value, sizeof value, 0), 0) << name;
  }
  EXPECT_STREQ(value, "same");
  EXPECT_NE(syncdbRecordCreate("a/b", bytesOf("x")), 0);
  EXPECT_NE(syncdbSet(&client, "../outside", "x", 1), 0);
  EXPECT_EQ(fileText("/tmp/qvproc/outside"), "secret\n");
}

TEST(SyncDb, readersSeeOldOrNewNeverHalf) {
  SyncdbClient client{};
  const std::string before(3000, 'a');
  const std::string after(3000, 'b');
  ASSERT_EQ(syncdbRecordCreate("big", bytesOf(before)), 0);
  std::atomic<bool> stop{false};
  std::thread writer([&] {
    for (bool toAfter = true; !stop; toAfter = !toAfter) {
      syncdbSet(&client, "big", (toAfter ? after : before).c_str(), 3000);
    }
  });
  for (int i = 0; i < 2000; ++i) {
    std::string seen(3000, '?');
    ASSERT_EQ(syncdbGet(&client, "big", seen.data(), 3000, 0), 0);
    ASSERT_TRUE(seen == before || seen == after);
  }
  stop = true;
  writer.join();
}

TEST(Queue, boundedFifo) {
  osapiMsgQueue *queue = osapiMsgQueueCreate("", 3, 4);
  ASSERT_NE(queue, nullptr);
  uint32_t out = 0;
  uint32_t count = 9;
  EXPECT_EQ(osapiMessageReceive(queue, &out, 4, QV_NO_WAIT), 1);
  for (uint32_t round = 0; round < 5; ++round) { // the ring wraps
    for (uint32_t i = 1; i <= 3; ++i) {
      EXPECT_EQ(osapiMessageSend(queue, &i, 4, QV_WAIT_FOREVER, 0), 0);
    }
    EXPECT_EQ(osapiMessageSend(queue, &round, 4, QV_NO_WAIT, 0), 1) << "full";
    EXPECT_EQ(osapiMsgQueueGetNumMsgs(queue, &count), 0);
    EXPECT_EQ(count, 3u);
    for (uint32_t i = 0; i < 3; ++i) {
      EXPECT_EQ(osapiMessagePeek(queue, &out, 4, i), 0);
      EXPECT_EQ(out, i + 1);
    }
    EXPECT_NE(osapiMessagePeek(queue, &out, 4, 3), 0);
    for (uint32_t i = 1; i <= 2; ++i) {
      EXPECT_EQ(osapiMessageReceive(queue, &out, 4, QV_WAIT_FOREVER), 0);
      EXPECT_EQ(out, i);
    }
    EXPECT_EQ(osapiMessageReceive(queue, &out, 2, QV_NO_WAIT), 0) << "a part of the message";
  }
  EXPECT_EQ(osapiMessageSend(queue, &out, 5, QV_NO_WAIT, 0), 1) << "too long";
  EXPECT_EQ(osapiMessageSend(queue, &out, 4, 5, 0), 2);
  EXPECT_EQ(osapiMessageSend(queue, &out, 5, 5, 0), 2) << "the wait value is looked at first";
  EXPECT_EQ(osapiMessageReceive(queue, &out, 4, 5), 2);
  const uint8_t shorter = 0xff;
  EXPECT_EQ(osapiMessageSend(queue, &shorter, 1, QV_NO_WAIT, 0), 0);
  uint8_t filled[4] = {9, 9, 9, 9};
  EXPECT_EQ(osapiMessageReceive(queue, filled, 4, QV_NO_WAIT), 0);
  EXPECT_THAT(filled, testing::ElementsAre(0xff, 0, 0, 0));
  EXPECT_EQ(osapiMsgQueueLimitGet(queue, &count), 0);
  EXPECT_EQ(count, 3u);
  EXPECT_EQ(osapiMsgQueueDelete(queue), 0);
  EXPECT_EQ(osapiMsgQueueCreate("", 0, 4), nullptr);
  EXPECT_EQ(osapiMsgQueueCreate("", UINT32_MAX, UINT32_MAX), nullptr);
}

TEST(Queue, manyThreadsLoseNothing) {
  constexpr uint32_t EACH = 5000;
  osapiMsgQueue *queue = osapiMsgQueueCreate("", 8, sizeof(uint32_t));
  std::atomic<uint64_t> sum{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 3; ++i) {
    threads.emplace_back([&] {
      for (uint32_t value = 1; value <= EACH; ++value) {
        osapiMessageSend(queue, &value, sizeof value, QV_WAIT_FOREVER, 0);
      }
    });
    threads.emplace_back([&] {
      for (uint32_t taken = 0; taken < EACH; ++taken) {
        uint32_t value = 0;
        osapiMessageReceive(queue, &value, sizeof value, QV_WAIT_FOREVER);
        sum += value;
      }
    });
  }
  for (std::thread &thread : threads) {
    thread.join();
  }
  EXPECT_EQ(sum, uint64_t{3} * EACH * (EACH + 1) / 2);
  osapiMsgQueueDelete(queue);
}

// A task that waits for a message may be cancelled there, and the queue goes on.
TEST(Queue, waitingTaskCanBeCancelled) {
  osapiMsgQueue *queue = osapiMsgQueueCreate("", 2, 1);
  const auto entry = [](void *arg) -> void * {
    static char message; // nothing on the stack: a thread that is cancelled never leaves its frames
    osapiMessageReceive(static_cast<osapiMsgQueue *>(arg), &message, 1, QV_WAIT_FOREVER);
    return nullptr;
  };
  const uint64_t task = osapiTaskCreate("a name longer than fifteen", entry, 0xFFFFFFFF, queue, 65536, 255, 1);
  ASSERT_NE(task, 0u);
  EXPECT_EQ(pthread_cancel(task), 0);
  void *result = nullptr;
  EXPECT_EQ(pthread_join(task, &result), 0);
  EXPECT_EQ(result, PTHREAD_CANCELED);
  char message = 'x';
  EXPECT_EQ(osapiMessageSend(queue, &message, 1, QV_NO_WAIT, 0), 0);
  EXPECT_EQ(osapiMessageReceive(queue, &message, 1, QV_NO_WAIT), 0);
  osapiMsgQueueDelete(queue);
}

TEST(Time, sleepGoesOnAfterASignal) {
  struct sigaction action {};
  action.sa_handler = [](int) {};
  sigaction(SIGUSR1, &action, nullptr);
  const pthread_t sleeper = pthread_self();
  const uint32_t start = osapiUpTimeMillisecondsGet();
  std::thread signaller([sleeper] {
    for (int i = 0; i < 20; ++i) {
      pthread_kill(sleeper, SIGUSR1);
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  });
  EXPECT_EQ(osapiSleepMSec(60), 0);
  EXPECT_GE(osapiUpTimeMillisecondsGet() - start, 59u);
  signaller.join();
  EXPECT_NEAR(osapiUpTimeRaw(), std::stod(fileText("/proc/uptime")), 2.0);
}

TEST(Text, addressesAndMasks) {
  char buf[46];
  EXPECT_STREQ(osapiInetNtoa(0x0a0102fe, buf), "10.1.2.254");
  EXPECT_STREQ(osapiInetNtoa(0xffffffff, buf), "255.255.255.255");
  const uint32_t host = 0xc0000201;
  EXPECT_STREQ(osapiInetNtop(1, &host, buf, 10), "192.0.2.1");
  EXPECT_EQ(osapiInetNtop(1, &host, buf, 9), nullptr);
  const uint8_t loopback[16] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
  EXPECT_STREQ(osapiInetNtop(2, loopback, buf, sizeof buf), "::1");
  EXPECT_EQ(osapiInetNtop(3, loopback, buf, sizeof buf), nullptr);
  for (uint32_t length = 0; length <= 32; ++length) {
    EXPECT_EQ(osapiInetMaskLengthGet(mask(length)), length);
  }
  EXPECT_EQ(osapiInetMaskLengthGet(0xff00ff00), 8u);
  EXPECT_EQ(osapiInetMaskLengthGet(32), 0u);
}

TEST(Text, safeCopyAlwaysEnds) {
  char buf[6];
  memset(buf, '#', sizeof buf);
  EXPECT_STREQ(osapiStrncpySafe(buf, "abcdefgh", 5), "abcd");
  EXPECT_EQ(buf[5], '#');
  EXPECT_STREQ(osapiStrncpySafe(buf, "ab", 5), "ab");
  EXPECT_STREQ(osapiStrncpySafe(buf, "ab", 1), "");
  buf[0] = '#';
  EXPECT_EQ(osapiStrncpySafe(buf, "ab", 0)[0], '#');
  EXPECT_EQ(osapiSnprintf(buf, sizeof buf, "%s", "abcdefgh"), 8);
  EXPECT_STREQ(buf, "abcde");
}

TEST(Library, exportsItsInterfaceAndBindsToTheProgramsSemaphores) {
  const std::string library = MIREL_BUILD_DIR "/bin/libqvproc.so";
  for (const std::string &line : linesOf("nm -D --defined-only " + library)) {
    EXPECT_THAT(line, MatchesRegex("[0-9a-f]+ T (osapi|procOsapi|syncdb|qvproc_)[A-Za-z0-9_]+")) << line;
  }
  std::vector<std::string> undefined;
  for (const std::string &line : linesOf("nm -D --undefined-only " + library + " | grep osapi")) {
    undefined.push_back(line.substr(line.find_first_not_of(' ')));
  }
  EXPECT_THAT(undefined, testing::UnorderedElementsAre("U osapiSemaMCreateTrack", "U osapiSemaCCreateTrack",
                                                       "U osapiSemaTake", "U osapiSemaGive", "U osapiSemaDelete"));
  EXPECT_THAT(outputOf("readelf -d " + library), testing::HasSubstr("soname: [libqvproc.so]"));

  osapiSema *sema = osapiSemaMCreate(0);
  EXPECT_EQ(osapiSemaTake(sema, QV_NO_WAIT), 0);
  EXPECT_EQ(osapiSemaGive(sema), 0);
  osapiSemaDelete(sema);
}
