// Standard output of a program whose debug shell may run an operation at any moment. The operation prints with the same
// `stdout` as everybody, so a stream of ours takes its place, whose write function looks at the thread that calls it.
//
// That is right only as long as no text waits in the stream's buffer for another thread to push it out. So the stream is
// unbuffered while an operation runs: each call's text then passes the write function inside that call. Holding the stream's
// lock for the whole operation instead would be simpler and could lock up the program: the operation may need a lock whose
// owner is just about to print. What other threads print meanwhile goes through the program's own stream, which keeps their
// lines whole; at all other times our stream is line-buffered and writes to descriptor 1 itself.
//
// Nobody waits long for a reader of descriptor 1 that has stopped: after a second what it has no room for is dropped, at once from
// then on, and once there is room again it is told how much is missing.

#include "devshell_output.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <poll.h>
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

constexpr int READER_PATIENCE_MSEC = 1000;

FILE *programStream = nullptr; // of the text of other threads, while an operation runs
FILE *shellStream = nullptr;   // what stdout is
std::array<char, BUFSIZ> streamBuffer;
uint64_t bytesDropped = 0; // since descriptor 1 had room last; used with the shell stream's lock held

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

// A reader that has gone is room: the write says so.
bool programHasRoom(int patienceMsec) {
  pollfd output = {.fd = STDOUT_FILENO, .events = POLLOUT, .revents = 0};
  return poll(&output, 1, patienceMsec) > 0;
}

bool programNote(uint64_t missing) {
  std::array<char, 64> text;
  const int length = snprintf(text.data(), text.size(), "\n[%llu bytes of output dropped]\n",
                              static_cast<unsigned long long>(missing));
  return writeWhole(STDOUT_FILENO, text.data(), static_cast<size_t>(length));
}

// In pieces that a pipe with any room takes without waiting.
bool programWrite(const char *bytes, size_t size) {
  for (size_t done = 0; done < size;) {
    if (!programHasRoom(bytesDropped == 0 ? READER_PATIENCE_MSEC : 0)) {
      bytesDropped += size - done;
      return true;
    }
    if (bytesDropped != 0) {
      const uint64_t missing = std::exchange(bytesDropped, 0);
      if (!programNote(missing)) {
        return false;
      }
      continue; // which may have taken the room
    }
    const size_t piece = std::min<size_t>(size - done, PIPE_BUF);
    if (!writeWhole(STDOUT_FILENO, bytes + done, piece)) {
      return false;
    }
    done += piece;
  }
  return true;
}

ssize_t programStreamWrite(void *, const char *bytes, size_t size) {
  return programWrite(bytes, size) ? static_cast<ssize_t>(size) : 0;
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
  const bool passed = operationRuns ? fwrite(bytes, 1, size, programStream) == size : programWrite(bytes, size);
  return passed ? static_cast<ssize_t>(size) : 0;
}

FILE *streamOf(cookie_write_function_t *write) {
  return fopencookie(nullptr, "w", {.read = nullptr, .write = write, .seek = nullptr, .close = nullptr});
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
  FILE *program = streamOf(programStreamWrite);
  FILE *shell = streamOf(streamWrite);
  if (program == nullptr || shell == nullptr) {
    return false;
  }
  setvbuf(program, nullptr, _IOLBF, BUFSIZ);
  setvbuf(shell, streamBuffer.data(), _IOLBF, streamBuffer.size());
  fflush(stdout);
  programStream = program;
  shellStream = shell;
  stdout = shell;
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
