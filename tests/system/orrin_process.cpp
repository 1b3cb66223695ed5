#include "orrin_process.h"

#include "unique_fd.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <system_error>
#include <vector>

namespace {

void must(bool done, const std::string &what) {
  if (!done) {
    throw std::system_error(errno, std::generic_category(), what);
  }
}

UniqueFd connectTo(const std::string &path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (connect(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
    return {};
  }
  return fd;
}

std::string readUntil(int fd, size_t bytes, char end) {
  std::string text;
  char byte;
  while (text.size() < bytes && read(fd, &byte, 1) == 1 && byte != end) {
    text += byte;
  }
  return text;
}

std::string readAll(int fd, size_t bytes) {
  std::string text(bytes, '\0');
  size_t filled = 0;
  for (ssize_t count; filled < bytes && (count = read(fd, text.data() + filled, bytes - filled)) > 0;) {
    filled += static_cast<size_t>(count);
  }
  text.resize(filled);
  return text;
}

} // namespace

OrrinProcess::OrrinProcess() {
  char name[] = "/tmp/orrin.XXXXXX";
  must(mkdtemp(name) != nullptr, name);
  folder_ = name;
  setenv("ORRIN_SOCKET", socket().c_str(), 1);
  setenv("QVPROC_RUN_DIR", (folder_ + "/run").c_str(), 1);
}

OrrinProcess::~OrrinProcess() {
  if (pid_ > 0) {
    kill(pid_, SIGCONT);
    end(SIGKILL);
  }
  std::filesystem::remove_all(folder_);
}

void OrrinProcess::launch(std::initializer_list<std::string> more, int errorFd) {
  std::vector<std::string> words = {MIREL_BUILD_DIR "/bin/orrin", "--state", folder_ + "/state"};
  words.insert(words.end(), more);
  std::vector<char *> argv;
  for (std::string &word : words) {
    argv.push_back(word.data());
  }
  argv.push_back(nullptr);
  pid_ = fork();
  must(pid_ >= 0, "fork");
  if (pid_ == 0) {
    if (errorFd >= 0) {
      dup2(errorFd, STDERR_FILENO);
    }
    execv(argv[0], argv.data());
    _exit(127);
  }
}

void OrrinProcess::start(std::initializer_list<std::string> more) {
  launch(more, -1);
  const bool up = within(20000, [this] { return static_cast<bool>(connectTo(socket() + ".control")); });
  must(up, "orrin does not answer");
}

int OrrinProcess::startFailing(std::initializer_list<std::string> more, std::string &complaint) {
  int ends[2];
  must(pipe2(ends, O_CLOEXEC) == 0, "pipe");
  const UniqueFd from(ends[0]);
  UniqueFd to(ends[1]);
  launch(more, to.get());
  to.reset();
  complaint = readAll(from.get(), 4096);
  return end(0);
}

int OrrinProcess::end(int signal) {
  sendSignal(signal);
  int status = 0;
  must(waitpid(pid_, &status, 0) == pid_, "waitpid");
  pid_ = -1;
  return status;
}

void OrrinProcess::sendSignal(int signal) const {
  must(kill(pid_, signal) == 0, "kill");
}

bool OrrinProcess::command(const std::string &line, std::string &answer) const {
  const UniqueFd fd = connectTo(socket() + ".control");
  const std::string bytes = line + "\n";
  must(fd && write(fd.get(), bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()), "control socket");
  const std::string head = readUntil(fd.get(), 32, '\n');
  const size_t blank = head.find(' ');
  if (blank == std::string::npos) {
    throw std::runtime_error("no answer to: " + line);
  }
  answer = readAll(fd.get(), std::stoul(head.substr(blank)));
  return head.substr(0, blank) == "0";
}

std::string OrrinProcess::run(const std::string &line) const {
  std::string answer;
  EXPECT_TRUE(command(line, answer)) << line << ": " << answer;
  return answer;
}

void OrrinProcess::tell(const std::string &line, std::string &reason) const {
  if (std::string answer; !command(line, answer)) {
    reason = answer;
  }
}

std::string OrrinProcess::refusal(const std::string &line) const {
  std::string answer;
  EXPECT_FALSE(command(line, answer)) << line << ": " << answer;
  return answer;
}
