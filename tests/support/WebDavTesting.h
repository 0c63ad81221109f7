// Helpers of the WebDAV adapter tests: an adapter connected to a server by the account's cookie,
// and multistatus answers of the forms servers send.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "core/CurlURLProcessor.h"
#include "core/RemoteFileSystemSharedData.h"
#include "services/RemoteFileSystemWebDAV.h"

namespace test {

// A processor that remembers the time-outs it was given.
class TimeoutRecordingProcessor : public CurlURLProcessor {
 public:
  using CurlURLProcessor::CurlURLProcessor;
  void SetTimeoutSec(int seconds) override {
    timeouts.push_back(seconds);
    CurlURLProcessor::SetTimeoutSec(seconds);
  }
  std::vector<int> timeouts;
};

class RecordingProcessorFactory : public URLProcessorFactory {
 public:
  RecordingProcessorFactory(std::string server, std::string user = std::string(),
                            std::string password = std::string());
  std::shared_ptr<URLProcessor> Create() override;

  std::vector<std::shared_ptr<TimeoutRecordingProcessor>> made;

 private:
  std::shared_ptr<const core::cookie::Cookie> cookie_;
};

// An adapter of the generic WebDAV service, opened on `server` (the base URL of the share).
std::unique_ptr<RemoteFileSystemWebDAV> OpenWebDav(const std::string& server,
                                                   const std::string& root = std::string(),
                                                   const std::string& user = std::string(),
                                                   const std::string& password = std::string());

struct DavEntry {
  std::string href;
  bool folder = false;
  std::uint64_t size = 0;
  std::string etag;  // left out when empty
  std::string modified = "Tue, 14 Nov 2023 10:00:00 GMT";
};

// A 207 body listing `entries`, each with status 200.
std::string Multistatus(const std::vector<DavEntry>& entries);

}  // namespace test
