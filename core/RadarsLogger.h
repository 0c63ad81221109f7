// RadarsLogger: the metrics sink. A metric is a named event with a value, sent from any thread.
//
//   RadarsLogger::instance().SendMetric("webdav_remote_invalid_hash", "1", 1);
//
// The library only emits metrics; where they go is the host application's business (a callback).
// Tests take them with RadarsLogger::Capture.
#pragma once

#include <QJsonObject>

#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "core/URLProcessorResult.h"

class RadarsLogger {
 public:
  struct Metric {
    std::string name;
    std::string value;
    int count = 1;
  };
  using Sink = std::function<void(const Metric&)>;

  static RadarsLogger& instance();

  void SendMetric(std::string_view name, std::string_view value, int count);
  void SendMetric(std::string_view name, int value, std::string_view key, QJsonObject&& object,
                  std::string_view key2, QJsonObject&& object2);
  // Sends `name` only when `result` is a network failure; the code and the URL go in the value.
  void SendIfNetworkError(URLProcessorResult result, const std::string& name, int http_code,
                          const std::string& url);

  void SetSink(Sink sink);

  class Capture {
   public:
    Capture();
    ~Capture();
    Capture(const Capture&) = delete;
    Capture& operator=(const Capture&) = delete;
    std::vector<Metric> Metrics() const;
    // How many metrics of this name were sent.
    std::size_t Count(std::string_view name) const;
    void Clear();

   private:
    friend class RadarsLogger;
    void Add(const Metric& metric);
    mutable std::mutex mutex_;
    std::vector<Metric> metrics_;
  };

 private:
  RadarsLogger() = default;
  void Emit(Metric metric);

  std::mutex mutex_;
  Sink sink_;
  std::vector<Capture*> captures_;
};
