// The epoll set of orrin's loop.

#include "poller.h"

#include <cstddef>

namespace orrin {

namespace {

epoll_event eventOf(uint32_t events, Watched kind, uint32_t number) {
  epoll_event event{};
  event.events = events;
  event.data.u64 = uint64_t{static_cast<uint32_t>(kind)} << 32 | number;
  return event;
}

} // namespace

Poller::Poller() : epoll_(epoll_create1(EPOLL_CLOEXEC)) {}

bool Poller::watch(int fd, uint32_t events, Watched kind, uint32_t number) {
  epoll_event event = eventOf(events, kind, number);
  return epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &event) == 0;
}

void Poller::change(int fd, uint32_t events, Watched kind, uint32_t number) {
  epoll_event event = eventOf(events, kind, number);
  epoll_ctl(epoll_.get(), EPOLL_CTL_MOD, fd, &event);
}

std::span<const Poller::Event> Poller::wait(int milliseconds) {
  epoll_event raw[BATCH];
  const int count = epoll_wait(epoll_.get(), raw, BATCH, milliseconds);
  for (int index = 0; index < count; ++index) {
    const uint64_t data = raw[index].data.u64;
    events_[index] = {static_cast<Watched>(data >> 32), static_cast<uint32_t>(data), raw[index].events};
  }
  return {events_, static_cast<size_t>(count > 0 ? count : 0)};
}

} // namespace orrin
