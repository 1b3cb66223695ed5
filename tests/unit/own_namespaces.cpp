#include "own_namespaces.h"

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <sched.h>
#include <stdexcept>
#include <sys/mount.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

namespace {

void must(bool done, const std::string &what) {
  if (!done) {
    throw std::system_error(errno, std::generic_category(), what);
  }
}

} // namespace

void enterOwnNamespaces(const std::string &keepDir) {
  must(unshare(CLONE_NEWNS | CLONE_NEWNET) == 0, "unshare");
  must(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "private mounts");
  const int kept = open(keepDir.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  must(kept >= 0, keepDir);
  must(mount("tmpfs", "/tmp", "tmpfs", 0, nullptr) == 0, "mount /tmp");
  std::filesystem::create_directories(keepDir);
  const std::string source = "/proc/self/fd/" + std::to_string(kept);
  must(mount(source.c_str(), keepDir.c_str(), nullptr, MS_BIND, nullptr) == 0, "bind " + keepDir);
  close(kept);
}

void shell(const std::string &command) {
  const pid_t child = fork();
  must(child >= 0, "fork");
  if (child == 0) {
    execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
    _exit(127);
  }
  int status;
  must(waitpid(child, &status, 0) == child, "waitpid");
  if (status != 0) {
    throw std::runtime_error(command + ": status " + std::to_string(status));
  }
}
