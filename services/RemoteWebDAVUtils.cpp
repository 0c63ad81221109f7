#include "services/RemoteWebDAVUtils.h"

#include "core/Cookie.h"
#include "core/Endpoints.h"
#include "core/InputStream.h"
#include "core/LoggerWrapper.h"
#include "core/URLProcessor.h"

FileSystem::Result GetResultFromHttpCode(int code) {
  if (URLProcessor::IsSuccessHttpCode(code)) {
    return FileSystem::SUCCEEDED;
  }
  switch (code) {
    case 0:
      return FileSystem::FAILED;
    case 401:
      LOG_WARNING << "Authorization failed (401).";
      return FileSystem::AUTH_INVALID;
    case 403:
      LOG_WARNING << "Forbidden (403).";
      return FileSystem::ACCESS_DENIED;
    case 404:
      LOG_WARNING << "Not found (404).";
      return FileSystem::CONFLICT;
    case 405:
      LOG_WARNING << "Method not allowed (405).";
      return FileSystem::ACCESS_DENIED;
    case 409:
      LOG_WARNING << "Collection conflict (409).";
      return FileSystem::CONFLICT;
    case 412:
      LOG_WARNING << "Precondition failed (412).";
      return FileSystem::CONFLICT;
    case 413:
      LOG_WARNING << "Entity too large (413).";
      return FileSystem::TOO_LARGE;
    case 414:
      LOG_WARNING << "URI too long (414).";
      return FileSystem::BADNAM;
    case 423:
      LOG_WARNING << "Locked (423).";
      return FileSystem::FAILED;
    case 425:
    case 507:
      LOG_WARNING << "Out of space (" << code << ").";
      return FileSystem::NO_SPACE;
    default:
      LOG_WARNING << "Failed with HTTP code " << code;
      return FileSystem::FAILED;
  }
}

FileSystem::Result GetResultFromHttpCodeOrFailed(int code) {
  const FileSystem::Result result = GetResultFromHttpCode(code);
  return result == FileSystem::SUCCEEDED ? FileSystem::FAILED : result;
}

DispatcherUrl GetBaseUrlFromCookie(URLProcessor* urlProcessor) {
  auto cookie = std::dynamic_pointer_cast<const core::cookie::CookieWebDAVBase>(
      urlProcessor->GetAuthorization());
  if (!cookie) {
    LOG_ERROR << "Invalid Auth cookie type.";
    return DispatcherUrl();
  }
  DispatcherUrl url = DispatcherUrl::FromString(cookie->GetServer());
  const std::string text = url.Url();
  if (text.find(kPCloudWebDavHost) != std::string::npos ||
      text.find(kPCloudEuropeWebDavHost) != std::string::npos) {
    urlProcessor->SetTimeoutSec(kPCloudRequestTimeoutSec);
  }
  if (url.IsEmpty()) {
    LOG_ERROR << "No base url.";
  }
  return url;
}

DispatcherUrl GetYandexWebDavUrl() {
  return DispatcherUrl::FromString(Endpoints::Get(Endpoints::kYandexWebDAV));
}

std::string PathBelowMount(const std::string& mountedRoot, const std::string& path) {
  std::string full;
  if (!mountedRoot.empty() && path != "/") {
    full = mountedRoot;
  }
  if (!path.empty() && path.front() != '/') {
    full += "/";
  }
  full += path;
  while (!full.empty() && full.back() == '/') {
    full.pop_back();
  }
  return full;
}

std::string ReadAnswerPrefix(InputStream* input, std::uint32_t limit) {
  std::string text(limit, '\0');
  std::uint32_t filled = 0;
  while (input && filled < limit) {
    std::uint32_t done = 0;
    if (input->Read(reinterpret_cast<std::uint8_t*>(&text[filled]), limit - filled, &done) !=
        InputStream::Result::OK) {
      break;
    }
    filled += done;
  }
  text.resize(filled);
  return text;
}
