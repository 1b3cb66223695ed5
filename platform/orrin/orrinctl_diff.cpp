// `orrinctl diff`: compares what the switch holds for each VRF with what the kernel of the VRF's namespace holds.
#include "orrinctl_diff.h"

#include "commands.h"
#include "orrinctl_netlink.h"
#include "orrinctl_session.h"

#include <array>
#include <cstdio>
#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <set>
#include <span>

namespace orrin {

namespace {

constexpr int EXIT_SAME = 0;
constexpr int EXIT_DIFFERENT = 1;
constexpr int EXIT_TROUBLE = 2;

struct Area {
  std::string_view name;
  std::string (*compare)(const Switch &sw, const Vrf &vrf, Comparison &comparison);
  bool reported; // the kernel is the origin, and the switch has what the agent reported
};

constexpr Area AREAS[] = {{"interfaces", compareInterfaces, false},
                          {"routes", compareRoutes, false},
                          {"neighbours", compareNeighbours, true},
                          {"kernel-routes", compareKernelRoutes, true}};

struct DiffOptions {
  std::string vrf; // " vrf 3", or empty for all
  bool summary = false;
  std::set<const Area *> areas;
  bool reported = false; // one of them is
};

bool parseOptions(std::span<char *const> words, DiffOptions &options) {
  for (size_t i = 0; i < words.size(); ++i) {
    const std::string_view word = words[i];
    uint32_t id = 0;
    if (const Area *area = std::ranges::find(AREAS, word, &Area::name); area != std::end(AREAS)) {
      options.areas.insert(area);
      options.reported = options.reported || area->reported;
    } else if (word == "summary") {
      options.summary = true;
    } else if (word == "vrf" && i + 1 < words.size() && parseNumber(words[++i], id)) {
      options.vrf = " vrf " + std::to_string(id);
    } else {
      return false;
    }
  }
  const bool noneIsNamed = options.areas.empty();
  for (const Area &area : AREAS) {
    if (noneIsNamed && !area.reported) { // those that the agent writes into the kernel
      options.areas.insert(&area);
    }
  }
  return true;
}

std::string enterNamespace(const Vrf &vrf) {
  // The default VRF's devices are the switch's own: without a namespace of its own it is compared where we started.
  static const UniqueFd home(open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC));
  if (vrf.netns.empty()) {
    if (vrf.id != 0) {
      return "no network namespace is set (netns)";
    }
    return setns(home.get(), CLONE_NEWNET) == 0 ? std::string() : systemError("cannot enter the own namespace");
  }
  const std::string path = vrf.netns.front() == '/' ? vrf.netns : "/run/netns/" + vrf.netns;
  const UniqueFd ns(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (ns.get() < 0 || setns(ns.get(), CLONE_NEWNET) != 0) {
    return systemError("cannot enter namespace " + path);
  }
  return {};
}

int trouble(const Vrf &vrf, const std::string &error) {
  std::fprintf(stderr, "orrinctl: vrf %u: %s\n", vrf.id, error.c_str());
  return EXIT_TROUBLE;
}

int compareVrf(const Switch &sw, const Vrf &vrf, const DiffOptions &options) {
  if (const std::string error = enterNamespace(vrf); !error.empty()) {
    return trouble(vrf, error);
  }
  int status = EXIT_SAME;
  for (const Area *area : options.areas) {
    Comparison comparison(vrf.id, !options.summary);
    if (const std::string error = area->compare(sw, vrf, comparison); !error.empty()) {
      return trouble(vrf, error);
    }
    if (options.summary) {
      std::printf("vrf %u %s %s switch %zu wanted %zu kernel %zu different %zu\n", vrf.id, vrf.name.c_str(),
                  area->name.data(), comparison.onSwitch, comparison.wanted, comparison.inKernel, comparison.different);
    }
    status = comparison.different != 0 ? EXIT_DIFFERENT : status;
  }
  return status;
}

// Line by line into the switch. Returns the first refusal.
std::string replay(std::string_view dump, Switch &sw) {
  std::string refusal;
  std::string out;
  while (!dump.empty()) {
    const size_t end = std::min(dump.find('\n'), dump.size());
    const std::string_view line = dump.substr(0, end);
    if (!runCommand(sw, line, out) && refusal.empty()) {
      refusal = "\"" + std::string(line) + "\": " + out;
    }
    dump.remove_prefix(std::min(end + 1, dump.size()));
  }
  return refusal;
}

} // namespace

uint32_t Comparison::wayOf(std::string text) {
  const auto [entry, isNew] = wayNumbers_.try_emplace(std::move(text), static_cast<uint32_t>(ways_.size()));
  if (isNew) {
    ways_.push_back(&entry->first);
  }
  return entry->second;
}

const std::string &Comparison::deviceOf(uint32_t index) {
  const auto [entry, isNew] = devices_.try_emplace(index);
  if (isNew) {
    std::array<char, IF_NAMESIZE> name{};
    entry->second = if_indextoname(index, name.data()) != nullptr ? name.data() : "if" + std::to_string(index);
  }
  return entry->second;
}

// Wanted without a device, a route may use any.
bool Comparison::isWay(uint32_t want, uint32_t have) const {
  const std::string &text = *ways_[want];
  const std::string &other = *ways_[have];
  return want == have ||
         (other.starts_with(text) && other.substr(text.size()).starts_with(text.empty() ? "dev " : " dev "));
}

void Comparison::report(char sign, const std::string &name, const std::string &way) {
  ++different;
  if (print_) {
    std::printf("%c vrf %u %s%s%s\n", sign, vrf_, name.c_str(), way.empty() ? "" : " ", way.c_str());
  }
}

int runDiff(int argc, char **argv) {
  DiffOptions options;
  if (!parseOptions({argv, static_cast<size_t>(argc)}, options)) {
    std::fputs("usage: orrinctl diff [vrf <id>] [interfaces|routes|neighbours|kernel-routes]... [summary]\n", stderr);
    return EXIT_TROUBLE;
  }
  const ControlAnswer reported = options.reported ? askOrrin("dump reported" + options.vrf) : ControlAnswer{true, {}};
  const ControlAnswer dump = reported.accepted ? askOrrin("dump" + options.vrf) : reported;
  if (!dump.accepted) {
    std::fprintf(stderr, "orrinctl: %s\n", dump.text.c_str());
    return EXIT_TROUBLE;
  }
  Switch sw;
  sw.restoring = true; // does nothing to the machine, and takes the reports
  if (const std::string error = replay(dump.text, sw); !error.empty()) {
    std::fprintf(stderr, "orrinctl: the switch's dump: %s\n", error.c_str());
    return EXIT_TROUBLE;
  }
  replay(reported.text, sw); // a line may name a VRF that was deleted between the two answers
  int status = EXIT_SAME;
  for (const auto &[id, vrf] : sw.vrfs) {
    status = std::max(status, compareVrf(sw, vrf, options));
  }
  return status;
}

} // namespace orrin
