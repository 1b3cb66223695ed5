// The table of router interfaces, which joins the switch's interface number, the kernel device's name and its index, and
// the lookups by which every handler finds the kernel device of an interface. Numbers 1 to MIREL_INT_IF_NUM_MAX are used.
// Results are 0 for success and 1 for failure unless said otherwise.
#pragma once

#include "mirel_context.h"
#include "mirel_show.h"

#include <atomic>

inline constexpr size_t STK_IF_NAME_SIZE = 17; // a kernel device name in a handler: 16 characters and a NUL
inline constexpr size_t INTF_NAME_LENGTH = 60; // longest interface name that the platform delivers
inline constexpr uint32_t MIREL_INT_IF_TABLE_SIZE = 1035;

struct MirelIntIfInfo {
  uint32_t intIfNum;
  char intfName[INTF_NAME_LENGTH + 1];
  char stkIfName[INTF_NAME_LENGTH + 1];
  Relaxed<uint32_t> ipstkIfIndex; // 0 = unknown
};

// Indexed by interface number; null until allocated, an all-zero entry is an unpopulated one. The kernel route listener runs
// before the table is there.
extern std::atomic<MirelIntIfInfo *> mirelIntIfInfoTable;

int mirelIntIfInfoAllocate();

// Fills the interface's entry from the platform and the kernel; a failure part-way leaves what was filled so far.
int mirelIntfParmsPopulate(uint32_t intIfNum);

// Zeroes the interface's entry; always 0.
int mirelIntIfInfoClear(uint32_t intIfNum);

// Copies the first INTF_NAME_LENGTH bytes of the switch's name, NUL-terminated only if shorter.
int mirelIntIfInfoNameGet(uint32_t intIfNum, char *name);

int mirelIntIfInfoStkIfIndexGet(uint32_t intIfNum, uint32_t *ifIndex);

// The lowest interface number whose entry holds the kernel index. Unpopulated entries hold index 0. Any thread.
int mirelIntIfNumFromStkIfIndex(uint32_t ifIndex, uint32_t *intIfNum);

// Prints one entry, or all for number 0, to standard output. Any thread.
void mirelIntIfInfoShow(uint32_t intIfNum, ShowForm form);

// Kernel device name of the interface into name (STK_IF_NAME_SIZE bytes), asked from the platform.
int mirelStkIfNameGet(uint32_t intIfNum, char *name);

// Kernel index of the interface's device, asked from platform and kernel.
int mirelStkIfIndexGet(uint32_t intIfNum, uint32_t *ifIndex);

// Takes the device down and up again: the kernel drops the routes through it and restores its connected ones.
int mirelIntfFlap(const char *stkIfName);
