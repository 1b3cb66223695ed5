#include "core_test.h"
#include "mirel_router_table.h"

#include <cstring>
#include <net/if.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class RouterTableTest : public CoreTest {
protected:
  RouterTableTest() {
    mirelIntIfInfoAllocate();
    table.reset(mirelIntIfInfoTable.load());
  }
  ~RouterTableTest() override { mirelIntIfInfoTable = nullptr; }

  const MirelIntIfInfo &entry(uint32_t number) const { return table[number]; }

  std::unique_ptr<MirelIntIfInfo[]> table;
};

TEST_F(RouterTableTest, PopulateAsksThePlatformOfTheVrf) {
  scripted::script("rpcclt_tarnapiRtrIntfNameGet= 0 1/0/33\n"
                   "rpcclt_tarnapiRtrIntfIpStackStkNameGet= 0 lo\n"
                   "rpcclt_tarnapiRtrIntfIpStackIfNameGet= 0 sw33\n"
                   "rpcclt_tarnapiRtrIntfIpStackIfIndexGet= 0 77");
  EXPECT_EQ(mirelIntfParmsPopulate(1033), 0);
  EXPECT_THAT(scripted::takeCalls(), ElementsAre("rpcclt_tarnapiRtrIntfNameGet 1033 [60]",
                                                 "rpcclt_tarnapiRtrIntfIpStackStkNameGet 3 1033 [60]"));
  EXPECT_EQ(entry(1033).intIfNum, 1033u);
  EXPECT_STREQ(entry(1033).intfName, "1/0/33");
  EXPECT_STREQ(entry(1033).stkIfName, "lo");
  EXPECT_EQ(entry(1033).ipstkIfIndex, if_nametoindex("lo"));

  mirelVrfId = 0;
  EXPECT_EQ(mirelIntfParmsPopulate(1), 0);
  EXPECT_THAT(scripted::takeCalls(),
              ElementsAre("rpcclt_tarnapiRtrIntfNameGet 1 [60]", "rpcclt_tarnapiRtrIntfIpStackIfNameGet 1 [60]",
                          "rpcclt_tarnapiRtrIntfIpStackIfIndexGet 1"));
  EXPECT_STREQ(entry(1).stkIfName, "sw33");
  EXPECT_EQ(entry(1).ipstkIfIndex, 77u);
}

TEST_F(RouterTableTest, PopulateTracesWhatItRead) {
  scripted::script("rpcclt_tarnapiRtrIntfNameGet= 0 1/0/2\nrpcclt_tarnapiRtrIntfIpStackStkNameGet= 0 lo");
  mirelDebugFlags = 1;
  const std::string prefix = "[blue (VRF 3)]:mirelIntfParmsPopulate: ";
  EXPECT_EQ(printed([] { mirelIntfParmsPopulate(2); }),
            prefix + "\nParameters read from Tarn API.\n" + prefix + "intIfNum: 2\n" + prefix + "intfName: 1/0/2\n" +
                prefix + "stkIfName: lo\n" + prefix + "ipstkIfIndex: " + std::to_string(if_nametoindex("lo")) + "\n");
}

TEST_F(RouterTableTest, NumbersWithoutEntry) {
  mirelDebugFlags = 1;
  for (const uint32_t number : {0u, 1034u, 1035u, UINT32_MAX}) {
    EXPECT_EQ(printed([number] { EXPECT_EQ(mirelIntfParmsPopulate(number), 1); }),
              "[blue (VRF 3)]:mirelIntfParmsPopulate: Invalid intIfNum - " + std::to_string(number) + "\n");
    char name[INTF_NAME_LENGTH];
    uint32_t index;
    EXPECT_EQ(mirelIntIfInfoNameGet(number, name), 1);
    EXPECT_EQ(mirelIntIfInfoStkIfIndexGet(number, &index), 1);
    EXPECT_EQ(mirelIntIfInfoClear(number), 0);
  }
  EXPECT_THAT(scripted::takeCalls(), IsEmpty());
}

TEST_F(RouterTableTest, PopulateThatFails) {
  const struct {
    uint32_t vrfId;
    const char *script;
    int expected;
    const char *trace;
    uint32_t ifIndex;
  } CASES[] = {
      {3, "rpcclt_tarnapiRtrIntfNameGet: -26", 1, "Failed to get interface 5 name. Error -26\n", 9},
      {3, "rpcclt_tarnapiRtrIntfIpStackStkNameGet: -29", 1,
       "Failed to get Stack If Name for intIfNum 5 name. Error -29\n", 9},
      {3, "rpcclt_tarnapiRtrIntfIpStackStkNameGet: 0 nodevice", 0, "ioctl Failed\n", 0},
      {0, "rpcclt_tarnapiRtrIntfIpStackIfNameGet: -29", 1,
       "Failed to get Stack If Name for intIfNum 5 name. Error -29\n", 9},
      {0, "rpcclt_tarnapiRtrIntfIpStackIfIndexGet: -29", 0,
       "Failed to get IP stack interface index for interface 1/0/1\n", 9},
  };
  mirelDebugFlags = 1;
  for (const auto &row : CASES) {
    table[5] = {};
    table[5].ipstkIfIndex = 9;
    mirelVrfId = row.vrfId;
    scripted::script(row.script);
    const std::string trace = printed([&] { EXPECT_EQ(mirelIntfParmsPopulate(5), row.expected) << row.script; });
    const std::string first = "[blue (VRF " + std::to_string(row.vrfId) + ")]:mirelIntfParmsPopulate: " + row.trace;
    EXPECT_EQ(trace.substr(0, first.size()), first);
    EXPECT_EQ(entry(5).intIfNum, 5u) << row.script;
    EXPECT_EQ(entry(5).ipstkIfIndex, row.ifIndex) << row.script;
    EXPECT_TRUE(apiSemaphoreFree()) << row.script;
  }
}

TEST_F(RouterTableTest, PopulateHoldsTheSemaphoreThroughout) {
  bool free = false;
  scripted::observe([&free](const std::string &) { free = free || apiSemaphoreFree(); });
  EXPECT_EQ(mirelIntfParmsPopulate(5), 0);
  EXPECT_FALSE(free);
  EXPECT_TRUE(apiSemaphoreFree());
}

TEST_F(RouterTableTest, NamesWithoutNul) {
  const std::string longName(80, 'n');
  scripted::script("rpcclt_tarnapiRtrIntfNameGet= 0 " + longName + "\nrpcclt_tarnapiRtrIntfIpStackStkNameGet= 0 " +
                   longName);
  EXPECT_EQ(mirelIntfParmsPopulate(5), 0);
  EXPECT_EQ(entry(5).intfName, longName.substr(0, 60));
  EXPECT_EQ(entry(5).stkIfName, longName.substr(0, 60));
  char name[INTF_NAME_LENGTH];
  EXPECT_EQ(mirelIntIfInfoNameGet(5, name), 0);
  EXPECT_EQ(std::string(name, sizeof name), longName.substr(0, 60));
  char device[STK_IF_NAME_SIZE];
  EXPECT_EQ(mirelStkIfNameGet(5, device), 0);
  EXPECT_EQ(device, longName.substr(0, 16));
}

TEST_F(RouterTableTest, LookupByKernelIndex) {
  table[1].ipstkIfIndex = 5;
  table[2].ipstkIfIndex = 5;
  table[1033].ipstkIfIndex = 6;
  table[0].ipstkIfIndex = 8;
  table[1034].ipstkIfIndex = 8;
  const struct {
    uint32_t ifIndex;
    int result;
    uint32_t intIfNum;
  } CASES[] = {{5, 0, 1}, {6, 0, 1033}, {0, 0, 3}, {7, 1, 99}, {8, 1, 99}};
  for (const auto &row : CASES) {
    uint32_t intIfNum = 99;
    EXPECT_EQ(mirelIntIfNumFromStkIfIndex(row.ifIndex, &intIfNum), row.result) << row.ifIndex;
    EXPECT_EQ(intIfNum, row.intIfNum) << row.ifIndex;
  }
}

TEST_F(RouterTableTest, ClearEmptiesOneEntry) {
  mirelIntfParmsPopulate(5);
  mirelIntfParmsPopulate(6);
  EXPECT_EQ(mirelIntIfInfoClear(5), 0);
  const MirelIntIfInfo zero{};
  EXPECT_EQ(memcmp(&entry(5), &zero, sizeof zero), 0);
  EXPECT_EQ(entry(6).intIfNum, 6u);
}

TEST_F(RouterTableTest, Show) {
  scripted::script("rpcclt_tarnapiRtrIntfNameGet= 0 1/0/2\nrpcclt_tarnapiRtrIntfIpStackStkNameGet= 0 rt2");
  mirelIntfParmsPopulate(1033);
  table[1033].ipstkIfIndex = 12;
  EXPECT_EQ(printed([] { mirelIntIfInfoShow(1033, ShowForm::TEXT); }), "\n Interface : 1033\n"
                                                                       "interface name...............1/0/2\n"
                                                                       "stack intf index.............12\n"
                                                                       "stack intf name..............rt2\n"
                                                                       "\n-----------------------------\n");
  const std::string all = printed([] { mirelIntIfInfoShow(0, ShowForm::TEXT); });
  EXPECT_TRUE(all.starts_with("\n Interface(intIfNum) : 1\n"
                              "interface name...............\n"
                              "stack intf index.............0\n"
                              "Stack intf name..............\n"
                              "\n Interface(intIfNum) : 2\n"));
  EXPECT_TRUE(all.ends_with("\n Interface(intIfNum) : 1033\n"
                            "interface name...............1/0/2\n"
                            "stack intf index.............12\n"
                            "Stack intf name..............rt2\n"
                            "\n-----------------------------\n"));
}

TEST_F(RouterTableTest, WithoutATable) {
  mirelIntIfInfoTable = nullptr;
  char name[INTF_NAME_LENGTH];
  uint32_t number;
  EXPECT_EQ(mirelIntfParmsPopulate(5), 1);
  EXPECT_EQ(mirelIntIfInfoClear(5), 0);
  EXPECT_EQ(mirelIntIfInfoNameGet(5, name), 1);
  EXPECT_EQ(mirelIntIfInfoStkIfIndexGet(5, &number), 1);
  EXPECT_EQ(mirelIntIfNumFromStkIfIndex(0, &number), 1);
  EXPECT_THAT(printed([] { mirelIntIfInfoShow(5, ShowForm::TEXT); }),
              testing::EndsWith("\n-----------------------------\n"));
  EXPECT_THAT(printed([] { mirelIntIfInfoShow(0, ShowForm::TEXT); }),
              testing::EndsWith("\n-----------------------------\n"));
  EXPECT_THAT(scripted::takeCalls(), IsEmpty());
}

// The type is asked first; a failure at either call ends the lookup, with a log for the type and a trace for the name.
TEST_F(RouterTableTest, StackName) {
  const char TYPE[] = "rpcclt_tarnapiRtrIntfTypeGet 5";
  const char NAME[] = "rpcclt_tarnapiRtrIntfIpStackStkNameGet 3 5 [17]";
  const std::string log = "log 3 156 application/routing/mirel/core/mirel_router [VRF \"blue\"]: ";
  const struct {
    const char *script;
    int result;
    Lines calls;
    const char *trace;
  } CASES[] = {
      {"rpcclt_tarnapiRtrIntfTypeGet: 0 4", 0, {TYPE, NAME}, "rt1 is the stack interface name for interface 5\n"},
      {"rpcclt_tarnapiRtrIntfTypeGet: -26",
       1,
       {TYPE, log + "Failed to get the interface type of the interface 5."},
       nullptr},
      {"rpcclt_tarnapiRtrIntfTypeGet: 0 5",
       1,
       {TYPE, log + "Failed to get the stack interface name for the tunnel interface 5."},
       nullptr},
      {"rpcclt_tarnapiRtrIntfIpStackStkNameGet: -29",
       1,
       {TYPE, NAME},
       "Failed to get Stack intf Name for intIfNum 5. Error -29\n"},
  };
  mirelDebugFlags = 1;
  for (const auto &row : CASES) {
    scripted::script(row.script);
    char name[STK_IF_NAME_SIZE];
    const std::string trace = printed([&] { EXPECT_EQ(mirelStkIfNameGet(5, name), row.result); });
    EXPECT_EQ(scripted::takeCalls(), row.calls) << row.script;
    EXPECT_EQ(trace, row.trace == nullptr ? "" : std::string("[blue (VRF 3)]:mirelStkIfNameGet: ") + row.trace);
  }
  mirelVrfId = 0;
  char name[STK_IF_NAME_SIZE];
  printed([&] { mirelStkIfNameGet(5, name); });
  EXPECT_THAT(scripted::takeCalls(), ElementsAre(TYPE, "rpcclt_tarnapiRtrIntfIpStackStkNameGet 0 5 [17]"));
}

TEST_F(RouterTableTest, StackIndex) {
  const std::string log = "log 3 156 application/routing/mirel/core/mirel_router [VRF \"blue\"]: ";
  uint32_t ifIndex = 99;
  scripted::script("rpcclt_tarnapiRtrIntfIpStackStkNameGet: 0 nodevice");
  EXPECT_EQ(mirelStkIfIndexGet(5, &ifIndex), 1);
  EXPECT_EQ(scripted::takeCalls().back(), log + "Failed to get the stack ifIndex of the interface 5.");
  scripted::script("rpcclt_tarnapiRtrIntfTypeGet: -26");
  EXPECT_EQ(mirelStkIfIndexGet(5, &ifIndex), 1);
  EXPECT_EQ(scripted::takeCalls().back(), log + "Failed to get the stack interface name of the interface 5.");
  EXPECT_EQ(ifIndex, 99u);
  scripted::script("rpcclt_tarnapiRtrIntfIpStackStkNameGet: 0 lo");
  EXPECT_EQ(mirelStkIfIndexGet(5, &ifIndex), 0);
  EXPECT_EQ(ifIndex, if_nametoindex("lo"));
}

TEST_F(RouterTableTest, Flap) {
  const std::string log = "log 3 156 application/routing/mirel/core/mirel_router [VRF \"blue\"]: ";
  const char DOWN[] = "osapiIfFlagChange rt1 1 0";
  const char UP[] = "osapiIfFlagChange rt1 1 1";
  EXPECT_EQ(mirelIntfFlap("rt1"), 0);
  EXPECT_THAT(scripted::takeCalls(), ElementsAre(DOWN, UP));

  EXPECT_EQ(mirelIntfFlap(nullptr), 1);
  EXPECT_THAT(scripted::takeCalls(), ElementsAre(log + "Invalid interface! Failed to flap the interface."));

  uint32_t refused = 0;
  SCRIPTED_HOOK(osapiIfFlagChange, [&refused](const char *, uint32_t, uint32_t set) {
    errno = ENODEV;
    return set == refused ? 1 : 0;
  });
  const std::string reason = "the IFF_UP flag on the interface rt1. error:19 (No such device)";
  EXPECT_EQ(mirelIntfFlap("rt1"), 1);
  EXPECT_THAT(scripted::takeCalls(), ElementsAre(DOWN, log + "Failed to reset " + reason));
  refused = 1;
  EXPECT_EQ(mirelIntfFlap("rt1"), 1);
  EXPECT_THAT(scripted::takeCalls(), ElementsAre(DOWN, UP, log + "Failed to set " + reason));
}

} // namespace
