// The switch's side of the comparisons in which the kernel is the origin: what the agents have reported of it.
#include "orrinctl_mirror.h"

#include <algorithm>

using orrin::Words;

namespace {

// "10.1.0.7 mac 02:00:00:00:00:07 interface 301 ifindex 5 state 2"
bool readNeighbour(Words &words, MirrorVrf &vrf, std::string &error) {
  const std::string_view word = words.take();
  uint32_t address = 0;
  uint32_t number = 0;
  MirrorNeighbour neighbour;
  if (!orrin::parseAddress(word, address)) {
    error = "no address";
    return false;
  }
  if (!orrin::takeKeyword(words, "mac", error) || !orrin::takeMac(words, neighbour.mac, error) ||
      !orrin::takeKeyword(words, "interface", error) || !orrin::takeNumber(words, "interface", number, error) ||
      !orrin::takeKeyword(words, "ifindex", error) || !orrin::takeNumber(words, "ifindex", neighbour.index, error)) {
    return false;
  }
  vrf.neighbours[address] = neighbour;
  return true;
}

bool readLine(std::string_view line, std::deque<MirrorVrf> &vrfs, std::string &error) {
  Words words(line);
  uint32_t id = 0;
  const bool reported = words.takeIf("reported");
  const std::string_view what = words.take();
  if (!reported || (what != "arp" && what != "route")) {
    error = "no report";
    return false;
  }
  if (!orrin::takeKeyword(words, "vrf", error) || !orrin::takeNumber(words, "vrf", id, error)) {
    return false;
  }
  const auto vrf = std::find_if(vrfs.begin(), vrfs.end(), [id](const MirrorVrf &each) { return each.id == id; });
  if (vrf == vrfs.end()) {
    return true; // made since the configuration was asked for
  }
  if (what == "arp") {
    return readNeighbour(words, *vrf, error);
  }
  orrin::KernelRoute route;
  if (!orrin::parseKernelRoute(words, route, error)) {
    return false;
  }
  vrf->kernelRoutes[route.key] = std::move(route);
  return true;
}

} // namespace

std::string readReported(std::string_view dump, std::deque<MirrorVrf> &vrfs) {
  std::string error;
  while (!dump.empty()) {
    const size_t end = std::min(dump.find('\n'), dump.size());
    const std::string_view line = dump.substr(0, end);
    if (!readLine(line, vrfs, error)) {
      return "\"" + std::string(line) + "\": " + error;
    }
    dump.remove_prefix(std::min(end + 1, dump.size()));
  }
  return {};
}
