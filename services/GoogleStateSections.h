// GoogleStateSections: the sections of pairs in the Google adapter's state file (documents,
// resource keys): two lines an entry, the section ended by a marker line that its caller writes.
//
//   GoogleStateSections::WritePairs(stop, docs_, 1, "Time for serialize google doc is over.", out);
//   GoogleStateSections::ReadPairs(stop, in, kSectionEnd, nullptr, [&](auto id, auto link) {...});
#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <iosfwd>
#include <string>
#include <unordered_map>

class GoogleStateSections {
 public:
  // The stop flag is looked at before every `check_every`-th entry; once raised, `stop_text` is
  // logged and the answer is false.
  static bool WritePairs(const std::atomic<bool>* stop,
                         const std::unordered_map<std::string, std::string>& pairs,
                         std::size_t check_every, const char* stop_text, std::ostream& out);
  // Pairs up to the line `end_marker`, each handed to `take`. False when the stream ends before
  // the marker, or the stop flag (looked at every 20 entries) is raised: then `stop_text` is
  // logged unless null.
  static bool ReadPairs(const std::atomic<bool>* stop, std::istream& in,
                        const std::string& end_marker, const char* stop_text,
                        const std::function<void(std::string&&, std::string&&)>& take);
};
