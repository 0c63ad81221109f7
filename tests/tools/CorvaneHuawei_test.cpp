// The tool against `corvane emulate huawei` as a person runs it: every command of a session exits
// 0 and the emulator's own dump shows what it was asked to do; a public link exits with the FAILED
// code, and Ctrl-C during the upload of a large file exits with the STOPPED code and commits no
// file.
#include <openssl/evp.h>
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

constexpr int kExitFailed = 10 + FileSystem::FAILED;
constexpr int kExitStopped = 10 + FileSystem::STOPPED;
constexpr int kExitConflict = 10 + FileSystem::CONFLICT;

std::string Sha256(const std::string& bytes) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  EVP_Digest(bytes.data(), bytes.size(), digest, &length, EVP_sha256(), nullptr);
  std::ostringstream hex;
  for (unsigned int i = 0; i < length; ++i) {
    hex << std::hex << (digest[i] >> 4) << (digest[i] & 15);
  }
  return hex.str();
}

// Path below the root -> "folder" or the file's SHA-256, for what is neither trashed nor under a
// trashed folder, as the emulator dumps its account.
std::map<std::string, std::string> Account(const std::string& control) {
  test::Answer dump = test::Fetch("GET", control + "dump", "");
  QJsonObject json = QJsonDocument::fromJson(QByteArray::fromStdString(dump.body)).object();
  std::map<std::string, std::string> paths_by_id = {{json["root"].toString().toStdString(), ""}};
  std::map<std::string, std::string> account;
  // Parents come before their children in the dump.
  for (const QJsonValue& value : json["items"].toArray()) {
    QJsonObject item = value.toObject();
    QJsonArray parents = item["parents"].toArray();
    auto parent = parents.isEmpty() ? paths_by_id.end()
                                    : paths_by_id.find(parents.first().toString().toStdString());
    if (parent == paths_by_id.end() || item["trashed"].toBool()) {
      continue;
    }
    std::string path = (parent->second.empty() ? "" : parent->second + "/") +
                       item["name"].toString().toStdString();
    paths_by_id[item["id"].toString().toStdString()] = path;
    account[path] =
        item["kind"].toString() == "folder" ? "folder" : item["sha256"].toString().toStdString();
  }
  return account;
}

class CorvaneHuaweiTest : public EmulatedToolTest {
 protected:
  void SetUp() override {
    test::WriteAll(temp_.path() / "seed" / "a.txt", "alpha");
    test::WriteAll(temp_.path() / "seed" / "docs" / "b.bin", test::RandomBytes(3000, 5));
    StartEmulator("huawei");
  }

  std::vector<std::string> Argv(const std::vector<std::string>& words) const {
    return emulator_->LoggedArgv(words);
  }
  test::Outcome Run(const std::vector<std::string>& words) { return emulator_->RunLogged(words); }
};

TEST_F(CorvaneHuaweiTest, ASessionOfCommandsChangesTheAccountAsAsked) {
  const std::string small = test::RandomBytes(1024, 1);
  const std::string large = test::RandomBytes(30 << 20, 2);
  // 1. What there is.
  test::Outcome tree = Run({"tree"});
  EXPECT_EQ(tree.status, 0) << tree.err;
  EXPECT_EQ(test::Lines(tree.out).size(), 3u) << tree.out;
  test::Outcome ls = Run({"ls", "docs"});
  EXPECT_EQ(ls.status, 0) << ls.err;
  EXPECT_NE(ls.out.find("docs/b.bin"), std::string::npos) << ls.out;
  // 2. A folder and two uploads, one of many slices, read back byte for byte.
  EXPECT_EQ(Run({"mkdir", "up"}).status, 0);
  EXPECT_EQ(Run({"put", Local("small", small), "up/small.bin"}).status, 0);
  test::Outcome put = Run({"put", Local("large", large), "up/large.bin"});
  EXPECT_EQ(put.status, 0) << put.err;
  test::Outcome get = Run({"get", "up/large.bin", (temp_.path() / "back").string()});
  EXPECT_EQ(get.status, 0) << get.err;
  EXPECT_TRUE(test::ReadAll(temp_.path() / "back") == large);
  std::map<std::string, std::string> account = Account(control_);
  EXPECT_EQ(account["up"], "folder");
  EXPECT_EQ(account["up/small.bin"], Sha256(small));
  EXPECT_EQ(account["up/large.bin"], Sha256(large));
  // 3. A new version only where asked for: the plain put finds the name taken.
  const std::string other = test::RandomBytes(1024, 4);
  EXPECT_EQ(Run({"put", Local("other", other), "up/small.bin"}).status, kExitConflict);
  EXPECT_EQ(Account(control_)["up/small.bin"], Sha256(small));
  EXPECT_EQ(Run({"put", "--overwrite", Local("other", other), "up/small.bin"}).status, 0);
  EXPECT_EQ(Account(control_)["up/small.bin"], Sha256(other));
  // 4. A rename, deletes, and the quota as the account counts it.
  EXPECT_EQ(Run({"mv", "up/large.bin", "up/renamed.bin"}).status, 0);
  EXPECT_EQ(Run({"rm", "up/small.bin"}).status, 0);
  account = Account(control_);
  EXPECT_EQ(account.count("up/large.bin"), 0u);
  EXPECT_EQ(account.count("up/small.bin"), 0u);
  EXPECT_EQ(account["up/renamed.bin"], Sha256(large));
  EXPECT_EQ(Run({"rm", "up/renamed.bin"}).status, 0);
  EXPECT_EQ(Run({"rmdir", "up"}).status, 0);
  account = Account(control_);
  EXPECT_EQ(account.count("up"), 0u);
  EXPECT_EQ(account.size(), 3u);
  test::Outcome quota = Run({"--json", "quota"});
  ASSERT_EQ(quota.status, 0) << quota.err;
  QJsonObject sizes = QJsonDocument::fromJson(QByteArray::fromStdString(quota.out)).object();
  QJsonObject dump = QJsonDocument::fromJson(
                         QByteArray::fromStdString(test::Fetch("GET", control_ + "dump", "").body))
                         .object();
  EXPECT_EQ(sizes["total"].toDouble(), dump["total"].toDouble());
  EXPECT_EQ(sizes["used"].toDouble(), dump["used"].toDouble());
  // 5. Huawei has no public links.
  test::Outcome link = Run({"link", "docs/b.bin"});
  EXPECT_EQ(link.status, kExitFailed) << link.err;
}

TEST_F(CorvaneHuaweiTest, CtrlCDuringALargePutStops) {
  // 1. Every slice is answered slowly, so the upload is surely under way when the signal comes.
  const std::string fault = R"({"verb":"PUT","delay_ms":10000,"times":0})";
  ASSERT_EQ(test::Fetch("POST", control_ + "faults", "", fault).status, 204);
  const fs::path log = temp_.path() / "run" / "corvane.log";
  pid_t put =
      test::StartProcess(Argv({"put", Local("large", test::RandomBytes(30 << 20, 3)), "large.bin"}),
                         temp_.path() / "run");
  for (int i = 0; i < 500 && test::ReadAll(log).find("Writing big file") == std::string::npos;
       ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  // 2. Ctrl-C: STOPPED well before the slow answer, and no file.
  const auto signalled = std::chrono::steady_clock::now();
  ::kill(put, SIGINT);
  test::Outcome stopped = test::WaitProcess(put, temp_.path() / "run");
  EXPECT_LT(std::chrono::steady_clock::now() - signalled, std::chrono::seconds(2));
  EXPECT_EQ(stopped.status, kExitStopped) << stopped.err;
  EXPECT_NE(stopped.err.find("interrupted"), std::string::npos) << stopped.err;
  EXPECT_EQ(Account(control_).count("large.bin"), 0u);
}

}  // namespace
