// Kernel devices: index, hardware address, flags, MTU, ARP. Each call opens the socket it asks on, in the namespace that the
// process is in at that moment. Any thread; no state.

#include "arp_request.h"
#include "osapi.h"
#include "setting.h"
#include "unique_fd.h"

#include <cerrno>
#include <cstring>
#include <net/if.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/socket.h>

namespace {

constexpr size_t MAC_BYTES = 6;

// How the kernel probes an unknown neighbour: a question to user space, then its own broadcasts, then it gives up. With the
// first broadcast, which is the library's, these are three in 4.2 s.
constexpr struct {
  const char *name;
  uint32_t value;
} PROBE_SETTINGS[] = {{"app_solicit", 1}, {"mcast_solicit", 2}, {"retrans_time_ms", 1400}};

int32_t failed(int error) {
  errno = error;
  return 1;
}

// One device, and the requests about it.
class Device {
public:
  explicit Device(const char *name) : socket_(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    if (!socket_) {
      error_ = errno;
    } else if (strnlen(name, sizeof request.ifr_name) == sizeof request.ifr_name) {
      error_ = ENODEV; // no device has a longer name, and a cut one would be another device's
    } else {
      memcpy(request.ifr_name, name, strlen(name));
    }
  }

  // 0, or 1 with errno.
  int32_t ask(unsigned long what) {
    if (error_ != 0) {
      return failed(error_);
    }
    return ioctl(socket_.get(), what, &request) == 0 ? 0 : 1;
  }

  ifreq request{};

private:
  UniqueFd socket_;
  int error_ = 0; // the reason why nothing can be asked, 0 = none
};

} // namespace

extern "C" int32_t osapiStackIfIndexGet(const char *name, uint32_t *ifIndex) {
  Device device(name);
  if (device.ask(SIOCGIFINDEX) != 0) {
    return 1;
  }
  *ifIndex = static_cast<uint32_t>(device.request.ifr_ifindex);
  return 0;
}

// The address is set with the family of the device's own. One that is there already is left alone: some drivers refuse the
// request while the device is up.
extern "C" int32_t osapiIfMacSet(const char *name, const uint8_t *mac) {
  Device device(name);
  if (device.ask(SIOCGIFHWADDR) != 0) {
    return 1;
  }
  if (memcmp(device.request.ifr_hwaddr.sa_data, mac, MAC_BYTES) == 0) {
    return 0;
  }
  memcpy(device.request.ifr_hwaddr.sa_data, mac, MAC_BYTES);
  return device.ask(SIOCSIFHWADDR);
}

extern "C" int32_t osapiIfFlagChange(const char *name, uint32_t flag, uint32_t set) {
  Device device(name);
  if (flag == 0 || flag > UINT16_MAX || set > 1) {
    return failed(EINVAL);
  }
  if (device.ask(SIOCGIFFLAGS) != 0) {
    return 1;
  }
  const auto before = static_cast<uint16_t>(device.request.ifr_flags);
  const auto after = static_cast<uint16_t>(set == 1 ? before | flag : before & ~flag);
  device.request.ifr_flags = static_cast<short>(after);
  return after == before ? 0 : device.ask(SIOCSIFFLAGS);
}

extern "C" int32_t osapiIfArpSet(const char *name) {
  if (osapiIfFlagChange(name, IFF_NOARP, 0) != 0) {
    return 1;
  }
  const std::string folder = "/proc/sys/net/ipv4/neigh/" + std::string(name) + "/";
  for (const auto &setting : PROBE_SETTINGS) {
    if (settingWrite(folder + setting.name, setting.value) != 0) {
      return 1;
    }
  }
  arpRequesterStart();
  return 0;
}

extern "C" int32_t osapiIfIpv4MtuSet(const char *name, uint32_t mtu) {
  Device device(name);
  device.request.ifr_mtu = static_cast<int>(mtu);
  return device.ask(SIOCSIFMTU);
}
