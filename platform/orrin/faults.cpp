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

std::string faultLine(tarnwire::Op op, const Fault &fault) {
  std::string line = "fault set ";
  line += shortName(tarnwire::OPS[op].function);
  if (fault.result) {
    line += " result " + std::to_string(*fault.result);
  }
  if (fault.delayMs != 0) {
    appendNumber(line += " delay ", fault.delayMs);
  }
  if (fault.drop) {
    line += " drop";
  }
  if (fault.times != 0) {
    appendNumber(line += " times ", fault.times);
  }
  return line;
}

} // namespace orrin
