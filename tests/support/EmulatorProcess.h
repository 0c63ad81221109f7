// EmulatorProcess: `corvane emulate SERVICE` in a process of its own over a seed folder, and the
// tool run against it, for the tests of the tool as a program. The emulator's output goes to
// WORK/serve, the tool runs in WORK/run.
//
//   test::EmulatorProcess emulator(CORVANE_TOOL_PATH, "google", seed, temp.path());
//   ASSERT_TRUE(emulator.Ready()) << emulator.Error();
//   test::Outcome made = emulator.Run({"mkdir", "a"});
//   test::Fetch("GET", emulator.Control() + "dump", "");
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <string>
#include <vector>

#include <QJsonArray>

#include "support/Processes.h"

namespace test {

class EmulatorProcess {
 public:
  // Starts it and waits up to 10 s for its ready line.
  EmulatorProcess(std::string tool, const std::string& service, const std::filesystem::path& seed,
                  const std::filesystem::path& work);
  // Stops it if Stop wasn't called.
  ~EmulatorProcess();
  EmulatorProcess(const EmulatorProcess&) = delete;
  EmulatorProcess& operator=(const EmulatorProcess&) = delete;

  bool Ready() const { return !options_.empty(); }
  // What the emulator wrote on its standard error.
  std::string Error() const;
  // The tool's arguments: the options that point it at the emulator, then `words`.
  std::vector<std::string> Argv(const std::vector<std::string>& words) const;
  Outcome Run(const std::vector<std::string>& words) const;
  // As Argv, with the library's log written to LogFile() for the test to read.
  std::vector<std::string> LoggedArgv(const std::vector<std::string>& words) const;
  std::filesystem::path LogFile() const { return RunDir() / "corvane.log"; }
  Outcome RunLogged(const std::vector<std::string>& words) const;
  // The requests the emulator has served, oldest first, as its control path lists them.
  QJsonArray Served() const;
  // The control path's URL, ending in "/_emulator/".
  const std::string& Control() const { return control_; }
  // Where the tool runs.
  std::filesystem::path RunDir() const { return work_ / "run"; }
  // Ctrl-C; the emulator's exit status, 0 when it ended cleanly.
  int Stop();

 private:
  std::string tool_;
  std::filesystem::path work_;
  pid_t pid_ = -1;
  std::vector<std::string> options_;
  std::string control_;
};

// The lines of a file once one of them contains `text`; empty when that takes over 10 s.
std::vector<std::string> WaitForLines(const std::filesystem::path& file, const std::string& text);

}  // namespace test
