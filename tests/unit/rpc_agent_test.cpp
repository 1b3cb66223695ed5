// The RPC of the real agent: there before the platform is, and whole once start-up is over.

#include "agent_process.h"
#include "rpc_test.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <thread>

namespace {

using testing::Contains;
using testing::Not;

constexpr const char *SERVER = "/tmp/dxsmirel.03";

Bytes statsRequest() {
  return request(1, {word(99), word(3), word(0xF0000), word(0)});
}

Bytes arpRequest() {
  return request(4, {word(99), word(3), Bytes{10, 0, 0, 7}, Bytes{2, 0, 0, 0, 0, 9}, word(5), word(0)});
}

Bytes probeStopRequest() {
  return request(3, {word(99), word(3), word(17)});
}

uint32_t resultOf(const Bytes &reply) {
  EXPECT_EQ(statusOf(reply), 0);
  return get(reply, slotAt(reply, 0));
}

// The answer to the first request that finds the server with its program.
Bytes firstAnswer(const Client &client) {
  for (int tries = 0; tries < 10000; ++tries) {
    if (client.trySend(statsRequest())) {
      Bytes reply = client.reply();
      if (statusOf(reply) != RPC_STATUS_NO_PROCEDURE) {
        return reply;
      }
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  ADD_FAILURE() << "no server";
  return refusal();
}

TEST(RpcAgent, BeforeThePlatformAnswers) {
  std::filesystem::remove(SERVER);
  AgentProcess agent("rpcclt_tarnapiConnectivityCheck= 1");
  const Client client(SERVER, "/tmp/dxctest.03");
  EXPECT_EQ(resultOf(firstAnswer(client)), 0U);
  EXPECT_EQ(resultOf(client.call(arpRequest())), 1U);
  EXPECT_EQ(resultOf(client.call(probeStopRequest())), 1U);
  EXPECT_EQ(client.call(Bytes(10)), refusal());
  EXPECT_THAT(agent.trace(), Not(Contains("rpcclt_tarnapiRtrIntfTypeGet 5")));
}

TEST(RpcAgent, AfterStartUp) {
  AgentProcess agent;
  agent.passes(1);
  const Client client(SERVER, "/tmp/dxctest.03");
  EXPECT_EQ(resultOf(firstAnswer(client)), 0U);
  EXPECT_EQ(resultOf(client.call(probeStopRequest())), 0U);
  EXPECT_EQ(resultOf(client.call(arpRequest())), 1U); // there is no device of the index that the platform names
  EXPECT_THAT(agent.trace(), Contains("rpcclt_tarnapiRtrIntfTypeGet 5"));
}

} // namespace
