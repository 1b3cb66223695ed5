// The changes that a best-route client has not fetched yet, in the order of the prefixes. Changes of one prefix become one.
// Every withdrawal is handed out, also that of a route whose addition was not: the client may have the route from the
// routes of an interface. The queue keeps a batch until the client acknowledges it, and puts back what it does not.
//
// A queue outlives its client: retired, it remembers which prefixes were withdrawn that the client may hold, and the next
// client of the same name inherits that.
#pragma once

#include "attr_table.h"
#include "prefix_map.h"

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace orrin {

using RouteMap = PrefixMap<AttrId>;

class ChangeQueue {
public:
  enum Kind : uint8_t {
    ADD, // the client may hold the prefix already
    MODIFY,
    DELETE,
    REPLACE, // a delete, then an add: what a modify could not express
  };

  // Starts handing out, with the whole table first.
  void activate(const RouteMap &table, const std::function<void()> &beat);
  void retire();

  // What happened in the table.
  void note(const Prefix &prefix, Kind what);

  // The client has handed out so many changes of the last batch. This counts only on the connection that the batch was sent
  // on: a client that receives no answer closes its connection. The rest is put back.
  void acknowledge(uint32_t connection, size_t handedOut);
  // Appends the next batch in wire form, at most `bytes`, with the attributes that the table has now. The batch before must be
  // acknowledged. True when nothing waits behind the batch.
  bool fetch(const RouteMap &table, const AttrTable &attrs, size_t bytes, std::string &out);

  // True once after the client has acknowledged everything, if a withdrawal was among it.
  bool takeSettled();
  // All that was withdrawn up to now is known to the client (or never was): forget it.
  void settle();

  bool hasWork() const { return !waiting_.empty() || !inFlight_.empty(); }
  size_t waiting() const { return waiting_.size(); }
  size_t inFlight() const { return inFlight_.size(); }

  // Prefixes whose withdrawal the client may not know, ascending.
  PrefixMap<Kind> withdrawn() const;

private:
  using Entry = PrefixMap<Kind>::Entry;

  void add(const Prefix &prefix, Kind what);

  bool live_ = false;
  bool unsettled_ = false;
  PrefixMap<Kind> waiting_;     // retired: only DELETE
  std::vector<Entry> inFlight_; // the last batch: ADD, MODIFY and DELETE
  uint32_t connection_ = 0;     // that the last batch was sent on
};

} // namespace orrin
