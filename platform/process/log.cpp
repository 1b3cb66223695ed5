// The process log: one line on standard error a record, written in one call, so that lines of several threads and processes
// that share the descriptor do not mix. Called from any thread; holds no lock and allocates nothing. Under a journal the line
// begins with the severity in the journal's "<N>" form and carries no time, which the journal adds itself.

#include "log.h"
#include "qvproc.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <unistd.h>

namespace {

constexpr char CUT_MARK[] = "...";
constexpr char STAMP_FORM[] = "0000-00-00T00:00:00.000Z ";

constexpr std::array<const char *, 8> SEVERITY_NAMES = {"emerg",   "alert",  "crit", "error",
                                                        "warning", "notice", "info", "debug"};

size_t room(const LogLine &line) {
  return line.bytes.size() - line.used - sizeof CUT_MARK; // the line end takes the place of the mark's NUL
}

void took(LogLine &line, int formatted) {
  if (formatted < 0) {
    return;
  }
  line.cut = line.cut || static_cast<size_t>(formatted) >= room(line);
  line.used += std::min(static_cast<size_t>(formatted), room(line) - 1);
}

__attribute__((format(printf, 2, 3))) void append(LogLine &line, const char *format, ...) {
  va_list values;
  va_start(values, format);
  took(line, vsnprintf(line.bytes.data() + line.used, room(line), format, values));
  va_end(values);
}

char *digitsPut(char *at, unsigned width, unsigned value) {
  for (unsigned place = width; place-- > 0; value /= 10) {
    at[place] = static_cast<char>('0' + value % 10);
  }
  return at + width;
}

// By arithmetic alone: gmtime_r takes a lock, which a signal handler or the child of a fork may find taken for good.
void stampPut(char *at) {
  using namespace std::chrono;
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  const sys_seconds second{seconds{now.tv_sec}};
  const sys_days day = floor<days>(second);
  const year_month_day date{day};
  const hh_mm_ss time{second - day};
  at = digitsPut(at, 4, static_cast<unsigned>(static_cast<int>(date.year())));
  at = digitsPut(at + 1, 2, static_cast<unsigned>(date.month()));
  at = digitsPut(at + 1, 2, static_cast<unsigned>(date.day()));
  at = digitsPut(at + 1, 2, static_cast<unsigned>(time.hours().count()));
  at = digitsPut(at + 1, 2, static_cast<unsigned>(time.minutes().count()));
  at = digitsPut(at + 1, 2, static_cast<unsigned>(time.seconds().count()));
  digitsPut(at + 1, 3, static_cast<unsigned>(now.tv_nsec / 1000000));
}

// A record is one line: line ends at its tail go, and control characters inside become blanks, so that a name from outside
// can neither forge a record nor steer a terminal.
void makeOneLine(LogLine &line, size_t textStart) {
  while (line.used > textStart && (line.bytes[line.used - 1] == '\n' || line.bytes[line.used - 1] == '\r')) {
    --line.used;
  }
  std::replace_if(
      line.bytes.begin() + static_cast<ptrdiff_t>(textStart), line.bytes.begin() + static_cast<ptrdiff_t>(line.used),
      [](char byte) { return (static_cast<unsigned char>(byte) < ' ' && byte != '\t') || byte == '\x7f'; }, ' ');
}

__attribute__((format(printf, 6, 0))) void make(LogLine &line, uint32_t severity, uint32_t component, const char *file,
                                                uint32_t sourceLine, const char *format, va_list values) {
  const int callersErrno = errno;
  const uint32_t level = std::min<uint32_t>(severity, SEVERITY_NAMES.size() - 1);
  line.used = 0;
  line.cut = false;
  line.stamped = getenv("JOURNAL_STREAM") == nullptr;
  if (line.stamped) {
    append(line, STAMP_FORM);
  } else {
    append(line, "<%u>", level);
  }
  append(line, "%s %u %s:%u: ", SEVERITY_NAMES[level], component, file, sourceLine);

  const size_t textStart = line.used;
  errno = callersErrno; // for %m
  took(line, vsnprintf(line.bytes.data() + line.used, room(line), format, values));
  makeOneLine(line, textStart);
  if (line.cut) {
    line.used += static_cast<size_t>(snprintf(line.bytes.data() + line.used, sizeof CUT_MARK, CUT_MARK));
  }
  line.bytes[line.used++] = '\n';
}

} // namespace

void logLineMake(LogLine &line, uint32_t severity, uint32_t component, const char *file, uint32_t sourceLine,
                 const char *format, ...) {
  va_list values;
  va_start(values, format);
  make(line, severity, component, file, sourceLine, format, values);
  va_end(values);
}

void logLineWrite(LogLine &line) {
  if (line.stamped) {
    stampPut(line.bytes.data());
  }
  ssize_t written;
  do {
    written = write(STDERR_FILENO, line.bytes.data(), line.used);
  } while (written < 0 && errno == EINTR);
}

extern "C" int32_t qvproc_logf(uint32_t severity, uint32_t component, const char *file, uint32_t line,
                               const char *format, ...) {
  const int callersErrno = errno;
  LogLine record;
  va_list values;
  va_start(values, format);
  make(record, severity, component, file, line, format, values);
  va_end(values);
  logLineWrite(record);
  errno = callersErrno;
  return 0;
}
