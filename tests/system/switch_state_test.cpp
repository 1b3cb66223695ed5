// orrin's state folder: what an orrin that is started anew knows, and what it must leave alone.

#include "switch_fixture.h"

#include <csignal>
#include <filesystem>
#include <fstream>
#include <sys/mount.h>

namespace {

class SwitchState : public SwitchFixture {
protected:
  std::string stateFolder() const { return orrin.folder() + "/state"; }

  void startAnew() {
    orrin.end(SIGKILL);
    orrin.start();
  }
};

TEST_F(SwitchState, TheRestartFlagOfALivingAgentIsLeftAlone) {
  const std::string records = orrin.folder() + "/run/syncdb/";
  const auto record = [&](const std::string &vrf) {
    std::ifstream file(records + "Mirel Restart State-" + vrf);
    return std::string(std::istreambuf_iterator<char>(file), {});
  };
  orrin.run("vrf del 3");
  EXPECT_FALSE(std::filesystem::exists(records + "Mirel Restart State-3"));
  orrin.run("vrf add 3 blue");
  orrin.run("vrf add 4 red");
  EXPECT_EQ(record("3"), std::string(1, '\0'));
  std::ofstream(records + "Mirel Restart State-3") << '\1'; // as the agent does when it is up
  std::filesystem::remove(records + "Mirel Restart State-4");
  startAnew(); // reads the add, the del and the add
  EXPECT_EQ(record("3"), "\1");
  EXPECT_EQ(record("4"), std::string(1, '\0')) << "a VRF has one";
}

TEST_F(SwitchState, StartTimesOfProcessesGrowBeyond32Bits) {
  orrin.end(SIGKILL);
  std::ofstream(stateFolder() + "/commands", std::ios::app)
      << "client best-route 9 vrf 3 pid 1 started 18446744073709551615 name far\n";
  orrin.start();
  EXPECT_NE(orrin.run("show clients json").find("\"gone\""), std::string::npos) << "another process has the pid";
}

// A state folder on a disk of its own, which the test fills.
class SwitchFullDisk : public SwitchState {
protected:
  void SetUp() override {
    std::filesystem::create_directories(stateFolder());
    ASSERT_EQ(mount("none", stateFolder().c_str(), "tmpfs", 0, "size=256k"), 0);
    SwitchState::SetUp();
  }
  void TearDown() override { EXPECT_EQ(umount2(stateFolder().c_str(), MNT_DETACH), 0); }

  void fill() {
    std::ofstream file(stateFolder() + "/filler");
    for (int kilobyte = 0; kilobyte < 256; ++kilobyte) {
      file << std::string(1024, '#') << std::flush;
    }
  }
  void makeRoom() { std::filesystem::remove(stateFolder() + "/filler"); }
};

TEST_F(SwitchFullDisk, NothingThatWasAcceptedIsLost) {
  fill();
  // The page of the file that the journal has already may take some.
  std::string refused;
  int number = 0;
  while (refused.empty() && number < 900) {
    const std::string text = std::to_string(100 + ++number);
    orrin.tell("interface add " + text + " vrf 3 name 0/" + text + " device rt" + text, refused);
  }
  EXPECT_NE(refused.find("not kept"), std::string::npos) << refused;
  EXPECT_NE(refused.find("No space left"), std::string::npos) << refused;
  EXPECT_NE(orrin.run("show status").find("No space left"), std::string::npos);
  EXPECT_NE(orrin.run("dump").find("interface add " + std::to_string(100 + number)), std::string::npos) << "it is done";
  orrin.refusal("routes add vrf 3 10.0.0.0/24 count 20 reject");
  makeRoom();
  orrin.run("route add vrf 3 20.0.0.0/8 reject");
  const std::string before = orrin.run("dump");
  startAnew();
  EXPECT_EQ(orrin.run("dump"), before);
}

} // namespace
