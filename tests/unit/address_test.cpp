#include "core_test.h"
#include "mirel_address.h"

#include <arpa/inet.h>

namespace {

InetAddr address(const char *text) {
  InetAddr addr{};
  in_addr v4;
  if (inet_pton(AF_INET, text, &v4) == 1) {
    addr.family = TARN_FAMILY_IPV4;
    addr.ipv4 = ntohl(v4.s_addr);
  } else if (inet_pton(AF_INET6, text, addr.ipv6) == 1) {
    addr.family = TARN_FAMILY_IPV6;
  }
  return addr;
}

class AddressTest : public CoreTest {};

TEST_F(AddressTest, PrefixText) {
  const struct {
    const char *addr;
    uint32_t length;
    const char *expected;
  } CASES[] = {
      {"10.0.0.0", 8, "10.0.0.0/8 "},
      {"10.0.0.0", 24, "10.0.0.0/24"},
      {"0.0.0.0", 0, "0.0.0.0/0 "},
      {"2001:db8::", 32, "2001:db8::/32"},
      {"ffff:ffff:ffff:ffff:ffff:ffff:255.255.255.255", 128, "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff/128"},
  };
  for (const auto &row : CASES) {
    const InetAddr addr = address(row.addr);
    char text[PREFIX_TEXT_SIZE];
    EXPECT_STREQ(mirelPrefixToStr(&addr, row.length, text), row.expected);
  }
}

TEST_F(AddressTest, UnknownFamilyHasNoText) {
  for (const uint32_t family : {0u, 3u, 10u}) {
    InetAddr addr{};
    addr.family = family;
    char text[PREFIX_TEXT_SIZE];
    EXPECT_EQ(mirelAddrToStr(&addr, text), nullptr) << family;
    EXPECT_EQ(mirelPrefixToStr(&addr, 8, text), nullptr) << family;
  }
}

TEST_F(AddressTest, MaskOfLength) {
  const struct {
    uint32_t length, mask;
  } CASES[] = {{0, 0},           {1, 0x80000000}, {24, 0xffffff00}, {31, 0xfffffffe},
               {32, 0xffffffff}, {33, 32},        {255, 32},        {UINT32_MAX, 32}};
  for (const auto &row : CASES) {
    EXPECT_EQ(pfxLenToMask(row.length), row.mask) << row.length;
  }
  mirelDebugFlags = 1;
  EXPECT_EQ(printed([] { pfxLenToMask(33); }), "[blue (VRF 3)]:pfxLenToMask: Invalid prefix length 33\n");
}

TEST_F(AddressTest, NextHopSelect) {
  struct Hop {
    const char *addr;
    uint32_t intIfNum;
  };
  const struct {
    std::vector<Hop> hops;
    uint32_t count;
    size_t chosen;
  } CASES[] = {
      {{{"10.0.0.9", 5}, {"10.0.0.3", 6}, {"10.0.0.3", 7}}, 3, 1},
      {{{"10.0.0.3", 5}, {"10.0.0.2", 6}, {"10.0.0.1", 7}}, 2, 1},
      {{{"200.0.0.1", 5}, {"10.0.0.1", 6}}, 2, 1}, // as unsigned numbers
      {{{"10.0.0.9", 5}, {"10.0.0.3", 6}}, 1, 0},
      {{{"10.0.0.9", 5}, {"10.0.0.3", 6}}, 0, 0},
      {{{"10.0.0.9", 5}, {"0.0.0.0", 6}}, 2, 1},
  };
  for (const auto &row : CASES) {
    std::vector<NextHopRecord> hops;
    for (const Hop &hop : row.hops) {
      hops.push_back({.addr = address(hop.addr), .intIfNum = hop.intIfNum, .reserved24 = {}});
    }
    uint32_t addr = 0;
    uint32_t intIfNum = 0;
    EXPECT_EQ(mirelNextHopSelect(row.count, hops.data(), &addr, &intIfNum), &hops[row.chosen]);
    EXPECT_EQ(addr, hops[row.chosen].addr.ipv4);
    EXPECT_EQ(intIfNum, hops[row.chosen].intIfNum);
  }
  uint32_t addr = 1;
  uint32_t intIfNum = 2;
  EXPECT_EQ(mirelNextHopSelect(3, nullptr, &addr, &intIfNum), nullptr);
}

TEST_F(AddressTest, NextHopListStorage) {
  tarn_buffdesc list{.size = 1, .pstart = nullptr};
  EXPECT_EQ(nextHopListBuffDescStorageAllocate(&list), 1152u);
  EXPECT_EQ(list.size, 1152u);
  EXPECT_THAT(std::string(list.pstart, list.size), testing::Each('\0'));
  nextHopListBuffDescStorageFree(&list);
  EXPECT_EQ(list.size, 0u);
  EXPECT_EQ(list.pstart, nullptr);
}

} // namespace
