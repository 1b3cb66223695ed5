// A switch as its state folder would bring it back, and the system calls that would lead out of it.

#include "switch.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <sys/stat.h>

namespace {

constexpr std::string_view CONFIGURATION[] = {
    "vrf add 0 default",
    "vrf add 3 blue interface rt0.blue netns blue",
    "vrf set 3 routing on",
    "vrf set 3 kernel-routes 4",
    "interface add 11 vrf 3 name 1/0/1 device rt1 index 41",
    "interface set 11 address 10.1.1.1/24 mac 02:00:00:00:00:01 mtu 1400",
    "interface secondary 11 add 10.1.2.1/24 index 1",
    "interface vrrp 11 label 1 add 10.1.1.254",
    "interface enable 11",
    "interface add 12 vrf 3 name 1/0/2 device rt2 type 5",
    "route add vrf 3 10.9.0.0/16 metric 5 proto 2 via 10.1.1.2 interface 11 via 10.1.1.3 interface 11",
    "route add vrf 3 10.8.0.0/16 discard",
    "routes add vrf 3 10.7.0.0/24 count 4 via 10.1.1.2 interface 11",
    "arp learn vrf 3 10.1.1.2 mac 02:00:00:00:00:02 interface 11",
    "ipsla start vrf 3 5 to 10.1.1.2",
    "reported arp vrf 3 10.1.1.9 mac 02:00:00:00:00:09 interface 11 ifindex 41 state 2",
    "client best-route 1 vrf 3 pid 4194303 started 1 name mirel:3",
    "client router-event 2 vrf 3 pid 4194303 started 1 name mirel:3",
};

void run(orrin::Switch &sw, std::string_view line) {
  std::string out;
  if (!orrin::runCommand(sw, line, out)) {
    fprintf(stderr, "fuzz: %.*s: %s\n", static_cast<int>(line.size()), line.data(), out.c_str());
    abort();
  }
}

std::string dump(orrin::Switch &sw) {
  std::string configuration;
  std::string reported;
  orrin::runCommand(sw, "dump", configuration);
  orrin::runCommand(sw, "dump reported", reported);
  return configuration + reported;
}

bool outOfReach = false; // libFuzzer itself opens files meanwhile, between two inputs

int refused(int error) {
  errno = error;
  return -1;
}

} // namespace

// The linker puts these in the place of the system's calls.
extern "C" {

int __real_open(const char *path, int flags, mode_t mode);
int __real_stat(const char *path, struct stat *status);

int __wrap_connect() {
  return refused(ECONNREFUSED);
}

int __wrap_open(const char *path, int flags, mode_t mode) {
  return outOfReach ? refused(ENOENT) : __real_open(path, flags, mode);
}

int __wrap_stat(const char *path, struct stat *status) {
  return outOfReach ? refused(ENOENT) : __real_stat(path, status);
}
}

SmallSwitch::SmallSwitch() {
  outOfReach = true;
  sw_.restoring = true;
  for (const std::string_view line : CONFIGURATION) {
    run(sw_, line);
  }
  sw_.restoring = false;
}

SmallSwitch::~SmallSwitch() {
  outOfReach = false;
}

void SmallSwitch::print(size_t form) {
  constexpr std::string_view FORMS[] = {"show vrfs json",   "show interfaces json", "show routes json",
                                        "show arp json",    "show clients json",    "show events json",
                                        "show faults json", "show status",          "show routes",
                                        "show clients",     "ipsla show json",      "show arp"};
  std::string out;
  orrin::runCommand(sw_, FORMS[form % std::size(FORMS)], out);
}

void restoreCheck(orrin::Switch &sw) {
  const std::string before = dump(sw);
  orrin::Switch restored;
  restored.restoring = true;
  for (std::string_view rest = before; !rest.empty();) {
    const std::string_view line = rest.substr(0, rest.find('\n'));
    rest.remove_prefix(std::min(line.size() + 1, rest.size()));
    run(restored, line);
  }
  const std::string after = dump(restored);
  if (before != after) {
    fprintf(stderr, "fuzz: dumped:\n%s\nand restored:\n%s\n", before.c_str(), after.c_str());
    abort();
  }
}
