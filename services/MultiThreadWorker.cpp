#include "services/MultiThreadWorker.h"

#include <QThreadPool>
#include <QtConcurrent/QtConcurrentMap>

namespace rest_api {

MultiThreadWorker::MultiThreadWorker(Fetch fetch)
    : fetch_(std::move(fetch)),
      previous_max_threads_(QThreadPool::globalInstance()->maxThreadCount()) {
  QThreadPool::globalInstance()->setMaxThreadCount(kThreads);
}

MultiThreadWorker::~MultiThreadWorker() {
  QThreadPool::globalInstance()->setMaxThreadCount(previous_max_threads_);
}

QList<MultiThreadWorker::RequestResult> MultiThreadWorker::MakeRequests() {
  std::function<RequestResult(const std::string&)> map = fetch_;
  std::function<void(QList<RequestResult>&, const RequestResult&)> reduce =
      [](QList<RequestResult>& all, const RequestResult& one) { all.push_back(one); };
  QFuture<QList<RequestResult>> future =
      QtConcurrent::mappedReduced<QList<RequestResult>>(urls_, map, reduce);
  future.waitForFinished();
  return future.result();
}

}  // namespace rest_api
