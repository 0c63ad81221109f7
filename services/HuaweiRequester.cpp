#include "services/HuaweiRequester.h"

#include "core/Endpoints.h"
#include "core/Json.h"
#include "core/LoggerWrapper.h"
#include "core/StringUtils.h"
#include "services/RemoteHuaweiUtils.h"

namespace {

constexpr std::uint32_t kReadBlock = 64 * 1024;

bool ReadJson(URLProcessor& http, utils::json::json_tree* json) {
  std::string body;
  http.GetInputStream()->ReadAllTo(&body, kReadBlock);
  std::string error;
  if (utils::json::Parse(body, json, &error)) {
    return true;
  }
  if (!body.empty()) {
    LOG_WARNING << utils::SafePrintBinary(body.substr(0, 1024));
  }
  return false;
}

}  // namespace

DispatcherUrl HuaweiRequester::ApiUrl(const std::string& path) {
  return DispatcherUrl::FromString(Endpoints::Get(Endpoints::kHuaweiDrive) + huawei::kApiPath +
                                   path);
}

DispatcherUrl HuaweiRequester::UploadUrl(const std::string& path) {
  return DispatcherUrl::FromString(Endpoints::Get(Endpoints::kHuaweiDrive) + huawei::kUploadPath +
                                   path);
}

FileSystem::Result HuaweiRequester::Check(URLProcessor::Result result, bool parsed,
                                          const utils::json::json_tree& json) {
  if (result == URLProcessor::Result::STOPPED) {
    LOG_INFO << "Stopped.";
    return FileSystem::STOPPED;
  }
  const int code = http_->GetResponseCode();
  LOG_INFO << "Last response code: " << code << ".";
  if (code == 401) {
    LOG_WARNING << "Authorization expired.";
  }
  if (IsNetworkErrorResult(result) || code == 0) {
    return FileSystem::FAILED;
  }
  if (!URLProcessor::IsSuccessHttpCode(code)) {
    return huawei::ResultFromHttp(code, parsed ? huawei::ErrorCodeOf(json) : std::string());
  }
  return FileSystem::SUCCEEDED;
}

FileSystem::Result HuaweiRequester::Get(const DispatcherUrl& url, utils::json::json_tree* json) {
  URLProcessor::Request request;
  request.url = url;
  bool parsed = http_->Send(request) && ReadJson(*http_, json);
  const URLProcessor::Result result = http_->Finish();
  FileSystem::Result answer = Check(result, parsed, *json);
  if (answer == FileSystem::SUCCEEDED && !parsed) {
    LOG_ERROR << "Failed get resourse.";
    return FileSystem::FAILED;
  }
  if (answer != FileSystem::SUCCEEDED && answer != FileSystem::STOPPED) {
    LOG_WARNING << "Failed get resourse.";
  }
  return answer;
}

FileSystem::Result HuaweiRequester::Send(const std::string& verb, const DispatcherUrl& url,
                                         const std::string& body, utils::json::json_tree* json,
                                         const std::vector<std::string>& headers) {
  URLProcessor::Request request;
  request.verb = verb;
  request.url = url;
  request.body = body;
  request.content_type = "application/json";
  request.headers = headers;
  bool parsed = http_->Send(request) && ReadJson(*http_, json);
  const URLProcessor::Result result = http_->Finish();
  FileSystem::Result answer = Check(result, parsed, *json);
  if (answer == FileSystem::SUCCEEDED && !parsed) {
    LOG_ERROR << "Failed to read JSON.";
    return FileSystem::FAILED;
  }
  return answer;
}

FileSystem::Result HuaweiRequester::ListAll(
    const std::string& query, const std::string& fields,
    const std::function<bool(const utils::json::json_tree&)>& item, bool by_creation) {
  std::string cursor;
  do {
    // 1. One page.
    DispatcherUrl url = ApiUrl("/files");
    url.AppendParam("fields", fields, DispatcherUrl::ValueEncodingMode::kQueryValue);
    if (by_creation) {
      url.AppendParam("orderBy", "createdTime", DispatcherUrl::ValueEncodingMode::kAsIs);
    }
    url.AppendParam("queryParam", query, DispatcherUrl::ValueEncodingMode::kQueryValue);
    if (!cursor.empty()) {
      url.AppendParam("cursor", cursor, DispatcherUrl::ValueEncodingMode::kQueryValue);
    }
    utils::json::json_tree page;
    FileSystem::Result result = Get(url, &page);
    if (result != FileSystem::SUCCEEDED) {
      if (URLProcessor::IsSuccessHttpCode(LastCode())) {
        LOG_ERROR << "Failed read listing response.";
      }
      return result;
    }
    // 2. Its files, then the next cursor.
    auto files = utils::json::Child(page, "files");
    if (!files && !page.empty()) {
      LOG_ERROR << "Failed read listing response.";
      return FileSystem::FAILED;
    }
    if (files) {
      for (const auto& file : *files) {
        if (!item(file.second)) {
          return FileSystem::FAILED;
        }
      }
    }
    cursor = page.get("nextCursor", "");
  } while (!cursor.empty());
  return FileSystem::SUCCEEDED;
}

FileSystem::Result HuaweiRequester::GetItem(const std::string& id, huawei::Item* item) {
  DispatcherUrl url = ApiUrl("/files/");
  url.Append(id, DispatcherUrl::ValueEncodingMode::kSegment);
  url.AppendParam("fields", "*", DispatcherUrl::ValueEncodingMode::kAsIs);
  utils::json::json_tree json;
  FileSystem::Result result = Get(url, &json);
  if (result != FileSystem::SUCCEEDED) {
    return result;
  }
  std::string error;
  if (!huawei::ParseItem(json, item, &error)) {
    LOG_ERROR << error;
    return FileSystem::FAILED;
  }
  return FileSystem::SUCCEEDED;
}

FileSystem::Result HuaweiRequester::FindFolder(const std::string& name,
                                               const std::string& parent_id, std::string* id) {
  id->clear();
  const std::string query = "fileName=" + huawei::QuoteLiteral(name) + " and mimeType='" +
                            huawei::kFolderMime + "' and " + huawei::QuoteLiteral(parent_id) +
                            " in parentFolder";
  return ListAll(query, "files(id,recycled)", [id](const utils::json::json_tree& file) {
    if (id->empty() && file.get("recycled", "false") != "true") {
      *id = file.get("id", "");
    }
    return true;
  });
}
