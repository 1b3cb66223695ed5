// Kernel settings under /proc/sys of the namespace the process is in.
#pragma once

#include <cstdint>
#include <string>

// Writes a number. 0, or -1 with errno.
int settingWrite(const std::string &path, uint32_t value);
