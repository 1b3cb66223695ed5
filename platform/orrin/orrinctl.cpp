// orrinctl, the operator's hand on orrin: one command from its arguments, or many from standard input, sent as they are
// over the control socket; `help` and `diff` are answered here, and what an agent is asked goes to the agent first. Exit status 0 when every command was accepted, else 1.
#include "orrinctl_agent.h"
#include "orrinctl_diff.h"
#include "orrinctl_session.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <deque>
#include <string>
#include <string_view>
#include <unistd.h>

namespace {

constexpr size_t UNSENT_LIMIT = 256 * 1024; // beyond it no more input is read
constexpr size_t INPUT_STEP = 64 * 1024;

constexpr const char *USAGE =
    "usage: orrinctl <command>                               one command; `orrinctl help` lists them\n"
    "       orrinctl -                                       commands from standard input\n"
    "       orrinctl diff [vrf <id>] [interfaces|routes|neighbours|kernel-routes]... [summary]\n"
    "                                                        compare the switch with the kernel; the first two\n"
    "                                                        unless others are named\n";

constexpr const char *GRAMMAR =
    R"(Commands, one a line; # starts a comment:

vrf add <id> <name> [interface <vrf-interface>] [netns <name-or-path>]
vrf del <id>
vrf set <id> routing on|off
vrf set <id> icmp-ratelimit <burst> <interval>
vrf set <id> icmp-echo-reply <mode>
vrf set <id> kernel-routes <how many are taken>
system ready|not-ready
gateway service-port|network-port <a.b.c.d>|none
interface add <n> vrf <id> name <switch-name> device <kernel-device> [type <t>] [index <kernel-index>]
interface del <n>
interface set <n> <setting>...
    settings: mac <m>  address <a.b.c.d>/<len>  no-address  mtu <m>  bandwidth <b>  unreachables <mode>  redirects <mode>
interface secondary <n> add <a.b.c.d>/<len> [index <label>]
interface secondary <n> del <a.b.c.d>/<len>
interface vrrp <n> label <l> add {<a.b.c.d> [slot <0 to 31>]}...
interface vrrp <n> label <l> del <a.b.c.d>...
interface enable|disable|host-mode <n>
route add|modify vrf <id> <a.b.c.d>/<len> [options] {via <a.b.c.d> interface <n>}...
    options: local|kernel|install-kernel  reject  discard  metric <m>  proto <p>
             via-vrf-device  rfc5549  mpls  flag8000; up to 48 next hops
route del vrf <id> <a.b.c.d>/<len>
routes add|modify|del vrf <id> <first-prefix>/<len> count <n> [options] {via <a.b.c.d> interface <n>}...
arp learn vrf <id> <a.b.c.d> mac <m> interface <n>
arp del vrf <id> <a.b.c.d>
arp add vrf <id> <a.b.c.d> mac <m> interface <n>
    asks the VRF's agent to write it into its kernel; the switch does not keep it
ipsla start vrf <id> <1 to 128> to <a.b.c.d> [from <a.b.c.d>] [frequency <s>] [threshold <ms>] [timeout <ms>]
            [size <bytes>]
ipsla stop vrf <id> <1 to 128>
ipsla show [vrf <id>] [json]
    what the VRF's agent reported of them; code 0 = in time, 1 = no answer, 2 = above the threshold
stats vrf <id> [json]
    the IP and ICMP counters of the VRF's kernel, asked of its agent, which reads them every ten seconds
keepalive period <seconds>
keepalive hold|release [vrf <id>]
event timeout <seconds>
event send vrf <id> type <t> [interface <n>] [cfg <c>]
fault set <call> [result <code>] [delay <ms>] [drop] [once|times <n>|always]
fault clear [<call>]
show vrfs|interfaces|routes|arp|clients|events|faults|status [vrf <id>] [json]
dump [reported] [vrf <id>]
    reported: what the agents reported, instead of the configuration
)";

void writeText(FILE *out, const std::string &text) {
  std::fwrite(text.data(), 1, text.size(), out);
  if (!text.empty() && text.back() != '\n') {
    std::fputc('\n', out);
  }
}

int finish(bool good) {
  if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
    std::fputs("orrinctl: cannot write the output\n", stderr);
    return 1;
  }
  return good ? 0 : 1;
}

int runOne(const std::string &command) {
  if (command.find('\n') != std::string::npos) {
    std::fputs("orrinctl: a command is one line\n", stderr);
    return 1;
  }
  ControlAnswer answer;
  bool asksOrrin = true;
  if (orrin::asksAgent(command)) {
    const orrin::AgentOutcome asked = orrin::askAgent(command);
    answer = {asked.accepted, asked.text};
    asksOrrin = asked.forTheSwitch;
  }
  if (asksOrrin) {
    answer = askOrrin(command);
  }
  writeText(answer.accepted ? stdout : stderr, (answer.accepted ? "" : "orrinctl: ") + answer.text);
  return finish(answer.accepted);
}

bool isCommand(std::string_view line) {
  const size_t start = line.find_first_not_of(" \t\r");
  return start != std::string_view::npos && line[start] != '#';
}

// Commands from standard input, sent ahead of their answers; a refused one is named by its line and does not end the rest.
class Script {
public:
  int run() {
    if (!session_.connect()) {
      return fail(session_.error());
    }
    while (!inputEnded_ || session_.unanswered() > 0) {
      const bool wantInput = !inputEnded_ && session_.unsent() < UNSENT_LIMIT;
      switch (session_.wait(wantInput ? STDIN_FILENO : -1)) {
      case ControlSession::Event::Lost:
        return fail(session_.error());
      case ControlSession::Event::Answer:
        takeAnswer();
        break;
      case ControlSession::Event::Input:
        if (!readInput()) {
          return 1;
        }
        break;
      }
    }
    return finish(good_);
  }

private:
  static int fail(const std::string &why) {
    std::fflush(stdout);
    std::fprintf(stderr, "orrinctl: %s\n", why.c_str());
    return 1;
  }

  bool readInput() {
    static std::array<char, INPUT_STEP> step;
    const ssize_t n = read(STDIN_FILENO, step.data(), step.size());
    if (n < 0) {
      const int err = errno;
      if (err == EINTR || err == EAGAIN) {
        return true;
      }
      fail(std::string("cannot read the commands: ") + std::strerror(err));
      return false;
    }
    if (n == 0) {
      inputEnded_ = true;
      return queueLine(partial_);
    }
    partial_.append(step.data(), static_cast<size_t>(n));
    size_t start = 0;
    for (size_t end; (end = partial_.find('\n', start)) != std::string::npos; start = end + 1) {
      if (!queueLine(std::string_view(partial_).substr(start, end - start))) {
        return false;
      }
    }
    partial_.erase(0, start);
    return true;
  }

  bool queueLine(std::string_view line) {
    ++lineNumber_;
    if (!isCommand(line)) {
      return true;
    }
    if (orrin::asksAgent(line)) {
      if (!takeAllAnswers()) { // commands are carried out in their order
        return false;
      }
      const orrin::AgentOutcome asked = orrin::askAgent(line);
      if (!asked.forTheSwitch) {
        report(lineNumber_, asked.accepted, asked.text);
        return true;
      }
    }
    session_.queue(line);
    asked_.push_back(lineNumber_);
    return true;
  }

  bool takeAllAnswers() {
    while (session_.unanswered() > 0) {
      if (session_.wait(-1) == ControlSession::Event::Lost) {
        fail(session_.error());
        return false;
      }
      takeAnswer();
    }
    return true;
  }

  void takeAnswer() {
    const size_t line = asked_.front();
    asked_.pop_front();
    const ControlAnswer answer = session_.takeAnswer();
    report(line, answer.accepted, answer.text);
  }

  void report(size_t line, bool accepted, const std::string &text) {
    if (accepted) {
      writeText(stdout, text);
    } else {
      good_ = false;
      writeText(stderr, "orrinctl: line " + std::to_string(line) + ": " + text);
    }
    if (session_.unanswered() == 0) {
      std::fflush(stdout); // an operator may be typing
    }
  }

  ControlSession session_;
  std::string partial_;
  std::deque<size_t> asked_;
  size_t lineNumber_ = 0;
  bool inputEnded_ = false;
  bool good_ = true;
};

std::string joined(int argc, char **argv) {
  std::string command;
  for (int i = 0; i < argc; ++i) {
    command += i > 0 ? " " : "";
    command += argv[i];
  }
  return command;
}

} // namespace

int main(int argc, char **argv) {
  const std::string_view first = argc > 1 ? argv[1] : "";
  if (argc < 2 && isatty(STDIN_FILENO) != 0) {
    std::fputs(USAGE, stderr);
    return 1;
  }
  if (argc < 2 || (first == "-" && argc == 2)) {
    return Script().run();
  }
  if (first == "help" || first == "--help" || first == "-h") {
    std::fputs(USAGE, stdout);
    std::fputs("\n", stdout);
    std::fputs(GRAMMAR, stdout);
    return finish(true);
  }
  if (first == "diff") {
    return orrin::runDiff(argc - 2, argv + 2);
  }
  return runOne(joined(argc - 1, argv + 1));
}
