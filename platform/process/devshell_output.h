// What an operation of the debug shell prints, kept apart from what the rest of the program prints.
#pragma once

#include "unique_fd.h"

#include <cstdint>

// Puts a stream of the library in the place of standard output; it passes on to descriptor 1. Once in a process, before its
// other threads print.
bool programOutputTakeOver();

// While it lives, what the calling thread prints to standard output goes to a memory file, and what other threads print
// goes on to descriptor 1, whole lines included. One at a time in a process.
class OutputCapture {
public:
  OutputCapture();
  OutputCapture(const OutputCapture &) = delete;
  OutputCapture &operator=(const OutputCapture &) = delete;
  ~OutputCapture();

  explicit operator bool() const {
    return static_cast<bool>(memory_);
  } // false: there is no memory file, errno says why

  // Ends the capture and hands over the memory file.
  UniqueFd finish();

private:
  void end();

  UniqueFd memory_;
  bool capturing_ = false;
};
