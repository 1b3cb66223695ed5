// Interned route attributes in wire form. Used by orrin's one thread.

#include "attr_table.h"

#include "tarnapi_wire.h"

#include <cstring>

namespace orrin {

namespace {

struct FlagField {
  tarnwire::RouteFlag flag;
  bool RouteAttrs::*field;
};

constexpr FlagField FLAG_FIELDS[] = {
    {tarnwire::ROUTE_REJECT, &RouteAttrs::reject},
    {tarnwire::ROUTE_DISCARD, &RouteAttrs::discard},
    {tarnwire::ROUTE_VIA_VRF_DEVICE, &RouteAttrs::viaVrfDevice},
    {tarnwire::ROUTE_RFC5549, &RouteAttrs::rfc5549},
    {tarnwire::ROUTE_MPLS, &RouteAttrs::mpls},
    {tarnwire::ROUTE_FLAG8000, &RouteAttrs::flag8000},
    {tarnwire::ROUTE_INSTALL_KERNEL, &RouteAttrs::installKernel},
    {tarnwire::ROUTE_REPORTED, &RouteAttrs::reported},
};

tarnwire::RouteBody readBody(std::string_view body) {
  tarnwire::RouteBody record;
  std::memcpy(&record, body.data(), sizeof record);
  return record;
}

tarnwire::RouteHop readHop(std::string_view body, size_t index) {
  tarnwire::RouteHop hop;
  std::memcpy(&hop, body.data() + sizeof(tarnwire::RouteBody) + index * sizeof hop, sizeof hop);
  return hop;
}

} // namespace

std::string encodeAttrs(const RouteAttrs &attrs) {
  tarnwire::RouteBody body{attrs.metric, attrs.proto, 0, attrs.type, static_cast<uint8_t>(attrs.hops.size())};
  for (const FlagField &each : FLAG_FIELDS) {
    if (attrs.*each.field) {
      body.flags = static_cast<uint16_t>(body.flags | each.flag);
    }
  }
  std::string bytes(reinterpret_cast<const char *>(&body), sizeof body);
  for (const NextHop &each : attrs.hops) {
    const tarnwire::RouteHop hop{each.address, each.interface};
    bytes.append(reinterpret_cast<const char *>(&hop), sizeof hop);
  }
  return bytes;
}

RouteAttrs decodeAttrs(std::string_view body) {
  const tarnwire::RouteBody record = readBody(body);
  RouteAttrs attrs;
  attrs.type = record.type;
  attrs.metric = record.metric;
  attrs.proto = record.proto;
  for (const FlagField &each : FLAG_FIELDS) {
    attrs.*each.field = (record.flags & each.flag) != 0;
  }
  for (size_t index = 0; index < record.hopCount; ++index) {
    const tarnwire::RouteHop hop = readHop(body, index);
    attrs.hops.push_back({hop.address, hop.interface});
  }
  return attrs;
}

AttrId AttrTable::intern(const std::string &body, size_t references) {
  const auto [entry, isNew] = ids_.try_emplace(body, 0);
  if (isNew) {
    if (free_.empty()) {
      free_.push_back(static_cast<AttrId>(slots_.size()));
      slots_.emplace_back();
    }
    entry->second = free_.back();
    free_.pop_back();
    slots_[entry->second].body = &entry->first;
  }
  slots_[entry->second].references += references;
  return entry->second;
}

void AttrTable::release(AttrId id) {
  Slot &slot = slots_[id];
  if (--slot.references == 0) {
    ids_.erase(ids_.find(*slot.body));
    slot.body = nullptr;
    free_.push_back(id);
  }
}

uint8_t AttrTable::type(AttrId id) const {
  return readBody(body(id)).type;
}

bool AttrTable::reported(AttrId id) const {
  return (readBody(body(id)).flags & tarnwire::ROUTE_REPORTED) != 0;
}

bool AttrTable::mentions(AttrId id, uint32_t interface) const {
  if (slots_[id].body == nullptr) {
    return false;
  }
  const size_t hops = readBody(body(id)).hopCount;
  for (size_t index = 0; index < hops; ++index) {
    if (readHop(body(id), index).interface == interface) {
      return true;
    }
  }
  return false;
}

} // namespace orrin
