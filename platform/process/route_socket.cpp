// Opens the route netlink socket and clears the main table of what an earlier agent left in it: routes without a device, or
// through devices that no flap reaches, would otherwise stay for ever. Runs once, at the agent's start, on its main thread.

#include "qvproc.h"
#include "route_netlink.h"

#include <cerrno>
#include <new>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr int PASSES_MAX = 8; // one finds all, one finds nothing more; further ones only if the table changes meanwhile
constexpr uint32_t SEVERITY_WARNING = 4;
constexpr uint32_t COMPONENT_AGENT = 156;

// Removals gathered for one send(): the kernel works through all requests of a datagram, and answers only refused ones.
class RemovalBatch {
public:
  explicit RemovalBatch(RouteNetlinkSock *sock) : sock_(sock) {}

  void add(NetlinkRequest &request) {
    const NetlinkBytes bytes = request.numbered(++sock_->seq);
    if (used_ + bytes.size() > bytes_.size()) {
      flush();
    }
    memcpy(bytes_.data() + used_, bytes.data(), bytes.size());
    used_ += bytes.size();
  }

  // A refusal needs no look: a route that stays is met again by the next pass.
  void flush() {
    if (used_ > 0) {
      send(sock_->fd, bytes_.data(), used_, 0);
      while (recv(sock_->fd, bytes_.data(), bytes_.size(), MSG_DONTWAIT) >= 0 || errno == ENOBUFS || errno == EINTR) {
      }
    }
    used_ = 0;
  }

private:
  RouteNetlinkSock *sock_;
  size_t used_ = 0;
  std::array<std::byte, 16384> bytes_;
};

struct Sweep {
  RemovalBatch batch;
  uint32_t found = 0;
};

void removeIfLeftover(NetlinkBytes payload, void *context) {
  auto *sweep = static_cast<Sweep *>(context);
  rtmsg route;
  if (payload.size() < sizeof route) {
    return;
  }
  memcpy(&route, payload.data(), sizeof route);
  if (route.rtm_family != AF_INET || route.rtm_table != RT_TABLE_MAIN || route.rtm_protocol != AGENT_ROUTE_PROTOCOL) {
    return; // a kernel without strict checking dumps every table
  }
  rtmsg header = route;
  header.rtm_scope = RT_SCOPE_NOWHERE;
  header.rtm_flags = 0;
  NetlinkRequest request(RTM_DELROUTE, 0, header);
  for (const NetlinkAttr &attr : netlinkAttrs(payload.subspan(sizeof route))) {
    if ((attr.type == RTA_DST || attr.type == RTA_PRIORITY) && attr.data.size() == sizeof(uint32_t)) {
      request.attr(attr.type, attr.data.data(), attr.data.size());
    }
  }
  sweep->batch.add(request);
  ++sweep->found;
}

// One pass over the table, on a socket of its own; removing what has been read does not disturb the reading, which goes on
// from a prefix. True when the pass found nothing and missed nothing.
bool sweepOnce(RouteNetlinkSock *sock, NetlinkDump &dump) {
  const UniqueFd dumpFd = netlinkOpen();
  if (!dumpFd) {
    dump.error = errno;
    return false;
  }
  rtmsg wanted{};
  wanted.rtm_family = AF_INET;
  wanted.rtm_table = RT_TABLE_MAIN;
  wanted.rtm_protocol = AGENT_ROUTE_PROTOCOL;
  NetlinkRequest request(RTM_GETROUTE, NLM_F_DUMP, wanted);
  request.attr32(RTA_TABLE, RT_TABLE_MAIN);

  Sweep sweep = {.batch = RemovalBatch(sock)};
  uint32_t seq = 0;
  dump = netlinkDump(dumpFd.get(), seq, request, RTM_NEWROUTE, removeIfLeftover, &sweep);
  sweep.batch.flush();
  const bool noTableYet = dump.error == ENOENT;
  return noTableYet || (dump.complete && !dump.interrupted && sweep.found == 0);
}

} // namespace

void routeLeftoversRemove(RouteNetlinkSock *sock) {
  NetlinkDump dump;
  for (int pass = 0; pass < PASSES_MAX; ++pass) {
    if (sweepOnce(sock, dump)) {
      return;
    }
  }
  qvproc_logf(SEVERITY_WARNING, COMPONENT_AGENT, "platform/process/route_socket", __LINE__,
              "%s: routes of an earlier agent may be left in the main table: %s", sock->name,
              dump.error != 0 ? strerror(dump.error) : "the kernel keeps them");
}

extern "C" int32_t procOsapiRouteNetlinkSocketInit(RouteNetlinkSock *sock) {
  const std::lock_guard lock(routeNetlinkLock);
  UniqueFd fd = netlinkOpen();
  if (!fd) {
    return 1;
  }
  sock->fd = fd.release();
  routeLeftoversRemove(sock);
  if (routeAnswerWatch == nullptr) {
    routeAnswerWatch = new (std::nothrow) AnswerWatch;
  }
  if (routeAnswerWatch != nullptr) {
    routeAnswerWatch->begin(sock->fd);
  }
  return 0;
}
