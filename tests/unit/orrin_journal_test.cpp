// The state folder: what is read back after which interruption.

#include "journal.h"

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sys/resource.h>

namespace {

using namespace orrin;
using Lines = std::vector<std::string>;

class OrrinJournal : public testing::Test {
protected:
  void SetUp() override {
    char name[] = "/tmp/orrin-journal.XXXXXX";
    ASSERT_NE(mkdtemp(name), nullptr);
    folder = name;
  }
  void TearDown() override { std::filesystem::remove_all(folder); }

  // What a start reads.
  Lines lines(std::string *complaint = nullptr) {
    Journal journal;
    std::string why;
    EXPECT_TRUE(journal.open(folder, why)) << why;
    Lines read;
    const auto apply = [&](std::string_view line, std::string &reason) {
      if (line != "bad" && !line.starts_with('#')) {
        read.emplace_back(line);
      }
      reason = "wrong";
      return line != "bad";
    };
    EXPECT_TRUE(journal.replay(apply, why)) << why;
    EXPECT_EQ(why.empty(), complaint == nullptr) << why;
    if (complaint != nullptr) {
      *complaint = why;
      EXPECT_TRUE(journal.rewrite("", why)) << why;
    }
    return read;
  }

  // What a start would read while another journal has the folder.
  Lines linesMeanwhile() {
    const std::string original = folder;
    folder += ".copy";
    std::filesystem::copy(original, folder);
    const Lines read = lines();
    std::filesystem::remove_all(folder);
    folder = original;
    return read;
  }

  void write(const char *file, const std::string &text) { std::ofstream(folder + "/" + file) << text; }

  std::string folder;
};

TEST_F(OrrinJournal, ReadsConfigAndJournalAndTakesOverBoth) {
  std::string error;
  {
    Journal journal;
    ASSERT_TRUE(journal.open(folder + "/deeper/still", error)) << error;
    journal.append("before any file");
    ASSERT_TRUE(journal.replay([](std::string_view, std::string &) { return false; }, error) && error.empty());
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

// A disk that is full for files beyond so many bytes.
class FileLimit {
public:
  explicit FileLimit(rlim_t bytes) {
    std::signal(SIGXFSZ, SIG_IGN);
    getrlimit(RLIMIT_FSIZE, &before_);
    const rlimit wanted{bytes, before_.rlim_max};
    setrlimit(RLIMIT_FSIZE, &wanted);
  }
  ~FileLimit() { setrlimit(RLIMIT_FSIZE, &before_); }

private:
  rlimit before_{};
};

TEST_F(OrrinJournal, WhatTheDiskDidNotTakeIsKeptLater) {
  std::string error;
  {
    Journal journal;
    ASSERT_TRUE(journal.open(folder, error)) << error;
    ASSERT_TRUE(journal.rewrite("one\n", error)) << error;
    journal.append("two");
    ASSERT_TRUE(journal.flush());
    {
      const FileLimit limit(40);
      journal.append(std::string(50, 'x'));
      EXPECT_FALSE(journal.flush());
      EXPECT_NE(journal.trouble(), "");
      journal.append("four");
      EXPECT_FALSE(journal.flush()) << "not before the one that waits";
      EXPECT_EQ(linesMeanwhile(), (Lines{"one", "two"})) << "no half line";
      EXPECT_FALSE(journal.wantsRewrite());
    }
    EXPECT_TRUE(journal.flush());
    EXPECT_EQ(journal.trouble(), "");
  }
  EXPECT_EQ(lines(), (Lines{"one", "two", std::string(50, 'x'), "four"}));
}

TEST_F(OrrinJournal, AfterMuchTroubleTheStateIsWrittenAnew) {
  std::string error;
  {
    Journal journal;
    ASSERT_TRUE(journal.open(folder, error)) << error;
    ASSERT_TRUE(journal.rewrite("one\n", error)) << error;
    {
      const FileLimit limit(40);
      for (int line = 0; line < 2000; ++line) {
        journal.append(std::string(50, 'x'));
        EXPECT_FALSE(journal.flush());
      }
      EXPECT_TRUE(journal.wantsRewrite());
      EXPECT_FALSE(journal.rewrite(std::string(80, 'y') + "\n", error));
      EXPECT_FALSE(journal.flush());
      EXPECT_EQ(linesMeanwhile(), Lines{"one"}) << "as long as there is no other";
    }
    EXPECT_FALSE(journal.flush()) << "lines are missing";
    ASSERT_TRUE(journal.rewrite("one\nmany\n", error)) << error;
    EXPECT_EQ(journal.trouble(), "");
    journal.append("more");
    EXPECT_TRUE(journal.flush());
  }
  EXPECT_EQ(lines(), (Lines{"one", "many", "more"}));
}

// A rewrite that fails between its two files must not leave a journal to which lines are added in vain.
TEST_F(OrrinJournal, AHalfRewriteAcceptsNothing) {
  std::string error;
  Journal journal;
  ASSERT_TRUE(journal.open(folder, error)) << error;
  ASSERT_TRUE(journal.rewrite("one\n", error)) << error;
  std::filesystem::remove(folder + "/journal");
  std::filesystem::create_directory(folder + "/journal");
  EXPECT_FALSE(journal.rewrite("two\n", error));
  journal.append("three");
  EXPECT_FALSE(journal.flush());
  EXPECT_TRUE(journal.wantsRewrite());
  std::filesystem::remove(folder + "/journal");
  ASSERT_TRUE(journal.rewrite("two and three\n", error)) << error;
  journal.append("four");
  EXPECT_TRUE(journal.flush());
  EXPECT_FALSE(journal.wantsRewrite());
}

// Another version may have accepted them.
TEST_F(OrrinJournal, RefusedLinesAreLeftOutAndTheFilesKept) {
  const std::string config = "# generation 1\nfine\nbad\nbad\ngood\n";
  write("config", config);
  write("journal", "# generation 1\nbad\nlast\n");
  std::string complaint;
  EXPECT_EQ(lines(&complaint), (Lines{"fine", "good", "last"}));
  EXPECT_EQ(complaint, folder + "/config:3: wrong; left out, with 2 more lines; the files are kept as *.refused");
  std::ifstream kept(folder + "/config.refused");
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(kept), {}), config) << "also when the state has been rewritten";
  EXPECT_TRUE(std::filesystem::exists(folder + "/journal.refused"));
}

} // namespace
