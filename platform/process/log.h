// A line of the process log in two steps, for a signal handler: made ahead of time, where formatting is allowed, and
// written later, where it is not.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

constexpr size_t LOG_LINE_BYTES = 2048; // below PIPE_BUF: a pipe takes the whole line or none of it

struct LogLine {
  std::array<char, LOG_LINE_BYTES> bytes;
  size_t used = 0;
  bool stamped = false; // begins with room for the time
  bool cut = false;
};

// Arguments as of qvproc_logf.
__attribute__((format(printf, 6, 7))) void logLineMake(LogLine &line, uint32_t severity, uint32_t component,
                                                       const char *file, uint32_t sourceLine, const char *format, ...);

// Stamps the line with the present time and writes it out. Takes no lock and allocates nothing: safe in a signal handler.
void logLineWrite(LogLine &line);
