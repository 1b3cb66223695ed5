// The procedures that the agent serves, from the bytes of a request to those of its reply.

#include "mirel_arp.h"
#include "mirel_rpc.h"
#include "router_test.h"
#include "rpc_test.h"
#include "snmp_monitor.h"
#include "vr_ipslaprobe_util_session.h"

#include <chrono>
#include <net/if.h>
#include <thread>

namespace {

constexpr uint32_t VRF = 3;
constexpr uint32_t PRESET = 99;

Bytes bytesOf(std::string hex) {
  std::erase(hex, ' ');
  Bytes bytes;
  for (size_t i = 0; i + 1 < hex.size(); i += 2) {
    bytes.push_back(static_cast<uint8_t>(std::stoul(hex.substr(i, 2), nullptr, 16)));
  }
  return bytes;
}

Bytes processed(Bytes message) {
  RpcProgramSlots programs{};
  programs[0] = mirelRpcProcTableGet();
  message.resize(rpcsrvMsgProcess(programs, message, message.size()));
  return message;
}

// The result of a procedure that was called.
uint32_t resultOf(const Bytes &reply) {
  EXPECT_EQ(statusOf(reply), 0);
  return get(reply, slotAt(reply, 0));
}

std::vector<Slot> words(const std::vector<uint32_t> &values) {
  std::vector<Slot> slots = {word(PRESET)};
  for (const uint32_t value : values) {
    slots.emplace_back(word(value));
  }
  return slots;
}

std::vector<Slot> arpSlots() {
  return {word(PRESET), word(VRF), Bytes{192, 0, 2, 9}, Bytes{2, 0, 0, 0, 0, 9}, word(5), word(77)};
}

// To a group, which is refused when the session is started.
std::vector<Slot> probeSlots() {
  return words({VRF, 17, ipv4(224, 0, 0, 7), ipv4(192, 0, 2, 77), 30, 500, 1000, 64});
}

class RpcProcs : public RouterTest {
protected:
  static void SetUpTestSuite() {
    RouterTest::SetUpTestSuite();
    shell("ip link set rt1 up && ip link set h1 up");
  }

  RpcProcs() {
    arpIoctlSock = requests.get();
    for (uint32_t i = 0; i < IP_STATS; ++i) {
      ipStats[i] = 0x900000100 + i;
    }
    for (uint32_t i = 0; i < ICMP_STATS; ++i) {
      icmpStats[i] = 0x900000200 + i;
    }
  }
  ~RpcProcs() override { arpIoctlSock = -1; }

  static void probeTaskEnd() {
    probeAgentCnfgrUconfigPhase2Process();
    const auto running = [] {
      const ProbeLock lock;
      return probeAgentTaskId != 0;
    };
    for (int tries = 0; tries < 1000 && running(); ++tries) {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    EXPECT_FALSE(running());
    osapiSemaDelete(pingSessionTableSema);
    pingSessionTableSema = nullptr;
  }

  const UniqueFd requests{socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
};

// The first test, since nothing closes them again.
TEST_F(RpcProcs, ClosedUntilStartUpOpensThem) {
  EXPECT_EQ(resultOf(processed(request(2, probeSlots()))), 1U);
  EXPECT_EQ(resultOf(processed(request(3, words({VRF, 17})))), 1U);
  EXPECT_EQ(resultOf(processed(request(4, arpSlots()))), 1U);
  EXPECT_EQ(resultOf(processed(request(1, words({VRF, 0xF0000, 0})))), 0U);
  EXPECT_EQ(scripted::takeCalls(), Lines{});
}

// Requests with their reserved fields set and the CRC of another program. Each reply is the request without the CRC, the
// status and the words at the end of it written over.
TEST_F(RpcProcs, GoldenBytes) {
  mirelRpcControlsOpen();
  vrIpSlaProbeAgentProcessInit();
  const std::string reserved = "1112131415161718";
  const std::string reserved24 = "2122232425262728";
  const std::string status = "55555555"; // does not count: the CRC is that of 0
  const struct {
    std::string head;
    std::string offsets; // number of slots in front; the other slots' are 0
    std::string records; // behind that of the result
    std::string crc;
    std::string recordsBack;
  } CASES[] = {
      {"9c000000 00000000 01000000", "04000000 00000000 08000000 10000000 18000000",
       "04000000 03000000 04000000 00000f00 04000000 aaaaaaaa", "1c0c70bf",
       "04000000 03000000 04000000 00000f00 04000000 02010000"},
      {"c4000000 00000000 02000000",
       "09000000 00000000 08000000 10000000 18000000 20000000 28000000 30000000 38000000 40000000",
       "04000000 03000000 04000000 11000000 04000000 0700000a 04000000 00000000 04000000 1e000000 04000000 f4010000 "
       "04000000 e8030000 04000000 40000000",
       "3518d56c", ""},
      {"94000000 00000000 03000000", "03000000 00000000 08000000 10000000", "04000000 03000000 04000000 11000000",
       "cca2cb17", ""},
      {"ae000000 00000000 04000000", "06000000 00000000 08000000 10000000 18000000 22000000 2a000000",
       "04000000 03000000 04000000 0a000007 06000000 020406080a0c 04000000 05000000 04000000 00000000", "4ee96471", ""},
  };
  scripted::script("osapiStackIfIndexGet: 0 " + std::to_string(if_nametoindex("rt1")));
  for (const auto &row : CASES) {
    const std::string offsets = row.offsets + std::string(2 * 4 * (22 - bytesOf(row.offsets).size() / 4), '0');
    const std::string question =
        row.head + reserved + status + reserved24 + offsets + "0400000009000000" + row.records + row.crc;
    const std::string answer = row.head + reserved + "00000000" + reserved24 + offsets + "0400000000000000" +
                               (row.recordsBack.empty() ? row.records : row.recordsBack);
    EXPECT_EQ(processed(bytesOf(question)), bytesOf(answer)) << question;
  }
  shell("ip neigh show dev rt1 | grep -q '^10.0.0.7 lladdr 02:04:06:08:0a:0c' && ip neigh flush dev rt1");
  probeTaskEnd();
}

TEST_F(RpcProcs, Statistics) {
  constexpr uint32_t SENT = 0xABCDEF01;
  const auto ask = [](uint32_t statsId) {
    const Bytes reply = processed(request(1, words({VRF, statsId, SENT})));
    return std::pair(resultOf(reply), get(reply, slotAt(reply, 3)));
  };
  // The counters of each run of identifiers, in the order of the identifiers; 0x100 and up IP, 0x200 and up ICMP.
  const struct {
    uint32_t first;
    std::vector<uint32_t> values;
  } RUNS[] = {
      {0xF0000, {0x102, 0x103, 0x104, 0x105, 0x106, 0x107, 0x108, 0x10d, 0x10e, 0x10f, 0x110, 0x111, 0x112}},
      {0xF000E, {0x201, 0x203, 0x204, 0x205, 0x206, 0x207, 0x208, 0x209, 0x20a, 0x20b, 0x20c, 0x20d}},
      {0xF0100, {0x109, 0x10a, 0x10b}},
      {0xF0104, {0x20f, 0x210, 0x211, 0x212, 0x213, 0x214, 0x215, 0x216, 0x217, 0x218, 0x219, 0x21a}},
      {0xF0200, {SENT, 0x10c}},
  };
  for (const auto &run : RUNS) {
    for (uint32_t i = 0; i < run.values.size(); ++i) {
      EXPECT_EQ(ask(run.first + i), std::pair(0U, run.values[i])) << std::hex << run.first + i;
    }
  }
  for (const uint32_t statsId :
       {0U, 0xEFFFFU, 0xF000DU, 0xF001AU, 0xF00FFU, 0xF0103U, 0xF0110U, 0xF01FFU, 0xF0202U, 0xFFFFFFFFU}) {
    EXPECT_EQ(ask(statsId), std::pair(1U, SENT)) << std::hex << statsId;
  }
}

// Another VRF, and each argument away or one byte short: the result is 1 and nothing is touched.
TEST_F(RpcProcs, RefusedArguments) {
  mirelRpcControlsOpen();
  const struct {
    uint32_t procedure;
    std::vector<Slot> slots;
  } CASES[] = {
      {1, words({VRF, 0xF0000, 7})},
      {2, probeSlots()},
      {3, words({VRF, 17})},
      {4, arpSlots()},
  };
  for (const auto &row : CASES) {
    const auto refused = [&](const std::vector<Slot> &slots, const std::string &what) {
      const Bytes message = request(row.procedure, slots);
      Bytes expected(message.begin(), message.end() - RPC_CRC_SIZE);
      put(expected, slotAt(expected, 0), 1);
      EXPECT_EQ(processed(message), expected) << row.procedure << ": " << what;
      EXPECT_EQ(scripted::takeCalls(), Lines{}) << row.procedure << ": " << what;
    };
    std::vector<Slot> slots = row.slots;
    slots[1] = word(VRF + 1);
    refused(slots, "another VRF");
    for (size_t i = 1; i < row.slots.size(); ++i) {
      slots = row.slots;
      slots[i] = std::nullopt;
      refused(slots, "absent " + std::to_string(i));
      slots[i] = Bytes(row.slots[i]->begin(), row.slots[i]->end() - 1);
      refused(slots, "short " + std::to_string(i));
    }
    slots = row.slots;
    slots.pop_back();
    refused(slots, "one slot too few");
  }
}

TEST_F(RpcProcs, Probes) {
  mirelRpcControlsOpen();
  vrIpSlaProbeAgentProcessInit();
  EXPECT_EQ(resultOf(processed(request(2, probeSlots()))), 1U);
  ASSERT_NE(pingSessionTable[17], nullptr); // created, but not started
  const pingSessionEntry entry = *pingSessionTable[17];
  EXPECT_EQ(entry.sessionState, PING_SESSION_ALLOCATED);
  EXPECT_EQ(entry.targetAddr, ipv4(224, 0, 0, 7));
  EXPECT_EQ(entry.sourceAddr, ipv4(192, 0, 2, 77));
  EXPECT_EQ(entry.frequencyUsec, 30000000U);
  EXPECT_EQ(entry.thresholdUsec, 500000U);
  EXPECT_EQ(entry.timeoutUsec, 1000000U);
  EXPECT_EQ(entry.dataSize, 64);
  EXPECT_EQ(resultOf(processed(request(2, probeSlots()))), 1U); // the id is taken
  EXPECT_EQ(resultOf(processed(request(3, words({VRF, 17})))), 0U);
  EXPECT_EQ(pingSessionTable[17], nullptr);
  EXPECT_EQ(resultOf(processed(request(3, words({VRF, 17})))), 0U);
  EXPECT_EQ(resultOf(processed(request(3, words({VRF, 129})))), 1U);
  probeTaskEnd();
}

TEST_F(RpcProcs, ArpEntries) {
  mirelRpcControlsOpen();
  const std::string name = "rpcclt_tarnapiRtrIntfTypeGet 5\nrpcclt_tarnapiRtrIntfIpStackStkNameGet 3 5 [17]\n";
  const std::string index = std::to_string(if_nametoindex("rt1"));
  const struct {
    const char *what;
    std::string script;
    std::string calls;
    uint32_t result;
  } CASES[] = {
      {"written", "osapiStackIfIndexGet: 0 " + index, name + "osapiStackIfIndexGet rt1\n", 0},
      {"no name", "rpcclt_tarnapiRtrIntfIpStackStkNameGet: -29", name, 1},
      {"no device", "osapiStackIfIndexGet: 1", name + "osapiStackIfIndexGet rt1\n", 1},
  };
  for (const auto &row : CASES) {
    scripted::script(row.script);
    EXPECT_EQ(resultOf(processed(request(4, arpSlots()))), row.result) << row.what;
    std::string calls;
    for (const std::string &line : scripted::takeCalls()) {
      calls += line + "\n";
    }
    EXPECT_EQ(calls, row.calls) << row.what;
    const std::string quiet = row.result == 0 ? "" : "! ";
    EXPECT_NO_THROW(shell(quiet + "ip neigh show dev rt1 | grep -q '^192.0.2.9 lladdr 02:00:00:00:00:09'")) << row.what;
    shell("ip neigh flush dev rt1");
  }
}

} // namespace
