// The command lines: one grammar for the start-up script, the control socket, the state folder and the dump.
#pragma once

#include "switch.h"

#include <span>
#include <string>
#include <string_view>

namespace orrin {

// Carries out one line. True when accepted, with the answer in `out`; else `out` says which word is wrong and why.
// Accepted configuration goes to the journal.
bool runCommand(Switch &sw, std::string_view line, std::string &out);

// Runs a file of commands. False with "file:line: reason".
bool runScript(Switch &sw, const std::string &path, std::string &error);

// A command takes the words behind its name. True when done; else `out` says why not.
using CommandHandler = bool (*)(Switch &sw, Words &words, std::string &out);

struct Command {
  std::string_view name; // one or two words
  CommandHandler handler;
  bool kept; // in the journal, as it was given to `handler`
};

// show.cpp
bool showCommand(Switch &sw, Words &words, std::string &out);

// config.cpp
bool dumpCommand(Switch &sw, Words &words, std::string &out);

// The tables of commands_*.cpp.
std::span<const Command> switchCommands();
std::span<const Command> interfaceCommands();
std::span<const Command> routeCommands();
std::span<const Command> arpCommands();
std::span<const Command> ipSlaCommands();
std::span<const Command> reportedCommands();
std::span<const Command> faultCommands();
std::span<const Command> clientCommands();

// For handlers: a refusal with its reason, and words that several of them read.
inline bool refuse(std::string &out, std::string text) {
  out = std::move(text);
  return false;
}

std::string notTheWord(std::string_view word, std::string_view wanted);
// One of two words: `value` is true for the first.
bool takeEither(Words &words, std::string_view yes, std::string_view no, bool &value, std::string &out);
// "vrf <id>" if it is there, and nothing more; `only` is null without it.
bool takeVrfFilter(Switch &sw, Words &words, const Vrf *&only, std::string &out);
bool takeVrf(Switch &sw, Words &words, Vrf *&vrf, std::string &out);
// "vrf <id>".
bool takeKnownVrf(Switch &sw, Words &words, Vrf *&vrf, std::string &out);
bool takeAddress(Words &words, uint32_t &address, std::string &out);
bool takeHostAddress(Words &words, uint32_t &address, std::string &out);
bool takeInterface(Switch &sw, Words &words, Interface *&interface, std::string &out);
// For commands that stand in the state folder only.
bool onlyRestoring(const Switch &sw, std::string &out);
bool takeName(Words &words, std::string_view what, size_t longest, std::string &name, std::string &out);
// The same for what names a file or a kernel device.
bool takeFileName(Words &words, std::string_view what, size_t longest, std::string &name, std::string &out);

} // namespace orrin
