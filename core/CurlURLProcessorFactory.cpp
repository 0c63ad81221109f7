#include "core/CurlURLProcessorFactory.h"

#include "core/CurlURLProcessor.h"

CurlURLProcessorFactory::CurlURLProcessorFactory(std::shared_ptr<const core::cookie::Cookie> cookie,
                                                 bool verify_tls)
    : cookie_(std::move(cookie)), verify_tls_(verify_tls) {}

std::shared_ptr<URLProcessor> CurlURLProcessorFactory::Create() {
  return std::make_shared<CurlURLProcessor>(cookie_, verify_tls_);
}
