#include "core/DispatcherUrl.h"

#include "core/PercentEncoding.h"

namespace {

void AppendEncoded(const std::string& text, DispatcherUrl::ValueEncodingMode mode,
                   std::string* out) {
  switch (mode) {
    case DispatcherUrl::ValueEncodingMode::kAsIs:
      out->append(text);
      return;
    case DispatcherUrl::ValueEncodingMode::kPath:
      utils::PercentEncode(text, out, true);
      return;
    case DispatcherUrl::ValueEncodingMode::kSegment:
    case DispatcherUrl::ValueEncodingMode::kQueryValue:
      utils::PercentEncode(text, out, false);
      return;
  }
}

}  // namespace

DispatcherUrl DispatcherUrl::FromString(const std::string& url) {
  DispatcherUrl result;
  std::size_t question = url.find('?');
  result.base_ = url.substr(0, question);
  if (question != std::string::npos) {
    result.query_ = url.substr(question + 1);
  }
  return result;
}

DispatcherUrl& DispatcherUrl::Append(const std::string& segment, ValueEncodingMode mode) {
  AppendEncoded(segment, mode, &base_);
  return *this;
}

DispatcherUrl& DispatcherUrl::AppendParam(const char* key, const std::string& value,
                                          ValueEncodingMode mode) {
  if (!query_.empty()) {
    query_.push_back('&');
  }
  query_.append(key);
  query_.push_back('=');
  AppendEncoded(value, mode, &query_);
  return *this;
}

std::string DispatcherUrl::Url() const {
  return query_.empty() ? base_ : base_ + "?" + query_;
}
