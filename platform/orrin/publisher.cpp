// Writes the published page. Used by orrin's one thread, the page's only writer.

#include "publisher.h"

#include "switch.h"

#include <fcntl.h>
#include <new>
#include <sys/mman.h>

namespace orrin {

using tarnwire::Published;
using tarnwire::PublishedInterface;
using tarnwire::PublishedVrf;

Publisher::~Publisher() {
  if (page_ != nullptr) {
    page_->heartbeatMs.store(0, std::memory_order_release); // an end that readers need not wait for
    munmap(page_, sizeof *page_);
  }
}

bool Publisher::open() {
  UniqueFd fd(memfd_create("orrin-published", MFD_CLOEXEC | MFD_ALLOW_SEALING));
  if (!fd || ftruncate(fd.get(), sizeof(Published)) != 0) {
    return false;
  }
  void *memory = mmap(nullptr, sizeof(Published), PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
  if (memory == MAP_FAILED) {
    return false;
  }
  page_ = new (memory) Published{};
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  page_->tableChanges.store(static_cast<uint64_t>(now.tv_sec) * 1000000000 + static_cast<uint64_t>(now.tv_nsec));
  fd_ = std::move(fd);
  beat();
  // Our own mapping goes on writing; nobody makes another writable one.
  return fcntl(fd_.get(), F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_FUTURE_WRITE | F_SEAL_SEAL) == 0;
}

void Publisher::beat() {
  if (page_ != nullptr) {
    page_->heartbeatMs.store(tarnwire::coarseMilliseconds(), std::memory_order_release);
  }
}

void Publisher::tableChanged() {
  if (page_ != nullptr) {
    page_->tableChanges.store(tableChanges() + 1, std::memory_order_release);
  }
}

uint64_t Publisher::tableChanges() const {
  return page_ == nullptr ? 0 : page_->tableChanges.load(std::memory_order_relaxed);
}

void Publisher::systemReady(bool ready) {
  if (page_ != nullptr) {
    page_->systemReady.store(ready ? 1 : 0, std::memory_order_release);
  }
}

void Publisher::gateways(const Gateways &gateways) {
  const auto packed = [](const std::optional<uint32_t> &address) {
    return address ? tarnwire::GATEWAY_SET | *address : uint64_t{0};
  };
  if (page_ != nullptr) {
    page_->servicePortGateway.store(packed(gateways.servicePort), std::memory_order_release);
    page_->networkPortGateway.store(packed(gateways.networkPort), std::memory_order_release);
  }
}

void Publisher::fault(tarnwire::Op op, bool set) {
  if (page_ != nullptr) {
    page_->askFor[op].store(set ? 1 : 0, std::memory_order_release);
  }
}

void Publisher::vrf(const Vrf &vrf) {
  if (page_ == nullptr || vrf.id >= tarnwire::PUBLISHED_VRFS) {
    return;
  }
  tarnwire::publishEntry(page_->vrfs[vrf.id], [&vrf](PublishedVrf &entry) {
    entry.present.store(1, std::memory_order_release);
    tarnwire::storeName(entry.interfaceName, vrf.interfaceName);
  });
}

void Publisher::vrfGone(uint32_t id) {
  if (page_ != nullptr && id < tarnwire::PUBLISHED_VRFS) {
    tarnwire::publishEntry(page_->vrfs[id],
                           [](PublishedVrf &entry) { entry.present.store(0, std::memory_order_release); });
  }
}

void Publisher::interface(const Interface &interface) {
  if (page_ == nullptr || interface.number >= tarnwire::PUBLISHED_INTERFACES) {
    return;
  }
  tarnwire::publishEntry(page_->interfaces[interface.number], [&interface](PublishedInterface &entry) {
    entry.present.store(1, std::memory_order_release);
    entry.vrf.store(interface.vrf, std::memory_order_release);
    entry.type.store(interface.type, std::memory_order_release);
    tarnwire::storeName(entry.name, interface.name);
    tarnwire::storeName(entry.device, interface.device);
  });
}

void Publisher::interfaceGone(uint32_t number) {
  if (page_ != nullptr && number < tarnwire::PUBLISHED_INTERFACES) {
    tarnwire::publishEntry(page_->interfaces[number],
                           [](PublishedInterface &entry) { entry.present.store(0, std::memory_order_release); });
  }
}

} // namespace orrin
