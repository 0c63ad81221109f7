// The tool against `corvane emulate onedrive` as two processes, the way a person runs them: each
// command exits 0 and the emulator's own dump shows the account changed as asked; the feed of
// `changes` prints a file that the emulator adds meanwhile.
#include <signal.h>

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
#include "support/Fetch.h"
#include "support/Processes.h"
#include "tools/EmulatedToolTest.h"

namespace {

namespace fs = std::filesystem;

class CorvaneOneDriveTest : public EmulatedToolTest {
 protected:
  void SetUp() override {
    test::WriteAll(temp_.path() / "seed" / "a.txt", "alpha");
    test::WriteAll(temp_.path() / "seed" / "docs" / "b.bin", test::RandomBytes(3000, 7));
    StartEmulator("onedrive");
  }

  std::vector<std::string> Argv(const std::vector<std::string>& words) {
    return emulator_->Argv(words);
  }
  test::Outcome Run(const std::vector<std::string>& words) { return emulator_->Run(words); }
  // The account as the emulator holds it: path -> item (trashed ones left out).
  std::map<std::string, QJsonObject> Dump() {
    QJsonObject dump = QJsonDocument::fromJson(QByteArray::fromStdString(
                                                   test::Fetch("GET", control_ + "dump", "").body))
                           .object();
    std::map<std::string, QJsonObject> byId;
    for (const QJsonValue& value : dump["items"].toArray())
      byId[value["id"].toString().toStdString()] = value.toObject();
    const std::string root = dump["root"].toString().toStdString();
    std::map<std::string, QJsonObject> byPath;
    auto parentOf = [](const QJsonObject& item) {
      return item.value("parents").toArray().first().toString().toStdString();
    };
    for (const auto& [id, item] : byId) {
      std::string path = item.value("name").toString().toStdString();
      bool live = id != root && !item.value("trashed").toBool();
      for (std::string parent = parentOf(item); live && parent != root;
           parent = parentOf(byId[parent])) {
        live = byId.count(parent) && !byId[parent].value("trashed").toBool();
        path = byId[parent].value("name").toString().toStdString() + "/" + path;
      }
      if (live)
        byPath[path] = item;
    }
    return byPath;
  }
  std::string Local(const std::string& name) { return (temp_.path() / "run" / name).string(); }
};

TEST_F(CorvaneOneDriveTest, EachCommandChangesTheAccountAsAsked) {
  // 1. Listing: the seeded items, by tree and by ls.
  test::Outcome tree = Run({"tree"});
  ASSERT_EQ(tree.status, 0) << tree.err;
  EXPECT_EQ(test::Lines(tree.out).size(), 3u) << tree.out;
  test::Outcome ls = Run({"ls", "docs"});
  ASSERT_EQ(ls.status, 0) << ls.err;
  EXPECT_NE(ls.out.find("b.bin"), std::string::npos) << ls.out;
  // 2. A folder, an upload through a session, a ranged read back.
  const std::string content = test::RandomBytes(2 * 1024 * 1024 + 77, 11);
  test::WriteAll(Local("up.bin"), content);
  ASSERT_EQ(Run({"mkdir", "made"}).status, 0);
  test::Outcome put = Run({"put", Local("up.bin"), "made/up ü.bin"});
  ASSERT_EQ(put.status, 0) << put.err;
  test::Outcome hash = test::RunProcess(
      {CORVANE_TOOL_PATH, "hash", "--type", "quickxor", Local("up.bin")}, temp_.path() / "run");
  ASSERT_EQ(hash.status, 0) << hash.err;
  ASSERT_FALSE(test::Lines(hash.out).empty());
  EXPECT_NE(put.out.find(test::Lines(hash.out)[0]), std::string::npos) << put.out;
  std::map<std::string, QJsonObject> account = Dump();
  ASSERT_TRUE(account.count("made/up ü.bin"));
  EXPECT_EQ(account["made/up ü.bin"]["size"].toDouble(), static_cast<double>(content.size()));
  ASSERT_EQ(Run({"get", "made/up ü.bin", Local("part.bin"), "--offset", "1000", "--limit", "5000"})
                .status,
            0);
  EXPECT_EQ(test::ReadAll(Local("part.bin")), content.substr(1000, 4000));
  // 3. Rename, delete, folder delete, quota.
  ASSERT_EQ(Run({"mv", "made/up ü.bin", "made/renamed.bin"}).status, 0);
  account = Dump();
  EXPECT_FALSE(account.count("made/up ü.bin"));
  EXPECT_TRUE(account.count("made/renamed.bin"));
  ASSERT_EQ(Run({"rm", "made/renamed.bin"}).status, 0);
  EXPECT_FALSE(Dump().count("made/renamed.bin"));
  ASSERT_EQ(Run({"rmdir", "made"}).status, 0);
  EXPECT_FALSE(Dump().count("made"));
  test::Outcome quota = Run({"quota"});
  EXPECT_EQ(quota.status, 0) << quota.err;
  EXPECT_FALSE(quota.out.empty());
}

TEST_F(CorvaneOneDriveTest, ChangesPrintsAFileAnotherProcessAdds) {
  // The feed asks once a pause of the adapter's, so within the 5 s the file must come between the
  // tree and the first question: the emulator adds it once it has answered the tree's delta.
  test::Answer armed =
      test::Fetch("POST", control_ + "faults", "",
                  R"({"verb":"GET","path":"/v1.0/me/drive/root/delta","nth":1,)"
                  R"("change":{"op":"create","path":"docs/late.txt","content":"late"}})");
  ASSERT_LT(armed.status, 300) << armed.body;
  test::Outcome ended = Run({"changes", "--for", "5"});
  EXPECT_EQ(ended.status, 0) << ended.err;
  EXPECT_NE(ended.out.find("docs/late.txt"), std::string::npos) << ended.out << ended.err;
  EXPECT_TRUE(Dump().count("docs/late.txt"));
}

TEST_F(CorvaneOneDriveTest, StaleRmIsAConflictAndUnlinkWithoutLinksSucceeds) {
  // 1. A file without links: nothing to close, and no failure.
  test::Outcome unlink = Run({"unlink", "a.txt"});
  EXPECT_EQ(unlink.status, 0) << unlink.err;
  // 2. Someone changes the file right after the tool read the tree: its eTag no longer holds.
  test::Answer armed =
      test::Fetch("POST", control_ + "faults", "",
                  R"({"verb":"GET","path":"/v1.0/me/drive/root/delta","nth":1,)"
                  R"("change":{"op":"modify","path":"a.txt","content":"theirs"}})");
  ASSERT_LT(armed.status, 300) << armed.body;
  test::Outcome stale = Run({"rm", "a.txt"});
  EXPECT_EQ(stale.status, 10 + FileSystem::CONFLICT) << stale.err;
  EXPECT_TRUE(Dump().count("a.txt"));
}

}  // namespace
