// Address and next-hop helpers of the route code. No state, any thread.

#include "mirel_address.h"

#include "mirel_trace.h"

#include <arpa/inet.h>
#include <cstdio>
#include <new>

namespace {

constexpr uint32_t IPV4_BITS = 32;
constexpr size_t NEXT_HOP_LIST_ENTRIES = 32;
constexpr uint32_t NEXT_HOP_LIST_SIZE = NEXT_HOP_LIST_ENTRIES * sizeof(NextHopRecord);
static_assert(NEXT_HOP_LIST_SIZE == 1152);
static_assert(ADDR_TEXT_SIZE == INET6_ADDRSTRLEN);

} // namespace

const char *mirelAddrToStr(const InetAddr *addr, char *text) {
  if (addr->family == TARN_FAMILY_IPV4) {
    const uint32_t networkOrder = htonl(addr->ipv4);
    return inet_ntop(AF_INET, &networkOrder, text, ADDR_TEXT_SIZE);
  }
  if (addr->family == TARN_FAMILY_IPV6) {
    return inet_ntop(AF_INET6, addr->ipv6, text, ADDR_TEXT_SIZE);
  }
  return nullptr;
}

const char *mirelPrefixToStr(const InetAddr *addr, uint32_t prefixLen, char *text) {
  char address[ADDR_TEXT_SIZE];
  if (mirelAddrToStr(addr, address) == nullptr) {
    return nullptr;
  }
  // A length of more than two digits belongs to no prefix; its text may be cut.
  return snprintf(text, PREFIX_TEXT_SIZE, "%s/%-2u", address, prefixLen) > 0 ? text : nullptr;
}

uint32_t pfxLenToMask(uint32_t prefixLen) {
  if (prefixLen == 0) {
    return 0;
  }
  if (prefixLen > IPV4_BITS) {
    MIREL_TRACE(TRACE_GENERAL, "pfxLenToMask", "Invalid prefix length %u\n", prefixLen);
    return IPV4_BITS;
  }
  return UINT32_MAX << (IPV4_BITS - prefixLen);
}

const NextHopRecord *mirelNextHopSelect(uint32_t count, const NextHopRecord *nextHops, uint32_t *addr,
                                        uint32_t *intIfNum) {
  if (nextHops == nullptr) {
    return nullptr;
  }
  const NextHopRecord *best = nextHops;
  for (uint32_t i = 1; i < count; ++i) {
    if (nextHops[i].addr.ipv4 < best->addr.ipv4) {
      best = &nextHops[i];
    }
  }
  *addr = best->addr.ipv4;
  *intIfNum = best->intIfNum;
  return best;
}

uint32_t nextHopListBuffDescStorageAllocate(tarn_buffdesc *descriptor) {
  descriptor->size = NEXT_HOP_LIST_SIZE;
  descriptor->pstart = new (std::nothrow) char[NEXT_HOP_LIST_SIZE]{};
  if (descriptor->pstart == nullptr) {
    MIREL_TRACE(TRACE_GENERAL, "nextHopListBuffDescStorageAllocate",
                "Failed to allocate storage for next hop tarn_buffdesc.\n");
    descriptor->size = 0;
  }
  return descriptor->size;
}

void nextHopListBuffDescStorageFree(tarn_buffdesc *descriptor) {
  delete[] descriptor->pstart;
  *descriptor = {};
}
