// A real orrin with VRF 3 and one interface, and calls of the client library as the agent makes them.
#pragma once

#include "orrin_process.h"
#include "tarnapi.h"

#include <gtest/gtest.h>
#include <string>
#include <unistd.h>
#include <utility>

inline constexpr uint32_t VRF = 3;

// A client name in a descriptor, its NUL counted.
struct ClientName {
  explicit ClientName(std::string name) : text(std::move(name)) {
    desc = {static_cast<uint32_t>(text.size() + 1), text.data()};
  }
  std::string text;
  tarn_buffdesc desc;
};

class SwitchFixture : public testing::Test {
protected:
  void SetUp() override {
    orrin.start();
    orrin.run("vrf add 3 blue interface vrfblue");
    orrin.run("vrf set 3 routing on");
    orrin.run("interface add 11 vrf 3 name 0/11 device rt1");
    rpcclt_rpc_failure_reset();
    ASSERT_EQ(tarnapiServiceClientRegister("mirel", 1, 2001, &client), TARN_OK);
    ASSERT_EQ(rpcclt_tarnapiConnectivityCheck(client), TARN_OK);
  }

  int32_t registerBestRoute(uint32_t &id, const std::string &name = "mirel:3", uint32_t vrf = VRF) {
    ClientName text(name);
    return rpcclt_tarnapiBestRouteEventRegisterVr(client, vrf, 1, static_cast<uint32_t>(getpid()), &text.desc, &id);
  }

  int32_t registerRouterEvent(uint32_t &id, const std::string &name = "mirel:3") {
    ClientName text(name);
    return rpcclt_tarnapiRouterEventRegister(client, 1, static_cast<uint32_t>(getpid()), VRF, &text.desc, &id);
  }

  OrrinProcess orrin;
  tarnapiClient *client = nullptr;
};
