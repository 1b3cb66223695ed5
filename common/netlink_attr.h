// Walks of netlink data as the kernel's messages hold it: messages in a datagram, attributes behind a message's header.
// Both stop at the first element that does not fit; nothing is read beyond the bytes given, whatever lengths they claim.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <span>

using NetlinkBytes = std::span<const std::byte>;

// Steps from element to element; Element::parse() reads the one at the front of the bytes and says whether there is one.
template <typename Element> class NetlinkWalk {
public:
  class Iterator {
  public:
    explicit Iterator(NetlinkBytes rest) : rest_(rest) { load(); }
    const Element &operator*() const { return element_; }
    Iterator &operator++() {
      const size_t step = (element_.length + size_t{3}) & ~size_t{3};
      rest_ = rest_.subspan(std::min(step, rest_.size()));
      load();
      return *this;
    }
    bool operator==(std::nullptr_t) const { return !valid_; }

  private:
    void load() { valid_ = Element::parse(rest_, element_); }

    NetlinkBytes rest_;
    Element element_{};
    bool valid_ = false;
  };

  explicit NetlinkWalk(NetlinkBytes bytes) : bytes_(bytes) {}
  Iterator begin() const { return Iterator(bytes_); }
  std::nullptr_t end() const { return nullptr; }

private:
  NetlinkBytes bytes_;
};

struct NetlinkAttr {
  size_t length; // header and data
  uint16_t type;
  NetlinkBytes data;

  static bool parse(NetlinkBytes bytes, NetlinkAttr &attr) {
    rtattr header;
    if (bytes.size() < sizeof header) {
      return false;
    }
    memcpy(&header, bytes.data(), sizeof header);
    if (header.rta_len < sizeof header || header.rta_len > bytes.size()) {
      return false;
    }
    attr = {header.rta_len, header.rta_type, bytes.subspan(sizeof header, header.rta_len - sizeof header)};
    return true;
  }
};

struct NetlinkMessage {
  size_t length; // header and payload
  uint16_t type;
  uint16_t flags;
  uint32_t seq;
  NetlinkBytes payload;

  static bool parse(NetlinkBytes bytes, NetlinkMessage &message) {
    nlmsghdr header;
    if (bytes.size() < sizeof header) {
      return false;
    }
    memcpy(&header, bytes.data(), sizeof header);
    if (header.nlmsg_len < sizeof header || header.nlmsg_len > bytes.size()) {
      return false;
    }
    message = {header.nlmsg_len, header.nlmsg_type, header.nlmsg_flags, header.nlmsg_seq,
               bytes.subspan(sizeof header, header.nlmsg_len - sizeof header)};
    return true;
  }
};

inline NetlinkWalk<NetlinkAttr> netlinkAttrs(NetlinkBytes bytes) {
  return NetlinkWalk<NetlinkAttr>(bytes);
}

inline NetlinkWalk<NetlinkMessage> netlinkMessages(NetlinkBytes bytes) {
  return NetlinkWalk<NetlinkMessage>(bytes);
}
