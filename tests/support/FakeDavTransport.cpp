#include "support/FakeDavTransport.h"

#include <algorithm>

class FakeDavProcessor : public URLProcessor {
 public:
  explicit FakeDavProcessor(FakeDavTransport* transport, bool failOpen)
      : transport_(transport), failOpen_(failOpen) {}

  bool Open(std::string* responseHeaders) override {
    if (failOpen_) {
      return false;
    }
    responseHeaders_ = responseHeaders;
    std::lock_guard<std::mutex> lock(transport_->mutex_);
    ++transport_->open_;
    return true;
  }
  Result Close() override {
    std::lock_guard<std::mutex> lock(transport_->mutex_);
    --transport_->open_;
    return Result::OK;
  }
  void SetNoResponseHeadersBuffer() override { responseHeaders_ = nullptr; }
  void SetTimeoutSec(int) override {}
  void SetHttpVersion(int) override {}
  void SetCompression(bool) override {}
  void SetUserAgent(const std::string& agent) override { agent_ = agent; }
  std::string GetUserAgent() const override { return agent_; }

  bool Send(const Request& request) override {
    url_ = request.url.Url();
    code_ = 0;
    const FakeDavTransport::Reply reply = transport_->Take(request.verb, url_);
    if (reply.hangUntilStopped) {
      std::unique_lock<std::mutex> lock(mutex_);
      stopCondition_.wait(lock, [this] { return stopped_; });
    }
    if (IsStopped()) {
      last_ = Result::STOPPED;
      return false;
    }
    code_ = reply.code;
    headers_ = "HTTP/1.1 " + std::to_string(reply.code) + " X\r\n" + reply.headers + "\r\n";
    if (responseHeaders_) {
      *responseHeaders_ = headers_;
    }
    body_ = std::make_unique<MemoryInputStream>(reply.body);
    return true;
  }
  bool BeginUpload(const Request&, std::uint64_t) override { return false; }
  OutputStream* GetOutputStream() override { return nullptr; }
  InputStream* GetInputStream() override { return body_.get(); }
  Result Finish() override {
    body_.reset();
    last_ = IsStopped() ? Result::STOPPED : ResultFromHttpCode(code_);
    return last_;
  }
  int GetResponseCode() const override { return code_; }
  const std::string& GetResponseHeaders() const override { return headers_; }
  Result GetLastResult() const override { return last_; }
  std::string GetUrl() const override { return url_; }
  std::shared_ptr<const core::cookie::Cookie> GetAuthorization() const override { return nullptr; }

  void Stop() override {
    std::lock_guard<std::mutex> lock(mutex_);
    stopped_ = true;
    stopCondition_.notify_all();
  }
  void Start() override {
    std::lock_guard<std::mutex> lock(mutex_);
    stopped_ = false;
  }

 private:
  bool IsStopped() {
    std::lock_guard<std::mutex> lock(mutex_);
    return stopped_;
  }

  FakeDavTransport* transport_;
  bool failOpen_;
  std::string* responseHeaders_ = nullptr;
  std::string agent_;
  std::string url_;
  int code_ = 0;
  std::string headers_;
  std::unique_ptr<MemoryInputStream> body_;
  Result last_ = Result::OK;
  std::mutex mutex_;
  std::condition_variable stopCondition_;
  bool stopped_ = false;
};

void FakeDavTransport::SetReplies(const std::string& url, std::vector<Reply> replies) {
  std::lock_guard<std::mutex> lock(mutex_);
  replies_[url] = std::move(replies);
  served_[url] = 0;
}

std::shared_ptr<URLProcessor> FakeDavTransport::Create() {
  std::lock_guard<std::mutex> lock(mutex_);
  ++processors_;
  return std::make_shared<FakeDavProcessor>(this, failOpen_);
}

FakeDavTransport::Reply FakeDavTransport::Take(const std::string& verb, const std::string& url) {
  std::lock_guard<std::mutex> lock(mutex_);
  requests_.push_back(verb + " " + url);
  auto it = replies_.find(url);
  if (it == replies_.end() || it->second.empty()) {
    return Reply{404, "", "", false};
  }
  std::size_t& served = served_[url];
  const Reply& reply = it->second[std::min(served, it->second.size() - 1)];
  ++served;
  return reply;
}

std::vector<std::string> FakeDavTransport::Requests() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return requests_;
}

std::size_t FakeDavTransport::RequestCount(const std::string& url) const {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = served_.find(url);
  return it == served_.end() ? 0 : it->second;
}

std::size_t FakeDavTransport::ProcessorCount() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return processors_;
}

int FakeDavTransport::OpenProcessors() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return open_;
}
