// The debug shell's view of the agent: one table of the operations, their arguments and what runs them. The shell calls
// back on its own thread, one operation at a time.

#include "mirel_debug.h"
#include "mirel_router_table.h"
#include "qvproc.h"
#include "rto_netlink.h"
#include "vr_ipslaprobe_util.h"

#include <charconv>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string_view>
#include <system_error>

namespace {

enum ShellResult : int32_t { SHELL_DONE = 0, SHELL_BAD_ARGUMENTS = 1 };

// An operation has one of three shapes; exactly one of the pointers is set.
struct ShellOperation {
  const char *name;
  const char *usage;
  void (*run)();
  void (*runWith)(uint32_t);
  uint32_t (*get)();
};

constexpr ShellOperation without(const char *name, void (*run)()) {
  return {name, "", run, nullptr, nullptr};
}
constexpr ShellOperation with(const char *name, const char *argument, void (*run)(uint32_t)) {
  return {name, argument, nullptr, run, nullptr};
}
constexpr ShellOperation getter(const char *name, uint32_t (*get)()) {
  return {name, "", nullptr, nullptr, get};
}

constexpr ShellOperation OPERATIONS[] = {
    with("mirelDebugFlagsSet", "<mask>", mirelDebugFlagsSet),
    getter("mirelDebugFlagsGet", mirelDebugFlagsGet),
    with("rtoDebugMaskSet", "<mask>", rtoDebugMaskSet),
    getter("rtoDebugMaskGet", rtoDebugMaskGet),
    without("rtoDebugDisableAll", rtoDebugDisableAll),
    without("rtoDebugEnableAll", rtoDebugEnableAll),
    with("mirelBestRoutePollTimeSet", "<seconds>", mirelBestRoutePollTimeSet),
    with("mirelBestRouteApplyTimeSet", "<seconds>", mirelBestRouteApplyTimeSet),
    without("mirelStatsShow", mirelStatsShow),
    with("mirelEventCountShow", "<message type, 0 = all>", mirelEventCountShow),
    with("mirelIntfEventCountShow", "<interface number, 0 = all>", mirelIntfEventCountShow),
    without("mirelStatsClear", mirelStatsClear),
    without("mirelBestRouteClientShow", mirelBestRouteClientShow),
    without("mirelRouterEventClientShow", mirelRouterEventClientShow),
    with("mirelIntIfInfoShow", "<interface number, 0 = all>", mirelIntIfInfoShow),
    without("rtoNetlinkStatsShow", rtoNetlinkStatsShow),
    without("rtoNetlinkStatsClear", rtoNetlinkStatsClear),
    with("probeAgentDebugSet", "<1 = on, else off>", probeAgentDebugSet),
    getter("probeAgentDebugGet", probeAgentDebugGet),
};

// A 32-bit number, decimal or with 0x in front; nothing may stand around it.
std::optional<uint32_t> numberRead(std::string_view text) {
  int base = 10;
  if (text.starts_with("0x") || text.starts_with("0X")) {
    base = 16;
    text.remove_prefix(2);
  }
  uint32_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
  if (error != std::errc{} || end != text.data() + text.size()) {
    return std::nullopt;
  }
  return value;
}

int32_t operationRun(const ShellOperation &operation, int32_t argc, const char *const *argv) {
  const int32_t argumentsNeeded = operation.runWith != nullptr ? 1 : 0;
  if (argc - 1 != argumentsNeeded) {
    return SHELL_BAD_ARGUMENTS;
  }
  if (operation.run != nullptr) {
    operation.run();
    return SHELL_DONE;
  }
  if (operation.get != nullptr) {
    printf("%u\n", operation.get());
    return SHELL_DONE;
  }
  const std::optional<uint32_t> argument = numberRead(argv[1]);
  if (!argument) {
    return SHELL_BAD_ARGUMENTS;
  }
  operation.runWith(*argument);
  return SHELL_DONE;
}

int32_t shellCommand(int32_t argc, const char *const *argv) {
  for (const ShellOperation &operation : OPERATIONS) {
    if (strcmp(operation.name, argv[0]) == 0) {
      return operationRun(operation, argc, argv);
    }
  }
  return SHELL_BAD_ARGUMENTS;
}

} // namespace

void mirelShellOperationsRegister() {
  for (const ShellOperation &operation : OPERATIONS) {
    qvproc_devshell_register(operation.name, operation.usage, shellCommand);
  }
}
