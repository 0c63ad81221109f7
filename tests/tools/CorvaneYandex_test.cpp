// The tool against `corvane emulate yandex` as two processes: a mounted folder's tree comes
// through the binary snapshot (the emulator's own request log shows its exact query) and equals
// the seed, `changes` prints a folder that the emulator's control path makes meanwhile, a session
// of commands changes the disk as asked, a rewrite over a file changed since the tree was read
// exits with the CONFLICT code, and Ctrl-C during an upload with the STOPPED code.
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

#include "core/FileSystem.h"
#include "support/Fetch.h"
#include "support/Processes.h"
#include "tools/EmulatedToolTest.h"

namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;

constexpr int kExitStopped = 10 + FileSystem::STOPPED;
constexpr int kExitConflict = 10 + FileSystem::CONFLICT;

class CorvaneYandexTest : public EmulatedToolTest {
 protected:
  void SetUp() override {
    test::WriteAll(temp_.path() / "seed" / "Docs" / "a.txt", "alpha");
    test::WriteAll(temp_.path() / "seed" / "Docs" / "Отчёт 1.txt", "report");
    fs::create_directories(temp_.path() / "seed" / "Docs" / "empty folder");
    test::WriteAll(temp_.path() / "seed" / "outside.txt", "not mounted");
    StartEmulator("yandex");
  }

  std::vector<std::string> Argv(const std::vector<std::string>& words) const {
    return emulator_->LoggedArgv(words);
  }
  test::Outcome Run(const std::vector<std::string>& words) { return emulator_->RunLogged(words); }
  // The remote file's bytes as `get` reads them; "<missing>" when it can't.
  std::string Remote(const std::string& path) {
    const fs::path back = temp_.path() / "back";
    fs::remove(back);
    return Run({"get", path, back.string()}).status == 0 ? test::ReadAll(back) : "<missing>";
  }
  // The queries of the GETs the emulator served on `path`.
  std::vector<std::string> QueriesOfGets(const std::string& path) {
    std::vector<std::string> queries;
    for (const QJsonValue& request : emulator_->Served()) {
      if (request["verb"].toString() == "GET" && request["path"].toString().toStdString() == path) {
        queries.push_back(request["query"].toString().toStdString());
      }
    }
    return queries;
  }
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

TEST_F(CorvaneYandexTest, ASessionOfCommandsChangesTheDiskAsAsked) {
  const std::string small = test::RandomBytes(1024, 1);
  const std::string large = test::RandomBytes(3 << 20, 2);
  // 1. A folder and two uploads, read back whole and in part.
  EXPECT_EQ(Run({"mkdir", "up"}).status, 0);
  EXPECT_EQ(Run({"put", Local("small", small), "up/small.bin"}).status, 0);
  test::Outcome put = Run({"put", Local("large", large), "up/large.bin"});
  EXPECT_EQ(put.status, 0) << put.err;
  EXPECT_TRUE(Remote("up/large.bin") == large);
  const fs::path part = temp_.path() / "part";
  test::Outcome ranged =
      Run({"get", "up/large.bin", part.string(), "--offset", "1000", "--limit", "70000"});
  EXPECT_EQ(ranged.status, 0) << ranged.err;
  EXPECT_TRUE(test::ReadAll(part) == large.substr(1000, 69000));
  test::Outcome ls = Run({"ls", "up"});
  EXPECT_EQ(ls.status, 0) << ls.err;
  EXPECT_NE(ls.out.find("small.bin"), std::string::npos) << ls.out;
  // 2. A name that is taken stays as it is unless a rewrite is asked for.
  const std::string other = test::RandomBytes(1024, 4);
  EXPECT_EQ(Run({"put", Local("other", other), "up/small.bin"}).status, kExitConflict);
  EXPECT_TRUE(Remote("up/small.bin") == small);
  EXPECT_EQ(Run({"put", "--overwrite", Local("other", other), "up/small.bin"}).status, 0);
  EXPECT_TRUE(Remote("up/small.bin") == other);
  // 3. A public link, and its end.
  test::Outcome link = Run({"link", "up/small.bin"});
  EXPECT_EQ(link.status, 0) << link.err;
  EXPECT_NE(link.out.find("https://"), std::string::npos) << link.out;
  EXPECT_EQ(Run({"unlink", "up/small.bin"}).status, 0);
  // 4. A move, deletes, and the quota.
  EXPECT_EQ(Run({"mv", "up/large.bin", "up/renamed.bin"}).status, 0);
  EXPECT_TRUE(Remote("up/renamed.bin") == large);
  EXPECT_EQ(Remote("up/large.bin"), "<missing>");
  EXPECT_EQ(Run({"rm", "up/small.bin"}).status, 0);
  EXPECT_EQ(Run({"rm", "up/renamed.bin"}).status, 0);
  EXPECT_EQ(Run({"rmdir", "up"}).status, 0);
  ls = Run({"ls", ""});
  EXPECT_EQ(ls.out.find("up"), std::string::npos) << ls.out;
  test::Outcome quota = Run({"quota"});
  EXPECT_EQ(quota.status, 0) << quota.err;
}

TEST_F(CorvaneYandexTest, ARewriteOverAFileChangedSinceTheTreeWasReadConflicts) {
  // Someone else writes the file right after the tool has read the tree.
  const std::string fault = R"({"verb":"GET","path":"/v1/disk/resources/snapshot","change":)"
                            R"({"op":"modify","path":"Docs/a.txt","content":"theirs"}})";
  ASSERT_EQ(test::Fetch("POST", control_ + "faults", "", fault).status, 204);
  test::Outcome put = Run({"put", "--overwrite", Local("mine", "mine"), "Docs/a.txt"});
  EXPECT_EQ(put.status, kExitConflict) << put.err;
  EXPECT_EQ(Remote("Docs/a.txt"), "theirs");
}

TEST_F(CorvaneYandexTest, CtrlCDuringAPutStops) {
  // The bytes' answer is slow, so the upload is surely under way when the signal comes.
  const std::string fault = R"({"verb":"PUT","path":"/yadisk-upload/","delay_ms":10000})";
  ASSERT_EQ(test::Fetch("POST", control_ + "faults", "", fault).status, 204);
  const fs::path log = temp_.path() / "run" / "corvane.log";
  pid_t put =
      test::StartProcess(Argv({"put", Local("large", test::RandomBytes(8 << 20, 3)), "large.bin"}),
                         temp_.path() / "run");
  ASSERT_FALSE(test::WaitForLines(log, "Uploading remote file").empty());
  const auto signalled = std::chrono::steady_clock::now();
  ::kill(put, SIGINT);
  test::Outcome stopped = test::WaitProcess(put, temp_.path() / "run");
  EXPECT_LT(std::chrono::steady_clock::now() - signalled, std::chrono::seconds(2));
  EXPECT_EQ(stopped.status, kExitStopped) << stopped.err;
}

}  // namespace
