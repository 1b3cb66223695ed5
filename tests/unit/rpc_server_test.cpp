// The RPC server as a thread with its socket: whom it answers, what it survives, and how it ends.

#include "core_test.h"
#include "rpc_test.h"
#include "rpcsrv.h"

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <utility>

namespace {

using testing::HasSubstr;

constexpr uint32_t INSTANCE = 1;
constexpr const char *PATH = "/tmp/dxsmirel.00";

std::atomic<bool> entered;
std::atomic<bool> left;
std::atomic<bool> held;

uint32_t answerSeven(uint32_t, rpcArgRef *const *, uint32_t *result) {
  return *result = 7;
}

// Long enough that an end which did not wait for it would be over before.
uint32_t slow(uint32_t, rpcArgRef *const *, uint32_t *) {
  entered = true;
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  left = true;
  return 0;
}

template <class Condition> bool within(Condition condition) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

// Keeps the server from its queue.
uint32_t hold(uint32_t, rpcArgRef *const *, uint32_t *) {
  entered = true;
  return within([] { return !held; }) ? 0 : 1;
}

constexpr rpcProcDesc SEVEN{answerSeven, 1, {4}};
constexpr rpcProcDesc SLOW{slow, 1, {4}};
constexpr rpcProcDesc HOLD{hold, 1, {4}};
constexpr const rpcProcDesc *PROCEDURES[] = {nullptr, &SEVEN, &SLOW, &HOLD};
constexpr rpcProcTable TABLE{PROCEDURES};

size_t openDescriptors() {
  const std::filesystem::directory_iterator all("/proc/self/fd");
  return static_cast<size_t>(std::distance(begin(all), end(all)));
}

class RpcServer : public CoreTest {
protected:
  ~RpcServer() override {
    if (rpcsrvCtrls[INSTANCE].sock != RPCSRV_ABSENT) {
      printed([] { rpcsrvDeInit(INSTANCE); });
    }
  }

  static rpcsrvCfg config() {
    rpcsrvCfg cfg{};
    rpcsrvSockAddrInit(&cfg.address, 0, 0);
    return cfg;
  }

  // Until the permissions are set, the last step before the first receive.
  static void start() {
    EXPECT_NE(rpcsrvInit(INSTANCE, 1, config()), 0);
    ASSERT_TRUE(within([] {
      struct stat file;
      return stat(PATH, &file) == 0 && S_ISSOCK(file.st_mode) && (file.st_mode & 0777) == 0777;
    }));
  }

  static const rpcsrvStats &stats() { return *rpcsrvCtrls[INSTANCE].stats; }
};

TEST_F(RpcServer, Addresses) {
  const struct {
    uint32_t instance;
    uint32_t service;
    const char *server;
    const char *client;
  } CASES[] = {{0, 0, "/tmp/dxsmirel.00", "/tmp/dxcmirel.00"},
               {5, 0, "/tmp/dxsmirel.05", "/tmp/dxcmirel.05"},
               {128, 0, "/tmp/dxsmirel.128", "/tmp/dxcmirel.128"},
               {0, 7, "", ""},
               {0, 0xFFFFFFFF, "", ""}};
  for (const auto &row : CASES) {
    sockaddr_un address;
    memset(&address, 0xff, sizeof address);
    rpcsrvSockAddrInit(&address, row.instance, row.service);
    EXPECT_STREQ(address.sun_path, row.server);
    EXPECT_EQ(address.sun_family, AF_UNIX);
    EXPECT_EQ(address.sun_path[sizeof address.sun_path - 1], '\0');
    rpccltSockAddrInit(&address, row.instance, row.service);
    EXPECT_STREQ(address.sun_path, row.client);
  }
}

TEST_F(RpcServer, Answers) {
  std::ofstream(PATH) << "left by an earlier process";
  start();
  EXPECT_EQ(scripted::takeCalls(), Lines{"osapiTaskCreate GenRPC Server"});
  const Client client(PATH, "/tmp/dxctest.00");
  const Bytes question = request(1, {word(0)});
  EXPECT_EQ(statusOf(client.call(question)), -7); // before the program is registered
  EXPECT_EQ(rpcsrvProgramRegister(INSTANCE, 0, &TABLE), 0);
  const Bytes answer = client.call(question);
  EXPECT_EQ(answer.size(), question.size() - RPC_CRC_SIZE);
  EXPECT_EQ(get(answer, 0), question.size());
  EXPECT_EQ(get(answer, slotAt(answer, 0)), 7U);

  EXPECT_EQ(client.call(Bytes(119, 0xee)), refusal());
  EXPECT_EQ(client.call({}), refusal());
  const size_t rest = RPC_MSG_MAX - question.size() - sizeof(int32_t);
  const Bytes longest = request(1, {word(0), Bytes(rest, 0xee)});
  ASSERT_EQ(longest.size(), size_t{RPC_MSG_MAX});
  Bytes expected(longest.begin(), longest.end() - RPC_CRC_SIZE);
  put(expected, slotAt(expected, 0), 7);
  EXPECT_EQ(client.call(longest), expected);
  EXPECT_EQ(client.call(request(1, {word(0), Bytes(rest + 1, 0xee)})), refusal());
  EXPECT_EQ(client.call(question), answer);
  EXPECT_TRUE(within([] { return stats().repliesSent == 7; }));
  EXPECT_EQ(stats().requestsProcessed, 7U);
  EXPECT_EQ(stats().tooLong, 1U);
  EXPECT_EQ(stats().replyFailures, 0U);
}

// Bytes of replies that clients have not read.
int unreadBytes() {
  int unread = 0;
  EXPECT_EQ(ioctl(rpcsrvCtrls[INSTANCE].sock, SIOCOUTQ, &unread), 0);
  return unread;
}

// As many replies as requests before the first read.
void expectServed(const Client &client) {
  constexpr int BURST = 40;
  const Bytes question = request(1, {word(0)});
  for (int i = 0; i < BURST; ++i) {
    client.send(question);
  }
  for (int i = 0; i < BURST; ++i) {
    ASSERT_EQ(statusOf(client.reply()), 0) << i;
  }
}

void expectNewClientsServed() {
  expectServed(Client(PATH, "/tmp/dxctest.00"));
  Client connected(PATH, "/tmp/dxctest.01");
  connected.connect();
  expectServed(connected);
}

// However much they leave unread. The server's buffer takes half of this for clients that are not connected.
TEST_F(RpcServer, ClientsThatDoNotReadCostOthersNothing) {
  constexpr int BUFFER = 128 << 20;
  std::ofstream("/proc/sys/net/unix/max_dgram_qlen") << 1024;
  start();
  rpcsrvProgramRegister(INSTANCE, 0, &TABLE);
  const Bytes question = request(1, {word(0)});
  const Bytes large = request(1, {word(0), Bytes(RPC_MSG_MAX - 200)});
  Client(PATH, nullptr).send(question);

  Client connected(PATH, "/tmp/dxcearlier.00");
  connected.connect();
  const Client deaf(PATH, "/tmp/dxcdeaf.00");
  for (int i = 0; i < 1100; ++i) { // more than its queue holds
    deaf.send(large);
  }
  ASSERT_TRUE(within([] { return stats().requestsProcessed == 1101; }));
  EXPECT_GE(unreadBytes(), BUFFER / 2);
  EXPECT_EQ(stats().repliesSent, 1025U);
  expectServed(connected);
  expectNewClientsServed();

  Client deafConnected(PATH, "/tmp/dxcdeaf.01"); // its queue has no limit
  deafConnected.connect();
  for (int unread = unreadBytes(); unread < BUFFER; unread = unreadBytes()) {
    deafConnected.send(large);
    ASSERT_TRUE(within([&] { return unreadBytes() > unread; }));
  }

  // The next reply to a connected client finds no room; other requests wait behind that client's.
  const Client holder(PATH, "/tmp/dxctest.02");
  const Client waiting(PATH, "/tmp/dxctest.03");
  const size_t descriptors = openDescriptors();
  entered = false;
  held = true;
  holder.send(request(3, {word(9)}));
  ASSERT_TRUE(within([] { return entered.load(); }));
  connected.send(question);
  waiting.send(question);
  connected.send(question);
  held = false;
  for (const Client *client : {&holder, &std::as_const(connected), &waiting, &std::as_const(connected)}) {
    EXPECT_EQ(statusOf(client->reply()), 0);
  }
  EXPECT_TRUE(within([&] { return !connected.trySend(question); }));
  connected.connect();
  expectServed(connected);
  EXPECT_LT(openDescriptors(), descriptors);
  expectNewClientsServed();
  EXPECT_EQ(stats().replyFailures, 1100U - 1025 + 1);
}

// Its old socket keeps the path by which the server goes now: an answer would come back as the next request.
TEST_F(RpcServer, DoesNotAnswerItself) {
  const Client impostor(PATH, PATH);
  start();
  impostor.send(Bytes(1));
  const Client client(PATH, "/tmp/dxctest.00");
  EXPECT_EQ(client.call(Bytes(1)), refusal()); // behind what the impostor may have brought
  EXPECT_EQ(stats().requestsProcessed, 2U);
  EXPECT_EQ(stats().replyFailures, 1U);
}

TEST_F(RpcServer, EndWaitsForTheRequestInHand) {
  start();
  rpcsrvProgramRegister(INSTANCE, 0, &TABLE);
  const Client client(PATH, "/tmp/dxctest.00");
  entered = false;
  client.send(request(2, {word(9)}));
  ASSERT_TRUE(within([] { return entered.load(); }));
  printed([] { EXPECT_EQ(rpcsrvDeInit(INSTANCE), 0); });
  EXPECT_TRUE(left);
  EXPECT_EQ(get(client.reply(), 124), 0U);
  EXPECT_FALSE(std::filesystem::exists(PATH));
  EXPECT_EQ(printed([] { EXPECT_EQ(rpcsrvDeInit(INSTANCE), 0); }), "\n server already de-initialized");
  EXPECT_EQ(printed([] { EXPECT_EQ(rpcsrvProgramRegister(INSTANCE, 0, &TABLE), 1); }), "\n server not present");
}

TEST_F(RpcServer, ManyLivesLeaveNothing) {
  const size_t before = openDescriptors();
  printed([] {
    for (int life = 0; life < 300; ++life) {
      EXPECT_NE(rpcsrvInit(INSTANCE, 1, config()), 0);
      if (life % 3 == 0) { // else it is ended on its way to the socket
        within([] { return std::filesystem::exists(PATH); });
      }
      EXPECT_EQ(rpcsrvDeInit(INSTANCE), 0);
    }
  });
  EXPECT_EQ(openDescriptors(), before);
  EXPECT_FALSE(std::filesystem::exists(PATH));
}

TEST_F(RpcServer, WithoutTask) {
  EXPECT_GT(rpcsrvInit(INSTANCE, 0, config()), 0);
  EXPECT_EQ(printed([] { EXPECT_EQ(rpcsrvInit(INSTANCE, 0, config()), 0); }), "\n server already initialized");
  EXPECT_EQ(rpcsrvCtrls[INSTANCE].addressLength, strlen(PATH) + 2);
  int error = 0;
  EXPECT_EQ(rpcsrvSockCreate(&rpcsrvCtrls[INSTANCE], &error), 0);     // nothing left to do
  EXPECT_EQ(rpcsrvSockCreate(&rpcsrvCtrls[INSTANCE + 1], &error), 1); // absent
}

TEST_F(RpcServer, RangesOfInstancesAndSlots) {
  EXPECT_EQ(rpcsrvInit(16, 0, config()), 0);
  EXPECT_EQ(rpcsrvDeInit(16), 1);
  EXPECT_EQ(rpcsrvProgramRegister(16, 0, &TABLE), 1);
  EXPECT_GT(rpcsrvInit(15, 0, config()), 0);
  EXPECT_EQ(rpcsrvProgramRegister(15, 7, &TABLE), 1);
  EXPECT_EQ(rpcsrvProgramRegister(15, 6, &TABLE), 0);
  printed([] { EXPECT_EQ(rpcsrvDeInit(15), 0); });
}

TEST_F(RpcServer, FailuresLeaveItAbsent) {
  scripted::script("osapiTaskCreate: 1 11");
  EXPECT_THAT(printed([] { EXPECT_EQ(rpcsrvInit(INSTANCE, 1, config()), 0); }),
              HasSubstr("\n unable to create server thrd errno=11 (Resource temporarily unavailable)\n"
                        "\n error creating server task"));
  std::filesystem::create_directory(PATH); // where no socket can be bound
  EXPECT_THAT(printed([] { EXPECT_EQ(rpcsrvInit(INSTANCE, 0, config()), 0); }),
              HasSubstr("\n in rpcsrvSockCreate line 161 socket bind failed \n"
                        "\n unable to create server socket errno=98 (Address already in use)\n"));
  EXPECT_EQ(rpcsrvCtrls[INSTANCE].sock, RPCSRV_ABSENT);

  // With a thread it is the thread that fails, and ends; the instance stays, without a socket, until it is ended.
  EXPECT_THAT(printed([] {
                EXPECT_NE(rpcsrvInit(INSTANCE, 1, config()), 0); // the socket as it is then, which the thread may have made
                EXPECT_TRUE(within([] { return stats().bindFailures == 1; }));
                EXPECT_EQ(rpcsrvDeInit(INSTANCE), 0);
              }),
              HasSubstr("\n unable to create server socket errno=98 (Address already in use)\n"));
  std::filesystem::remove(PATH);
  int error = 0;
  EXPECT_EQ(printed([&] { EXPECT_EQ(rpcsrvSockCreate(nullptr, &error), 1); }), "\n pctrl is null");
}

} // namespace
