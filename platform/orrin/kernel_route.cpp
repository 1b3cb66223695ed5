// Words of kernel routes, read and printed. No state; used by orrin's one thread and by orrinctl.

#include "kernel_route.h"

#include <arpa/inet.h>
#include <cstring>

namespace orrin {

namespace {

constexpr uint32_t lengthMax(const IpAddress &address) {
  return address.v6 ? 128 : 32;
}

bool fail(std::string &error, std::string_view what, std::string_view word) {
  error.assign(what).append(": \"").append(word).append("\" is wrong");
  return false;
}

bool takeKernelPrefix(Words &words, KernelRoute::Key &key, std::string &error) {
  const std::string_view word = words.take();
  const size_t slash = word.find('/');
  uint32_t length = 0;
  if (slash == std::string_view::npos || !parseIpAddress(word.substr(0, slash), key.prefix) ||
      !parseNumber(word.substr(slash + 1), length) || !isPrefix(key.prefix, length)) {
    return fail(error, "prefix", word);
  }
  key.length = static_cast<uint8_t>(length);
  return true;
}

bool takeHop(Words &words, KernelRoute &route, std::string &error) {
  KernelRoute::Hop hop;
  const std::string_view word = words.take();
  if (!parseIpAddress(word, hop.address) || hop.address.v6 != route.key.prefix.v6 ||
      route.hops.size() == MAX_NEXT_HOPS) {
    return fail(error, "via", word);
  }
  if (!takeKeyword(words, "interface", error) || !takeNumber(words, "interface", hop.interface, error)) {
    return false;
  }
  route.hops.push_back(hop);
  return true;
}

} // namespace

IpAddress ipv4Address(uint32_t address) {
  IpAddress made;
  const uint32_t wire = htonl(address);
  std::memcpy(made.bytes.data(), &wire, sizeof wire);
  return made;
}

uint32_t ipv4Number(const IpAddress &address) {
  uint32_t wire = 0;
  std::memcpy(&wire, address.bytes.data(), sizeof wire);
  return ntohl(wire);
}

bool parseIpAddress(std::string_view word, IpAddress &address) {
  uint32_t number = 0;
  if (parseAddress(word, number)) {
    address = ipv4Address(number);
    return true;
  }
  IpAddress made;
  made.v6 = true;
  if (inet_pton(AF_INET6, std::string(word).c_str(), made.bytes.data()) != 1) {
    return false;
  }
  address = made;
  return true;
}

void appendIpAddress(std::string &out, const IpAddress &address) {
  char text[INET6_ADDRSTRLEN];
  if (address.v6) {
    out += inet_ntop(AF_INET6, address.bytes.data(), text, sizeof text);
  } else {
    appendAddress(out, ipv4Number(address));
  }
}

bool isPrefix(const IpAddress &address, uint32_t length) {
  if (length > lengthMax(address)) {
    return false;
  }
  for (uint32_t bit = length; bit < 8 * address.bytes.size(); ++bit) {
    if ((address.bytes[bit / 8] & (0x80u >> bit % 8)) != 0) {
      return false;
    }
  }
  return true;
}

void appendKernelPrefix(std::string &out, const KernelRoute::Key &key) {
  appendIpAddress(out, key.prefix);
  appendNumber(out += '/', key.length);
}

void appendKernelWords(std::string &out, const KernelRoute &route) {
  out += route.reject ? " reject" : "";
  out += route.discard ? " discard" : "";
  if (route.key.metric != 0) {
    appendNumber(out += " metric ", route.key.metric);
  }
  if (route.proto != 0) {
    appendNumber(out += " proto ", route.proto);
  }
  for (const KernelRoute::Hop &hop : route.hops) {
    appendIpAddress(out += " via ", hop.address);
    appendNumber(out += " interface ", hop.interface);
  }
}

void appendKernelRoute(std::string &out, const KernelRoute &route) {
  appendKernelPrefix(out += ' ', route.key);
  appendKernelWords(out, route);
}

bool parseKernelRoute(Words &words, KernelRoute &route, std::string &error) {
  bool good = takeKernelPrefix(words, route.key, error);
  while (good && !words.atEnd()) {
    const std::string_view word = words.take();
    if (word == "via") {
      good = takeHop(words, route, error);
    } else if (word == "metric" || word == "proto") {
      good = takeNumber(words, word, word == "metric" ? route.key.metric : route.proto, error);
    } else if (word == "reject" || word == "discard") {
      (word == "reject" ? route.reject : route.discard) = true;
    } else {
      good = fail(error, "kernel route", word);
    }
  }
  return good;
}

} // namespace orrin
