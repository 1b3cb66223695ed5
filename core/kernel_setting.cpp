// Kernel settings under /proc/sys. No state, any thread.

#include "kernel_setting.h"

#include "unique_fd.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

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

int mirelProcFileWrite(const char *path, const char *text) {
  struct stat info;
  if (stat(path, &info) != 0) {
    return -1;
  }
  const UniqueFd file(open(path, O_WRONLY | O_CLOEXEC));
  if (!file) {
    return -1;
  }
  std::string_view rest = text;
  while (!rest.empty()) {
    const ssize_t written = write(file.get(), rest.data(), rest.size());
    if (written < 0 && errno != EINTR) {
      return -1;
    }
    rest.remove_prefix(written > 0 ? static_cast<size_t>(written) : 0);
  }
  return 0;
}
