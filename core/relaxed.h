// A value that several threads read and write without ordering anything else by it: counters, masks, tunables, and the
// fields that the operator's show operations print while the main thread works.
#pragma once

#include <atomic>

template <typename T> class Relaxed {
public:
  constexpr Relaxed(T value = T{}) : value_(value) {}
  Relaxed(const Relaxed &other) : value_(other.get()) {}
  Relaxed &operator=(const Relaxed &other) { return *this = other.get(); }
  Relaxed &operator=(T value) {
    value_.store(value, std::memory_order_relaxed);
    return *this;
  }

  T get() const { return value_.load(std::memory_order_relaxed); }
  operator T() const { return get(); }

  void operator++() { value_.fetch_add(1, std::memory_order_relaxed); }
  void operator--() { value_.fetch_sub(1, std::memory_order_relaxed); }

private:
  std::atomic<T> value_;
};
