// Keeping accepted commands on file. Used by orrin's one thread. A line is written before its command is answered, so that a
// killed orrin has lost nothing that it accepted; nothing is synced to the disk, so a crash of the machine may lose lines.
// When the disk is full, lines wait for the next flush.

#include "journal.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace orrin {

namespace {

constexpr std::string_view START = "# start";
constexpr mode_t FOLDER_MODE = 0700;
constexpr mode_t FILE_MODE = 0600;

bool failed(std::string &error, const std::string &what) {
  const int reason = errno;
  error = what + ": " + std::strerror(reason);
  return false;
}

bool writeAll(int fd, std::string_view text, uint64_t place) {
  while (!text.empty()) {
    const ssize_t written = pwrite(fd, text.data(), text.size(), static_cast<off_t>(place));
    if (written < 0 && errno != EINTR) {
      return false;
    }
    const size_t count = written > 0 ? static_cast<size_t>(written) : 0;
    text.remove_prefix(count);
    place += count;
  }
  return true;
}

// False, with errno, when the file cannot be read.
bool readAll(int fd, std::string &text) {
  constexpr size_t STEP = 1 << 20;
  for (ssize_t count = 1; count != 0;) {
    const size_t filled = text.size();
    text.resize(filled + STEP);
    count = read(fd, text.data() + filled, STEP);
    text.resize(filled + static_cast<size_t>(count > 0 ? count : 0));
    if (count < 0 && errno != EINTR) {
      return false;
    }
  }
  return true;
}

bool makeFolders(const std::string &path) {
  for (size_t slash = path.find('/', 1);; slash = path.find('/', slash + 1)) {
    const std::string part = path.substr(0, slash);
    if (mkdir(part.c_str(), FOLDER_MODE) != 0 && errno != EEXIST) {
      return false;
    }
    if (slash == std::string::npos) {
      return true;
    }
  }
}

} // namespace

bool Journal::open(const std::string &folder, std::string &error) {
  if (!makeFolders(folder)) {
    return failed(error, folder);
  }
  folder_ = folder;
  path_ = folder + "/commands";
  file_.reset(::open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, FILE_MODE));
  if (!file_) {
    return failed(error, path_);
  }
  if (flock(file_.get(), LOCK_EX | LOCK_NB) != 0) {
    return failed(error, folder + " is another orrin's");
  }
  if (!readAll(file_.get(), loaded_)) {
    return failed(error, path_);
  }
  // A last line without its end was cut off while it was written, and was never answered.
  loaded_.resize(loaded_.rfind('\n') + 1);
  bytes_ = loaded_.size();
  for (size_t at = 0; (at = loaded_.find(START, at)) != std::string::npos; ++at) {
    ++starts_;
  }
  return ftruncate(file_.get(), static_cast<off_t>(bytes_)) == 0 || failed(error, path_);
}

std::string Journal::replay(const Apply &apply) {
  const std::string text = std::move(loaded_);
  std::string complaint;
  size_t refused = 0;
  size_t number = 0;
  for (size_t begin = 0, end = 0; (end = text.find('\n', begin)) != std::string::npos; begin = end + 1) {
    ++number;
    std::string reason;
    if (!apply(std::string_view(text).substr(begin, end - begin), reason) && ++refused == 1) {
      complaint = path_ + ":" + std::to_string(number) + ": " + reason;
    }
  }
  replayed_ = true;
  append(START);
  return refused == 0 ? complaint : complaint + "; left out, with " + std::to_string(refused - 1) + " more lines";
}

void Journal::append(std::string_view line) {
  if (replayed_) {
    pending_.append(line).append(1, '\n');
    ++appended_;
  }
}

bool Journal::flush() {
  if (pending_.empty()) {
    return true;
  }
  if (!writeAll(file_.get(), pending_, bytes_)) {
    return failed(trouble_, path_); // the next attempt writes over what was cut off
  }
  bytes_ += pending_.size();
  pending_.clear();
  trouble_.clear();
  return true;
}

} // namespace orrin
