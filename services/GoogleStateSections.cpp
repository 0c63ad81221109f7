#include "services/GoogleStateSections.h"

#include <istream>
#include <ostream>

#include "core/LoggerWrapper.h"

namespace {

constexpr std::size_t kReadStopCheckEvery = 20;

bool Stopped(const std::atomic<bool>* stop, std::size_t entry, std::size_t every,
             const char* stop_text) {
  if (entry % every != 0 || !stop || !*stop) {
    return false;
  }
  if (stop_text) {
    LOG_ERROR << stop_text;
  }
  return true;
}

}  // namespace

bool GoogleStateSections::WritePairs(const std::atomic<bool>* stop,
                                     const std::unordered_map<std::string, std::string>& pairs,
                                     std::size_t check_every, const char* stop_text,
                                     std::ostream& out) {
  std::size_t entry = 0;
  for (const auto& [first, second] : pairs) {
    if (Stopped(stop, entry++, check_every, stop_text)) {
      return false;
    }
    out << first << '\n' << second << '\n';
  }
  return static_cast<bool>(out);
}

bool GoogleStateSections::ReadPairs(const std::atomic<bool>* stop, std::istream& in,
                                    const std::string& end_marker, const char* stop_text,
                                    const std::function<void(std::string&&, std::string&&)>& take) {
  std::string first;
  std::string second;
  for (std::size_t entry = 0;; ++entry) {
    if (Stopped(stop, entry, kReadStopCheckEvery, stop_text) || !std::getline(in, first)) {
      return false;
    }
    if (first == end_marker) {
      return true;
    }
    if (!std::getline(in, second)) {
      return false;
    }
    take(std::move(first), std::move(second));
  }
}
