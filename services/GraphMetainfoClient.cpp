#include "services/GraphMetainfoClient.h"

#include "core/DispatcherUrl.h"
#include "core/Endpoints.h"
#include "core/LoggerWrapper.h"
#include "core/URLProcessor.h"
#include "services/RemoteFileSystemOneDrive.h"

FileSystem::Result GraphMetainfoClient::Get(const std::string& path, const std::string& select,
                                            utils::json::json_tree* reply) {
  // A link the service gave is followed only to the Graph host: the token goes with it.
  const std::string base = Endpoints::Get(Endpoints::kMicrosoftGraph);
  const bool whole = path.compare(0, base.size(), base) == 0;
  DispatcherUrl url = DispatcherUrl::FromString(whole ? path : base + path);
  if (!select.empty())
    url.AppendParam("$select", select, DispatcherUrl::ValueEncodingMode::kQueryValue);
  return Run("GET", url, std::string(), reply);
}

FileSystem::Result GraphMetainfoClient::Patch(const std::string& path, const std::string& body,
                                              utils::json::json_tree* reply) {
  return Run("PATCH", DispatcherUrl::FromString(Endpoints::Get(Endpoints::kMicrosoftGraph) + path),
             body, reply);
}

FileSystem::Result GraphMetainfoClient::Run(const std::string& verb, const DispatcherUrl& url,
                                            const std::string& body,
                                            utils::json::json_tree* reply) {
  // 1. The request and its answer as JSON.
  URLProcessor::Request request;
  request.verb = verb;
  request.url = url;
  request.body = body;
  if (!body.empty())
    request.content_type = "application/json";
  std::string error;
  bool parsed = false;
  if (http_->Send(request))
    parsed = utils::json::ReadAndParse(http_->GetInputStream(), reply, &error);
  const URLProcessor::Result result = http_->Finish();
  // 2. The verdict.
  if (result == URLProcessor::Result::STOPPED) {
    LOG_INFO << "Stopped.";
    return FileSystem::STOPPED;
  }
  const int code = http_->GetResponseCode();
  if (result == URLProcessor::Result::OK && parsed)
    return FileSystem::SUCCEEDED;
  LOG_ERROR << (verb == "PATCH" ? "Patch request failed: " : "Get request failed: ") << result
            << " " << error;
  LOG_ERROR << "Last response code: " << code << " " << utils::json::ToString(*reply, false);
  if (URLProcessor::IsNetworkError(result) || result == URLProcessor::Result::OK)
    return FileSystem::FAILED;
  return RemoteFileSystemOneDrive::ResultOfHttpCode(code);
}
