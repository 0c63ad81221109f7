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
#include <memory>
#include <sstream>
#include <thread>

#include <gtest/gtest.h>

#include "core/FileSystem.h"
#include "emulators/Emulator.h"
#include "support/Fetch.h"
#include "support/Processes.h"
#include "tools/EmulatedToolTest.h"

namespace {

namespace fs = std::filesystem;

class CorvaneDropboxTest : public EmulatedToolTest {
 protected:
  void SetUp() override {
    for (const auto& [path, content] : kSeed)
      test::WriteAll(temp_.path() / "seed" / path, content);
    StartEmulator("dropbox");
  }

  test::Outcome Run(const std::vector<std::string>& words) { return emulator_->Run(words); }

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
  pid_t changes =
      test::StartProcess(emulator_->Argv({"changes", "--for", "3"}), temp_.path() / "run");
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
  std::vector<std::string> argv = emulator_->Argv({"tree"});
  ASSERT_EQ(argv[3], "--token");
  argv[4] = emulators::Emulator::kRejectedToken;
  test::Outcome refused = test::RunProcess(argv, emulator_->RunDir());
  EXPECT_EQ(refused.status, 10 + FileSystem::AUTH_INVALID);
  EXPECT_NE(refused.err.find("AUTH_INVALID"), std::string::npos) << refused.err;
}

}  // namespace
