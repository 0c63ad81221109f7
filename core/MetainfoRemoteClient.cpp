#include "core/MetainfoRemoteClient.h"

#include "core/LoggerWrapper.h"
#include "core/URLProcessor.h"

MetainfoRemoteClient::MetainfoRemoteClient(std::shared_ptr<RemoteFileSystemSharedData> shared_data,
                                           std::shared_ptr<URLProcessorFactory> url_factory,
                                           const char* stopped_text)
    : shared_data_(std::move(shared_data)),
      url_factory_(std::move(url_factory)),
      stopped_text_(stopped_text) {
  if (url_factory_) {
    http_ = url_factory_->Create();
  }
  if (!http_ || !http_->Open(nullptr)) {
    LOG_ERROR << "Failed to open http client.";
    http_.reset();
  }
}

MetainfoRemoteClient::~MetainfoRemoteClient() {
  if (http_) {
    http_->Close();
  }
}

void MetainfoRemoteClient::Start() {
  stopped_ = false;
  if (http_) {
    http_->Start();
  }
}

void MetainfoRemoteClient::Stop() {
  stopped_ = true;
  if (http_) {
    http_->Stop();
  }
}

bool MetainfoRemoteClient::CheckStopped() const {
  if (!stopped_) {
    return false;
  }
  LOG_NOTICE << stopped_text_;
  return true;
}
