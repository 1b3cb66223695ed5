// What `orrinctl diff` compares: a VRF's routes as the switch wants them in the kernel, and as the kernel has them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// Kernel device names as small numbers, the same for both sides. 0 is the empty name.
class DeviceNames {
public:
  uint16_t idOf(std::string_view name);
  const std::string &nameOf(uint16_t id) const { return names_[id]; }

private:
  std::vector<std::string> names_{std::string()};
};

// One IPv4 route; addresses in host byte order. gateway and device 0 = none; a device of ANY_DEVICE leaves the choice
// to the kernel.
struct MirrorRoute {
  static constexpr uint16_t ANY_DEVICE = UINT16_MAX;

  uint32_t prefix = 0;
  uint32_t gateway = 0;
  uint16_t device = 0;
  uint8_t length = 0;
  uint8_t type = 0; // RTN_*

  uint64_t key() const { return uint64_t{prefix} << 8 | length; }
};

struct MirrorVrf {
  uint32_t id = 0;
  std::string name;
  std::string netns;                 // name, path or empty
  size_t switchRoutes = 0;           // all that the switch holds
  std::vector<MirrorRoute> expected; // those that belong in the kernel, ascending
};

// Reads a configuration dump. Returns what is wrong with it, empty when nothing is.
std::string readDump(std::string_view dump, DeviceNames &devices, std::vector<MirrorVrf> &vrfs);

// Reads the agent's routes from the main table of a network namespace, ascending. Moves the calling process into that
// namespace. Returns what went wrong, empty when nothing did.
std::string readKernelRoutes(const MirrorVrf &vrf, DeviceNames &devices, std::vector<MirrorRoute> &routes);

// Runs `orrinctl diff` with the arguments after "diff". Returns the exit status.
int runDiff(int argc, char **argv);
