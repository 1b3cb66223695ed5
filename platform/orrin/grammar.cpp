// Reading and printing of command words and of the route line. No state; used by orrin's one thread and by orrinctl.

#include "grammar.h"

#include <array>
#include <charconv>

namespace orrin {

namespace {

constexpr std::string_view BLANKS = " \t\r\n";
constexpr Range PROTOCOLS = {0, UINT8_MAX};

struct RouteOption {
  std::string_view word;
  bool RouteAttrs::*flag;
};

// In the order in which they are printed.
constexpr std::array<RouteOption, 6> ROUTE_OPTIONS = {{
    {"reject", &RouteAttrs::reject},
    {"discard", &RouteAttrs::discard},
    {"via-vrf-device", &RouteAttrs::viaVrfDevice},
    {"rfc5549", &RouteAttrs::rfc5549},
    {"mpls", &RouteAttrs::mpls},
    {"flag8000", &RouteAttrs::flag8000},
}};

std::string quoted(std::string_view word) {
  std::string text;
  text.reserve(word.size() + 2);
  return text.append(1, '"').append(word).append(1, '"');
}

bool fail(std::string &error, std::string text) {
  error = std::move(text);
  return false;
}

template <class Number> bool parseAny(std::string_view word, Number &value) {
  Number number = 0;
  const char *end = word.data() + word.size();
  const auto [stop, status] = std::from_chars(word.data(), end, number);
  if (status != std::errc() || stop != end || word.empty()) {
    return false;
  }
  value = number;
  return true;
}

template <class Number> bool takeAny(Words &words, std::string_view what, Number &value, std::string &error) {
  const std::string_view word = words.take();
  if (word.empty()) {
    return fail(error, std::string(what) + ": number missing");
  }
  return parseNumber(word, value) || fail(error, std::string(what) + ": " + quoted(word) + " is no number");
}

bool takeType(std::string_view word, RouteAttrs &attrs) {
  if (word != "local" && word != "kernel" && word != "install-kernel") {
    return false;
  }
  attrs.type = word == "local" ? RouteAttrs::LOCAL : RouteAttrs::KERNEL;
  attrs.installKernel = word == "install-kernel";
  return true;
}

bool takeFlag(std::string_view word, RouteAttrs &attrs) {
  for (const RouteOption &option : ROUTE_OPTIONS) {
    if (word == option.word) {
      attrs.*option.flag = true;
      return true;
    }
  }
  return false;
}

bool takeHop(Words &words, RouteAttrs &attrs, std::string &error) {
  if (attrs.hops.size() == MAX_NEXT_HOPS) {
    return fail(error, "via: more than " + std::to_string(MAX_NEXT_HOPS) + " next hops");
  }
  const std::string_view word = words.take();
  NextHop hop;
  if (!parseAddress(word, hop.address) || (hop.address != 0 && !isHostAddress(hop.address))) {
    return fail(error, "via: " + quoted(word) + " is no unicast address");
  }
  if (!takeKeyword(words, "interface", error) || !takeNumber(words, "interface", hop.interface, error)) {
    return false;
  }
  attrs.hops.push_back(hop);
  return true;
}

} // namespace

std::string_view Words::take() {
  const size_t begin = rest_.find_first_not_of(BLANKS);
  if (begin == std::string_view::npos || rest_[begin] == '#') {
    rest_ = {};
    return {};
  }
  size_t end = rest_.find_first_of(BLANKS, begin);
  if (end == std::string_view::npos) {
    end = rest_.size();
  }
  const std::string_view word = rest_.substr(begin, end - begin);
  rest_.remove_prefix(end);
  return word;
}

bool Words::takeIf(std::string_view word) {
  if (peek() != word) {
    return false;
  }
  take();
  return true;
}

bool parseNumber(std::string_view word, uint32_t &value) {
  return parseAny(word, value);
}

bool parseNumber(std::string_view word, uint64_t &value) {
  return parseAny(word, value);
}

bool parseAddress(std::string_view word, uint32_t &address) {
  uint32_t bytes = 0;
  for (int index = 0; index < 4; ++index) {
    const size_t dot = index < 3 ? word.find('.') : word.size();
    uint32_t byte = 0;
    if (dot == std::string_view::npos || !parseNumber(word.substr(0, dot), byte) || byte > 255) {
      return false;
    }
    bytes = bytes << 8 | byte;
    word.remove_prefix(index < 3 ? dot + 1 : dot);
  }
  address = bytes;
  return true;
}

bool isHostAddress(uint32_t address) {
  constexpr uint32_t LOOPBACK = 127;
  constexpr uint32_t MULTICAST = 224; // and reserved ones beyond
  const uint32_t first = address >> 24;
  return first != 0 && first != LOOPBACK && first < MULTICAST;
}

bool parsePrefix(std::string_view word, Prefix &prefix, std::string &error) {
  const size_t slash = word.find('/');
  uint32_t address = 0;
  uint32_t length = 0;
  if (slash == std::string_view::npos || !parseAddress(word.substr(0, slash), address) ||
      !parseNumber(word.substr(slash + 1), length)) {
    return fail(error, quoted(word) + " is no prefix");
  }
  if (length > 32) {
    return fail(error, quoted(word) + ": prefix length above 32");
  }
  if ((address & ~prefixMask(length)) != 0) {
    return fail(error, quoted(word) + ": address bits beyond the prefix length");
  }
  prefix = {address, static_cast<uint8_t>(length)};
  return true;
}

bool takeNumber(Words &words, std::string_view what, uint32_t &value, std::string &error, Range range) {
  uint32_t number = 0;
  if (!takeAny(words, what, number, error)) {
    return false;
  }
  if (number < range.lowest || number > range.highest) {
    return fail(error, std::string(what) + ": " + std::to_string(range.lowest) + " to " +
                           std::to_string(range.highest) + ", not " + std::to_string(number));
  }
  value = number;
  return true;
}

bool takeNumber(Words &words, std::string_view what, uint64_t &value, std::string &error) {
  return takeAny(words, what, value, error);
}

bool takeKeyword(Words &words, std::string_view keyword, std::string &error) {
  const std::string_view word = words.take();
  if (word == keyword) {
    return true;
  }
  return fail(error, word.empty() ? quoted(keyword) + " missing" : quoted(keyword) + " expected, not " + quoted(word));
}

bool takePrefix(Words &words, Prefix &prefix, std::string &error) {
  const std::string_view word = words.take();
  return word.empty() ? fail(error, "prefix missing") : parsePrefix(word, prefix, error);
}

bool takeInterfaceAddress(Words &words, std::string_view what, uint32_t &address, uint8_t &length, std::string &error) {
  const std::string_view word = words.take();
  const size_t slash = word.find('/');
  uint32_t bits = 0;
  uint32_t wanted = 0;
  if (slash == std::string_view::npos || !parseAddress(word.substr(0, slash), wanted) ||
      !parseNumber(word.substr(slash + 1), bits) || bits == 0 || bits > 32) {
    return fail(error, std::string(what) + ": " + quoted(word) + " is no address with its prefix length");
  }
  const uint32_t hostBits = ~prefixMask(bits);
  const bool first = (wanted & hostBits) == 0;
  const bool last = (wanted & hostBits) == hostBits;
  if (!isHostAddress(wanted) || (bits < 31 && (first || last))) {
    return fail(error, std::string(what) + ": " + quoted(word) + " is no unicast address of its subnet");
  }
  address = wanted;
  length = static_cast<uint8_t>(bits);
  return true;
}

bool takeMac(Words &words, std::array<uint8_t, 6> &mac, std::string &error) {
  const std::string_view word = words.take();
  std::array<uint8_t, 6> bytes{};
  bool good = word.size() == 3 * bytes.size() - 1;
  for (size_t index = 0; good && index < bytes.size(); ++index) {
    const char *begin = word.data() + 3 * index;
    const auto [stop, status] = std::from_chars(begin, begin + 2, bytes[index], 16);
    good = status == std::errc() && stop == begin + 2 && (index + 1 == bytes.size() || *stop == ':');
  }
  if (!good) {
    return fail(error, "mac: " + quoted(word) + " is no MAC address");
  }
  mac = bytes;
  return true;
}

bool takeHostMac(Words &words, std::array<uint8_t, 6> &mac, std::string &error) {
  const std::string_view word = words.peek();
  if (!takeMac(words, mac, error)) {
    return false;
  }
  const bool group = (mac[0] & 1) != 0;
  return (!group && mac != std::array<uint8_t, 6>{}) ||
         fail(error, "mac: " + quoted(word) + " is no unicast MAC address");
}

bool takeEnd(Words &words, std::string &error) {
  const std::string_view word = words.take();
  return word.empty() || fail(error, quoted(word) + " is too much");
}

bool parseRouteAttrs(Words &words, RouteAttrs &attrs, std::string &error) {
  while (!words.atEnd()) {
    const std::string_view word = words.take();
    bool good = true;
    if (word == "via") {
      good = takeHop(words, attrs, error);
    } else if (word == "metric") {
      good = takeNumber(words, word, attrs.metric, error);
    } else if (word == "proto") {
      good = takeNumber(words, word, attrs.proto, error, PROTOCOLS);
    } else if (!takeType(word, attrs) && !takeFlag(word, attrs)) {
      good = fail(error, quoted(word) + " is no word of a route");
    }
    if (!good) {
      return false;
    }
  }
  const bool leads =
      !attrs.hops.empty() || attrs.type != RouteAttrs::ORDINARY || attrs.reject || attrs.discard || attrs.viaVrfDevice;
  return leads || fail(error, "a route needs a next hop, a type, reject, discard or via-vrf-device");
}

bool parseRoute(Words &words, Route &route, std::string &error) {
  return takeKeyword(words, "vrf", error) && takeNumber(words, "vrf", route.vrf, error) &&
         takePrefix(words, route.prefix, error) && parseRouteAttrs(words, route.attrs, error);
}

void appendNumber(std::string &out, uint64_t value) {
  char digits[20];
  const auto [end, status] = std::to_chars(digits, digits + sizeof digits, value);
  static_cast<void>(status); // 20 digits hold any value
  out.append(digits, end);
}

void appendAddress(std::string &out, uint32_t address) {
  for (int shift = 24; shift >= 0; shift -= 8) {
    appendNumber(out, address >> shift & 0xFF);
    if (shift != 0) {
      out += '.';
    }
  }
}

void appendPrefix(std::string &out, const Prefix &prefix) {
  appendAddress(out, prefix.address);
  out += '/';
  appendNumber(out, prefix.length);
}

void appendMac(std::string &out, const std::array<uint8_t, 6> &mac) {
  constexpr std::string_view HEX = "0123456789abcdef";
  for (size_t index = 0; index < mac.size(); ++index) {
    out.append(index == 0 ? "" : ":").append(1, HEX[mac[index] >> 4]).append(1, HEX[mac[index] & 15]);
  }
}

void appendRouteAttrs(std::string &out, const RouteAttrs &attrs) {
  if (attrs.type == RouteAttrs::LOCAL) {
    out += " local";
  } else if (attrs.type == RouteAttrs::KERNEL) {
    out += attrs.installKernel ? " install-kernel" : " kernel";
  }
  for (const RouteOption &option : ROUTE_OPTIONS) {
    if (attrs.*option.flag) {
      out.append(1, ' ').append(option.word);
    }
  }
  if (attrs.metric != 0) {
    appendNumber(out += " metric ", attrs.metric);
  }
  if (attrs.proto != 0) {
    appendNumber(out += " proto ", attrs.proto);
  }
  for (const NextHop &hop : attrs.hops) {
    appendAddress(out += " via ", hop.address);
    appendNumber(out += " interface ", hop.interface);
  }
}

void appendRoute(std::string &out, const Route &route) {
  appendNumber(out += "route add vrf ", route.vrf);
  appendPrefix(out += ' ', route.prefix);
  appendRouteAttrs(out, route.attrs);
}

} // namespace orrin
