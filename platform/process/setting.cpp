// IPv4 settings of the namespace and of its devices. Any thread; no state but the note that has been given once.

#include "setting.h"

#include "osapi.h"
#include "qvproc.h"
#include "unique_fd.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr uint32_t SEVERITY_INFO = 6;
constexpr uint32_t COMPONENT_AGENT = 156;
constexpr char LOG_AREA[] = "platform/process/setting";
constexpr char IPV4_SETTINGS[] = "/proc/sys/net/ipv4/";

int32_t ipv4Set(const std::string &name, uint32_t value) {
  return settingWrite(IPV4_SETTINGS + name, value) == 0 ? 0 : 1;
}

} // namespace

int settingWrite(const std::string &path, uint32_t value) {
  const UniqueFd fd(open(path.c_str(), O_WRONLY | O_CLOEXEC));
  if (!fd) {
    return -1;
  }
  const std::string text = std::to_string(std::min<uint32_t>(value, INT_MAX)); // the kernel's settings are signed
  const ssize_t written = write(fd.get(), text.data(), text.size());
  const int error = errno;
  if (written == static_cast<ssize_t>(text.size())) {
    return 0;
  }
  errno = error;
  return -1;
}

extern "C" int32_t osapiIfIpv4IcmpSendDestinationUnreachableSet(const char *name, uint32_t mode) {
  uint32_t ifIndex = 0;
  if (osapiStackIfIndexGet(name, &ifIndex) != 0) {
    return 1;
  }
  static std::atomic<bool> noted{false};
  if (mode == 0 && !noted.exchange(true, std::memory_order_relaxed)) {
    qvproc_logf(SEVERITY_INFO, COMPONENT_AGENT, LOG_AREA, __LINE__,
                "%s: this kernel has no per-device switch for ICMP unreachables; they are still sent", name);
  }
  return 0;
}

// The kernel sends redirects when either the device or "all" says so: "all" is cleared, so that the device decides.
extern "C" int32_t osapiIfIpv4IcmpRedirectSendSet(const char *name, uint32_t mode) {
  uint32_t ifIndex = 0;
  if (osapiStackIfIndexGet(name, &ifIndex) != 0) { // "all" and "default" are folders too, but no devices
    return 1;
  }
  const int32_t result = ipv4Set("conf/" + std::string(name) + "/send_redirects", mode != 0 ? 1 : 0);
  return result == 0 ? ipv4Set("conf/all/send_redirects", 0) : result;
}

extern "C" int32_t osapiIpv4IcmpRatelimitSet(uint32_t burstSize, uint32_t interval) {
  const int32_t result = ipv4Set("icmp_ratelimit", interval);
  return result == 0 ? ipv4Set("icmp_msgs_burst", burstSize) : result;
}

extern "C" int32_t osapiIpv4IcmpIgnoreEchoRequestSet(uint32_t ignore) {
  return ipv4Set("icmp_echo_ignore_all", ignore != 0 ? 1 : 0);
}

extern "C" int32_t osapiIpv4IcmpEchoIgnoreBcastSet(uint32_t ignore) {
  return ipv4Set("icmp_echo_ignore_broadcasts", ignore != 0 ? 1 : 0);
}
