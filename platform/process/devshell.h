// The debug shell of a process: the table of its operations, and the server that runs them.
#pragma once

#include "unique_fd.h"

#include <cstdint>
#include <span>
#include <string>

// What came of a request: `output` is what the operation printed, `message` what the operator is told beside it.
struct DevshellOutcome {
  int32_t status;
  UniqueFd output;
  std::string message;
};

// Runs the operation that a request packet names. On the shell's thread only.
DevshellOutcome devshellRun(std::span<const char> request);

// Serves <run>/shell/<pid>.sock on a thread of its own, for the life of the process. 0, or -1 with errno.
int devshellServerStart();
