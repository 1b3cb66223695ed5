// The operations of the debug shell: registered from any thread, run on the shell's.

#include "devshell.h"

#include "devshell_output.h"
#include "devshell_protocol.h"
#include "qvproc.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string_view>
#include <unistd.h>

namespace {

constexpr uint32_t SEVERITY_WARNING = 4;
constexpr uint32_t COMPONENT_AGENT = 156;

struct Operation {
  const char *name;
  const char *usage;
  int32_t (*command)(int32_t argc, const char *const *argv);
};

int32_t help(int32_t argc, const char *const *argv);

// Rows are added and never change, so a reader needs the lock only for their number.
constexpr size_t OPERATIONS_MAX = 128;
std::mutex operationsLock;
std::array<Operation, OPERATIONS_MAX> operations = {{{"help", "", help}}};
size_t operationCount = 1;

std::span<const Operation> registered() {
  const std::lock_guard lock(operationsLock);
  return {operations.data(), operationCount};
}

const Operation *find(std::span<const Operation> all, std::string_view name) {
  const auto found = std::find_if(all.begin(), all.end(), [name](const Operation &row) { return row.name == name; });
  return found != all.end() ? &*found : nullptr;
}

std::string usageOf(const Operation &operation) {
  const bool hasArguments = operation.usage != nullptr && operation.usage[0] != '\0';
  return hasArguments ? std::string(operation.name) + " " + operation.usage : operation.name;
}

int32_t help(int32_t, const char *const *) {
  for (const Operation &operation : registered()) {
    printf("%s\n", usageOf(operation).c_str());
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

DevshellOutcome refused(std::string message) {
  return {DEVSHELL_REFUSED, {}, std::move(message)};
}

} // namespace

DevshellOutcome devshellRun(std::span<const char> request) {
  Arguments arguments;
  if (!split(request, arguments)) {
    return refused("malformed request");
  }
  const Operation *operation = find(registered(), arguments.values[0]);
  if (operation == nullptr) {
    return refused("unknown operation; \"help\" lists the known ones");
  }
  OutputCapture capture;
  if (!capture) {
    return refused("no memory file for the output: " + std::string(strerror(errno)));
  }
  const int32_t status = operation->command(arguments.count, arguments.values.data());
  UniqueFd output = capture.finish();
  std::string message;
  if (status == DEVSHELL_BAD_ARGUMENTS) {
    message = "usage: " + usageOf(*operation);
  } else if (status != DEVSHELL_DONE) {
    message = std::string(operation->name) + " returned " + std::to_string(status);
  }
  return {status, std::move(output), std::move(message)};
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
  if (!programOutputTakeOver() || devshellServerStart() != 0) {
    const int error = errno;
    qvproc_logf(SEVERITY_WARNING, COMPONENT_AGENT, "platform/process/devshell", __LINE__, "no debug shell: %s",
                strerror(error));
    return 1;
  }
  startedIn = getpid();
  return 0;
}
