// Where the process library keeps what outlives a call: <run>/syncdb, one file a record, and <run>/shell, one debug shell
// socket a process.
#pragma once

#include <cstdlib>
#include <string>

inline std::string qvprocRunDir() {
  const char *configured = getenv("QVPROC_RUN_DIR");
  return configured != nullptr && configured[0] != '\0' ? configured : "/run/qvproc";
}

inline std::string syncdbDir() {
  return qvprocRunDir() + "/syncdb";
}

inline std::string devshellDir() {
  return qvprocRunDir() + "/shell";
}
