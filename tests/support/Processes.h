// Programs and files for the tests that run a process as a user would: a temporary folder per
// test, a child process with its output in files, and whole-file reads and writes.
//
//   test::TempDir temp;
//   test::Outcome run = test::RunProcess({"md5sum", "file"}, temp.path());
//   EXPECT_EQ(run.status, 0) << run.err;
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

namespace test {

struct Outcome {
  int status = -1;
  std::string out;
  std::string err;
};

std::string ReadAll(const std::filesystem::path& path);
void WriteAll(const std::filesystem::path& path, const std::string& content);
std::string RandomBytes(std::size_t size, unsigned seed);
std::vector<std::string> Lines(const std::string& text);

// A folder of its own for each test; gone with the test.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

using Environment = std::vector<std::pair<std::string, std::string>>;

// Starts `argv` with stdout and stderr in files of `dir`, with `environment` in place of the
// user's CORVANE_ settings.
pid_t StartProcess(const std::vector<std::string>& argv, const std::filesystem::path& dir,
                   const Environment& environment = {});
Outcome WaitProcess(pid_t pid, const std::filesystem::path& dir);
Outcome RunProcess(const std::vector<std::string>& argv, const std::filesystem::path& dir,
                   const Environment& environment = {});

}  // namespace test
