// Generic RPC server: a thread that answers request datagrams (rpc_datagram.h) on a local socket by calling the procedures
// that were registered in its program slots, one request at a time. It knows nothing of the procedures.
#pragma once

#include "relaxed.h"
#include "rpc_datagram.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <sys/socket.h>
#include <sys/un.h>

inline constexpr uint32_t RPCSRV_INSTANCES = 16;
inline constexpr uint32_t RPC_PROGRAMS = 7;
inline constexpr int16_t RPC_SIZE_CHANGES = -100; // size of an output slot whose length the handler may change

// One argument inside the request, not aligned; {0, null} when it is absent.
struct rpcArgRef {
  uint32_t length;
  uint8_t *data;
};

// A procedure: slot 0 of args is the place of the result, the arguments begin at 1. What it stores through result, 0 before
// the call, goes into slot 0. Runs on the server's thread.
using RpcHandler = uint32_t (*)(uint32_t argCount, rpcArgRef *const *args, uint32_t *result);

// The slots say what a caller has to send; the server itself looks only for RPC_SIZE_CHANGES.
struct rpcProcDesc {
  RpcHandler handler;
  uint32_t slotCount;
  std::array<int16_t, RPC_MAX_ARGS> slotSizes; // bytes
};

// Descriptors by procedure number; null = no such procedure.
struct rpcProcTable {
  std::span<const rpcProcDesc *const> procedures;
};

// By program slot; null = not registered. Registered by one thread while another serves.
using RpcProgramSlots = std::array<std::atomic<const rpcProcTable *>, RPC_PROGRAMS>;

struct rpcsrvStats {
  Relaxed<uint32_t> repliesSent;
  Relaxed<uint32_t> requestsProcessed;
  Relaxed<uint32_t> replyFailures; // not sent, or not in full
  Relaxed<uint32_t> receiveErrors;
  Relaxed<uint32_t> tooLong;
  Relaxed<uint32_t> socketFailures;
  Relaxed<uint32_t> bindFailures;
  Relaxed<uint32_t> permissionFailures;
};

struct rpcsrvCfg {
  uint32_t mode; // 0: the server makes and binds its socket, and replies to each sender
  sockaddr_un address;
};

enum : int { RPCSRV_ABSENT = 0, RPCSRV_NO_SOCKET = -1 };

// The requests in the queue of a retired socket, and those of senders that wait for room in it.
inline constexpr uint32_t RPCSRV_RETIRED_REQUESTS = 2048;

// One server. Written by the thread that calls the operations below, but for the socket and what stands below it, which
// are the server thread's while it runs.
struct rpcsrvCtrl {
  int32_t inst;
  uint32_t mode;
  sockaddr_un address;
  socklen_t addressLength;
  uint64_t thread; // 0 = none
  RpcProgramSlots programs;
  Relaxed<int> sock; // or RPCSRV_ABSENT, RPCSRV_NO_SOCKET
  uint32_t bound;
  int spare;                // replies while sock is full, or RPCSRV_NO_SOCKET
  int retired;              // is served until it is empty, before sock; or RPCSRV_NO_SOCKET
  uint32_t retiredRequests; // that it takes until it refuses further ones; 0 once it does
  rpcsrvStats *stats;
  uint8_t *message; // RPC_MSG_MAX bytes, for a request and its reply; all 0 between two
  sockaddr_un peer;
  socklen_t peerLength;
};

extern std::array<rpcsrvCtrl, RPCSRV_INSTANCES> rpcsrvCtrls;

// Fill the address of a server or a client: instance is the VRF id, service 0 the agent's. The path stays empty for an
// unknown service.
void rpcsrvSockAddrInit(sockaddr_un *address, uint32_t instance, uint32_t service);
void rpccltSockAddrInit(sockaddr_un *address, uint32_t instance, uint32_t service);

// Makes an absent instance, and its thread if createTask is 1. Returns the socket, which is RPCSRV_NO_SOCKET until the
// thread has made it; 0 on failure.
int rpcsrvInit(uint32_t instance, uint32_t createTask, rpcsrvCfg cfg);

// The table stays valid while the instance lives. Returns 0, or 1 when there is no such slot or server.
int rpcsrvProgramRegister(uint32_t instance, uint32_t program, const rpcProcTable *table);

// Ends the thread, waits for it and releases what the instance holds. Returns 0, also when it is absent, or 1.
int rpcsrvDeInit(uint32_t instance);

// Makes and binds the socket where it is missing. Returns 0, or 1 with the cause in *error.
int rpcsrvSockCreate(rpcsrvCtrl *ctrl, int *error);

void *rpcsrvTask(void *ctrl);

// The socket from which requests are received, and which answers them.
int rpcsrvSockServed(const rpcsrvCtrl &ctrl);

// Sends that many bytes of the buffer to the peer, if they can be sent at once, and counts the outcome.
void rpcsrvReplySend(rpcsrvCtrl &ctrl, size_t length);

// Answers the request of so many bytes, of which the buffer holds the first, in place: returns the length of the reply. The
// buffer has room for at least the header.
size_t rpcsrvMsgProcess(const RpcProgramSlots &programs, std::span<uint8_t> buffer, size_t length);

// A number at any address.
template <typename T> T rpcLoad(const uint8_t *from) {
  T value;
  memcpy(&value, from, sizeof value);
  return value;
}

template <typename T> void rpcStore(uint8_t *to, T value) {
  memcpy(to, &value, sizeof value);
}
