// mirelsh: runs operations of the debug shell of a running agent and prints what they print.

#include "mirelsh.h"

#include "devshell_protocol.h"
#include "mirelsh_request.h"

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <unistd.h>

namespace {

constexpr int EXIT_FAILED = 1;
constexpr const char *HELP = "help";
constexpr const char *JSON_WORD = "json"; // by which an operation is asked for JSON, behind its arguments
constexpr const char *NO_JSON = " has no JSON form";

constexpr char USAGE[] = "usage: mirelsh [--json] <vrf> <operation> [arguments]\n"
                         "       mirelsh [--json] <vrf>           operations from a prompt or standard input\n"
                         "       mirelsh <vrf> help [operation]   the operations of the VRF's agent, or one of them\n"
                         "       mirelsh --list                   the running agents\n";

std::optional<uint32_t> vrfRead(std::string_view text) {
  uint32_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc{} && end == text.data() + text.size() ? std::optional(number) : std::nullopt;
}

int list() {
  std::string problem;
  const std::optional<std::vector<Agent>> agents = agentsFind(problem);
  if (!agents) {
    return fail(problem);
  }
  printf("%8s %10s  %s\n", "PID", "VRF", "COMMAND");
  for (const Agent &agent : *agents) {
    printf("%8d %10s  %s\n", agent.pid, agent.vrf ? std::to_string(*agent.vrf).c_str() : "-",
           agent.commandLine.c_str());
  }
  return 0;
}

std::optional<AgentReply> ask(const Target &target, const std::vector<std::string> &words, std::string &problem) {
  const std::optional<Agent> agent = agentOfVrf(target.vrf, problem);
  return agent ? agentAsk(*agent, words, problem) : std::nullopt;
}

// The operation's usage says whether it has a JSON form.
std::string refusalText(const Target &target, const std::string &name, const AgentReply &reply) {
  const bool noJson = target.json && reply.status == DEVSHELL_BAD_ARGUMENTS &&
                      reply.message.find(std::string("[") + JSON_WORD + "]") == std::string::npos;
  return noJson ? name + NO_JSON : reply.message;
}

// What the operation printed, as it is; only a prompt must not stand behind half a line of it.
bool outputPrint(const Target &target, const std::string &output) {
  if (fwrite(output.data(), 1, output.size(), stdout) != output.size()) {
    return false;
  }
  if (target.prompt && !output.empty() && output.back() != '\n') {
    putchar('\n');
  }
  return fflush(stdout) == 0;
}

} // namespace

int fail(const std::string &message) {
  fprintf(stderr, "mirelsh: %s\n", message.c_str());
  return EXIT_FAILED;
}

int operationRun(const Target &target, const std::vector<std::string> &words) {
  const bool help = words.front() == HELP;
  if (help && target.json && !target.prompt) {
    return fail(std::string(HELP) + NO_JSON);
  }
  std::vector<std::string> request = words;
  if (target.json && !help) {
    request.emplace_back(JSON_WORD);
  }
  std::string problem;
  const std::optional<AgentReply> reply = ask(target, request, problem);
  if (!reply) {
    return fail(problem);
  }
  if (!outputPrint(target, reply->output)) {
    return fail(std::string("cannot print: ") + strerror(errno));
  }
  return reply->status == DEVSHELL_DONE ? 0 : fail(refusalText(target, words.front(), *reply));
}

std::vector<std::string> operationNames(const Target &target) {
  std::string problem;
  const std::optional<AgentReply> reply = ask(target, {HELP}, problem);
  const std::string_view text = reply ? std::string_view(reply->output) : "";
  std::vector<std::string> names;
  for (size_t at = 0; at < text.size(); at = text.find('\n', at) + 1) {
    names.emplace_back(text.substr(at, text.find_first_of(" \n", at) - at));
  }
  return names;
}

int main(int argc, char **argv) {
  std::vector<std::string> words;
  bool json = false;
  for (int i = 1; i < argc; ++i) {
    json = json || strcmp(argv[i], "--json") == 0;
    if (strcmp(argv[i], "--json") != 0) {
      words.emplace_back(argv[i]);
    }
  }
  if (words.size() == 1 && words[0] == "--list" && !json) {
    return list();
  }
  if (words.size() == 1 && (words[0] == "--help" || words[0] == "-h")) {
    fputs(USAGE, stdout);
    return 0;
  }
  const std::optional<uint32_t> vrf = words.empty() ? std::nullopt : vrfRead(words[0]);
  if (!vrf) {
    fputs(USAGE, stderr);
    return EXIT_FAILED;
  }
  const Target target = {*vrf, json, words.size() == 1 && isatty(STDIN_FILENO) == 1 && isatty(STDOUT_FILENO) == 1};
  words.erase(words.begin());
  std::string problem;
  if (words.empty() && !agentOfVrf(*vrf, problem)) {
    return fail(problem);
  }
  return words.empty() ? promptRun(target) : operationRun(target, words);
}
