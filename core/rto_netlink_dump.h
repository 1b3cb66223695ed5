// The kernel's side of a resync: a dump of the main table, read in parts between notifications. Listener's thread.
#pragma once

#include "netlink_attr.h"
#include "rto_netlink.h"
#include "unique_fd.h"

// One listener's dumps, one after the other. A dump begins when a resync was requested, at most once in an interval that
// grows while requests do not end. Its routes, its begin and its end go to the task through the queue.
//
// A part of a dump may be older than the notifications that were read before it. The task therefore takes a notification's
// word against the dump's; and a notification that arrives later is newer.
class RtoDump {
public:
  explicit RtoDump(RtoNetlinkHandle *handle) : handle_(handle) {}

  // Takes one step, if one is due and the queue has room for what it brings. Returns whether it did. The caller has read
  // every notification there is.
  bool step();

  // Milliseconds until the next step may be due, -1 = not before a request.
  int waitMsec() const;

private:
  static constexpr int ROOM_MSEC_MIN = 1;
  enum class Stage { IDLE, PREPARE, IPV6, IPV4, END };

  bool stepTake();
  bool begin();
  bool partRead();
  bool messagesProcess(NetlinkBytes part); // false: the dump cannot go on
  bool stageEnter(Stage stage);
  void end();
  void breakOff();

  RtoNetlinkHandle *handle_; // its sequence numbers
  UniqueFd sock_;
  Stage stage_ = Stage::IDLE;
  int roomMsec_ = ROOM_MSEC_MIN; // until the queue is looked at again; doubles while it has no room
  bool complete_ = false;        // no reason yet why a route of the table could be missing from the dump
  uint32_t withdrawals_ = 0;     // rtoWithdrawalCount at the begin
};
