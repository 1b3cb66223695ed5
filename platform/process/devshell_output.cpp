// Standard output of a program whose debug shell may run an operation at any moment. The operation prints with the same
// `stdout` as everybody, so a stream of ours takes its place, whose write function looks at the thread that calls it.
//
// That is right only as long as no text waits in the stream's buffer for another thread to push it out. So the stream is
// unbuffered while an operation runs: each call's text then passes the write function inside that call. Holding the stream's
// lock for the whole operation instead would be simpler and could lock up the program: the operation may need a lock whose
// owner is just about to print. What other threads print meanwhile goes through the program's own stream, which keeps their
// lines whole; at all other times our stream is line-buffered and writes to descriptor 1 itself.

#include "devshell_output.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <sys/mman.h>
#include <unistd.h>
#include <utility>

namespace {

constexpr uint64_t CAPTURE_BYTES_MAX = 64 << 20; // an operation gone wild must not eat the memory of the machine

struct Capture {
  int memory = -1; // -1 = the thread's output is the program's
  uint64_t bytes = 0;
};
thread_local Capture threadCapture;

FILE *programStream = nullptr; // what stdout was
FILE *shellStream = nullptr;   // what stdout is
std::array<char, BUFSIZ> streamBuffer;

// Where the stream's lock is held. The lock is all that is needed; the counter tells the thread sanitizer of it, which does not
// know locks of streams.
class StreamTurn {
public:
  StreamTurn() { pass(); }
  StreamTurn(const StreamTurn &) = delete;
  StreamTurn &operator=(const StreamTurn &) = delete;
  ~StreamTurn() { pass(); }

private:
  static void pass() { turns.fetch_add(1, std::memory_order_acq_rel); }
  static inline std::atomic<uint32_t> turns{0};
};

bool operationRuns = false; // changed and read in a turn

bool writeWhole(int fd, const char *bytes, size_t size) {
  while (size > 0) {
    const ssize_t written = write(fd, bytes, size);
    if (written < 0 && errno == EINTR) {
      continue;
    }
    if (written <= 0) {
      return false;
    }
    bytes += written;
    size -= static_cast<size_t>(written);
  }
  return true;
}

// The stream's lock is held. Outside an operation the text may be several threads', and all of it is the program's.
ssize_t streamWrite(void *, const char *bytes, size_t size) {
  const StreamTurn turn;
  Capture &capture = threadCapture;
  if (capture.memory >= 0) {
    const size_t kept = std::min<uint64_t>(size, CAPTURE_BYTES_MAX - capture.bytes);
    capture.bytes += kept;
    return writeWhole(capture.memory, bytes, kept) ? static_cast<ssize_t>(size) : 0;
  }
  const bool passed =
      operationRuns ? fwrite(bytes, 1, size, programStream) == size : writeWhole(STDOUT_FILENO, bytes, size);
  return passed ? static_cast<ssize_t>(size) : 0;
}

void operationBegins() {
  flockfile(shellStream);
  {
    const StreamTurn turn;
    setvbuf(shellStream, nullptr, _IONBF, 0); // sends out what waits in the buffer
    operationRuns = true;
  }
  funlockfile(shellStream);
}

void operationEnds() {
  flockfile(shellStream);
  {
    const StreamTurn turn;
    fflush(programStream);
    operationRuns = false;
    setvbuf(shellStream, streamBuffer.data(), _IOLBF, streamBuffer.size());
  }
  funlockfile(shellStream);
}

} // namespace

bool programOutputTakeOver() {
  if (shellStream != nullptr) {
    return true;
  }
  FILE *stream = fopencookie(nullptr, "w", {.read = nullptr, .write = streamWrite, .seek = nullptr, .close = nullptr});
  if (stream == nullptr) {
    return false;
  }
  setvbuf(stream, streamBuffer.data(), _IOLBF, streamBuffer.size());
  fflush(stdout);
  programStream = stdout;
  shellStream = stream;
  stdout = stream;
  return true;
}

OutputCapture::OutputCapture() : memory_(memfd_create("devshell-output", MFD_CLOEXEC)) {
  if (memory_) {
    operationBegins();
    threadCapture = {.memory = memory_.get(), .bytes = 0};
    capturing_ = true;
  }
}

OutputCapture::~OutputCapture() {
  end();
}

UniqueFd OutputCapture::finish() {
  end();
  return std::move(memory_);
}

void OutputCapture::end() {
  if (capturing_) {
    threadCapture = {};
    operationEnds();
    capturing_ = false;
  }
}
