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

  // Gives out the kept state, line by line. False with "file:line: reason".
  bool replay(const Apply &apply, std::string &error);
  bool hadState() const { return hadState_; }

  // Replaces all that is kept by these lines.
  bool rewrite(std::string_view lines, std::string &error);

  // Adds a line; it is on file after flush(). Nothing happens while no folder is open.
  void append(std::string_view line);
  void flush();

  // Large enough that it should be rewritten.
  bool isLong() const { return journalBytes_ > LONG && journalBytes_ > 4 * configBytes_; }
  // Why lines could not be written, empty when they were.
  const std::string &trouble() const { return trouble_; }
  const std::string &folder() const { return folder_; }

private:
  static constexpr uint64_t LONG = 16 * 1024 * 1024;

  bool load(std::string &error);
  std::string path(std::string_view name) const;
  bool replace(const std::string &name, std::string_view text, std::string &error);

  std::string folder_;
  UniqueFd lock_;
  UniqueFd file_;
  std::string loaded_[2]; // config and journal, until they are replayed
  std::string pending_;
  std::string trouble_;
  uint64_t generation_ = 0;
  uint64_t journalBytes_ = 0;
  uint64_t configBytes_ = 0;
  bool hadState_ = false;
};

} // namespace orrin
