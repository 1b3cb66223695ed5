// What routes say beside their prefix, each distinct set of it once: its bytes are those of the wire (RouteBody and next
// hops), so that a batch of routes is put together by copying. Routes refer to it by number and are counted.
#pragma once

#include "grammar.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace orrin {

using AttrId = uint32_t;

std::string encodeAttrs(const RouteAttrs &attrs);
RouteAttrs decodeAttrs(std::string_view body);

class AttrTable {
public:
  // The number of a body, with `references` more references to it.
  AttrId intern(const std::string &body, size_t references);
  void release(AttrId id);

  std::string_view body(AttrId id) const { return *slots_[id].body; }
  uint8_t type(AttrId id) const;
  bool reported(AttrId id) const;
  bool mentions(AttrId id, uint32_t interface) const;
  size_t slots() const { return slots_.size(); }
  size_t references(AttrId id) const { return slots_[id].references; }

private:
  struct Slot {
    const std::string *body = nullptr; // the key in ids_; null in a free slot
    size_t references = 0;
  };

  std::unordered_map<std::string, AttrId> ids_;
  std::vector<Slot> slots_;
  std::vector<AttrId> free_;
};

} // namespace orrin
