#include "core/RadarsLogger.h"

#include <QJsonDocument>

RadarsLogger& RadarsLogger::instance() {
  static RadarsLogger* logger = new RadarsLogger();  // lives to the end: metrics come from any exit
  return *logger;
}

void RadarsLogger::SendMetric(std::string_view name, std::string_view value, int count) {
  Emit(Metric{std::string(name), std::string(value), count});
}

void RadarsLogger::SendMetric(std::string_view name, int value, std::string_view key,
                              QJsonObject&& object, std::string_view key2, QJsonObject&& object2) {
  QJsonObject details;
  if (!key.empty()) {
    details.insert(QString::fromUtf8(key.data(), static_cast<int>(key.size())), object);
  }
  if (!key2.empty()) {
    details.insert(QString::fromUtf8(key2.data(), static_cast<int>(key2.size())), object2);
  }
  std::string text = std::to_string(value);
  if (!details.isEmpty()) {
    text += ' ';
    text += QJsonDocument(details).toJson(QJsonDocument::Compact).toStdString();
  }
  Emit(Metric{std::string(name), std::move(text), 1});
}

void RadarsLogger::SendIfNetworkError(URLProcessorResult result, const std::string& name,
                                      int http_code, const std::string& url) {
  if (!IsNetworkErrorResult(result)) {
    return;
  }
  Emit(Metric{name, std::to_string(http_code) + ' ' + url, 1});
}

void RadarsLogger::SetSink(Sink sink) {
  std::lock_guard<std::mutex> lock(mutex_);
  sink_ = std::move(sink);
}

void RadarsLogger::Emit(Metric metric) {
  std::lock_guard<std::mutex> lock(mutex_);
  for (Capture* capture : captures_) {
    capture->Add(metric);
  }
  if (sink_) {
    sink_(metric);
  }
}

RadarsLogger::Capture::Capture() {
  RadarsLogger& logger = RadarsLogger::instance();
  std::lock_guard<std::mutex> lock(logger.mutex_);
  logger.captures_.push_back(this);
}

RadarsLogger::Capture::~Capture() {
  RadarsLogger& logger = RadarsLogger::instance();
  std::lock_guard<std::mutex> lock(logger.mutex_);
  for (auto it = logger.captures_.begin(); it != logger.captures_.end(); ++it) {
    if (*it == this) {
      logger.captures_.erase(it);
      break;
    }
  }
}

void RadarsLogger::Capture::Add(const Metric& metric) {
  std::lock_guard<std::mutex> lock(mutex_);
  metrics_.push_back(metric);
}

std::vector<RadarsLogger::Metric> RadarsLogger::Capture::Metrics() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return metrics_;
}

std::size_t RadarsLogger::Capture::Count(std::string_view name) const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::size_t count = 0;
  for (const Metric& metric : metrics_) {
    count += metric.name == name ? 1 : 0;
  }
  return count;
}

void RadarsLogger::Capture::Clear() {
  std::lock_guard<std::mutex> lock(mutex_);
  metrics_.clear();
}
