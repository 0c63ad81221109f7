#include "core/Endpoints.h"

#include <map>
#include <mutex>

namespace {

const std::map<std::string, std::string>& Defaults() {
  static const std::map<std::string, std::string> defaults = {
      {Endpoints::kGoogleDrive, "https://www.googleapis.com"},
      {Endpoints::kDropboxApi, "https://api.dropboxapi.com"},
      {Endpoints::kDropboxContent, "https://content.dropboxapi.com"},
      {Endpoints::kDropboxNotify, "https://notify.dropboxapi.com"},
      {Endpoints::kMicrosoftGraph, "https://graph.microsoft.com/v1.0"},
      {Endpoints::kYandexWebDAV, "https://webdav.yandex.ru"},
      {Endpoints::kYandexRest, "https://cloud-api.yandex.net"},
      {Endpoints::kBoxApi, "https://api.box.com"},
      {Endpoints::kBoxUpload, "https://upload.box.com/api"},
      {Endpoints::kHuaweiDrive, "https://driveapis.cloud.huawei.com.cn"},
  };
  return defaults;
}

std::mutex& OverridesMutex() {
  static std::mutex mutex;
  return mutex;
}

std::map<std::string, std::string>& Overrides() {
  static std::map<std::string, std::string> overrides;
  return overrides;
}

}  // namespace

std::string Endpoints::Get(const std::string& name) {
  {
    std::lock_guard<std::mutex> lock(OverridesMutex());
    auto found = Overrides().find(name);
    if (found != Overrides().end()) {
      return found->second;
    }
  }
  auto found = Defaults().find(name);
  return found == Defaults().end() ? std::string() : found->second;
}

void Endpoints::Override(const std::string& name, const std::string& base_url) {
  std::string base = base_url;
  while (!base.empty() && base.back() == '/') {
    base.pop_back();
  }
  std::lock_guard<std::mutex> lock(OverridesMutex());
  Overrides()[name] = base;
}

void Endpoints::ResetOverrides() {
  std::lock_guard<std::mutex> lock(OverridesMutex());
  Overrides().clear();
}
