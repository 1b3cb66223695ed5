// What a network namespace's kernel answers to a request that lists all of something.
#pragma once

#include "netlink_attr.h"
#include "unique_fd.h"

#include <cstring>
#include <functional>
#include <optional>
#include <string>

// "<what>: <the text of errno>", for a call that has just failed.
std::string systemError(const std::string &what);

// One netlink socket for dumps of the namespace in which the process is when the first is asked for.
class KernelDump {
public:
  using Each = std::function<void(const NetlinkMessage &message)>;

  // Sends a request of `type` with this header and hands each answer to `each`; `again` is called before the answers are
  // repeated, because the table changed while it was read. Returns what went wrong, empty when nothing did.
  template <typename Header>
  std::string run(uint16_t type, const Header &header, const std::function<void()> &again, const Each &each) {
    struct {
      nlmsghdr netlink;
      Header header;
    } request{};
    static_assert(sizeof request == NLMSG_LENGTH(sizeof(Header)));
    request.netlink.nlmsg_len = sizeof request;
    request.netlink.nlmsg_type = type;
    request.netlink.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    request.header = header;
    return runRequest(&request, sizeof request, again, each);
  }

private:
  enum class End { Complete, Changed, Failed };

  std::string open();
  std::string runRequest(const void *request, size_t size, const std::function<void()> &again, const Each &each);
  End readAnswers(const Each &each, std::string &error);

  UniqueFd fd_;
};

// The message's own header in front of its attributes, nothing when the message is too short for one.
template <typename Header> std::optional<Header> headerOf(const NetlinkMessage &message) {
  Header header;
  if (message.payload.size() < sizeof header) {
    return std::nullopt;
  }
  std::memcpy(&header, message.payload.data(), sizeof header);
  return header;
}

template <typename Header> NetlinkWalk<NetlinkAttr> attrsBehind(const NetlinkMessage &message) {
  return netlinkAttrs(message.payload.subspan(NLMSG_ALIGN(sizeof(Header))));
}

// A number as it stands in the attribute; 0 when the attribute is too short.
inline uint32_t numberOf(const NetlinkAttr &attr) {
  uint32_t value = 0;
  if (attr.data.size() >= sizeof value) {
    std::memcpy(&value, attr.data.data(), sizeof value);
  }
  return value;
}
