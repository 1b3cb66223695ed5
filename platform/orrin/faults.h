// Misbehaviour on demand, by call: another result, a delay, a lost answer.
#pragma once

#include "tarnapi_wire.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace orrin {

struct Fault {
  std::optional<int32_t> result; // instead of doing the call
  uint32_t delayMs = 0;
  bool drop = false;  // no answer
  uint32_t times = 0; // calls it still applies to, 0 = always
};

class FaultTable {
public:
  void set(tarnwire::Op op, const Fault &fault) { faults_[op] = fault; }
  void clear(tarnwire::Op op) { faults_[op].reset(); }
  const std::optional<Fault> &at(tarnwire::Op op) const { return faults_[op]; }

  // The fault that applies to this call, counted down.
  std::optional<Fault> hit(tarnwire::Op op);

private:
  std::array<std::optional<Fault>, tarnwire::OP_COUNT> faults_;
};

// A call by its function's name, "rpcclt_" or "rpcclt_tarnapi" left out or not.
std::optional<tarnwire::Op> opNamed(std::string_view name);

} // namespace orrin
