// Between mirelsh and the debug shell of a process: a SOCK_SEQPACKET connection to <run>/shell/<pid>.sock, for one operation.
//
// Request: one packet, the operation's name and its arguments, each with its NUL.
// Answer: one packet that is a DevshellAnswer, then `output` bytes for standard output and `message` bytes for standard
// error (without a line end), in packets of at most DEVSHELL_CHUNK_MAX; no packet holds some of both. Then the connection ends.
#pragma once

#include <cstdint>
#include <type_traits>

constexpr uint32_t DEVSHELL_REQUEST_MAX = 4096;
constexpr uint32_t DEVSHELL_ARGUMENTS_MAX = 32; // the name counts
constexpr uint32_t DEVSHELL_CHUNK_MAX = 32768;

enum DevshellStatus : int32_t {
  DEVSHELL_DONE = 0,
  DEVSHELL_BAD_ARGUMENTS = 1, // as the operation returned; any other number that it returns passes too
  DEVSHELL_REFUSED = -1,      // nothing was run
};

struct DevshellAnswer {
  int32_t status;
  uint32_t message;
  uint64_t output;
};
static_assert(std::is_trivially_copyable_v<DevshellAnswer> && sizeof(DevshellAnswer) == 16);
