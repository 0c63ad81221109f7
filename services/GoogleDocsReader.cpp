#include "services/GoogleDocsReader.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "core/Endpoints.h"
#include "core/LoggerWrapper.h"
#include "core/RadarsLogger.h"
#include "services/RemoteFileSystemGoogleSharedData.h"
#include "services/RemoteGoogleUtils.h"

namespace google {

const char* const kExportPreference[5] = {
    "application/vnd.openxmlformats-officedocument.wordprocessingml.document",
    "application/vnd.openxmlformats-officedocument.spreadsheetml.sheet",
    "application/vnd.openxmlformats-officedocument.presentationml.presentation",
    "image/jpeg",
    "application/pdf",
};

bool ChooseExportLink(const utils::json::json_tree& export_links, ExportLink* out) {
  // 1. The first preferred format the document has, else its first.
  out->url.clear();
  out->mime_type.clear();
  for (const char* mime : kExportPreference) {
    auto found = export_links.find(mime);
    if (found != export_links.not_found()) {
      out->url = found->second.data();
      out->mime_type = mime;
      break;
    }
  }
  if (out->url.empty() && !export_links.empty()) {
    out->url = export_links.begin()->second.data();
    out->mime_type = export_links.begin()->first;
  }
  // 2. The extension the link asks for.
  const std::string key = "exportFormat=";
  std::size_t at = out->url.find(key);
  out->extension = at == std::string::npos ? std::string() : out->url.substr(at + key.size());
  out->extension = out->extension.substr(0, out->extension.find('&'));
  return !out->url.empty() && !out->extension.empty();
}

}  // namespace google

namespace {

constexpr const char* kDocsQuery =
    "mimeType contains 'application/vnd.google-apps' and mimeType != "
    "'application/vnd.google-apps.folder' and trashed=false and 'me' in owners";

std::uint64_t ParseSize(const std::string& text) {
  if (text.empty() || text[0] < '0' || text[0] > '9') {
    return 0;
  }
  errno = 0;
  char* end = nullptr;
  unsigned long long value = std::strtoull(text.c_str(), &end, 10);
  return *end != '\0' || errno != 0 ? 0 : value;
}

}  // namespace

GoogleDocsReader::GoogleDocsReader(std::shared_ptr<RemoteFileSystemSharedData> shared_data,
                                   std::shared_ptr<URLProcessorFactory> url_factory)
    : SpecialDocsTypeRemoteReader(std::move(shared_data), std::move(url_factory)) {
  Start();
}

GoogleDocsReader::~GoogleDocsReader() {
  if (http_) {
    http_->Close();
  }
}

void GoogleDocsReader::Stop() {
  std::lock_guard<std::mutex> lock(http_mutex_);
  stopped_ = true;
  if (http_) {
    http_->Stop();
  }
}

void GoogleDocsReader::Start() {
  // 1. A client that exists goes on.
  {
    std::lock_guard<std::mutex> lock(http_mutex_);
    stopped_ = false;
    if (http_) {
      http_->Start();
      return;
    }
  }
  // 2. Else one is opened, outside the lock: a Stop meanwhile must not wait for the network.
  std::shared_ptr<URLProcessor> http = url_factory_ ? url_factory_->Create() : nullptr;
  if (!http || !http->Open(nullptr)) {
    LOG_ERROR << "Failed to open http client.";
    return;
  }
  std::lock_guard<std::mutex> lock(http_mutex_);
  if (stopped_) {
    http->Stop();
  }
  http_ = std::move(http);
}

bool GoogleDocsReader::LoadLinks() {
  if (!http_) {
    LOG_ERROR << "No http client.";
    return false;
  }
  std::string token;
  do {
    if (stopped_) {
      LOG_INFO << "Stopped.";
      return false;
    }
    if (!LoadPage(token, &token)) {
      LOG_ERROR << "Failed to get links for content.";
      return false;
    }
  } while (!token.empty());
  LOG_INFO << "Got links for google docs downloading.";
  return true;
}

bool GoogleDocsReader::LoadPage(const std::string& page_token, std::string* next_token) {
  // 1. One page of the account's documents.
  google::QueryParams params;
  if (!page_token.empty()) {
    params.emplace_back("pageToken", page_token);
  }
  params.insert(
      params.end(),
      {{"q", kDocsQuery}, {"pageSize", "999"}, {"orderBy", "folder"}, {"prettyPrint", "false"}});
  utils::json::json_tree json;
  URLProcessorResult result = URLProcessorResult::OK;
  bool rate_limited = false;
  if (GoogleRequest(google::WithQuery("/files", params),
                    "files(id, exportLinks, name, size),nextPageToken", http_.get(), &json, &result,
                    &rate_limited) != FileSystem::SUCCEEDED) {
    if (URLProcessor::IsNetworkError(result)) {
      fail_reason_ = 1;
    }
    return false;
  }
  auto files = json.get_child_optional("files");
  if (!files) {
    utils::json::Log(json, false);
    LOG_ERROR << "No files in response.";
    return false;
  }
  // 2. Each document's link.
  for (const auto& entry : *files) {
    if (stopped_) {
      LOG_INFO << "Stopped.";
      return false;
    }
    const utils::json::json_tree& file = entry.second;
    google::ExportLink link;
    link.name = file.get<std::string>("name", "");
    auto export_links = file.get_child_optional("exportLinks");
    if (!export_links) {
      LOG_WARNING << "No export links found for file " << link.name;
      continue;
    }
    if (!google::ChooseExportLink(*export_links, &link)) {
      LOG_WARNING << "Failed get download link for file: " << link.name;
      continue;
    }
    link.size = ParseSize(file.get<std::string>("size", "0"));
    links_[file.get<std::string>("id", "")] = link;
  }
  *next_token = json.get<std::string>("nextPageToken", "");
  return true;
}

bool GoogleDocsReader::GetTotalSize(std::uint64_t* size) {
  *size = 0;
  if (!http_) {
    return false;
  }
  for (const auto& [id, link] : links_) {
    // A size Drive told is not counted in: those documents are not asked about.
    if (link.size != 0) {
      continue;
    }
    if (stopped_) {
      return false;
    }
    URLProcessor::Request request;
    request.verb = "HEAD";
    request.url = DispatcherUrl::FromString(link.url);
    http_->Send(request);
    URLProcessorResult result = http_->Finish();
    if (!IsSuccessResult(result)) {
      LOG_ERROR << "Failed get converted size for id: " << id << " with code: " << result;
      return false;
    }
    *size +=
        ParseSize(GetValueFromHTTPHeaders(http_->GetResponseHeaders(), "Content-Length", true));
  }
  return true;
}

std::string GoogleDocsReader::GetFileIdByPath(const std::string& path) {
  auto shared = std::static_pointer_cast<RemoteFileSystemGoogleSharedData>(shared_data_);
  std::string id = shared ? shared->ids->GetFileIdByPath(path) : std::string();
  if (id.empty()) {
    LOG_ERROR << "Failed to find file id. No such file.";
  }
  return id;
}

std::string GoogleDocsReader::GetExtension(const std::string& path) {
  std::string id = GetFileIdByPath(path);
  if (id.empty()) {
    LOG_ERROR << "Empty id for " << path;
    return std::string();
  }
  auto found = links_.find(id);
  if (found == links_.end()) {
    LOG_ERROR << "No link info for " << path << " found.";
    return std::string();
  }
  if (found->second.extension.empty()) {
    LOG_ERROR << "Empty extension for " << path;
  }
  return found->second.extension;
}

bool GoogleDocsReader::HasLink(const std::string& path) {
  std::string id = GetFileIdByPath(path);
  return !id.empty() && links_.count(id) > 0;
}

FileSystem::Result GoogleDocsReader::Open(const std::string& path) {
  LOG_INFO << "Reading remote file \"" << path << "\".";
  if (!http_) {
    LOG_ERROR << "No http client.";
    return FileSystem::FATAL;
  }
  // 1. The document.
  std::string id = GetFileIdByPath(path);
  if (id.empty()) {
    return FileSystem::ITEM_MISSED;
  }
  read_offset_ = 0;
  size_ = 0;
  header_.clear();
  content_.clear();
  // 2. Its export link, else Drive's export of it in the first format.
  URLProcessor::Request request;
  auto found = links_.find(id);
  if (found != links_.end()) {
    request.url = DispatcherUrl::FromString(found->second.url);
  } else {
    LOG_WARNING << "No data for file found.";
    request.url = DispatcherUrl::FromString(
        Endpoints::Get(Endpoints::kGoogleDrive) + google::kDriveApiBase +
        google::WithQuery("/files/" + id + "/export",
                          {{"mimeType", google::kExportPreference[0]},
                           {"fields", "id, md5Checksum, size, version"}}));
  }
  open_ = http_->Send(request);
  return open_ ? FileSystem::SUCCEEDED : Failed(http_->Finish());
}

FileSystem::Result GoogleDocsReader::ReadSizeHeader(std::uint64_t* size) {
  *size = 0;
  if (!open_) {
    return Failed(http_ ? http_->GetLastResult() : URLProcessorResult::NETWORK_FAILED);
  }
  if (URLProcessor::IsNotSuccessHttpCode(http_->GetResponseCode())) {
    open_ = false;
    return Failed(http_->Finish());
  }
  header_ = GetValueFromHTTPHeaders(http_->GetResponseHeaders(), "Content-Length", true);
  if (header_.empty()) {
    LOG_WARNING << "Received empty header.";
  }
  size_ = ParseSize(header_);
  *size = size_;
  return FileSystem::SUCCEEDED;
}

FileSystem::Result GoogleDocsReader::Read(std::uint8_t* buffer, std::uint32_t size,
                                          std::uint32_t* done) {
  *done = 0;
  if (!open_) {
    LOG_WARNING << "Connection is closed, can't read anymore.";
    fail_reason_ = 1;
    return FileSystem::FAILED;
  }
  StreamResult read = http_->GetInputStream()->Read(buffer, size, done);
  if (read == StreamResult::OK && !URLProcessor::IsNotSuccessHttpCode(http_->GetResponseCode())) {
    read_offset_ += *done;
    return FileSystem::SUCCEEDED;
  }
  if (read == StreamResult::END) {
    open_ = false;
    URLProcessorResult ended = http_->Finish();
    return IsSuccessResult(ended) ? FileSystem::SUCCEEDED : Failed(ended);
  }
  // What came with a failure is the server's word on it.
  content_.assign(reinterpret_cast<const char*>(buffer), *done);
  *done = 0;
  http_->GetInputStream()->ReadAllTo(&content_, 4096, 64 * 1024);
  open_ = false;
  return Failed(http_->Finish());
}

FileSystem::Result GoogleDocsReader::Close() {
  if (open_) {
    LOG_INFO << "File operation interrupted.";
    http_->Stop();
    http_->Finish();
    http_->Start();
    open_ = false;
  }
  return FileSystem::SUCCEEDED;
}

FileSystem::Result GoogleDocsReader::Failed(URLProcessorResult result) {
  int code = http_ ? http_->GetResponseCode() : 0;
  RadarsLogger::instance().SendIfNetworkError(result, "remote_google", code,
                                              http_ ? http_->GetUrl() : std::string());
  if (result == URLProcessorResult::STOPPED) {
    LOG_INFO << "Stopped.";
    return FileSystem::STOPPED;
  }
  if (!content_.empty()) {
    LOG_ERROR << "Received body: \n" << content_;
    if (content_.find("\"cannotDownloadFile\"") != std::string::npos) {
      LOG_ERROR << "Assuming access denied, full respone is: \n" << content_;
    }
  }
  if (code == 403) {
    LOG_WARNING << "Got 403 when reading, assuming RATE_LIMIT.";
    fail_reason_ = 3;
  }
  LOG_ERROR << "Finish result: " << result << ";   http_code=" << code;
  FileSystem::Result mapped = MapGoogleFailure(http_.get(), result);
  return mapped == FileSystem::SUCCEEDED ? FileSystem::FAILED : mapped;
}
