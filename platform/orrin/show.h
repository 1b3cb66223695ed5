// What the sources of `show` share.
#pragma once

#include "switch.h"

#include <string>

namespace orrin {

struct Wanted {
  const Vrf *only = nullptr;
  bool json = false;

  bool vrf(uint32_t id) const { return only == nullptr || only->id == id; }
};

// show_tables.cpp
void showRoutes(Switch &sw, const Wanted &wanted, std::string &out);
void showArp(Switch &sw, const Wanted &wanted, std::string &out);

} // namespace orrin
