// The tool against `corvane emulate google` as two processes: the item commands change the
// account as asked (the emulator's own dump shows it), `changes` prints a folder that the
// emulator's control path makes meanwhile, then ends at once on Ctrl-C during its idle pause, a
// put broken off midway resumes in its retry, get reads a range, export writes a document's
// exported bytes, and with `--state` a second run follows the feed from the saved state instead
// of listing.
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
#include <vector>

#include <gtest/gtest.h>

#include "emulators/GoogleDialect.h"
#include "support/Fetch.h"
#include "support/Processes.h"
#include "tools/EmulatedToolTest.h"

namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;

class CorvaneGoogleTest : public EmulatedToolTest {
 protected:
  void SetUp() override {
    test::WriteAll(temp_.path() / "seed" / "docs" / "a.txt", "alpha");
    fs::create_directories(temp_.path() / "seed" / "photos");
    StartEmulator("google");
  }

  std::vector<std::string> Argv(const std::vector<std::string>& words) {
    return emulator_->Argv(words);
  }
  test::Outcome Run(const std::vector<std::string>& words) { return emulator_->Run(words); }
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

  // The Drive requests the emulator has served, as "VERB path".
  std::vector<std::string> Served() {
    std::vector<std::string> served;
    for (const QJsonValue& request : emulator_->Served()) {
      served.push_back(request["verb"].toString().toStdString() + " " +
                       request["path"].toString().toStdString());
    }
    return served;
  }
  static int Count(const std::vector<std::string>& served, std::size_t from,
                   const std::string& request) {
    return static_cast<int>(std::count(served.begin() + from, served.end(), request));
  }
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
  ASSERT_FALSE(test::WaitForLines(temp_.path() / "run/stderr", "following the feed").empty());
  test::Answer made =
      test::Fetch("POST", control_ + "change", "", R"({"op":"mkdir","path":"docs/late"})");
  ASSERT_LT(made.status, 300) << made.body;
  EXPECT_FALSE(test::WaitForLines(temp_.path() / "run/stdout", "docs/late").empty())
      << test::ReadAll(temp_.path() / "run/stderr");
  // The feed is in its pause now; Ctrl-C ends it.
  std::this_thread::sleep_for(milliseconds(300));
  auto start = std::chrono::steady_clock::now();
  ::kill(changes, SIGINT);
  test::Outcome ended = test::WaitProcess(changes, temp_.path() / "run");
  EXPECT_LT(std::chrono::steady_clock::now() - start, milliseconds(1000));
  EXPECT_EQ(ended.status, 0) << ended.err;
}

TEST_F(CorvaneGoogleTest, StateLetsTheNextRunFollowTheFeedInsteadOfListing) {
  const std::string state = (temp_.path() / "google.state").string();
  const std::string listing = "GET /drive/v3/files";
  // 1. The first run lists the drive and saves the state.
  test::Outcome first = Run({"--state", state, "ls", "docs"});
  ASSERT_EQ(first.status, 0) << first.err;
  EXPECT_NE(first.out.find("docs/a.txt"), std::string::npos) << first.out;
  ASSERT_TRUE(fs::exists(state));
  EXPECT_GE(Count(Served(), 0, listing), 1);
  // 2. The next run learns a foreign change from the feed alone.
  ASSERT_EQ(
      test::Fetch("POST", control_ + "change", "", R"({"op":"mkdir","path":"docs/late"})").status /
          100,
      2);
  std::size_t before = Served().size();
  test::Outcome second = Run({"--state", state, "ls", "docs"});
  ASSERT_EQ(second.status, 0) << second.err;
  EXPECT_NE(second.out.find("docs/late"), std::string::npos) << second.out;
  std::vector<std::string> served = Served();
  EXPECT_EQ(Count(served, before, listing), 0);
  EXPECT_GE(Count(served, before, "GET /drive/v3/changes"), 1);
  // 3. A damaged state is refused with a line, and the tree listed instead, right.
  test::WriteAll(state, "corvane-state 1\n0 0 1\nF 0 3 4 00 docs/a.txt\ngarbage\n");
  before = Served().size();
  test::Outcome damaged = Run({"--state", state, "ls", "docs"});
  ASSERT_EQ(damaged.status, 0) << damaged.err;
  EXPECT_NE(damaged.err.find("loading the whole tree"), std::string::npos) << damaged.err;
  EXPECT_NE(damaged.out.find("docs/late"), std::string::npos) << damaged.out;
  EXPECT_GE(Count(Served(), before, listing), 1);
  // 4. A command that changes the account leaves no state the next run could trust.
  ASSERT_EQ(Run({"--state", state, "mkdir", "made"}).status, 0);
  EXPECT_FALSE(fs::exists(state));
}

// The connection breaks after the server kept 8 MiB of 20; the retry in the same process asks
// the session how far it got and sends only the rest.
TEST_F(CorvaneGoogleTest, APutBrokenOffResumesInItsRetry) {
  std::string content(20 << 20, '\0');
  for (std::size_t i = 0; i < content.size(); ++i)
    content[i] = static_cast<char>((i * 7 + (i >> 13)) & 0xff);
  test::WriteAll(temp_.path() / "big.bin", content);
  test::Answer fault = test::Fetch(
      "POST", control_ + "faults", "",
      R"({"verb":"PUT","path":"/upload/drive/v3/files","persist_limit":8388608,"reset":true})");
  ASSERT_LT(fault.status, 300) << fault.body;
  test::Outcome put =
      Run({"put", (temp_.path() / "big.bin").string(), "docs/big.bin", "--retries", "2"});
  ASSERT_EQ(put.status, 0) << put.err;
  EXPECT_NE(put.err.find("put: resuming at byte 8388608"), std::string::npos) << put.err;
  // The log: the body, the status query, the rest from 8 MiB on.
  std::vector<std::string> puts;
  for (const QJsonValue& request : emulator_->Served()) {
    if (request["verb"].toString() == "PUT")
      puts.push_back(request["content_range"].toString().toStdString() + " " +
                     std::to_string(request["size"].toInt()));
  }
  EXPECT_EQ(puts, (std::vector<std::string>{" 20971520", "bytes */20971520 0",
                                            "bytes 8388608-20971519/20971520 12582912"}));
  test::Outcome got = Run({"get", "docs/big.bin", (temp_.path() / "back.bin").string()});
  ASSERT_EQ(got.status, 0) << got.err;
  EXPECT_TRUE(test::ReadAll(temp_.path() / "back.bin") == content);
  test::Outcome part = Run({"get", "docs/a.txt", "-", "--offset", "1", "--limit", "4"});
  ASSERT_EQ(part.status, 0) << part.err;
  EXPECT_EQ(part.out, "lph");
}

TEST_F(CorvaneGoogleTest, ExportWritesADocumentsExportedBytes) {
  test::Answer seeded = test::Fetch(
      "POST", control_.substr(0, control_.find("/_emulator")) + emulators::GoogleDialect::kDemoPath,
      "");
  ASSERT_LT(seeded.status, 300) << seeded.body;
  const fs::path out = temp_.path() / "report.docx";
  test::Outcome exported = Run({"export", "Docs/Report.url", out.string()});
  ASSERT_EQ(exported.status, 0) << exported.err;
  EXPECT_NE(exported.err.find("as docx"), std::string::npos) << exported.err;
  EXPECT_EQ(test::ReadAll(out), emulators::GoogleDialect::ExportedBytes(
                                    Item("Report")["id"].toString().toStdString(), "docx"));
  // A plain file is no document.
  EXPECT_NE(Run({"export", "docs/a.txt", (temp_.path() / "a.docx").string()}).status, 0);
}

}  // namespace
