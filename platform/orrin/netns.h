// What the kernel of a VRF's network namespace says about its devices.
#pragma once

#include "switch.h"

#include <cstdint>
#include <string>

namespace orrin {

// The kernel's index of the device in the VRF's namespace, 0 when it is not known.
uint32_t deviceIndexIn(const Vrf &vrf, const std::string &device);
// The device with that index, empty when there is none.
std::string deviceNameIn(const Vrf &vrf, uint32_t index);

// The VRF in whose namespace the process runs, null when it is none's.
const Vrf *vrfOfProcess(const Switch &sw, uint32_t process);

} // namespace orrin
