// The kernel's first probe of an unknown neighbour is its question to user space, and its own requests follow retrans_time
// apart. With a second between them the first packet waits for a second; with less, a dead host is asked for more often. So a
// thread of the library sends the first request, after the switch has had its time to answer the question, and the kernel sends
// one less. The thread owns the sockets and the questions. What it cannot send is left to the kernel.

#include "arp_request.h"

#include "library_thread.h"
#include "netlink.h"
#include "osapi.h"
#include "qvproc.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <linux/filter.h>
#include <memory>
#include <mutex>
#include <net/if.h>
#include <netinet/if_ether.h>
#include <netpacket/packet.h>
#include <new>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

constexpr uint32_t SEVERITY_WARNING = 4;
constexpr uint32_t COMPONENT_AGENT = 156;
constexpr char LOG_AREA[] = "platform/process/arp_request";

constexpr uint32_t ANSWER_MSEC = 100; // for the switch's answer
constexpr size_t QUESTIONS_MAX = 1024;
constexpr in_port_t ANY_PORT = 9;

struct Question {
  uint32_t askedAt; // milliseconds since boot
  int ifIndex;
  in_addr neighbour;
};

struct Requester {
  UniqueFd questions;                          // netlink
  UniqueFd requests;                           // packet socket, which receives nothing
  std::array<Question, QUESTIONS_MAX> pending; // a ring, the oldest first
  size_t first = 0;
  size_t count = 0;
};

// The numbers in a jump are the instructions to skip, when equal and when not.
UniqueFd questionSocketOpen() {
  UniqueFd fd = netlinkOpen();
  sock_filter program[] = {
      BPF_STMT(BPF_LD | BPF_H | BPF_ABS, offsetof(nlmsghdr, nlmsg_type)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, htons(RTM_GETNEIGH), 0, 1),
      BPF_STMT(BPF_RET | BPF_K, UINT32_MAX),
      BPF_STMT(BPF_RET | BPF_K, 0),
  };
  const sock_fprog filter{.len = std::size(program), .filter = program};
  const int group = RTNLGRP_NEIGH;
  if (!fd || setsockopt(fd.get(), SOL_SOCKET, SO_ATTACH_FILTER, &filter, sizeof filter) != 0 ||
      setsockopt(fd.get(), SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, &group, sizeof group) != 0) {
    return {};
  }
  return fd;
}

void questionNote(const NetlinkMessage &message, Requester &requester) {
  ndmsg header;
  if (message.type != RTM_GETNEIGH || message.payload.size() < sizeof header || requester.count == QUESTIONS_MAX) {
    return;
  }
  memcpy(&header, message.payload.data(), sizeof header);
  Question question{.askedAt = osapiUpTimeMillisecondsGet(), .ifIndex = header.ndm_ifindex, .neighbour = {}};
  for (const NetlinkAttr &attr : netlinkAttrs(message.payload.subspan(sizeof header))) {
    if (header.ndm_family == AF_INET && attr.type == NDA_DST && attr.data.size() == sizeof question.neighbour) {
      memcpy(&question.neighbour, attr.data.data(), sizeof question.neighbour);
      requester.pending[(requester.first + requester.count++) % QUESTIONS_MAX] = question;
      return;
    }
  }
}

void questionsRead(Requester &requester) {
  alignas(nlmsghdr) std::array<std::byte, 1024> buffer;
  ssize_t length;
  while ((length = recv(requester.questions.get(), buffer.data(), buffer.size(), MSG_DONTWAIT)) >= 0 ||
         errno == ENOBUFS) {
    for (const NetlinkMessage &message :
         netlinkMessages({buffer.data(), static_cast<size_t>(std::max<ssize_t>(length, 0))})) {
      questionNote(message, requester);
    }
  }
}

sockaddr_in addressOf(in_addr address) {
  return {.sin_family = AF_INET, .sin_port = htons(ANY_PORT), .sin_addr = address, .sin_zero = {}};
}

// Whether the kernel still asks for the neighbour.
bool isUnresolved(int sock, const Question &question, const char *device) {
  arpreq entry{};
  const sockaddr_in neighbour = addressOf(question.neighbour);
  memcpy(&entry.arp_pa, &neighbour, sizeof neighbour);
  memcpy(entry.arp_dev, device, sizeof entry.arp_dev);
  return ioctl(sock, SIOCGARP, &entry) == 0 && (entry.arp_flags & ATF_COM) == 0;
}

// The address from which the kernel sends to the neighbour on the device.
bool senderFind(int sock, const Question &question, const char *device, in_addr &sender) {
  sockaddr_in local = addressOf(question.neighbour);
  socklen_t length = sizeof local;
  if (setsockopt(sock, SOL_SOCKET, SO_BINDTODEVICE, device, IFNAMSIZ) != 0 ||
      connect(sock, reinterpret_cast<const sockaddr *>(&local), sizeof local) != 0 ||
      getsockname(sock, reinterpret_cast<sockaddr *>(&local), &length) != 0) {
    return false;
  }
  sender = local.sin_addr;
  return true;
}

void requestSend(int packets, const Question &question) {
  const UniqueFd sock(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  ifreq device{};
  device.ifr_ifindex = question.ifIndex;
  in_addr sender{};
  if (ioctl(sock.get(), SIOCGIFNAME, &device) != 0 || !isUnresolved(sock.get(), question, device.ifr_name) ||
      !senderFind(sock.get(), question, device.ifr_name, sender) || ioctl(sock.get(), SIOCGIFHWADDR, &device) != 0 ||
      device.ifr_hwaddr.sa_family != ARPHRD_ETHER) {
    return;
  }
  ether_arp request{};
  request.ea_hdr = {.ar_hrd = htons(ARPHRD_ETHER),
                    .ar_pro = htons(ETHERTYPE_IP),
                    .ar_hln = ETH_ALEN,
                    .ar_pln = sizeof sender,
                    .ar_op = htons(ARPOP_REQUEST)};
  memcpy(request.arp_sha, device.ifr_hwaddr.sa_data, sizeof request.arp_sha);
  memcpy(request.arp_spa, &sender, sizeof request.arp_spa);
  memcpy(request.arp_tpa, &question.neighbour, sizeof request.arp_tpa);
  sockaddr_ll everybody{};
  everybody.sll_family = AF_PACKET;
  everybody.sll_protocol = htons(ETHERTYPE_ARP);
  everybody.sll_ifindex = question.ifIndex;
  everybody.sll_halen = ETH_ALEN;
  memset(everybody.sll_addr, 0xff, ETH_ALEN);
  sendto(packets, &request, sizeof request, MSG_DONTWAIT, reinterpret_cast<const sockaddr *>(&everybody),
         sizeof everybody);
}

// Sends what is due. Returns the milliseconds until the next request is, -1 = none.
int dueSend(Requester &requester) {
  while (requester.count != 0) {
    const Question &oldest = requester.pending[requester.first];
    const uint32_t since = osapiUpTimeMillisecondsGet() - oldest.askedAt;
    if (since < ANSWER_MSEC) {
      return static_cast<int>(ANSWER_MSEC - since);
    }
    requestSend(requester.requests.get(), oldest);
    requester.first = (requester.first + 1) % QUESTIONS_MAX;
    --requester.count;
  }
  return -1;
}

void *run(void *context) {
  const std::unique_ptr<Requester> requester(static_cast<Requester *>(context));
  for (;;) {
    pollfd readable{.fd = requester->questions.get(), .events = POLLIN, .revents = 0};
    poll(&readable, 1, dueSend(*requester));
    questionsRead(*requester);
  }
}

// 0 or an error number.
int start() {
  std::unique_ptr<Requester> requester(new (std::nothrow) Requester{});
  if (!requester) {
    return ENOMEM;
  }
  requester->questions = questionSocketOpen();
  requester->requests.reset(requester->questions ? socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC, 0) : -1);
  if (!requester->requests) {
    return errno;
  }
  const int error = libraryThreadStart("arp-request", run, requester.get());
  if (error == 0) {
    requester.release();
  }
  return error;
}

} // namespace

void arpRequesterStart() {
  static std::mutex startLock;
  static pid_t startedIn = 0; // threads do not survive a fork
  static bool logged = false;
  const std::lock_guard lock(startLock);
  if (startedIn == getpid()) {
    return;
  }
  const int error = start();
  if (error == 0) {
    startedIn = getpid();
  } else if (!logged) {
    logged = true;
    qvproc_logf(SEVERITY_WARNING, COMPONENT_AGENT, LOG_AREA, __LINE__,
                "the first packet to a neighbour waits for the kernel's own ARP request: %s", strerror(error));
  }
}
