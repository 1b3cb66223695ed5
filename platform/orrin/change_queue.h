// What a best-route client has still to be told. Changes of one prefix that the client has not fetched become one; they are
// handed out in batches in the order of the prefixes. A batch stays here until the client names it as received, and is
// handed out again when it does not.
//
// A queue outlives its client: retired, it remembers which prefixes were withdrawn that the client may hold, and the next
// client of the same name inherits that.
#pragma once

#include "attr_table.h"
#include "prefix_map.h"

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace orrin {

using RouteMap = PrefixMap<AttrId>;

class ChangeQueue {
public:
  enum Kind : uint8_t {
    ADD,     // not known to the client
    REFRESH, // handed out as an add; the client may hold the prefix already
    MODIFY,
    DELETE,
    REPLACE, // a delete, then an add: what a modify could not express
  };

  struct Batch {
    uint64_t number = 0;
    uint32_t records = 0;
    std::string_view routes; // wire form, valid until the next call
    bool last = false;       // nothing waits behind it
  };

  // Starts handing out, with the whole table first. A queue that was retired before takes care of what the client may
  // hold. Batches are numbered from firstBatch on, which no earlier batch of the client may have had.
  void activate(const RouteMap &table, uint64_t firstBatch, const std::function<void()> &beat);
  void retire();

  // What happened in the table.
  void note(const Prefix &prefix, Kind what);

  // The next batch, of at most `bytes`; the last one once more unless it was received.
  Batch fetch(uint64_t received, const RouteMap &table, const AttrTable &attrs, size_t bytes);

  // True once after the client has fetched and acknowledged everything, if a withdrawal was among it.
  bool takeSettled();
  // All that was withdrawn up to now is known to the client (or never was): forget it.
  void settle();

  bool hasWork() const { return !waiting_.empty() || batchRecords_ != 0; }
  size_t waiting() const { return waiting_.size(); }
  uint32_t inFlight() const { return batchRecords_; }

  // Prefixes whose withdrawal the client may not know, ascending.
  PrefixMap<Kind> withdrawn() const;

private:
  void noteLive(const Prefix &prefix, Kind what);
  void encode(const RouteMap &table, const AttrTable &attrs, size_t bytes);

  bool live_ = false;
  bool inherits_ = false;
  bool unsettled_ = false;
  PrefixMap<Kind> waiting_; // retired: only DELETE
  std::string batch_;
  uint32_t batchRecords_ = 0;
  uint64_t batchNumber_ = 0;
};

} // namespace orrin
