// Hash table of the foreign routes that RTO has answered for: linear probing, removal by moving later records up, so that
// no slot is ever spent on a removed one. Route task's thread; freed when the last route is gone.

#include "rto_netlink_known.h"

#include "mirel_address.h"

#include <algorithm>
#include <cstring>
#include <new>

RtoKnownTable rtoKnownRoutes;

namespace {

constexpr size_t CAPACITY_MIN = 16;
constexpr uint8_t KIND_FLAGS = EXT_ROUTE_DISCARD | EXT_ROUTE_REJECT;

// A finaliser of 64 bits in which every input bit reaches every output bit.
constexpr uint64_t mix(uint64_t value) {
  value = (value ^ (value >> 33)) * 0xff51afd7ed558ccdU;
  value = (value ^ (value >> 33)) * 0xc4ceb9fe1a85ec53U;
  return value ^ (value >> 33);
}

// The slot that a record's search starts at, a fraction of the capacity, which need not be a power of two. Every capacity has
// an order of its own: a table of which the first slots were emptied would else crowd its records into the last.
size_t homeOf(const RtoKnownRoute &record, size_t capacity) {
  const uint64_t rest = uint64_t{record.prefixLen} << 48 | static_cast<uint64_t>(record.flags & RTO_KNOWN_IPV6) << 56;
  const uint64_t hash = mix(mix(record.key[0] + capacity) + (record.key[1] ^ rest));
  return static_cast<size_t>((static_cast<unsigned __int128>(hash) * capacity) >> 64);
}

uint8_t kindOf(uint32_t flags) {
  return static_cast<uint8_t>(flags & KIND_FLAGS);
}

} // namespace

bool RtoKnownRoute::sameKey(const RtoKnownRoute &other) const {
  return key[0] == other.key[0] && key[1] == other.key[1] && prefixLen == other.prefixLen &&
         is(RTO_KNOWN_IPV6) == other.is(RTO_KNOWN_IPV6);
}

bool RtoKnownRoute::sameContent(const RtoKnownRoute &other) const {
  return gateway == other.gateway && intIfNum == other.intIfNum && kindOf(flags) == kindOf(other.flags);
}

RtoKnownRoute rtoKnownOf(const ExtRoute &route) {
  const ExtRouteNextHop &hop = route.nextHops[0];
  return {.key = {route.metric, route.destination},
          .gateway = hop.gateway,
          .intIfNum = static_cast<uint16_t>(hop.intIfNum),
          .prefixLen = static_cast<uint8_t>(osapiInetMaskLengthGet(route.mask)),
          .flags = static_cast<uint8_t>(RTO_KNOWN_USED | kindOf(route.flags))};
}

RtoKnownRoute rtoKnownOf(const ExtRoute6 &route) {
  const ExtRouteNextHop6 &hop = route.nextHops[0];
  RtoKnownRoute record{.key = {},
                       .gateway = 0,
                       .intIfNum = static_cast<uint16_t>(hop.intIfNum),
                       .prefixLen = static_cast<uint8_t>(route.prefixLen),
                       .flags = static_cast<uint8_t>(RTO_KNOWN_USED | RTO_KNOWN_IPV6 | kindOf(route.flags))};
  memcpy(record.key, route.destination, sizeof record.key);
  uint64_t gateway[2];
  memcpy(gateway, hop.gateway, sizeof gateway);
  record.gateway = static_cast<uint32_t>(mix(mix(gateway[0]) + gateway[1]));
  return record;
}

ExtRoute RtoKnownRoute::ipv4() const {
  ExtRoute route{};
  route.destination = static_cast<uint32_t>(key[1]);
  route.mask = pfxLenToMask(prefixLen);
  route.routeType = EXT_ROUTE_TYPE;
  route.routeProto = EXT_ROUTE_PROTO;
  route.metric = static_cast<uint32_t>(key[0]);
  route.flags = kindOf(flags);
  if (route.flags == 0) {
    route.nextHops[0] = {.gateway = gateway, .intIfNum = intIfNum};
    route.numNextHops = 1;
  }
  route.reportFlag = EXT_ROUTE_REPORT_FLAG;
  return route;
}

ExtRoute6 RtoKnownRoute::ipv6() const {
  ExtRoute6 route{};
  memcpy(route.destination, key, sizeof route.destination);
  route.prefixLen = prefixLen;
  route.routeType = EXT_ROUTE_TYPE;
  route.flags = kindOf(flags);
  route.reportFlag = EXT_ROUTE_REPORT_FLAG;
  return route;
}

size_t RtoKnownTable::slotOf(const RtoKnownRoute &key) const {
  size_t slot = homeOf(key, capacity_);
  while (slots_[slot].flags != 0 && !slots_[slot].sameKey(key)) {
    slot = next(slot);
  }
  return slot;
}

RtoKnownRoute *RtoKnownTable::find(const RtoKnownRoute &key) const {
  if (size_ == 0) {
    return nullptr;
  }
  RtoKnownRoute &found = slots_[slotOf(key)];
  return found.flags != 0 ? &found : nullptr;
}

bool RtoKnownTable::place(const RtoKnownRoute &record) {
  RtoKnownRoute *held = find(record);
  if (held != nullptr) {
    *held = record;
    return true;
  }
  if ((size_ + 1) * 8 > capacity_ * 7 && !resize(capacity_ + std::max(capacity_ / 8, CAPACITY_MIN))) {
    return false;
  }
  slots_[slotOf(record)] = record;
  ++size_;
  return true;
}

void RtoKnownTable::erase(RtoKnownRoute *record) {
  auto hole = static_cast<size_t>(record - slots_);
  for (size_t slot = next(hole); slots_[slot].flags != 0; slot = next(slot)) {
    // A record may move up only as far as the slot where its own search starts.
    const size_t home = homeOf(slots_[slot], capacity_);
    const size_t fromHome = (slot + capacity_ - home) % capacity_;
    const size_t fromHole = (slot + capacity_ - hole) % capacity_;
    if (fromHome >= fromHole) {
      slots_[hole] = slots_[slot];
      hole = slot;
    }
  }
  slots_[hole].flags = 0;
  --size_;
  if (size_ == 0) {
    removeAll();
  } else if (capacity_ > CAPACITY_MIN && size_ * 4 < capacity_ * 3) {
    resize(std::max(size_ * 16 / 13 + 1, CAPACITY_MIN)); // half way between the two limits; without memory it stays
  }
}

void RtoKnownTable::removeAll() {
  delete[] slots_;
  slots_ = nullptr;
  capacity_ = 0;
  size_ = 0;
}

bool RtoKnownTable::resize(size_t capacity) {
  auto *slots = new (std::nothrow) RtoKnownRoute[capacity]();
  if (slots == nullptr) {
    return false;
  }
  RtoKnownTable resized;
  resized.slots_ = slots;
  resized.capacity_ = capacity;
  for (size_t slot = 0; slot < capacity_; ++slot) {
    if (slots_[slot].flags != 0) {
      slots[resized.slotOf(slots_[slot])] = slots_[slot];
    }
  }
  delete[] slots_;
  slots_ = slots;
  capacity_ = capacity;
  return true;
}
