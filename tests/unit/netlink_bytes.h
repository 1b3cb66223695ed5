// Netlink data made by hand or noted down from a kernel, as bytes.
#ifndef MIREL_TESTS_NETLINK_BYTES_H
#define MIREL_TESTS_NETLINK_BYTES_H

#include "netlink_attr.h"

#include <memory>
#include <string>

using Bytes = std::string;

template <class T> Bytes bytesOf(const T &value) {
  return Bytes(reinterpret_cast<const char *>(&value), sizeof value);
}

inline Bytes fromHex(const std::string &digits) {
  Bytes bytes;
  for (size_t at = 0; at + 1 < digits.size(); at += 2) {
    bytes += static_cast<char>(std::stoi(digits.substr(at, 2), nullptr, 16));
  }
  return bytes;
}

inline Bytes zeros(size_t count) {
  return Bytes(count, '\0');
}

inline Bytes aligned(Bytes bytes) {
  bytes.resize((bytes.size() + 3) & ~size_t{3});
  return bytes;
}

inline Bytes attribute(uint16_t type, const Bytes &data) {
  const rtattr header{.rta_len = static_cast<uint16_t>(sizeof header + data.size()), .rta_type = type};
  return aligned(bytesOf(header) + data);
}

inline Bytes message(uint16_t type, const Bytes &payload, uint16_t flags = 0) {
  nlmsghdr header{};
  header.nlmsg_len = static_cast<uint32_t>(sizeof header + payload.size());
  header.nlmsg_type = type;
  header.nlmsg_flags = flags;
  return aligned(bytesOf(header) + payload);
}

// The same bytes with another length in the first message's header.
inline Bytes claiming(uint32_t length, Bytes bytes) {
  memcpy(bytes.data(), &length, sizeof length);
  return bytes;
}

inline Bytes cut(size_t by, Bytes bytes) {
  bytes.resize(bytes.size() - by);
  return bytes;
}

// The same bytes with another one at a place.
inline Bytes with(size_t at, uint8_t value, const Bytes &bytes) {
  return bytes.substr(0, at) + static_cast<char>(value) + bytes.substr(at + 1);
}

// Hands the bytes over in a buffer of their very size, so that the sanitizers see every byte that is read behind it.
template <class Reader> auto readOf(const Bytes &bytes, Reader reader) {
  const auto buffer = std::make_unique<std::byte[]>(bytes.size());
  std::copy_n(reinterpret_cast<const std::byte *>(bytes.data()), bytes.size(), buffer.get());
  return reader(NetlinkBytes(buffer.get(), bytes.size()));
}

// Every length at which a read could break off, as it is and with the first message claiming all of it.
template <class Reader> void readEveryCut(const Bytes &bytes, Reader reader) {
  for (size_t length = 0; length <= bytes.size(); ++length) {
    readOf(bytes.substr(0, length), reader);
    if (length >= sizeof(nlmsghdr)) {
      readOf(claiming(static_cast<uint32_t>(length), bytes.substr(0, length)), reader);
    }
  }
}

#endif
