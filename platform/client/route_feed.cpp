// The feeds of this process, one for each client id that has fetched: a fixed buffer each, whatever the number of routes. A
// feed is used by any thread, under its lock; feeds are never freed, a forgotten one serves the next client. The next batch is
// asked for when all of the one before is with the caller, and not sooner: asking acknowledges.

#include "route_feed.h"

#include "connection.h"

#include <atomic>
#include <cstring>
#include <mutex>
#include <new>

namespace tarnclient {

namespace {

struct Feed {
  Feed *next = nullptr; // fixed once the feed is in the list
  std::mutex lock;
  std::atomic<uint32_t> client{0}; // 0 = free; written under the lock
  uint64_t batch = 0;              // the last received
  bool last = false;               // nothing waited behind it
  uint32_t begin = 0;              // of what is still to hand out
  uint32_t end = 0;
  std::byte routes[tarnwire::REPLY_MAX];

  void reset(uint32_t owner) {
    client.store(owner, std::memory_order_relaxed);
    batch = 0;
    last = false;
    begin = end = 0;
  }
};

std::atomic<Feed *> feeds{nullptr};

Feed *findFeed(uint32_t client) {
  for (Feed *feed = feeds.load(std::memory_order_acquire); feed != nullptr; feed = feed->next) {
    if (feed->client.load(std::memory_order_relaxed) == client) {
      return feed;
    }
  }
  return nullptr;
}

// The client's feed, a free one made its own, or a new one; null without memory.
Feed *feedFor(uint32_t client) {
  static std::mutex making;
  if (Feed *feed = findFeed(client)) {
    return feed;
  }
  const std::lock_guard guard(making);
  Feed *feed = findFeed(client);
  if (feed == nullptr && (feed = findFeed(0)) != nullptr) {
    const std::lock_guard feedGuard(feed->lock);
    feed->reset(client);
  }
  if (feed == nullptr && (feed = new (std::nothrow) Feed) != nullptr) {
    feed->reset(client);
    feed->next = feeds.load(std::memory_order_relaxed);
    feeds.store(feed, std::memory_order_release);
  }
  return feed;
}

void unpackHops(const std::byte *from, uint32_t count, BestRouteRecord &record) {
  for (uint32_t index = 0; index < count; ++index) {
    tarnwire::RouteHop hop;
    std::memcpy(&hop, from + index * sizeof hop, sizeof hop);
    record.nextHops[index].addr.family = TARN_FAMILY_IPV4;
    record.nextHops[index].addr.ipv4 = hop.address;
    record.nextHops[index].intIfNum = hop.interface;
  }
}

void unpackBody(const tarnwire::RouteBody &body, BestRouteRecord &record) {
  const auto flag = [&body](tarnwire::RouteFlag which) {
    return static_cast<uint8_t>((body.flags & which) != 0 ? 1 : 0);
  };
  record.routeType = body.type;
  record.routeProto = body.proto;
  record.metric = body.metric;
  record.numNextHops = body.hopCount;
  record.rejectRoute = flag(tarnwire::ROUTE_REJECT);
  record.discardRoute = flag(tarnwire::ROUTE_DISCARD);
  record.viaVrfDevice = flag(tarnwire::ROUTE_VIA_VRF_DEVICE);
  record.rfc5549 = flag(tarnwire::ROUTE_RFC5549);
  record.flag8000 = flag(tarnwire::ROUTE_FLAG8000);
  record.mplsRoute = flag(tarnwire::ROUTE_MPLS);
  record.installKernelRoute = flag(tarnwire::ROUTE_INSTALL_KERNEL);
}

// The bytes of the first route, 0 when it is not all there.
size_t unpackRoute(std::span<const std::byte> routes, BestRouteRecord &record) {
  tarnwire::RouteKey key;
  if (routes.size() < sizeof key) {
    return 0;
  }
  std::memcpy(&key, routes.data(), sizeof key);
  size_t used = sizeof key;
  if (key.change != tarnwire::ROUTE_DELETE) {
    tarnwire::RouteBody body;
    if (routes.size() < used + sizeof body) {
      return 0;
    }
    std::memcpy(&body, routes.data() + used, sizeof body);
    used += sizeof body;
    const size_t hopBytes = body.hopCount * sizeof(tarnwire::RouteHop);
    if (body.hopCount > tarnwire::MAX_HOPS || routes.size() < used + hopBytes) {
      return 0;
    }
    unpackBody(body, record);
    unpackHops(routes.data() + used, body.hopCount, record);
    used += hopBytes;
  }
  record.prefix.family = TARN_FAMILY_IPV4;
  record.prefix.ipv4 = key.prefix;
  record.prefixLen = key.length;
  record.changeType = key.change;
  record.valid = 1;
  return used;
}

// The client's feed with its lock taken; none without memory. Until the lock is there, another thread may have forgotten the
// client and given the feed to the next.
Feed *lockFeed(uint32_t client, std::unique_lock<std::mutex> &lock) {
  while (Feed *feed = feedFor(client)) {
    lock = std::unique_lock(feed->lock);
    if (feed->client.load(std::memory_order_relaxed) == client) {
      return feed;
    }
    lock.unlock();
  }
  return nullptr;
}

// Asks for the next batch, or, with records held, only whether they may be handed out.
int32_t fetch(Feed &feed, uint32_t client, bool held) {
  const Answer answer =
      call(tarnwire::BEST_ROUTE_CHANGE_NEXT_GET,
           {client, static_cast<uint32_t>(feed.batch), static_cast<uint32_t>(feed.batch >> 32), held ? 1u : 0u});
  if (answer.result == TARN_NOT_FOUND) { // orrin knows the client no more: nothing held is of use
    feed.reset(0);
  }
  if (held || (answer.result != TARN_OK && answer.result != TARN_NO_MORE)) {
    return answer.result;
  }
  feed.batch = uint64_t{answer.values[1]} << 32 | answer.values[0];
  feed.last = answer.result == TARN_NO_MORE;
  feed.begin = 0;
  feed.end = static_cast<uint32_t>(answer.tail.size());
  std::memcpy(feed.routes, answer.tail.data(), answer.tail.size());
  return TARN_OK;
}

} // namespace

size_t unpackRoutes(std::span<const std::byte> &routes, std::span<BestRouteRecord> records) {
  size_t count = 0;
  while (count < records.size()) {
    const size_t used = unpackRoute(routes, records[count]);
    if (used == 0) {
      break;
    }
    routes = routes.subspan(used);
    ++count;
  }
  return count;
}

int32_t nextRouteChanges(uint32_t client, std::span<BestRouteRecord> records) {
  if (client == 0) {
    return TARN_INVALID;
  }
  std::unique_lock<std::mutex> lock;
  Feed *feed = lockFeed(client, lock);
  if (feed == nullptr) {
    return TARN_FAILURE;
  }
  const bool held = feed->begin != feed->end;
  if (!held || publishedFor(tarnwire::BEST_ROUTE_CHANGE_NEXT_GET) == nullptr) {
    if (const int32_t result = fetch(*feed, client, held); result != TARN_OK) {
      return result;
    }
  }
  std::span<const std::byte> rest(feed->routes + feed->begin, feed->end - feed->begin);
  const size_t count = unpackRoutes(rest, records);
  // Bytes from which no route can be read are none.
  feed->begin = count == 0 ? feed->end : feed->end - static_cast<uint32_t>(rest.size());
  // That nothing waits in orrin is known only now that it was asked: since the batch of an earlier call more may have come.
  return !held && feed->last && feed->begin == feed->end ? TARN_NO_MORE : TARN_OK;
}

void forgetRouteChanges(uint32_t client) {
  if (Feed *feed = client == 0 ? nullptr : findFeed(client)) {
    const std::lock_guard guard(feed->lock);
    if (feed->client.load(std::memory_order_relaxed) == client) {
      feed->reset(0);
    }
  }
}

} // namespace tarnclient
