// The state folder: one file, `commands`, to which every accepted command is added, and what agents report and how registrations
// come and go as lines of the same kind. A start reads it from the beginning.
#pragma once

#include "unique_fd.h"

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace orrin {

class Journal {
public:
  using Apply = std::function<bool(std::string_view line, std::string &error)>;

  // Takes the folder, which it makes if it is not there, and loads what it holds. False, with the reason, when it cannot be
  // used or another orrin does.
  bool open(const std::string &folder, std::string &error);
  // How many starts used the folder before.
  uint64_t starts() const { return starts_; }

  // Gives out the kept state, line by line. Lines that `apply` refuses are left out; the result then names the first, as
  // "file:line: reason".
  std::string replay(const Apply &apply);

  // Adds a line; it is on file after a flush() that returned true. Nothing happens before replay().
  void append(std::string_view line);
  // False while lines are not on file; each further flush tries again.
  bool flush();

  // All that was ever appended, to see whether something was.
  uint64_t appended() const { return appended_; }
  // Why lines are not on file, empty when they are.
  const std::string &trouble() const { return trouble_; }
  const std::string &folder() const { return folder_; }

private:
  std::string folder_;
  std::string path_;
  UniqueFd file_;
  bool replayed_ = false;
  std::string loaded_; // until it is replayed
  std::string pending_;
  std::string trouble_;
  uint64_t starts_ = 0;
  uint64_t appended_ = 0;
  uint64_t bytes_ = 0; // on file, without what the last flush may have cut off
};

} // namespace orrin
