// Commands that make calls misbehave. Used by orrin's one thread.

#include "commands.h"

#include "tarnapi.h"

namespace orrin {

namespace {

constexpr Range DELAYS = {1, 3600000}; // milliseconds

// fault ...

bool takeCall(Words &words, tarnwire::Op &op, std::string &out) {
  const std::string_view word = words.take();
  const std::optional<tarnwire::Op> named = opNamed(word);
  if (!named) {
    return refuse(out, word.empty() ? "call missing" : "\"" + std::string(word) + "\" is no call of the platform");
  }
  op = *named;
  return true;
}

bool takeResult(Words &words, Fault &fault, std::string &out) {
  std::string_view word = words.take();
  const bool negative = word.starts_with('-');
  uint32_t number = 0;
  if (!parseNumber(word.substr(negative ? 1 : 0), number) || number > INT32_MAX) {
    return refuse(out, notTheWord(word, "result: a number"));
  }
  const auto value = static_cast<int32_t>(number);
  fault.result = negative ? -value : value;
  return true;
}

bool takeFaultOption(Words &words, Fault &fault, std::string &out) {
  const std::string_view word = words.take();
  if (word == "result") {
    return takeResult(words, fault, out);
  }
  if (word == "delay" || word == "times") {
    return word == "delay" ? takeNumber(words, word, fault.delayMs, out, DELAYS)
                           : takeNumber(words, word, fault.times, out, {1});
  }
  if (word == "drop") {
    fault.drop = true;
  } else if (word == "once" || word == "always") {
    fault.times = word == "once" ? 1 : 0;
  } else {
    return refuse(out, "\"" + std::string(word) + "\" is no word of a fault");
  }
  return true;
}

bool faultSet(Switch &sw, Words &words, std::string &out) {
  tarnwire::Op op{};
  Fault fault;
  if (!takeCall(words, op, out)) {
    return false;
  }
  while (!words.atEnd()) {
    if (!takeFaultOption(words, fault, out)) {
      return false;
    }
  }
  if (!fault.result && fault.delayMs == 0 && !fault.drop) {
    fault.result = TARN_FAILURE;
  }
  sw.faults.set(op, fault);
  sw.page.fault(op, true);
  return true;
}

bool faultClear(Switch &sw, Words &words, std::string &out) {
  tarnwire::Op only{};
  const bool all = words.atEnd();
  if (!all && (!takeCall(words, only, out) || !takeEnd(words, out))) {
    return false;
  }
  for (const tarnwire::OpInfo &info : tarnwire::OPS) {
    if (all || info.op == only) {
      sw.faults.clear(info.op);
      sw.page.fault(info.op, false);
    }
  }
  return true;
}

constexpr Command COMMANDS[] = {
    {"fault set", faultSet, false},
    {"fault clear", faultClear, false},
};

} // namespace

std::span<const Command> faultCommands() {
  return COMMANDS;
}

} // namespace orrin
