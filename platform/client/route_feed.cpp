// The feeds of this process, one for each client id that has fetched: a fixed buffer each, whatever the number of routes, and
// while a batch is handed out orrin prepares the next. A feed is used by any thread, under its lock; feeds are never freed, a
// forgotten one serves the next client.

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
  CallAhead ahead;                 // the fetch of the batch behind it
  uint64_t batch = 0;              // the last received
  bool last = false;               // nothing waited behind it
  std::span<const std::byte> held; // what of it is still to hand out

  void reset(uint32_t owner) {
    client.store(owner, std::memory_order_relaxed);
    ahead.cancel();
    batch = 0;
    last = false;
    held = {};
  }

  std::array<uint32_t, 6> request(bool onlyWhetherAllowed) const {
    return {client.load(std::memory_order_relaxed), static_cast<uint32_t>(batch), static_cast<uint32_t>(batch >> 32),
            onlyWhetherAllowed ? 1u : 0u};
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

constexpr tarnwire::Op FETCH = tarnwire::BEST_ROUTE_CHANGE_NEXT_GET;

int32_t failedWith(Feed &feed, int32_t result) {
  if (result == TARN_NOT_FOUND) { // orrin knows the client no more: nothing held is of use
    feed.reset(0);
  }
  return result;
}

// Takes the next batch, and asks for the one behind it.
int32_t fetch(Feed &feed) {
  if (!feed.ahead.asked()) {
    feed.ahead.ask(FETCH, feed.request(false));
  }
  const Answer answer = feed.ahead.take();
  if (answer.result != TARN_OK && answer.result != TARN_NO_MORE) {
    return failedWith(feed, answer.result);
  }
  feed.batch = uint64_t{answer.values[1]} << 32 | answer.values[0];
  feed.last = answer.result == TARN_NO_MORE;
  feed.held = answer.tail;
  if (!feed.last) {
    feed.ahead.ask(FETCH, feed.request(false));
  }
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
  Feed *feed = client == 0 ? nullptr : feedFor(client);
  if (feed == nullptr) {
    return client == 0 ? TARN_INVALID : TARN_FAILURE;
  }
  const std::lock_guard guard(feed->lock);
  // What orrin has already given is handed out without it, unless it wants to be asked.
  if ((!feed->held.empty() || feed->ahead.asked()) && publishedFor(FETCH) == nullptr) {
    if (const int32_t result = call(FETCH, feed->request(true)).result; result != TARN_OK) {
      return failedWith(*feed, result);
    }
  }
  if (feed->held.empty()) {
    if (const int32_t result = fetch(*feed); result != TARN_OK) {
      return result;
    }
  }
  if (unpackRoutes(feed->held, records) == 0) {
    feed->held = {}; // bytes from which no route can be read are none
  }
  return feed->held.empty() && feed->last ? TARN_NO_MORE : TARN_OK;
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
