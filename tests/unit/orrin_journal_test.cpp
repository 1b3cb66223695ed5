// The state folder: what is read back after which interruption.

#include "journal.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>

namespace {

using namespace orrin;

class OrrinJournal : public testing::Test {
protected:
  void SetUp() override {
    char name[] = "/tmp/orrin-journal.XXXXXX";
    ASSERT_NE(mkdtemp(name), nullptr);
    folder = name;
  }
  void TearDown() override { std::filesystem::remove_all(folder); }

  // What a start reads.
  std::vector<std::string> lines(std::string *error = nullptr) {
    Journal journal;
    std::string why;
    EXPECT_TRUE(journal.open(folder, why)) << why;
    std::vector<std::string> read;
    const bool good = journal.replay(
        [&](std::string_view line, std::string &reason) {
          if (!line.starts_with('#')) {
            read.emplace_back(line);
          }
          reason = "wrong";
          return line != "bad";
        },
        why);
    EXPECT_EQ(good, error == nullptr) << why;
    if (error != nullptr) {
      *error = why;
    }
    return read;
  }

  void write(const char *file, const std::string &text) { std::ofstream(folder + "/" + file) << text; }

  std::string folder;
};

using Lines = std::vector<std::string>;

TEST_F(OrrinJournal, ReadsConfigAndJournalAndTakesOverBoth) {
  std::string error;
  {
    Journal journal;
    ASSERT_TRUE(journal.open(folder + "/deeper/still", error)) << error;
    journal.append("before any file");
    ASSERT_TRUE(journal.replay([](std::string_view, std::string &) { return false; }, error));
    EXPECT_FALSE(journal.hadState());
    ASSERT_TRUE(journal.rewrite("one\n", error)) << error;
    journal.append("two");
    journal.flush();
    journal.append("not flushed");
    Journal second;
    EXPECT_FALSE(second.open(folder + "/deeper/still", error));
    EXPECT_NE(error.find("another orrin's"), std::string::npos) << error;
  }
  folder += "/deeper/still";
  EXPECT_EQ(lines(), (Lines{"one", "two"}));
  folder.resize(folder.size() - std::string("/deeper/still").size());
}

TEST_F(OrrinJournal, InterruptedWritesAreNoState) {
  write("config", "# generation 4\none\n");
  write("journal", "# generation 4\ntwo\nhalf a li");
  EXPECT_EQ(lines(), (Lines{"one", "two"}));
  write("config", "# generation 5\none and two\n"); // the journal was not replaced any more
  EXPECT_EQ(lines(), (Lines{"one and two"}));
}

TEST_F(OrrinJournal, ABadLineIsNamed) {
  write("config", "# generation 1\nfine\nbad\n");
  std::string error;
  lines(&error);
  EXPECT_EQ(error, folder + "/config:3: wrong");
}

} // namespace
