// LoggerWrapper: the log sink of the library, and the line builder behind the LOG_* macros.
//
// A line reads "file:line T<thread> text". Levels run from 0 (information) to 4 (grave failure);
// every line of level 3 adds one to count_fails_, every line of level 4 to count_fatals_.
//
//   LOG_WARNING << "Failed with HTTP code " << code;
//
// A line is built in a stack buffer and handed to the sink when the statement ends. The sink is
// stderr (levels 2 and up) unless a file or a callback is set; tests take lines with
// LoggerWrapper::Capture.
#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <mutex>
#include <ostream>
#include <streambuf>
#include <string>
#include <string_view>
#include <vector>

enum class LogType : int { kInfo = 0, kNotice = 1, kWarning = 2, kError = 3, kFatal = 4 };

// A stream buffer that keeps the first N bytes on the stack and spills to the heap beyond them,
// so that a long URL or body is never cut from a line.
template <std::size_t N>
class StackDeviceBuf : public std::streambuf {
 public:
  StackDeviceBuf() { setp(stack_, stack_ + N); }
  std::string_view View() const {
    return heap_.empty() ? std::string_view(stack_, pptr() - pbase())
                         : std::string_view(heap_.data(), heap_.size());
  }

 protected:
  int_type overflow(int_type ch) override {
    if (heap_.empty()) {
      heap_.assign(stack_, pptr() - pbase());
    }
    if (ch != traits_type::eof()) {
      heap_.push_back(static_cast<char>(ch));
    }
    // Keep writing one character at a time into the heap string from now on.
    setp(nullptr, nullptr);
    return traits_type::not_eof(ch);
  }
  std::streamsize xsputn(const char* s, std::streamsize n) override {
    if (heap_.empty() && pptr() && epptr() - pptr() >= n) {
      std::char_traits<char>::copy(pptr(), s, static_cast<std::size_t>(n));
      pbump(static_cast<int>(n));
      return n;
    }
    if (heap_.empty()) {
      heap_.assign(stack_, pptr() - pbase());
      setp(nullptr, nullptr);
    }
    heap_.append(s, static_cast<std::size_t>(n));
    return n;
  }

 private:
  char stack_[N];
  std::string heap_;
};

template <std::size_t N>
class FastOStringStream : public std::ostream {
 public:
  FastOStringStream() : std::ostream(&buf_) {}
  std::string_view View() const { return buf_.View(); }

 private:
  StackDeviceBuf<N> buf_;
};

class LoggerWrapper {
 public:
  using Sink = std::function<void(LogType, std::string_view line)>;

  static std::atomic<long long> count_fails_;
  static std::atomic<long long> count_fatals_;

  // Writes one finished line to the sink and counts failures. Never throws.
  static void WriteToLogFile(LogType type, std::string_view line) noexcept;

  // Lines go to this file (appended); an empty path returns to stderr.
  static bool SetLogFile(const std::string& path);
  // Lowest level that reaches the default stderr sink.
  static void SetStderrLevel(LogType level);

  // Collects every line written while it lives, on any thread. Lines still reach the other sinks.
  class Capture {
   public:
    Capture();
    ~Capture();
    Capture(const Capture&) = delete;
    Capture& operator=(const Capture&) = delete;

    std::vector<std::string> Lines() const;
    std::vector<std::string> LinesAtLevel(LogType level) const;
    // True when some line's text (after "file:line T<thread> ") contains the fragment.
    bool Contains(std::string_view fragment) const;
    std::size_t Count(std::string_view fragment) const;
    void Clear();

   private:
    friend class LoggerWrapper;
    void Add(LogType type, std::string_view line);
    mutable std::mutex mutex_;
    std::vector<std::pair<LogType, std::string>> lines_;
  };

 private:
  static void Register(Capture* capture);
  static void Unregister(Capture* capture);
};

// One log line: gathers the text and writes it when it goes out of scope.
class LogLine {
 public:
  LogLine(LogType type, const char* file, int line);
  ~LogLine();
  LogLine(const LogLine&) = delete;
  LogLine& operator=(const LogLine&) = delete;
  std::ostream& stream() { return stream_; }

 private:
  LogType type_;
  FastOStringStream<216> stream_;
};

#define CORVANE_LOG(level) LogLine(level, __FILE__, __LINE__).stream()
#define LOG_INFO CORVANE_LOG(LogType::kInfo)
#define LOG_NOTICE CORVANE_LOG(LogType::kNotice)
#define LOG_WARNING CORVANE_LOG(LogType::kWarning)
#define LOG_ERROR CORVANE_LOG(LogType::kError)
#define LOG_FATAL CORVANE_LOG(LogType::kFatal)
