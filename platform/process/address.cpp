// IPv4 addresses of kernel devices. Any thread; the sockets' lock is held over each call that uses the caller's socket.

#include "osapi.h"
#include "route_netlink.h"
#include "setting.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <linux/if_addr.h>
#include <net/if.h>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <vector>

namespace {

constexpr size_t ADDRESS_LABEL_MAX = 15; // of the kernel, without NUL
constexpr int STRIP_PASSES_MAX = 4;

// The kernel's label of an address, and the device before its colon.
struct Label {
  std::string text;
  std::string device;
};

// A label that the kernel cannot hold is cut, unless the cut would lose the colon and so name another device.
Label labelOf(const char *given) {
  const std::string_view text(given);
  const std::string_view device = text.substr(0, text.find(':'));
  const std::string_view cut = text.substr(0, ADDRESS_LABEL_MAX);
  return {std::string(device.size() < cut.size() ? cut : device), std::string(device)};
}

struct Address {
  uint32_t ifIndex = 0;
  uint32_t address = 0;
  uint8_t prefixLength = 0;
  uint32_t broadcast = 0; // 0 = none
  std::string label;
};

int32_t failed(int error) {
  errno = error;
  return 1;
}

ifaddrmsg addressHeader(const Address &address) {
  ifaddrmsg header{};
  header.ifa_family = AF_INET;
  header.ifa_prefixlen = address.prefixLength;
  header.ifa_scope = RT_SCOPE_UNIVERSE;
  header.ifa_index = address.ifIndex;
  return header;
}

NetlinkResult create(RouteNetlinkSock *sock, const Address &address) {
  NetlinkRequest request(RTM_NEWADDR, NLM_F_CREATE | NLM_F_EXCL, addressHeader(address));
  request.attr32(IFA_LOCAL, htonl(address.address));
  request.attr32(IFA_ADDRESS, htonl(address.address));
  if (address.broadcast != 0) {
    request.attr32(IFA_BROADCAST, htonl(address.broadcast));
  }
  request.attrText(IFA_LABEL, address.label.c_str());
  return netlinkAsk(sock->fd, sock->seq, request);
}

NetlinkResult remove(int fd, uint32_t &seq, const Address &address) {
  NetlinkRequest request(RTM_DELADDR, 0, addressHeader(address));
  request.attr32(IFA_LOCAL, htonl(address.address));
  request.attr32(IFA_ADDRESS, htonl(address.address));
  return netlinkAsk(fd, seq, request);
}

// Removes one address and keeps the others of its subnet, which the kernel otherwise drops together with the first one.
NetlinkResult removeAlone(RouteNetlinkSock *sock, const Address &address, const std::string &device) {
  settingWrite("/proc/sys/net/ipv4/conf/" + device + "/promote_secondaries", 1);
  return remove(sock->fd, sock->seq, address);
}

uint32_t addressAttr(const NetlinkAttr &attr) {
  uint32_t value = 0;
  memcpy(&value, attr.data.data(), std::min(attr.data.size(), sizeof value));
  return ntohl(value);
}

void gather(NetlinkBytes payload, void *context) {
  ifaddrmsg header;
  if (payload.size() < sizeof header) {
    return;
  }
  memcpy(&header, payload.data(), sizeof header);
  Address address;
  address.ifIndex = header.ifa_index;
  address.prefixLength = header.ifa_prefixlen;
  for (const NetlinkAttr &attr : netlinkAttrs(payload.subspan(sizeof header))) {
    if (attr.type == IFA_LOCAL) {
      address.address = addressAttr(attr);
    } else if (attr.type == IFA_BROADCAST) {
      address.broadcast = addressAttr(attr);
    } else if (attr.type == IFA_LABEL) {
      const auto *text = reinterpret_cast<const char *>(attr.data.data());
      address.label.assign(text, strnlen(text, attr.data.size()));
    }
  }
  static_cast<std::vector<Address> *>(context)->push_back(std::move(address));
}

NetlinkResult addressesOf(int fd, uint32_t &seq, uint32_t ifIndex, std::vector<Address> &addresses) {
  ifaddrmsg wanted{};
  wanted.ifa_family = AF_INET;
  wanted.ifa_index = ifIndex;
  NetlinkRequest request(RTM_GETADDR, NLM_F_DUMP, wanted);
  const NetlinkDump dump = netlinkDump(fd, seq, request, RTM_NEWADDR, gather, &addresses);
  // A kernel without strict checking dumps the addresses of every device.
  std::erase_if(addresses, [ifIndex](const Address &address) { return address.ifIndex != ifIndex; });
  return {.carried = dump.complete, .error = dump.error};
}

// The kernel can change neither label nor broadcast of an address that is there.
NetlinkResult bringTo(RouteNetlinkSock *sock, const Address &wanted, const std::string &device) {
  std::vector<Address> addresses;
  const NetlinkResult looked = addressesOf(sock->fd, sock->seq, wanted.ifIndex, addresses);
  if (!looked.done()) {
    return looked;
  }
  for (const Address &present : addresses) {
    if (present.address == wanted.address && present.prefixLength == wanted.prefixLength &&
        present.broadcast == wanted.broadcast && present.label == wanted.label) {
      return looked;
    }
  }
  const NetlinkResult removed = removeAlone(sock, wanted, device);
  return removed.done() || removed.error == EADDRNOTAVAIL ? create(sock, wanted) : removed;
}

// Fills prefix length and device; 0 or an error number.
int locate(int fd, uint32_t &seq, const std::string &device, uint32_t mask, Address &address) {
  const int prefixLength = routePrefixLength(mask);
  if (prefixLength < 0) {
    return EINVAL;
  }
  address.prefixLength = static_cast<uint8_t>(prefixLength);
  if (device.empty() || device.size() > DEVICE_NAME_MAX) {
    return ENODEV;
  }
  return netlinkDeviceIndex(fd, seq, device.c_str(), address.ifIndex).error;
}

int32_t resultOf(const NetlinkResult &result) {
  return result.done() ? 0 : failed(result.error);
}

} // namespace

extern "C" int32_t procOsapiNetlinkIPv4Add(const char *label, uint32_t addr, uint32_t mask, uint32_t broadcast,
                                           RouteNetlinkSock *sock) {
  const Label name = labelOf(label);
  Address address;
  address.address = addr;
  address.broadcast = broadcast;
  address.label = name.text;
  const std::lock_guard lock(routeNetlinkLock);
  const int error = locate(sock->fd, sock->seq, name.device, mask, address);
  if (error != 0) {
    return failed(error);
  }
  const NetlinkResult created = create(sock, address);
  const bool present = created.carried && created.error == EEXIST;
  return resultOf(present ? bringTo(sock, address, name.device) : created);
}

extern "C" int32_t procOsapiNetlinkIPv4Del(const char *label, uint32_t addr, uint32_t mask, RouteNetlinkSock *sock) {
  const Label name = labelOf(label);
  Address address;
  address.address = addr;
  const std::lock_guard lock(routeNetlinkLock);
  const int error = locate(sock->fd, sock->seq, name.device, mask, address);
  return error != 0 ? failed(error) : resultOf(removeAlone(sock, address, name.device));
}

// Once more after each removal of all: removing the first address of a subnet takes or moves the others.
extern "C" int32_t osapiIfAddrDel(const char *name) {
  const UniqueFd fd = netlinkOpen();
  if (!fd) {
    return 1;
  }
  uint32_t seq = 0;
  uint32_t ifIndex = 0;
  const NetlinkResult found = netlinkDeviceIndex(fd.get(), seq, name, ifIndex);
  if (!found.done()) {
    return failed(found.error);
  }
  for (int pass = 0; pass < STRIP_PASSES_MAX; ++pass) {
    std::vector<Address> addresses;
    const NetlinkResult looked = addressesOf(fd.get(), seq, ifIndex, addresses);
    if (!looked.done() || addresses.empty()) {
      return resultOf(looked);
    }
    for (const Address &address : addresses) {
      const NetlinkResult removed = remove(fd.get(), seq, address);
      if (!removed.done() && removed.error != EADDRNOTAVAIL) {
        return failed(removed.error);
      }
    }
  }
  return failed(EBUSY);
}
