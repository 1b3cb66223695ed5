// ICMP echo messages: written, taken apart, summed up. Lengths and offsets in what was received are only believed as far
// as there are bytes.

#include "vr_ipslaprobe_util_icmp.h"

#include <cstddef>
#include <netinet/in.h>
#include <netinet/ip.h>
#include <netinet/ip_icmp.h>

namespace {

constexpr size_t IP_HEADER_MIN = 20;
constexpr size_t IP_SOURCE_AT = 12;
constexpr size_t CHECKSUM_AT = 2;
constexpr size_t IDENT_AT = 4;
constexpr size_t SEQUENCE_AT = 6;
constexpr uint32_t USEC_PER_SEC = 1000000;

uint16_t readBe16(const uint8_t *at) {
  return static_cast<uint16_t>(at[0] << 8 | at[1]);
}

uint32_t readBe32(const uint8_t *at) {
  return static_cast<uint32_t>(readBe16(at)) << 16 | readBe16(at + 2);
}

void writeBe16(uint8_t *at, uint16_t value) {
  at[0] = static_cast<uint8_t>(value >> 8);
  at[1] = static_cast<uint8_t>(value);
}

size_t ipHeaderSize(uint8_t firstByte) {
  return size_t{4} * (firstByte & 0xf);
}

} // namespace

uint16_t probePingInetChksum(const uint8_t *message, uint32_t length) {
  uint32_t sum = 0; // at most 32768 words: no overflow
  uint32_t at = 0;
  for (; at + 1 < length; at += 2) {
    sum += readBe16(message + at);
  }
  if (at < length) {
    sum += static_cast<uint32_t>(message[at]) << 8;
  }
  sum = (sum >> 16) + (sum & 0xffff);
  sum += sum >> 16;
  return static_cast<uint16_t>(~sum);
}

void probeEchoRequestWrite(std::span<uint8_t> message, uint16_t icmpIdent, uint16_t seqNum) {
  message[0] = ICMP_ECHO;
  message[1] = 0;
  writeBe16(&message[CHECKSUM_AT], 0);
  writeBe16(&message[IDENT_AT], icmpIdent);
  writeBe16(&message[SEQUENCE_AT], seqNum);
  uint8_t value = 0;
  for (uint8_t &byte : message.subspan(ICMP_HEADER_SIZE)) {
    byte = value++;
  }
  writeBe16(&message[CHECKSUM_AT], probePingInetChksum(message.data(), static_cast<uint32_t>(message.size())));
}

bool probeIcmpParse(std::span<const uint8_t> datagram, IcmpMessage &message) {
  if (datagram.size() < IP_HEADER_MIN) {
    return false;
  }
  const size_t headerSize = ipHeaderSize(datagram[0]);
  if (headerSize < IP_HEADER_MIN || datagram.size() < headerSize + ICMP_HEADER_SIZE) {
    return false;
  }
  const std::span<const uint8_t> icmp = datagram.subspan(headerSize);
  message = {
      .source = readBe32(&datagram[IP_SOURCE_AT]),
      .type = icmp[0],
      .ident = readBe16(&icmp[IDENT_AT]),
      .seqNum = readBe16(&icmp[SEQUENCE_AT]),
      .payload = icmp.subspan(ICMP_HEADER_SIZE),
  };
  return true;
}

bool probeQuotedIdentGet(std::span<const uint8_t> payload, uint16_t &icmpIdent) {
  if (payload.empty()) {
    return false;
  }
  const size_t headerSize = ipHeaderSize(payload[0]);
  if (payload.size() < headerSize + ICMP_HEADER_SIZE) {
    return false;
  }
  icmpIdent = readBe16(&payload[headerSize + IDENT_AT]);
  return true;
}

bool probeEchoRequestQuoted(std::span<const uint8_t> payload) {
  const size_t headerSize = payload.empty() ? 0 : ipHeaderSize(payload[0]);
  return headerSize >= sizeof(iphdr) && payload.size() > headerSize &&
         payload[offsetof(iphdr, protocol)] == IPPROTO_ICMP && payload[headerSize] == ICMP_ECHO;
}

uint32_t probeTimeUSecElapsed(const timeval &later, const timeval &earlier, uint32_t *elapsedUsec) {
  *elapsedUsec = (static_cast<uint32_t>(later.tv_sec) - static_cast<uint32_t>(earlier.tv_sec)) * USEC_PER_SEC +
                 static_cast<uint32_t>(later.tv_usec) - static_cast<uint32_t>(earlier.tv_usec);
  return 0;
}
