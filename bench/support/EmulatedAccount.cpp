#include "support/EmulatedAccount.h"

#include <stdexcept>

#include "core/Cookie.h"
#include "core/CurlURLProcessorFactory.h"
#include "core/Endpoints.h"
#include "services/RemoteFSFactoryConstructor.h"

namespace bench {

EmulatedAccount::EmulatedAccount(const std::string& service, CloudServiceId id) {
  std::string error;
  emulator_ = emulators::Emulator::Start(service, 0, &error);
  if (!emulator_)
    throw std::runtime_error("the " + service + " emulator did not start: " + error);
  for (const auto& [name, url] : emulator_->Endpoints())
    Endpoints::Override(name, url);
  factory_.reset(H6BA54F7D00(id, std::string()));
  if (!factory_)
    throw std::runtime_error("the library has no factory for " + service);
}

EmulatedAccount::~EmulatedAccount() {
  factory_.reset();
  emulator_.reset();
  Endpoints::ResetOverrides();
}

std::unique_ptr<RemoteFileSystem> EmulatedAccount::Open() {
  std::unique_ptr<RemoteFileSystem> fs(factory_->Create());
  auto urls = std::make_shared<CurlURLProcessorFactory>(
      std::make_shared<core::cookie::CookieOAuth>(kToken));
  if (!fs || !fs->Open(urls))
    return nullptr;
  return fs;
}

}  // namespace bench
