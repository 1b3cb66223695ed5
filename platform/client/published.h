// Read-mostly answers that orrin publishes to its clients in shared memory, so that asking costs a memory read. orrin's
// thread writes; any thread of a client reads. A reader whose heartbeat is old, or that finds the mark of its call set,
// asks orrin instead. Entries are guarded by a sequence that is odd while one is being written; their fields are stored with
// release and loaded with acquire order, which keeps them between the two looks at the sequence without fences.
#pragma once

#include "tarnapi_wire.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <string_view>

namespace tarnwire {

inline constexpr uint32_t PUBLISHED_VRFS = 1024;       // ids below; others are asked for
inline constexpr uint32_t PUBLISHED_INTERFACES = 4096; // numbers below
inline constexpr uint32_t PUBLISHED_NAME_BYTES = 64;   // with the NUL
inline constexpr uint64_t HEARTBEAT_LIMIT_MS = 1000;
inline constexpr uint64_t GATEWAY_SET = uint64_t{1} << 32;

using PublishedName = std::array<std::atomic<uint64_t>, PUBLISHED_NAME_BYTES / sizeof(uint64_t)>;

struct PublishedVrf {
  std::atomic<uint32_t> sequence;
  std::atomic<uint32_t> present;
  PublishedName interfaceName;
};

struct PublishedInterface {
  std::atomic<uint32_t> sequence;
  std::atomic<uint32_t> present;
  std::atomic<uint32_t> vrf;
  std::atomic<uint32_t> type;
  PublishedName name;
  PublishedName device;
};

struct Published {
  std::atomic<uint64_t> heartbeatMs;  // CLOCK_MONOTONIC
  std::atomic<uint64_t> tableChanges; // of all route tables; each orrin counts from a number of its own
  std::atomic<uint32_t> systemReady;
  std::atomic<uint64_t> servicePortGateway; // GATEWAY_SET and the address, or 0
  std::atomic<uint64_t> networkPortGateway;
  std::array<std::atomic<uint32_t>, OP_COUNT> askFor; // non-zero: the call goes to orrin
  std::array<PublishedVrf, PUBLISHED_VRFS> vrfs;
  std::array<PublishedInterface, PUBLISHED_INTERFACES> interfaces;
};

static_assert(std::atomic<uint64_t>::is_always_lock_free && std::atomic<uint32_t>::is_always_lock_free);
static_assert(std::is_standard_layout_v<Published>);

inline uint64_t coarseMilliseconds() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1000000;
}

template <class Entry, class Fill> void publishEntry(Entry &entry, Fill fill) {
  const uint32_t sequence = entry.sequence.load(std::memory_order_relaxed);
  entry.sequence.store(sequence + 1, std::memory_order_relaxed);
  fill(entry);
  entry.sequence.store(sequence + 2, std::memory_order_release);
}

// False when the entry changed meanwhile; what `copy` took is then worthless.
template <class Entry, class Copy> bool readEntry(const Entry &entry, Copy copy) {
  const uint32_t sequence = entry.sequence.load(std::memory_order_acquire);
  if ((sequence & 1) != 0) {
    return false;
  }
  copy(entry);
  return entry.sequence.load(std::memory_order_relaxed) == sequence;
}

inline void storeName(PublishedName &out, std::string_view name) {
  std::array<uint64_t, std::tuple_size_v<PublishedName>> words{};
  std::memcpy(words.data(), name.data(), name.size() < PUBLISHED_NAME_BYTES ? name.size() : PUBLISHED_NAME_BYTES - 1);
  for (size_t index = 0; index < words.size(); ++index) {
    out[index].store(words[index], std::memory_order_release);
  }
}

using NameBytes = std::array<char, PUBLISHED_NAME_BYTES>;

inline void loadName(const PublishedName &name, NameBytes &out) {
  for (size_t index = 0; index < name.size(); ++index) {
    const uint64_t word = name[index].load(std::memory_order_acquire);
    std::memcpy(out.data() + index * sizeof word, &word, sizeof word);
  }
}

} // namespace tarnwire
