// The operations of the debug shell: registered from any thread, run on the shell's. Those that the environment names run
// on the thread that starts the shell, before there is another.

#include "devshell.h"

#include "devshell_output.h"
#include "devshell_protocol.h"
#include "qvproc.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string_view>
#include <unistd.h>

namespace {

constexpr uint32_t SEVERITY_WARNING = 4;
constexpr uint32_t COMPONENT_AGENT = 156;
constexpr char LOG_AREA[] = "platform/process/devshell";

struct Operation {
  const char *name;
  const char *usage;
  int32_t (*command)(int32_t argc, const char *const *argv);
};

int32_t help(int32_t argc, const char *const *argv);

// Rows are added and never change, so a reader needs the lock only for their number.
constexpr size_t OPERATIONS_MAX = 128;
std::mutex operationsLock;
std::array<Operation, OPERATIONS_MAX> operations = {{{"help", "[operation]\nthe operations, or one of them", help}}};
size_t operationCount = 1;

std::span<const Operation> registered() {
  const std::lock_guard lock(operationsLock);
  return {operations.data(), operationCount};
}

const Operation *find(std::span<const Operation> all, std::string_view name) {
  const auto found = std::find_if(all.begin(), all.end(), [name](const Operation &row) { return row.name == name; });
  return found != all.end() ? &*found : nullptr;
}

// Name and arguments: the first line of what was registered as usage.
std::string callOf(const Operation &operation) {
  const std::string_view usage(operation.usage != nullptr ? operation.usage : "");
  const std::string_view arguments = usage.substr(0, usage.find('\n'));
  return std::string(operation.name).append(arguments.empty() ? "" : " ").append(arguments);
}

// What it does: the lines behind the first.
std::string_view descriptionOf(const Operation &operation) {
  const std::string_view usage(operation.usage != nullptr ? operation.usage : "");
  const size_t lineEnd = usage.find('\n');
  return lineEnd != std::string_view::npos ? usage.substr(lineEnd + 1) : "";
}

void describe(const Operation &operation, int width) {
  const std::string_view description = descriptionOf(operation);
  const std::string call = callOf(operation);
  if (description.empty()) {
    printf("%s\n", call.c_str());
  } else {
    printf("%-*s  %.*s\n", width, call.c_str(), static_cast<int>(description.size()), description.data());
  }
}

// The name asked for is known to exist.
int32_t help(int32_t argc, const char *const *argv) {
  const std::span<const Operation> all = registered();
  if (argc > 2) {
    return DEVSHELL_BAD_ARGUMENTS;
  }
  if (argc == 2) {
    describe(*find(all, argv[1]), 0);
    return DEVSHELL_DONE;
  }
  size_t width = 0;
  for (const Operation &operation : all) {
    width = std::max(width, callOf(operation).size());
  }
  for (const Operation &operation : all) {
    describe(operation, static_cast<int>(width));
  }
  return DEVSHELL_DONE;
}

struct Arguments {
  int32_t count = 0;
  std::array<const char *, DEVSHELL_ARGUMENTS_MAX + 1> values{};
};

// Points into the request, whose last byte is a NUL; false for one that is not a row of texts.
bool split(std::span<const char> request, Arguments &arguments) {
  if (request.empty() || request.front() == '\0' || request.back() != '\0') {
    return false;
  }
  for (size_t at = 0; at < request.size(); at += strlen(request.data() + at) + 1) {
    if (arguments.count == static_cast<int32_t>(DEVSHELL_ARGUMENTS_MAX)) {
      return false;
    }
    arguments.values[static_cast<size_t>(arguments.count++)] = request.data() + at;
  }
  return true;
}

constexpr const char *UNKNOWN_OPERATION = ": unknown operation; \"help\" lists the known ones";
constexpr const char *NUMBER_RANGE = "; a number is 0 to 4294967295, decimal or 0x"; // of whatever stands in <>

// The operation that the arguments name; null, with the reason, when there is none, or none that help is asked for.
const Operation *operationOf(const Arguments &arguments, std::string &problem) {
  const std::span<const Operation> all = registered();
  const Operation *operation = find(all, arguments.values[0]);
  const bool helpWithNothing =
      operation == all.data() && arguments.count == 2 && find(all, arguments.values[1]) == nullptr;
  if (operation == nullptr || helpWithNothing) {
    problem = std::string(arguments.values[helpWithNothing ? 1 : 0]) + UNKNOWN_OPERATION;
    return nullptr;
  }
  return operation;
}

// What the operator is told of an operation's result; nothing of one that is done.
std::string resultText(const Operation &operation, int32_t status) {
  if (status == DEVSHELL_BAD_ARGUMENTS) {
    const std::string call = callOf(operation);
    return "usage: " + call + (call.find('<') != std::string::npos ? NUMBER_RANGE : "");
  }
  return status != DEVSHELL_DONE ? std::string(operation.name) + " returned " + std::to_string(status) : "";
}

DevshellOutcome refused(std::string message) {
  return {DEVSHELL_REFUSED, {}, std::move(message)};
}

// ---- operations at the start

constexpr const char *START_OPERATIONS = "QVPROC_START_OPERATIONS"; // separated by ';' or line ends
constexpr std::string_view SEPARATORS = ";\n";
constexpr std::string_view BLANKS = " \t";

// The piece of the text before the next of these characters; it is taken off the text with the character.
std::string_view pieceTake(std::string_view &text, std::string_view separators) {
  const size_t length = std::min(text.find_first_of(separators), text.size());
  const std::string_view piece = text.substr(0, length);
  text.remove_prefix(std::min(length + 1, text.size()));
  return piece;
}

// A request as mirelsh would send it for the line.
std::string requestOf(std::string_view line) {
  std::string request;
  while (!line.empty()) {
    const std::string_view word = pieceTake(line, BLANKS);
    if (!word.empty()) {
      request.append(word).push_back('\0');
    }
  }
  return request;
}

// A bad one is logged and passed over.
void startOperationRun(std::string_view line) {
  line.remove_prefix(std::min(line.find_first_not_of(BLANKS), line.size()));
  const std::string request = requestOf(line);
  if (request.empty()) {
    return;
  }
  Arguments arguments;
  std::string problem = "too many words";
  const Operation *operation = split(request, arguments) ? operationOf(arguments, problem) : nullptr;
  if (operation != nullptr) {
    problem = resultText(*operation, operation->command(arguments.count, arguments.values.data()));
  }
  if (!problem.empty()) {
    qvproc_logf(SEVERITY_WARNING, COMPONENT_AGENT, LOG_AREA, __LINE__, "%s: \"%.*s\": %s", START_OPERATIONS,
                static_cast<int>(line.size()), line.data(), problem.c_str());
  }
}

void startOperationsRun() {
  const char *configured = getenv(START_OPERATIONS);
  std::string_view lines(configured != nullptr ? configured : "");
  while (!lines.empty()) {
    startOperationRun(pieceTake(lines, SEPARATORS));
  }
}

} // namespace

DevshellOutcome devshellRun(std::span<const char> request) {
  Arguments arguments;
  if (!split(request, arguments)) {
    return refused("malformed request");
  }
  std::string problem;
  const Operation *operation = operationOf(arguments, problem);
  if (operation == nullptr) {
    return refused(std::move(problem));
  }
  OutputCapture capture;
  if (!capture) {
    return refused("no memory file for the output: " + std::string(strerror(errno)));
  }
  const int32_t status = operation->command(arguments.count, arguments.values.data());
  return {status, capture.finish(), resultText(*operation, status)};
}

extern "C" int32_t qvproc_devshell_register(const char *name, const char *usage,
                                            int32_t (*command)(int32_t argc, const char *const *argv)) {
  if (name == nullptr || name[0] == '\0' || command == nullptr) {
    return 1;
  }
  const std::lock_guard lock(operationsLock);
  if (operationCount == operations.size() || find({operations.data(), operationCount}, name) != nullptr) {
    return 1;
  }
  operations[operationCount++] = {name, usage, command};
  return 0;
}

extern "C" int32_t qvproc_devshell_init() {
  static std::mutex startLock;
  static pid_t startedIn = 0; // threads do not survive a fork, so a child may start its own shell
  const std::lock_guard lock(startLock);
  if (startedIn == getpid()) {
    return 0;
  }
  startOperationsRun();
  if (!programOutputTakeOver() || devshellServerStart() != 0) {
    const int error = errno;
    qvproc_logf(SEVERITY_WARNING, COMPONENT_AGENT, LOG_AREA, __LINE__, "no debug shell: %s", strerror(error));
    return 1;
  }
  startedIn = getpid();
  return 0;
}
