// The filters, in the kernel's packet filter language. A program tests the length first, since a load beyond the end of a
// datagram drops it. Loads take the most significant byte first, so the type, which is in host order, is compared turned
// round. No state, any thread.

#include "netlink_filter.h"

#include <arpa/inet.h>
#include <cstddef>
#include <iterator>
#include <linux/filter.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

namespace {

constexpr uint32_t PASS = UINT32_MAX;
constexpr uint32_t DROP = 0;
constexpr uint32_t TYPE_AT = offsetof(nlmsghdr, nlmsg_type);

constexpr uint32_t ROUTE_AT = sizeof(nlmsghdr);
constexpr uint32_t ROUTE_END = ROUTE_AT + sizeof(rtmsg);
constexpr uint32_t NEIGHBOUR_AT = sizeof(nlmsghdr);
constexpr uint32_t NEIGHBOUR_END = NEIGHBOUR_AT + sizeof(ndmsg);

template <size_t COUNT> void filterAttach(int sock, sock_filter (&program)[COUNT]) {
  const sock_fprog filter{.len = COUNT, .filter = program};
  setsockopt(sock, SOL_SOCKET, SO_ATTACH_FILTER, &filter, sizeof filter);
}

} // namespace

// The numbers in a jump are the instructions to skip, when equal and when not.

void netlinkOwnRoutesDrop(int sock) {
  sock_filter program[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_LEN, 0),
      BPF_JUMP(BPF_JMP | BPF_JGE | BPF_K, ROUTE_END, 0, 7),
      BPF_STMT(BPF_LD | BPF_H | BPF_ABS, TYPE_AT),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, htons(RTM_NEWROUTE), 1, 0),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, htons(RTM_DELROUTE), 0, 4),
      BPF_STMT(BPF_LD | BPF_B | BPF_ABS, ROUTE_AT + offsetof(rtmsg, rtm_table)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, RT_TABLE_MAIN, 0, 2),
      BPF_STMT(BPF_LD | BPF_B | BPF_ABS, ROUTE_AT + offsetof(rtmsg, rtm_protocol)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, OWN_ROUTE_PROTOCOL, 1, 0),
      BPF_STMT(BPF_RET | BPF_K, PASS),
      BPF_STMT(BPF_RET | BPF_K, DROP),
  };
  filterAttach(sock, program);
}

void netlinkOtherNeighboursDrop(int sock) {
  sock_filter program[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_LEN, 0),
      BPF_JUMP(BPF_JMP | BPF_JGE | BPF_K, NEIGHBOUR_END, 0, 6),
      BPF_STMT(BPF_LD | BPF_H | BPF_ABS, TYPE_AT),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, htons(RTM_NEWNEIGH), 2, 0),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, htons(RTM_DELNEIGH), 1, 0),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, htons(RTM_GETNEIGH), 0, 2),
      BPF_STMT(BPF_LD | BPF_B | BPF_ABS, NEIGHBOUR_AT + offsetof(ndmsg, ndm_family)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, AF_INET, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, PASS),
      BPF_STMT(BPF_RET | BPF_K, DROP),
  };
  filterAttach(sock, program);
}
