// A URLProcessorFactory whose processors answer from canned replies per URL, for tests of code
// that lists over several processors at once. A reply may hang until the processor is stopped.
//
//   FakeDavTransport transport;
//   transport.SetReplies("http://dav.test/a/", {{503, "Retry-After: 5\r\n"}, {207, "", body}});
//   auto processor = transport.Create();
#pragma once

#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "core/URLProcessor.h"

class FakeDavTransport : public URLProcessorFactory {
 public:
  struct Reply {
    int code = 207;
    std::string headers;  // extra header lines, each ending in "\r\n"
    std::string body;
    bool hangUntilStopped = false;
  };

  // Replies to requests of `url`, one per request in turn; the last one repeats.
  void SetReplies(const std::string& url, std::vector<Reply> replies);
  // Every processor made from now on fails to open.
  void FailOpen() { failOpen_ = true; }

  std::shared_ptr<URLProcessor> Create() override;

  // "VERB url" of each request sent so far, in order.
  std::vector<std::string> Requests() const;
  std::size_t RequestCount(const std::string& url) const;
  std::size_t ProcessorCount() const;
  // Processors that were opened and not closed again.
  int OpenProcessors() const;

 private:
  friend class FakeDavProcessor;
  Reply Take(const std::string& verb, const std::string& url);

  mutable std::mutex mutex_;
  std::map<std::string, std::vector<Reply>> replies_;
  std::map<std::string, std::size_t> served_;
  std::vector<std::string> requests_;
  std::size_t processors_ = 0;
  int open_ = 0;
  bool failOpen_ = false;
};
