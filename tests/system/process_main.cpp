#include "own_namespaces.h"
#include "process_support.h"

#include <arpa/inet.h>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <unistd.h>

std::string outputOf(const std::string &command) {
  FILE *pipe = popen((command + " 2>&1").c_str(), "re");
  std::string output;
  std::array<char, 4096> chunk;
  for (size_t length; (length = fread(chunk.data(), 1, chunk.size(), pipe)) > 0;) {
    output.append(chunk.data(), length);
  }
  if (pclose(pipe) != 0) {
    throw std::runtime_error(command + " failed: " + output);
  }
  return output;
}

std::vector<std::string> linesOf(const std::string &command) {
  std::istringstream output(outputOf(command));
  std::vector<std::string> lines;
  for (std::string line; std::getline(output, line);) {
    line.erase(line.find_last_not_of(' ') + 1);
    lines.push_back(line);
  }
  return lines;
}

std::string fileText(const std::string &path) {
  std::ifstream file(path);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

bool eventually(const std::function<bool()> &condition) {
  for (int attempt = 0; attempt < 500; ++attempt) {
    if (condition()) {
      return true;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return false;
}

uint32_t ip(const char *text) {
  return ntohl(inet_addr(text));
}

uint32_t mask(uint32_t length) {
  return length == 0 ? 0 : ~uint32_t{0} << (32 - length);
}

void RouterDevices::SetUp() {
  for (const char *number : {"1", "2"}) {
    const std::string name = std::string("rt") + number;
    shell("ip link add " + name + " type veth peer name h" + number);
    shell("ip link set " + name + " up");
    shell(std::string("ip link set h") + number + " up");
  }
  shell("ip address add 10.0.0.1/24 dev rt1");
  shell("ip address add 10.0.2.1/24 dev rt2");
  ASSERT_EQ(procOsapiRouteNetlinkSocketInit(&sock), 0);
}

void RouterDevices::TearDown() {
  close(sock.fd);
  system("ip link del h1; ip link del h2; ip route flush table main; ip route flush table 100 2>/dev/null");
}

namespace {

class OwnNamespaces : public testing::Environment {
  void SetUp() override {
    enterOwnNamespaces(MIREL_BUILD_DIR);
    setenv("QVPROC_RUN_DIR", "/tmp/qvproc", 1);
  }
};

} // namespace

int main(int argc, char **argv) {
  testing::InitGoogleTest(&argc, argv);
  testing::AddGlobalTestEnvironment(new OwnNamespaces);
  return RUN_ALL_TESTS();
}
