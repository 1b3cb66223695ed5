// Requests to the kernel's route netlink, one at a time. The kernel handles a request inside send(): its answer, if there is
// one, is waiting when send() returns. So nothing here asks for an acknowledgement, only a dump is ever waited for, and a route's
// request does not even look for an answer where it can tell that there is none (answer_watch.h).
#pragma once

#include "answer_watch.h"
#include "netlink_attr.h"
#include "unique_fd.h"

#include <array>
#include <cstdint>
#include <cstring>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>

// A request under construction: netlink header, the family's header, attributes.
class NetlinkRequest {
public:
  template <typename FamilyHeader>
  NetlinkRequest(uint16_t type, uint16_t flags, const FamilyHeader &familyHeader) : used_(sizeof header_) {
    header_.nlmsg_type = type;
    header_.nlmsg_flags = static_cast<uint16_t>(NLM_F_REQUEST | flags);
    put(&familyHeader, sizeof familyHeader);
  }

  void attr(uint16_t type, const void *data, size_t size) {
    const rtattr header = {static_cast<uint16_t>(sizeof header + size), type};
    put(&header, sizeof header);
    put(data, size);
  }
  void attr32(uint16_t type, uint32_t value) { attr(type, &value, sizeof value); }
  void attrText(uint16_t type, const char *text) { attr(type, text, strlen(text) + 1); }

  // The request as it goes out, with its sequence number.
  NetlinkBytes numbered(uint32_t seq) {
    header_.nlmsg_len = static_cast<uint32_t>(used_);
    header_.nlmsg_seq = seq;
    memcpy(bytes_.data(), &header_, sizeof header_);
    return {bytes_.data(), used_};
  }

private:
  static constexpr size_t CAPACITY = 128; // a device name and four numbers, the most that any request carries, fit

  void put(const void *data, size_t size) {
    memcpy(bytes_.data() + used_, data, size);
    memset(bytes_.data() + used_ + size, 0, NLMSG_ALIGN(size) - size);
    used_ += NLMSG_ALIGN(size);
  }

  nlmsghdr header_{};
  size_t used_;
  std::array<std::byte, CAPACITY> bytes_;
};

struct NetlinkResult {
  bool carried = false; // false: the request did not reach the kernel or its answer was lost, and error says why
  int error = 0;        // else what the kernel refused it with, 0 = done

  bool done() const { return carried && error == 0; }
};

// A socket that only the kernel can write to, with a large receive buffer and a receive time-out. Empty on failure, with
// errno.
UniqueFd netlinkOpen();

// Sends one request under the next number of `seq` and takes its answer. The start of the payload of the kernel's reply,
// where it sends one, is copied to `reply`. A watch that can tell that there is no answer saves the look for one.
NetlinkResult netlinkAsk(int fd, uint32_t &seq, NetlinkRequest &request, std::span<std::byte> reply = {},
                         AnswerWatch *watch = nullptr);

// Sends a dump request and reads the answer to its end, calling onEach with the payload of every message of `type`.
struct NetlinkDump {
  bool complete = false;    // read to its end; otherwise error says why not
  bool interrupted = false; // what was dumped changed meanwhile: something may be missing
  int error = 0;
};
NetlinkDump netlinkDump(int fd, uint32_t &seq, NetlinkRequest &request, uint16_t type,
                        void (*onEach)(NetlinkBytes payload, void *context), void *context);

// Asks for the kernel index of a device, by name, in the namespace of the socket: ENODEV if there is none.
NetlinkResult netlinkDeviceIndex(int fd, uint32_t &seq, const char *device, uint32_t &ifIndex);
