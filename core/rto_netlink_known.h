// The foreign routes that RTO has answered for: what a resync compares the kernel's table with. An open-addressing hash
// table of 24-byte records, filled to between 3/4 and 7/8, so that a route costs at most 32 bytes. Route task's thread.
#pragma once

#include "rto_netlink.h"

#include <cstddef>
#include <cstdint>

// Flags of a record. EXT_ROUTE_DISCARD and EXT_ROUTE_REJECT are flags of a record too.
enum RtoKnownFlag : uint8_t {
  RTO_KNOWN_USED = 0x01,
  RTO_KNOWN_IPV6 = 0x02,
  RTO_KNOWN_HELD = 0x04,    // RTO holds a route of this key, or may hold one
  RTO_KNOWN_PENDING = 0x20, // the last report failed
  RTO_KNOWN_SEEN = 0x40,    // in the kernel, or notified, since the resync began
  RTO_KNOWN_GONE = 0x80,    // withdrawn since the resync began: the dump may still show it
};

// One route. RTO files a route under prefix, length and metric; the rest is what was reported of it.
struct RtoKnownRoute {
  uint64_t key[2];   // IPv6 address; or IPv4 metric and address
  uint32_t gateway;  // IPv4 address, host byte order; a digest of an IPv6 address
  uint16_t intIfNum; // lower half: the agent serves numbers up to MIREL_INT_IF_NUM_MAX
  uint8_t prefixLen;
  uint8_t flags; // RtoKnownFlag; 0 = free slot

  bool is(uint8_t flag) const { return (flags & flag) != 0; }
  void set(uint8_t flag) { flags = static_cast<uint8_t>(flags | flag); }
  void clear(uint8_t flag) { flags = static_cast<uint8_t>(flags & ~flag); }
  bool sameKey(const RtoKnownRoute &other) const;
  bool sameContent(const RtoKnownRoute &other) const; // next hop and kind

  // The route to withdraw, of the family that the flags say. An IPv6 one is without next hop.
  ExtRoute ipv4() const;
  ExtRoute6 ipv6() const;
};
static_assert(sizeof(RtoKnownRoute) == 24 && MIREL_INT_IF_NUM_MAX <= UINT16_MAX);

// The record of a route as reported, with RTO_KNOWN_USED, its family and its kind as flags.
RtoKnownRoute rtoKnownOf(const ExtRoute &route);
RtoKnownRoute rtoKnownOf(const ExtRoute6 &route);

// Pointers into the table are valid until the next call of rtoKnownPlace() or rtoKnownErase().
class RtoKnownTable {
public:
  // The record of the key, or null.
  RtoKnownRoute *find(const RtoKnownRoute &key) const;

  // Stores a record, in the place of that of its key if there is one. False without memory: the route is not recorded.
  bool place(const RtoKnownRoute &record);

  // Removes a record. Others may change their slots.
  void erase(RtoKnownRoute *record);

  // Walk over slots 0 to capacity() - 1; those with flags 0 are free.
  size_t capacity() const { return capacity_; }
  RtoKnownRoute &at(size_t slot) const { return slots_[slot]; }
  size_t size() const { return size_; }

  void removeAll();

private:
  size_t slotOf(const RtoKnownRoute &key) const; // of the record, or the free slot that ends the search
  size_t next(size_t slot) const { return slot + 1 == capacity_ ? 0 : slot + 1; }
  bool resize(size_t capacity);

  RtoKnownRoute *slots_ = nullptr; // no owner: the table outlives main()
  size_t capacity_ = 0;
  size_t size_ = 0;
};

extern RtoKnownTable rtoKnownRoutes; // route task's
