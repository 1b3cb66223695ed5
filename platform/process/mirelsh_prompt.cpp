// The prompt of mirelsh. Each line is a request of its own, so the prompt outlives an agent that is started anew.

#include "mirelsh.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <editline/readline.h>
#include <memory>
#include <optional>

namespace {

constexpr size_t LINE_MAX_BYTES = 1 << 20; // more is no operation
constexpr char BLANKS[] = " \t\r";

using OwnedText = std::unique_ptr<char, void (*)(void *)>;

std::vector<std::string> completions; // of the first word

std::vector<std::string> wordsOf(const std::string &line) {
  std::vector<std::string> words;
  for (size_t at = line.find_first_not_of(BLANKS); at != std::string::npos; at = line.find_first_not_of(BLANKS, at)) {
    const size_t end = std::min(line.find_first_of(BLANKS, at), line.size());
    words.push_back(line.substr(at, end - at));
    at = end;
  }
  return words;
}

char *nextCompletion(const char *text, int state) {
  static size_t next = 0;
  next = state == 0 ? 0 : next;
  while (next < completions.size()) {
    const std::string &name = completions[next++];
    if (name.starts_with(text)) {
      return strdup(name.c_str());
    }
  }
  return nullptr;
}

char **complete(const char *text, int start, int) {
  rl_attempted_completion_over = 1; // no names of files
  const std::string before(rl_line_buffer, static_cast<size_t>(start));
  const std::vector<std::string> words = wordsOf(before);
  const bool operationWanted = words.empty() || (words.size() == 1 && words[0] == "help");
  return operationWanted ? rl_completion_matches(text, nextCompletion) : nullptr;
}

class LineReader {
public:
  explicit LineReader(const Target &target)
      : edits_(target.prompt), prompt_("mirel " + std::to_string(target.vrf) + "> ") {
    if (edits_) {
      completions = operationNames(target);
      completions.emplace_back("quit");
      rl_readline_name = "mirelsh";
      rl_attempted_completion_function = complete;
    }
  }

  // The next line without its end; none at the end of the input.
  std::optional<std::string> next() { return edits_ ? edited() : plain(); }

private:
  std::optional<std::string> edited() {
    const OwnedText line(readline(prompt_.c_str()), free);
    if (line == nullptr) {
      putchar('\n');
      return std::nullopt;
    }
    if (line.get()[0] != '\0') {
      add_history(line.get());
    }
    return line.get();
  }

  static std::optional<std::string> plain() {
    std::string line;
    int byte;
    while ((byte = getchar()) != EOF && byte != '\n') {
      if (line.size() < LINE_MAX_BYTES) {
        line.push_back(static_cast<char>(byte));
      }
    }
    return byte == EOF && line.empty() ? std::nullopt : std::optional(line);
  }

  bool edits_;
  std::string prompt_;
};

} // namespace

int promptRun(const Target &target) {
  LineReader reader(target);
  int status = 0;
  while (const std::optional<std::string> line = reader.next()) {
    const std::vector<std::string> words = wordsOf(*line);
    if (words.empty() || words[0].starts_with('#')) {
      continue;
    }
    if (words[0] == "quit" || words[0] == "exit") {
      break;
    }
    status |= operationRun(target, words);
  }
  return target.prompt ? 0 : status; // who types has seen what failed
}
