// The comparison of interfaces: what the kernel's devices are against what the switch wants them to be.
#include "grammar.h"
#include "orrinctl_mirror.h"

#include <algorithm>
#include <cstdio>
#include <iterator>

namespace {

std::string addressText(const MirrorAddress &address) {
  std::string text = "address ";
  orrin::appendAddress(text, address.address);
  orrin::appendNumber(text += '/', address.length);
  return text.append(" label ").append(address.label);
}

std::string macText(const std::array<uint8_t, 6> &mac) {
  std::string text;
  orrin::appendMac(text, mac);
  return text;
}

const char *upText(bool up) {
  return up ? "up" : "down";
}

// Counts the differences of the interfaces of one VRF and prints them if wanted.
class InterfaceComparison {
public:
  InterfaceComparison(uint32_t vrf, bool print) : vrf_(vrf), print_(print) {}

  void compare(const MirrorInterface &interface, const MirrorDevice &have) {
    const MirrorDevice &want = interface.wanted;
    if (want.up != have.up) {
      report('~', interface, std::string("switch ") + upText(want.up) + ", kernel " + upText(have.up));
    }
    if (want.up) {
      compareEnabled(interface, have);
    }
    std::vector<MirrorAddress> some;
    std::set_difference(want.addresses.begin(), want.addresses.end(), have.addresses.begin(), have.addresses.end(),
                        std::back_inserter(some));
    for (const MirrorAddress &missing : some) {
      report('-', interface, addressText(missing));
    }
    some.clear();
    std::set_difference(have.addresses.begin(), have.addresses.end(), want.addresses.begin(), want.addresses.end(),
                        std::back_inserter(some));
    for (const MirrorAddress &extra : some) {
      report('+', interface, addressText(extra));
    }
  }

  void missing(const MirrorInterface &interface) { report('-', interface, "no such device"); }

  size_t differences() const { return differences_; }

private:
  void compareEnabled(const MirrorInterface &interface, const MirrorDevice &have) {
    const MirrorDevice &want = interface.wanted;
    if (want.mac != have.mac) {
      report('~', interface, "mac switch " + macText(want.mac) + ", kernel " + macText(have.mac));
    }
    if (want.mtu != have.mtu) {
      report('~', interface, "mtu switch " + std::to_string(want.mtu) + ", kernel " + std::to_string(have.mtu));
    }
    if (!interface.hostMode && !have.allRouters) {
      report('-', interface, "membership of 224.0.0.2");
    }
  }

  void report(char sign, const MirrorInterface &interface, const std::string &what) {
    ++differences_;
    if (print_) {
      std::printf("%c vrf %u interface %u %s %s\n", sign, vrf_, interface.number, interface.device.c_str(),
                  what.c_str());
    }
  }

  const uint32_t vrf_;
  const bool print_;
  size_t differences_ = 0;
};

} // namespace

std::string compareInterfaces(const MirrorVrf &vrf, DeviceNames & /*devices*/, bool print, MirrorCounts &counts) {
  if (vrf.id == 0) {
    return {}; // the default VRF's devices are the switch's own: nobody mirrors them
  }
  std::map<std::string, MirrorDevice> kernel;
  if (std::string error = readKernelDevices(kernel); !error.empty()) {
    return error;
  }
  InterfaceComparison comparison(vrf.id, print);
  for (const MirrorInterface &interface : vrf.interfaces) {
    ++counts.onSwitch;
    counts.wanted += interface.wanted.up ? 1 : 0;
    const auto device = kernel.find(interface.device);
    if (device != kernel.end()) {
      counts.inKernel += device->second.up ? 1 : 0;
      comparison.compare(interface, device->second);
    } else if (interface.wanted.up) {
      comparison.missing(interface);
    }
  }
  counts.different = comparison.differences();
  return {};
}
