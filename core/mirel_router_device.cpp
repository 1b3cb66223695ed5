// Helpers of the interface handlers. Main thread.

#include "mirel_router_device.h"

#include "api_lock.h"
#include "mirel_trace.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

constexpr char LOG_AREA[] = "application/routing/mirel/core/mirel_router";

// A label that does not fit is cut; the process library makes it one that the kernel takes.
template <typename... Arguments>
void labelFormat(char (&text)[STK_IF_NAME_SIZE], const char *format, Arguments... arguments) {
  char whole[2 * STK_IF_NAME_SIZE + 20] = {};
  snprintf(whole, sizeof whole, format, arguments...);
  memcpy(text, whole, sizeof text - 1);
  text[sizeof text - 1] = '\0';
}

} // namespace

AddressLabel::AddressLabel(const char *device, uint32_t number) {
  labelFormat(text, "%s:%d", device, number);
}

AddressLabel::AddressLabel(const char *device, uint32_t number, uint32_t position) {
  labelFormat(text, "%s:%d_%d", device, number, position);
}

InterfaceDevice::InterfaceDevice(uint32_t intIfNum) : known(mirelStkIfNameGet(intIfNum, name) == 0) {
  if (!known) {
    MIREL_LOG(SEVERITY_ERROR, "Failed to get the stack interface name of the interface %d.", intIfNum);
  }
}

int interfaceMtuApply(uint32_t intIfNum, const char *device) {
  uint32_t mtu = 0;
  if (apiCall(rpcclt_tarnapiIntfIpMtuGet, TARN_FAMILY_IPV4, intIfNum, &mtu) != TARN_OK) {
    MIREL_LOG(SEVERITY_ERROR, "Failed to get the MTU of the interface %d.", intIfNum);
    return 1;
  }
  if (osapiIfIpv4MtuSet(device, mtu) != 0) {
    const int error = errno;
    MIREL_LOG(SEVERITY_ERROR, "Failed to set the MTU (%x) on the interface %d. error:%d (%s)", mtu, intIfNum, error,
              strerror(error));
    return 1;
  }
  return 0;
}
