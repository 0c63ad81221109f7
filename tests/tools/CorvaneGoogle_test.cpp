// The tool against `corvane emulate google` as two processes: the item commands change the
// account as asked (the emulator's own dump shows it), and `changes` prints a folder that the
// emulator's control path makes meanwhile, then ends at once on Ctrl-C during its idle pause.
#include <signal.h>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <chrono>
#include <filesystem>
#include <sstream>
#include <thread>

#include <gtest/gtest.h>

#include "support/Fetch.h"
#include "support/Processes.h"

namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;

class CorvaneGoogleTest : public ::testing::Test {
 protected:
  void SetUp() override {
    test::WriteAll(temp_.path() / "seed" / "docs" / "a.txt", "alpha");
    fs::create_directories(temp_.path() / "seed" / "photos");
    fs::create_directories(temp_.path() / "serve");
    fs::create_directories(temp_.path() / "run");
    emulator_ = test::StartProcess({CORVANE_TOOL_PATH, "emulate", "google", "--port", "0", "--seed",
                                    (temp_.path() / "seed").string()},
                                   temp_.path() / "serve");
    std::vector<std::string> printed = WaitForLines(temp_.path() / "serve/stdout", "ready");
    ASSERT_GE(printed.size(), 2u) << test::ReadAll(temp_.path() / "serve" / "stderr");
    std::istringstream words(printed[0]);
    for (std::string word; words >> word;) {
      options_.push_back(word);
    }
    control_ = printed[1].substr(printed[1].find("http"));  // ends in "/_emulator/"
  }
  void TearDown() override {
    ::kill(emulator_, SIGINT);
    EXPECT_EQ(test::WaitProcess(emulator_, temp_.path() / "serve").status, 0);
  }

  // The lines of a file once one of them contains `text`; empty when that takes over 10 s.
  static std::vector<std::string> WaitForLines(const fs::path& file, const std::string& text) {
    for (int i = 0; i < 200; ++i) {
      std::vector<std::string> lines = test::Lines(test::ReadAll(file));
      for (const std::string& line : lines) {
        if (line.find(text) != std::string::npos) {
          return lines;
        }
      }
      std::this_thread::sleep_for(milliseconds(50));
    }
    return {};
  }
  std::vector<std::string> Argv(const std::vector<std::string>& words) {
    std::vector<std::string> argv = {CORVANE_TOOL_PATH};
    argv.insert(argv.end(), options_.begin(), options_.end());
    argv.insert(argv.end(), words.begin(), words.end());
    return argv;
  }
  test::Outcome Run(const std::vector<std::string>& words) {
    return test::RunProcess(Argv(words), temp_.path() / "run");
  }
  // The account's item of this name as the emulator dumps it; empty when there is none.
  QJsonObject Item(const std::string& name) {
    QJsonObject dump = QJsonDocument::fromJson(QByteArray::fromStdString(
                                                   test::Fetch("GET", control_ + "dump", "").body))
                           .object();
    for (const QJsonValue& value : dump["items"].toArray()) {
      if (value["name"].toString().toStdString() == name) {
        return value.toObject();
      }
    }
    return QJsonObject();
  }

  test::TempDir temp_;
  pid_t emulator_ = 0;
  std::vector<std::string> options_;
  std::string control_;
};

TEST_F(CorvaneGoogleTest, EachItemCommandChangesTheAccountAsAsked) {
  ASSERT_EQ(Run({"mkdir", "made"}).status, 0);
  ASSERT_FALSE(Item("made").isEmpty());
  const QString made = Item("made")["id"].toString();
  ASSERT_EQ(Run({"mv", "docs/a.txt", "made/b.txt"}).status, 0);
  EXPECT_TRUE(Item("a.txt").isEmpty());
  EXPECT_EQ(Item("b.txt")["parents"].toArray().first().toString(), made);
  ASSERT_EQ(Run({"mv", "photos", "made/pictures"}).status, 0);
  EXPECT_EQ(Item("pictures")["parents"].toArray().first().toString(), made);
  test::Outcome link = Run({"link", "made/b.txt"});
  ASSERT_EQ(link.status, 0) << link.err;
  EXPECT_NE(link.out.find("/view?usp=drivesdk"), std::string::npos) << link.out;
  EXPECT_FALSE(Item("b.txt")["link"].toString().isEmpty());
  ASSERT_EQ(Run({"unlink", "made/b.txt"}).status, 0);
  EXPECT_TRUE(Item("b.txt")["link"].toString().isEmpty());
  ASSERT_EQ(Run({"rm", "made/b.txt"}).status, 0);
  EXPECT_TRUE(Item("b.txt")["trashed"].toBool());
  ASSERT_EQ(Run({"rmdir", "made"}).status, 0);
  EXPECT_TRUE(Item("made")["trashed"].toBool());
}

TEST_F(CorvaneGoogleTest, ChangesPrintsAFolderMadeMeanwhileAndEndsAtOnceOnCtrlC) {
  pid_t changes = test::StartProcess(Argv({"changes", "--for", "30"}), temp_.path() / "run");
  ASSERT_FALSE(WaitForLines(temp_.path() / "run/stderr", "following the feed").empty());
  test::Answer made =
      test::Fetch("POST", control_ + "change", "", R"({"op":"mkdir","path":"docs/late"})");
  ASSERT_LT(made.status, 300) << made.body;
  EXPECT_FALSE(WaitForLines(temp_.path() / "run/stdout", "docs/late").empty())
      << test::ReadAll(temp_.path() / "run/stderr");
  // The feed is in its pause now; Ctrl-C ends it.
  std::this_thread::sleep_for(milliseconds(300));
  auto start = std::chrono::steady_clock::now();
  ::kill(changes, SIGINT);
  test::Outcome ended = test::WaitProcess(changes, temp_.path() / "run");
  EXPECT_LT(std::chrono::steady_clock::now() - start, milliseconds(1000));
  EXPECT_EQ(ended.status, 0) << ended.err;
}

}  // namespace
