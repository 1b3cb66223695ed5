// orrin's ordered map of prefixes and its change queues, each against the simplest thing that does the same.

#include "change_queue.h"
#include "tarnapi_wire.h"

#include <cstring>
#include <gtest/gtest.h>
#include <map>
#include <random>

namespace {

using namespace orrin;

// Numbers below a limit, the same for a seed on every machine.
class Dice {
public:
  explicit Dice(uint32_t seed) : engine_(seed) {}
  uint32_t operator()(uint32_t limit) { return static_cast<uint32_t>(engine_() % limit); }

private:
  std::mt19937 engine_;
};

using Order = std::pair<uint32_t, uint8_t>;

Order orderOf(const Prefix &prefix) {
  return {prefix.address, prefix.length};
}

std::vector<Order> walk(const PrefixMap<uint32_t> &map, PrefixMap<uint32_t>::Place place) {
  std::vector<Order> orders;
  for (; map.at(place) != nullptr; place = map.next(place)) {
    orders.push_back(orderOf(map.at(place)->prefix()));
  }
  return orders;
}

TEST(OrrinPrefixMap, DoesWhatAnOrderedMapDoes) {
  Dice random(7);
  PrefixMap<uint32_t> map;
  std::map<Order, uint32_t> reference;
  for (uint32_t step = 0; step < 60000; ++step) {
    // Grows over several chunks, shrinks to nothing, and ascends in between.
    const bool growing = step / 15000 % 2 == 0;
    const Prefix prefix{step % 3 == 0 ? step << 8 : random(6000) << 8, static_cast<uint8_t>(24 + random(2))};
    if (random(4) < (growing ? 3u : 1u)) {
      ASSERT_EQ(map.insert(prefix, step), reference.emplace(orderOf(prefix), step).second);
    } else {
      ASSERT_EQ(map.erase(prefix), reference.erase(orderOf(prefix)) == 1);
    }
    if (step % 997 == 0) {
      std::vector<Order> expected;
      for (auto each = reference.lower_bound(orderOf(prefix)); each != reference.end(); ++each) {
        expected.push_back(each->first);
        ASSERT_EQ(*map.find({each->first.first, each->first.second}), each->second);
      }
      ASSERT_EQ(walk(map, map.notBefore(prefix)), expected);
      ASSERT_EQ(map.size(), reference.size());
    }
  }
  std::vector<Order> taken;
  const size_t half = reference.size() / 2;
  map.takeFront([&](const auto &entry) {
    taken.push_back(orderOf(entry.prefix()));
    return taken.size() <= half;
  });
  EXPECT_EQ(map.size(), reference.size() - half);
  EXPECT_EQ(walk(map, map.first()).front(), taken.back()) << "the refused one stays";
}

// A client as the agent is one: what it is handed out, it does.
class Holder {
public:
  // Applies changes up to a number; returns how many. Each must be what the table says of its prefix now.
  size_t apply(std::string_view routes, size_t most, const std::map<Order, uint32_t> &table) {
    size_t done = 0;
    for (; !routes.empty() && done < most; ++done) {
      tarnwire::RouteKey key;
      std::memcpy(&key, routes.data(), sizeof key);
      routes.remove_prefix(sizeof key);
      const Order order{key.prefix, key.length};
      if (key.change == tarnwire::ROUTE_DELETE) {
        held.erase(order);
        continue;
      }
      tarnwire::RouteBody body;
      std::memcpy(&body, routes.data(), sizeof body);
      routes.remove_prefix(sizeof body);
      EXPECT_TRUE(table.contains(order) && table.at(order) == body.metric)
          << "handed out after it was withdrawn or changed";
      install(order, body.metric, body.type, key.change == tarnwire::ROUTE_ADD);
    }
    return done;
  }

  // Local routes are not installed, and modifies of them are passed over, as the agent does.
  void install(const Order &order, uint32_t metric, uint8_t type, bool add) {
    if (type == RouteAttrs::ORDINARY || (add && !held.contains(order))) {
      held[order] = metric;
    }
  }

  std::map<Order, uint32_t> held;
};

class QueueWalk : public testing::TestWithParam<uint32_t> {
protected:
  AttrId attrsOf(uint8_t type, uint32_t metric) {
    RouteAttrs described;
    described.type = type;
    described.metric = type == RouteAttrs::ORDINARY ? metric : LOCAL_METRIC; // what a modify may change
    return attrs.intern(encodeAttrs(described), 1);
  }

  void changeTable() {
    const Prefix prefix{random(40) << 24, 8};
    const AttrId wanted = attrsOf(random(4) == 0 ? RouteAttrs::LOCAL : RouteAttrs::ORDINARY, random(5));
    AttrId *there = table.find(prefix);
    if (there == nullptr) {
      table.insert(prefix, wanted);
      queue.note(prefix, ChangeQueue::ADD);
    } else if (random(2) == 0) {
      table.erase(prefix);
      queue.note(prefix, ChangeQueue::DELETE);
    } else {
      const bool sameType = attrs.type(*there) == attrs.type(wanted);
      *there = wanted;
      queue.note(prefix, sameType ? ChangeQueue::MODIFY : ChangeQueue::REPLACE);
    }
  }

  // The client gets a route from the routes of an interface, past the queue.
  void handOutPastTheQueue() {
    const auto place = table.notBefore({random(40) << 24, 8});
    if (const RouteMap::Entry *entry = table.at(place)) {
      holder.held.erase(orderOf(entry->prefix()));
      const RouteAttrs described = decodeAttrs(attrs.body(entry->value));
      holder.install(orderOf(entry->prefix()), described.metric, described.type, true);
    }
  }

  // One request, of whose answer the client applies all or a part, or which it loses and asks over the next connection. False
  // when nothing more waits.
  bool fetch(bool lost = false, size_t most = SIZE_MAX) {
    queue.acknowledge(connection, handedOut);
    std::string routes;
    const bool last = queue.fetch(table, attrs, 4 * tarnwire::ROUTE_MAX_BYTES, routes);
    handedOut = lost ? 0 : holder.apply(routes, most, tableNow());
    connection += lost ? 1 : 0;
    return !last;
  }

  std::map<Order, uint32_t> tableNow() const {
    std::map<Order, uint32_t> now;
    for (auto place = table.first(); table.at(place) != nullptr; place = table.next(place)) {
      now[orderOf(table.at(place)->prefix())] = decodeAttrs(attrs.body(table.at(place)->value)).metric;
    }
    return now;
  }

  void activate() {
    queue.activate(table, [] {});
  }

  static constexpr uint32_t LOCAL_METRIC = 99;

  Dice random{GetParam()};
  AttrTable attrs;
  RouteMap table;
  ChangeQueue queue;
  Holder holder;
  uint32_t connection = 1;
  size_t handedOut = 0;
};

TEST_P(QueueWalk, TheClientEndsWithTheTable) {
  activate();
  for (int step = 0; step < 4000; ++step) {
    changeTable();
    if (random(5) == 0) {
      fetch(random(4) == 0, random(2) == 0 ? random(20) : SIZE_MAX);
    }
    if (random(5) == 0) {
      handOutPastTheQueue();
    }
    if (random(300) == 0) { // the client goes on without its registration for a while, as with orrin started anew
      queue.retire();
      for (uint32_t away = random(10); away > 0; --away) {
        changeTable();
      }
      activate();
      ++connection;
    }
    if (random(100) == 0) {
      while (fetch()) {
      }
      ASSERT_EQ(holder.held, tableNow()) << "step " << step;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Seeds, QueueWalk, testing::Range(1u, 9u));

TEST(OrrinQueue, KeepsWhatASuccessorMustWithdraw) {
  constexpr uint32_t CONNECTION = 7;
  AttrTable attrs;
  RouteMap table;
  const AttrId id = attrs.intern(encodeAttrs({}), 1);
  const Prefix one{0x0A000000, 8};
  const Prefix two{0x0B000000, 8};
  table.insert(one, id);
  table.insert(two, id);
  ChangeQueue queue;
  queue.activate(table, [] {});
  queue.acknowledge(CONNECTION, 0);
  std::string routes;
  EXPECT_TRUE(queue.fetch(table, attrs, 65536, routes));
  queue.acknowledge(CONNECTION, 2);
  EXPECT_FALSE(queue.takeSettled()) << "no withdrawal was among it";
  table.erase(one);
  queue.note(one, ChangeQueue::DELETE);
  queue.acknowledge(CONNECTION, 0);
  queue.fetch(table, attrs, 65536, routes);
  EXPECT_FALSE(queue.takeSettled()) << "it may not have arrived";
  EXPECT_EQ(queue.withdrawn().size(), 1u);
  queue.acknowledge(CONNECTION, 1);
  EXPECT_TRUE(queue.takeSettled());
  EXPECT_FALSE(queue.takeSettled());
  EXPECT_TRUE(queue.withdrawn().empty());
}

} // namespace
