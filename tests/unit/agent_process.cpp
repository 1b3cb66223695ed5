#include "agent_process.h"

#include "unique_fd.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <utility>

namespace {

constexpr auto PATIENCE = std::chrono::seconds(30);
constexpr char PASS_END[] = "rpcclt_rpc_failure_occured"; // the last call of every pass

std::string contents(const std::string &path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

std::atomic<uint64_t> *clockPage(const std::string &path, uint64_t seconds) {
  std::ofstream(path).write(reinterpret_cast<const char *>(&seconds), sizeof seconds);
  const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
  void *page = mmap(nullptr, sizeof seconds, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  close(fd);
  if (page == MAP_FAILED) {
    throw std::runtime_error("no clock");
  }
  return static_cast<std::atomic<uint64_t> *>(page);
}

void redirect(const std::string &path, int to) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
  dup2(fd, to);
  close(fd);
}

[[noreturn]] void runAgent(const AgentOptions &options, const std::string &folder) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  setenv("LD_LIBRARY_PATH", MIREL_BUILD_DIR "/scripted", 1);
  setenv("SCRIPTED_SCRIPT", (folder + "/script").c_str(), 1);
  setenv("SCRIPTED_TRACE", (folder + "/trace").c_str(), 1);
  setenv("SCRIPTED_CLOCK", (folder + "/clock").c_str(), 1);
  setenv("SCRIPTED_SELECT_MS", "10", 1);
  redirect(folder + "/stdout", STDOUT_FILENO);
  redirect(folder + "/stderr", STDERR_FILENO);
  if (options.beforeExec) {
    options.beforeExec();
  }
  std::vector<std::string> arguments = options.arguments;
  std::vector<char *> argv = {const_cast<char *>("mirel")};
  for (std::string &argument : arguments) {
    argv.push_back(argument.data());
  }
  argv.push_back(nullptr);
  execv(MIREL_BUILD_DIR "/bin/mirel", argv.data());
  _exit(127);
}

} // namespace

bool sendDatagram(const std::string &socketPath, const std::string &bytes) {
  const UniqueFd sock(socket(AF_UNIX, SOCK_DGRAM, 0));
  sockaddr_un to{};
  to.sun_family = AF_UNIX;
  strcpy(to.sun_path, socketPath.c_str());
  return sendto(sock.get(), bytes.data(), bytes.size(), MSG_DONTWAIT, reinterpret_cast<const sockaddr *>(&to),
                sizeof to) == static_cast<ssize_t>(bytes.size());
}

std::string eventDatagram(uint16_t type, size_t length) {
  const uint16_t head[] = {type, static_cast<uint16_t>(length)};
  std::string bytes(std::max(length, sizeof head), '\xff');
  memcpy(bytes.data(), head, sizeof head);
  return bytes.substr(0, length);
}

AgentProcess::AgentProcess(const AgentOptions &options) {
  char folder[] = "/tmp/agent.XXXXXX";
  if (mkdtemp(folder) == nullptr) {
    throw std::runtime_error("no folder");
  }
  folder_ = folder;
  clock_ = clockPage(folder_ + "/clock", options.clock);
  script(options.script);
  pid_ = fork();
  if (pid_ == 0) {
    runAgent(options, folder_);
  }
}

AgentProcess::~AgentProcess() {
  if (!ended()) {
    kill(pid_, SIGKILL);
    waitpid(pid_, &status_, 0);
  }
  munmap(clock_, sizeof *clock_);
  std::filesystem::remove_all(folder_);
}

Lines AgentProcess::trace() const {
  std::istringstream text(contents(folder_ + "/trace"));
  Lines lines;
  for (std::string line; std::getline(text, line);) {
    lines.push_back(line);
  }
  return lines;
}

std::string AgentProcess::output() const {
  return contents(folder_ + "/stdout");
}

std::string AgentProcess::errors() const {
  return contents(folder_ + "/stderr");
}

void AgentProcess::script(const std::string &lines) {
  std::ofstream(folder_ + "/script", std::ios::app) << lines << '\n';
}

Lines AgentProcess::keepAliveUntil(uint64_t seconds) {
  constexpr uint64_t SILENCE_MAX = 120;
  const size_t before = trace().size();
  while (*clock_ < seconds) {
    clock(std::min(*clock_ + SILENCE_MAX, seconds));
    if (!sendDatagram(ROUTER_EVENT_SOCKET, eventDatagram(1, 8))) {
      throw std::runtime_error("no router event socket");
    }
    passes();
  }
  Lines lines = trace();
  lines.erase(lines.begin(), lines.begin() + static_cast<ptrdiff_t>(before));
  return lines;
}

void AgentProcess::stop() {
  kill(pid_, SIGSTOP);
  int status;
  if (waitpid(pid_, &status, WUNTRACED) != pid_ || !WIFSTOPPED(status)) {
    throw std::runtime_error("the agent has ended: " + errors());
  }
}

void AgentProcess::resume() {
  kill(pid_, SIGCONT);
}

Lines AgentProcess::passes(int count) {
  const auto before = static_cast<ptrdiff_t>(trace().size());
  Lines lines;
  // One more than asked for: the pass under way had begun before.
  waitUntil(
      [&] {
        lines = trace();
        return std::count(lines.begin() + before, lines.end(), PASS_END) > count;
      },
      "passes of the loop");
  const auto seen = static_cast<ptrdiff_t>(std::exchange(seen_, lines.size()));
  lines.erase(lines.begin(), lines.begin() + seen);
  return lines;
}

std::string AgentProcess::run(const std::string &operation) {
  const size_t before = output().size();
  const Lines old = trace();
  const std::string done = "ran " + operation + " -> ";
  script("!" + operation);
  waitUntil(
      [&] {
        const Lines lines = trace();
        return std::any_of(lines.begin() + static_cast<ptrdiff_t>(old.size()), lines.end(),
                           [&](const std::string &line) { return line.starts_with(done); });
      },
      operation);
  seen_ = trace().size();
  return output().substr(before);
}

std::string AgentProcess::end() {
  waitUntil([this] { return ended(); }, "end of the process");
  return WIFEXITED(status_) ? "exit " + std::to_string(WEXITSTATUS(status_))
                            : "signal " + std::to_string(WTERMSIG(status_));
}

bool AgentProcess::ended() {
  if (status_ == -1 && waitpid(pid_, &status_, WNOHANG) != pid_) {
    status_ = -1;
  }
  return status_ != -1;
}

void AgentProcess::waitUntil(const std::function<bool()> &condition, const std::string &what) {
  const auto deadline = std::chrono::steady_clock::now() + PATIENCE;
  while (!condition()) {
    const bool over = ended();
    if (condition()) {
      return;
    }
    if (over || std::chrono::steady_clock::now() > deadline) {
      std::string text = "no " + what + (over ? ", the agent has ended; its trace:\n" : "; trace:\n");
      for (const std::string &line : trace()) {
        text += line + '\n';
      }
      throw std::runtime_error(text + errors());
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
}
