// rest_api::MultiThreadWorker: the requests of one level of a tree download, side by side on
// the global QThreadPool, which it holds at 4 threads for its life and then gives back its old
// count. Each request runs the adapter's fetch function; the results come back all at once.
//
//   rest_api::MultiThreadWorker worker(fetch);
//   worker.SetUrls(level_urls);
//   QList<rest_api::MultiThreadWorker::RequestResult> results = worker.MakeRequests();
#pragma once

#include <QList>
#include <QObject>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "core/FileSystem.h"
#include "services/BoxItems.h"

namespace rest_api {

class MultiThreadWorker : public QObject {
 public:
  static constexpr int kThreads = 4;

  struct RequestResult {
    FileSystem::Result result = FileSystem::FAILED;
    std::shared_ptr<std::vector<BoxItemsPage>> pages;
  };
  using Fetch = std::function<RequestResult(const std::string& url)>;

  explicit MultiThreadWorker(Fetch fetch);
  ~MultiThreadWorker() override;
  MultiThreadWorker(const MultiThreadWorker&) = delete;
  MultiThreadWorker& operator=(const MultiThreadWorker&) = delete;

  void SetUrls(QList<std::string> urls) { urls_ = std::move(urls); }
  // Runs every URL of the level and blocks until all are answered.
  QList<RequestResult> MakeRequests();

 private:
  QList<std::string> urls_;
  Fetch fetch_;
  int previous_max_threads_;
};

}  // namespace rest_api
