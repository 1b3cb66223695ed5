// The process log: one line on standard error a record, written in one call, so that lines of several threads and processes
// that share the descriptor do not mix. Called from any thread; holds no lock and allocates nothing. Under a journal the line
// begins with the severity in the journal's "<N>" form and carries no time, which the journal adds itself.

#include "qvproc.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <unistd.h>

namespace {

constexpr size_t LINE_MAX_BYTES = 2048; // below PIPE_BUF: a pipe takes the whole line or none of it
constexpr char CUT_MARK[] = "...";

constexpr std::array<const char *, 8> SEVERITY_NAMES = {"emerg",   "alert",  "crit", "error",
                                                        "warning", "notice", "info", "debug"};

struct Line {
  std::array<char, LINE_MAX_BYTES> bytes;
  size_t used = 0;
  bool cut = false;

  size_t room() const {
    return bytes.size() - used - sizeof CUT_MARK;
  } // the line end takes the place of the mark's NUL

  void took(int formatted) {
    if (formatted < 0) {
      return;
    }
    cut = cut || static_cast<size_t>(formatted) >= room();
    used += std::min(static_cast<size_t>(formatted), room() - 1);
  }
};

__attribute__((format(printf, 2, 3))) void append(Line &line, const char *format, ...) {
  va_list values;
  va_start(values, format);
  line.took(vsnprintf(line.bytes.data() + line.used, line.room(), format, values));
  va_end(values);
}

void appendTime(Line &line) {
  timespec now{};
  tm parts{};
  clock_gettime(CLOCK_REALTIME, &now);
  gmtime_r(&now.tv_sec, &parts);
  append(line, "%04d-%02d-%02dT%02d:%02d:%02d.%03ldZ ", parts.tm_year + 1900, parts.tm_mon + 1, parts.tm_mday,
         parts.tm_hour, parts.tm_min, parts.tm_sec, now.tv_nsec / 1000000);
}

// A record is one line: line ends at its tail go, and control characters inside become blanks, so that a name from outside
// can neither forge a record nor steer a terminal.
void makeOneLine(Line &line, size_t textStart) {
  while (line.used > textStart && (line.bytes[line.used - 1] == '\n' || line.bytes[line.used - 1] == '\r')) {
    --line.used;
  }
  std::replace_if(
      line.bytes.begin() + static_cast<ptrdiff_t>(textStart), line.bytes.begin() + static_cast<ptrdiff_t>(line.used),
      [](char byte) { return (static_cast<unsigned char>(byte) < ' ' && byte != '\t') || byte == '\x7f'; }, ' ');
}

void writeOut(const Line &line) {
  ssize_t written;
  do {
    written = write(STDERR_FILENO, line.bytes.data(), line.used);
  } while (written < 0 && errno == EINTR);
}

} // namespace

extern "C" int32_t qvproc_logf(uint32_t severity, uint32_t component, const char *file, uint32_t line,
                               const char *format, ...) {
  const int callersErrno = errno;
  const bool underJournal = getenv("JOURNAL_STREAM") != nullptr;
  const uint32_t level = std::min<uint32_t>(severity, SEVERITY_NAMES.size() - 1);

  Line record;
  if (underJournal) {
    append(record, "<%u>", level);
  } else {
    appendTime(record);
  }
  append(record, "%s %u %s:%u: ", SEVERITY_NAMES[level], component, file, line);

  const size_t textStart = record.used;
  va_list values;
  va_start(values, format);
  errno = callersErrno; // for %m
  record.took(vsnprintf(record.bytes.data() + record.used, record.room(), format, values));
  va_end(values);

  makeOneLine(record, textStart);
  if (record.cut) {
    record.used += static_cast<size_t>(snprintf(record.bytes.data() + record.used, sizeof CUT_MARK, CUT_MARK));
  }
  record.bytes[record.used++] = '\n';
  writeOut(record);
  errno = callersErrno;
  return 0;
}
