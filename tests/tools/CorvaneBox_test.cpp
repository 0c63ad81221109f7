// The tool against `corvane emulate box`, as a person runs the two: every command a Box account
// answers changes the emulator's account as asked (its dump is the judge), a public link is
// refused without a request, and `changes` says that Box has no feed.
#include <signal.h>
#include <unistd.h>

#include <QCryptographicHash>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <chrono>
#include <filesystem>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "core/FileSystem.h"
#include "support/Fetch.h"
#include "support/Processes.h"
#include "tools/EmulatedToolTest.h"
#include "tools/ToolOutput.h"

namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;

constexpr int kFailed = 10 + FileSystem::FAILED;
constexpr int kNotSupported = 10 + FileSystem::NOT_SUPPORTED;

std::string Sha256(const std::string& bytes) {
  return QCryptographicHash::hash(QByteArray::fromStdString(bytes), QCryptographicHash::Sha256)
      .toHex()
      .toStdString();
}

// One item of the emulator's dump, by its path below the root.
struct DumpedItem {
  bool folder = false;
  std::uint64_t size = 0;
  std::string sha256;
};

class CorvaneBoxTest : public EmulatedToolTest {
 protected:
  void SetUp() override {
    seed_ = temp_.path() / "seed";
    test::WriteAll(seed_ / "a.txt", "alpha");
    test::WriteAll(seed_ / "docs" / "b.bin", test::RandomBytes(3000, 7));
    test::WriteAll(seed_ / "docs" / "deep" / "c", "");
    StartEmulator("box");
  }

  test::Outcome Tool(const std::vector<std::string>& words) { return emulator_->Run(words); }

  // Where the tool's local files are: the tool runs in the test's own folder.
  std::string Local(const std::string& name) const {
    return (temp_.path() / "run" / name).string();
  }

  // The emulator's account by path, read through its control path.
  std::map<std::string, DumpedItem> Dump() {
    test::Answer answer = test::Fetch("GET", control_ + "dump", "");
    EXPECT_EQ(answer.status, 200);
    QJsonObject dump = QJsonDocument::fromJson(QByteArray::fromStdString(answer.body)).object();
    std::map<std::string, QJsonObject> by_id;
    for (const QJsonValue& value : dump["items"].toArray())
      by_id[value.toObject()["id"].toString().toStdString()] = value.toObject();
    const std::string root = dump["root"].toString().toStdString();
    std::map<std::string, DumpedItem> items;
    for (const auto& [id, item] : by_id) {
      // Box's delete moves to the trash: what is in it, or below a folder in it, is gone.
      bool gone = id == root || item["trashed"].toBool();
      std::string path = item["name"].toString().toStdString();
      std::string parent = item["parents"].toArray().first().toString().toStdString();
      for (; parent != root && by_id.count(parent);
           parent = by_id[parent]["parents"].toArray().first().toString().toStdString()) {
        gone = gone || by_id[parent]["trashed"].toBool();
        path = by_id[parent]["name"].toString().toStdString() + "/" + path;
      }
      if (gone)
        continue;
      items[path] = {item["kind"].toString() == "folder", item["size"].toVariant().toULongLong(),
                     item["sha256"].toString().toStdString()};
    }
    return items;
  }

  // Every request that reaches the service from now on also makes this folder in the account:
  // what shows afterwards whether a command went to the network at all.
  void MarkRequestsWith(const std::string& folder) {
    std::string rule = R"({"times":0,"change":{"op":"mkdir","path":")" + folder + R"("}})";
    ASSERT_EQ(test::Fetch("POST", control_ + "faults", "", rule).status / 100, 2);
  }
  void ClearMarks() { test::Fetch("DELETE", control_ + "faults", ""); }

  fs::path seed_;
};

TEST_F(CorvaneBoxTest, ReadingCommandsSeeTheSeededAccount) {
  // 1. tree: exactly the seeded items with their sizes.
  test::Outcome tree = Tool({"--json", "tree"});
  ASSERT_EQ(tree.status, 0) << tree.err;
  std::map<std::string, std::int64_t> listed;
  for (const std::string& line : test::Lines(tree.out)) {
    QJsonObject item = QJsonDocument::fromJson(QByteArray::fromStdString(line)).object();
    listed[item["path"].toString().toStdString()] =
        item["type"].toString() == "file" ? item["size"].toVariant().toLongLong() : -1;
  }
  const std::map<std::string, std::int64_t> expected = {
      {"a.txt", 5}, {"docs", -1}, {"docs/b.bin", 3000}, {"docs/deep", -1}, {"docs/deep/c", 0}};
  EXPECT_EQ(listed, expected) << tree.out;

  // 2. ls: one folder's children.
  test::Outcome ls = Tool({"--json", "ls", "docs"});
  ASSERT_EQ(ls.status, 0) << ls.err;
  const std::vector<std::string> children = test::PrintedPaths(ls.out);
  EXPECT_EQ(std::set<std::string>(children.begin(), children.end()),
            (std::set<std::string>{"docs/b.bin", "docs/deep"}))
      << ls.out;

  // 3. get: the seeded bytes, whole and as a range.
  ASSERT_EQ(Tool({"get", "docs/b.bin", Local("whole.bin")}).status, 0);
  EXPECT_EQ(test::ReadAll(temp_.path() / "run" / "whole.bin"),
            test::ReadAll(seed_ / "docs" / "b.bin"));
  test::Outcome ranged =
      Tool({"get", "docs/b.bin", Local("part.bin"), "--offset", "100", "--limit", "600"});
  ASSERT_EQ(ranged.status, 0) << ranged.err;
  EXPECT_EQ(test::ReadAll(temp_.path() / "run" / "part.bin"),
            test::ReadAll(seed_ / "docs" / "b.bin").substr(100, 500));

  // 4. quota: the account's sizes.
  test::Outcome quota = Tool({"--json", "quota"});
  ASSERT_EQ(quota.status, 0) << quota.err;
  QJsonObject sizes = QJsonDocument::fromJson(QByteArray::fromStdString(quota.out)).object();
  EXPECT_EQ(sizes["used"].toVariant().toULongLong(), 3005u) << quota.out;
  EXPECT_GT(sizes["total"].toVariant().toULongLong(), sizes["used"].toVariant().toULongLong());
}

TEST_F(CorvaneBoxTest, ChangingCommandsChangeTheAccount) {
  struct Put {
    std::string local;
    std::size_t size;  // a plain upload and a chunked session
  };
  const std::vector<Put> puts = {{"small.bin", 1024}, {"large.bin", 25u << 20}};

  // 1. mkdir, then each put lands byte-exact in the new folder.
  ASSERT_EQ(Tool({"mkdir", "up"}).status, 0);
  for (const Put& put : puts) {
    std::string bytes = test::RandomBytes(put.size, static_cast<unsigned>(put.size));
    test::WriteAll(temp_.path() / "run" / put.local, bytes);
    test::Outcome sent = Tool({"put", Local(put.local), "up/" + put.local});
    ASSERT_EQ(sent.status, 0) << put.local << ": " << sent.err;
    std::map<std::string, DumpedItem> account = Dump();
    ASSERT_TRUE(account.count("up/" + put.local)) << put.local;
    EXPECT_EQ(account["up/" + put.local].size, put.size);
    EXPECT_EQ(account["up/" + put.local].sha256, Sha256(bytes)) << put.local;
  }
  EXPECT_TRUE(Dump()["up"].folder);

  // 2. mv renames, rm deletes a file, rmdir a folder with everything in it.
  ASSERT_EQ(Tool({"mv", "up/small.bin", "docs/moved.bin"}).status, 0);
  std::map<std::string, DumpedItem> moved = Dump();
  EXPECT_FALSE(moved.count("up/small.bin"));
  EXPECT_EQ(moved["docs/moved.bin"].size, 1024u);
  ASSERT_EQ(Tool({"rm", "a.txt"}).status, 0);
  ASSERT_EQ(Tool({"rmdir", "up"}).status, 0);
  std::map<std::string, DumpedItem> after = Dump();
  std::set<std::string> paths;
  for (const auto& [path, item] : after)
    paths.insert(path);
  EXPECT_EQ(paths, (std::set<std::string>{"docs", "docs/b.bin", "docs/deep", "docs/deep/c",
                                          "docs/moved.bin"}));
}

TEST_F(CorvaneBoxTest, LinksAreRefusedWithoutARequestAndTheFeedIsNamedMissing) {
  // 1. The mark works: a command that asks the service leaves it behind.
  MarkRequestsWith("asked");
  ASSERT_EQ(Tool({"quota"}).status, 0);
  ClearMarks();
  ASSERT_TRUE(Dump().count("asked"));

  // 2. link fails as FAILED and asks nothing.
  MarkRequestsWith("asked by link");
  test::Outcome link = Tool({"link", "a.txt"});
  ClearMarks();
  EXPECT_EQ(link.status, kFailed) << link.err;
  EXPECT_THAT(link.err, HasSubstr("corvane: link: a.txt: FAILED"));
  EXPECT_EQ(link.out, "");
  EXPECT_FALSE(Dump().count("asked by link"));

  // 3. changes says so plainly.
  test::Outcome changes = Tool({"changes", "--for", "1"});
  EXPECT_EQ(changes.status, kNotSupported) << changes.err;
  EXPECT_THAT(changes.err, HasSubstr("box has no change feed"));
}

}  // namespace
