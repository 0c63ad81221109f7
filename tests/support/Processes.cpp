#include "support/Processes.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <random>
#include <sstream>

namespace test {

namespace fs = std::filesystem;

std::string ReadAll(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

void WriteAll(const fs::path& path, const std::string& content) {
  fs::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << content;
}

std::string RandomBytes(std::size_t size, unsigned seed) {
  std::mt19937 random(seed);
  std::string bytes(size, '\0');
  for (char& byte : bytes) {
    byte = static_cast<char>(random());
  }
  return bytes;
}

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    lines.push_back(line);
  }
  return lines;
}

TempDir::TempDir() {
  char pattern[] = "/tmp/corvane-test-XXXXXX";
  path_ = ::mkdtemp(pattern);
}

TempDir::~TempDir() {
  std::error_code ignored;
  fs::remove_all(path_, ignored);
}

pid_t StartProcess(const std::vector<std::string>& argv, const fs::path& dir,
                   const Environment& environment) {
  fs::path out = dir / "stdout";
  fs::path err = dir / "stderr";
  pid_t pid = ::fork();
  if (pid == 0) {
    for (const char* name :
         {"CORVANE_SERVICE", "CORVANE_URL", "CORVANE_USER", "CORVANE_PASSWORD", "CORVANE_TOKEN"}) {
      ::unsetenv(name);
    }
    for (const auto& [name, value] : environment) {
      ::setenv(name.c_str(), value.c_str(), 1);
    }
    int out_fd = ::open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    int err_fd = ::open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ::dup2(out_fd, 1);
    ::dup2(err_fd, 2);
    std::vector<char*> args;
    for (const std::string& arg : argv) {
      args.push_back(const_cast<char*>(arg.c_str()));
    }
    args.push_back(nullptr);
    ::execvp(args[0], args.data());
    ::_exit(127);
  }
  return pid;
}

Outcome WaitProcess(pid_t pid, const fs::path& dir) {
  int status = 0;
  ::waitpid(pid, &status, 0);
  Outcome run;
  run.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  run.out = ReadAll(dir / "stdout");
  run.err = ReadAll(dir / "stderr");
  return run;
}

Outcome RunProcess(const std::vector<std::string>& argv, const fs::path& dir,
                   const Environment& environment) {
  return WaitProcess(StartProcess(argv, dir, environment), dir);
}

}  // namespace test
