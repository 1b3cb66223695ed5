// Asking other namespaces. Used by orrin's one thread, which enters a namespace only to make a socket in it and is back before
// anything else happens. Nothing is kept open: a namespace that is removed must be gone, and another may come under its name.
// What was found is believed for a second, since neighbours and routes come in bursts and each asks for the same few devices.

#include "netns.h"

#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>

namespace orrin {

namespace {

constexpr const char *OWN = "/proc/self/ns/net";
constexpr const char *NAMED = "/run/netns/";

// Empty when the VRF's namespace is not known. The default VRF's devices are the switch's own.
std::string pathOf(const Vrf &vrf) {
  if (vrf.netns.empty()) {
    return vrf.id == 0 ? OWN : std::string();
  }
  return vrf.netns.front() == '/' ? vrf.netns : NAMED + vrf.netns;
}

UniqueFd openNamespace(const std::string &path) {
  return path.empty() ? UniqueFd() : UniqueFd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
}

UniqueFd socketIn(const Vrf &vrf) {
  static const UniqueFd home = openNamespace(OWN);
  const UniqueFd there = openNamespace(pathOf(vrf));
  if (!there || !home || setns(there.get(), CLONE_NEWNET) != 0) {
    return {};
  }
  UniqueFd made(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (setns(home.get(), CLONE_NEWNET) != 0) {
    std::abort(); // everything else would happen in the wrong place
  }
  return made;
}

constexpr uint64_t BELIEVED_MS = 1000;
constexpr size_t BELIEVED_MAX = 1024; // all are forgotten when there are more

template <class Key, class Value> class Believed {
public:
  const Value *find(const Key &key) const {
    const auto entry = entries_.find(key);
    return entry != entries_.end() && nowMs() < entry->second.untilMs ? &entry->second.value : nullptr;
  }

  void note(const Key &key, Value value) {
    if (entries_.size() >= BELIEVED_MAX) {
      entries_.clear();
    }
    entries_[key] = {std::move(value), nowMs() + BELIEVED_MS};
  }

private:
  struct Entry {
    Value value;
    uint64_t untilMs;
  };
  std::map<Key, Entry> entries_;
};

struct Namespace {
  uint32_t vrf;
  std::string path;
};

Believed<std::pair<std::string, uint32_t>, std::string> deviceNames; // by path of the namespace and index
Believed<uint32_t, Namespace> namespacesOfProcesses;

std::string deviceNameAsk(const Vrf &vrf, uint32_t index) {
  ifreq request{};
  const UniqueFd fd = socketIn(vrf);
  request.ifr_ifindex = static_cast<int>(index);
  if (!fd || ioctl(fd.get(), SIOCGIFNAME, &request) != 0) {
    return {};
  }
  return {request.ifr_name, strnlen(request.ifr_name, sizeof request.ifr_name)};
}

} // namespace

uint32_t deviceIndexIn(const Vrf &vrf, const std::string &device) {
  ifreq request{};
  const UniqueFd fd = device.size() < sizeof request.ifr_name ? socketIn(vrf) : UniqueFd();
  if (!fd) {
    return 0;
  }
  std::memcpy(request.ifr_name, device.data(), device.size());
  return ioctl(fd.get(), SIOCGIFINDEX, &request) == 0 ? static_cast<uint32_t>(request.ifr_ifindex) : 0;
}

std::string deviceNameIn(const Vrf &vrf, uint32_t index) {
  const std::pair key{pathOf(vrf), index};
  if (const std::string *name = deviceNames.find(key)) {
    return *name;
  }
  std::string name = deviceNameAsk(vrf, index);
  if (!name.empty()) {
    deviceNames.note(key, name);
  }
  return name;
}

const Vrf *vrfOfProcess(const Switch &sw, uint32_t process) {
  if (const Namespace *known = namespacesOfProcesses.find(process)) {
    const auto vrf = sw.vrfs.find(known->vrf);
    if (vrf != sw.vrfs.end() && pathOf(vrf->second) == known->path) {
      return &vrf->second;
    }
  }
  struct stat wanted {};
  if (stat(("/proc/" + std::to_string(process) + "/ns/net").c_str(), &wanted) != 0) {
    return nullptr;
  }
  for (const auto &[id, vrf] : sw.vrfs) {
    const std::string path = pathOf(vrf);
    struct stat status {};
    if (!path.empty() && stat(path.c_str(), &status) == 0 && status.st_dev == wanted.st_dev &&
        status.st_ino == wanted.st_ino) {
      namespacesOfProcesses.note(process, {id, path});
      return &vrf;
    }
  }
  return nullptr;
}

} // namespace orrin
