// Loaded in front of an agent's libraries by bench/agent and bench/neighbours: notes when the main thread first waits in its
// loop, how long the shell commands of its start took, and for each kernel neighbour when the switch had taken it, which is when
// the platform call returns. The notes stand in the file that AGENT_STAMPS names, for the bench to read. Written by the main
// thread alone.

#include "tarnapi.h"

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <time.h>
#include <unistd.h>

namespace {

constexpr uint64_t NEIGHBOURS_MAX = 4096;

struct NeighbourStamp {
  uint64_t address; // host byte order
  uint64_t known;
};

// As the benches read it; nanoseconds of the monotonic clock, 0 = has not happened.
struct Stamps {
  std::atomic<uint64_t> looping;
  std::atomic<uint64_t> inShells;
  std::atomic<uint64_t> neighbourCount;
  NeighbourStamp neighbours[NEIGHBOURS_MAX];
};

Stamps *stamps = [] {
  static Stamps nowhere;
  unsetenv("LD_PRELOAD"); // the shells that the agent starts would take longer with it
  const char *path = getenv("AGENT_STAMPS");
  const int fd = path != nullptr ? open(path, O_RDWR | O_CLOEXEC) : -1;
  void *mapped = fd >= 0 ? mmap(nullptr, sizeof(Stamps), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0) : MAP_FAILED;
  if (fd >= 0) {
    close(fd);
  }
  return mapped != MAP_FAILED ? static_cast<Stamps *>(mapped) : &nowhere;
}();

uint64_t now() {
  timespec time{};
  clock_gettime(CLOCK_MONOTONIC, &time);
  return static_cast<uint64_t>(time.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(time.tv_nsec);
}

} // namespace

extern "C" [[gnu::visibility("default")]] int select(int count, fd_set *in, fd_set *out, fd_set *except,
                                                     timeval *patience) {
  static const auto real = reinterpret_cast<decltype(&select)>(dlsym(RTLD_NEXT, "select"));
  // A wait for descriptors: start-up pauses without any.
  if (in != nullptr && stamps->looping.load() == 0 && getpid() == gettid()) {
    stamps->looping.store(now());
  }
  return real(count, in, out, except, patience);
}

extern "C" [[gnu::visibility("default")]] int system(const char *command) {
  static const auto real = reinterpret_cast<decltype(&system)>(dlsym(RTLD_NEXT, "system"));
  const uint64_t began = now();
  const int status = real(command);
  stamps->inShells.store(stamps->inShells.load() + now() - began);
  return status;
}

extern "C" int32_t rpcclt_tarnapiKernelArpAdd(tarnapiClient *client, uint32_t vrfId, const InetAddr *addr,
                                              const tarn_buffdesc *mac, uint32_t ifIndex, uint32_t state) {
  static const auto real =
      reinterpret_cast<decltype(&rpcclt_tarnapiKernelArpAdd)>(dlsym(RTLD_NEXT, "rpcclt_tarnapiKernelArpAdd"));
  const int32_t result = real(client, vrfId, addr, mac, ifIndex, state);
  const uint64_t place = stamps->neighbourCount.load();
  if (result == TARN_OK && place < NEIGHBOURS_MAX) {
    stamps->neighbours[place] = {.address = addr->ipv4, .known = now()};
    stamps->neighbourCount.store(place + 1);
  }
  return result;
}
