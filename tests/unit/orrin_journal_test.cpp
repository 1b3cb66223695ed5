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
  Lines read(Journal &journal, std::string *complaint = nullptr) {
    std::string why;
    EXPECT_TRUE(journal.open(folder + "/deeper", why)) << why;
    Lines lines;
    why = journal.replay([&](std::string_view line, std::string &reason) {
      if (line != "bad" && !line.starts_with('#')) {
        lines.emplace_back(line);
      }
      reason = "wrong";
      return line != "bad";
    });
    EXPECT_EQ(why.empty(), complaint == nullptr) << why;
    if (complaint != nullptr) {
      *complaint = why;
    }
    return lines;
  }
  Lines lines(std::string *complaint = nullptr) {
    Journal journal;
    return read(journal, complaint);
  }

  std::string folder;
};

TEST_F(OrrinJournal, ReadsWhatWasFlushed) {
  std::string error;
  for (uint64_t start = 0; start < 2; ++start) {
    Journal journal;
    journal.append("before any file");
    EXPECT_EQ(read(journal), start == 0 ? Lines{} : Lines{"one"});
    EXPECT_EQ(journal.starts(), start);
    journal.append(start == 0 ? "one" : "two");
    EXPECT_TRUE(journal.flush());
    journal.append("not flushed");
    Journal second;
    EXPECT_FALSE(second.open(folder + "/deeper", error));
    EXPECT_NE(error.find("another orrin's"), std::string::npos) << error;
  }
  EXPECT_EQ(lines(), (Lines{"one", "two"}));
}

// Another version may have accepted them. A half line was never answered.
TEST_F(OrrinJournal, RefusedAndHalfLinesAreLeftOut) {
  std::filesystem::create_directory(folder + "/deeper");
  std::ofstream(folder + "/deeper/commands") << "fine\nbad\nbad\ngood\nbad\nhalf a li";
  {
    Journal journal;
    std::string complaint;
    EXPECT_EQ(read(journal, &complaint), (Lines{"fine", "good"}));
    EXPECT_EQ(complaint, folder + "/deeper/commands:2: wrong; left out, with 2 more lines");
    journal.append("next");
    EXPECT_TRUE(journal.flush());
  }
  std::string complaint;
  EXPECT_EQ(lines(&complaint), (Lines{"fine", "good", "next"}));
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
  const std::string large(50, 'x');
  {
    Journal journal;
    read(journal);
    journal.append("one");
    ASSERT_TRUE(journal.flush());
    {
      const FileLimit limit(40);
      journal.append(large);
      EXPECT_FALSE(journal.flush());
      EXPECT_NE(journal.trouble(), "");
      journal.append("three");
      EXPECT_FALSE(journal.flush()) << "not before the one that waits";
    }
    std::filesystem::create_directory(folder + "/copy");
    std::filesystem::copy(folder + "/deeper", folder + "/copy/deeper", std::filesystem::copy_options::recursive);
    EXPECT_TRUE(journal.flush());
    EXPECT_EQ(journal.trouble(), "");
  }
  EXPECT_EQ(lines(), (Lines{"one", large, "three"}));
  folder += "/copy";
  EXPECT_EQ(lines(), Lines{"one"}) << "no half line";
  folder.resize(folder.size() - std::string_view("/copy").size());
}

} // namespace
