// Event names, and the sockets on which events arrive.

#include "core_test.h"
#include "mirel_router_event.h"
#include "unique_fd.h"

#include <fcntl.h>
#include <filesystem>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class RouterEventTest : public CoreTest {};

TEST_F(RouterEventTest, Names) {
  const struct {
    uint32_t type;
    const char *name;
  } CASES[] = {
      {0, "UNKNOWN"},
      {1, "KEEPALIVE"},
      {2, "UNKNOWN"},
      {10, "BEST ROUTE CHANGE"},
      {101, "IPv4 ROUTING ENABLE"},
      {102, "IPv4 ROUTING DISABLE"},
      {103, "STARTUP DONE"},
      {104, "INTERFACE CREATE"},
      {105, "INTERFACE DELETE"},
      {106, "INTERFACE IPv4 ENABLE"},
      {107, "INTERFACE IPv4 ENABLE PENDING"},
      {108, "INTERFACE IPv4 DISABLE"},
      {109, "INTERFACE IPv4 DISABLE PENDING"},
      {110, "IPv4 ADDRESS CHANGE"},
      {111, "IPv4 MTU CHANGE"},
      {112, "BANDWIDTH CHANGE"},
      {113, "HOST INTERFACE FOR IPv4"},
      {114, "INTERFACE CONFIG CHANGE"},
      {115, "UNKNOWN"},
      {200, "UNKNOWN"},
      {201, "IPv6 ROUTING ENABLE"},
      {202, "IPv6 ROUTING DISABLE"},
      {203, "IPv6 STARTUP DONE"},
      {204, "IPv6 INTERFACE CREATE"},
      {205, "IPv6 INTERFACE DELETE"},
      {206, "INTERFACE IPv6 ENABLE"},
      {207, "INTERFACE IPv6 DISABLE"},
      {208, "IPv6 ADDRESS CHANGE"},
      {209, "IPv6 MTU CHANGE"},
      {210, "IPv6 BANDWIDTH CHANGE"},
      {211, "HOST INTERFACE FOR IPv6"},
      {212, "UNKNOWN"},
      {300, "POLICY CHANGE"},
      {301, "UNKNOWN"},
      {UINT32_MAX, "UNKNOWN"},
  };
  for (const auto &row : CASES) {
    EXPECT_STREQ(mirelRouterEventNameGet(row.type), row.name) << row.type;
  }
}

TEST_F(RouterEventTest, SocketPaths) {
  const struct {
    const char *format;
    uint32_t clientId;
    const char *path;
  } CASES[] = {
      {"/tmp/rppi_rec.%04u", 7, "/tmp/rppi_rec.0007"},
      {"/tmp/rppi_brc.%04u", 12345, "/tmp/rppi_brc.12345"},
      {"/tmp/rppi_brc.%04u", UINT32_MAX, "/tmp/rppi_brc.4294967295"},
  };
  for (const auto &row : CASES) {
    Relaxed<int> fd = -1;
    ASSERT_EQ(mirelCreateRppiSock(row.format, row.clientId, &fd), 0);
    const UniqueFd owner(fd);
    EXPECT_TRUE(std::filesystem::is_socket(row.path));
    sockaddr_un local{};
    socklen_t length = sizeof local;
    ASSERT_EQ(getsockname(fd, reinterpret_cast<sockaddr *>(&local), &length), 0);
    EXPECT_STREQ(local.sun_path, row.path);
    int type = 0;
    length = sizeof type;
    getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &length);
    EXPECT_EQ(type, SOCK_DGRAM);
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(fcntl(fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
  }
}

TEST_F(RouterEventTest, SocketAsksForItsReceiveBuffer) {
  Relaxed<int> fd = -1;
  ASSERT_EQ(mirelCreateRppiSock("/tmp/rppi_rec.%04u", 7, &fd), 0);
  const UniqueFd owner(fd);
  const UniqueFd other(socket(AF_UNIX, SOCK_DGRAM, 0));
  const int asked = 0x80000;
  setsockopt(other.get(), SOL_SOCKET, SO_RCVBUF, &asked, sizeof asked); // the kernel may grant less
  int got = 0;
  int expected = 0;
  socklen_t length = sizeof got;
  getsockopt(fd, SOL_SOCKET, SO_RCVBUF, &got, &length);
  getsockopt(other.get(), SOL_SOCKET, SO_RCVBUF, &expected, &length);
  EXPECT_EQ(got, expected);
}

TEST_F(RouterEventTest, SocketTakesThePlaceOfOneLeftBehind) {
  Relaxed<int> left = -1;
  ASSERT_EQ(mirelCreateRppiSock("/tmp/rppi_rec.%04u", 8, &left), 0);
  const UniqueFd leftOwner(left);
  Relaxed<int> fd = -1;
  EXPECT_EQ(mirelCreateRppiSock("/tmp/rppi_rec.%04u", 8, &fd), 0);
  const UniqueFd owner(fd);
  EXPECT_THAT(scripted::takeCalls(), IsEmpty());
}

TEST_F(RouterEventTest, SocketThatCannotBeHad) {
  const std::string log = "log 3 156 application/routing/mirel/core/mirel_router [VRF \"blue\"]: ";
  EXPECT_EQ(mirelCreateRppiSock("/tmp/rppi_rec.%04u", 9, nullptr), -1);
  EXPECT_THAT(scripted::takeCalls(), ElementsAre(log + "NULL fd for RPPI client socket"));

  Relaxed<int> fd = 55;
  EXPECT_EQ(mirelCreateRppiSock("/tmp/nofolder/rppi_rec.%04u", 9, &fd), -1);
  EXPECT_THAT(scripted::takeCalls(), ElementsAre(log + "Failed to bind RPPI client socket"));

  rlimit files;
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &files), 0);
  const rlimit none{.rlim_cur = 0, .rlim_max = files.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
  EXPECT_EQ(mirelCreateRppiSock("/tmp/rppi_rec.%04u", 9, &fd), -1);
  setrlimit(RLIMIT_NOFILE, &files);
  EXPECT_THAT(scripted::takeCalls(), ElementsAre(log + "Failed to create RPPI client socket"));
  EXPECT_EQ(fd, 55);
}

// A failed creation must not leave its descriptor open: the next socket gets the same number.
TEST_F(RouterEventTest, FailedBindLeavesNoDescriptor) {
  const UniqueFd before(socket(AF_UNIX, SOCK_DGRAM, 0));
  const int free = dup(before.get());
  close(free);
  Relaxed<int> fd = -1;
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(mirelCreateRppiSock("/tmp/nofolder/rppi_rec.%04u", 9, &fd), -1);
  }
  const UniqueFd after(dup(before.get()));
  EXPECT_EQ(after.get(), free);
}

} // namespace
