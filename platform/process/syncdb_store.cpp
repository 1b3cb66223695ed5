// Files of the sync database. Works in any process and on any thread; owns nothing between calls.

#include "syncdb_store.h"

#include "run_dir.h"
#include "unique_fd.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr size_t RECORD_NAME_MAX = 200;
constexpr size_t RECORD_SIZE_MAX = 65536;

bool validName(std::string_view record) {
  return !record.empty() && record.size() <= RECORD_NAME_MAX && record.front() != '.' &&
         record.find('/') == std::string_view::npos && record.find('\0') == std::string_view::npos;
}

UniqueFd openFolder() {
  return UniqueFd(open(syncdbDir().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

UniqueFd makeFolder() {
  mkdir(qvprocRunDir().c_str(), 0755);
  mkdir(syncdbDir().c_str(), 0755);
  return openFolder();
}

bool writeWhole(int fd, std::span<const std::byte> value) {
  while (!value.empty()) {
    const ssize_t written = write(fd, value.data(), value.size());
    if (written < 0 && errno == EINTR) {
      continue;
    }
    if (written <= 0) {
      return false;
    }
    value = value.subspan(static_cast<size_t>(written));
  }
  return true;
}

// A file of the folder that no reader takes for a record, removed with its owner.
class TemporaryFile {
public:
  explicit TemporaryFile(int folder) : folder_(folder) {
    static std::atomic<unsigned> serial{0};
    snprintf(name_.data(), name_.size(), ".new-%d-%u", getpid(), serial.fetch_add(1, std::memory_order_relaxed));
  }
  TemporaryFile(const TemporaryFile &) = delete;
  TemporaryFile &operator=(const TemporaryFile &) = delete;
  ~TemporaryFile() {
    const int error = errno;
    unlinkat(folder_, name_.data(), 0);
    errno = error;
  }

  const char *name() const { return name_.data(); }

  bool fill(std::span<const std::byte> value) const {
    const UniqueFd file(openat(folder_, name(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644));
    return file && writeWhole(file.get(), value);
  }

private:
  int folder_;
  std::array<char, 40> name_;
};

// Puts `value` in the place of the record by one rename of the given kind.
int renameInto(const UniqueFd &folder, std::string_view record, std::span<const std::byte> value,
               unsigned renameFlags) {
  if (!folder) {
    return -1;
  }
  const TemporaryFile file(folder.get());
  if (!file.fill(value)) {
    return -1;
  }
  return renameat2(folder.get(), file.name(), folder.get(), std::string(record).c_str(), renameFlags);
}

int refuse(int error) {
  errno = error;
  return -1;
}

} // namespace

int syncdbRecordCreate(std::string_view record, std::span<const std::byte> value) {
  if (!validName(record) || value.size() > RECORD_SIZE_MAX) {
    return refuse(EINVAL);
  }
  const int result = renameInto(makeFolder(), record, value, RENAME_NOREPLACE);
  return result != 0 && errno == EEXIST ? 0 : result;
}

int syncdbRecordReplace(std::string_view record, std::span<const std::byte> value) {
  if (!validName(record) || value.size() > RECORD_SIZE_MAX) {
    return refuse(EINVAL);
  }
  // An exchange fails when the record is not there; a plain rename would create it if it went away in between.
  return renameInto(openFolder(), record, value, RENAME_EXCHANGE);
}

int syncdbRecordRead(std::string_view record, std::span<std::byte> value) {
  if (!validName(record)) {
    return refuse(EINVAL);
  }
  const UniqueFd folder = openFolder();
  const UniqueFd file(
      folder ? openat(folder.get(), std::string(record).c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC) : -1);
  if (!file) {
    return -1;
  }
  ssize_t length;
  do {
    length = read(file.get(), value.data(), value.size());
  } while (length < 0 && errno == EINTR);
  return static_cast<int>(length);
}

int syncdbRecordRemove(std::string_view record) {
  if (!validName(record)) {
    return refuse(EINVAL);
  }
  const UniqueFd folder = openFolder();
  if (!folder) {
    return errno == ENOENT ? 0 : -1;
  }
  return unlinkat(folder.get(), std::string(record).c_str(), 0) == 0 || errno == ENOENT ? 0 : -1;
}
