#include "services/RemoteFileSystemGoogle.h"

#include <cstdlib>

#include "core/Clock.h"
#include "core/LoggerWrapper.h"
#include "core/RadarsLogger.h"
#include "core/UnicodeLower.h"
#include "services/GoogleDocs.h"
#include "services/RemoteFileIds.h"
#include "services/RemoteFileSystemGoogleSharedData.h"
#include "services/RemoteGoogleUtils.h"

const std::string RemoteFileSystemGoogle::kExternalItemsFolderName = "Доступные мне";

namespace {

constexpr const char* kListingFields =
    "files(id, name, parents, modifiedTime, md5Checksum, size, mimeType, trashed, ownedByMe, "
    "capabilities / canEdit, webViewLink, shared, resourceKey), nextPageToken";
constexpr std::int64_t kFailedPageRetryMs = 2000;

std::string Text(const utils::json::json_tree& json, const char* dotted_path) {
  auto child = utils::json::Child(json, dotted_path);
  return child ? child->data() : std::string();
}

std::uint64_t Number(const std::string& text) {
  char* end = nullptr;
  unsigned long long value = std::strtoull(text.c_str(), &end, 10);
  return text.empty() || *end != '\0' ? 0 : value;
}

// A value inside single quotes of Drive's query language.
std::string Quoted(const std::string& value) {
  std::string out = "'";
  for (char c : value) {
    if (c == '\'' || c == '\\') {
      out += '\\';
    }
    out += c;
  }
  return out + "'";
}

std::vector<std::string> PathComponents(const std::string& path) {
  std::vector<std::string> components;
  std::size_t start = 0;
  while (start <= path.size()) {
    std::size_t slash = path.find('/', start);
    if (slash == std::string::npos) {
      slash = path.size();
    }
    if (slash > start) {
      components.push_back(path.substr(start, slash - start));
    }
    start = slash + 1;
  }
  return components;
}

bool IsInsideExternalFolder(const std::string& path) {
  const std::string& name = RemoteFileSystemGoogle::kExternalItemsFolderName;
  std::string trimmed = path.substr(
      path.find_first_not_of('/') == std::string::npos ? path.size() : path.find_first_not_of('/'));
  return trimmed == name || trimmed.compare(0, name.size() + 1, name + "/") == 0;
}

}  // namespace

RemoteFileSystemGoogle::RemoteFileSystemGoogle(
    std::shared_ptr<RemoteFileSystemSharedData> shared_data, const std::string& remote_root_path)
    : RemoteFileSystemChangesSupport(std::move(shared_data), remote_root_path) {}

RemoteFileSystemGoogle::~RemoteFileSystemGoogle() = default;

void RemoteFileSystemGoogle::Start() {
  if (std::shared_ptr<URLProcessor> http = Client()) {
    http->Start();
  }
  RemoteFileSystem::Start();
}

void RemoteFileSystemGoogle::Stop() {
  if (std::shared_ptr<URLProcessor> http = Client()) {
    http->Stop();
  }
  RemoteFileSystem::Stop();
}

std::shared_ptr<URLProcessor> RemoteFileSystemGoogle::Client() const {
  std::lock_guard<std::mutex> lock(http_mutex_);
  return http_;
}

std::shared_ptr<RemoteFileIds> RemoteFileSystemGoogle::SharedIds() const {
  return SharedDataAs<RemoteFileSystemGoogleSharedData>()->ids;
}

std::shared_ptr<GoogleDocs> RemoteFileSystemGoogle::SharedDocs() const {
  return SharedDataAs<RemoteFileSystemGoogleSharedData>()->docs;
}

// --- requests ------------------------------------------------------------------------------

FileSystem::Result RemoteFileSystemGoogle::SendRequest(const std::string& path,
                                                       const std::string& fields,
                                                       utils::json::json_tree* json_out,
                                                       const std::shared_ptr<URLProcessor>& http) {
  // 1. The client.
  std::shared_ptr<URLProcessor> client = http ? http : Client();
  if (!client) {
    LOG_FATAL << "Not initialized.";
    return FATAL;
  }
  if (IsStopped()) {
    return STOPPED;
  }
  // 2. The request.
  URLProcessorResult url_result = URLProcessorResult::OK;
  bool rate_limited = false;
  Result result = GoogleRequest(path, fields, client.get(), json_out, &url_result, &rate_limited);
  SetFailReason(url_result, client->GetResponseCode());
  if (!rate_limited) {
    rate_limiter_.OnGoodRequest();
    return result;
  }
  // 3. Drive asked to slow down: the caller tries again after the pause.
  SetFailReasonValue(FAIL_REASON_RATE_LIMIT);
  if (WaitForStop(rate_limiter_.NextWaitMs())) {
    return STOPPED;
  }
  rate_limiter_.OnWaited();
  return result;
}

void RemoteFileSystemGoogle::SetMinRateLimitValueSec(unsigned int seconds) {
  rate_limiter_.SetMinValueSec(seconds);
}

// --- connection ----------------------------------------------------------------------------

bool RemoteFileSystemGoogle::Open(const std::shared_ptr<URLProcessorFactory>& factory) {
  // 1. The emulated folder holds other people's items: no account is mounted inside it.
  if (IsInsideExternalFolder(GetRemoteRootPath())) {
    LOG_ERROR << "Remote rooted at external items folder is not supported.";
    return false;
  }
  // 2. The client and the shared stores.
  url_factory_ = factory;
  if (!OpenClient()) {
    LOG_ERROR << "Failed to open http client.";
    return false;
  }
  if (!SharedIds() || !SharedDocs()) {
    LOG_ERROR << "Shared items are not initialized.";
    return false;
  }
  return true;
}

bool RemoteFileSystemGoogle::OpenClient() {
  if (Client()) {
    return true;
  }
  std::shared_ptr<URLProcessor> http = url_factory_ ? url_factory_->Create() : nullptr;
  if (!http || !http->Open(nullptr)) {
    LOG_ERROR << "Failed open.";
    return false;
  }
  // Drive sends compressed answers only to user agents that say they take them.
  http->SetUserAgent(http->GetUserAgent() + " (gzip)");
  http->SetCompression(true);
  if (IsStopped()) {
    http->Stop();
  }
  std::lock_guard<std::mutex> lock(http_mutex_);
  http_ = std::move(http);
  return true;
}

FileSystem::Result RemoteFileSystemGoogle::Close() {
  std::shared_ptr<URLProcessor> http;
  {
    std::lock_guard<std::mutex> lock(http_mutex_);
    http.swap(http_);
  }
  if (http) {
    http->Close();
  }
  return SUCCEEDED;
}

FileSystem::Result RemoteFileSystemGoogle::CheckConnection() {
  if (!Client()) {
    LOG_ERROR << "Http client not exists";
    return FATAL;
  }
  utils::json::json_tree json;
  return SendRequest("/files/root", "id", &json);
}

// --- sizes ---------------------------------------------------------------------------------

FileSystem::Result RemoteFileSystemGoogle::ReadAbout(bool with_shared_data, Quota* quota) {
  RadarsLogger::instance().SendMetric("ggl_about_get_called", "1", 1);
  utils::json::json_tree json;
  Result result = SendRequest("/about", "storageQuota, maxUploadSize", &json);
  if (result != SUCCEEDED) {
    return result;
  }
  // An account without a limit has no "limit" at all.
  std::string limit = Text(json, "storageQuota.limit");
  quota->total = limit.empty() ? INT64_MAX : Number(limit);
  quota->used =
      Number(Text(json, with_shared_data ? "storageQuota.usage" : "storageQuota.usageInDrive"));
  std::string max_upload = Text(json, "maxUploadSize");
  if (!max_upload.empty() && Number(max_upload) != max_upload_size_) {
    LOG_INFO << "Upload limit changed from " << max_upload_size_ << " to " << Number(max_upload);
    max_upload_size_ = Number(max_upload);
  }
  return SUCCEEDED;
}

FileSystem::Result RemoteFileSystemGoogle::GetCloudSize(std::uint64_t* total, std::uint64_t* used) {
  Quota quota;
  Result result = OpenClient() ? ReadAbout(true, &quota) : FATAL;
  if (result == SUCCEEDED) {
    *total = quota.total;
    *used = quota.used;
    snapshot_progress_.expected_bytes = quota.used;
  }
  return result;
}

FileSystem::Result RemoteFileSystemGoogle::GetCloudSizeWithoutSharedData(std::uint64_t* total,
                                                                         std::uint64_t* used) {
  Quota quota;
  Result result = OpenClient() ? ReadAbout(false, &quota) : FATAL;
  if (result == SUCCEEDED) {
    *total = quota.total;
    *used = quota.used;
  }
  return result;
}

// --- tree ----------------------------------------------------------------------------------

FileSystem::Result RemoteFileSystemGoogle::GetFullTree(FolderNode* root, std::uint64_t* free,
                                                       std::uint64_t* total,
                                                       tsl::htrie_set<char>* shared_paths) {
  return GetTree(root, free, total, shared_paths, true);
}

FileSystem::Result RemoteFileSystemGoogle::GetFullTreeWithoutSharedData(
    FolderNode* root, std::uint64_t* free, std::uint64_t* total,
    tsl::htrie_set<char>* shared_paths) {
  return GetTree(root, free, total, shared_paths, false);
}

FileSystem::Result RemoteFileSystemGoogle::GetTree(FolderNode* root, std::uint64_t* free,
                                                   std::uint64_t* total,
                                                   tsl::htrie_set<char>* shared_paths,
                                                   bool shared_items_enabled) {
  // 1. The client.
  if (!OpenClient()) {
    return FATAL;
  }
  LOG_INFO << "Downloading remote tree...";
  if (IsRooted()) {
    LOG_INFO << "Getting snapshot rooted at \"" << GetRemoteRootPath() << "\".";
  }
  shared_items_enabled_ = shared_items_enabled;
  restored_from_file_ = false;
  // 2. The root, and the sizes.
  std::vector<std::string> chain;
  Result result = FindRootChain(&chain);
  if (result != SUCCEEDED) {
    LOG_ERROR << "Failed to get root folder id: " << result << ".";
    return result;
  }
  Quota quota;
  result = ReadAbout(shared_items_enabled, &quota);
  if (result != SUCCEEDED) {
    LOG_ERROR << "Failed to get cloud size info: " << result;
    return result;
  }
  *total = total_size_ = quota.total;
  used_size_ = quota.used;
  *free = quota.total > quota.used ? quota.total - quota.used : 0;
  last_size_check_time_ms_ = utils::GetClock().NowMs();
  snapshot_progress_.seen_bytes = 0;
  // 3. Fresh stores, put in place only when the whole tree has come.
  auto ids = std::make_shared<RemoteFileIds>();
  ids->Init(chain.back());
  auto docs = std::make_shared<GoogleDocs>();
  need_new_tree_ = false;
  TreeConstructor constructor(ids, root, shared_items_enabled, kExternalItemsFolderName, this,
                              docs.get());
  std::vector<std::string> shared_ids;
  result = ListTree(constructor, ids, root, &shared_ids);
  std::string token;
  if (result == SUCCEEDED) {
    constructor.LogTotals();
    RadarsLogger::instance().SendMetric("google_drive_size",
                                        std::to_string(constructor.ItemsCount()), 1);
    result = GetStartPageToken(&token);
  }
  if (result != SUCCEEDED) {
    root->Clear();
    return result;
  }
  // 4. The public link marks, by lower-case path.
  for (const std::string& id : shared_ids) {
    std::optional<std::string> path = ids->GetPathById(id);
    if (!path) {
      LOG_WARNING << "No path for id \"" << id << "\" in id tree.";
      continue;
    }
    if (shared_paths) {
      shared_paths->insert(utils::UnicodeToLower(*path));
    }
  }
  // 5. The new tree takes over.
  last_tree_time_ms_ = utils::GetClock().NowMs();
  tree_valid_ = true;
  page_token_ = token;
  SharedDocs()->Swap(*docs);
  SharedIds()->Swap(*ids);
  root_ancestors_.clear();
  if (IsRooted()) {
    root_ancestors_.insert(chain.begin(), chain.end());
  }
  return SUCCEEDED;
}

FileSystem::Result RemoteFileSystemGoogle::FindRootChain(std::vector<std::string>* chain) {
  // 1. The drive's root.
  utils::json::json_tree json;
  Result result = SendRequest("/files/root", "", &json);
  if (result != SUCCEEDED) {
    return result;
  }
  std::string id = Text(json, "id");
  if (id.empty()) {
    LOG_ERROR << "No id in response.";
    return FAILED;
  }
  chain->assign(1, id);
  // 2. The mounted root, one name at a time.
  for (const std::string& name : PathComponents(GetRemoteRootPath())) {
    std::string query =
        Quoted(chain->back()) + " in parents and trashed=false and name=" + Quoted(name);
    std::string path = google::WithQuery(
        "/files", {{"fields", "files(id)"}, {"prettyPrint", "false"}, {"q", query}});
    result = SendRequest(path, "", &json);
    if (result != SUCCEEDED) {
      LOG_ERROR << "Failed getting files: " << result;
      LOG_ERROR << "Failed to get path component id for \"" << name << "\"";
      return result;
    }
    auto files = utils::json::Member(json, "files");
    if (!files) {
      LOG_ERROR << "No files in response.";
      return FAILED;
    }
    std::string found = files->empty() ? std::string() : Text(files->begin()->second, "id");
    if (found.empty()) {
      LOG_ERROR << "Failed to get path component id, not found.";
      return FAILED;
    }
    chain->push_back(found);
  }
  return SUCCEEDED;
}

FileSystem::Result RemoteFileSystemGoogle::ListTree(TreeConstructor& constructor,
                                                    const std::shared_ptr<RemoteFileIds>& ids,
                                                    FolderNode* root,
                                                    std::vector<std::string>* shared_ids) {
  std::deque<std::string> queue;
  if (IsRooted()) {
    queue.push_back(ids->GetRootId());
    LOG_INFO << "Remote root path folder id: " << ids->GetRootId();
  }
  unsigned requests_before = requests_count_;
  do {
    // 1. A batch of folders, from the end of the queue (none for the whole drive).
    std::vector<std::string> taken;
    while (!queue.empty() && taken.size() < kParentsPerListing) {
      taken.push_back(queue.back());
      queue.pop_back();
    }
    // 2. Its pages, then the items still waiting for a parent.
    Result result = ListPages(constructor, taken, shared_ids);
    if (result != SUCCEEDED) {
      return result;
    }
    if (!constructor.FinishAdoption()) {
      ReportTreeFailure(constructor.Error(),
                        "Failed loading remote tree: Failed adopting all items in the end: ",
                        "app_rfs_adopt_all_fatal_ggl");
      return FAILED;
    }
    // 3. Below a mounted root, the subfolders of the batch come next.
    if (IsRooted() && !QueueChildFolders(taken, *ids, root, &queue)) {
      return FAILED;
    }
  } while (!queue.empty());
  LOG_INFO << "Google drive snapshot requests count: " << requests_count_ - requests_before;
  return SUCCEEDED;
}

FileSystem::Result RemoteFileSystemGoogle::ListPages(TreeConstructor& constructor,
                                                     const std::vector<std::string>& parents,
                                                     std::vector<std::string>* shared_ids) {
  std::string token;
  for (;;) {
    // 1. One page.
    utils::json::json_tree json;
    ++requests_count_;
    Result result = SendRequest(ListingPath(token, parents), "", &json);
    if (result != SUCCEEDED) {
      if (result != STOPPED) {
        LOG_ERROR << "Failed getting files: " << result;
      }
      // A broken network or a rate limit holds the download until it passes or Stop comes.
      if (result == FAILED && GetFailReason() == FAIL_REASON_NETWORK) {
        if (WaitForStop(kFailedPageRetryMs)) {
          return STOPPED;
        }
        continue;
      }
      if (result == FAILED && GetFailReason() == FAIL_REASON_RATE_LIMIT) {
        continue;
      }
      return result;
    }
    // 2. Its items.
    auto files = utils::json::Member(json, "files");
    if (!files || !files->data().empty()) {
      LOG_ERROR << "No files in response.";
      return FAILED;
    }
    token = Text(json, "nextPageToken");
    if (!AddPage(constructor, *files, shared_ids)) {
      return FAILED;
    }
    if (token.empty()) {
      return SUCCEEDED;
    }
  }
}

bool RemoteFileSystemGoogle::AddPage(TreeConstructor& constructor,
                                     const utils::json::json_tree& files,
                                     std::vector<std::string>* shared_ids) {
  for (const auto& entry : files) {
    const utils::json::json_tree& item = entry.second;
    std::int64_t size = 0;
    if (!constructor.AddItem(item, &size)) {
      ReportTreeFailure(constructor.Error(), "Failed loading remote tree: Failed adding item: ",
                        "app_rfs_add_item_fatal_ggl");
      return false;
    }
    snapshot_progress_.AddSeenBytes(static_cast<std::uint64_t>(std::max<std::int64_t>(size, 0)));
    std::string id = Text(item, "id");
    if (Text(item, "shared") == "true") {
      shared_ids->push_back(id);
    }
    resource_keys_.Record(id, Text(item, "resourceKey"));
  }
  if (!constructor.AdoptItems()) {
    ReportTreeFailure(constructor.Error(), "Failed loading remote tree: Failed adopting items: ",
                      "app_rfs_adopt_fatal_ggl");
    return false;
  }
  return true;
}

std::string RemoteFileSystemGoogle::ListingPath(const std::string& page_token,
                                                const std::vector<std::string>& parents) const {
  // Drive takes one "q": the parents of a batch and the owner's test are joined in it, and the
  // query goes with every page of the listing it continues.
  std::string query;
  for (const std::string& parent : parents) {
    query += (query.empty() ? "" : " or ") + Quoted(parent) + " in parents";
  }
  if (!shared_items_enabled_) {
    query = query.empty() ? "'me' in owners" : "(" + query + ") and 'me' in owners";
  }
  google::QueryParams params{{"fields", kListingFields}};
  if (!page_token.empty()) {
    params.emplace_back("pageToken", page_token);
  }
  if (!query.empty()) {
    params.emplace_back("q", query);
  }
  params.insert(params.end(),
                {{"pageSize", "999"}, {"orderBy", "folder"}, {"prettyPrint", "false"}});
  return google::WithQuery("/files", params);
}

bool RemoteFileSystemGoogle::QueueChildFolders(const std::vector<std::string>& taken,
                                               const RemoteFileIds& ids, FolderNode* root,
                                               std::deque<std::string>* queue) {
  for (const std::string& id : taken) {
    std::optional<std::string> path = ids.GetPathById(id);
    if (!path) {
      LOG_ERROR << "Failed to find path for child folder id: " << id << ".";
      return false;
    }
    FolderNode* folder = root->GetFolderAtPath(*path);
    if (!folder) {
      LOG_ERROR << "Failed to get child folder at \"" << *path << "\".";
      return false;
    }
    for (auto it = folder->FoldersBegin(); it != folder->FoldersEnd(); ++it) {
      std::string child_path = path->empty() ? it->GetName() : *path + "/" + it->GetName();
      std::string child_id = ids.GetFolderIdByPath(child_path);
      if (child_id.empty()) {
        LOG_ERROR << "Failed to get child folder id at \"" << child_path << "\".";
        return false;
      }
      // The emulated folder has no children on the server.
      if (child_id != ConstructorBase::kExternalItemsFolderId) {
        queue->push_back(child_id);
      }
    }
  }
  return true;
}

void RemoteFileSystemGoogle::ReportTreeFailure(const TreeError& error, const char* what,
                                               const char* metric) {
  LOG_ERROR << what << error.reason << " \"" << error.path << "\"";
  RadarsLogger::instance().SendMetric("google_tree_error", std::to_string(error.reason), 1);
  {
    std::lock_guard<std::mutex> lock(tree_error_mutex_);
    tree_error_ = error;
  }
  RadarsLogger::instance().SendMetric(metric, "1", 1);
}

TreeError RemoteFileSystemGoogle::GetTreeError() const {
  std::lock_guard<std::mutex> lock(tree_error_mutex_);
  return tree_error_;
}

FileSystem::Result RemoteFileSystemGoogle::GetStartPageToken(std::string* token) {
  utils::json::json_tree json;
  Result result = SendRequest("/changes/startPageToken", "", &json);
  if (result != SUCCEEDED) {
    LOG_ERROR << "Failed to get changes token.";
    return result;
  }
  *token = Text(json, "startPageToken");
  if (token->empty()) {
    LOG_ERROR << "Empty token.";
    return FAILED;
  }
  return SUCCEEDED;
}

bool RemoteFileSystemGoogle::ShouldRenewTree() {
  std::int64_t last = last_tree_time_ms_;
  std::int64_t now = utils::GetClock().NowMs();
  return need_new_tree_ && (last == INT64_MIN || now - last >= kRenewTreeAfterMs);
}

// --- not served yet ------------------------------------------------------------------------

FileSystem::Result RemoteFileSystemGoogle::NotServedYet(const char* operation) {
  LOG_ERROR << "Not supported by the Google adapter: " << operation;
  return NOT_SUPPORTED;
}

FileSystem::Result RemoteFileSystemGoogle::GetChanges(std::queue<Change>*) {
  return NotServedYet("GetChanges");
}

bool RemoteFileSystemGoogle::ApplyRemoteChange(const Change&, FolderNode*, std::uint64_t*,
                                               std::uint64_t*) {
  NotServedYet("ApplyRemoteChange");
  return false;
}

FileSystem::Result RemoteFileSystemGoogle::GetPublicLink(const std::string&, bool, std::string*) {
  return NotServedYet("GetPublicLink");
}

FileSystem::Result RemoteFileSystemGoogle::ClosePublicLink(const std::string&) {
  return NotServedYet("ClosePublicLink");
}

FileSystem::Result RemoteFileSystemGoogle::WriteFile(const std::uint8_t*, std::uint32_t) {
  return NotServedYet("WriteFile");
}

FileSystem::Result RemoteFileSystemGoogle::CloseFile(FileProperties*) {
  return NotServedYet("CloseFile");
}

FileSystem::Result RemoteFileSystemGoogle::InterruptFile() {
  return NotServedYet("InterruptFile");
}

FileSystem::Result RemoteFileSystemGoogle::CreateFolderImpl(const OverwriteControl&,
                                                            const std::string&) {
  return NotServedYet("CreateFolderImpl");
}

FileSystem::Result RemoteFileSystemGoogle::DeleteFileImpl(const OverwriteControl&,
                                                          const std::string&, std::uint64_t,
                                                          std::uint64_t) {
  return NotServedYet("DeleteFileImpl");
}

FileSystem::Result RemoteFileSystemGoogle::DeleteFolderImpl(const FolderNode&, const Revision&,
                                                            const std::string&) {
  return NotServedYet("DeleteFolderImpl");
}

FileSystem::Result RemoteFileSystemGoogle::OpenForCreate(const OverwriteControl&,
                                                         const std::string&, const SomeHash&,
                                                         std::uint64_t, std::uint64_t,
                                                         std::uint64_t*, bool) {
  return NotServedYet("OpenForCreate");
}

FileSystem::Result RemoteFileSystemGoogle::OpenForRead(const std::string&, std::uint64_t,
                                                       std::uint64_t, std::uint64_t,
                                                       const SomeHash&) {
  return NotServedYet("OpenForRead");
}

FileSystem::Result RemoteFileSystemGoogle::OpenForRewrite(const OverwriteControl&,
                                                          const std::string&, const SomeHash&,
                                                          std::uint64_t, std::uint64_t,
                                                          std::uint64_t*) {
  return NotServedYet("OpenForRewrite");
}

FileSystem::Result RemoteFileSystemGoogle::ReadFile(std::uint8_t*, std::uint32_t, std::uint32_t*) {
  return NotServedYet("ReadFile");
}

FileSystem::Result RemoteFileSystemGoogle::MoveFileImpl(const FileNode&, const OverwriteControl&,
                                                        const std::string&, const OverwriteControl&,
                                                        const std::string&) {
  return NotServedYet("MoveFileImpl");
}

FileSystem::Result RemoteFileSystemGoogle::MoveFolderImpl(const FolderNode&,
                                                          const OverwriteControl&,
                                                          const std::string&,
                                                          const OverwriteControl&,
                                                          const std::string&) {
  return NotServedYet("MoveFolderImpl");
}
