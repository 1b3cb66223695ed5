// The words of orrin's command lines: numbers, addresses, prefixes and the route line, read and printed. Shared by orrin
// and orrinctl. One command a line, words apart by blanks, `#` starts a comment. Addresses are in host byte order.
// Readers return false and leave in `error` which word is wrong and why.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace orrin {

inline constexpr uint32_t MAX_NEXT_HOPS = 48;

struct Prefix {
  uint32_t address = 0; // no bits beyond length
  uint8_t length = 0;

  bool operator==(const Prefix &) const = default;
};

struct NextHop {
  uint32_t address = 0;
  uint32_t interface = 0; // 0 = none

  bool operator==(const NextHop &) const = default;
};

// What a route says beside its prefix; `type` as the platform API numbers it.
struct RouteAttrs {
  enum Type : uint8_t { LOCAL = 1, KERNEL = 2, ORDINARY = 3 };

  uint8_t type = ORDINARY;
  bool installKernel = false; // with KERNEL: into the kernel all the same
  bool reject = false;
  bool discard = false;
  bool viaVrfDevice = false;
  bool rfc5549 = false;
  bool mpls = false;
  bool flag8000 = false;
  bool reported = false; // by the agent, of its kernel; no word of the route line
  uint32_t metric = 0;
  uint32_t proto = 0;
  std::vector<NextHop> hops;

  bool operator==(const RouteAttrs &) const = default;
};

// "route add vrf <id> <prefix> [options] {via ...}"
struct Route {
  uint32_t vrf = 0;
  Prefix prefix;
  RouteAttrs attrs;
};

// Walks the words of one line; the line outlives it.
class Words {
public:
  explicit Words(std::string_view line) : rest_(line) {}

  std::string_view take(); // the next word, empty at the end of the line
  std::string_view peek() const { return Words(*this).take(); }
  bool atEnd() const { return peek().empty(); }
  // Takes the next word if it is this one.
  bool takeIf(std::string_view word);

private:
  std::string_view rest_;
};

bool parseNumber(std::string_view word, uint32_t &value);
bool parseNumber(std::string_view word, uint64_t &value);
bool parseAddress(std::string_view word, uint32_t &address);
// Unicast: an address that a host or a router can have.
bool isHostAddress(uint32_t address);
bool parsePrefix(std::string_view word, Prefix &prefix, std::string &error);

// The numbers that a word may be, both ends included.
struct Range {
  uint32_t lowest = 0;
  uint32_t highest = UINT32_MAX;
};

// What a word should have been: "mtu: number missing", "mtu: "x" is no number", "mtu: 68 to 65535, not 10".
bool takeNumber(Words &words, std::string_view what, uint32_t &value, std::string &error, Range range = {});
bool takeNumber(Words &words, std::string_view what, uint64_t &value, std::string &error);
bool takeKeyword(Words &words, std::string_view keyword, std::string &error);
bool takePrefix(Words &words, Prefix &prefix, std::string &error);
// "10.1.1.1/24": an address of an interface, which is neither the first nor the last of its subnet.
bool takeInterfaceAddress(Words &words, std::string_view what, uint32_t &address, uint8_t &length, std::string &error);
bool takeMac(Words &words, std::array<uint8_t, 6> &mac, std::string &error);
// Unicast, and not zero.
bool takeHostMac(Words &words, std::array<uint8_t, 6> &mac, std::string &error);
bool takeEnd(Words &words, std::string &error);

// The rest of a line after "route add" or "route modify", to its end.
bool parseRoute(Words &words, Route &route, std::string &error);
// Only the options and next hops of a route line, to its end. A route that leads nowhere is refused.
bool parseRouteAttrs(Words &words, RouteAttrs &attrs, std::string &error);

void appendNumber(std::string &out, uint64_t value);
void appendAddress(std::string &out, uint32_t address);
void appendPrefix(std::string &out, const Prefix &prefix);
void appendMac(std::string &out, const std::array<uint8_t, 6> &mac);
// Options and next hops, each with a blank before it; nothing for a route without any.
void appendRouteAttrs(std::string &out, const RouteAttrs &attrs);
// "route add vrf 3 10.0.0.0/8 via 10.1.1.2 interface 11", without line end.
void appendRoute(std::string &out, const Route &route);

// The network mask of a prefix length, 0 to 32.
constexpr uint32_t prefixMask(uint32_t length) {
  return length == 0 ? 0 : ~uint32_t{0} << (32 - length);
}

} // namespace orrin
