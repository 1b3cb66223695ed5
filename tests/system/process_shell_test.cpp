// The debug shell of a running program, through mirelsh and through clients that misbehave.

#include "own_namespaces.h"
#include "process_support.h"
#include "qvproc.h"
#include "unique_fd.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <map>
#include <sstream>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>

namespace {

using testing::HasSubstr;

constexpr char OUTPUT[] = "/tmp/agent.out";
constexpr char READY[] = "ready, and then half a line:";
constexpr char BIN[] = MIREL_BUILD_DIR "/bin/";

struct Result {
  int status;
  std::string out;
  std::string err;
};

Result mirelsh(const std::string &arguments) {
  const int status = system((BIN + std::string("mirelsh ") + arguments + " >/tmp/sh.out 2>/tmp/sh.err").c_str());
  return {WEXITSTATUS(status), fileText("/tmp/sh.out"), fileText("/tmp/sh.err")};
}

// The program with its standard output in a file; ends with its owner.
class Agent {
public:
  explicit Agent(const char *name = "agent-3", const char *order = "buffer-early") {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
      throw std::runtime_error("pipe");
    }
    const UniqueFd input(ends[0]);
    control_.reset(ends[1]);
    std::filesystem::remove(OUTPUT); // of an agent before, which may run on
    pid_ = fork();
    if (pid_ == 0) {
      dup2(ends[0], STDIN_FILENO);
      const int out = open(OUTPUT, O_WRONLY | O_CREAT | O_TRUNC | O_APPEND, 0600);
      dup2(out, STDOUT_FILENO);
      const std::string program = std::string(BIN) + "process_shell_agent";
      execl(program.c_str(), program.c_str(), name, order, nullptr);
      _exit(127);
    }
    if (!eventually([] { return fileText(OUTPUT).ends_with(READY); })) {
      throw std::runtime_error("the program does not start");
    }
  }
  ~Agent() {
    control_.reset();
    int status = -1;
    waitpid(pid_, &status, 0);
    EXPECT_EQ(status, 0);
  }

  pid_t pid() const { return pid_; }
  std::string socketPath() const { return "/tmp/qvproc/shell/" + std::to_string(pid_) + ".sock"; }
  void tell(const char *what) const { ASSERT_EQ(write(control_.get(), what, 1), 1); }
  size_t descriptors() const {
    const std::filesystem::directory_iterator open("/proc/" + std::to_string(pid_) + "/fd");
    return static_cast<size_t>(std::distance(open, {}));
  }

  UniqueFd connect() const {
    UniqueFd fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, socketPath().c_str(), socketPath().size());
    EXPECT_EQ(::connect(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    return fd;
  }

private:
  UniqueFd control_;
  pid_t pid_;
};

std::string expectedLines(int count) {
  std::string text;
  for (int i = 0; i < count; ++i) {
    text += "operation " + std::to_string(i) + (i + 1 < count ? "\n" : ".");
  }
  return text;
}

void send(const UniqueFd &fd, const std::string &packet) {
  EXPECT_EQ(::send(fd.get(), packet.data(), packet.size(), MSG_NOSIGNAL), static_cast<ssize_t>(packet.size()));
}

} // namespace

TEST(DebugShell, runsAnOperation) {
  const Agent agent;
  EXPECT_EQ(mirelsh("3 pid").out, std::to_string(agent.pid()));
  const Result arguments = mirelsh("3 arguments 0x10 '' 'two words'");
  EXPECT_EQ(arguments.status, 0);
  EXPECT_EQ(arguments.out, "0=arguments\n1=0x10\n2=\n3=two words\n");
  EXPECT_EQ(arguments.err, "");

  const Result refused = mirelsh("3 refuse");
  EXPECT_EQ(refused.status, 1);
  EXPECT_EQ(refused.out, "said before");
  EXPECT_EQ(refused.err, "mirelsh: usage: refuse <number>; a number is 0 to 4294967295, decimal or 0x\n");
  EXPECT_EQ(mirelsh("3 fail").status, 1);

  const Result unknown = mirelsh("3 nothing");
  EXPECT_EQ(unknown.status, 1);
  EXPECT_THAT(unknown.err, HasSubstr("nothing: unknown operation"));
  EXPECT_EQ(mirelsh("3 help").out, "help [operation]    the operations, or one of them\narguments <any>...\n"
                                   "refuse <number>     refuses it\nfail\nlines <count>\npid\n");
  EXPECT_EQ(mirelsh("3 help refuse").out, "refuse <number>  refuses it\n");
  EXPECT_THAT(mirelsh("3 help nothing").err, HasSubstr("nothing: unknown operation"));
  EXPECT_EQ(mirelsh("--json 3 help").err, "mirelsh: help has no JSON form\n");
  EXPECT_EQ(mirelsh("--json 3 arguments").out, "0=arguments\n1=json\n");
  EXPECT_EQ(mirelsh("3 refuse 1 --json").err, "mirelsh: refuse has no JSON form\n");
  EXPECT_EQ(mirelsh("3 lines 100000").out, expectedLines(100000)) << "more than a socket holds";

  struct stat socket {};
  ASSERT_EQ(stat(agent.socketPath().c_str(), &socket), 0);
  EXPECT_EQ(socket.st_mode & 07777, 0600u);
  EXPECT_EQ(fileText(OUTPUT), READY) << "nothing of the operations";
}

TEST(DebugShell, findsTheAgentOfTheVrf) {
  const Agent three;
  const Agent seven("agent-7");
  const Agent thirteen("x-y-13");
  EXPECT_EQ(mirelsh("7 pid").out, std::to_string(seven.pid()));
  EXPECT_EQ(mirelsh("13 pid").out, std::to_string(thirteen.pid()));
  const std::string stale = "/tmp/qvproc/shell/4194304.sock"; // one above the largest process number
  const std::string reused = "/tmp/qvproc/shell/" + std::to_string(getpid()) + ".sock";
  shell("touch " + stale + " " + reused);
  const Result list = mirelsh("--list");
  for (const Agent *agent : {&three, &seven, &thirteen}) {
    EXPECT_THAT(list.out, HasSubstr(std::to_string(agent->pid())));
  }
  EXPECT_THAT(list.out, HasSubstr("process_shell_agent x-y-13"));
  EXPECT_FALSE(std::filesystem::exists(stale));
  EXPECT_FALSE(std::filesystem::exists(reused)) << "of a process that ended before this one began";

  EXPECT_EQ(mirelsh("4 pid").err, "mirelsh: no agent runs for VRF 4\n");
  for (const char *wrong : {"", "three pid", "-3 pid", "3x pid", "--list 3"}) {
    const Result result = mirelsh(wrong);
    EXPECT_EQ(result.status, 1) << wrong;
    EXPECT_THAT(result.err, HasSubstr("usage:")) << wrong;
  }
  const std::string runDir = getenv("QVPROC_RUN_DIR");
  setenv("QVPROC_RUN_DIR", "/dev/null", 1);
  for (const char *line : {"--list", "3 pid"}) {
    const Result unread = mirelsh(line);
    EXPECT_EQ(unread.status, 1);
    EXPECT_EQ(unread.err, "mirelsh: cannot look for agents in /dev/null/shell: Not a directory\n");
  }
  setenv("QVPROC_RUN_DIR", runDir.c_str(), 1);
  const Agent again;
  EXPECT_EQ(mirelsh("3 pid").status, 1);
  EXPECT_THAT(mirelsh("3 pid").err, HasSubstr("several agents"));
}

// Whatever prints at once, from the program's threads or from an operation: each text arrives where it belongs, nothing is
// lost, and the program's lines stay whole.
TEST(DebugShell, keepsOutputsApart) {
  for (const char *order : {"buffer-early", "buffer-late"}) {
    const Agent agent("agent-3", order);
    agent.tell("start");
    const std::string expected = expectedLines(1000);
    for (int i = 0; i < 10; ++i) {
      ASSERT_EQ(mirelsh("3 lines 1000").out, expected);
    }
    agent.tell("stop");
    ASSERT_TRUE(eventually([] { return fileText(OUTPUT).ends_with("all printed\n"); }));
    std::istringstream lines(fileText(OUTPUT).substr(strlen(READY)));
    std::map<std::string, unsigned> next;
    for (std::string line; std::getline(lines, line) && line != "all printed";) {
      const std::string who = line.substr(0, line.find_first_of("0123456789"));
      ASSERT_EQ(line, who + std::to_string(next[who]++) + " end");
    }
    EXPECT_EQ(next.size(), 4u);
    EXPECT_EQ(next["first "], next["first whole "]);
    EXPECT_EQ(next["second "], next["second whole "]);
    EXPECT_GT(next["first "], 1000u);
  }
}

TEST(DebugShell, hostileClients) {
  const Agent agent;
  const size_t descriptors = agent.descriptors();
  for (int i = 0; i < 1000; ++i) {
    agent.connect();
  }
  EXPECT_EQ(mirelsh("3 pid").status, 0);

  std::array<UniqueFd, 5> idle;
  for (UniqueFd &client : idle) {
    client = agent.connect();
  }
  using namespace std::string_literals;
  const std::string large = "lines\0"s + "100000\0"s; // prints more than a socket holds
  const UniqueFd deaf = agent.connect();
  send(deaf, large);
  const UniqueFd gone = agent.connect();
  send(gone, large);
  shutdown(gone.get(), SHUT_RDWR);
  for (const std::string &request :
       {std::string("pid"), std::string("\0", 1), std::string("\0\0\0", 3), std::string(100000, 'x'),
        std::string(4096, '\0'), "pid" + std::string(4000, '\0')}) {
    const UniqueFd client = agent.connect();
    send(client, request);
    std::array<char, 16> head{};
    EXPECT_EQ(recv(client.get(), head.data(), head.size(), 0), 16);
    int32_t status = 0;
    memcpy(&status, head.data(), sizeof status);
    EXPECT_EQ(status, -1);
  }
  EXPECT_EQ(mirelsh("3 pid").out, std::to_string(agent.pid()));
  EXPECT_TRUE(eventually([&] { return agent.descriptors() == descriptors; })) << "idle clients are dropped";
  std::array<char, 16> head{};
  uint64_t output = 0;
  EXPECT_EQ(recv(deaf.get(), head.data(), head.size(), 0), 16);
  memcpy(&output, head.data() + 8, sizeof output);
  EXPECT_EQ(output, expectedLines(100000).size()) << "it was answered, as far as it took the answer";
}

// Operations from standard input: each line is one, whatever became of those before it.
TEST(DebugShell, linesOfOperations) {
  const Agent agent;
  const std::string pid = std::to_string(agent.pid());
  std::ofstream("/tmp/lines") << "  arguments  a\tb \r\n\n# nothing\n"
                              << std::string(1 << 20, 'x') << " 1\nfail\npid\nquit\npid\n";
  const Result lines = mirelsh("3 </tmp/lines");
  EXPECT_EQ(lines.status, 1);
  EXPECT_EQ(lines.out, "0=arguments\n1=a\n2=b\n" + pid);
  EXPECT_THAT(lines.err, HasSubstr("did not take the request: Message too long"));
  EXPECT_THAT(lines.err, HasSubstr("fail returned 42"));
  std::ofstream("/tmp/lines") << "pid"; // without a line end
  EXPECT_EQ(mirelsh("3 </tmp/lines").out, pid);
  EXPECT_EQ(mirelsh("3 </dev/null").status, 0);
  EXPECT_EQ(mirelsh("4 </dev/null").err, "mirelsh: no agent runs for VRF 4\n");
}

TEST(DebugShell, operationsAtTheStart) {
  setenv("QVPROC_START_OPERATIONS", " arguments one  two;nothing;;refuse 1\narguments", 1);
  const int before = dup(STDERR_FILENO);
  const int log = open("/tmp/start.log", O_WRONLY | O_CREAT | O_TRUNC, 0600);
  dup2(log, STDERR_FILENO);
  {
    const Agent agent;
    EXPECT_EQ(mirelsh("3 pid").status, 0);
  }
  dup2(before, STDERR_FILENO);
  close(before);
  close(log);
  unsetenv("QVPROC_START_OPERATIONS");
  EXPECT_EQ(fileText(OUTPUT), std::string("0=arguments\n1=one\n2=two\nsaid before0=arguments\n") + READY);
  EXPECT_THAT(fileText("/tmp/start.log"),
              HasSubstr(R"(QVPROC_START_OPERATIONS: "nothing": nothing: unknown operation)"));
  EXPECT_THAT(fileText("/tmp/start.log"), HasSubstr(R"(QVPROC_START_OPERATIONS: "refuse 1": usage: refuse <number>)"));
}

TEST(DebugShell, registrationRules) {
  const auto command = [](int32_t, const char *const *) -> int32_t { return 0; };
  EXPECT_EQ(qvproc_devshell_register(nullptr, "", command), 1);
  EXPECT_EQ(qvproc_devshell_register("", "", command), 1);
  EXPECT_EQ(qvproc_devshell_register("a", "", nullptr), 1);
  EXPECT_EQ(qvproc_devshell_register("help", "", command), 1) << "the shell's own";
  static std::array<std::string, 200> names;
  size_t taken = 0;
  for (size_t i = 0; i < names.size(); ++i) {
    names[i] = "operation" + std::to_string(i);
    taken += qvproc_devshell_register(names[i].c_str(), "", command) == 0;
  }
  EXPECT_GE(taken, 64u);
  EXPECT_LT(taken, names.size());
  EXPECT_EQ(qvproc_devshell_register("operation0", "", command), 1);
}
