// Test 10: what the process library promises of its semaphores, queues and time, step by step. A step prints its text before
// it does anything, so that one that hangs is named.

#include "osapi.h"
#include "proctest.h"

#include <array>
#include <cstdio>

namespace {

constexpr uint32_t SLEEP_MSEC = 1500;
constexpr uint32_t QUEUE_LIMIT = 3;
constexpr size_t COPY_SOURCE_CHARS = 200;
constexpr size_t COPY_BYTES = 100;

void testing(const char *text) {
  printf("%s", text);
}

bool verdict(bool passed) {
  printf(passed ? "OK\n" : "FAILED\n");
  return passed;
}

int32_t takeWaiting(osapiSema *sema) {
  return osapiSemaTake(sema, QV_WAIT_FOREVER);
}

int32_t takeAtOnce(osapiSema *sema) {
  return osapiSemaTake(sema, QV_NO_WAIT);
}

enum Expected { SUCCEEDS, FAILS };

struct SemaStep {
  const char *text;
  int32_t (*call)(osapiSema *sema);
  Expected expected;
};

constexpr SemaStep MUTEX_STEPS[] = {
    {"Testing osapiSemaTake(mutex, QV_WAIT_FOREVER)...", takeWaiting, SUCCEEDS},
    {"Testing osapiSemaTake(mutex-recursive, QV_NO_WAIT)...", takeAtOnce, SUCCEEDS},
    {"Testing osapiSemaGive(mutex-recursive)...", osapiSemaGive, SUCCEEDS},
    {"Testing osapiSemaGive(mutex)...", osapiSemaGive, SUCCEEDS},
    {"Testing osapiSemaGive(mutex-already-given)...", osapiSemaGive, FAILS},
    {"Testing osapiSemaDelete(mutex)...", osapiSemaDelete, SUCCEEDS},
};

constexpr SemaStep COUNTING_STEPS[] = {
    {"Testing osapiSemaTake(sema-count-1, QV_WAIT_FOREVER)...", takeWaiting, SUCCEEDS},
    {"Testing osapiSemaTake(sema-count-2, QV_WAIT_FOREVER)...", takeWaiting, SUCCEEDS},
    {"Testing osapiSemaTake(sema-count-3, QV_NO_WAIT)...", takeAtOnce, FAILS},
    {"Testing osapiSemaGive(sema-count-1)...", osapiSemaGive, SUCCEEDS},
    {"Testing osapiSemaGive(sema-count-2)...", osapiSemaGive, SUCCEEDS},
    {"Testing osapiSemaGive(sema-count-3)...", osapiSemaGive, SUCCEEDS},
    {"Testing osapiSemaDelete(sema)...", osapiSemaDelete, SUCCEEDS},
};

template <size_t STEPS> void semaphoreTry(osapiSema *sema, const SemaStep (&steps)[STEPS]) {
  if (!verdict(sema != nullptr)) {
    return;
  }
  for (const SemaStep &step : steps) {
    testing(step.text);
    verdict((step.call(sema) == 0) == (step.expected == SUCCEEDS));
  }
}

// What a queue operation returns, and the message or number that it gives.
struct Answer {
  int32_t result;
  uint32_t value;
};

Answer sendWaiting(osapiMsgQueue *queue, uint32_t message, uint32_t) {
  return {osapiMessageSend(queue, &message, sizeof message, QV_WAIT_FOREVER, 0), message};
}

Answer sendAtOnce(osapiMsgQueue *queue, uint32_t message, uint32_t) {
  return {osapiMessageSend(queue, &message, sizeof message, QV_NO_WAIT, 0), message};
}

Answer receiveWaiting(osapiMsgQueue *queue, uint32_t, uint32_t) {
  Answer answer{};
  answer.result = osapiMessageReceive(queue, &answer.value, sizeof answer.value, QV_WAIT_FOREVER);
  return answer;
}

Answer receiveAtOnce(osapiMsgQueue *queue, uint32_t, uint32_t) {
  Answer answer{};
  answer.result = osapiMessageReceive(queue, &answer.value, sizeof answer.value, QV_NO_WAIT);
  return answer;
}

Answer peek(osapiMsgQueue *queue, uint32_t, uint32_t position) {
  Answer answer{};
  answer.result = osapiMessagePeek(queue, &answer.value, sizeof answer.value, position);
  return answer;
}

Answer limitGet(osapiMsgQueue *queue, uint32_t, uint32_t) {
  Answer answer{};
  answer.result = osapiMsgQueueLimitGet(queue, &answer.value);
  return answer;
}

Answer numMsgsGet(osapiMsgQueue *queue, uint32_t, uint32_t) {
  Answer answer{};
  answer.result = osapiMsgQueueGetNumMsgs(queue, &answer.value);
  return answer;
}

struct QueueStep {
  const char *text;
  Answer (*call)(osapiMsgQueue *queue, uint32_t value, uint32_t position);
  Expected expected;
  uint32_t value;
  uint32_t position = 0;
};

constexpr QueueStep QUEUE_STEPS[] = {
    {"Testing osapiMessageSend(q1,1,4,QV_WAIT_FOREVER,0)...", sendWaiting, SUCCEEDS, 1},
    {"Testing osapiMessageSend(q1,2,4,QV_WAIT_FOREVER,0)...", sendWaiting, SUCCEEDS, 2},
    {"Testing osapiMessageSend(q1,3,4,QV_WAIT_FOREVER,0)...", sendWaiting, SUCCEEDS, 3},
    {"Testing osapiMessageSend(q1,4,4,QV_NO_WAIT,0)...", sendAtOnce, FAILS, 4},
    {"Testing osapiMessageReceive(q1,1,4,QV_WAIT_FOREVER)...", receiveWaiting, SUCCEEDS, 1},
    {"Testing osapiMsgQueueLimitGet(q1,3)...", limitGet, SUCCEEDS, QUEUE_LIMIT},
    {"Testing osapiMsgQueueGetNumMsgs(q1,2)...", numMsgsGet, SUCCEEDS, 2},
    {"Testing osapiMessageSend(q1,4,4,QV_NO_WAIT,0)...", sendAtOnce, SUCCEEDS, 4},
    {"Testing osapiMessagePeek(q1,2,4,0)...", peek, SUCCEEDS, 2, 0},
    {"Testing osapiMessagePeek(q1,3,4,1)...", peek, SUCCEEDS, 3, 1},
    {"Testing osapiMessagePeek(q1,4,4,2)...", peek, SUCCEEDS, 4, 2},
    {"Testing osapiMessagePeek(q1,5,4,3)...", peek, FAILS, 5, 3},
    {"Testing osapiMessageReceive(q1,2,4,QV_WAIT_FOREVER)...", receiveWaiting, SUCCEEDS, 2},
    {"Testing osapiMessageReceive(q1,3,4,QV_WAIT_FOREVER)...", receiveWaiting, SUCCEEDS, 3},
    {"Testing osapiMessageReceive(q1,4,4,QV_WAIT_FOREVER)...", receiveWaiting, SUCCEEDS, 4},
    {"Testing osapiMessageReceive(q1,5,4,QV_NO_WAIT)...", receiveAtOnce, FAILS, 5},
};

void checkText() {
  // These three lines, and the fourth below, are only printed.
  printf("Testing osapiSnprintf()....OK\n");
  printf("Testing osapiStrncpy()....OK\n");
  testing("Testing osapiStrncpySafe()...");
  std::array<char, COPY_SOURCE_CHARS + 1> source{};
  source.fill('z');
  source.back() = '\0';
  std::array<char, COPY_BYTES> copy{};
  printf("%s\n", osapiStrncpySafe(copy.data(), source.data(), copy.size()));
  printf("...OK\n");
  printf("Testing osapiStrncat()....OK\n");
}

void checkSemaphores() {
  testing("\nTesting osapiSemaMCreate()...");
  semaphoreTry(osapiSemaMCreate(0), MUTEX_STEPS);
  testing("\nTesting osapiSemaCCreate(0, count-2)...");
  semaphoreTry(osapiSemaCCreate(0, 2), COUNTING_STEPS);
}

void checkQueue() {
  testing("\nTesting OSAPI Queues...\n");
  testing("Testing osapiMsgQueueCreate('',queue-size-3,msg-size-4)...");
  osapiMsgQueue *queue = osapiMsgQueueCreate("", QUEUE_LIMIT, sizeof(uint32_t));
  if (!verdict(queue != nullptr)) {
    return;
  }
  for (const QueueStep &step : QUEUE_STEPS) {
    testing(step.text);
    const Answer answer = step.call(queue, step.value, step.position);
    verdict(step.expected == SUCCEEDS ? answer.result == 0 && answer.value == step.value : answer.result != 0);
  }
  testing("Testing osapiMsgQueueDelete()...");
  verdict(osapiMsgQueueDelete(queue) == 0);
}

void upTimePrint() {
  printf("%d (milliseconds since boot)\n", static_cast<int>(osapiUpTimeMillisecondsGet()));
}

void checkTime() {
  testing("Testing osapiUpTimeRaw()...");
  printf("%d (seconds since boot)\n", static_cast<int>(osapiUpTimeRaw()));
  testing("Testing osapiUpTimeMillisecondsGet()...");
  upTimePrint();
  testing("Testing osapiSleepMSec(1500)...");
  osapiSleepMSec(SLEEP_MSEC);
  upTimePrint();
}

} // namespace

void testLibrary() {
  checkText();
  checkSemaphores();
  checkQueue();
  checkTime();
}
