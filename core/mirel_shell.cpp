// The debug shell's view of the agent: one table of the operations, their arguments and what runs them. The shell calls
// back on its own thread, one operation at a time.

#include "mirel_debug.h"
#include "mirel_router_table.h"
#include "qvproc.h"
#include "rto_netlink.h"
#include "vr_ipslaprobe_util.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <optional>
#include <span>
#include <string_view>
#include <system_error>
#include <variant>

namespace {

enum ShellResult : int32_t { SHELL_DONE = 0, SHELL_BAD_ARGUMENTS = 1 };

constexpr const char *JSON_WORD = "json"; // behind the arguments of a show operation

using Run = void (*)();
using RunWith = void (*)(uint32_t);
using Get = uint32_t (*)();
using Show = void (*)(ShowForm);
using ShowOf = void (*)(uint32_t, ShowForm);

struct ShellOperation {
  const char *name;
  const char *usage; // the arguments, and from the second line on what it does
  std::variant<Run, RunWith, Get, Show, ShowOf> call;
};

constexpr ShellOperation OPERATIONS[] = {
    {"mirelStatsShow", "[json]\nthe counters of ARP, routes and timeouts", mirelStatsShow},
    {"mirelStatsClear", "\nclears every counter but the active routes", mirelStatsClear},
    {"mirelEventCountShow", "<type> [json]\nrouter events received of the message type, 0 = of all",
     mirelEventCountShow},
    {"mirelIntfEventCountShow", "<interface> [json]\nrouter events received on the interface number, 0 = on all",
     mirelIntfEventCountShow},
    {"mirelBestRouteClientShow", "[json]\nthe best-route client: id, socket, times", mirelBestRouteClientShow},
    {"mirelRouterEventClientShow", "[json]\nthe router event client: id, socket, times", mirelRouterEventClientShow},
    {"mirelIntIfInfoShow", "<interface> [json]\nthe interface of the number, 0 = all: names, kernel device and index",
     mirelIntIfInfoShow},
    {"mirelBestRoutePollTimeSet", "<seconds>\nhow often route changes are fetched; 10 at start",
     mirelBestRoutePollTimeSet},
    {"mirelBestRouteApplyTimeSet", "<seconds>\nhow long route changes are installed at a time; 1 at start",
     mirelBestRouteApplyTimeSet},
    {"mirelDebugFlagsSet", "<mask>\ntraces: 1 general, 2 ARP detail, 4 routes that could not be installed",
     mirelDebugFlagsSet},
    {"mirelDebugFlagsGet", "\nthe mask of mirelDebugFlagsSet", mirelDebugFlagsGet},
    {"rtoNetlinkStatsShow", "[json]\nthe counters of the import of kernel routes", rtoNetlinkStatsShow},
    {"rtoNetlinkStatsClear", "\nclears the counters of rtoNetlinkStatsShow", rtoNetlinkStatsClear},
    {"rtoDebugMaskSet", "<mask>\ntraces of route import and registration: 1 calls, 2 success, 4 detail, 8 failure",
     rtoDebugMaskSet},
    {"rtoDebugMaskGet", "\nthe mask of rtoDebugMaskSet", rtoDebugMaskGet},
    {"rtoDebugEnableAll", "\nsets the mask of rtoDebugMaskSet to 15", rtoDebugEnableAll},
    {"rtoDebugDisableAll", "\nsets the mask of rtoDebugMaskSet to 0", rtoDebugDisableAll},
    {"probeAgentDebugSet", "<flag>\ntraces of the IP SLA probes: 1 on, any other off", probeAgentDebugSet},
    {"probeAgentDebugGet", "\nthe flag of probeAgentDebugSet", probeAgentDebugGet},
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

// What stands behind an operation's name.
struct ShellArguments {
  std::optional<uint32_t> number;
  ShowForm form = ShowForm::TEXT;
};

// Takes the arguments that the operation's shape wants, and no others.
std::optional<ShellArguments> argumentsRead(const ShellOperation &operation, std::span<const char *const> words) {
  const bool wantsNumber =
      std::holds_alternative<RunWith>(operation.call) || std::holds_alternative<ShowOf>(operation.call);
  const bool shows = std::holds_alternative<Show>(operation.call) || std::holds_alternative<ShowOf>(operation.call);
  ShellArguments arguments;
  if (wantsNumber) {
    arguments.number = words.empty() ? std::nullopt : numberRead(words.front());
    if (!arguments.number) {
      return std::nullopt;
    }
    words = words.subspan(1);
  }
  if (shows && !words.empty() && strcmp(words.front(), JSON_WORD) == 0) {
    arguments.form = ShowForm::JSON;
    words = words.subspan(1);
  }
  return words.empty() ? std::optional(arguments) : std::nullopt;
}

void operationRun(const ShellOperation &operation, const ShellArguments &arguments) {
  if (const Run *run = std::get_if<Run>(&operation.call)) {
    (*run)();
  } else if (const RunWith *runWith = std::get_if<RunWith>(&operation.call)) {
    (*runWith)(*arguments.number);
  } else if (const Get *get = std::get_if<Get>(&operation.call)) {
    printf("%u\n", (*get)());
  } else if (const Show *show = std::get_if<Show>(&operation.call)) {
    (*show)(arguments.form);
  } else if (const ShowOf *showOf = std::get_if<ShowOf>(&operation.call)) {
    (*showOf)(*arguments.number, arguments.form);
  }
}

int32_t shellCommand(int32_t argc, const char *const *argv) {
  const std::span words(argv, static_cast<size_t>(argc));
  const auto *operation =
      std::ranges::find_if(OPERATIONS, [&](const ShellOperation &row) { return strcmp(row.name, words[0]) == 0; });
  if (operation == std::end(OPERATIONS)) {
    return SHELL_BAD_ARGUMENTS;
  }
  const std::optional<ShellArguments> arguments = argumentsRead(*operation, words.subspan(1));
  if (!arguments) {
    return SHELL_BAD_ARGUMENTS;
  }
  operationRun(*operation, *arguments);
  return SHELL_DONE;
}

} // namespace

void mirelShellOperationsRegister() {
  for (const ShellOperation &operation : OPERATIONS) {
    qvproc_devshell_register(operation.name, operation.usage, shellCommand);
  }
}
