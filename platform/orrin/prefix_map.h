// An ordered map of IPv4 prefixes in two levels: sorted chunks of entries, and the sorted list of the chunks. A million
// prefixes take 8 bytes each and what their value needs; order is by address, then by length.
#pragma once

#include "grammar.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace orrin {

template <class Value> class PrefixMap {
public:
  struct Entry {
    uint32_t address;
    Value value;
    uint8_t length;

    Prefix prefix() const { return {address, length}; }
  };

  // A place in the map; any insertion or removal makes it invalid.
  struct Place {
    size_t chunk = 0;
    size_t index = 0;
  };

  size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }

  void clear() {
    chunks_.clear();
    size_ = 0;
  }

  Place first() const { return {}; }

  // The first place not before the prefix.
  Place notBefore(const Prefix &prefix) const {
    const Place place = locate(order(prefix));
    const bool behindChunk = place.chunk < chunks_.size() && place.index == chunks_[place.chunk].entries.size();
    return behindChunk ? Place{place.chunk + 1, 0} : place;
  }

  Entry *at(const Place &place) {
    return place.chunk < chunks_.size() ? &chunks_[place.chunk].entries[place.index] : nullptr;
  }
  const Entry *at(const Place &place) const {
    return place.chunk < chunks_.size() ? &chunks_[place.chunk].entries[place.index] : nullptr;
  }

  Place next(Place place) const {
    return ++place.index < chunks_[place.chunk].entries.size() ? place : Place{place.chunk + 1, 0};
  }

  Value *find(const Prefix &prefix) {
    const Place place = locate(order(prefix));
    Entry *entry = holds(place, prefix) ? &chunks_[place.chunk].entries[place.index] : nullptr;
    return entry == nullptr ? nullptr : &entry->value;
  }
  const Value *find(const Prefix &prefix) const { return const_cast<PrefixMap *>(this)->find(prefix); }

  // False, and nothing changed, when the prefix is there.
  bool insert(const Prefix &prefix, Value value) {
    Place place = locate(order(prefix));
    if (holds(place, prefix)) {
      return false;
    }
    if (chunks_.empty()) {
      chunks_.emplace_back();
    }
    if (chunks_[place.chunk].entries.size() == CHUNK) {
      place = split(place);
    }
    std::vector<Entry> &entries = chunks_[place.chunk].entries;
    entries.insert(entries.begin() + static_cast<ptrdiff_t>(place.index), Entry{prefix.address, value, prefix.length});
    chunks_[place.chunk].first = order(entries.front().prefix());
    ++size_;
    return true;
  }

  bool erase(const Prefix &prefix) {
    const Place place = locate(order(prefix));
    if (!holds(place, prefix)) {
      return false;
    }
    eraseRange(place.chunk, place.index, place.index + 1);
    return true;
  }

  // Hands entries to `take` in order and removes those for which it returned true, up to the first refusal.
  template <class Take> void takeFront(Take take) {
    while (!chunks_.empty()) {
      const std::vector<Entry> &entries = chunks_.front().entries;
      const size_t count = entries.size();
      size_t taken = 0;
      while (taken < count && take(entries[taken])) {
        ++taken;
      }
      eraseRange(0, 0, taken);
      if (taken < count) {
        return;
      }
    }
  }

private:
  static constexpr size_t CHUNK = 512;

  struct Chunk {
    uint64_t first = 0; // order of entries.front()
    std::vector<Entry> entries;
  };

  static uint64_t order(const Prefix &prefix) { return uint64_t{prefix.address} << 8 | prefix.length; }

  // The chunk that holds or would hold the order, and the place in it; chunk 0 in an empty map.
  Place locate(uint64_t wanted) const {
    const auto behind = std::upper_bound(chunks_.begin(), chunks_.end(), wanted,
                                         [](uint64_t key, const Chunk &chunk) { return key < chunk.first; });
    if (behind == chunks_.begin()) {
      return {};
    }
    const auto chunk = behind - 1;
    const auto entry = std::lower_bound(chunk->entries.begin(), chunk->entries.end(), wanted,
                                        [](const Entry &each, uint64_t key) { return order(each.prefix()) < key; });
    return {static_cast<size_t>(chunk - chunks_.begin()), static_cast<size_t>(entry - chunk->entries.begin())};
  }

  bool holds(const Place &place, const Prefix &prefix) const {
    return place.chunk < chunks_.size() && place.index < chunks_[place.chunk].entries.size() &&
           chunks_[place.chunk].entries[place.index].prefix() == prefix;
  }

  // Makes room in a full chunk. An ascending load comes in at the end, and leaves full chunks behind.
  Place split(const Place &place) {
    const size_t keep = place.index == CHUNK ? CHUNK : CHUNK / 2;
    Chunk upper;
    upper.entries.reserve(CHUNK);
    std::vector<Entry> &entries = chunks_[place.chunk].entries;
    upper.entries.assign(entries.begin() + static_cast<ptrdiff_t>(keep), entries.end());
    entries.resize(keep);
    if (!upper.entries.empty()) {
      upper.first = order(upper.entries.front().prefix());
    }
    chunks_.insert(chunks_.begin() + static_cast<ptrdiff_t>(place.chunk) + 1, std::move(upper));
    return place.index < keep ? place : Place{place.chunk + 1, place.index - keep};
  }

  void eraseRange(size_t chunk, size_t begin, size_t end) {
    std::vector<Entry> &entries = chunks_[chunk].entries;
    size_ -= end - begin;
    if (end - begin == entries.size()) {
      chunks_.erase(chunks_.begin() + static_cast<ptrdiff_t>(chunk));
      return;
    }
    entries.erase(entries.begin() + static_cast<ptrdiff_t>(begin), entries.begin() + static_cast<ptrdiff_t>(end));
    chunks_[chunk].first = order(entries.front().prefix());
  }

  std::vector<Chunk> chunks_;
  size_t size_ = 0;
};

} // namespace orrin
