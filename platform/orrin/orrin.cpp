// orrin, the switch in a box: start-up and the one loop. Everything that it does is an event of this loop: requests, commands,
// sockets that can take more, ended processes, due times. Nothing in it waits for anybody else.

#include "api_server.h"
#include "arp.h"
#include "clients.h"
#include "commands.h"
#include "control_server.h"
#include "interfaces.h"
#include "restart_record.h"
#include "router_events.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <getopt.h>
#include <sys/resource.h>
#include <sys/signalfd.h>

namespace {

using namespace orrin;

constexpr const char *DEFAULT_STATE = "/var/lib/orrin";
constexpr uint64_t BEAT_MS = 200;
constexpr int BAD_USAGE = 2;

struct Options {
  std::string script;
  std::string state = DEFAULT_STATE;
};

void printUsage(FILE *to) {
  std::fprintf(to,
               "usage: orrin [--script FILE] [--state DIR]\n"
               "  --script FILE  commands that set up a switch without kept state\n"
               "  --state DIR    where state is kept (%s)\n"
               "%s names the request socket (%s); the control socket has .control behind that name.\n",
               DEFAULT_STATE, tarnwire::SOCKET_VARIABLE, tarnwire::DEFAULT_SOCKET);
}

// An exit status when the program should end here, else -1.
int readOptions(int argc, char **argv, Options &options) {
  static const option LONG_OPTIONS[] = {{"script", required_argument, nullptr, 's'},
                                        {"state", required_argument, nullptr, 'd'},
                                        {"help", no_argument, nullptr, 'h'},
                                        {nullptr, 0, nullptr, 0}};
  for (int found; (found = getopt_long(argc, argv, "", LONG_OPTIONS, nullptr)) != -1;) {
    switch (found) {
    case 's':
      options.script = optarg;
      break;
    case 'd':
      options.state = optarg;
      break;
    case 'h':
      printUsage(stdout);
      return EXIT_SUCCESS;
    default:
      printUsage(stderr);
      return BAD_USAGE;
    }
  }
  if (optind < argc) {
    std::fprintf(stderr, "orrin: \"%s\" is too much\n", argv[optind]);
    return BAD_USAGE;
  }
  return -1;
}

bool fail(const std::string &why) {
  std::fprintf(stderr, "orrin: %s\n", why.c_str());
  return false;
}

// Many clients hold several connections each.
void raiseDescriptorLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
  }
}

// The kept state, or, where there is none, the script.
bool configure(Switch &sw, const Options &options) {
  std::string error;
  if (!sw.journal.open(options.state, error)) {
    return fail(error);
  }
  sw.nextEventSequence = firstEventSequence(sw);
  sw.restoring = true;
  const auto apply = [&sw](std::string_view line, std::string &why) {
    sw.page.beat();
    return runCommand(sw, line, why);
  };
  if (const std::string refused = sw.journal.replay(apply); !refused.empty()) {
    fail(refused);
  }
  sw.restoring = false;
  for (const auto &[id, vrf] : sw.vrfs) {
    if (!createRestartRecord(id, error)) {
      return fail(error);
    }
  }
  if (!options.script.empty() && sw.journal.starts() != 0) {
    std::fprintf(stderr, "orrin: %s holds state, %s is not run\n", options.state.c_str(), options.script.c_str());
  } else if (!options.script.empty() && !runScript(sw, options.script, error)) {
    return fail(error);
  }
  return true;
}

// Behind the listeners: a client that is told of events asks back at once, and a refused question is a lost one.
bool resume(Switch &sw) {
  resumeClients(sw);
  return sw.journal.flush() || fail(sw.journal.trouble());
}

UniqueFd openSignals(Switch &sw) {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  sigprocmask(SIG_BLOCK, &signals, nullptr);
  UniqueFd fd(signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
  if (fd) {
    sw.poller.watch(fd.get(), EPOLLIN, Watched::SIGNAL);
  }
  return fd;
}

class Loop {
public:
  Loop(Switch &sw, ApiServer &api, ControlServer &control) : sw_(sw), api_(api), control_(control) {}

  void run() {
    while (!ended_) {
      for (const Poller::Event &event : sw_.poller.wait(waitMs())) {
        dispatch(event);
      }
      runDue();
    }
  }

private:
  int waitMs() const {
    uint64_t next = std::min(beatDueMs_, sw_.keepaliveDueMs);
    for (const uint64_t due : {api_.nextDueMs(), nextRetryMs(sw_), nextAckTimeoutMs(sw_)}) {
      next = due == 0 ? next : std::min(next, due);
    }
    const uint64_t now = nowMs();
    return next <= now ? 0 : static_cast<int>(next - now);
  }

  void runDue() {
    const uint64_t now = nowMs();
    sw_.page.beat();
    if (now >= beatDueMs_) {
      beatDueMs_ = now + BEAT_MS;
      api_.resumeAccepting();
      control_.resumeAccepting();
    }
    if (now >= sw_.keepaliveDueMs) {
      sw_.keepaliveDueMs = now + uint64_t{sw_.keepalivePeriod} * 1000;
      sendKeepalives(sw_);
    }
    api_.answerDue();
    endAckWaits(sw_);
    flushDueOutboxes(sw_);
    sw_.journal.flush();
  }

  void dispatch(const Poller::Event &event) {
    switch (event.kind) {
    case Watched::SIGNAL:
      ended_ = true;
      break;
    case Watched::API_LISTENER:
      api_.acceptConnections();
      break;
    case Watched::CONTROL_LISTENER:
      control_.acceptConnections();
      break;
    case Watched::API_CONNECTION:
      api_.serve(event.number, event.events);
      break;
    case Watched::CONTROL_CONNECTION:
      control_.serve(event.number, event.events);
      break;
    case Watched::CLIENT_SOCKET:
      serveClientSocket(event);
      break;
    case Watched::CLIENT_PROCESS:
      dropClient(sw_, event.number);
      break;
    case Watched::ARP_SOCKET:
      serveArpSocket(event);
      break;
    }
  }

  void serveClientSocket(const Poller::Event &event) {
    const auto entry = sw_.clients.find(event.number);
    if (entry == sw_.clients.end()) {
      return;
    }
    if ((event.events & (EPOLLERR | EPOLLHUP)) != 0) {
      entry->second.outbox.lost();
    }
    entry->second.outbox.flush(sw_.poller, nowMs());
  }

  void serveArpSocket(const Poller::Event &event) {
    Vrf *vrf = findVrf(sw_, event.number);
    if (vrf == nullptr) {
      return;
    }
    if ((event.events & (EPOLLERR | EPOLLHUP)) != 0) {
      vrf->resolutions.lost();
    }
    flushResolutions(sw_, *vrf);
  }

  Switch &sw_;
  ApiServer &api_;
  ControlServer &control_;
  uint64_t beatDueMs_ = 0;
  bool ended_ = false;
};

} // namespace

int main(int argc, char **argv) {
  Options options;
  if (const int status = readOptions(argc, argv, options); status >= 0) {
    return status;
  }
  raiseDescriptorLimit();
  Switch sw;
  const UniqueFd signals = openSignals(sw);
  if (!sw.poller.good() || !signals || !sw.page.open()) {
    const int reason = errno;
    fail(std::strerror(reason));
    return EXIT_FAILURE;
  }
  sw.page.systemReady(sw.systemReady);
  if (!configure(sw, options)) {
    return EXIT_FAILURE;
  }
  const char *named = std::getenv(tarnwire::SOCKET_VARIABLE);
  const std::string path = named != nullptr && *named != '\0' ? named : tarnwire::DEFAULT_SOCKET;
  ApiServer api(sw);
  ControlServer control(sw);
  if (std::string error; !control.open(path + ".control", error) || !api.open(path, error)) {
    fail(error);
    return EXIT_FAILURE;
  }
  if (!resume(sw)) {
    return EXIT_FAILURE;
  }
  Loop(sw, api, control).run();
  if (!sw.journal.flush()) {
    fail(sw.journal.trouble());
    return EXIT_FAILURE;
  }
  return EXIT_SUCCESS;
}
