#include "core/LoggerWrapper.h"

#include <cstdio>
#include <cstring>

std::atomic<long long> LoggerWrapper::count_fails_{0};
std::atomic<long long> LoggerWrapper::count_fatals_{0};

namespace {

struct SinkState {
  std::mutex mutex;
  std::FILE* file = nullptr;
  LogType stderr_level = LogType::kWarning;
  std::vector<LoggerWrapper::Capture*> captures;
};

SinkState& State() {
  static SinkState* state = new SinkState();  // never destroyed: lines may come from exit paths
  return *state;
}

// Small, stable thread numbers read better in a log than the platform's opaque ids.
unsigned ThreadNumber() {
  static std::atomic<unsigned> next{1};
  thread_local unsigned number = next.fetch_add(1);
  return number;
}

const char* BaseName(const char* path) {
  const char* slash = std::strrchr(path, '/');
  return slash ? slash + 1 : path;
}

}  // namespace

void LoggerWrapper::WriteToLogFile(LogType type, std::string_view line) noexcept {
  if (type == LogType::kError) {
    count_fails_.fetch_add(1, std::memory_order_relaxed);
  } else if (type == LogType::kFatal) {
    count_fatals_.fetch_add(1, std::memory_order_relaxed);
  }
  try {
    SinkState& state = State();
    std::lock_guard<std::mutex> lock(state.mutex);
    for (Capture* capture : state.captures) {
      capture->Add(type, line);
    }
    std::FILE* out = state.file;
    if (!out && type >= state.stderr_level) {
      out = stderr;
    }
    if (out) {
      std::fprintf(out, "%d %.*s\n", static_cast<int>(type), static_cast<int>(line.size()),
                   line.data());
      std::fflush(out);
    }
  } catch (...) {
    // A log line must never take the caller down.
  }
}

bool LoggerWrapper::SetLogFile(const std::string& path) {
  SinkState& state = State();
  std::lock_guard<std::mutex> lock(state.mutex);
  if (state.file) {
    std::fclose(state.file);
    state.file = nullptr;
  }
  if (path.empty()) {
    return true;
  }
  state.file = std::fopen(path.c_str(), "a");
  return state.file != nullptr;
}

void LoggerWrapper::SetStderrLevel(LogType level) {
  SinkState& state = State();
  std::lock_guard<std::mutex> lock(state.mutex);
  state.stderr_level = level;
}

void LoggerWrapper::Register(Capture* capture) {
  SinkState& state = State();
  std::lock_guard<std::mutex> lock(state.mutex);
  state.captures.push_back(capture);
}

void LoggerWrapper::Unregister(Capture* capture) {
  SinkState& state = State();
  std::lock_guard<std::mutex> lock(state.mutex);
  auto& captures = state.captures;
  for (auto it = captures.begin(); it != captures.end(); ++it) {
    if (*it == capture) {
      captures.erase(it);
      break;
    }
  }
}

LoggerWrapper::Capture::Capture() {
  LoggerWrapper::Register(this);
}

LoggerWrapper::Capture::~Capture() {
  LoggerWrapper::Unregister(this);
}

void LoggerWrapper::Capture::Add(LogType type, std::string_view line) {
  std::lock_guard<std::mutex> lock(mutex_);
  lines_.emplace_back(type, std::string(line));
}

std::vector<std::string> LoggerWrapper::Capture::Lines() const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<std::string> out;
  for (const auto& entry : lines_) {
    out.push_back(entry.second);
  }
  return out;
}

std::vector<std::string> LoggerWrapper::Capture::LinesAtLevel(LogType level) const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<std::string> out;
  for (const auto& entry : lines_) {
    if (entry.first == level) {
      out.push_back(entry.second);
    }
  }
  return out;
}

bool LoggerWrapper::Capture::Contains(std::string_view fragment) const {
  return Count(fragment) > 0;
}

std::size_t LoggerWrapper::Capture::Count(std::string_view fragment) const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::size_t count = 0;
  for (const auto& entry : lines_) {
    // Skip the "file:line T<thread> " prefix so that a fragment never matches a file name.
    const std::string& line = entry.second;
    std::size_t text = line.find(' ');
    text = text == std::string::npos ? 0 : line.find(' ', text + 1);
    std::string_view body = text == std::string::npos ? std::string_view(line)
                                                      : std::string_view(line).substr(text + 1);
    if (body.find(fragment) != std::string_view::npos) {
      ++count;
    }
  }
  return count;
}

void LoggerWrapper::Capture::Clear() {
  std::lock_guard<std::mutex> lock(mutex_);
  lines_.clear();
}

LogLine::LogLine(LogType type, const char* file, int line) : type_(type) {
  stream_ << BaseName(file) << ':' << line << " T" << ThreadNumber() << ' ';
}

LogLine::~LogLine() {
  try {
    LoggerWrapper::WriteToLogFile(type_, stream_.View());
  } catch (...) {
    // Destructors of log lines run during unwinding too; nothing may escape.
  }
}
