// Registration of the best-route client, its datagrams and its time-out.

#include "core_test.h"
#include "mirel_best_route.h"
#include "own_namespaces.h"
#include "unique_fd.h"

#include <fcntl.h>
#include <filesystem>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const std::string LOG = "log 3 156 application/routing/mirel/core/mirel ";
const std::string VRF_LOG = LOG + "[VRF \"blue\"]: ";
const std::string REGISTER = "rpcclt_tarnapiBestRouteEventRegisterVr 3 1 4711 mirel:3[8]";

class BestRouteClientTest : public CoreTest {
protected:
  BestRouteClientTest() {
    scripted::clockSet(5000);
    brc_client_id = 0;
  }
  ~BestRouteClientTest() override {
    if (brc_sock_fd != -1) {
      close(brc_sock_fd);
    }
  }

  static int start() { return mirelBestRouteClientStart(mirelPid, &clientNameDesc, &brc_client_id, &brc_sock_fd); }
};

TEST_F(BestRouteClientTest, Registers) {
  scripted::script("rpcclt_tarnapiBestRouteEventRegisterVr: 0 12345");
  EXPECT_EQ(start(), 0);
  EXPECT_THAT(scripted::takeCalls(), ElementsAre(REGISTER));
  EXPECT_EQ(brc_client_id, 12345u);
  EXPECT_TRUE(std::filesystem::is_socket("/tmp/rppi_brc.12345"));
  EXPECT_NE(brc_sock_fd, -1);
  EXPECT_EQ(brc_client_keepalive_time, 5000u);
}

TEST_F(BestRouteClientTest, TraceNamesThePlaceOfTheClientId) {
  mirelDebugFlags = 1;
  char expected[128];
  snprintf(expected, sizeof expected,
           "[blue (VRF 3)]:mirelBestRouteClientStart: best route client registration successful, client id %p\n",
           static_cast<void *>(&brc_client_id));
  EXPECT_EQ(printed([] { start(); }), expected);
}

TEST_F(BestRouteClientTest, WaitsForThePlatformWithTheSemaphoreFree) {
  scripted::script("rpcclt_tarnapiBestRouteEventRegisterVr: -28\nrpcclt_tarnapiBestRouteEventRegisterVr: -28");
  scripted::observe(
      [](const std::string &line) { EXPECT_EQ(apiSemaphoreFree(), line.starts_with("osapiSleepMSec")) << line; });
  EXPECT_EQ(start(), 0);
  EXPECT_THAT(scripted::takeCalls(),
              ElementsAre(REGISTER, "osapiSleepMSec 1000", REGISTER, "osapiSleepMSec 1000", REGISTER));
  EXPECT_TRUE(apiSemaphoreFree());
}

TEST_F(BestRouteClientTest, Refused) {
  const struct {
    const char *answer;
    const char *reason;
  } CASES[] = {
      {"-24", "Client name already registered"},
      {"-23", "Client list already full"},
      {"-22", "Other failure"},
      {"-26", "Other failure"},
      {"1", "Other failure"},
  };
  for (const auto &row : CASES) {
    scripted::script(std::string("rpcclt_tarnapiBestRouteEventRegisterVr: ") + row.answer);
    EXPECT_EQ(start(), -1);
    EXPECT_THAT(
        scripted::takeCalls(),
        ElementsAre(REGISTER, VRF_LOG + "Mirel: Failed to register as best route change client.", LOG + row.reason));
    EXPECT_EQ(brc_client_id, 0u);
    EXPECT_EQ(brc_sock_fd, -1);
    EXPECT_EQ(brc_client_keepalive_time, 0u);
  }
}

TEST_F(BestRouteClientTest, RegistrationStaysWhenTheSocketFails) {
  std::filesystem::create_directory("/tmp/rppi_brc.0070"); // what unlink() does not remove
  scripted::script("rpcclt_tarnapiBestRouteEventRegisterVr: 0 70");
  EXPECT_EQ(start(), -1);
  EXPECT_THAT(scripted::takeCalls(),
              ElementsAre(REGISTER,
                          "log 3 156 application/routing/mirel/core/mirel_router [VRF \"blue\"]: Failed to bind RPPI "
                          "client socket",
                          VRF_LOG + "Failed to create best route client socket."));
  EXPECT_EQ(brc_client_id, 70u);
  EXPECT_EQ(brc_sock_fd, -1);
  EXPECT_EQ(brc_client_keepalive_time, 0u);
}

TEST_F(BestRouteClientTest, Datagrams) {
  const struct {
    uint16_t type;
    uint32_t pendingBefore, keepAliveAfter, pendingAfter;
  } CASES[] = {{1, 0, 5000, 0}, {1, 1, 5000, 1}, {10, 0, 0, 1},    {10, 1, 0, 1},
               {0, 0, 0, 1},    {300, 0, 0, 1},  {65535, 0, 0, 1}, {257, 0, 0, 1}};
  for (const auto &row : CASES) {
    brc_client_keepalive_time = 0;
    bestRouteChangePending = row.pendingBefore;
    RppiEventMsg msg{};
    msg.msgType = row.type;
    mirelBestRouteMsgProcess(msg);
    EXPECT_EQ(brc_client_keepalive_time, row.keepAliveAfter) << row.type;
    EXPECT_EQ(bestRouteChangePending, row.pendingAfter) << row.type;
  }
  EXPECT_THAT(scripted::takeCalls(), IsEmpty());
}

TEST_F(BestRouteClientTest, TimeoutWithoutAClientDoesNothing) {
  brc_client_id = 7;
  EXPECT_EQ(mirelHandleBestRouteClientTimeout(mirelPid, &clientNameDesc), 0);
  EXPECT_THAT(scripted::takeCalls(), IsEmpty());
}

TEST_F(BestRouteClientTest, TimeoutEmptiesTheKernelBetweenTheTwoRegistrations) {
  shell("ip link add rt1 type veth peer name h1 && ip link set rt1 up");
  start();
  const int oldFd = brc_sock_fd;
  const UniqueFd keepsTheNumberTaken(fcntl(oldFd, F_DUPFD_CLOEXEC, 0));
  bestRouteChangePending = 1;
  scripted::takeCalls();
  scripted::clockSet(6000);
  scripted::script("rpcclt_tarnapiBestRouteEventRegisterVr: 0 8");
  EXPECT_EQ(mirelHandleBestRouteClientTimeout(mirelPid, &clientNameDesc), 0);
  shell("ip link del rt1");
  EXPECT_THAT(scripted::takeCalls(), ElementsAre("rpcclt_tarnapiBestRouteEventDeregister 7",
                                                 "osapiIfFlagChange rt1 1 0", "osapiIfFlagChange rt1 1 1", REGISTER));
  EXPECT_EQ(brc_client_id, 8u);
  EXPECT_TRUE(std::filesystem::is_socket("/tmp/rppi_brc.0008"));
  EXPECT_EQ(brc_client_keepalive_time, 6000u);
  EXPECT_EQ(bestRouteChangePending, 1u);
  // The descriptor of the old socket was given back before the new one was made.
  EXPECT_EQ(brc_sock_fd, oldFd);
}

TEST_F(BestRouteClientTest, TimeoutThatCannotRegisterAgain) {
  start();
  scripted::takeCalls();
  scripted::script("rpcclt_tarnapiBestRouteEventRegisterVr: -23");
  EXPECT_EQ(mirelHandleBestRouteClientTimeout(mirelPid, &clientNameDesc), -1);
  EXPECT_THAT(
      scripted::takeCalls(),
      ElementsAre("rpcclt_tarnapiBestRouteEventDeregister 7", REGISTER,
                  VRF_LOG + "Mirel: Failed to register as best route change client.", LOG + "Client list already full",
                  VRF_LOG +
                      "Registration failed for BestRouteClient following timeout! mypid = 4711, myName = mirel:3"));
  EXPECT_EQ(brc_sock_fd, -1);
}

} // namespace
