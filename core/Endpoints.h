// Endpoints: the base URL of every service host the adapters talk to, by name.
//
//   DispatcherUrl url = DispatcherUrl::FromString(Endpoints::Get(Endpoints::kGoogleDrive));
//   url.Append("/drive/v3/files", DispatcherUrl::ValueEncodingMode::kAsIs);
//
// Defaults are the services' public hosts. Override() points one name elsewhere (an emulator on
// loopback, a regional host) for the whole process until ResetOverrides().
#pragma once

#include <string>

class Endpoints {
 public:
  static constexpr const char* kGoogleDrive = "google.drive";
  static constexpr const char* kDropboxApi = "dropbox.api";
  static constexpr const char* kDropboxContent = "dropbox.content";
  static constexpr const char* kDropboxNotify = "dropbox.notify";
  static constexpr const char* kMicrosoftGraph = "microsoft.graph";
  static constexpr const char* kYandexWebDAV = "yandex.webdav";
  static constexpr const char* kYandexRest = "yandex.rest";
  static constexpr const char* kBoxApi = "box.api";
  static constexpr const char* kBoxUpload = "box.upload";
  static constexpr const char* kHuaweiDrive = "huawei.drive";

  // The base URL without a trailing "/"; empty for an unknown name.
  static std::string Get(const std::string& name);
  static void Override(const std::string& name, const std::string& base_url);
  static void ResetOverrides();
};
