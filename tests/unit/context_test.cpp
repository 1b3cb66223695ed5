#include "core_test.h"
#include "kernel_setting.h"
#include "mirel_restart.h"

#include <filesystem>
#include <fstream>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class ContextTest : public CoreTest {};

TEST_F(ContextTest, ClockIsTheMonotonicOneInThirtyTwoBits) {
  scripted::clockSet(1234);
  EXPECT_EQ(currentGetTime(), 1234u);
  scripted::clockSet((uint64_t{1} << 32) + 5);
  EXPECT_EQ(currentGetTime(), 5u);
}

TEST_F(ContextTest, EventsAreCountedUpToType300) {
  for (const uint32_t type : {0u, 10u, 10u, 300u, 301u, 65535u, UINT32_MAX}) {
    mirelEventCountIncrement(type);
  }
  EXPECT_EQ(statsHandle.eventCount[0], 1u);
  EXPECT_EQ(statsHandle.eventCount[10], 2u);
  EXPECT_EQ(statsHandle.eventCount[300], 1u);
}

TEST_F(ContextTest, VrfIdDiffers) {
  EXPECT_EQ(mirelVrfIdGet(), 3u);
  EXPECT_EQ(mirelVrfIdDiffers(3), 0);
  EXPECT_EQ(mirelVrfIdDiffers(0), 1);
}

TEST_F(ContextTest, KernelSettingsAreRaisedOrWrittenButNeverMade) {
  const std::string path = "/tmp/setting";
  const auto text = [&] {
    std::ifstream file(path);
    return std::string(std::istreambuf_iterator<char>(file), {});
  };
  kernelSettingRaise(path.c_str(), 5);
  EXPECT_NE(mirelProcFileWrite(path.c_str(), "5"), 0);
  EXPECT_FALSE(std::filesystem::exists(path));
  const struct {
    const char *before, *raised;
  } CASES[] = {{"4\n", "5\n"}, {"5\n", "5\n"}, {"1024\n", "1024\n"}, {"max\n", "max\n"}};
  for (const auto &row : CASES) {
    std::ofstream(path) << row.before;
    kernelSettingRaise(path.c_str(), 5);
    EXPECT_EQ(text(), row.raised) << row.before;
  }
  EXPECT_EQ(mirelProcFileWrite(path.c_str(), "2000"), 0);
  EXPECT_EQ(text().substr(0, 4), "2000");
}

TEST_F(ContextTest, SyncDbEventIsOnlyPrinted) {
  EXPECT_EQ(printed(mirelSyncDbCfgChangeHandle),
            "[blue (VRF 3)]:mirelSyncDbCfgChangeHandle: Received a syncDb event\n");
}

TEST_F(ContextTest, RestartStatusGet) {
  const struct {
    const char *answer;
    int expected;
    const char *trace;
  } CASES[] = {
      {"syncdbGet: 0 0", 0, "Mirel Restart Status for VRF Id - 3 is 0\n"},
      {"syncdbGet: 0 1", 1, "Mirel Restart Status for VRF Id - 3 is 1\n"},
      {"syncdbGet: 1", 1, "Failed to get the Restart Status from SyncDB for VRF Id - 3\n"},
  };
  mirelDebugFlags = 1;
  for (const auto &row : CASES) {
    scripted::script(row.answer);
    int status = -1;
    EXPECT_EQ(printed([&] { status = mirelRestartStatusGet(); }),
              std::string("[blue (VRF 3)]:mirelRestartStatusGet: ") + row.trace);
    EXPECT_EQ(status, row.expected);
  }
}

TEST_F(ContextTest, RestartStatusSet) {
  const char READ[] = "syncdbGet Mirel Restart State-3 1 0";
  const char WRITE[] = "syncdbSet Mirel Restart State-3 1 1";
  const struct {
    const char *answers;
    int expected;
    Lines calls;
  } CASES[] = {
      {"syncdbGet: 0 0", 0, {READ, WRITE}},
      {"syncdbGet: 0 1", 0, {READ}},
      {"syncdbGet: 1", 1, {READ}},
      {"syncdbGet: 0 0\nsyncdbSet: 1", 1, {READ, WRITE}},
  };
  for (const auto &row : CASES) {
    scripted::script(row.answers);
    EXPECT_EQ(mirelRestartStatusSet(99, &syncdbClient, 1), row.expected) << row.answers;
    EXPECT_EQ(scripted::takeCalls(), row.calls) << row.answers;
  }
}

TEST_F(ContextTest, RestartRecordOfTheLargestVrf) {
  mirelVrfId = UINT32_MAX;
  mirelRestartStatusGet();
  EXPECT_THAT(scripted::takeCalls(), ElementsAre("syncdbGet Mirel Restart State-4294967295 1 0"));
}

} // namespace
