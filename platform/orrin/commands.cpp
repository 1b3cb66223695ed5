// Finding and running the command of a line. Used by orrin's one thread.

#include "commands.h"

#include <cerrno>
#include <cstring>
#include <fstream>

namespace orrin {

namespace {

constexpr Command COMMANDS[] = {
    {"show", showCommand, false},
    {"dump", dumpCommand, false},
};

std::span<const Command> answerCommands() {
  return COMMANDS;
}

// The command that the line begins with; null with the reason when there is none.
const Command *findCommand(Words &words, std::string &out) {
  const std::string first(words.take());
  const std::string both = first + " " + std::string(words.peek());
  bool firstIsKnown = false;
  for (const std::span<const Command> table :
       {answerCommands(), switchCommands(), interfaceCommands(), routeCommands(), arpCommands(), ipSlaCommands(),
        reportedCommands(), faultCommands(), clientCommands()}) {
    for (const Command &command : table) {
      if (command.name == both) {
        words.take();
        return &command;
      }
      if (command.name == first) {
        return &command;
      }
      firstIsKnown = firstIsKnown || command.name.starts_with(first + " ");
    }
  }
  out = firstIsKnown ? notTheWord(words.peek(), "a command of \"" + first + "\"") : "\"" + first + "\" is no command";
  return nullptr;
}

} // namespace

std::string notTheWord(std::string_view word, std::string_view wanted) {
  std::string text(wanted);
  return word.empty() ? text + " missing" : text + " expected, not \"" + std::string(word) + "\"";
}

bool takeEither(Words &words, std::string_view yes, std::string_view no, bool &value, std::string &out) {
  const std::string_view word = words.take();
  if (word != yes && word != no) {
    return refuse(out, notTheWord(word, std::string(yes) + " or " + std::string(no)));
  }
  value = word == yes;
  return true;
}

bool takeName(Words &words, std::string_view what, size_t longest, std::string &name, std::string &out) {
  const std::string_view word = words.take();
  if (word.empty()) {
    return refuse(out, std::string(what) + " missing");
  }
  if (word.size() > longest) {
    return refuse(out, std::string(what) + ": \"" + std::string(word) + "\" is longer than " + std::to_string(longest));
  }
  name = word;
  return true;
}

bool takeFileName(Words &words, std::string_view what, size_t longest, std::string &name, std::string &out) {
  if (!takeName(words, what, longest, name, out)) {
    return false;
  }
  const bool good = name.find('/') == std::string::npos && name != "." && name != "..";
  return good || refuse(out, std::string(what) + ": \"" + name + "\" cannot name a file or device");
}

bool takeVrf(Switch &sw, Words &words, Vrf *&vrf, std::string &out) {
  uint32_t id = 0;
  if (!takeNumber(words, "vrf", id, out)) {
    return false;
  }
  vrf = findVrf(sw, id);
  return vrf != nullptr || refuse(out, "there is no VRF " + std::to_string(id));
}

bool takeKnownVrf(Switch &sw, Words &words, Vrf *&vrf, std::string &out) {
  return takeKeyword(words, "vrf", out) && takeVrf(sw, words, vrf, out);
}

bool takeAddress(Words &words, uint32_t &address, std::string &out) {
  const std::string_view word = words.take();
  return (parseAddress(word, address) && address != 0) || refuse(out, notTheWord(word, "an address"));
}

bool takeHostAddress(Words &words, uint32_t &address, std::string &out) {
  const std::string_view word = words.take();
  return (parseAddress(word, address) && isHostAddress(address)) || refuse(out, notTheWord(word, "a unicast address"));
}

bool takeInterface(Switch &sw, Words &words, Interface *&interface, std::string &out) {
  uint32_t number = 0;
  if (!takeNumber(words, "interface", number, out)) {
    return false;
  }
  interface = findInterface(sw, number);
  return interface != nullptr || refuse(out, "there is no interface " + std::to_string(number));
}

bool onlyRestoring(const Switch &sw, std::string &out) {
  return sw.restoring || refuse(out, "only the state folder says so");
}

bool takeVrfFilter(Switch &sw, Words &words, const Vrf *&only, std::string &out) {
  Vrf *vrf = nullptr;
  if (words.takeIf("vrf") && !takeVrf(sw, words, vrf, out)) {
    return false;
  }
  only = vrf;
  return true;
}

bool runCommand(Switch &sw, std::string_view line, std::string &out) {
  out.clear();
  Words words(line);
  const Command *command = words.atEnd() ? nullptr : findCommand(words, out);
  if (command == nullptr) {
    return out.empty();
  }
  const bool accepted = command->handler(sw, words, out);
  if (accepted && command->kept) {
    sw.journal.append(line);
  }
  return accepted;
}

bool runScript(Switch &sw, const std::string &path, std::string &error) {
  std::ifstream script(path);
  if (!script) {
    const int reason = errno;
    error = path + ": " + std::strerror(reason);
    return false;
  }
  std::string line;
  std::string out;
  for (size_t number = 1; std::getline(script, line); ++number) {
    if (!runCommand(sw, line, out)) {
      error = path + ":" + std::to_string(number) + ": " + out;
      return false;
    }
  }
  return true;
}

} // namespace orrin
