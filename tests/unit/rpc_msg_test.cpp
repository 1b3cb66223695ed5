// One request through check, dispatch and reply: what is refused, and that nothing a request says leads outside of it.

#include "rpc_test.h"
#include "rpcsrv.h"

#include <random>

namespace {

constexpr size_t ARG_COUNT = offsetof(RpcMsgHeader, argCount);
constexpr size_t ARG_OFFSET = offsetof(RpcMsgHeader, argOffset);

int calls;

// Writes over all that it is given, and takes two bytes off slot 2.
uint32_t scribble(uint32_t argCount, rpcArgRef *const *args, uint32_t *result) {
  ++calls;
  for (uint32_t i = 0; i < argCount; ++i) {
    if (args[i]->length > 0) {
      memset(args[i]->data, 0x5a, args[i]->length);
    }
  }
  if (argCount > 2 && args[2]->length > 2) {
    args[2]->length -= 2;
  }
  *result = 0x01020304;
  return 0x01020304;
}

constexpr rpcProcDesc SCRIBBLE{scribble, 3, {4, 4, RPC_SIZE_CHANGES}};
constexpr rpcProcDesc NO_HANDLER{};
constexpr const rpcProcDesc *PROCEDURES[] = {nullptr, &SCRIBBLE, &NO_HANDLER};
constexpr rpcProcTable TABLE{PROCEDURES};

const std::vector<Slot> SLOTS = {word(0), Bytes{1, 2, 3}, word(7), std::nullopt};

// The message in a buffer of exactly its size, so that a sanitizer sees a step beyond it.
Bytes processed(const Bytes &message) {
  RpcProgramSlots programs{};
  programs[0] = &TABLE;
  Bytes buffer = message;
  buffer.resize(std::max(buffer.size(), sizeof(RpcMsgHeader)));
  calls = 0;
  buffer.resize(rpcsrvMsgProcess(programs, buffer, message.size()));
  return buffer;
}

TEST(RpcMsg, Crc) {
  const std::string digits = "123456789";
  EXPECT_EQ(rpcCrc32(reinterpret_cast<const uint8_t *>(digits.data()), digits.size()), 0xCBF43926);
  EXPECT_EQ(rpcCrc32(nullptr, 0), 0U);
}

TEST(RpcMsg, AcceptedRequest) {
  const Bytes message = request(1, SLOTS);
  Bytes expected(message.begin(), message.end() - RPC_CRC_SIZE);
  put(expected, slotAt(message, 0), 0x01020304);
  memset(&expected[slotAt(message, 1)], 0x5a, 3);
  put(expected, slotAt(message, 2) - 4, 2);
  put(expected, slotAt(message, 2), 0x5a5a5a5a);
  EXPECT_EQ(processed(message), expected);
  EXPECT_EQ(calls, 1);
}

TEST(RpcMsg, ResultSlots) {
  const struct {
    Slot slot;
    Bytes result;
  } CASES[] = {{std::nullopt, {}},
               {Bytes(0), {}},
               {Bytes(3, 9), {4, 3, 2}},
               {Bytes(4, 9), {4, 3, 2, 1}},
               {Bytes(16, 9), {4, 3, 2, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}},
               {Bytes(18, 9), {4, 3, 2, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x5a, 0x5a}}};
  for (const auto &row : CASES) {
    const Bytes reply = processed(request(1, {row.slot}));
    EXPECT_EQ(statusOf(reply), 0);
    EXPECT_EQ(Bytes(reply.begin() + static_cast<ptrdiff_t>(slotAt(reply, 0)), reply.end()), row.result);
  }
  EXPECT_EQ(processed(request(1, {})).size(), sizeof(RpcMsgHeader)); // not even a slot for the result
  EXPECT_EQ(calls, 1);
}

TEST(RpcMsg, NoRequest) {
  const Bytes good = request(1, SLOTS);
  const struct {
    const char *what;
    Bytes message;
  } CASES[] = {
      {"nothing", {}},
      {"one byte short of a header", sealed(Bytes(119))},
      {"a bit of the CRC",
       [&] {
         Bytes bad = good;
         bad.back() ^= 1;
         return bad;
       }()},
      {"a bit of an argument",
       [&] {
         Bytes bad = good;
         bad[140] ^= 1;
         return bad;
       }()},
      {"cut", Bytes(good.begin(), good.end() - 1)},
      {"stated length too short",
       [&] {
         Bytes bad = good;
         put(bad, 0, static_cast<uint32_t>(bad.size() - 1));
         put(bad, bad.size() - 4, rpcCrc32(bad.data(), bad.size() - 4));
         return bad;
       }()},
  };
  for (const auto &row : CASES) {
    EXPECT_EQ(processed(row.message), refusal()) << row.what;
    EXPECT_EQ(calls, 0) << row.what;
  }
}

// All else stays as it was sent.
TEST(RpcMsg, RefusedRequests) {
  const Bytes good = request(1, SLOTS);
  const auto area = static_cast<uint32_t>(good.size() - sizeof(RpcMsgHeader) - RPC_CRC_SIZE);
  const size_t lastRecord = slotAt(good, 3) - 4; // the absent one, at the end of the area
  const struct {
    const char *what;
    size_t at;
    uint32_t value;
    int32_t status;
  } CASES[] = {
      {"unregistered program", 4, 1, -7},
      {"program beyond the slots", 4, 7, -7},
      {"program far beyond", 4, 0xFFFFFFFF, -7},
      {"empty entry", 8, 0, -7},
      {"entry without handler", 8, 2, -7},
      {"procedure beyond the table", 8, 3, -7},
      {"procedure far beyond", 8, 0x80000001, -7},
      {"too many slots", ARG_COUNT, 22, -3},
      {"far too many slots", ARG_COUNT, 0xFFFFFFFF, -3},
      {"record half outside", ARG_OFFSET + 8, area - 3, -3},
      {"record behind the area", ARG_OFFSET + 8, area, -3},
      {"record in the CRC's place and beyond", ARG_OFFSET + 8, area + 4, -3},
      {"offset that wraps in 32 bits", ARG_OFFSET, 0xFFFFFFFF - 119, -3},
      {"largest offset", ARG_OFFSET + 12, 0xFFFFFFFF, -3},
      {"length one too many", lastRecord, 1, -3},
      {"length beyond all", lastRecord, 0x7FFFFFFF, -3},
      {"length -1", lastRecord, 0xFFFFFFFF, -3},
      {"length -3", lastRecord, 0xFFFFFFFD, -3},
      {"most negative length", lastRecord, 0x80000000, -3},
  };
  for (const auto &row : CASES) {
    Bytes message = good;
    put(message, row.at, row.value);
    message = sealed(message);
    Bytes expected(message.begin(), message.end() - RPC_CRC_SIZE);
    put(expected, offsetof(RpcMsgHeader, status), static_cast<uint32_t>(row.status));
    EXPECT_EQ(processed(message), expected) << row.what;
    EXPECT_EQ(calls, 0) << row.what;
  }
}

// Records on top of one another, in which the handler and the result overwrite each other's lengths.
TEST(RpcMsg, OverlappingRecords) {
  Bytes message = request(1, {Bytes(8), Bytes(8), Bytes(8)});
  for (uint32_t slot = 0; slot < 3; ++slot) {
    put(message, ARG_OFFSET + slot * 4, slot);
  }
  put(message, 120, 1); // reads as 1, 0 and 0x..000000 from the three offsets
  EXPECT_EQ(statusOf(processed(sealed(message))), 0);
}

TEST(RpcMsg, RandomRequestsStayInTheirBuffer) {
  std::mt19937 random(1);
  const uint32_t telling[] = {0, 1, 2, 4, 20, 21, 22, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFE, 0xFFFFFFFF};
  int called = 0;
  for (int round = 0; round < 20000; ++round) {
    Bytes message = request(1, {word(0), Bytes(random() % 9), Slot(Bytes(random() % 30)), std::nullopt});
    for (uint32_t change = random() % 4; change > 0; --change) {
      const size_t at = 4 + random() % (message.size() - 8);
      put(message, at, random() % 2 == 0 ? telling[random() % std::size(telling)] : random() % 64);
    }
    put(message, 20, 0); // the status, of which a request has none
    const Bytes reply = processed(sealed(message));
    EXPECT_EQ(reply.size(), message.size() - RPC_CRC_SIZE);
    called += calls;
  }
  EXPECT_GT(called, 1000);
}

} // namespace
