// The change queue of one best-route client. Used by orrin's one thread.

#include "change_queue.h"

#include "tarnapi_wire.h"

#include <cstring>

namespace orrin {

namespace {

constexpr size_t BEAT_EVERY = 8192; // entries of a long walk between two heartbeats

void appendKey(std::string &out, const Prefix &prefix, tarnwire::RouteChange change) {
  const tarnwire::RouteKey key{prefix.address, prefix.length, change, {}};
  out.append(reinterpret_cast<const char *>(&key), sizeof key);
}

size_t bodyBytes(std::string_view routes) {
  tarnwire::RouteBody body;
  std::memcpy(&body, routes.data(), sizeof body);
  return sizeof body + body.hopCount * sizeof(tarnwire::RouteHop);
}

} // namespace

void ChangeQueue::activate(const RouteMap &table, uint64_t firstBatch, const std::function<void()> &beat) {
  const Kind kind = inherits_ ? REFRESH : ADD;
  size_t walked = 0;
  for (RouteMap::Place place = table.first(); const RouteMap::Entry *entry = table.at(place);
       place = table.next(place)) {
    Kind *withdrawal = waiting_.empty() ? nullptr : waiting_.find(entry->prefix());
    if (withdrawal != nullptr) {
      *withdrawal = REPLACE;
    } else {
      waiting_.insert(entry->prefix(), kind);
    }
    if (++walked % BEAT_EVERY == 0) {
      beat();
    }
  }
  batchNumber_ = firstBatch;
  live_ = true;
}

void ChangeQueue::retire() {
  waiting_ = withdrawn();
  batch_.clear();
  batchRecords_ = 0;
  live_ = false;
  inherits_ = true;
}

void ChangeQueue::note(const Prefix &prefix, Kind what) {
  unsettled_ = unsettled_ || what == DELETE || what == REPLACE;
  if (live_) {
    noteLive(prefix, what);
  } else if (what == DELETE || what == REPLACE) {
    waiting_.insert(prefix, DELETE);
  }
}

void ChangeQueue::noteLive(const Prefix &prefix, Kind what) {
  Kind *pending = waiting_.find(prefix);
  if (pending == nullptr) {
    waiting_.insert(prefix, what);
    return;
  }
  switch (what) {
  case ADD:
  case REFRESH:
    *pending = *pending == DELETE ? REPLACE : *pending;
    break;
  case MODIFY:
    break; // what waits is handed out with the attributes of that moment
  case REPLACE:
    *pending = *pending == ADD ? ADD : REPLACE;
    break;
  case DELETE:
    if (*pending == ADD) {
      waiting_.erase(prefix);
    } else {
      *pending = DELETE;
    }
    break;
  }
}

ChangeQueue::Batch ChangeQueue::fetch(uint64_t received, const RouteMap &table, const AttrTable &attrs, size_t bytes) {
  if (received == batchNumber_) {
    batch_.clear();
    batchRecords_ = 0;
  }
  if (batchRecords_ == 0) {
    ++batchNumber_;
    batch_.clear();
    encode(table, attrs, bytes);
  }
  return {batchNumber_, batchRecords_, batch_, waiting_.empty()};
}

void ChangeQueue::encode(const RouteMap &table, const AttrTable &attrs, size_t bytes) {
  RouteMap::Place place;
  bool placed = false;
  waiting_.takeFront([&](const PrefixMap<Kind>::Entry &entry) {
    const Prefix prefix = entry.prefix();
    std::string_view body;
    if (entry.value != DELETE) {
      // Both maps have one order: the next place is most often the one looked for.
      const RouteMap::Entry *route = placed ? table.at(place) : nullptr;
      if (route == nullptr || route->prefix() != prefix) {
        place = table.notBefore(prefix);
        route = table.at(place);
      }
      body = attrs.body(route->value);
      place = table.next(place);
      placed = true;
    }
    const size_t keys = entry.value == REPLACE ? 2 : 1;
    if (batch_.size() + keys * sizeof(tarnwire::RouteKey) + body.size() > bytes) {
      return false;
    }
    if (entry.value == DELETE || entry.value == REPLACE) {
      appendKey(batch_, prefix, tarnwire::ROUTE_DELETE);
    }
    if (entry.value != DELETE) {
      appendKey(batch_, prefix, entry.value == MODIFY ? tarnwire::ROUTE_MODIFY : tarnwire::ROUTE_ADD);
      batch_.append(body);
    }
    batchRecords_ += static_cast<uint32_t>(keys);
    return true;
  });
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
  for (auto place = waiting_.first(); const auto *entry = waiting_.at(place); place = waiting_.next(place)) {
    if (entry->value == DELETE || entry->value == REPLACE) {
      prefixes.insert(entry->prefix(), DELETE);
    }
  }
  for (std::string_view rest = batch_; !rest.empty();) {
    tarnwire::RouteKey key;
    std::memcpy(&key, rest.data(), sizeof key);
    rest.remove_prefix(sizeof key);
    if (key.change == tarnwire::ROUTE_DELETE) {
      prefixes.insert({key.prefix, key.length}, DELETE);
    } else {
      rest.remove_prefix(bodyBytes(rest));
    }
  }
  return prefixes;
}

} // namespace orrin
