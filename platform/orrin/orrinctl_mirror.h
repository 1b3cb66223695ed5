// What `orrinctl diff` compares: the interfaces and routes of a VRF as the switch wants them in the kernel, and as the
// kernel has them; neighbours and kernel routes as they were reported to the switch, and as the kernel has them. Addresses are
// in host byte order.
#pragma once

#include "kernel_route.h"

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <set>
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

// One IPv4 route. gateway and device 0 = none; a device of ANY_DEVICE leaves the choice to the kernel.
struct MirrorRoute {
  static constexpr uint16_t ANY_DEVICE = UINT16_MAX;

  uint32_t prefix = 0;
  uint32_t gateway = 0;
  uint16_t device = 0;
  uint8_t length = 0;
  uint8_t type = 0; // RTN_*

  uint64_t key() const { return uint64_t{prefix} << 8 | length; }
};

struct MirrorAddress {
  uint32_t address = 0;
  uint8_t length = 0;
  std::string label;

  auto operator<=>(const MirrorAddress &) const = default;
};

// A kernel device, as it is or as it should be.
struct MirrorDevice {
  bool up = false;
  std::array<uint8_t, 6> mac{};
  uint32_t mtu = 0;
  std::vector<MirrorAddress> addresses; // ascending
  bool allRouters = false;              // member of 224.0.0.2
};

// A router interface that has a kernel device. One that is not enabled, or whose VRF does not route, only has to be down and
// without addresses.
struct MirrorInterface {
  uint32_t number = 0;
  uint32_t type = 0;
  std::string device;
  bool hostMode = false; // whether it is a member of 224.0.0.2 depends on what came last
  MirrorDevice wanted;
};

// A neighbour in the kernel's ARP cache.
struct MirrorNeighbour {
  std::array<uint8_t, 6> mac{};
  uint32_t index = 0; // of the device

  bool operator==(const MirrorNeighbour &) const = default;
};

struct MirrorVrf {
  uint32_t id = 0;
  std::string name;
  std::string netns;                      // name, path or empty
  std::deque<MirrorInterface> interfaces; // ascending by number
  size_t switchRoutes = 0;                // all that the switch holds
  std::vector<MirrorRoute> routes;        // those that belong in the kernel, ascending

  // What the agent reported, where that is compared.
  std::map<uint32_t, MirrorNeighbour> neighbours; // by address
  std::set<uint32_t> notReported;                 // addresses of neighbours that the switch knows itself
  std::map<orrin::KernelRoute::Key, orrin::KernelRoute> kernelRoutes;
};

// The label of an address as the kernel has it: at most 15 characters, and the device's name where the cut would lose the
// colon. `suffix` is what follows the colon, empty for a primary address.
std::string kernelLabel(std::string_view device, std::string_view suffix);

// Reads a configuration dump. Returns what is wrong with it, empty when nothing is.
std::string readDump(std::string_view dump, DeviceNames &devices, std::deque<MirrorVrf> &vrfs);

// Reads a dump of what the agents reported into the VRFs of a configuration. Returns what is wrong with it.
std::string readReported(std::string_view dump, std::deque<MirrorVrf> &vrfs);

// The readers of the kernel's side look into the network namespace in which the process is. They return what went wrong,
// empty when nothing did.

// The agent's routes of the main table, ascending.
std::string readKernelRoutes(DeviceNames &devices, std::vector<MirrorRoute> &routes);
// Every device by its name.
std::string readKernelDevices(std::map<std::string, MirrorDevice> &devices);

// What a comparison found in one VRF.
struct MirrorCounts {
  size_t onSwitch = 0;
  size_t wanted = 0; // of them in the kernel
  size_t inKernel = 0;
  size_t different = 0;
};

// Each compares one VRF with the kernel of the current namespace and, if told so, prints every difference: "-" what is
// missing in the kernel, "+" what should not be there or was not reported, "~" what is otherwise. They return what went wrong.
std::string compareInterfaces(const MirrorVrf &vrf, DeviceNames &devices, bool print, MirrorCounts &counts);
std::string compareRoutes(const MirrorVrf &vrf, DeviceNames &devices, bool print, MirrorCounts &counts);
std::string compareNeighbours(const MirrorVrf &vrf, DeviceNames &devices, bool print, MirrorCounts &counts);
std::string compareKernelRoutes(const MirrorVrf &vrf, DeviceNames &devices, bool print, MirrorCounts &counts);

// Runs `orrinctl diff` with the arguments after "diff". Returns the exit status.
int runDiff(int argc, char **argv);
