#include "support/EmulatorProcess.h"

#include <signal.h>

#include <chrono>
#include <sstream>
#include <thread>

#include <QByteArray>
#include <QJsonDocument>

#include "support/Fetch.h"

namespace test {

namespace {

constexpr int kPolls = 200;
constexpr std::chrono::milliseconds kPoll(50);

}  // namespace

EmulatorProcess::EmulatorProcess(std::string tool, const std::string& service,
                                 const std::filesystem::path& seed,
                                 const std::filesystem::path& work)
    : tool_(std::move(tool)), work_(work) {
  // 1. The process, its output in its own folder.
  std::filesystem::create_directories(work_ / "serve");
  std::filesystem::create_directories(work_ / "run");
  pid_ = StartProcess({tool_, "emulate", service, "--port", "0", "--seed", seed.string()},
                      work_ / "serve");
  // 2. Its first lines: the tool's options, the control path, then "ready".
  std::vector<std::string> printed;
  for (int i = 0; i < kPolls && (printed.empty() || printed.back() != "ready"); ++i) {
    std::this_thread::sleep_for(kPoll);
    printed = Lines(ReadAll(work_ / "serve" / "stdout"));
  }
  if (printed.size() < 3 || printed.back() != "ready") {
    return;
  }
  std::istringstream words(printed[0]);
  for (std::string word; words >> word;) {
    options_.push_back(word);
  }
  control_ = printed[1].substr(printed[1].find("http"));
}

EmulatorProcess::~EmulatorProcess() {
  Stop();
}

std::string EmulatorProcess::Error() const {
  return ReadAll(work_ / "serve" / "stderr");
}

std::vector<std::string> EmulatorProcess::Argv(const std::vector<std::string>& words) const {
  std::vector<std::string> argv = {tool_};
  argv.insert(argv.end(), options_.begin(), options_.end());
  argv.insert(argv.end(), words.begin(), words.end());
  return argv;
}

std::vector<std::string> EmulatorProcess::LoggedArgv(const std::vector<std::string>& words) const {
  std::vector<std::string> logged = {"--log", LogFile().string()};
  logged.insert(logged.end(), words.begin(), words.end());
  return Argv(logged);
}

Outcome EmulatorProcess::RunLogged(const std::vector<std::string>& words) const {
  return RunProcess(LoggedArgv(words), RunDir());
}

QJsonArray EmulatorProcess::Served() const {
  return QJsonDocument::fromJson(
             QByteArray::fromStdString(Fetch("GET", control_ + "requests", "").body))
      .array();
}

Outcome EmulatorProcess::Run(const std::vector<std::string>& words) const {
  return RunProcess(Argv(words), RunDir());
}

int EmulatorProcess::Stop() {
  if (pid_ <= 0) {
    return -1;
  }
  ::kill(pid_, SIGINT);
  const int status = WaitProcess(pid_, work_ / "serve").status;
  pid_ = -1;
  return status;
}

std::vector<std::string> WaitForLines(const std::filesystem::path& file, const std::string& text) {
  for (int i = 0; i < kPolls; ++i) {
    std::vector<std::string> lines = Lines(ReadAll(file));
    for (const std::string& line : lines) {
      if (line.find(text) != std::string::npos) {
        return lines;
      }
    }
    std::this_thread::sleep_for(kPoll);
  }
  return {};
}

}  // namespace test
