// The sockets of an RPC server, which its control block owns, and its replies. On the server's thread. No reply waits for a
// client, and clients that do not read cost the others nothing: the kernel charges unread replies to the socket that sent
// them, and when that one is full, another sends or takes its place.

#include "rpcsrv.h"

#include <cerrno>
#include <cstdio>
#include <linux/sockios.h>
#include <string_view>
#include <sys/ioctl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr mode_t SOCKET_MODE = 0777;
// The numbers that the two messages of a failed socket carry in the place of a source line.
constexpr int SOCKET_FAILED_LINE = 127;
constexpr int BIND_FAILED_LINE = 161;

// Bytes of unread replies, of which the kernel allows twice as many.
constexpr int SEND_BUFFER = 32 << 20;
constexpr int CONNECTED_SEND_BUFFER = 2 * SEND_BUFFER;
constexpr int RETIRED_SEND_BUFFER = 512 << 20; // the largest replies to all that a retired socket still takes

// Without the right to exceed the machine's limit, the limit is what it gets.
void sendBufferSet(int fd, int bytes) {
  if (setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &bytes, sizeof bytes) != 0) {
    setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &bytes, sizeof bytes);
  }
}

bool sendBufferFull(int fd) {
  int unread = 0;
  int limit = 0;
  socklen_t length = sizeof limit;
  return ioctl(fd, SIOCOUTQ, &unread) == 0 && getsockopt(fd, SOL_SOCKET, SO_SNDBUF, &limit, &length) == 0 &&
         unread >= limit;
}

int socketOpen(rpcsrvCtrl &ctrl, int *error) {
  const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  *error = fd < 0 ? errno : 0;
  if (fd < 0) {
    ++ctrl.stats->socketFailures;
    return RPCSRV_NO_SOCKET;
  }
  sendBufferSet(fd, SEND_BUFFER);
  return fd;
}

bool socketBind(rpcsrvCtrl &ctrl, int fd, const sockaddr_un &address, int *error) {
  const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + strlen(address.sun_path));
  if (bind(fd, reinterpret_cast<const sockaddr *>(&address), length) != 0) {
    *error = errno;
    ++ctrl.stats->bindFailures;
    return false;
  }
  if (chmod(address.sun_path, SOCKET_MODE) != 0) {
    *error = errno;
    ++ctrl.stats->permissionFailures;
    return false;
  }
  return true;
}

// A server asks nothing. Whoever gives the path of one as his own would have two servers, or one and itself, answer each other
// without end.
bool peerIsServer(const sockaddr_un &peer) {
  constexpr std::string_view PATH(RPC_SERVER_PATH);
  return std::string_view(peer.sun_path).starts_with(PATH.substr(0, PATH.find('%')));
}

ssize_t replyTry(const rpcsrvCtrl &ctrl, int fd, size_t length) {
  ssize_t sent;
  do {
    sent = sendto(fd, ctrl.message, length, MSG_DONTWAIT | MSG_NOSIGNAL, reinterpret_cast<const sockaddr *>(&ctrl.peer),
                  ctrl.peerLength);
  } while (sent < 0 && errno == EINTR);
  return sent;
}

// From a socket that is replaced when it is full. It has no address, so the client does not see who sent the reply.
ssize_t spareReply(rpcsrvCtrl &ctrl, size_t length) {
  if (ctrl.spare >= 0 && sendBufferFull(ctrl.spare)) {
    close(ctrl.spare);
    ctrl.spare = RPCSRV_NO_SOCKET;
  }
  if (ctrl.spare < 0) {
    int error;
    ctrl.spare = socketOpen(ctrl, &error);
  }
  return replyTry(ctrl, ctrl.spare, length);
}

// Binds the spare at a name that nobody can guess and occupy, and renames it: the path leads to a socket at every moment.
bool spareTakesPath(rpcsrvCtrl &ctrl) {
  int error;
  uint32_t suffix;
  sockaddr_un address = ctrl.address;
  char *end = address.sun_path + strlen(address.sun_path);
  if (getrandom(&suffix, sizeof suffix, 0) != sizeof suffix) {
    return false;
  }
  snprintf(end, static_cast<size_t>(std::end(address.sun_path) - end), ".%08x", suffix);
  if (socketBind(ctrl, ctrl.spare, address, &error) && rename(address.sun_path, ctrl.address.sun_path) == 0) {
    return true;
  }
  unlink(address.sun_path);
  close(ctrl.spare);
  ctrl.spare = RPCSRV_NO_SOCKET;
  return false;
}

// Replaces a socket whose buffer is full. The old one answers what it has received and is closed then. After that the next
// request of a client that is connected to it fails, as after a restart of the server.
void socketRetire(rpcsrvCtrl &ctrl) {
  if (spareTakesPath(ctrl)) {
    ctrl.retired = ctrl.sock;
    ctrl.retiredRequests = RPCSRV_RETIRED_REQUESTS;
    ctrl.sock = ctrl.spare;
    ctrl.spare = RPCSRV_NO_SOCKET;
    sendBufferSet(ctrl.retired, RETIRED_SEND_BUFFER);
  }
}

// A client that is connected takes replies from that socket alone, and its queue has no limit for them.
ssize_t connectedReply(rpcsrvCtrl &ctrl, size_t length) {
  sendBufferSet(ctrl.sock, CONNECTED_SEND_BUFFER);
  const ssize_t sent = replyTry(ctrl, ctrl.sock, length);
  if (sent < 0 && errno == EAGAIN && sendBufferFull(ctrl.sock)) {
    socketRetire(ctrl);
    return replyTry(ctrl, rpcsrvSockServed(ctrl), length);
  }
  sendBufferSet(ctrl.sock, SEND_BUFFER);
  return sent;
}

ssize_t replyDeliver(rpcsrvCtrl &ctrl, size_t length) {
  ssize_t sent = replyTry(ctrl, rpcsrvSockServed(ctrl), length);
  if (sent >= 0 || errno != EAGAIN) {
    return sent;
  }
  // EAGAIN means that the buffer is full or that the client's queue is. Only this thread fills the buffer: if it has room now,
  // a second EAGAIN means the client.
  if (ctrl.retired >= 0 || !sendBufferFull(ctrl.sock)) {
    return replyTry(ctrl, rpcsrvSockServed(ctrl), length);
  }
  sent = spareReply(ctrl, length);
  return sent < 0 && errno == EPERM ? connectedReply(ctrl, length) : sent; // EPERM: connected to another socket
}

} // namespace

int rpcsrvSockCreate(rpcsrvCtrl *ctrl, int *error) {
  if (ctrl == nullptr) {
    printf("\n pctrl is null");
    return 1;
  }
  if (ctrl->mode != 0) {
    return 0;
  }
  if (ctrl->sock == RPCSRV_ABSENT) { // no counters, no path
    *error = EINVAL;
    return 1;
  }
  if (ctrl->sock < 0) {
    ctrl->sock = socketOpen(*ctrl, error);
    ctrl->bound = 0;
  }
  if (ctrl->sock < 0) {
    printf("\n in %s line %d, socket create failed \n", "rpcsrvSockCreate", SOCKET_FAILED_LINE);
    return 1;
  }
  if (ctrl->bound != 0) {
    return 0;
  }
  unlink(ctrl->address.sun_path); // what an earlier process left
  if (socketBind(*ctrl, ctrl->sock, ctrl->address, error)) {
    ctrl->bound = 1;
    return 0;
  }
  close(ctrl->sock);
  ctrl->sock = RPCSRV_NO_SOCKET;
  printf("\n in %s line %d socket bind failed \n", "rpcsrvSockCreate", BIND_FAILED_LINE);
  return 1;
}

int rpcsrvSockServed(const rpcsrvCtrl &ctrl) {
  return ctrl.retired >= 0 ? ctrl.retired : int{ctrl.sock};
}

void rpcsrvReplySend(rpcsrvCtrl &ctrl, size_t length) {
  const bool sent = !peerIsServer(ctrl.peer) && replyDeliver(ctrl, length) == static_cast<ssize_t>(length);
  ++(sent ? ctrl.stats->repliesSent : ctrl.stats->replyFailures);
}
