// The RPC server as a thread with its socket: whom it answers, what it survives, and how it ends.

#include "core_test.h"
#include "rpc_test.h"
#include "rpcsrv.h"

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <sys/stat.h>

namespace {

using testing::HasSubstr;

constexpr uint32_t INSTANCE = 1;
constexpr const char *PATH = "/tmp/dxsmirel.00";

std::atomic<bool> entered;
std::atomic<bool> left;

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

constexpr rpcProcDesc SEVEN{answerSeven, 1, {4}};
constexpr rpcProcDesc SLOW{slow, 1, {4}};
constexpr const rpcProcDesc *PROCEDURES[] = {nullptr, &SEVEN, &SLOW};
constexpr rpcProcTable TABLE{PROCEDURES};

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

// Neither a client that has no address nor one that does not read keeps another from its answers.
TEST_F(RpcServer, DoesNotWaitForClients) {
  start();
  rpcsrvProgramRegister(INSTANCE, 0, &TABLE);
  const Bytes question = request(1, {word(0)});
  Client(PATH, nullptr).send(question);
  const Client deaf(PATH, "/tmp/dxcdeaf.00");
  constexpr uint32_t QUESTIONS = 5000; // more than any queue of replies
  for (uint32_t i = 0; i < QUESTIONS; ++i) {
    deaf.send(question);
  }
  const Client client(PATH, "/tmp/dxctest.00");
  EXPECT_EQ(statusOf(client.call(question)), 0);
  EXPECT_EQ(stats().requestsProcessed, QUESTIONS + 2);
  EXPECT_GT(stats().replyFailures, 1U);
  EXPECT_EQ(statusOf(deaf.reply()), 0);
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
