// What the tests of the agent's own sources share: VRF 3, "blue", on the scripted platform.
#ifndef MIREL_TESTS_CORE_TEST_H
#define MIREL_TESTS_CORE_TEST_H

#include "mirel_context.h"
#include "scripted.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <thread>

using Lines = std::vector<std::string>;

inline constexpr uint32_t ipv4(uint32_t a, uint32_t b, uint32_t c, uint32_t d) {
  return a << 24 | b << 16 | c << 8 | d;
}

// Whether another thread could take the API semaphore now.
inline bool apiSemaphoreFree() {
  bool free = false;
  std::thread([&free] {
    free = osapiSemaTake(mirelApiSema, QV_NO_WAIT) == 0;
    if (free) {
      osapiSemaGive(mirelApiSema);
    }
  }).join();
  return free;
}

class CoreTest : public testing::Test {
protected:
  CoreTest() {
    scripted::reset();
    tarnapiServiceClientRegister("test", 1, 1, &tarnapiClientHandle);
    mirelApiSema = osapiSemaMCreateTrack("", 0, 0);
    mirelVrfId = 3;
    snprintf(mirelVrfName, sizeof mirelVrfName, "blue");
    mirelPid = 4711;
    clientNameDesc = {.size = sizeof clientName, .pstart = clientName};
    routeNetlinkSock.fd = 100;
    brc_sock_fd = -1;
    brc_client_id = 7;
    rppi_evnt_client_id = 0;
    brc_client_keepalive_time = 0;
    bestRouteChangePending = 0;
    mirelBestRoutePollTime = 10;
    mirelBestRouteApplyTime = 1;
    mirelDebugFlags = 0;
    rtoDebugMask = 0;
    statsHandle = MirelStats{};
    scripted::takeCalls();
  }
  ~CoreTest() override {
    scripted::reset();
    osapiSemaDelete(mirelApiSema);
    mirelApiSema = nullptr;
  }

  // What the agent prints meanwhile.
  template <class Action> static std::string printed(Action action) {
    testing::internal::CaptureStdout();
    action();
    fflush(stdout);
    return testing::internal::GetCapturedStdout();
  }

  // The recorded calls but for the readiness query that goes before every kernel route call.
  static Lines callsButReadiness() {
    Lines calls = scripted::takeCalls();
    std::erase(calls, "tarnapiSystemReadyStateGet");
    return calls;
  }

private:
  char clientName[sizeof "mirel:3"] = "mirel:3";
};

#endif
