#include "services/RemoteGoogleUtils.h"

#include "core/Endpoints.h"
#include "core/HashCalculators.h"
#include "core/LoggerWrapper.h"
#include "core/RadarsLogger.h"

namespace google {

std::string WithQuery(const std::string& path, const QueryParams& params) {
  DispatcherUrl url = DispatcherUrl::FromString(path);
  for (const auto& [key, value] : params) {
    url.AppendParam(key.c_str(), value, DispatcherUrl::ValueEncodingMode::kQueryValue);
  }
  return url.Url();
}

HashGoogle HashFromHex(const std::string& text) {
  HashGoogle hash;
  if (text.size() != 2 * HashGoogle::kSize) {
    LOG_ERROR << "Invalid hash string.";
    return hash;
  }
  for (std::size_t i = 0; i < HashGoogle::kSize; ++i) {
    int high = HashGoogle::HexDigit(text[2 * i]);
    int low = HashGoogle::HexDigit(text[2 * i + 1]);
    if (high < 0 || low < 0) {
      LOG_ERROR << "Invalid symbol in FromHexString method.";
      return hash;
    }
    hash.data()[i] = static_cast<std::uint8_t>(high << 4 | low);
  }
  return hash;
}

HashGoogle HashOfBytes(const std::string& bytes) {
  HashCalculatorGoogle calculator;
  calculator.Begin();
  calculator.Feed(reinterpret_cast<const std::uint8_t*>(bytes.data()),
                  static_cast<std::uint32_t>(bytes.size()));
  return calculator.Finish().GetHashGoogle();
}

}  // namespace google

namespace {

// Drive documents its rate limits as 403 (userRateLimitExceeded, rateLimitExceeded) and as 429;
// each names a "Limit" in its body.
bool IsRateLimit(URLProcessorResult result, int http_code, const std::string& text) {
  bool limit_status = result == URLProcessorResult::FORBIDDEN || http_code == 429;
  return limit_status && text.find("Limit") != std::string::npos;
}

bool IsSuccess(URLProcessorResult result) {
  return result == URLProcessorResult::OK || result == URLProcessorResult::CREATED ||
         result == URLProcessorResult::ACCEPTED || result == URLProcessorResult::NO_CONTENT ||
         result == URLProcessorResult::PARTIAL_CONTENT;
}

}  // namespace

FileSystem::Result GoogleRequest(const std::string& path, const std::string& fields,
                                 URLProcessor* http, utils::json::json_tree* json_out,
                                 URLProcessorResult* result_out, bool* rate_limited_out,
                                 const char* api_base) {
  *rate_limited_out = false;
  // 1. The client and the URL.
  if (!http) {
    LOG_FATAL << "Not initialized.";
    *result_out = URLProcessorResult::NETWORK_FAILED;
    return FileSystem::FATAL;
  }
  DispatcherUrl url =
      DispatcherUrl::FromString(Endpoints::Get(Endpoints::kGoogleDrive) + api_base + path);
  if (!fields.empty()) {
    url.AppendParam("fields", fields, DispatcherUrl::ValueEncodingMode::kQueryValue);
  }
  // 2. The exchange.
  auto [json, result] = http->GetJSONAndResult(url, {});
  *result_out = result;
  json_out->clear();
  if (json) {
    json_out->swap(*json);
  }
  // 3. What it means.
  if (IsSuccess(result)) {
    if (!json) {
      LOG_ERROR << "Failed to read response.";
      return FileSystem::FAILED;
    }
    return FileSystem::SUCCEEDED;
  }
  if (result == URLProcessorResult::STOPPED) {
    LOG_INFO << "Stopped.";
    return FileSystem::STOPPED;
  }
  int http_code = http->GetResponseCode();
  std::string text = json ? utils::json::ToString(*json_out, false) : std::string();
  if (IsRateLimit(result, http_code, text)) {
    LOG_WARNING << "Got rate limit from Google, waiting...";
    *rate_limited_out = true;
    RadarsLogger::instance().SendMetric("ggl_rate_limit", "1", 1);
    return FileSystem::FAILED;
  }
  if (http_code == 401 && text.find("authError") != std::string::npos) {
    LOG_ERROR << text;
    LOG_ERROR << "Invalid authorization (token not accepted).";
    return FileSystem::FORBIDDEN;
  }
  if (http_code == 401) {
    LOG_ERROR << text;
    LOG_ERROR << "Recieved 401 http code.";
    return FileSystem::FORBIDDEN;
  }
  if (http_code == 400) {
    LOG_ERROR << text;
    LOG_ERROR << "Recieved 400 http code (invalid request).";
    return FileSystem::FAILED;
  }
  LOG_ERROR << text;
  LOG_ERROR << "Failed request: " << result;
  return FileSystem::FAILED;
}

FileSystem::Result MapGoogleFailure(URLProcessor* http, URLProcessorResult url_result) {
  int http_code = http ? http->GetResponseCode() : 0;
  if (http_code == 401) {
    LOG_ERROR << "Authorization failed.";
    return FileSystem::FORBIDDEN;
  }
  if (url_result == URLProcessorResult::NOT_FOUND) {
    LOG_ERROR << "Not found.";
    return FileSystem::CONFLICT;
  }
  if (url_result == URLProcessorResult::FORBIDDEN && http_code == 403) {
    LOG_ERROR << "Last command seems to be failed because of permissions violation.";
    return FileSystem::ACCESS_DENIED;
  }
  if (IsSuccess(url_result)) {
    return FileSystem::SUCCEEDED;
  }
  LOG_ERROR << "Failed: " << url_result << ", code " << http_code << ".";
  return FileSystem::FAILED;
}
