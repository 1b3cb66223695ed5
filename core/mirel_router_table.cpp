// The table of router interfaces. The main thread fills and clears entries as interfaces are enabled and disabled; the
// operator's thread prints them, and the kernel route listener looks indexes up without the lock: a lookup that races with
// an enable or a disable may see the old or the new index.

#include "mirel_router_table.h"

#include "api_lock.h"
#include "mirel_trace.h"
#include "unique_fd.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <net/if.h>
#include <new>
#include <sys/ioctl.h>
#include <sys/socket.h>

std::atomic<MirelIntIfInfo *> mirelIntIfInfoTable = nullptr;

namespace {

constexpr char LOG_AREA[] = "application/routing/mirel/core/mirel_router";

enum InterfaceType : uint32_t { INTF_TYPE_TUNNEL = 5, INTF_TYPE_PRESET = 7 };

std::mutex tableLock; // the entries' names and numbers, between main thread and operator

bool hasEntry(uint32_t intIfNum) {
  return intIfNum >= 1 && intIfNum <= MIREL_INT_IF_NUM_MAX;
}

using IntfName = char[INTF_NAME_LENGTH + 1];

// A name from the platform fills at most INTF_NAME_LENGTH bytes and then comes without NUL; the buffer has one more.
template <typename Ask> int32_t nameRead(IntfName &destination, Ask ask) {
  IntfName name = {};
  const tarn_buffdesc descriptor{.size = INTF_NAME_LENGTH, .pstart = name};
  const int32_t status = ask(&descriptor);
  if (status == TARN_OK) {
    name[INTF_NAME_LENGTH] = '\0';
    const std::lock_guard hold(tableLock);
    memcpy(destination, name, sizeof name);
  }
  return status;
}

// Asks the kernel for the index of the device named by the first 15 characters. Returns whether it knows the device; the
// index is 0 if not.
bool kernelIndexAsk(int sock, const char *device, uint32_t *ifIndex) {
  ifreq request{};
  snprintf(request.ifr_name, sizeof request.ifr_name, "%.*s", IFNAMSIZ - 1, device);
  const bool known = ioctl(sock, SIOCGIFINDEX, &request) == 0;
  *ifIndex = static_cast<uint32_t>(request.ifr_ifindex);
  return known;
}

// The entry's device in a VRF of its own: named by the platform, numbered by the kernel of the namespace.
int32_t vrfDeviceRead(MirelIntIfInfo &entry, uint32_t intIfNum) {
  constexpr const char *OPERATION = "mirelIntfParmsPopulate";
  const int32_t status = nameRead(entry.stkIfName, [&](const tarn_buffdesc *name) {
    return rpcclt_tarnapiRtrIntfIpStackStkNameGet(tarnapiClientHandle, mirelVrfId, intIfNum, name);
  });
  if (status != TARN_OK) {
    return status;
  }
  const UniqueFd sock(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!sock) {
    MIREL_TRACE(TRACE_GENERAL, OPERATION, "Failed to create socket\n");
    return TARN_OK;
  }
  uint32_t ifIndex = 0;
  if (!kernelIndexAsk(sock.get(), entry.stkIfName, &ifIndex)) {
    MIREL_TRACE(TRACE_GENERAL, OPERATION, "ioctl Failed\n");
  }
  entry.ipstkIfIndex = ifIndex;
  return TARN_OK;
}

// The entry's device in the default VRF, where devices belong to the switch, which names and numbers them.
int32_t switchDeviceRead(MirelIntIfInfo &entry, uint32_t intIfNum) {
  const int32_t status = nameRead(entry.stkIfName, [&](const tarn_buffdesc *name) {
    return rpcclt_tarnapiRtrIntfIpStackIfNameGet(tarnapiClientHandle, intIfNum, name);
  });
  if (status != TARN_OK) {
    return status;
  }
  uint32_t ifIndex = entry.ipstkIfIndex;
  if (rpcclt_tarnapiRtrIntfIpStackIfIndexGet(tarnapiClientHandle, intIfNum, &ifIndex) != TARN_OK) {
    MIREL_TRACE(TRACE_GENERAL, "mirelIntfParmsPopulate", "Failed to get IP stack interface index for interface %s\n",
                entry.intfName);
  }
  entry.ipstkIfIndex = ifIndex;
  return TARN_OK;
}

void entryTrace(const MirelIntIfInfo &entry) {
  constexpr const char *OPERATION = "mirelIntfParmsPopulate";
  MIREL_TRACE(TRACE_GENERAL, OPERATION, "\nParameters read from Tarn API.\n");
  MIREL_TRACE(TRACE_GENERAL, OPERATION, "intIfNum: %u\n", entry.intIfNum);
  MIREL_TRACE(TRACE_GENERAL, OPERATION, "intfName: %s\n", entry.intfName);
  MIREL_TRACE(TRACE_GENERAL, OPERATION, "stkIfName: %s\n", entry.stkIfName);
  MIREL_TRACE(TRACE_GENERAL, OPERATION, "ipstkIfIndex: %u\n", entry.ipstkIfIndex.get());
}

// A copy of the entry, all zero where there is none.
MirelIntIfInfo entryCopy(uint32_t intIfNum) {
  const std::lock_guard hold(tableLock);
  return mirelIntIfInfoTable != nullptr && hasEntry(intIfNum) ? mirelIntIfInfoTable[intIfNum] : MirelIntIfInfo{};
}

// The two forms of the table differ in more than their first line.
void entryPrint(ShowOutput &out, uint32_t intIfNum, const char *numberLabel, const char *deviceLabel) {
  const MirelIntIfInfo entry = entryCopy(intIfNum);
  const ShowRow rows[] = {
      {numberLabel, "intIfNum", intIfNum},
      {"interface name...............", "intfName", entry.intfName},
      {"stack intf index.............", "ipstkIfIndex", entry.ipstkIfIndex},
      {deviceLabel, "stkIfName", entry.stkIfName},
  };
  out.rows(rows);
}

} // namespace

int mirelIntIfInfoAllocate() {
  auto *table = new (std::nothrow) MirelIntIfInfo[MIREL_INT_IF_TABLE_SIZE]{};
  if (table == nullptr) {
    MIREL_TRACE(TRACE_GENERAL, "mirelIntIfInfoAllocate",
                "Error allocating memory for Mirel interface info structure.\n\n");
    return 1;
  }
  const std::lock_guard hold(tableLock);
  mirelIntIfInfoTable = table;
  return 0;
}

int mirelIntfParmsPopulate(uint32_t intIfNum) {
  constexpr const char *OPERATION = "mirelIntfParmsPopulate";
  if (!hasEntry(intIfNum)) {
    MIREL_TRACE(TRACE_GENERAL, OPERATION, "Invalid intIfNum - %u\n", intIfNum);
    return 1;
  }
  if (mirelIntIfInfoTable == nullptr) {
    return 1;
  }
  MirelIntIfInfo &entry = mirelIntIfInfoTable[intIfNum];
  {
    const std::lock_guard hold(tableLock);
    entry.intIfNum = intIfNum;
  }
  {
    const ApiLock lock;
    int32_t status = nameRead(entry.intfName, [&](const tarn_buffdesc *name) {
      return rpcclt_tarnapiRtrIntfNameGet(tarnapiClientHandle, intIfNum, name);
    });
    if (status != TARN_OK) {
      MIREL_TRACE(TRACE_GENERAL, OPERATION, "Failed to get interface %u name. Error %d\n", intIfNum, status);
      return 1;
    }
    status = mirelVrfId != 0 ? vrfDeviceRead(entry, intIfNum) : switchDeviceRead(entry, intIfNum);
    if (status != TARN_OK) {
      MIREL_TRACE(TRACE_GENERAL, OPERATION, "Failed to get Stack If Name for intIfNum %u name. Error %d\n", intIfNum,
                  status);
      return 1;
    }
  }
  entryTrace(entry);
  return 0;
}

int mirelIntIfInfoClear(uint32_t intIfNum) {
  const std::lock_guard hold(tableLock);
  if (mirelIntIfInfoTable != nullptr && hasEntry(intIfNum)) {
    mirelIntIfInfoTable[intIfNum] = MirelIntIfInfo{};
  }
  return 0;
}

int mirelIntIfInfoNameGet(uint32_t intIfNum, char *name) {
  if (!hasEntry(intIfNum) || name == nullptr || mirelIntIfInfoTable == nullptr) {
    return 1;
  }
  const std::lock_guard hold(tableLock);
  memcpy(name, mirelIntIfInfoTable[intIfNum].intfName, INTF_NAME_LENGTH);
  return 0;
}

int mirelIntIfInfoStkIfIndexGet(uint32_t intIfNum, uint32_t *ifIndex) {
  if (!hasEntry(intIfNum) || mirelIntIfInfoTable == nullptr) {
    return 1;
  }
  *ifIndex = mirelIntIfInfoTable[intIfNum].ipstkIfIndex;
  return 0;
}

int mirelIntIfNumFromStkIfIndex(uint32_t ifIndex, uint32_t *intIfNum) {
  const MirelIntIfInfo *table = mirelIntIfInfoTable;
  if (table == nullptr) {
    return 1;
  }
  for (uint32_t number = 1; number <= MIREL_INT_IF_NUM_MAX; ++number) {
    if (table[number].ipstkIfIndex == ifIndex) {
      *intIfNum = number;
      return 0;
    }
  }
  return 1;
}

void mirelIntIfInfoShow(uint32_t intIfNum, ShowForm form) {
  constexpr const char *TAIL = "\n-----------------------------\n";
  if (intIfNum != 0) {
    ShowOutput out(form, ShowOutput::ONE_RECORD);
    entryPrint(out, intIfNum, "\n Interface : ", "stack intf name..............");
    out.row({TAIL});
    return;
  }
  ShowOutput out(form, ShowOutput::LIST);
  for (uint32_t number = 1; number <= MIREL_INT_IF_NUM_MAX; ++number) {
    out.record();
    entryPrint(out, number, "\n Interface(intIfNum) : ", "Stack intf name..............");
  }
  out.row({TAIL});
}

int mirelStkIfNameGet(uint32_t intIfNum, char *name) {
  constexpr const char *OPERATION = "mirelStkIfNameGet";
  uint32_t type = INTF_TYPE_PRESET;
  if (apiCall(rpcclt_tarnapiRtrIntfTypeGet, intIfNum, &type) != TARN_OK) {
    MIREL_LOG(SEVERITY_ERROR, "Failed to get the interface type of the interface %d.", intIfNum);
    return 1;
  }
  if (type == INTF_TYPE_TUNNEL) {
    MIREL_LOG(SEVERITY_ERROR, "Failed to get the stack interface name for the tunnel interface %d.", intIfNum);
    return 1;
  }
  memset(name, 0, STK_IF_NAME_SIZE);
  const tarn_buffdesc descriptor{.size = STK_IF_NAME_SIZE, .pstart = name};
  const int32_t status = apiCall(rpcclt_tarnapiRtrIntfIpStackStkNameGet, mirelVrfId, intIfNum, &descriptor);
  if (status != TARN_OK) {
    MIREL_TRACE(TRACE_GENERAL, OPERATION, "Failed to get Stack intf Name for intIfNum %u. Error %d\n", intIfNum,
                status);
    return 1;
  }
  name[STK_IF_NAME_SIZE - 1] = '\0'; // a name that fills the buffer comes without
  MIREL_TRACE(TRACE_GENERAL, OPERATION, "%s is the stack interface name for interface %d\n", name, intIfNum);
  return 0;
}

int mirelStkIfIndexGet(uint32_t intIfNum, uint32_t *ifIndex) {
  char name[STK_IF_NAME_SIZE] = {};
  if (mirelStkIfNameGet(intIfNum, name) != 0) {
    MIREL_LOG(SEVERITY_ERROR, "Failed to get the stack interface name of the interface %d.", intIfNum);
    return 1;
  }
  const UniqueFd sock(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!sock) {
    MIREL_LOG(SEVERITY_ERROR, "Failed to open socket to get the stack ifIndex of the interface %d.", intIfNum);
    return 1;
  }
  uint32_t answer = 0;
  if (!kernelIndexAsk(sock.get(), name, &answer)) {
    MIREL_LOG(SEVERITY_ERROR, "Failed to get the stack ifIndex of the interface %d.", intIfNum);
    return 1;
  }
  *ifIndex = answer;
  MIREL_TRACE(TRACE_GENERAL, "mirelStkIfIndexGet", "%u is the stack ifIndex for interface %d\n", answer, intIfNum);
  return 0;
}

int mirelIntfFlap(const char *stkIfName) {
  enum : uint32_t { CLEAR = 0, SET = 1 };
  if (stkIfName == nullptr) {
    MIREL_LOG(SEVERITY_ERROR, "Invalid interface! Failed to flap the interface.");
    return 1;
  }
  if (osapiIfFlagChange(stkIfName, IFF_UP, CLEAR) != 0) {
    const int error = errno;
    MIREL_LOG(SEVERITY_ERROR, "Failed to reset the IFF_UP flag on the interface %s. error:%d (%s)", stkIfName, error,
              strerror(error));
    return 1;
  }
  if (osapiIfFlagChange(stkIfName, IFF_UP, SET) != 0) {
    const int error = errno;
    MIREL_LOG(SEVERITY_ERROR, "Failed to set the IFF_UP flag on the interface %s. error:%d (%s)", stkIfName, error,
              strerror(error));
    return 1;
  }
  return 0;
}
