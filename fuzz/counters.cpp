// The kernel's file of counters and, behind a NUL, that of its release. Both are memory files, made once.

#include "agent.h"

#include "snmp_monitor.h"

#include <algorithm>
#include <cstdlib>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

namespace {

class MemoryFile {
public:
  void make() {
    fd_ = memfd_create("fuzz", MFD_CLOEXEC);
    path_ = "/proc/self/fd/" + std::to_string(fd_);
  }
  const char *path() const { return path_.c_str(); }
  void fill(const uint8_t *data, size_t size) const {
    if (ftruncate(fd_, 0) != 0 || pwrite(fd_, data, size, 0) != static_cast<ssize_t>(size)) {
      abort();
    }
  }

private:
  int fd_ = -1;
  std::string path_;
};

MemoryFile snmp;
MemoryFile release;

} // namespace

int LLVMFuzzerInitialize(int *, char ***) {
  agentSetUp();
  snmp.make();
  release.make();
  return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const uint8_t *end = data + size;
  const uint8_t *snmpEnd = std::find(data, end, '\0');
  const uint8_t *releaseBegin = std::min(snmpEnd + 1, end);
  snmp.fill(data, static_cast<size_t>(snmpEnd - data));
  release.fill(releaseBegin, static_cast<size_t>(end - releaseBegin));
  if (snmpStatsRead(snmp.path(), release.path()) != 0) {
    abort();
  }
  return 0;
}
