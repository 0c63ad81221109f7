#include "ServiceSession.h"

#include <dlfcn.h>

#include <map>
#include <mutex>
#include <vector>

#include "core/Cookie.h"
#include "core/CurlURLProcessorFactory.h"
#include "core/Endpoints.h"
#include "core/RemoteFileSystem.h"
#include "core/RemoteFileSystemFactory.h"
#include "core/SpecialDocsTypeRemoteReader.h"

namespace corvane {
namespace {

// The soname: the copy this program is linked with is the one the loader has mapped already, so
// the adapters and the core classes of the tool share one set of statics (endpoints, log sink).
constexpr const char* kLibraryName = "libcorvane_services.so";
constexpr const char* kEntryName = "H6BA54F7D00";

using Entry = RemoteFileSystemFactory* (*)(CloudServiceId, const std::string&);

bool IsWebDAV(CloudServiceId id) {
  return id == CloudServiceId::WEBDAV || id == CloudServiceId::PCLOUD;
}

std::shared_ptr<const core::cookie::Cookie> MakeCookie(CloudServiceId id, const Options& options,
                                                       std::string* error) {
  if (IsWebDAV(id)) {
    if (options.url.empty()) {
      *error = "--url (or CORVANE_URL) is needed for " + options.service;
      return nullptr;
    }
    return std::make_shared<core::cookie::CookieWebDAVBase>(options.url, options.user,
                                                            options.password);
  }
  if (options.token.empty()) {
    *error = "--token (or CORVANE_TOKEN) is needed for " + options.service;
    return nullptr;
  }
  return std::make_shared<core::cookie::CookieOAuth>(
      options.token, id == CloudServiceId::YANDEX ? core::cookie::CookieOAuth::kYandexScheme
                                                  : core::cookie::CookieOAuth::kBearer);
}

bool ApplyEndpoints(const Options& options, std::string* error) {
  for (const auto& [name, url] : options.endpoints) {
    if (Endpoints::Get(name).empty()) {
      *error = "unknown endpoint " + name;
      return false;
    }
    Endpoints::Override(name, url);
  }
  return true;
}

}  // namespace

// The core's transport, with an eye on how the adapter's requests ended.
class ServiceSession::ObservingFactory : public URLProcessorFactory {
 public:
  explicit ObservingFactory(std::shared_ptr<const core::cookie::Cookie> cookie)
      : curl_(std::move(cookie)) {}

  std::shared_ptr<URLProcessor> Create() override {
    std::shared_ptr<URLProcessor> processor = curl_.Create();
    std::lock_guard<std::mutex> lock(mutex_);
    made_.push_back(processor);
    return processor;
  }

  bool AnyUnanswered() const {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const std::weak_ptr<URLProcessor>& each : made_) {
      std::shared_ptr<URLProcessor> processor = each.lock();
      if (processor && processor->GetLastResult() == URLProcessor::Result::NETWORK_FAILED) {
        return true;
      }
    }
    return false;
  }

 private:
  CurlURLProcessorFactory curl_;
  mutable std::mutex mutex_;
  std::vector<std::weak_ptr<URLProcessor>> made_;
};

bool ServiceSession::ServiceUnreachable() const {
  return transport_ && transport_->AnyUnanswered();
}

std::optional<CloudServiceId> ServiceIdByName(const std::string& name) {
  static const std::map<std::string, CloudServiceId> ids = {
      {"webdav", CloudServiceId::WEBDAV},     {"pcloud", CloudServiceId::PCLOUD},
      {"google", CloudServiceId::GOOGLE},     {"dropbox", CloudServiceId::DROPBOX},
      {"onedrive", CloudServiceId::ONEDRIVE}, {"yandex", CloudServiceId::YANDEX},
      {"box", CloudServiceId::BOX},           {"huawei", CloudServiceId::HUAWEI},
  };
  auto found = ids.find(name);
  return found == ids.end() ? std::nullopt : std::optional<CloudServiceId>(found->second);
}

std::unique_ptr<ServiceSession> ServiceSession::Open(const Options& options, std::string* error) {
  // 1. The service and its credentials.
  if (options.service.empty()) {
    *error = "no service: give --service or set CORVANE_SERVICE";
    return nullptr;
  }
  std::optional<CloudServiceId> id = ServiceIdByName(options.service);
  if (!id) {
    *error = "unknown service " + options.service;
    return nullptr;
  }
  std::shared_ptr<const core::cookie::Cookie> cookie = MakeCookie(*id, options, error);
  if (!cookie || !ApplyEndpoints(options, error)) {
    return nullptr;
  }
  // 2. The library and its entry.
  std::unique_ptr<ServiceSession> session(new ServiceSession());
  session->library_ = dlopen(kLibraryName, RTLD_NOW);
  if (!session->library_) {
    *error = std::string("dlopen failed: ") + dlerror();
    return nullptr;
  }
  auto entry = reinterpret_cast<Entry>(dlsym(session->library_, kEntryName));
  if (!entry) {
    *error = std::string("dlsym failed: ") + dlerror();
    return nullptr;
  }
  // 3. The factory of the account, one adapter, and its connection.
  session->factory_.reset(entry(*id, options.root));
  if (!session->factory_) {
    *error = "the library has no adapter for " + options.service;
    return nullptr;
  }
  session->fs_.reset(session->factory_->Create());
  session->transport_ = std::make_shared<ObservingFactory>(cookie);
  if (!session->fs_ || !session->fs_->Open(session->transport_)) {
    *error = "the adapter of " + options.service + " refused to open the connection";
    return nullptr;
  }
  session->opened_ = true;
  return session;
}

ServiceSession::~ServiceSession() {
  if (opened_) {
    fs_->Close();
  }
  fs_.reset();
  factory_.reset();
  if (library_) {
    dlclose(library_);
  }
}

std::shared_ptr<SpecialDocsTypeRemoteReader> ServiceSession::DocsReader() const {
  return factory_->CreateSpecialDocsTypeRemoteReader(transport_);
}

}  // namespace corvane
