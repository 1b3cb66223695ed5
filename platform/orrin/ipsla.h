// The IP SLA operations: the switch keeps which there are, the VRF's agent runs them and reports each outcome.
#pragma once

#include "switch.h"

#include <cstdint>
#include <string>

namespace orrin {

inline constexpr uint32_t IPSLA_OPERATION_MAX = 128;

// "ipsla start vrf 3 5 to 10.0.0.1 ..." lines.
void appendOperations(const Vrf &vrf, std::string &out);

} // namespace orrin
