// rest_api::ProcessorPool: the HTTP clients of one adapter for requests that run side by side.
// A request takes a client and gives it back, so connections are kept between requests; Stop
// reaches every client, lent or not.
//
//   std::shared_ptr<URLProcessor> client = pool.Take();
//   ... client->Send(request) ...
//   pool.Give(client);
#pragma once

#include <memory>
#include <mutex>
#include <vector>

#include "core/URLProcessor.h"

namespace rest_api {

class ProcessorPool {
 public:
  void SetFactory(std::shared_ptr<URLProcessorFactory> factory);
  // A client ready for a request; null (logged) when none can be opened.
  std::shared_ptr<URLProcessor> Take();
  void Give(std::shared_ptr<URLProcessor> processor);
  void StopAll();
  void StartAll();
  void CloseAll();

 private:
  std::mutex mutex_;
  std::shared_ptr<URLProcessorFactory> factory_;
  std::vector<std::shared_ptr<URLProcessor>> all_;
  std::vector<std::shared_ptr<URLProcessor>> idle_;
  bool stopped_ = false;
};

}  // namespace rest_api
