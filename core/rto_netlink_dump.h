// The kernel's side of a resync: a dump of the main table, read in parts between notifications. Listener's thread.
#pragma once

#include "netlink_attr.h"
#include "rto_netlink.h"
#include "unique_fd.h"

// One listener's dumps, one after the other. A dump begins when a resync was requested, at most once in an interval that
// grows while requests do not end. Its routes, its begin and its end go to the task through the queue.
//
// A part of a dump may be older than the notifications that were read before it. For a route notified since the dump began,
// the task therefore ignores the dump; a newer state still has a notification on its way.
class RtoDump {
public:
  explicit RtoDump(RtoNetlinkHandle *handle) : handle_(handle) {}

  // Whether a step can be taken now: a dump is under way, or requested and due, and the queue has room for a part.
  bool ready() const;

  // Milliseconds after which that may have changed; 0 = not before the next request.
  uint32_t waitMsec();

  // Takes one step. The caller has read every notification there is.
  void step();

private:
  static constexpr uint32_t ROOM_MSEC_MIN = 1;
  enum class Stage { IDLE, PREPARE, IPV6, IPV4, IPV4_AGAIN, END };

  bool due() const;
  void begin();
  void partRead();
  bool messagesProcess(NetlinkBytes part); // false: the dump cannot go on
  bool stageEnter(Stage stage);
  void end();
  void breakOff();

  RtoNetlinkHandle *handle_; // its sequence numbers
  UniqueFd sock_;
  Stage stage_ = Stage::IDLE;
  uint32_t roomMsec_ = ROOM_MSEC_MIN; // until the queue is looked at again; doubles while it has no room
  bool complete_ = false;             // no reason yet why a route of the table could be missing from the dump
  uint32_t losses_ = 0;               // so many at the begin
  uint32_t withdrawals_ = 0;          // rtoWithdrawalCount at the begin
};
