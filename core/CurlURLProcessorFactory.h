// CurlURLProcessorFactory: makes CurlURLProcessor objects that carry one account's credentials.
//
//   auto factory = std::make_shared<CurlURLProcessorFactory>(
//       std::make_shared<core::cookie::CookieOAuth>(token));
//   std::shared_ptr<URLProcessor> http = factory->Create();
#pragma once

#include <memory>

#include "core/URLProcessor.h"

class CurlURLProcessorFactory : public URLProcessorFactory {
 public:
  // `verify_tls` false accepts any certificate: only for a loopback test server.
  explicit CurlURLProcessorFactory(std::shared_ptr<const core::cookie::Cookie> cookie,
                                   bool verify_tls = true);
  std::shared_ptr<URLProcessor> Create() override;

 private:
  std::shared_ptr<const core::cookie::Cookie> cookie_;
  bool verify_tls_;
};
