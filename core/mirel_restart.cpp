// Agents of the VRF before this one, by the restart flag, and beside it, by a lock. Main thread, during start-up.
//
// The lock is the name of an abstract local socket: it is unique in the network namespace, leaves no file, and is free again
// when the process ends, however it ends. A second name carries the process id, which the kernel does not tell otherwise
// without a listener that accepts.

#include "mirel_restart.h"

#include "mirel_trace.h"
#include "unique_fd.h"

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

namespace {

// A killed predecessor holds the lock until the kernel has ended its last thread.
constexpr int PREDECESSOR_END_MSEC = 2000;
constexpr int RETRY_MSEC = 10;

struct RecordName {
  char text[32];

  RecordName() { snprintf(text, sizeof text, "%s-%u", "Mirel Restart State", mirelVrfId); }
};

struct LockName {
  char text[32];

  LockName() { snprintf(text, sizeof text, "%s-%u", "mirel", mirelVrfId); }
  explicit LockName(uint32_t pid) { snprintf(text, sizeof text, "%s-%u.%u", "mirel", mirelVrfId, pid); }
};

// False when another process has the name. The socket stays open to the end of the process.
bool nameTake(const LockName &name) {
  UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  memcpy(address.sun_path + 1, name.text, sizeof name.text); // behind the NUL of an abstract name
  const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + strlen(name.text));
  const bool taken = bind(fd.get(), reinterpret_cast<const sockaddr *>(&address), length) == 0;
  const int error = errno;
  if (taken) {
    fd.release();
  }
  return taken || error != EADDRINUSE;
}

uint32_t holderFind() {
  const LockName lock;
  const size_t length = strlen(lock.text);
  char line[256];
  uint32_t pid = 0;
  FILE *sockets = fopen("/proc/net/unix", "re");
  while (sockets != nullptr && pid == 0 && fgets(line, sizeof line, sockets) != nullptr) {
    const char *name = strchr(line, '@'); // in the place of the NUL
    if (name != nullptr && strncmp(name + 1, lock.text, length) == 0 && name[1 + length] == '.') {
      pid = static_cast<uint32_t>(strtoul(name + 1 + length + 1, nullptr, 10));
    }
  }
  if (sockets != nullptr) {
    fclose(sockets);
  }
  return pid;
}

} // namespace

bool mirelAgentLock(uint32_t *holder) {
  for (int waited = 0; !nameTake(LockName()); waited += RETRY_MSEC) {
    if (waited >= PREDECESSOR_END_MSEC) {
      *holder = holderFind();
      return false;
    }
    poll(nullptr, 0, RETRY_MSEC);
  }
  nameTake(LockName(mirelPid));
  return true;
}

uint8_t mirelRestartStatusGet() {
  constexpr const char *OPERATION = "mirelRestartStatusGet";
  uint8_t value = 0;
  if (syncdbGet(&syncdbClient, RecordName().text, &value, sizeof value, 0) != 0) {
    MIREL_TRACE(TRACE_GENERAL, OPERATION, "Failed to get the Restart Status from SyncDB for VRF Id - %u\n", mirelVrfId);
    return 1;
  }
  MIREL_TRACE(TRACE_GENERAL, OPERATION, "Mirel Restart Status for VRF Id - %u is %d\n", mirelVrfId, value);
  return value;
}

int mirelRestartStatusSet(uint32_t, SyncdbClient *client, uint8_t value) {
  const RecordName record;
  uint8_t stored = 0;
  if (syncdbGet(client, record.text, &stored, sizeof stored, 0) != 0) {
    return 1;
  }
  if (stored == value) {
    return 0;
  }
  return syncdbSet(client, record.text, &value, sizeof value) == 0 ? 0 : 1;
}
