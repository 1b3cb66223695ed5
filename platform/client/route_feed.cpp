// The changes that a thread has fetched and not handed out yet. Each thread has its own, as it has its own connection: its next
// request on that connection acknowledges what it handed out of the last answer.

#include "route_feed.h"

#include "connection.h"

#include <cstring>
#include <memory>
#include <new>

namespace tarnclient {

namespace {

struct Feed {
  uint32_t client = 0;
  uint32_t handedOut = 0;    // of the last answer
  uint64_t tableChanges = 0; // when orrin made it
  uint32_t begin = 0;        // of what is still to hand out
  uint32_t end = 0;
  std::byte routes[tarnwire::REPLY_MAX];
};

thread_local std::unique_ptr<Feed> threadFeed; // none in most threads

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

// True when the feed has records and no route table has changed since they were fetched.
bool holdsValid(const Feed &feed) {
  const tarnwire::Published *page =
      feed.begin == feed.end ? nullptr : publishedFor(tarnwire::BEST_ROUTE_CHANGE_NEXT_GET);
  return page != nullptr && page->tableChanges.load(std::memory_order_acquire) == feed.tableChanges;
}

// Acknowledges what was handed out and drops the rest, which orrin hands out again.
Answer ask(Feed &feed, bool forMore) {
  feed.begin = feed.end = 0;
  const Answer answer =
      call(tarnwire::BEST_ROUTE_CHANGE_NEXT_GET, {feed.client, feed.handedOut, static_cast<uint32_t>(forMore)});
  if (answer.result == TARN_OK || answer.result == TARN_NO_MORE) {
    feed.handedOut = 0;
    feed.tableChanges = uint64_t{answer.values[1]} << 32 | answer.values[0];
    feed.end = static_cast<uint32_t>(answer.tail.size());
    std::memcpy(feed.routes, answer.tail.data(), answer.tail.size());
  }
  return answer;
}

// The thread's feed; null without memory.
Feed *feedFor(uint32_t client) {
  if (threadFeed == nullptr) {
    threadFeed.reset(new (std::nothrow) Feed);
  }
  if (threadFeed != nullptr && threadFeed->client != client) {
    if (threadFeed->client != 0) {
      ask(*threadFeed, false);
    }
    threadFeed->client = client;
    threadFeed->handedOut = 0;
  }
  return threadFeed.get();
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
  Feed *feed = feedFor(client);
  if (feed == nullptr) {
    return TARN_FAILURE;
  }
  int32_t result = TARN_OK;
  if (!holdsValid(*feed)) {
    result = ask(*feed, true).result;
    if (result != TARN_OK && result != TARN_NO_MORE) {
      return result;
    }
  }
  std::span<const std::byte> rest(feed->routes + feed->begin, feed->end - feed->begin);
  const size_t count = unpackRoutes(rest, records);
  feed->handedOut += static_cast<uint32_t>(count);
  // Bytes from which no route can be read are none.
  feed->begin = count == 0 ? feed->end : feed->end - static_cast<uint32_t>(rest.size());
  return feed->begin == feed->end ? result : TARN_OK;
}

} // namespace tarnclient
