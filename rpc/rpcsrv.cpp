// Instances of the RPC server: their making and unmaking, on the thread that asks for it, and the server's own thread with
// its socket. All that an instance holds is in its control block, since the thread is cancelled at its receive, where no
// destructor runs. What goes wrong is said on standard output.

#include "rpcsrv.h"

#include "osapi.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <pthread.h>
#include <unistd.h>

std::array<rpcsrvCtrl, RPCSRV_INSTANCES> rpcsrvCtrls;

namespace {

// Services that serve through this code, by service number; the agent's is the first.
constexpr std::array<const char *, 8> rpcServiceNames = {"mirel", "svc1", "svc2", "svc3",
                                                         "svc4",  "svc5", "svc6", nullptr};

void addressFill(sockaddr_un *address, const char *format, uint32_t instance, uint32_t service) {
  *address = {};
  address->sun_family = AF_UNIX;
  const char *name = service < rpcServiceNames.size() ? rpcServiceNames[service] : nullptr;
  if (name != nullptr) {
    snprintf(address->sun_path, sizeof address->sun_path, format, name, static_cast<int>(instance));
  }
}

void controlClear(rpcsrvCtrl &ctrl) {
  for (auto &program : ctrl.programs) {
    program = nullptr;
  }
  ctrl.inst = 0;
  ctrl.mode = 0;
  ctrl.address = {};
  ctrl.addressLength = 0;
  ctrl.thread = 0;
  ctrl.sock = RPCSRV_ABSENT;
  ctrl.bound = 0;
  ctrl.spare = RPCSRV_NO_SOCKET;
  ctrl.retired = RPCSRV_NO_SOCKET;
  ctrl.retiredRequests = 0;
  ctrl.stats = nullptr;
  ctrl.message = nullptr;
  ctrl.peer = {};
  ctrl.peerLength = 0;
}

bool dataInit(rpcsrvCtrl &ctrl) {
  ctrl.inst = 1;
  ctrl.sock = RPCSRV_NO_SOCKET;
  ctrl.bound = 0;
  ctrl.message = static_cast<uint8_t *>(calloc(1, RPC_MSG_MAX));
  if (ctrl.message == nullptr) {
    printf("\nmalloc failed for server task");
    return false;
  }
  ctrl.stats = new (std::nothrow) rpcsrvStats{};
  if (ctrl.stats == nullptr) {
    printf("\nmalloc failed for server stats");
    return false;
  }
  return true;
}

void socketClose(int &fd) {
  if (fd >= 0) {
    close(fd);
    fd = RPCSRV_NO_SOCKET;
  }
}

void dataDeInit(rpcsrvCtrl &ctrl) {
  free(ctrl.message);
  printf("\n server task message memory freed");
  delete ctrl.stats;
  printf("\n server statistics memory freed");
  if (ctrl.sock > 0) {
    close(ctrl.sock);
    unlink(ctrl.address.sun_path);
  }
  socketClose(ctrl.spare);
  socketClose(ctrl.retired);
  controlClear(ctrl);
}

bool taskCreate(rpcsrvCtrl &ctrl) {
  ctrl.thread = osapiTaskCreate("GenRPC Server", rpcsrvTask, 0xFFFFFFFF, &ctrl, 65536, 255, 1);
  const int error = errno;
  if (ctrl.thread == 0) {
    printf("\n unable to create server thrd errno=%d (%s)\n", error, strerror(error));
    printf("\n error creating server task");
    return false;
  }
  return true;
}

[[gnu::noinline]] bool socketCreate(rpcsrvCtrl &ctrl) {
  int error = 0;
  if (rpcsrvSockCreate(&ctrl, &error) != 0) {
    printf("\n unable to create server socket errno=%d (%s)\n", error, strerror(error));
    return false;
  }
  return true;
}

// After each receive from the retired socket. A request that came between the last receive and the close would be lost, so
// the socket refuses further ones first.
void retiredReceived(rpcsrvCtrl &ctrl, bool empty) {
  if (ctrl.retiredRequests == 0) {
    if (empty) {
      socketClose(ctrl.retired);
    }
    return;
  }
  ctrl.retiredRequests = empty ? 0 : ctrl.retiredRequests - 1;
  if (ctrl.retiredRequests == 0) {
    shutdown(ctrl.retired, SHUT_RD);
  }
}

// Waits for a datagram and returns its true length, also where the buffer holds less of it; -1 on failure. The one place
// where the thread may be cancelled: here and in the task no variable needs an address, since the address sanitizer takes
// what is left of one on a cancelled stack for a fault.
ssize_t requestReceive(rpcsrvCtrl &ctrl) {
  for (;;) {
    const bool retired = ctrl.retired >= 0;
    memset(&ctrl.peer, 0, sizeof ctrl.peer);
    ctrl.peer.sun_family = AF_UNIX;
    ctrl.peerLength = sizeof ctrl.peer;
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
    const ssize_t length =
        recvfrom(rpcsrvSockServed(ctrl), ctrl.message, RPC_MSG_MAX, MSG_TRUNC | (retired ? MSG_DONTWAIT : 0),
                 reinterpret_cast<sockaddr *>(&ctrl.peer), &ctrl.peerLength);
    const int error = errno;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    if (length < 0 && error == EINTR) {
      continue;
    }
    if (retired) {
      retiredReceived(ctrl, length < 0);
    }
    if (length >= 0 || !retired) {
      return length;
    }
  }
}

// Answers what was received and leaves the buffer clear.
[[gnu::noinline]] void requestServe(rpcsrvCtrl &ctrl, ssize_t received) {
  if (received < 0) {
    ++ctrl.stats->receiveErrors;
    return;
  }
  const auto length = static_cast<size_t>(received);
  if (length > RPC_MSG_MAX) {
    ++ctrl.stats->tooLong;
  }
  ctrl.peer.sun_path[sizeof ctrl.peer.sun_path - 1] = '\0';
  ctrl.peerLength = std::min<socklen_t>(ctrl.peerLength, sizeof ctrl.peer);
  const size_t replyLength = rpcsrvMsgProcess(ctrl.programs, {ctrl.message, RPC_MSG_MAX}, length);
  ++ctrl.stats->requestsProcessed;
  rpcsrvReplySend(ctrl, replyLength);
  memset(ctrl.message, 0, std::max(std::min<size_t>(length, RPC_MSG_MAX), replyLength));
}

} // namespace

void rpcsrvSockAddrInit(sockaddr_un *address, uint32_t instance, uint32_t service) {
  addressFill(address, RPC_SERVER_PATH, instance, service);
}

void rpccltSockAddrInit(sockaddr_un *address, uint32_t instance, uint32_t service) {
  addressFill(address, RPC_CLIENT_PATH, instance, service);
}

int rpcsrvInit(uint32_t instance, uint32_t createTask, rpcsrvCfg cfg) {
  if (instance >= RPCSRV_INSTANCES) {
    return 0;
  }
  rpcsrvCtrl &ctrl = rpcsrvCtrls[instance];
  if (ctrl.sock != RPCSRV_ABSENT) {
    printf("\n server already initialized");
    return 0;
  }
  controlClear(ctrl);
  ctrl.mode = cfg.mode;
  ctrl.address = cfg.address;
  ctrl.address.sun_path[sizeof ctrl.address.sun_path - 1] = '\0';
  if (ctrl.mode == 0) {
    ctrl.addressLength = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + strlen(ctrl.address.sun_path));
  }
  if (!dataInit(ctrl)) {
    printf("\n rpc server data init failed");
    return 0;
  }
  if (!(createTask == 1 ? taskCreate(ctrl) : socketCreate(ctrl))) {
    dataDeInit(ctrl);
    return 0;
  }
  return ctrl.sock;
}

int rpcsrvProgramRegister(uint32_t instance, uint32_t program, const rpcProcTable *table) {
  if (instance >= RPCSRV_INSTANCES || program >= RPC_PROGRAMS) {
    return 1;
  }
  rpcsrvCtrl &ctrl = rpcsrvCtrls[instance];
  if (ctrl.sock == RPCSRV_ABSENT) {
    printf("\n server not present");
    return 1;
  }
  ctrl.programs[program].store(table, std::memory_order_release);
  return 0;
}

int rpcsrvDeInit(uint32_t instance) {
  if (instance >= RPCSRV_INSTANCES) {
    return 1;
  }
  rpcsrvCtrl &ctrl = rpcsrvCtrls[instance];
  if (ctrl.sock == RPCSRV_ABSENT) {
    printf("\n server already de-initialized");
    return 0;
  }
  if (ctrl.thread != 0) {
    int error = pthread_cancel(ctrl.thread);
    if (error == 0) { // it may be in the midst of a request, and works in the memory that is freed below
      error = pthread_join(ctrl.thread, nullptr);
    }
    if (error != 0) {
      printf("\n unable to cancel the server thrd errno=%d (%s)\n", error, strerror(error));
      printf("\n failed to cancel the server task");
      return 1;
    }
  }
  dataDeInit(ctrl);
  return 0;
}

void *rpcsrvTask(void *arg) {
  const int error = pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
  if (error != 0) {
    printf("\n unable to set the thrd as errno=%d (%s)\n", error, strerror(error));
    return nullptr;
  }
  auto *ctrl = static_cast<rpcsrvCtrl *>(arg);
  if (ctrl == nullptr) {
    printf("\nError creating the rpcsrvTask pctrl is a NULLptr");
    return nullptr;
  }
  if (ctrl->inst < 0) {
    printf("\nError creating the rpcsrvTask :inst = %d ", ctrl->inst);
    return nullptr;
  }
  for (;;) {
    if (ctrl->sock < 0 && !socketCreate(*ctrl)) {
      return nullptr;
    }
    if (ctrl->sock <= 0) { // a mode that makes none, or no server at all
      return nullptr;
    }
    requestServe(*ctrl, requestReceive(*ctrl));
  }
}
