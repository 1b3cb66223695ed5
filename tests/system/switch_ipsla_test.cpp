// Outcomes of probes: what an agent reports, and what orrin shows of it.

#include "switch_fixture.h"

namespace {

class SwitchIpSla : public SwitchFixture {
protected:
  int32_t report(uint32_t id, uint32_t code, uint32_t msec, uint32_t usec, uint32_t vrf = VRF) {
    return rpcclt_tarnapiMirelProbeResultIpSlaNotify(client, vrf, id, code, msec, usec);
  }
};

TEST_F(SwitchIpSla, ReportsAreGathered) {
  orrin.run("vrf add 4 red interface vrfred");
  EXPECT_EQ(report(128, 1, 0, 4000000000), TARN_OK); // no round trip
  EXPECT_EQ(report(5, 0, 1, 1500), TARN_OK);
  EXPECT_EQ(report(5, 2, 4, 4001), TARN_OK);
  EXPECT_EQ(report(5, 0, 0, 500), TARN_OK);
  EXPECT_EQ(report(5, 1, 0, 900000), TARN_OK);
  EXPECT_EQ(report(5, 0, 0, 999, 4), TARN_OK);
  EXPECT_EQ(orrin.run("ipsla show vrf 3 json"),
            "[\n{\"vrf\":3,\"id\":5,\"target\":\"-\",\"code\":1,\"ms\":0,\"us\":900000,\"in-time\":2,\"failed\":1,\"late\":1,"
            "\"lowest-us\":500,\"mean-us\":2000,\"highest-us\":4001},\n"
            "{\"vrf\":3,\"id\":128,\"target\":\"-\",\"code\":1,\"ms\":0,\"us\":4000000000,\"in-time\":0,\"failed\":1,\"late\":0,"
            "\"lowest-us\":0,\"mean-us\":0,\"highest-us\":0}\n]\n");
  EXPECT_NE(orrin.run("ipsla show").find("\n4 "), std::string::npos);
}

TEST_F(SwitchIpSla, RefusedReports) {
  const struct {
    uint32_t vrf;
    uint32_t id;
    uint32_t code;
    int32_t result;
  } CASES[] = {
      {9, 5, 0, TARN_NOT_FOUND}, {VRF, 0, 0, TARN_INVALID}, {VRF, 129, 0, TARN_INVALID}, {VRF, 5, 3, TARN_INVALID}};
  for (const auto &row : CASES) {
    EXPECT_EQ(report(row.id, row.code, 0, 0, row.vrf), row.result) << row.vrf << " " << row.id << " " << row.code;
  }
  EXPECT_EQ(orrin.run("ipsla show json"), "[]\n");
}

} // namespace
