// The change queue of one best-route client. Used by orrin's one thread.

#include "change_queue.h"

#include "tarnapi_wire.h"

#include <algorithm>

namespace orrin {

namespace {

constexpr size_t BEAT_EVERY = 8192; // entries of a long walk between two heartbeats

constexpr tarnwire::RouteChange WIRE_CHANGE[] = {tarnwire::ROUTE_ADD, tarnwire::ROUTE_MODIFY, tarnwire::ROUTE_DELETE};

// Two changes of a prefix as one. An addition counts for more than a modification, which agents ignore for kernel routes.
ChangeQueue::Kind both(ChangeQueue::Kind first, ChangeQueue::Kind second) {
  using enum ChangeQueue::Kind;
  if (second == DELETE || second == REPLACE) {
    return second;
  }
  return first == DELETE || first == REPLACE ? REPLACE : std::min(first, second);
}

} // namespace

void ChangeQueue::activate(const RouteMap &table, const std::function<void()> &beat) {
  size_t walked = 0;
  for (RouteMap::Place place = table.first(); const RouteMap::Entry *entry = table.at(place);
       place = table.next(place)) {
    add(entry->prefix(), ADD);
    if (++walked % BEAT_EVERY == 0) {
      beat();
    }
  }
  live_ = true;
}

void ChangeQueue::retire() {
  waiting_ = withdrawn();
  inFlight_.clear();
  live_ = false;
}

void ChangeQueue::note(const Prefix &prefix, Kind what) {
  const bool withdraws = what == DELETE || what == REPLACE;
  unsettled_ = unsettled_ || withdraws;
  if (live_) {
    add(prefix, what);
  } else if (withdraws) {
    waiting_.insert(prefix, DELETE);
  }
}

void ChangeQueue::add(const Prefix &prefix, Kind what) {
  if (!waiting_.insert(prefix, what)) {
    Kind &waits = *waiting_.find(prefix);
    waits = both(waits, what);
  }
}

// A change in flight is older than what waits for its prefix; the last ones in flight are the newest.
void ChangeQueue::acknowledge(uint32_t connection, size_t handedOut) {
  const size_t known = connection == connection_ ? handedOut : 0;
  for (; inFlight_.size() > known; inFlight_.pop_back()) {
    const Entry &entry = inFlight_.back();
    if (!waiting_.insert(entry.prefix(), entry.value)) {
      Kind &waits = *waiting_.find(entry.prefix());
      waits = both(entry.value, waits);
    }
  }
  inFlight_.clear();
  connection_ = connection;
}

bool ChangeQueue::fetch(const RouteMap &table, const AttrTable &attrs, size_t bytes, std::string &out) {
  const auto append = [&](const Entry &entry, Kind what) {
    const tarnwire::RouteKey key{entry.address, entry.length, WIRE_CHANGE[what], {}};
    out.append(reinterpret_cast<const char *>(&key), sizeof key);
    if (what != DELETE) {
      out.append(attrs.body(*table.find(entry.prefix())));
    }
    inFlight_.push_back({entry.address, what, entry.length});
  };
  const size_t full =
      bytes - (sizeof(tarnwire::RouteKey) + tarnwire::ROUTE_MAX_BYTES); // no room for any further change
  waiting_.takeFront([&](const Entry &entry) {
    if (out.size() > full) {
      return false;
    }
    if (entry.value == REPLACE) {
      append(entry, DELETE);
    }
    append(entry, entry.value == REPLACE ? ADD : entry.value);
    return true;
  });
  return waiting_.empty();
}

bool ChangeQueue::takeSettled() {
  if (!live_ || !unsettled_ || hasWork()) {
    return false;
  }
  unsettled_ = false;
  return true;
}

void ChangeQueue::settle() {
  unsettled_ = false;
  if (!live_) {
    waiting_.clear();
  }
}

PrefixMap<ChangeQueue::Kind> ChangeQueue::withdrawn() const {
  PrefixMap<Kind> prefixes;
  const auto take = [&prefixes](const Entry &entry) {
    if (entry.value == DELETE || entry.value == REPLACE) {
      prefixes.insert(entry.prefix(), DELETE);
    }
  };
  for (auto place = waiting_.first(); const Entry *entry = waiting_.at(place); place = waiting_.next(place)) {
    take(*entry);
  }
  for (const Entry &entry : inFlight_) {
    take(entry);
  }
  return prefixes;
}

} // namespace orrin
