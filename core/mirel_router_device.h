// What the enable and attribute handlers share: labels, masks and the MTU of an interface's kernel device.
#pragma once

#include "mirel_router_table.h"

inline constexpr uint32_t ADDRESS_MASK_HOST = UINT32_MAX;

// Mask of an interface address in host byte order. The shift count is taken modulo 32: length 0 gives all ones like 32.
constexpr uint32_t interfaceMask(uint32_t prefixLen) {
  return UINT32_MAX << ((32 - prefixLen) % 32);
}
static_assert(interfaceMask(0) == UINT32_MAX && interfaceMask(1) == 0x80000000 && interfaceMask(32) == UINT32_MAX);

constexpr uint32_t broadcastOf(uint32_t addr, uint32_t mask) {
  return ~mask | addr;
}

// Label of an address that is not the device's first, cut to 16 characters.
struct AddressLabel {
  char text[STK_IF_NAME_SIZE];

  AddressLabel(const char *device, uint32_t number);
  AddressLabel(const char *device, uint32_t number, uint32_t position);
};

// The interface's device name, its absence logged.
struct InterfaceDevice {
  char name[STK_IF_NAME_SIZE] = {};
  bool known;

  explicit InterfaceDevice(uint32_t intIfNum);
};

// Reads the interface's MTU from the switch and sets it on the device. Returns 0, or 1 after logging why.
int interfaceMtuApply(uint32_t intIfNum, const char *device);
