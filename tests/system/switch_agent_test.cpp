// What orrinctl asks of agents: a socket of the test's own stands in for the agent's, and answers well, badly or not at all.

#include "rpc_crc.h"
#include "rpc_datagram.h"
#include "switch_fixture.h"
#include "unique_fd.h"

#include <array>
#include <cstring>
#include <functional>
#include <future>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

namespace {

constexpr size_t RESULT_AT = sizeof(RpcMsgHeader) + sizeof(int32_t);

class StandIn {
public:
  StandIn() : fd_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof address.sun_path, RPC_SERVER_PATH, "mirel", static_cast<int>(VRF));
    path_ = address.sun_path;
    unlink(path_.c_str());
    EXPECT_EQ(bind(fd_.get(), reinterpret_cast<sockaddr *>(&address), sizeof address), 0) << strerror(errno);
  }
  ~StandIn() { unlink(path_.c_str()); }
  StandIn(const StandIn &) = delete;
  StandIn &operator=(const StandIn &) = delete;

  // The next request; empty when none comes.
  std::string take() {
    pollfd readable = {fd_.get(), POLLIN, 0};
    std::array<char, 4096> bytes;
    peerLength_ = sizeof peer_;
    const ssize_t length = poll(&readable, 1, 5000) == 1 ? recvfrom(fd_.get(), bytes.data(), bytes.size(), 0,
                                                                    reinterpret_cast<sockaddr *>(&peer_), &peerLength_)
                                                         : -1;
    return length > 0 ? std::string(bytes.data(), static_cast<size_t>(length)) : std::string();
  }
  void send(const std::string &reply) {
    EXPECT_EQ(sendto(fd_.get(), reply.data(), reply.size(), 0, reinterpret_cast<sockaddr *>(&peer_), peerLength_),
              static_cast<ssize_t>(reply.size()));
  }

private:
  UniqueFd fd_;
  std::string path_;
  sockaddr_un peer_{};
  socklen_t peerLength_ = 0;
};

std::string replyTo(const std::string &request, uint32_t result = 0) {
  std::string reply = request.substr(0, request.size() - RPC_CRC_SIZE);
  std::memcpy(reply.data() + RESULT_AT, &result, sizeof result);
  return reply;
}

std::string withStatus(std::string reply, int32_t status) {
  std::memcpy(reply.data() + offsetof(RpcMsgHeader, status), &status, sizeof status);
  return reply;
}

class SwitchAgent : public SwitchFixture {
protected:
  // What orrinctl says to the command while the stand-in does its part; empty when it is done.
  std::string told(const std::string &command, const std::function<void(StandIn &)> &part) {
    StandIn agent;
    auto asked = std::async(std::launch::async, [&] { return orrinctl(command); });
    part(agent);
    return asked.get();
  }
  static std::string orrinctl(const std::string &command) {
    FILE *output = popen((MIREL_BUILD_DIR "/bin/orrinctl " + command + " 2>&1").c_str(), "r");
    std::array<char, 4096> text{};
    const size_t length = fread(text.data(), 1, text.size(), output);
    EXPECT_EQ(WEXITSTATUS(pclose(output)), length == 0 ? 0 : 1);
    return std::string(text.data(), length);
  }
};

constexpr const char *START = "ipsla start vrf 3 5 to 10.0.0.1 from 10.0.0.2 frequency 7 threshold 8 timeout 9 size 64";

TEST_F(SwitchAgent, RequestIsWhole) {
  std::string request;
  EXPECT_EQ(told(START, [&](StandIn &agent) { agent.send(replyTo(request = agent.take())); }), "");
  RpcMsgHeader header;
  ASSERT_EQ(request.size(), sizeof header + 9 * 8 + RPC_CRC_SIZE);
  std::memcpy(&header, request.data(), sizeof header);
  EXPECT_EQ(header.totalLength, request.size());
  EXPECT_EQ(header.program, 0U);
  EXPECT_EQ(header.procedure, 2U);
  EXPECT_EQ(header.argCount, 9U);
  const std::array<uint32_t, 9> WANTED = {0, 3, 5, 0x0A000001, 0x0A000002, 7, 8, 9, 64};
  for (size_t slot = 0; slot < WANTED.size(); ++slot) {
    std::array<uint32_t, 2> record;
    std::memcpy(&record, request.data() + sizeof header + header.argOffset[slot], sizeof record);
    EXPECT_EQ(record[0], 4U) << slot;
    EXPECT_EQ(record[1], WANTED[slot]) << slot;
  }
  uint32_t crc = 0;
  std::memcpy(&crc, request.data() + request.size() - sizeof crc, sizeof crc);
  EXPECT_EQ(crc, rpcCrc32(reinterpret_cast<const uint8_t *>(request.data()), request.size() - sizeof crc));
  EXPECT_NE(orrin.run("dump").find(START), std::string::npos);
  EXPECT_EQ(told("ipsla stop vrf 3 5", [](StandIn &agent) { agent.send(replyTo(agent.take())); }), "");
  EXPECT_EQ(orrin.run("dump").find("ipsla"), std::string::npos);
}

TEST_F(SwitchAgent, BadAnswers) {
  const struct {
    const char *what;
    std::function<void(StandIn &)> part;
    const char *reason;
  } CASES[] = {
      {"result 1", [](StandIn &agent) { agent.send(replyTo(agent.take(), 1)); }, "refused it with 1"},
      {"status", [](StandIn &agent) { agent.send(withStatus(replyTo(agent.take()), -7)); }, "answered with status -7"},
      {"refusal",
       [](StandIn &agent) {
         std::string refused(sizeof(RpcMsgHeader), '\0');
         refused[0] = RPC_REFUSED;
         agent.take();
         agent.send(refused);
       },
       "refused the request as damaged"},
      {"silence", [](StandIn &agent) { agent.take(); }, "has not answered in time"},
      {"strangers",
       [](StandIn &agent) {
         const std::string right = replyTo(agent.take());
         std::string other = right;
         ++other[offsetof(RpcMsgHeader, reserved12)];
         for (const std::string &wrong : {std::string("?"), other, right + "1234", right.substr(0, 60)}) {
           agent.send(wrong);
         }
         agent.send(withStatus(right, -3)); // only this is taken
       },
       "answered with status -3"},
  };
  for (const auto &row : CASES) {
    EXPECT_NE(told(START, row.part).find(row.reason), std::string::npos) << row.what;
  }
  EXPECT_EQ(orrin.run("dump").find("ipsla"), std::string::npos);
  EXPECT_NE(orrinctl("stats vrf 3").find("is not there"), std::string::npos);
}

} // namespace
