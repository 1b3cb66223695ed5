// Requests of the RPC and their replies, made and read without the server's own code but for the CRC.
#ifndef MIREL_TESTS_RPC_TEST_H
#define MIREL_TESTS_RPC_TEST_H

#include "rpc_crc.h"
#include "rpc_datagram.h"
#include "unique_fd.h"

#include <cstring>
#include <filesystem>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <vector>

using Bytes = std::vector<uint8_t>;
using Slot = std::optional<Bytes>; // none = absent

inline Bytes word(uint32_t value) {
  Bytes bytes(sizeof value);
  memcpy(bytes.data(), &value, sizeof value);
  return bytes;
}

inline void put(Bytes &bytes, size_t at, uint32_t value) {
  memcpy(&bytes.at(at), &value, sizeof value);
}

inline uint32_t get(const Bytes &bytes, size_t at) {
  uint32_t value;
  memcpy(&value, &bytes.at(at), sizeof value);
  return value;
}

// Puts length and CRC right after a change.
inline Bytes sealed(Bytes bytes) {
  put(bytes, offsetof(RpcMsgHeader, totalLength), static_cast<uint32_t>(bytes.size()));
  put(bytes, bytes.size() - RPC_CRC_SIZE, rpcCrc32(bytes.data(), bytes.size() - RPC_CRC_SIZE));
  return bytes;
}

// Records one after the other, so that all behind an odd one are unaligned.
inline Bytes request(uint32_t procedure, const std::vector<Slot> &slots, uint32_t program = 0) {
  Bytes bytes(sizeof(RpcMsgHeader));
  put(bytes, offsetof(RpcMsgHeader, program), program);
  put(bytes, offsetof(RpcMsgHeader, procedure), procedure);
  put(bytes, offsetof(RpcMsgHeader, argCount), static_cast<uint32_t>(slots.size()));
  for (size_t i = 0; i < slots.size(); ++i) {
    put(bytes, offsetof(RpcMsgHeader, argOffset) + i * 4, static_cast<uint32_t>(bytes.size() - sizeof(RpcMsgHeader)));
    const Bytes length = word(slots[i] ? static_cast<uint32_t>(slots[i]->size()) : uint32_t(RPC_ARG_ABSENT));
    bytes.insert(bytes.end(), length.begin(), length.end());
    if (slots[i]) {
      bytes.insert(bytes.end(), slots[i]->begin(), slots[i]->end());
    }
  }
  bytes.resize(bytes.size() + RPC_CRC_SIZE);
  return sealed(bytes);
}

inline int32_t statusOf(const Bytes &reply) {
  return static_cast<int32_t>(get(reply, offsetof(RpcMsgHeader, status)));
}

// Where the bytes of a slot lie.
inline size_t slotAt(const Bytes &message, size_t slot) {
  return sizeof(RpcMsgHeader) + get(message, offsetof(RpcMsgHeader, argOffset) + slot * 4) + sizeof(int32_t);
}

inline Bytes refusal() {
  Bytes bytes(sizeof(RpcMsgHeader));
  put(bytes, 0, 124);
  return bytes;
}

// A client of one server, bound to a path of its own, or to none.
class Client {
public:
  Client(const char *serverPath, const char *path)
      : server_(address(serverPath)), sock_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    const timeval limit{10, 0};
    setsockopt(sock_.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    if (path != nullptr) {
      std::filesystem::remove(path);
      const sockaddr_un own = address(path);
      EXPECT_EQ(bind(sock_.get(), reinterpret_cast<const sockaddr *>(&own), sizeof own), 0);
    }
  }

  // From then on it sends to the socket that is at the path now, and receives from no other.
  void connect() {
    EXPECT_EQ(::connect(sock_.get(), reinterpret_cast<const sockaddr *>(&server_), sizeof server_), 0);
    connected_ = true;
  }

  // False when there is no server.
  bool trySend(const Bytes &message) const {
    return sendto(sock_.get(), message.data(), message.size(), 0,
                  connected_ ? nullptr : reinterpret_cast<const sockaddr *>(&server_),
                  connected_ ? 0 : sizeof server_) == static_cast<ssize_t>(message.size());
  }

  void send(const Bytes &message) const { EXPECT_TRUE(trySend(message)); }

  Bytes reply() const {
    Bytes bytes(RPC_MSG_MAX + 1);
    const ssize_t length = recv(sock_.get(), bytes.data(), bytes.size(), 0);
    EXPECT_GE(length, 0) << "no reply";
    bytes.resize(length < 0 ? 0 : static_cast<size_t>(length));
    return bytes;
  }

  Bytes call(const Bytes &message) const {
    send(message);
    return reply();
  }

private:
  static sockaddr_un address(const char *path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, path);
    return address;
  }

  sockaddr_un server_;
  UniqueFd sock_;
  bool connected_ = false;
};

#endif
