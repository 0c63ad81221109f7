#include "services/ProcessorPool.h"

#include "core/LoggerWrapper.h"

namespace rest_api {
namespace {
constexpr int kRequestTimeoutSec = 60;
}

void ProcessorPool::SetFactory(std::shared_ptr<URLProcessorFactory> factory) {
  std::lock_guard<std::mutex> lock(mutex_);
  factory_ = std::move(factory);
}

std::shared_ptr<URLProcessor> ProcessorPool::Take() {
  std::shared_ptr<URLProcessorFactory> factory;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!idle_.empty()) {
      std::shared_ptr<URLProcessor> processor = std::move(idle_.back());
      idle_.pop_back();
      return processor;
    }
    factory = factory_;
  }
  std::shared_ptr<URLProcessor> processor = factory ? factory->Create() : nullptr;
  if (!processor || !processor->Open(nullptr)) {
    LOG_ERROR << "Failed to open http client.";
    return nullptr;
  }
  processor->SetTimeoutSec(kRequestTimeoutSec);
  std::lock_guard<std::mutex> lock(mutex_);
  if (stopped_)
    processor->Stop();
  all_.push_back(processor);
  return processor;
}

void ProcessorPool::Give(std::shared_ptr<URLProcessor> processor) {
  std::lock_guard<std::mutex> lock(mutex_);
  idle_.push_back(std::move(processor));
}

void ProcessorPool::StopAll() {
  std::lock_guard<std::mutex> lock(mutex_);
  stopped_ = true;
  for (const auto& processor : all_)
    processor->Stop();
}

void ProcessorPool::StartAll() {
  std::lock_guard<std::mutex> lock(mutex_);
  stopped_ = false;
  for (const auto& processor : all_)
    processor->Start();
}

void ProcessorPool::CloseAll() {
  std::lock_guard<std::mutex> lock(mutex_);
  for (const auto& processor : idle_)
    processor->Close();
  all_.clear();
  idle_.clear();
}

}  // namespace rest_api
