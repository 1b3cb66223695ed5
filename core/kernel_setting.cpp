// Kernel settings under /proc/sys. No state, any thread.

#include "kernel_setting.h"

#include <cstdio>

void kernelSettingRaise(const char *path, unsigned minimum) {
  FILE *setting = fopen(path, "r+e");
  if (setting == nullptr) {
    return;
  }
  unsigned current = 0;
  if (fscanf(setting, "%u", &current) == 1 && current < minimum) {
    rewind(setting);
    fprintf(setting, "%u\n", minimum);
  }
  fclose(setting);
}
