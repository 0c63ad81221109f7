// The tool against `corvane emulate yandex` as two processes: a mounted folder's tree comes
// through the binary snapshot (the emulator's own request log shows its exact query) and equals
// the seed, and `changes` prints a folder that the emulator's control path makes meanwhile.
#include <signal.h>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <memory>
#include <sstream>
#include <thread>

#include <gtest/gtest.h>

#include "support/EmulatorProcess.h"
#include "support/Fetch.h"
#include "support/Processes.h"

namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;

class CorvaneYandexTest : public ::testing::Test {
 protected:
  void SetUp() override {
    test::WriteAll(temp_.path() / "seed" / "Docs" / "a.txt", "alpha");
    test::WriteAll(temp_.path() / "seed" / "Docs" / "Отчёт 1.txt", "report");
    fs::create_directories(temp_.path() / "seed" / "Docs" / "empty folder");
    test::WriteAll(temp_.path() / "seed" / "outside.txt", "not mounted");
    emulator_ = std::make_unique<test::EmulatorProcess>(CORVANE_TOOL_PATH, "yandex",
                                                        temp_.path() / "seed", temp_.path());
    ASSERT_TRUE(emulator_->Ready()) << emulator_->Error();
    control_ = emulator_->Control();
  }
  void TearDown() override { EXPECT_EQ(emulator_->Stop(), 0); }

  std::vector<std::string> Argv(const std::vector<std::string>& words) {
    return emulator_->Argv(words);
  }
  // The queries of the GETs the emulator served on `path`.
  std::vector<std::string> QueriesOfGets(const std::string& path) {
    std::vector<std::string> queries;
    const QJsonArray served =
        QJsonDocument::fromJson(
            QByteArray::fromStdString(test::Fetch("GET", control_ + "requests", "").body))
            .array();
    for (const QJsonValue& request : served) {
      if (request["verb"].toString() == "GET" && request["path"].toString().toStdString() == path) {
        queries.push_back(request["query"].toString().toStdString());
      }
    }
    return queries;
  }

  test::TempDir temp_;
  std::unique_ptr<test::EmulatorProcess> emulator_;
  std::string control_;
};

TEST_F(CorvaneYandexTest, AMountedTreeComesThroughTheBinarySnapshot) {
  std::vector<std::string> argv = Argv({"--root", "Docs", "tree"});
  test::Outcome tree = test::RunProcess(argv, temp_.path() / "run");
  ASSERT_EQ(tree.status, 0) << tree.err;
  std::vector<std::string> lines = test::Lines(tree.out);
  std::sort(lines.begin(), lines.end());
  EXPECT_EQ(lines.size(), 3u) << tree.out;
  EXPECT_NE(tree.out.find("a.txt"), std::string::npos) << tree.out;
  EXPECT_NE(tree.out.find("Отчёт 1.txt"), std::string::npos) << tree.out;
  EXPECT_NE(tree.out.find("empty folder"), std::string::npos) << tree.out;
  EXPECT_EQ(tree.out.find("outside.txt"), std::string::npos) << tree.out;
  EXPECT_EQ(QueriesOfGets("/webdav/disk/Docs"), std::vector<std::string>{"index&v=3"});
}

TEST_F(CorvaneYandexTest, ChangesPrintsAFolderMadeMeanwhile) {
  pid_t changes = test::StartProcess(Argv({"changes", "--for", "5"}), temp_.path() / "run");
  ASSERT_FALSE(test::WaitForLines(temp_.path() / "run/stderr", "following the feed").empty())
      << test::ReadAll(temp_.path() / "run/stderr");
  test::Answer made =
      test::Fetch("POST", control_ + "change", "", R"({"op":"mkdir","path":"Docs/late"})");
  ASSERT_LT(made.status, 300) << made.body;
  EXPECT_FALSE(test::WaitForLines(temp_.path() / "run/stdout", "Docs/late").empty())
      << test::ReadAll(temp_.path() / "run/stderr");
  test::Outcome ended = test::WaitProcess(changes, temp_.path() / "run");
  EXPECT_EQ(ended.status, 0) << ended.err;
}

}  // namespace
