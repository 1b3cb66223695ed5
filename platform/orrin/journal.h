// The state folder: `config`, the switch's state as commands, and `journal`, the commands accepted since. A start reads one
// after the other and writes both anew. Both name the generation they belong to; a journal of another one is left over from
// a start that was interrupted and is already in `config`.
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
  // Another one for each start.
  uint64_t generation() const { return generation_; }

  // Gives out the kept state, line by line. Lines that `apply` refuses are left out; `complaint` then names the first, as
  // "file:line: reason", and the files stay beside the next ones as config.refused and journal.refused. False when they
  // cannot.
  bool replay(const Apply &apply, std::string &complaint);
  bool hadState() const { return hadState_; }

  // Replaces all that is kept by these lines. False, with the reason, when what was kept is still kept instead.
  bool rewrite(std::string_view lines, std::string &error);

  // Adds a line; it is on file after a flush() that returned true. Nothing happens while no folder is open.
  void append(std::string_view line);
  // False while lines are not on file; each further flush tries again.
  bool flush();

  // So long, or so far behind, that it must be rewritten.
  bool wantsRewrite() const { return broken_ || (journalBytes_ > LONG && journalBytes_ > 4 * configBytes_); }
  // All that was ever appended, to see whether something was.
  uint64_t appended() const { return appended_; }
  // Why lines are not on file, empty when they are.
  const std::string &trouble() const { return trouble_; }
  const std::string &folder() const { return folder_; }

private:
  static constexpr uint64_t LONG = 16 * 1024 * 1024;
  static constexpr size_t PENDING_MAX = 64 * 1024; // in trouble

  bool load(std::string &error);
  std::string path(std::string_view name) const;
  bool setAside(std::string &error) const;
  UniqueFd writeNew(const std::string &name, std::string_view text, uint64_t generation, std::string &error) const;
  bool moveInPlace(const std::string &name, std::string &error) const;

  std::string folder_;
  UniqueFd lock_;
  UniqueFd file_;
  std::string loaded_[2]; // config and journal, until they are replayed
  std::string pending_;
  std::string trouble_;
  uint64_t generation_ = 0;
  uint64_t appended_ = 0;
  uint64_t journalBytes_ = 0; // whole lines on file
  uint64_t configBytes_ = 0;
  bool broken_ = false; // lines are missing on file: only a rewrite makes it good again
  bool hadState_ = false;
};

} // namespace orrin
