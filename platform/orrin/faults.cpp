// The faults that are set, one at most for each call. Used by orrin's one thread.

#include "faults.h"

#include "grammar.h"

namespace orrin {

namespace {

std::string_view without(std::string_view prefix, std::string_view name) {
  return name.starts_with(prefix) ? name.substr(prefix.size()) : name;
}

// "VrfNameGet" of rpcclt_tarnapiVrfNameGet.
std::string_view shortName(std::string_view function) {
  return without("tarnapi", without("rpcclt_", function));
}

} // namespace

std::optional<Fault> FaultTable::hit(tarnwire::Op op) {
  std::optional<Fault> &fault = faults_[op];
  const std::optional<Fault> applied = fault;
  if (fault && fault->times != 0 && --fault->times == 0) {
    fault.reset();
  }
  return applied;
}

std::optional<tarnwire::Op> opNamed(std::string_view name) {
  for (const tarnwire::OpInfo &info : tarnwire::OPS) {
    if (shortName(name) == shortName(info.function)) {
      return info.op;
    }
  }
  return std::nullopt;
}

} // namespace orrin
