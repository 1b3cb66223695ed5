// Tells without a system call whether anything has arrived at a socket: the kernel notes each arrival in memory that it shares
// with us. It does so before the thread that watches is back from the system call during which something arrived, and only for
// that thread: others have to look for themselves.
#pragma once

#include "unique_fd.h"

#include <cstdint>
#include <pthread.h>

class AnswerWatch {
public:
  AnswerWatch() = default;
  ~AnswerWatch() { end(); }
  AnswerWatch(const AnswerWatch &) = delete;
  AnswerWatch &operator=(const AnswerWatch &) = delete;

  // Watches this socket, for the calling thread, and no other any more. Where the kernel does not offer it, none is watched.
  void begin(int fd);
  void end();

  // True when nothing has arrived; false also when it cannot tell. After false the socket is to be read until it is empty, and
  // then said to be.
  bool nothingCame(int fd) const;
  void isEmpty(int fd);

private:
  bool isFor(int fd) const { return fd == fd_ && pthread_equal(thread_, pthread_self()) != 0; }
  bool arm();

  UniqueFd ring_;
  int fd_ = -1;
  pthread_t thread_{};
  void *rings_ = nullptr;   // the queues of submissions and completions
  void *entries_ = nullptr; // the submissions
  uint32_t *submitted_ = nullptr;
  uint32_t *completionsTaken_ = nullptr;
  uint32_t *completions_ = nullptr;
};
