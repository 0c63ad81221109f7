// RemoteBoxUtils: what every request of the Box adapter goes through. One JSON request on a
// URLProcessor, the one map from Box's answers to FileSystem::Result, the rate limit gate, and
// the walk over the pages of a folder's items.
//
//   rest_api::BoxAnswer answer = rest_api::SendJsonRequest(*processor, request);
//   FileSystem::Result result = rest_api::GetResultFromBoxAnswer(answer);
//   if (result == FileSystem::SUCCEEDED && answer.json) { ... }
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "core/FileSystem.h"
#include "core/Json.h"
#include "core/URLProcessor.h"
#include "services/BoxItems.h"

namespace rest_api {

struct BoxAnswer {
  URLProcessor::Result transfer = URLProcessor::Result::NETWORK_FAILED;
  int code = 0;
  std::optional<utils::json::json_tree> json;  // when the body was JSON
  bool empty_body = true;
  std::string retry_after;  // the "Retry-After" header, when given
};

// Bodies beyond this are no answer of Box's API.
constexpr std::uint64_t kMaxAnswerBytes = 64ull << 20;

// Sends `request`, reads the whole answer and parses it as JSON when there is one.
BoxAnswer SendJsonRequest(URLProcessor& processor, const URLProcessor::Request& request);
// The same for a body streamed from `data`, which is not copied.
BoxAnswer SendJsonUpload(URLProcessor& processor, const URLProcessor::Request& request,
                         const std::uint8_t* data, std::size_t size);
// Reads the rest of an answer whose head came (`sent`), and ends the request.
BoxAnswer ReadAnswer(URLProcessor& processor, bool sent);
// The answer as a Result, by its HTTP code and Box's "code".
FileSystem::Result GetResultFromBoxAnswer(const BoxAnswer& answer);
// Whether a part went up (200 or 201); logs "Failed upload part of file." when it didn't.
bool CheckUploadedPart(const BoxAnswer& answer);

// Once Box asked to slow down, every later query pauses first.
class RateLimitGate {
 public:
  // A sticky gate stays raised once raised (a tree download throttles to its end).
  explicit RateLimitGate(bool sticky = false) : sticky_(sticky) {}
  // Logs "Rate limit." and raises the gate.
  void Raise();
  // The service answered without a limit again.
  void Lower() {
    if (!sticky_)
      raised_.store(false);
  }
  bool IsRaised() const { return raised_.load(); }
  // While raised: logs, then waits 1000 to 2499 ms on the clock. True when stopped.
  bool PauseIfLimited(const std::atomic<bool>* stop);

 private:
  const bool sticky_;
  std::atomic<bool> raised_{false};
};

// Sends `request` through the gate; a 429 raises it and the request goes again, up to a bound.
BoxAnswer SendThroughGate(URLProcessor& processor, const URLProcessor::Request& request,
                          RateLimitGate* gate, const std::atomic<bool>* stop);

// Walks the pages of a folder listing that starts at `url`: on by "marker=" while a
// "next_marker" is given, by "offset=" where the server pages by offset. `on_page` false ends the
// walk early with SUCCEEDED.
FileSystem::Result ForEachItemsPage(URLProcessor& processor, const std::string& url,
                                    RateLimitGate* gate, const std::atomic<bool>* stop,
                                    const std::function<bool(const BoxItemsPage&)>& on_page);

// JSON texts of request bodies: numbers stay numbers.
std::string JsonQuoted(const std::string& text);
// {"name":"...","parent":{"id":"..."}} and any members given after.
std::string NameAndParentJson(const std::string& name, const std::string& parent_id,
                              const std::string& more = std::string());
// RFC 3339 in UTC, as Box takes times.
std::string BoxTimeText(std::uint64_t seconds);

}  // namespace rest_api
