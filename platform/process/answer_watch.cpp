// A poll of io_uring on one socket, which completes once and is then made anew. Where anything about it fails, or the kernel has no
// such thing, the watch says that it cannot tell, and its user looks at the socket. Used by one thread at a time.

#include "answer_watch.h"

#include <atomic>
#include <cstddef>
#include <linux/io_uring.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

constexpr uint32_t SUBMISSIONS = 1;
constexpr size_t RINGS_BYTES = 4096; // more than two queues of so few entries take
constexpr size_t ENTRIES_BYTES = SUBMISSIONS * sizeof(io_uring_sqe);

uint32_t *at(void *memory, uint32_t offset) {
  return reinterpret_cast<uint32_t *>(static_cast<std::byte *>(memory) + offset);
}

void *map(int ring, size_t bytes, off_t what) {
  void *memory = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_POPULATE, ring, what);
  return memory != MAP_FAILED ? memory : nullptr;
}

void unmap(void *&memory, size_t bytes) {
  if (memory != nullptr) {
    munmap(memory, bytes);
    memory = nullptr;
  }
}

} // namespace

void AnswerWatch::begin(int fd) {
  end();
  io_uring_params params{};
  ring_.reset(static_cast<int>(syscall(SYS_io_uring_setup, SUBMISSIONS, &params)));
  if (!ring_ || (params.features & IORING_FEAT_SINGLE_MMAP) == 0) {
    end();
    return;
  }
  rings_ = map(ring_.get(), RINGS_BYTES, IORING_OFF_SQ_RING);
  entries_ = map(ring_.get(), ENTRIES_BYTES, IORING_OFF_SQES);
  if (rings_ == nullptr || entries_ == nullptr) {
    end();
    return;
  }
  submitted_ = at(rings_, params.sq_off.tail);
  *at(rings_, params.sq_off.array) = 0; // the one entry, always
  completionsTaken_ = at(rings_, params.cq_off.head);
  completions_ = at(rings_, params.cq_off.tail);
  fd_ = fd;
  thread_ = pthread_self();
  if (!arm()) {
    end();
  }
}

void AnswerWatch::end() {
  fd_ = -1;
  unmap(rings_, RINGS_BYTES);
  unmap(entries_, ENTRIES_BYTES);
  ring_.reset();
}

bool AnswerWatch::arm() {
  auto &entry = *static_cast<io_uring_sqe *>(entries_);
  entry = {};
  entry.opcode = IORING_OP_POLL_ADD;
  entry.fd = fd_;
  entry.poll32_events = POLLIN; // and errors, which always count
  std::atomic_ref(*submitted_).store(*submitted_ + 1, std::memory_order_release);
  return syscall(SYS_io_uring_enter, ring_.get(), 1, 0, 0, nullptr, 0) == 1;
}

bool AnswerWatch::nothingCame(int fd) const {
  return isFor(fd) && *completionsTaken_ == std::atomic_ref(*completions_).load(std::memory_order_acquire);
}

// What arrives in between completes the new poll at once.
void AnswerWatch::isEmpty(int fd) {
  if (nothingCame(fd) || !isFor(fd)) {
    return;
  }
  std::atomic_ref(*completionsTaken_).store(*completionsTaken_ + 1, std::memory_order_release);
  if (!arm()) {
    end();
  }
}
