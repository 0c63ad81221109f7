// `corvane emulate` as a person uses it, for every service that has a dialect: it serves a seeded
// account on its port, prints the options that point corvane at it, answers the tool's `tree`
// with exactly the seeded files, and ends on Ctrl-C with status 0; a port in use ends it with 3.
#include <signal.h>
#include <unistd.h>

#include <QJsonDocument>
#include <QJsonObject>

#include <chrono>
#include <filesystem>
#include <iostream>
#include <map>
#include <set>
#include <sstream>
#include <thread>

#include <gtest/gtest.h>

#include "core/FileSystem.h"
#include "emulators/Emulator.h"
#include "emulators/GoogleDialect.h"
#include "support/Fetch.h"

#include "emulators/Dialect.h"
#include "support/Processes.h"
#include "tools/ToolOutput.h"

namespace {

namespace fs = std::filesystem;

// The tool's words up to its ready line (the options line first); empty when it never came.
std::vector<std::string> WaitForReady(const fs::path& out) {
  for (int i = 0; i < 200; ++i) {
    std::vector<std::string> lines = test::Lines(test::ReadAll(out));
    if (!lines.empty() && lines.back() == "ready")
      return lines;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return {};
}

std::vector<std::string> Words(const std::string& line) {
  std::istringstream in(line);
  std::vector<std::string> words;
  for (std::string word; in >> word;)
    words.push_back(word);
  return words;
}

class CorvaneEmulateTest : public ::testing::TestWithParam<std::string> {};

TEST_P(CorvaneEmulateTest, ServesASeededAccountUntilCtrlC) {
  test::TempDir temp;
  fs::path seed = temp.path() / "seed";
  const std::map<std::string, std::string> files = {
      {"a.txt", "alpha"}, {"docs/b.bin", test::RandomBytes(3000, 7)}, {"docs/deep/c", ""}};
  for (const auto& [path, content] : files)
    test::WriteAll(seed / path, content);
  fs::create_directories(temp.path() / "serve");
  fs::create_directories(temp.path() / "busy");

  // 1. The emulator on any free port.
  pid_t emulator = test::StartProcess(
      {CORVANE_TOOL_PATH, "emulate", GetParam(), "--port", "0", "--seed", seed.string()},
      temp.path() / "serve");
  std::vector<std::string> printed = WaitForReady(temp.path() / "serve" / "stdout");
  ASSERT_GE(printed.size(), 2u) << test::ReadAll(temp.path() / "serve" / "stderr");
  std::vector<std::string> options = Words(printed[0]);
  ASSERT_EQ(options[0], "--service");
  ASSERT_EQ(options[1], GetParam());

  // 2. The tool, pointed at it by exactly those options, sees the seeded files.
  std::vector<std::string> tree = {CORVANE_TOOL_PATH};
  tree.insert(tree.end(), options.begin(), options.end());
  tree.insert(tree.end(), {"--json", "tree"});
  test::Outcome listed = test::RunProcess(tree, temp.path());
  // A dialect may come before its adapter: then only the emulator's own steps can be checked.
  bool no_adapter =
      listed.err.find("the library has no adapter for " + GetParam()) != std::string::npos;
  if (no_adapter) {
    std::cout << "[ NOTE     ] no adapter for " << GetParam() << " yet: tree not compared\n";
  }
  EXPECT_EQ(listed.status, no_adapter ? 3 : 0) << listed.err;
  std::map<std::string, std::int64_t> seen;
  for (const std::string& line : test::Lines(listed.out)) {
    QJsonObject item = QJsonDocument::fromJson(QByteArray::fromStdString(line)).object();
    if (item["type"].toString() == "file") {
      seen[item["path"].toString().toStdString()] = item["size"].toVariant().toLongLong();
    }
  }
  std::map<std::string, std::int64_t> expected;
  for (const auto& [path, content] : files) {
    expected[path] = static_cast<std::int64_t>(content.size());
  }
  if (!no_adapter) {
    EXPECT_EQ(seen, expected) << listed.out;
  }

  // 3. A second emulator on the same port can't have it.
  std::string port = options.back().substr(options.back().rfind(':') + 1);
  port = port.substr(0, port.find('/'));
  test::Outcome busy = test::RunProcess({CORVANE_TOOL_PATH, "emulate", GetParam(), "--port", port},
                                        temp.path() / "busy");
  EXPECT_EQ(busy.status, 3);
  EXPECT_NE(busy.err.find("cannot listen on 127.0.0.1:" + port), std::string::npos) << busy.err;

  // 4. Ctrl-C ends it cleanly.
  ::kill(emulator, SIGINT);
  test::Outcome ended = test::WaitProcess(emulator, temp.path() / "serve");
  EXPECT_EQ(ended.status, 0) << ended.err;
}

INSTANTIATE_TEST_SUITE_P(Services, CorvaneEmulateTest,
                         ::testing::ValuesIn(emulators::DialectNames()),
                         [](const ::testing::TestParamInfo<std::string>& info) {
                           return info.param;
                         });
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(CorvaneEmulateTest);

TEST(CorvaneEmulateCommandTest, AServiceWithoutDialectSaysSo) {
  test::TempDir temp;
  test::Outcome run =
      test::RunProcess({CORVANE_TOOL_PATH, "emulate", "nosuch", "--port", "0"}, temp.path());
  EXPECT_EQ(run.status, 3);
  EXPECT_EQ(run.err, "corvane: emulate: no emulator for nosuch\n");
}

}  // namespace

// Drive's demo account, with every awkward case, comes down as the client shows it.
TEST(CorvaneEmulateGoogleTest, ListsTheDemoDriveAndRefusesTheRejectedToken) {
  test::TempDir temp;
  pid_t emulator =
      test::StartProcess({CORVANE_TOOL_PATH, "emulate", "google", "--port", "0"}, temp.path());
  std::vector<std::string> printed = WaitForReady(temp.path() / "stdout");
  ASSERT_GE(printed.size(), 2u);
  std::vector<std::string> options = Words(printed[0]);
  std::string control = printed[1].substr(printed[1].find("http"));
  std::string base = control.substr(0, control.find("/_emulator/"));
  ASSERT_EQ(test::Fetch("POST", base + emulators::GoogleDialect::kDemoPath, "").status, 204);
  fs::create_directories(temp.path() / "run");
  auto run = [&](std::vector<std::string> words) {
    std::vector<std::string> argv = {CORVANE_TOOL_PATH};
    argv.insert(argv.end(), options.begin(), options.end());
    argv.insert(argv.end(), words.begin(), words.end());
    return test::RunProcess(argv, temp.path() / "run");
  };
  test::Outcome listed = run({"--json", "tree"});
  ASSERT_EQ(listed.status, 0) << listed.err;
  const std::vector<std::string> paths = test::PrintedPaths(listed.out);
  const std::set<std::string> expected = {"Docs",
                                          "Docs/Report.url",
                                          "Docs/clash",
                                          "Docs/clash (1)",
                                          "Docs/empty.bin",
                                          "Docs/keyed.pdf",
                                          "Docs/no-md5.dat",
                                          "Docs/readme.txt",
                                          "Docs/twin (1).txt",
                                          "Docs/twin.txt",
                                          "Jane's Åpfel",
                                          "Jane's Åpfel/Ünder",
                                          "Jane's Åpfel/Ünder/notes.md",
                                          "Photos",
                                          "Photos/both.jpg",
                                          "late",
                                          "late/early",
                                          "late/early/inside-early.txt",
                                          "Доступные мне",
                                          "Доступные мне/gift.txt"};
  EXPECT_EQ(std::set<std::string>(paths.begin(), paths.end()), expected) << listed.out;
  EXPECT_EQ(run({"quota"}).status, 0);
  // The token the emulator refuses: FORBIDDEN, said plainly.
  options[3] = emulators::Emulator::kRejectedToken;
  test::Outcome refused = run({"tree"});
  EXPECT_EQ(refused.status, 10 + FileSystem::FORBIDDEN);
  EXPECT_NE(refused.err.find("FORBIDDEN"), std::string::npos) << refused.err;
  ::kill(emulator, SIGINT);
  EXPECT_EQ(test::WaitProcess(emulator, temp.path()).status, 0);
}
