// Addresses, masks and next hops of the route code: text forms, the mask of a prefix length, the choice of the one next
// hop that the kernel gets, and the buffer of a next-hop list.
#pragma once

#include "tarnapi.h"

#include <cstddef>
#include <cstdint>

inline constexpr size_t ADDR_TEXT_SIZE = 46;   // INET6_ADDRSTRLEN
inline constexpr size_t PREFIX_TEXT_SIZE = 49; // an address, a slash and a length

// Text of the address into text (ADDR_TEXT_SIZE bytes). Returns text, or null for an unknown family.
const char *mirelAddrToStr(const InetAddr *addr, char *text);

// Text of the prefix, "10.0.0.0/8 ": the length is left-aligned in two columns. text holds PREFIX_TEXT_SIZE bytes.
// Returns text, or null for an unknown family.
const char *mirelPrefixToStr(const InetAddr *addr, uint32_t prefixLen, char *text);

// IPv4 mask in host byte order of a prefix length 0 to 32. A longer one is traced and gives the number 32.
uint32_t pfxLenToMask(uint32_t prefixLen);

// The next hop with the numerically lowest IPv4 address, the first among equals; its address (host byte order) and
// interface number go to the outputs. A count of 0 is read as entry 0. Returns the entry, or null for a null list.
const NextHopRecord *mirelNextHopSelect(uint32_t count, const NextHopRecord *nextHops, uint32_t *addr,
                                        uint32_t *intIfNum);

// Storage for 32 NextHopRecord entries, cleared; the caller frees it. Returns the size in the descriptor, 1152 or 0.
uint32_t nextHopListBuffDescStorageAllocate(tarn_buffdesc *descriptor);

void nextHopListBuffDescStorageFree(tarn_buffdesc *descriptor);
