// The kernel's side of a comparison: one netlink dump of the agent's routes in the namespace of a VRF. The kernel filters
// the dump by table and protocol, so that a million routes of others cost nothing.
#include "orrinctl_mirror.h"
#include "unique_fd.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <map>
#include <net/if.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/time.h>

namespace {

constexpr uint8_t AGENT_PROTOCOL = 25;
constexpr int DUMP_ATTEMPTS = 2;
constexpr time_t DUMP_TIMEOUT_S = 30;
constexpr size_t DUMP_BUFFER = 64 * 1024; // the kernel fills at most 32 KiB a read

struct DumpRequest {
  nlmsghdr header;
  rtmsg route;
};
static_assert(sizeof(DumpRequest) == NLMSG_LENGTH(sizeof(rtmsg)));

std::string systemError(const std::string &what) {
  const int err = errno;
  return what + ": " + std::strerror(err);
}

std::string enterNamespace(const MirrorVrf &vrf) {
  // The default VRF's devices are the switch's own: without a namespace of its own it is compared where we started.
  static const UniqueFd home(open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC));
  if (vrf.netns.empty()) {
    if (vrf.id != 0) {
      return "no network namespace is set (netns)";
    }
    return setns(home.get(), CLONE_NEWNET) == 0 ? std::string() : systemError("cannot enter the own namespace");
  }
  const std::string path = vrf.netns.front() == '/' ? vrf.netns : "/run/netns/" + vrf.netns;
  const UniqueFd ns(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (ns.get() < 0 || setns(ns.get(), CLONE_NEWNET) != 0) {
    return systemError("cannot enter namespace " + path);
  }
  return {};
}

class DeviceIndexes {
public:
  explicit DeviceIndexes(DeviceNames &devices) : devices_(devices) {}

  uint16_t deviceOf(uint32_t index) {
    const auto [entry, isNew] = known_.try_emplace(index, uint16_t{0});
    if (isNew) {
      std::array<char, IF_NAMESIZE> name{};
      const bool found = if_indextoname(index, name.data()) != nullptr;
      entry->second = devices_.idOf(found ? name.data() : "if" + std::to_string(index));
    }
    return entry->second;
  }

private:
  DeviceNames &devices_;
  std::map<uint32_t, uint16_t> known_;
};

template <typename T> bool copyOut(const rtattr *attr, T &value) {
  if (RTA_PAYLOAD(attr) < sizeof value) {
    return false;
  }
  std::memcpy(&value, RTA_DATA(attr), sizeof value);
  return true;
}

void addRoute(const nlmsghdr *message, DeviceIndexes &indexes, std::vector<MirrorRoute> &routes) {
  if (message->nlmsg_type != RTM_NEWROUTE || message->nlmsg_len < NLMSG_LENGTH(sizeof(rtmsg))) {
    return;
  }
  rtmsg header{};
  std::memcpy(&header, NLMSG_DATA(message), sizeof header);
  if (header.rtm_family != AF_INET || header.rtm_protocol != AGENT_PROTOCOL) {
    return;
  }

  MirrorRoute route;
  route.length = header.rtm_dst_len;
  route.type = header.rtm_type;
  uint32_t table = header.rtm_table;
  auto left = static_cast<unsigned>(message->nlmsg_len - NLMSG_LENGTH(sizeof(rtmsg)));
  const auto *attr =
      reinterpret_cast<const rtattr *>(static_cast<const char *>(NLMSG_DATA(message)) + NLMSG_ALIGN(sizeof(rtmsg)));
  for (; RTA_OK(attr, left); attr = RTA_NEXT(attr, left)) {
    uint32_t value = 0;
    switch (attr->rta_type) {
    case RTA_DST:
      route.prefix = copyOut(attr, value) ? ntohl(value) : 0;
      break;
    case RTA_GATEWAY:
      route.gateway = copyOut(attr, value) ? ntohl(value) : 0;
      break;
    case RTA_OIF:
      route.device = copyOut(attr, value) ? indexes.deviceOf(value) : uint16_t{0};
      break;
    case RTA_TABLE:
      copyOut(attr, table);
      break;
    default:
      break;
    }
  }
  if (table == RT_TABLE_MAIN) {
    routes.push_back(route);
  }
}

enum class DumpEnd { Complete, Changed, Failed };

DumpEnd readDumpAnswers(int fd, DeviceIndexes &indexes, std::vector<MirrorRoute> &routes, std::string &error) {
  alignas(nlmsghdr) static std::array<char, DUMP_BUFFER> buffer;
  bool changed = false;
  for (;;) {
    const ssize_t n = recv(fd, buffer.data(), buffer.size(), 0);
    if (n < 0) {
      if (errno == EINTR) {
        continue;
      }
      error = systemError("cannot read the kernel's routes");
      return DumpEnd::Failed;
    }
    auto left = static_cast<unsigned>(n);
    const auto *message = reinterpret_cast<const nlmsghdr *>(buffer.data());
    for (; NLMSG_OK(message, left); message = NLMSG_NEXT(message, left)) {
      changed = changed || (message->nlmsg_flags & NLM_F_DUMP_INTR) != 0;
      if (message->nlmsg_type == NLMSG_DONE) {
        return changed ? DumpEnd::Changed : DumpEnd::Complete;
      }
      if (message->nlmsg_type == NLMSG_ERROR) {
        error = "the kernel refuses to list its routes";
        return DumpEnd::Failed;
      }
      addRoute(message, indexes, routes);
    }
  }
}

std::string openDumpSocket(UniqueFd &fd) {
  fd.reset(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
  if (fd.get() < 0) {
    return systemError("netlink socket");
  }
  // Without strict checking the kernel ignores the filter; what it sends is looked at again in any case.
  const int on = 1;
  setsockopt(fd.get(), SOL_NETLINK, NETLINK_GET_STRICT_CHK, &on, sizeof on);
  const timeval patience{DUMP_TIMEOUT_S, 0};
  setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  return {};
}

} // namespace

std::string readKernelRoutes(const MirrorVrf &vrf, DeviceNames &devices, std::vector<MirrorRoute> &routes) {
  if (std::string error = enterNamespace(vrf); !error.empty()) {
    return error;
  }
  UniqueFd fd;
  if (std::string error = openDumpSocket(fd); !error.empty()) {
    return error;
  }

  DumpRequest request{};
  request.header.nlmsg_len = sizeof request;
  request.header.nlmsg_type = RTM_GETROUTE;
  request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  request.route.rtm_family = AF_INET;
  request.route.rtm_table = RT_TABLE_MAIN;
  request.route.rtm_protocol = AGENT_PROTOCOL;

  DeviceIndexes indexes(devices);
  DumpEnd end = DumpEnd::Changed;
  for (int attempt = 0; attempt < DUMP_ATTEMPTS && end == DumpEnd::Changed; ++attempt) {
    routes.clear();
    ++request.header.nlmsg_seq;
    if (send(fd.get(), &request, sizeof request, 0) < 0) {
      return systemError("cannot ask the kernel for its routes");
    }
    std::string error;
    end = readDumpAnswers(fd.get(), indexes, routes, error);
    if (end == DumpEnd::Failed) {
      return error;
    }
  }
  // A table that never stands still is compared as it was last seen; the answer is as old as the table is anyway.
  std::stable_sort(routes.begin(), routes.end(),
                   [](const MirrorRoute &a, const MirrorRoute &b) { return a.key() < b.key(); });
  return {};
}
