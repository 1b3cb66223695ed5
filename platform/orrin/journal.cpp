// Keeping accepted commands on file. Used by orrin's one thread. A line is written before its command is answered, so that a
// killed orrin has lost nothing that it accepted; nothing is synced to the disk, a crash of the machine is not its matter.
// Where the disk takes no more, lines wait for the next flush, and when they become many, for a rewrite of the whole state.

#include "journal.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace orrin {

namespace {

constexpr std::string_view GENERATION = "# generation ";
constexpr std::string_view NAMES[2] = {"config", "journal"};
constexpr mode_t FOLDER_MODE = 0700;
constexpr mode_t FILE_MODE = 0600;

bool failed(std::string &error, const std::string &what) {
  const int reason = errno;
  error = what + ": " + std::strerror(reason);
  return false;
}

bool writeAll(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = write(fd, text.data(), text.size());
    if (written < 0 && errno != EINTR) {
      return false;
    }
    text.remove_prefix(written > 0 ? static_cast<size_t>(written) : 0);
  }
  return true;
}

// False, with errno, when the file cannot be read; a missing one is empty.
bool readFile(const std::string &path, std::string &text) {
  text.clear();
  const UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd) {
    return errno == ENOENT;
  }
  struct stat status {};
  if (fstat(fd.get(), &status) != 0) {
    return false;
  }
  text.resize(static_cast<size_t>(status.st_size));
  size_t filled = 0;
  while (filled < text.size()) {
    const ssize_t count = read(fd.get(), text.data() + filled, text.size() - filled);
    if (count < 0 && errno == EINTR) {
      continue;
    }
    if (count <= 0) {
      text.resize(filled);
      return count == 0;
    }
    filled += static_cast<size_t>(count);
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

std::string header(uint64_t generation) {
  return std::string(GENERATION) + std::to_string(generation) + "\n";
}

uint64_t generationOf(std::string_view text) {
  return text.starts_with(GENERATION) ? std::strtoull(text.data() + GENERATION.size(), nullptr, 10) : 0;
}

} // namespace

std::string Journal::path(std::string_view name) const {
  return std::string(folder_).append(1, '/').append(name);
}

bool Journal::open(const std::string &folder, std::string &error) {
  if (!makeFolders(folder)) {
    return failed(error, folder);
  }
  folder_ = folder;
  UniqueFd lock(::open(path("lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, FILE_MODE));
  if (!lock) {
    return failed(error, path("lock"));
  }
  if (flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
    return failed(error, folder + " is another orrin's");
  }
  lock_ = std::move(lock);
  return load(error);
}

bool Journal::load(std::string &error) {
  for (int index = 0; index < 2; ++index) {
    if (!readFile(path(NAMES[index]), loaded_[index])) {
      return failed(error, path(NAMES[index]));
    }
  }
  generation_ = generationOf(loaded_[0]);
  if (generationOf(loaded_[1]) != generation_) {
    loaded_[1].clear();
  }
  hadState_ = !loaded_[0].empty() || !loaded_[1].empty();
  return true;
}

bool Journal::setAside(std::string &error) const {
  for (const std::string_view name : NAMES) {
    const std::string kept = path(name) + ".refused";
    unlink(kept.c_str());
    if (link(path(name).c_str(), kept.c_str()) != 0 && errno != ENOENT) {
      return failed(error, kept);
    }
  }
  return true;
}

bool Journal::replay(const Apply &apply, std::string &complaint) {
  size_t refused = 0;
  for (int index = 0; index < 2; ++index) {
    size_t number = 0;
    const std::string text = std::move(loaded_[index]);
    std::string_view rest = text;
    // A last line without its end is one that was cut off while it was written, and was never answered.
    for (size_t end = rest.find('\n'); end != std::string_view::npos; end = rest.find('\n')) {
      ++number;
      std::string reason;
      if (!apply(rest.substr(0, end), reason) && ++refused == 1) {
        complaint = path(NAMES[index]) + ":" + std::to_string(number) + ": " + reason;
      }
      rest.remove_prefix(end + 1);
    }
  }
  if (refused == 0) {
    return true;
  }
  complaint += "; left out, with " + std::to_string(refused - 1) + " more lines; the files are kept as *.refused";
  return setAside(complaint);
}

UniqueFd Journal::writeNew(const std::string &name, std::string_view text, uint64_t generation,
                           std::string &error) const {
  const std::string fresh = path(name) + ".new";
  UniqueFd fd(::open(fresh.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, FILE_MODE));
  if (!fd || !writeAll(fd.get(), header(generation)) || !writeAll(fd.get(), text)) {
    failed(error, fresh);
    fd.reset();
    unlink(fresh.c_str()); // it may be what fills the disk
  }
  return fd;
}

bool Journal::moveInPlace(const std::string &name, std::string &error) const {
  const std::string target = path(name);
  return rename((target + ".new").c_str(), target.c_str()) == 0 || failed(error, target);
}

bool Journal::rewrite(std::string_view lines, std::string &error) {
  const uint64_t next = generation_ + 1;
  UniqueFd file = writeNew("journal", {}, next, error);
  const bool written = file && writeNew("config", lines, next, error);
  if (!written || !moveInPlace("config", error)) {
    return false;
  }
  // From here on the journal in place belongs to the config before, and a start would pass over what is added to it.
  generation_ = next;
  broken_ = !moveInPlace("journal", error);
  pending_.clear();
  if (broken_) {
    trouble_ = error;
    return false;
  }
  trouble_.clear();
  file_ = std::move(file);
  configBytes_ = lines.size();
  journalBytes_ = header(next).size();
  return true;
}

void Journal::append(std::string_view line) {
  if (file_) {
    pending_.append(line).append(1, '\n');
    ++appended_;
  }
}

bool Journal::flush() {
  if (broken_ || pending_.empty()) {
    pending_.clear();
    return !broken_;
  }
  if (writeAll(file_.get(), pending_)) {
    journalBytes_ += pending_.size();
    pending_.clear();
    trouble_.clear();
    return true;
  }
  failed(trouble_, path("journal"));
  // A line that was cut off must not be the beginning of the next.
  broken_ = ftruncate(file_.get(), static_cast<off_t>(journalBytes_)) != 0 || pending_.size() > PENDING_MAX;
  return false;
}

} // namespace orrin
