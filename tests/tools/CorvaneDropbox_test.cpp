// The tool against `corvane emulate dropbox` as a person uses it: the seeded account listed
// exactly, each command changing or reading the emulator's account as asked, a session-sized
// upload, a foreign change seen by `changes`, and the refused token ending in AUTH_INVALID.
#include <signal.h>
#include <unistd.h>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <chrono>
#include <filesystem>
#include <map>
#include <sstream>
#include <thread>

#include <gtest/gtest.h>

#include "core/FileSystem.h"
#include "emulators/Emulator.h"
#include "support/Fetch.h"
#include "support/Processes.h"

namespace {

namespace fs = std::filesystem;

class CorvaneDropboxTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const auto& [path, content] : kSeed)
      test::WriteAll(temp_.path() / "seed" / path, content);
    fs::create_directories(temp_.path() / "serve");
    fs::create_directories(temp_.path() / "run");
    emulator_ = test::StartProcess({CORVANE_TOOL_PATH, "emulate", "dropbox", "--port", "0",
                                    "--seed", (temp_.path() / "seed").string()},
                                   temp_.path() / "serve");
    std::vector<std::string> printed;
    for (int i = 0; i < 200 && (printed.empty() || printed.back() != "ready"); ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
      printed = test::Lines(test::ReadAll(temp_.path() / "serve" / "stdout"));
    }
    ASSERT_GE(printed.size(), 2u) << test::ReadAll(temp_.path() / "serve" / "stderr");
    std::istringstream words(printed[0]);
    for (std::string word; words >> word;)
      options_.push_back(word);
    control_ = printed[1].substr(printed[1].find("http"));
  }
  void TearDown() override {
    kill(emulator_, SIGINT);
    test::WaitProcess(emulator_, temp_.path() / "serve");
  }

  test::Outcome Run(std::vector<std::string> words) {
    std::vector<std::string> argv = {CORVANE_TOOL_PATH};
    argv.insert(argv.end(), options_.begin(), options_.end());
    argv.insert(argv.end(), words.begin(), words.end());
    return test::RunProcess(argv, temp_.path() / "run");
  }

  // Name -> size (-1 for a folder) of every item of the emulator's account but its root.
  std::map<std::string, std::int64_t> Account() {
    test::Answer dump = test::Fetch("GET", control_ + "dump", "");
    std::map<std::string, std::int64_t> items;
    const QJsonArray array =
        QJsonDocument::fromJson(QByteArray::fromStdString(dump.body)).object()["items"].toArray();
    for (const QJsonValue& value : array) {
      const QJsonObject item = value.toObject();
      if (!item["parents"].toArray().isEmpty())
        items[item["name"].toString().toStdString()] =
            item["kind"] == "folder" ? -1 : item["size"].toVariant().toLongLong();
    }
    return items;
  }

  const std::map<std::string, std::string> kSeed = {
      {"a.txt", "alpha"}, {"Docs/b.bin", test::RandomBytes(3000, 7)}, {"Docs/ü c", ""}};
  test::TempDir temp_;
  pid_t emulator_ = -1;
  std::vector<std::string> options_;
  std::string control_;
};

TEST_F(CorvaneDropboxTest, TreeListsTheSeededAccountExactly) {
  test::Outcome listed = Run({"--json", "tree"});
  ASSERT_EQ(listed.status, 0) << listed.err;
  std::map<std::string, std::int64_t> seen;
  for (const std::string& line : test::Lines(listed.out)) {
    const QJsonObject item = QJsonDocument::fromJson(QByteArray::fromStdString(line)).object();
    if (item.contains("path"))
      seen[item["path"].toString().toStdString()] =
          item.contains("size") ? item["size"].toVariant().toLongLong() : -1;
  }
  const std::map<std::string, std::int64_t> expected = {
      {"Docs", -1}, {"Docs/b.bin", 3000}, {"Docs/ü c", 0}, {"a.txt", 5}};
  EXPECT_EQ(seen, expected) << listed.out;
}

TEST_F(CorvaneDropboxTest, CommandsChangeAndReadTheAccountAsAsked) {
  // 1. A folder, an upload whose hash is the server's, and reads back.
  const std::string bytes = test::RandomBytes(70000, 3);
  test::WriteAll(temp_.path() / "run" / "up.bin", bytes);
  ASSERT_EQ(Run({"mkdir", "New"}).status, 0);
  const std::string local = (temp_.path() / "run" / "up.bin").string();
  test::Outcome put = Run({"put", local, "New/up ü.bin"});
  ASSERT_EQ(put.status, 0) << put.err;
  test::Outcome hash = Run({"hash", "--type", "dropbox", local});
  EXPECT_EQ(put.out.substr(0, 64), hash.out.substr(0, 64));
  EXPECT_EQ(Account().at("up ü.bin"), 70000);
  ASSERT_EQ(Run({"get", "New/up ü.bin", (temp_.path() / "run" / "whole.bin").string()}).status, 0);
  EXPECT_EQ(test::ReadAll(temp_.path() / "run" / "whole.bin"), bytes);
  ASSERT_EQ(Run({"get", "New/up ü.bin", (temp_.path() / "run" / "part.bin").string(), "--offset",
                 "1000", "--limit", "5001"})
                .status,
            0);
  EXPECT_EQ(test::ReadAll(temp_.path() / "run" / "part.bin"), bytes.substr(1000, 4001));
  // 2. Listing, links, moves and deletes.
  test::Outcome ls = Run({"ls", "Docs"});
  EXPECT_NE(ls.out.find("b.bin"), std::string::npos) << ls.out;
  test::Outcome link = Run({"link", "a.txt"});
  EXPECT_EQ(link.status, 0) << link.err;
  EXPECT_NE(link.out.find("http"), std::string::npos);
  EXPECT_EQ(Run({"unlink", "a.txt"}).status, 0);
  ASSERT_EQ(Run({"mv", "New/up ü.bin", "Docs/moved.bin"}).status, 0);
  EXPECT_EQ(Run({"rm", "Docs/moved.bin"}).status, 0);
  EXPECT_EQ(Run({"rmdir", "New"}).status, 0);
  std::map<std::string, std::int64_t> account = Account();
  EXPECT_FALSE(account.count("New"));
  EXPECT_FALSE(account.count("moved.bin"));
  EXPECT_FALSE(account.count("up ü.bin"));
  EXPECT_EQ(Run({"quota"}).status, 0);
  // 3. A stale overwrite: someone changes the file right after the tool read the tree.
  test::WriteAll(temp_.path() / "run" / "other.bin", "other");
  test::Fetch("POST", control_ + "faults", "",
              R"({"path":"/api/2/files/list_folder","change":{"op":"modify","path":"a.txt",)"
              R"("content":"theirs"}})");
  test::Outcome stale =
      Run({"put", "--overwrite", (temp_.path() / "run" / "other.bin").string(), "a.txt"});
  EXPECT_EQ(stale.status, 10 + FileSystem::CONFLICT) << stale.err;
}

TEST_F(CorvaneDropboxTest, PutOfASessionSizedFilePrintsTheServersHash) {
  // One byte past the largest one-shot upload goes by a session; its finish leaves a mark.
  const std::string bytes = test::RandomBytes(134217729, 5);
  const fs::path local = temp_.path() / "run" / "big.bin";
  test::WriteAll(local, bytes);
  ASSERT_EQ(test::Fetch("POST", control_ + "faults", "",
                        R"({"path":"/content/2/files/upload_session/finish",)"
                        R"("change":{"op":"mkdir","path":"finished by session"}})")
                    .status /
                100,
            2);
  test::Outcome put = Run({"put", local.string(), "big.bin"});
  ASSERT_EQ(put.status, 0) << put.err;
  test::Outcome hash = Run({"hash", "--type", "dropbox", local.string()});
  ASSERT_EQ(hash.status, 0) << hash.err;
  EXPECT_EQ(put.out.substr(0, 64), hash.out.substr(0, 64));
  const std::map<std::string, std::int64_t> account = Account();
  EXPECT_EQ(account.at("big.bin"), 134217729);
  EXPECT_TRUE(account.count("finished by session"));
}

TEST_F(CorvaneDropboxTest, ChangesPrintsAFileAnotherProcessAdds) {
  std::vector<std::string> argv = {CORVANE_TOOL_PATH};
  argv.insert(argv.end(), options_.begin(), options_.end());
  argv.insert(argv.end(), {"changes", "--for", "3"});
  pid_t changes = test::StartProcess(argv, temp_.path() / "run");
  // The change comes once the tool follows the feed.
  for (int i = 0;
       i < 100 && test::ReadAll(temp_.path() / "run" / "stderr").find("following the feed") ==
                      std::string::npos;
       ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  test::Fetch("POST", control_ + "change", "",
              R"({"op":"create","path":"Docs/from elsewhere.txt","content":"hi"})");
  test::Outcome outcome = test::WaitProcess(changes, temp_.path() / "run");
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_NE(outcome.out.find("from elsewhere.txt"), std::string::npos)
      << outcome.out << outcome.err;
}

TEST_F(CorvaneDropboxTest, TheRejectedTokenExitsWithAuthInvalid) {
  ASSERT_EQ(options_[2], "--token");
  options_[3] = emulators::Emulator::kRejectedToken;
  test::Outcome refused = Run({"tree"});
  EXPECT_EQ(refused.status, 10 + FileSystem::AUTH_INVALID);
  EXPECT_NE(refused.err.find("AUTH_INVALID"), std::string::npos) << refused.err;
}

}  // namespace
