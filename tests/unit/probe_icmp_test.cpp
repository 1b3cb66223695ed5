// ICMP messages as bytes, whole, cut and lying, and the arithmetic of probe times.

#include "vr_ipslaprobe_util_icmp.h"

#include <gtest/gtest.h>
#include <vector>

namespace {

using Octets = std::vector<uint8_t>;

TEST(ProbeIcmp, Checksum) {
  const struct {
    Octets message;
    uint16_t checksum;
  } CASES[] = {
      {{}, 0xffff},
      {{0x12}, 0xedff},
      {{0x00, 0x01, 0xf2, 0x03, 0xf4, 0xf5, 0xf6, 0xf7}, 0x220d},
      {{0x00, 0x01, 0xf2, 0x03, 0xf4, 0xf5, 0xf6, 0xf7, 0x80}, 0xa20c}, // the carry goes round
      {Octets(65535, 0xff), 0x00ff},
      {Octets(65534, 0xff), 0x0000},
  };
  for (const auto &row : CASES) {
    EXPECT_EQ(probePingInetChksum(row.message.data(), static_cast<uint32_t>(row.message.size())), row.checksum)
        << row.message.size();
  }
}

TEST(ProbeIcmp, Request) {
  Octets message(8 + 5, 0xaa);
  probeEchoRequestWrite(message, 256, 0xfffe);
  EXPECT_EQ(message, (Octets{8, 0, 0xf0, 0xfc, 1, 0, 0xff, 0xfe, 0, 1, 2, 3, 4}));
  for (const size_t payload : {size_t{0}, size_t{1}, size_t{257}, size_t{13001}, size_t{65507}}) {
    Octets sized(8 + payload);
    probeEchoRequestWrite(sized, 129, 7);
    EXPECT_EQ(probePingInetChksum(sized.data(), static_cast<uint32_t>(sized.size())), 0) << payload;
    if (payload > 0) {
      EXPECT_EQ(sized.back(), static_cast<uint8_t>(payload - 1)) << payload;
    }
  }
}

// A datagram of a 20-byte header, or one with options, and what an IP header's first byte may claim beyond it.
TEST(ProbeIcmp, CutAndLyingDatagrams) {
  for (const size_t headerSize : {size_t{20}, size_t{24}, size_t{60}}) {
    Octets whole(headerSize, 0);
    whole[0] = static_cast<uint8_t>(0x40 | headerSize / 4);
    whole[12] = 10;
    whole[15] = 9;
    whole.insert(whole.end(), {0, 0, 0, 0, 0, 129, 0xff, 0xff, 1, 2, 3});
    for (size_t length = 0; length <= whole.size(); ++length) {
      const Octets cut(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(length));
      IcmpMessage message{};
      ASSERT_EQ(probeIcmpParse(cut, message), length >= headerSize + 8) << headerSize << " " << length;
      if (length >= headerSize + 8) {
        EXPECT_EQ(message.source, 0x0a000009u);
        EXPECT_EQ(message.ident, 129);
        EXPECT_EQ(message.seqNum, 0xffff);
        EXPECT_EQ(message.payload.size(), length - headerSize - 8);
      }
    }
  }
  for (uint8_t words = 0; words < 5; ++words) {
    Octets small(100, 0);
    small[0] = static_cast<uint8_t>(0x40 | words);
    IcmpMessage message{};
    EXPECT_FALSE(probeIcmpParse(small, message)) << int{words};
  }
}

TEST(ProbeIcmp, QuotedRequest) {
  for (uint8_t words = 0; words < 16; ++words) {
    const size_t needed = size_t{4} * words + 8;
    for (size_t length = 0; length <= needed + 2; ++length) {
      Octets payload(length, 0);
      if (length > 0) {
        payload[0] = static_cast<uint8_t>(0x40 | words);
      }
      if (length >= needed && words > 0) {
        payload[needed - 4] = 1;
        payload[needed - 3] = 2;
      }
      uint16_t ident = 0;
      ASSERT_EQ(probeQuotedIdentGet(payload, ident), length >= needed) << int{words} << " " << length;
      EXPECT_EQ(ident, length >= needed && words > 0 ? 0x102 : 0) << int{words} << " " << length;
    }
  }
}

TEST(ProbeIcmp, ElapsedTime) {
  const struct {
    timeval later;
    timeval earlier;
    uint32_t usec;
  } CASES[] = {
      {{5, 0}, {5, 0}, 0},
      {{6, 1}, {5, 999999}, 2},
      {{4300, 0}, {5, 0}, 32704},   // modulo 2^32
      {{5, 0}, {5, 1}, UINT32_MAX}, // the clock was set back
      {{0x100000000, 3}, {0xffffffff, 1}, 1000002},
  };
  for (const auto &row : CASES) {
    uint32_t usec = 7;
    EXPECT_EQ(probeTimeUSecElapsed(row.later, row.earlier, &usec), 0u);
    EXPECT_EQ(usec, row.usec) << row.later.tv_sec;
  }
}

} // namespace
