#include "core_test.h"
#include "mirel_route_types.h"

namespace {

using testing::ElementsAre;
using testing::MatchesRegex;

class RouteTypesTest : public CoreTest {
protected:
  // Assigned identifiers outlive a registration: whatever the test before got, this one starts from 7.
  RouteTypesTest() {
    scripted::script("rpcclt_tarnapiRoutingProtocolRegister: 0 7");
    vrfRouteTypesRegister();
    scripted::takeCalls();
    rtoDebugMask = 15;
  }
};

TEST_F(RouteTypesTest, Registered) {
  scripted::script("rpcclt_tarnapiRoutingProtocolRegister: 0 12");
  EXPECT_THAT(printed([] { EXPECT_EQ(vrfRouteTypesRegister(), 0); }),
              MatchesRegex("\\[blue \\(VRF 3\\)\\]:vrfRouteTypesRegister:[0-9]+: "
                           "Successfully Registered Route Type for ProtoID - 12\n"));
  EXPECT_THAT(scripted::takeCalls(), ElementsAre("rpcclt_tarnapiRoutingProtocolRegister 3 1 kernel[7] K[2] 7",
                                                 "rpcclt_tarnapiRouteTypeRegister 1 12 Kernel[7] [1]"));
}

TEST_F(RouteTypesTest, ProtocolRefused) {
  scripted::script("rpcclt_tarnapiRoutingProtocolRegister: -24");
  EXPECT_THAT(
      printed([] { EXPECT_EQ(vrfRouteTypesRegister(), 1); }),
      MatchesRegex("\\[blue \\(VRF 3\\)\\]:vrfRouteTypesRegister:[0-9]+: Failure in registering ProtoID - kernel\n"));
  EXPECT_THAT(scripted::takeCalls(), ElementsAre("rpcclt_tarnapiRoutingProtocolRegister 3 1 kernel[7] K[2] 7"));
}

TEST_F(RouteTypesTest, RouteTypeRefused) {
  scripted::script("rpcclt_tarnapiRouteTypeRegister: -26");
  EXPECT_THAT(printed([] { EXPECT_EQ(vrfRouteTypesRegister(), 1); }),
              MatchesRegex("\\[blue \\(VRF 3\\)\\]:vrfRouteTypesRegister:[0-9]+: "
                           "Failure in registering RouteType - Kernel for ProtoID - 7\n"));
}

// Success and failure have a bit of the mask each.
TEST_F(RouteTypesTest, MaskBits) {
  rtoDebugMask = ~2u;
  EXPECT_EQ(printed([] { vrfRouteTypesRegister(); }), "");
  rtoDebugMask = ~8u;
  scripted::script("rpcclt_tarnapiRoutingProtocolRegister: -26\n");
  EXPECT_EQ(printed([] { vrfRouteTypesRegister(); }), "");
}

TEST_F(RouteTypesTest, UnderTheSemaphore) {
  bool free = false;
  scripted::observe([&free](const std::string &) { free = free || apiSemaphoreFree(); });
  printed([] { vrfRouteTypesRegister(); });
  EXPECT_FALSE(free);
  EXPECT_TRUE(apiSemaphoreFree());
}

} // namespace
