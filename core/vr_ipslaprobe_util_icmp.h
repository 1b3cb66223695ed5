// ICMP echo messages as bytes, and the arithmetic of probe times. No state, any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <sys/time.h>

inline constexpr size_t ICMP_HEADER_SIZE = 8;
inline constexpr size_t IP_HEADER_MAX = 60;

// The Internet checksum of a message, in host byte order.
uint16_t probePingInetChksum(const uint8_t *message, uint32_t length);

// Writes an echo request over the whole of the message, which has room for its header at least.
void probeEchoRequestWrite(std::span<uint8_t> message, uint16_t icmpIdent, uint16_t seqNum);

// The ICMP message of a datagram as a raw socket gives it.
struct IcmpMessage {
  uint32_t source; // host byte order
  uint8_t type;
  uint16_t ident;  // of an echo reply
  uint16_t seqNum; // of an echo reply
  std::span<const uint8_t> payload;
};

// Takes the datagram apart; false when it is shorter than its headers.
bool probeIcmpParse(std::span<const uint8_t> datagram, IcmpMessage &message);

// The identifier of the echo request that an unreachable's payload quotes; false when it is too short to tell.
bool probeQuotedIdentGet(std::span<const uint8_t> payload, uint16_t &icmpIdent);

// Whether it is an echo request that it quotes: the lengths and sequence numbers of other protocols stand where an echo has its
// identifier.
bool probeEchoRequestQuoted(std::span<const uint8_t> payload);

// Microseconds from the earlier to the later time, modulo 2^32; always 0.
uint32_t probeTimeUSecElapsed(const timeval &later, const timeval &earlier, uint32_t *elapsedUsec);
