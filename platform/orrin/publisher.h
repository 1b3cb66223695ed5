// orrin's side of the published page: a sealed memory file that clients map read-only.
#pragma once

#include "faults.h"
#include "published.h"
#include "unique_fd.h"

#include <cstdint>
#include <string_view>

namespace orrin {

struct Vrf;
struct Interface;
struct Gateways;

class Publisher {
public:
  Publisher() = default;
  Publisher(const Publisher &) = delete;
  Publisher &operator=(const Publisher &) = delete;
  ~Publisher();

  // False, with errno, when the memory cannot be had.
  bool open();
  int fd() const { return fd_.get(); }

  void beat();
  void tableChanged();
  uint64_t tableChanges() const;
  void systemReady(bool ready);
  void gateways(const Gateways &gateways);
  void fault(tarnwire::Op op, bool set);
  void vrf(const Vrf &vrf);
  void vrfGone(uint32_t id);
  void interface(const Interface &interface);
  void interfaceGone(uint32_t number);

private:
  UniqueFd fd_;
  tarnwire::Published *page_ = nullptr; // null until open; what is published then goes nowhere
};

} // namespace orrin
