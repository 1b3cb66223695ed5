// The probe agent: its session table, its sockets, what becomes of every datagram and of passing time, and the task itself
// against the loopback device.

#include "core_test.h"
#include "own_namespaces.h"
#include "vr_ipslaprobe_util_icmp.h"
#include "vr_ipslaprobe_util_session.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <filesystem>
#include <mutex>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using namespace std::chrono_literals;

constexpr uint32_t LOOPBACK = ipv4(127, 0, 0, 1);
const std::string NOTIFY = "rpcclt_tarnapiMirelProbeResultIpSlaNotify ";

std::string log(int severity, const std::string &text) {
  return "log " + std::to_string(severity) + " 156 application/routing/mirel/core/vr_ipslaprobe_util [VRF-ID:3] " +
         text;
}

// The thread sanitizer runs one of its own from the first thread that is created.
#ifdef __SANITIZE_THREAD__
constexpr ptrdiff_t OTHER_THREADS = 2;
#else
constexpr ptrdiff_t OTHER_THREADS = 1;
#endif

// The threads of the agent.
ptrdiff_t threads() {
  const std::filesystem::directory_iterator tasks("/proc/self/task");
  return std::distance(begin(tasks), end(tasks)) - OTHER_THREADS;
}

class ProbeTest : public CoreTest {
protected:
  static void SetUpTestSuite() {
    shell("ip link set lo up");
    std::thread([] {}).join();
  }
  ProbeTest() {
    vrIpSlaProbeAgentProcessInit();
    scripted::takeCalls();
  }
  ~ProbeTest() override {
    probeAgentCnfgrUconfigPhase2Process();
    EXPECT_TRUE(comesTrue([] { return threads() == 0; }));
    osapiSemaDelete(pingSessionTableSema);
    pingSessionTableSema = nullptr;
  }

  template <class Condition> static bool comesTrue(Condition condition) {
    for (int i = 0; i < 1000 && !condition(); ++i) {
      std::this_thread::sleep_for(5ms);
    }
    return condition();
  }

  static uint32_t alloc(uint32_t id, uint32_t target = LOOPBACK, uint32_t payload = 4) {
    return probeAgentProbeSessionAlloc(id, target, 0, 1, 500, 900, payload);
  }

  static bool tableLockFree() {
    bool isFree = false;
    std::thread([&isFree] {
      isFree = osapiSemaTake(pingSessionTableSema, QV_NO_WAIT) == 0;
      if (isFree) {
        osapiSemaGive(pingSessionTableSema);
      }
    }).join();
    return isFree;
  }
};

TEST_F(ProbeTest, Ids) {
  for (const uint32_t id : {0u, 129u, 65537u, UINT32_MAX}) {
    EXPECT_EQ(alloc(id), 1u);
    EXPECT_EQ(probeAgentProbeSessionStart(id), 1u);
    EXPECT_EQ(probeAgentProbeSessionStop(id), 1u);
    const std::string text = "Invalid IPSLA Id " + std::to_string(id) + " passed to probeAgentProbeSession";
    EXPECT_THAT(scripted::takeCalls(),
                ElementsAre(log(4, text + "Alloc."), log(4, text + "Start."), log(4, text + "Stop.")));
  }
  for (const uint32_t id : {1u, 128u}) {
    EXPECT_EQ(alloc(id), 0u);
    EXPECT_EQ(pingSessionTable[id]->icmpIdent, id + 128);
    EXPECT_EQ(probeAgentProbeSessionStop(id), 0u);
    EXPECT_EQ(pingSessionTable[id], nullptr);
    EXPECT_THAT(scripted::takeCalls(), IsEmpty());
    EXPECT_EQ(probeAgentProbeSessionStop(id), 0u);
    EXPECT_THAT(scripted::takeCalls(),
                ElementsAre(log(4, "Entry of IPSLA Id " + std::to_string(id) +
                                       " passed to probeAgentProbeSessionStop does not exist.")));
  }
}

TEST_F(ProbeTest, RecordOfANewSession) {
  ASSERT_EQ(probeAgentProbeSessionAlloc(7, 0x01020304, 0x05060708, 4295, 2, 4294968, 0x10003), 0u);
  const pingSessionEntry &entry = *pingSessionTable[7];
  EXPECT_EQ(entry.sessionState, PING_SESSION_ALLOCATED);
  EXPECT_EQ(entry.vrfId, 3u);
  EXPECT_EQ(entry.sockFd, -1);
  EXPECT_EQ(entry.dataSize, 3);
  EXPECT_EQ(entry.targetAddr, 0x01020304u);
  EXPECT_EQ(entry.sourceAddr, 0x05060708u);
  EXPECT_EQ(entry.frequencyUsec, 32704u); // modulo 2^32, as the next but one
  EXPECT_EQ(entry.thresholdUsec, 2000u);
  EXPECT_EQ(entry.timeoutUsec, 704u);
  EXPECT_EQ(entry.timeToNextProbe, 0u);
}

TEST_F(ProbeTest, States) {
  EXPECT_EQ(probeAgentProbeSessionStart(5), 1u); // no session, no log
  EXPECT_THAT(scripted::takeCalls(), IsEmpty());
  ASSERT_EQ(alloc(5), 0u);
  pingSessionEntry *const entry = pingSessionTable[5];
  const std::string duplicate = log(4, "Cannot allocate entry - duplicate IP SLA Id.\n");
  EXPECT_EQ(alloc(5, ipv4(9, 9, 9, 9)), 1u);
  EXPECT_EQ(scripted::takeCalls().front(), duplicate);
  EXPECT_EQ(entry->targetAddr, LOOPBACK);
  EXPECT_EQ(activeSessionCount, 0u);
  EXPECT_EQ(probeAgentProbeSessionStart(5), 0u);
  EXPECT_EQ(probeAgentProbeSessionStart(5), 1u);
  const Lines calls = scripted::takeCalls();
  EXPECT_NE(std::find(calls.begin(), calls.end(), log(4, "Invalid state - cannot start session")), calls.end());
  const ProbeLock lock;
  EXPECT_EQ(entry->sessionState, PING_SESSION_RUNNING);
  EXPECT_EQ(activeSessionCount, 1u);
}

TEST_F(ProbeTest, Trace) {
  for (const uint32_t flag : {0u, 2u}) {
    probeAgentDebugSet(flag);
    EXPECT_EQ(printed([] { alloc(0); }), "") << flag;
  }
  probeAgentDebugSet(1);
  EXPECT_EQ(probeAgentDebugGet(), 1u);
  EXPECT_THAT(printed([] { alloc(0); }),
              testing::MatchesRegex("\n \\[VRF-ID:3\\] [0-9]+: probeAgentProbeSessionAlloc : \n\\."
                                    "\n \\[VRF-ID:3\\] [0-9]+: probeAgentProbeSessionAlloc : \n\n\\."));
  probeAgentDebugSet(0);
}

TEST_F(ProbeTest, SocketThatCannotBe) {
  const struct {
    uint32_t target;
    uint32_t source;
    std::string log;
  } CASES[] = {
      {ipv4(224, 0, 0, 1), 0, log(3, "Ping probes for Multicast destination addresses is not supported.")},
      {ipv4(239, 255, 255, 255), ipv4(9, 9, 9, 9),
       log(3, "Ping probes for Multicast destination addresses is not supported.")},
      {LOOPBACK, ipv4(192, 0, 2, 9), log(4, "Failed to bind ping socket to IPv4 address 192.0.2.9.")},
  };
  for (const auto &row : CASES) {
    ASSERT_EQ(probeAgentProbeSessionAlloc(9, row.target, row.source, 1, 1, 1, 0), 0u);
    EXPECT_EQ(probeAgentProbeSessionStart(9), 1u);
    EXPECT_THAT(scripted::takeCalls(), ElementsAre(row.log));
    EXPECT_EQ(pingSessionTable[9]->sessionState, PING_SESSION_ALLOCATED);
    EXPECT_EQ(pingSessionTable[9]->sockFd, -1);
    EXPECT_EQ(probeAgentProbeSessionStop(9), 0u);
    EXPECT_EQ(activeSessionCount, 0u);
  }
}

// A session without the task: its socket is one end of a pair whose other end the test writes to.
class ProbeStepTest : public ProbeTest {
protected:
  ProbeStepTest() {
    alloc(5);
    entry = pingSessionTable[5];
    entry->sessionState = PING_SESSION_RUNNING;
    activeSessionCount = 1;
    int pair[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, pair), 0);
    entry->sockFd = pair[0];
    peer = pair[1];
    entry->seqNum = 8;
    entry->awaitingReply = 1;
    gettimeofday(&entry->txTime, nullptr);
  }
  ~ProbeStepTest() override { close(peer); }

  // An IP header without options, from 10.0.0.9, and this behind it.
  static std::vector<uint8_t> datagram(std::vector<uint8_t> icmp) {
    std::vector<uint8_t> bytes(20, 0);
    bytes[0] = 0x45;
    bytes[12] = 10;
    bytes[15] = 9;
    bytes.insert(bytes.end(), icmp.begin(), icmp.end());
    return bytes;
  }

  void receive(const std::vector<uint8_t> &bytes) const {
    ASSERT_EQ(send(peer, bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
    probeAgentPingRxPdu(*entry);
  }

  pingSessionEntry *entry = nullptr;
  int peer = -1;
};

TEST_F(ProbeStepTest, Datagrams) {
  const std::string wrongSize = "Invalid pkt len in ICMP Response . Expected = 4, Got = ";
  const std::string goOn = ". Ignoring error and continuing\n";
  std::vector<uint8_t> unreachable = {3, 1, 0, 0, 0, 0, 0, 0, 0x45};
  unreachable.resize(8 + 20);
  unreachable[8 + 9] = IPPROTO_ICMP;
  std::vector<uint8_t> quoting = unreachable;
  quoting.insert(quoting.end(), {8, 0, 0, 0, 0, 133, 0, 7});
  std::vector<uint8_t> quotingOther = quoting;
  quotingOther[8 + 20 + 5] = 134;
  std::vector<uint8_t> quotingUdp = quoting; // whose length is 133
  quotingUdp[8 + 9] = IPPROTO_UDP;
  std::vector<uint8_t> quotingReply = quoting;
  quotingReply[8 + 20] = 0;
  const std::string small =
      "Received ICMP Unreachable Packet Length is too small to verify the pkt belongs to this session or not";
  const struct {
    const char *what;
    std::vector<uint8_t> icmp;
    uint32_t result; // PING_NO_RESULT = dropped
    Lines logs;
  } CASES[] = {
      {"reply", {0, 0, 0, 0, 0, 133, 0, 7, 0, 1, 2, 3}, PING_REPLY, {}},
      {"other size", {0, 0, 0, 0, 0, 133, 0, 7}, PING_REPLY, {log(5, wrongSize + "0" + goOn)}},
      {"other session", {0, 0, 0, 0, 0, 134, 0, 7, 0, 1, 2, 3}, PING_NO_RESULT, {}},
      {"other session and size", {0, 0, 0, 0, 0, 134, 0, 7, 1}, PING_NO_RESULT, {log(5, wrongSize + "1" + goOn)}},
      {"old reply",
       {0, 0, 0, 0, 0, 133, 0, 6, 0, 1, 2, 3},
       PING_NO_RESULT,
       {log(4, "Invalid sequence number in ICMP Response. Expected 7, Got = 6\n")}},
      {"request", {8, 0, 0, 0, 0, 133, 0, 7, 0, 1, 2, 3}, PING_NO_RESULT, {}},
      {"time exceeded", {11, 0, 0, 0, 0, 133, 0, 7, 0, 1, 2, 3}, PING_NO_RESULT, {}},
      {"short header", {0, 0, 0, 0, 0, 133, 0}, PING_NO_RESULT, {}},
      {"nothing", {}, PING_NO_RESULT, {}},
      {"unreachable without a quote",
       {3, 1, 0, 0, 0, 0, 0, 0},
       PING_NO_RESULT,
       {log(5, "Invalid ICMP Unreachable Packet Received. ")}},
      {"quote of the IP header only", unreachable, PING_NO_RESULT, {log(5, small)}},
      {"quote", quoting, PING_UNREACHABLE, {}},
      {"quote of another", quotingOther, PING_NO_RESULT, {}},
      {"quote of another protocol", quotingUdp, PING_NO_RESULT, {}},
      {"quote of a reply", quotingReply, PING_NO_RESULT, {}},
  };
  for (const auto &row : CASES) {
    entry->probeResult = PING_NO_RESULT;
    entry->rxTime = {};
    entry->rxCount = 0;
    entry->awaitingReply = 1;
    entry->responderAddr = 0;
    receive(datagram(row.icmp));
    Lines calls = scripted::takeCalls();
    const bool taken = row.result != PING_NO_RESULT;
    if (taken) {
      ASSERT_FALSE(calls.empty()) << row.what;
      EXPECT_TRUE(calls.back().starts_with(NOTIFY + (row.result == PING_REPLY ? "3 5 0 " : "3 5 1 0 "))) << row.what;
      calls.pop_back();
    }
    EXPECT_EQ(calls, row.logs) << row.what;
    EXPECT_EQ(entry->probeResult, row.result) << row.what;
    EXPECT_EQ(entry->awaitingReply, taken ? 0u : 1u) << row.what;
    EXPECT_EQ(entry->rxCount, row.result == PING_REPLY ? 1u : 0u) << row.what;
    EXPECT_EQ(entry->responderAddr, taken ? ipv4(10, 0, 0, 9) : 0u) << row.what;
    EXPECT_EQ(entry->rxTime.tv_sec != 0, taken) << row.what;
  }
}

TEST_F(ProbeStepTest, NothingToRead) {
  probeAgentPingRxPdu(*entry); // does not wait
  EXPECT_THAT(scripted::takeCalls(), IsEmpty());
  EXPECT_EQ(entry->awaitingReply, 1u);
}

TEST_F(ProbeStepTest, LastSequenceNumber) {
  entry->seqNum = 0; // after 65535
  receive(datagram({0, 0, 0, 0, 0, 133, 0xff, 0xff, 0, 1, 2, 3}));
  EXPECT_EQ(entry->rxSeqNum, 65535u);
  EXPECT_EQ(entry->rxCount, 1u);
}

TEST_F(ProbeStepTest, Reports) {
  entry->thresholdUsec = 2000;
  const struct {
    uint32_t rtt;
    const char *rest;
  } CASES[] = {
      {0, "0 0 0"}, {1999, "0 1 1999"}, {2000, "0 2 2000"}, {2001, "2 2 2001"}, {UINT32_MAX, "2 4294967 4294967295"}};
  for (const auto &row : CASES) {
    entry->rttUsec = row.rtt;
    EXPECT_EQ(probeAgentPingResultNotifyIpSla(*entry), 0u);
    EXPECT_THAT(scripted::takeCalls(), ElementsAre(NOTIFY + "3 5 " + row.rest));
  }
  scripted::script("rpcclt_tarnapiMirelProbeResultIpSlaNotify: -26");
  EXPECT_EQ(probeAgentPingResultNotifyIpSla(*entry), 0u);
  EXPECT_EQ(scripted::takeCalls().back(), log(4, "VRF-ID: 3, Failed to notify IP SLA return code 2 for IP SLA 5."));
  EXPECT_TRUE(apiSemaphoreFree());

  entry->probeFailed = 1;
  entry->txTime.tv_sec -= 3;
  uint32_t usec = 0;
  SCRIPTED_HOOK(rpcclt_tarnapiMirelProbeResultIpSlaNotify,
                [&](tarnapiClient *, uint32_t, uint32_t, uint32_t code, uint32_t msec, uint32_t since) {
                  EXPECT_EQ(code, 1u);
                  EXPECT_EQ(msec, 0u);
                  usec = since;
                  return 0;
                });
  probeAgentPingRxErr(*entry);
  EXPECT_EQ(entry->probeResult, PING_SOCKET_ERROR);
  EXPECT_GE(usec, 3000000u);
  EXPECT_LT(usec, 60000000u);

  scripted::takeCalls();
  entry->sessionState = PING_SESSION_ALLOCATED;
  EXPECT_EQ(probeAgentPingResultNotifyIpSla(*entry), 1u);
  EXPECT_EQ(probeAgentProbeTimedOut(*entry), 1u);
  EXPECT_THAT(scripted::takeCalls(), IsEmpty());
  entry->sessionState = PING_SESSION_RUNNING;
}

TEST_F(ProbeStepTest, PassingTime) {
  const struct {
    uint32_t elapsed;
    uint32_t toTimeout;
    uint32_t toNext;
    uint32_t awaiting;
    bool answered;
    uint32_t toTimeoutAfter;
    uint32_t toNextAfter;
    bool reported;
    bool sent;
  } CASES[] = {
      {99, 100, 200, 1, false, 1, 101, false, false},
      {100, 100, 200, 1, false, 0, 100, true, false},
      {100, 100, 200, 1, true, 0, 100, false, false},   // an answer was taken since the send
      {150, 100, 200, 0, false, 100, 50, false, false}, // nothing is awaited
      {200, 300, 200, 1, false, 900000, 1000000, false, true},
      {300, 300, 200, 1, false, 900000, 1000000, true, true}, // the report goes before the next request
  };
  for (const auto &row : CASES) {
    const uint16_t sequence = entry->seqNum;
    entry->timeToTimeout = row.toTimeout;
    entry->timeToNextProbe = row.toNext;
    entry->awaitingReply = row.awaiting;
    entry->rxTime = {row.answered ? 5 : 0, 0};
    probeElapsedTime(*entry, row.elapsed);
    const Lines calls = scripted::takeCalls();
    const bool reported = !calls.empty() && calls.front().starts_with(NOTIFY + "3 5 1 0 ");
    EXPECT_EQ(reported, row.reported) << row.elapsed;
    EXPECT_EQ(entry->seqNum != sequence, row.sent) << row.elapsed;
    EXPECT_EQ(entry->timeToTimeout, row.toTimeoutAfter) << row.elapsed;
    EXPECT_EQ(entry->timeToNextProbe, row.toNextAfter) << row.elapsed;
  }
}

TEST_F(ProbeStepTest, FailedSend) {
  shutdown(entry->sockFd, SHUT_WR);
  entry->awaitingReply = 0;
  entry->rxTime = {1, 1};
  signal(SIGPIPE, SIG_IGN);
  probeAgentSendPingProbe(*entry);
  EXPECT_THAT(scripted::takeCalls(), ElementsAre(log(4, "vrProbeAgent: Failed to send ICMPv4 Echo Request packet.\n")));
  EXPECT_EQ(entry->txCount, 0u);
  EXPECT_EQ(entry->awaitingReply, 1u);
  EXPECT_EQ(entry->seqNum, 9);
  EXPECT_EQ(entry->rxTime.tv_sec + entry->rxTime.tv_usec, 0);
}

TEST_F(ProbeStepTest, LengthOfTheWait) {
  const struct {
    uint32_t toNext;
    uint32_t toTimeout;
    uint32_t awaiting;
    timeval wait;
  } CASES[] = {
      {0, 5, 1, {0, 1}},          {7, 5, 1, {0, 5}},
      {7, 5, 0, {0, 7}},          {999999, UINT32_MAX, 1, {0, 999999}},
      {1000000, 0, 0, {1, 0}},    {1000001, 0, 0, {1, 0}},
      {UINT32_MAX, 0, 0, {1, 0}}, {UINT32_MAX, 0, 1, {0, 1}},
  };
  for (const auto &row : CASES) {
    entry->timeToNextProbe = row.toNext;
    entry->timeToTimeout = row.toTimeout;
    entry->awaitingReply = row.awaiting;
    const timeval wait = probeAgentGetProbeTimeout();
    EXPECT_EQ(wait.tv_sec, row.wait.tv_sec) << row.toNext;
    EXPECT_EQ(wait.tv_usec, row.wait.tv_usec) << row.toNext;
  }
}

// The task, its reports gathered.
class ProbeTaskTest : public ProbeTest {
protected:
  struct Report {
    uint32_t id;
    uint32_t code;
    uint32_t msec;
    uint32_t usec;
  };

  ProbeTaskTest() {
    SCRIPTED_HOOK(rpcclt_tarnapiMirelProbeResultIpSlaNotify,
                  [this](tarnapiClient *, uint32_t, uint32_t id, uint32_t code, uint32_t msec, uint32_t usec) {
                    const std::lock_guard guard(mutex_);
                    reports_.push_back({id, code, msec, usec});
                    arrived_.notify_all();
                    return 0;
                  });
  }
  ~ProbeTaskTest() override {
    probeAgentCnfgrUconfigPhase2Process(); // before the hook's ground goes away
    comesTrue([] { return threads() == 0; });
  }

  // The first report of the operation within five seconds.
  Report reportOf(uint32_t id) {
    std::unique_lock guard(mutex_);
    Report report{};
    arrived_.wait_for(guard, 5s, [&] {
      const auto found =
          std::find_if(reports_.begin(), reports_.end(), [&](const Report &each) { return each.id == id; });
      if (found == reports_.end()) {
        return false;
      }
      report = *found;
      return true;
    });
    return report;
  }

  void forget() {
    const std::lock_guard guard(mutex_);
    reports_.clear();
  }

  static pthread_t task() {
    const ProbeLock lock;
    return probeAgentTaskId;
  }

private:
  std::mutex mutex_;
  std::condition_variable arrived_;
  std::vector<Report> reports_;
};

TEST_F(ProbeTaskTest, OutcomesOfProbes) {
  shell("ip route add unreachable 10.99.0.0/16");
  ASSERT_EQ(probeAgentProbeSessionAlloc(1, LOOPBACK, LOOPBACK, 1, 0, 500, 64), 0u); // above any threshold
  ASSERT_EQ(probeAgentProbeSessionAlloc(128, ipv4(10, 99, 0, 1), 0, 1, 500, 50, 64), 0u);
  EXPECT_EQ(probeAgentProbeSessionStart(1), 0u);
  EXPECT_EQ(probeAgentProbeSessionStart(128), 0u);
  const Report late = reportOf(1);
  EXPECT_EQ(late.code, 2u);
  EXPECT_GT(late.usec, 0u);
  const Report lost = reportOf(128);
  EXPECT_EQ(lost.code, 1u);
  EXPECT_EQ(lost.msec, 0u);
  EXPECT_GE(lost.usec, 50000u);
  shell("ip route del unreachable 10.99.0.0/16");
}

// The request is due at once, but goes out behind a wait.
TEST_F(ProbeTaskTest, WaitsBeforeItServes) {
  alloc(1);
  probeAgentProbeSessionStart(1);
  EXPECT_EQ(reportOf(1).code, 0u);
  const Lines calls = scripted::takeCalls();
  const auto wait =
      std::find_if(calls.begin(), calls.end(), [](const auto &line) { return line.starts_with("select"); });
  ASSERT_NE(wait, calls.end());
  EXPECT_EQ(*wait, "select socket 0.1s"); // a microsecond
}

// The last session goes and a new one comes while the task waits: the same task serves on, and the new session, whose
// socket has the old one's number, is not taken for it.
TEST_F(ProbeTaskTest, OneTask) {
  alloc(1);
  alloc(2);
  probeAgentProbeSessionStart(1);
  const pthread_t first = task();
  EXPECT_NE(first, 0u);
  probeAgentProbeSessionStart(2);
  EXPECT_EQ(reportOf(1).code, 0u);
  EXPECT_EQ(reportOf(2).code, 0u);
  EXPECT_EQ(threads(), 1);
  for (int i = 0; i < 20; ++i) {
    {
      const ProbeLock lock; // recursive: the task cannot look in between
      probeAgentProbeSessionStop(1);
      probeAgentProbeSessionStop(2);
      alloc(2);
      probeAgentProbeSessionStart(2);
    }
    EXPECT_EQ(task(), first);
  }
  forget();
  EXPECT_EQ(reportOf(2).code, 0u);
  probeAgentProbeSessionStop(2);
  EXPECT_TRUE(comesTrue([] { return task() == 0 && threads() == 0; }));
  forget();
  alloc(3);
  probeAgentProbeSessionStart(3);
  EXPECT_EQ(reportOf(3).code, 0u);
}

TEST_F(ProbeTaskTest, CancelledAnywhere) {
  for (int i = 0; i < 1000; ++i) {
    alloc(1);
    ASSERT_EQ(probeAgentProbeSessionStart(1), 0u);
    if (i % 4 != 0) {
      std::this_thread::sleep_for(std::chrono::microseconds(i % 7 * 20));
    }
    EXPECT_EQ(probeAgentCnfgrUconfigPhase2Process(), 0u);
    EXPECT_EQ(task(), 0u);
    ASSERT_EQ(activeSessionCount, 0u);
  }
  ASSERT_TRUE(comesTrue([] { return threads() == 0; }));
  EXPECT_TRUE(tableLockFree());
  EXPECT_TRUE(apiSemaphoreFree());
}

TEST_F(ProbeTaskTest, EveryPayloadSize) {
  const uint32_t PAYLOADS[] = {0, 1, 13001, 13021, 40961, 65507};
  uint32_t id = 0;
  for (const uint32_t payload : PAYLOADS) {
    ASSERT_EQ(alloc(++id, LOOPBACK, payload), 0u);
    ASSERT_EQ(probeAgentProbeSessionStart(id), 0u);
  }
  for (; id > 0; --id) {
    const Report report = reportOf(id);
    ASSERT_EQ(report.id, id) << PAYLOADS[id - 1];
    EXPECT_EQ(report.code, 0u) << PAYLOADS[id - 1];
    EXPECT_EQ(report.msec, report.usec / 1000);
    const ProbeLock lock;
    EXPECT_EQ(pingSessionTable[id]->txCount, pingSessionTable[id]->rxCount) << PAYLOADS[id - 1];
    EXPECT_EQ(pingSessionTable[id]->responderAddr, LOOPBACK);
  }
  EXPECT_THAT(scripted::takeCalls(), testing::Not(testing::Contains(testing::StartsWith("log "))));
}

} // namespace
