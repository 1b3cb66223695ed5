// `orrinctl diff`: compares what the switch holds for each VRF with what the kernel of the VRF's namespace holds. Both
// sides come in ascending order and are walked together once.
#include "grammar.h"
#include "orrinctl_mirror.h"
#include "orrinctl_session.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <linux/rtnetlink.h>
#include <span>

namespace {

constexpr int EXIT_SAME = 0;
constexpr int EXIT_DIFFERENT = 1;
constexpr int EXIT_TROUBLE = 2;

struct DiffOptions {
  bool oneVrf = false;
  uint32_t vrfId = 0;
  bool summary = false;
};

// The way a route goes, in the words of `ip route`.
std::string wayText(const MirrorRoute &route, const DeviceNames &devices) {
  switch (route.type) {
  case RTN_UNICAST:
    break;
  case RTN_UNREACHABLE:
    return "unreachable";
  case RTN_BLACKHOLE:
    return "blackhole";
  case RTN_PROHIBIT:
    return "prohibit";
  default:
    return "type " + std::to_string(route.type);
  }
  std::string text;
  if (route.gateway != 0) {
    text = "via ";
    orrin::appendAddress(text, route.gateway);
  }
  if (route.device != 0 && route.device != MirrorRoute::ANY_DEVICE) {
    text += text.empty() ? "dev " : " dev ";
    text += devices.nameOf(route.device);
  }
  return text.empty() ? "nowhere" : text;
}

bool sameWay(const MirrorRoute &expected, const MirrorRoute &kernel) {
  return expected.type == kernel.type && expected.gateway == kernel.gateway &&
         (expected.device == kernel.device || expected.device == MirrorRoute::ANY_DEVICE);
}

// Counts the differences of one VRF and, unless a summary is all that is wanted, prints each.
class RouteComparison {
public:
  RouteComparison(const MirrorVrf &vrf, const DeviceNames &devices, bool print)
      : vrf_(vrf), devices_(devices), print_(print) {}

  size_t run(std::span<const MirrorRoute> kernel) {
    auto have = kernel.begin();
    for (const MirrorRoute &want : vrf_.expected) {
      for (; have != kernel.end() && have->key() < want.key(); ++have) {
        report('+', *have, wayText(*have, devices_));
      }
      auto last = have;
      while (last != kernel.end() && last->key() == want.key()) {
        ++last;
      }
      compare(want, {have, last});
      have = last;
    }
    for (; have != kernel.end(); ++have) {
      report('+', *have, wayText(*have, devices_));
    }
    return differences_;
  }

private:
  // `have` is every route of that prefix in the kernel; more than one is already a fault.
  void compare(const MirrorRoute &want, std::span<const MirrorRoute> have) {
    if (have.empty()) {
      report('-', want, wayText(want, devices_));
      return;
    }
    auto match = std::find_if(have.begin(), have.end(), [&](const MirrorRoute &route) { return sameWay(want, route); });
    if (match == have.end()) {
      match = have.begin();
      report('~', want, "switch " + wayText(want, devices_) + ", kernel " + wayText(*match, devices_));
    }
    for (auto extra = have.begin(); extra != have.end(); ++extra) {
      if (extra != match) {
        report('+', *extra, wayText(*extra, devices_));
      }
    }
  }

  void report(char sign, const MirrorRoute &route, const std::string &way) {
    ++differences_;
    if (!print_) {
      return;
    }
    std::string prefix;
    orrin::appendPrefix(prefix, {route.prefix, route.length});
    std::printf("%c vrf %u route %s %s\n", sign, vrf_.id, prefix.c_str(), way.c_str());
  }

  const MirrorVrf &vrf_;
  const DeviceNames &devices_;
  const bool print_;
  size_t differences_ = 0;
};

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
    } else if (word != "routes") {
      return false;
    }
  }
  return true;
}

bool fetchDump(const DiffOptions &options, std::string &dump) {
  ControlSession session;
  if (!session.connect()) {
    std::fprintf(stderr, "orrinctl: %s\n", session.error().c_str());
    return false;
  }
  session.queue(options.oneVrf ? "dump vrf " + std::to_string(options.vrfId) : std::string("dump"));
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

int compareVrf(const MirrorVrf &vrf, DeviceNames &devices, const DiffOptions &options) {
  std::vector<MirrorRoute> kernel;
  if (const std::string error = readKernelRoutes(vrf, devices, kernel); !error.empty()) {
    std::fprintf(stderr, "orrinctl: vrf %u: %s\n", vrf.id, error.c_str());
    return EXIT_TROUBLE;
  }
  const size_t differences = RouteComparison(vrf, devices, !options.summary).run(kernel);
  if (options.summary) {
    std::printf("vrf %u %s switch %zu wanted %zu kernel %zu different %zu\n", vrf.id, vrf.name.c_str(),
                vrf.switchRoutes, vrf.expected.size(), kernel.size(), differences);
  }
  return differences == 0 ? EXIT_SAME : EXIT_DIFFERENT;
}

} // namespace

int runDiff(int argc, char **argv) {
  DiffOptions options;
  if (!parseOptions({argv, static_cast<size_t>(argc)}, options)) {
    std::fputs("usage: orrinctl diff [vrf <id>] [routes] [summary]\n", stderr);
    return EXIT_TROUBLE;
  }
  std::string dump;
  if (!fetchDump(options, dump)) {
    return EXIT_TROUBLE;
  }
  DeviceNames devices;
  std::vector<MirrorVrf> vrfs;
  if (const std::string error = readDump(dump, devices, vrfs); !error.empty()) {
    std::fprintf(stderr, "orrinctl: the switch's dump: %s\n", error.c_str());
    return EXIT_TROUBLE;
  }
  int status = EXIT_SAME;
  for (const MirrorVrf &vrf : vrfs) {
    status = std::max(status, compareVrf(vrf, devices, options));
  }
  return status;
}
