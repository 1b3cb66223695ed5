// `orrinctl diff`: compares what the switch holds for each VRF with what the kernel of the VRF's namespace holds.
#include "orrinctl_diff.h"

#include "commands.h"
#include "orrinctl_netlink.h"
#include "orrinctl_session.h"

#include <array>
#include <charconv>
#include <cstdio>
#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <span>

namespace orrin {

namespace {

constexpr int EXIT_SAME = 0;
constexpr int EXIT_DIFFERENT = 1;
constexpr int EXIT_TROUBLE = 2;

struct Area {
  const char *name;
  std::string (*compare)(const Switch &sw, const Vrf &vrf, Comparison &comparison);
  bool reported; // the kernel is the origin, and the switch has what the agent reported
};

constexpr std::array AREAS = {Area{"interfaces", compareInterfaces, false}, Area{"routes", compareRoutes, false},
                              Area{"neighbours", compareNeighbours, true},
                              Area{"kernel-routes", compareKernelRoutes, true}};

struct DiffOptions {
  bool oneVrf = false;
  uint32_t vrfId = 0;
  bool summary = false;
  std::array<bool, AREAS.size()> areas{}; // none = those that the agent writes into the kernel

  bool reported() const {
    for (size_t i = 0; i < AREAS.size(); ++i) {
      if (areas[i] && AREAS[i].reported) {
        return true;
      }
    }
    return false;
  }
};

bool takeArea(std::string_view word, DiffOptions &options) {
  const auto *area = std::find_if(AREAS.begin(), AREAS.end(), [word](const Area &each) { return word == each.name; });
  if (area == AREAS.end()) {
    return false;
  }
  options.areas[static_cast<size_t>(area - AREAS.begin())] = true;
  return true;
}

bool parseOptions(std::span<char *const> words, DiffOptions &options) {
  for (size_t i = 0; i < words.size(); ++i) {
    const std::string_view word = words[i];
    if (word == "vrf" && i + 1 < words.size()) {
      const std::string_view id = words[++i];
      const auto parsed = std::from_chars(id.data(), id.data() + id.size(), options.vrfId);
      if (parsed.ec != std::errc{} || parsed.ptr != id.data() + id.size()) {
        return false;
      }
      options.oneVrf = true;
    } else if (word == "summary") {
      options.summary = true;
    } else if (!takeArea(word, options)) {
      return false;
    }
  }
  if (std::ranges::none_of(options.areas, [](bool chosen) { return chosen; })) {
    std::ranges::transform(AREAS, options.areas.begin(), [](const Area &area) { return !area.reported; });
  }
  return true;
}

bool fetch(const std::string &command, std::string &dump) {
  ControlSession session;
  if (!session.connect()) {
    std::fprintf(stderr, "orrinctl: %s\n", session.error().c_str());
    return false;
  }
  session.queue(command);
  if (session.wait(-1) != ControlSession::Event::Answer) {
    std::fprintf(stderr, "orrinctl: %s\n", session.error().c_str());
    return false;
  }
  ControlAnswer answer = session.takeAnswer();
  if (!answer.accepted) {
    std::fprintf(stderr, "orrinctl: %s\n", answer.text.c_str());
    return false;
  }
  dump = std::move(answer.text);
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
  for (size_t i = 0; i < AREAS.size(); ++i) {
    if (!options.areas[i]) {
      continue;
    }
    Comparison comparison(vrf.id, !options.summary);
    if (const std::string error = AREAS[i].compare(sw, vrf, comparison); !error.empty()) {
      return trouble(vrf, error);
    }
    if (options.summary) {
      std::printf("vrf %u %s %s switch %zu wanted %zu kernel %zu different %zu\n", vrf.id, vrf.name.c_str(),
                  AREAS[i].name, comparison.onSwitch, comparison.wanted, comparison.inKernel, comparison.different);
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
  const std::string which = options.oneVrf ? " vrf " + std::to_string(options.vrfId) : std::string();
  std::string dump;
  std::string reported;
  if ((options.reported() && !fetch("dump reported" + which, reported)) || !fetch("dump" + which, dump)) {
    return EXIT_TROUBLE;
  }
  Switch sw;
  sw.restoring = true; // does nothing to the machine, and takes the reports
  if (const std::string error = replay(dump, sw); !error.empty()) {
    std::fprintf(stderr, "orrinctl: the switch's dump: %s\n", error.c_str());
    return EXIT_TROUBLE;
  }
  replay(reported, sw); // a line may name a VRF that was deleted between the two answers
  int status = EXIT_SAME;
  for (const auto &[id, vrf] : sw.vrfs) {
    status = std::max(status, compareVrf(sw, vrf, options));
  }
  return status;
}

} // namespace orrin
