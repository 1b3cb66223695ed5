// A route that another program put into the kernel of a VRF, as the VRF's agent reports it: the record, and its words in the
// state folder and in `dump reported`. Shared by orrin and orrinctl.
#pragma once

#include "grammar.h"

#include <array>
#include <compare>
#include <cstdint>
#include <string>
#include <vector>

namespace orrin {

// In network byte order; IPv4 takes the first 4 bytes.
struct IpAddress {
  bool v6 = false;
  std::array<uint8_t, 16> bytes{};

  auto operator<=>(const IpAddress &) const = default;
};

IpAddress ipv4Address(uint32_t address);
uint32_t ipv4Number(const IpAddress &address); // in host byte order

bool parseIpAddress(std::string_view word, IpAddress &address);
void appendIpAddress(std::string &out, const IpAddress &address);

struct KernelRoute {
  // IPv4 first; prefixes of a family in the order of the route table, and of one prefix the lowest metric, which the kernel
  // uses, first.
  struct Key {
    IpAddress prefix; // no bits beyond length
    uint8_t length = 0;
    uint32_t metric = 0;

    auto operator<=>(const Key &) const = default;
    bool samePrefix(const Key &other) const { return prefix == other.prefix && length == other.length; }
  };
  struct Hop {
    IpAddress address;
    uint32_t interface = 0;

    bool operator==(const Hop &) const = default;
  };

  Key key;
  uint32_t proto = 0;
  bool reject = false;
  bool discard = false;
  std::vector<Hop> hops;

  bool operator==(const KernelRoute &) const = default;
};

// Are the address's bits beyond the length 0, and is the length one of its family?
bool isPrefix(const IpAddress &address, uint32_t length);

// "2001:db8::/32"
void appendKernelPrefix(std::string &out, const KernelRoute::Key &key);
// " 10.0.0.0/8 metric 5 proto 7 reject via 10.1.0.2 interface 11"
void appendKernelRoute(std::string &out, const KernelRoute &route);
// The words behind the prefix.
void appendKernelWords(std::string &out, const KernelRoute &route);
// The whole to the end of the line.
bool parseKernelRoute(Words &words, KernelRoute &route, std::string &error);

} // namespace orrin
