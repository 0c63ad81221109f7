#include "services/RemoteFileSystemGoogle.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "core/Clock.h"
#include "core/Endpoints.h"
#include "core/JsonWriter.h"
#include "core/LoggerWrapper.h"
#include "core/RadarsLogger.h"
#include "core/TimeUtils.h"
#include "core/UnicodeLower.h"
#include "services/GoogleDocs.h"
#include "services/GoogleErrorDescription.h"
#include "services/GoogleStateReader.h"
#include "services/GoogleStateWriter.h"
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

// A whole decimal number of Drive's JSON text; anything else, or a number out of range, is 0.
std::uint64_t Number(const std::string& text) {
  if (text.empty() || text[0] == '-') {
    return 0;
  }
  errno = 0;
  char* end = nullptr;
  unsigned long long value = std::strtoull(text.c_str(), &end, 10);
  return *end != '\0' || errno != 0 ? 0 : value;
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
    : RemoteFileSystemChangesSupport(std::move(shared_data), remote_root_path),
      resource_keys_(*SharedDataAs<RemoteFileSystemGoogleSharedData>()->resource_keys) {}

RemoteFileSystemGoogle::~RemoteFileSystemGoogle() = default;

void RemoteFileSystemGoogle::Start() {
  ForEachClient(&Stoppable::Start);
  RemoteFileSystem::Start();
  WakeChanges();
}

void RemoteFileSystemGoogle::Stop() {
  ForEachClient(&Stoppable::Stop);
  RemoteFileSystem::Stop();
  WakeChanges();
}

void RemoteFileSystemGoogle::ForEachClient(void (Stoppable::*call)()) {
  for (const std::shared_ptr<URLProcessor>& http : {Client(), FeedClient(), FileClient()}) {
    if (http) {
      (http.get()->*call)();
    }
  }
}

std::shared_ptr<URLProcessor> RemoteFileSystemGoogle::Client() const {
  std::lock_guard<std::mutex> lock(http_mutex_);
  return http_;
}

std::shared_ptr<URLProcessor> RemoteFileSystemGoogle::FeedClient() const {
  std::lock_guard<std::mutex> lock(http_mutex_);
  return feed_http_;
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
                                                       const std::shared_ptr<URLProcessor>& http,
                                                       const char* api_base) {
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
  Result result =
      GoogleRequest(path, fields, client.get(), json_out, &url_result, &rate_limited, api_base);
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
  // The feed polls on its own thread while items are changed on another: each has its client.
  std::shared_ptr<URLProcessor> http = MakeClient();
  // File content has a client of its own: a transfer in flight never holds up an item request.
  std::shared_ptr<URLProcessor> feed_http = http ? MakeClient() : nullptr;
  std::shared_ptr<URLProcessor> file_http = feed_http ? MakeClient() : nullptr;
  if (!file_http) {
    return false;
  }
  // Content goes as it is: the sizes of a download are checked against its Content-Length.
  file_http->SetCompression(false);
  std::lock_guard<std::mutex> lock(http_mutex_);
  http_ = std::move(http);
  feed_http_ = std::move(feed_http);
  file_http_ = std::move(file_http);
  return true;
}

std::shared_ptr<URLProcessor> RemoteFileSystemGoogle::MakeClient() {
  std::shared_ptr<URLProcessor> http = url_factory_ ? url_factory_->Create() : nullptr;
  if (!http || !http->Open(nullptr)) {
    LOG_ERROR << "Failed open.";
    return nullptr;
  }
  // Drive sends compressed answers only to user agents that say they take them.
  http->SetUserAgent(http->GetUserAgent() + " (gzip)");
  http->SetCompression(true);
  if (IsStopped()) {
    http->Stop();
  }
  return http;
}

FileSystem::Result RemoteFileSystemGoogle::Close() {
  std::shared_ptr<URLProcessor> http;
  std::shared_ptr<URLProcessor> feed_http;
  std::shared_ptr<URLProcessor> file_http;
  {
    std::lock_guard<std::mutex> lock(http_mutex_);
    http.swap(http_);
    feed_http.swap(feed_http_);
    file_http.swap(file_http_);
  }
  uploader_.reset();
  operation_ = kNone;
  for (const std::shared_ptr<URLProcessor>& client : {http, feed_http, file_http}) {
    if (client) {
      client->Close();
    }
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

FileSystem::Result RemoteFileSystemGoogle::ReadAbout(bool with_shared_data, Quota* quota,
                                                     const std::shared_ptr<URLProcessor>& http) {
  RadarsLogger::instance().SendMetric("ggl_about_get_called", "1", 1);
  utils::json::json_tree json;
  Result result = SendRequest("/about", "storageQuota, maxUploadSize", &json, http);
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
  {
    std::lock_guard<std::mutex> lock(changes_mutex_);
    last_disk_activity_time_ms_ = last_tree_time_ms_;
  }
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
  KeepTreeError(error, "google_tree_error");
  RadarsLogger::instance().SendMetric(metric, "1", 1);
}

void RemoteFileSystemGoogle::ReportChangesFailure(const TreeError& error, const char* what) {
  LOG_ERROR << what << error.reason << " \"" << error.path << "\"";
  KeepTreeError(error, "google_changes_tree_error");
}

void RemoteFileSystemGoogle::KeepTreeError(const TreeError& error, const char* metric) {
  RadarsLogger::instance().SendMetric(metric, std::to_string(error.reason), 1);
  std::lock_guard<std::mutex> lock(tree_error_mutex_);
  tree_error_ = error;
}

TreeError RemoteFileSystemGoogle::GetTreeError() const {
  std::lock_guard<std::mutex> lock(tree_error_mutex_);
  return tree_error_;
}

FileSystem::Result RemoteFileSystemGoogle::GetStartPageToken(std::string* token) {
  return ReadText("/changes/startPageToken", "", "startPageToken",
                  {"Failed to get changes token.", "Empty token."}, token);
}

FileSystem::Result RemoteFileSystemGoogle::ReadText(const std::string& path,
                                                    const std::string& fields, const char* key,
                                                    const TextFailureLines& lines,
                                                    std::string* text) {
  utils::json::json_tree json;
  Result result = SendRequest(path, fields, &json);
  if (result != SUCCEEDED) {
    LOG_ERROR << lines.failed;
    return result;
  }
  *text = Text(json, key);
  if (text->empty()) {
    LOG_ERROR << lines.empty;
    return FAILED;
  }
  return SUCCEEDED;
}

bool RemoteFileSystemGoogle::ShouldRenewTree() {
  std::int64_t last = last_tree_time_ms_;
  std::int64_t now = utils::GetClock().NowMs();
  return need_new_tree_ && (last == INT64_MIN || now - last >= kRenewTreeAfterMs);
}

// --- the change feed -----------------------------------------------------------------------

namespace {

constexpr const char* kChangesFields =
    "changes(file(id, name, parents, modifiedTime, md5Checksum, size, mimeType, trashed, version, "
    "capabilities/canEdit, ownedByMe, webViewLink, shared, resourceKey)), newStartPageToken, "
    "nextPageToken";
constexpr std::int64_t kNoTokenPauseMs = 500;
constexpr std::int64_t kFailedPollPauseMs = 1000;

// The free space moves by the sizes of the changes; it never wraps below zero.
std::uint64_t Less(std::uint64_t value, std::uint64_t by) {
  return value > by ? value - by : 0;
}

}  // namespace

FileSystem::Result RemoteFileSystemGoogle::GetChanges(std::queue<Change>* changes) {
  // 1. The client, and a feed to follow.
  if (!OpenClient()) {
    LOG_ERROR << "Failed opening URLProcessor.";
    return FAILED;
  }
  if (page_token_.empty()) {
    if (WaitForStop(kNoTokenPauseMs)) {
      return STOPPED;
    }
    LOG_INFO << "No changes since token is not initialized.";
    return SUCCEEDED;
  }
  // 2. One page of it.
  std::vector<Change> found;
  Result result = FetchChanges(&found);
  if (result != SUCCEEDED) {
    LOG_ERROR << "Failed getting changes: " << result;
    if (result == STOPPED || WaitForStop(kFailedPollPauseMs)) {
      return STOPPED;
    }
    return result;
  }
  for (Change& change : found) {
    changes->push(std::move(change));
  }
  // 3. The quota, now and then.
  CheckSizes(changes);
  return IsStopped() ? STOPPED : SUCCEEDED;
}

FileSystem::Result RemoteFileSystemGoogle::FetchChanges(std::vector<Change>* changes) {
  // 1. The page.
  utils::json::json_tree json;
  std::shared_ptr<URLProcessor> http = FeedClient();
  Result result = SendRequest(google::WithQuery("/changes", {{"pageToken", page_token_}}),
                              kChangesFields, &json, http);
  if (result != SUCCEEDED) {
    if (http && http->GetResponseCode() == 400 && Text(json, "error.message") == "Invalid Value") {
      LOG_ERROR << utils::json::ToString(json, false);
      LOG_ERROR << "Seems like invalid page token, requesting a new tree.";
      need_new_tree_ = true;
    } else {
      LOG_ERROR << "Failed geting changes: " << result;
    }
    return result;
  }
  auto entries = utils::json::Member(json, "changes");
  if (entries && !entries->data().empty()) {
    LOG_ERROR << utils::json::ToString(json, false);
    LOG_ERROR << "Invalid list of changes in response.";
    return FAILED;
  }
  // 2. Where the feed goes on.
  std::string next = Text(json, "nextPageToken");
  page_token_ = next.empty() ? Text(json, "newStartPageToken") : next;
  if (page_token_.empty()) {
    LOG_ERROR << utils::json::ToString(json, false);
    LOG_ERROR << "No next page token. Downloading new remote tree.";
    need_new_tree_ = true;
    return SUCCEEDED;
  }
  // 3. Its changes, or a pause when there are none.
  if (!entries || entries->empty()) {
    WaitIdle();
    return IsStopped() ? STOPPED : SUCCEEDED;
  }
  if (!ReadChangesPage(*entries, changes)) {
    need_new_tree_ = true;
    return FAILED;
  }
  return SUCCEEDED;
}

bool RemoteFileSystemGoogle::ReadChangesPage(const utils::json::json_tree& entries,
                                             std::vector<Change>* changes) {
  std::shared_ptr<RemoteFileIds> ids = SharedIds();
  ChangesConstructor constructor(ids, shared_items_enabled_, kExternalItemsFolderName, this,
                                 SharedDocs().get(), &expected_, ids->GetRootId(), changes);
  for (const auto& entry : entries) {
    // 1. The item; an entry without one (an item deleted for good) says nothing to the tree:
    // a deletion reaches it as the item's trashing.
    auto file = utils::json::Member(entry.second, "file");
    if (!file) {
      LOG_INFO << utils::json::ToString(entry.second, false);
      LOG_INFO << "Invalid change without a file entry.";
      continue;
    }
    if (!constructor.AddItem(*file, nullptr)) {
      ReportChangesFailure(constructor.Error(), "Failed adding change. Tree error ");
      return false;
    }
    // 2. A folder above the mounted root changed: no path can be trusted.
    std::string id = Text(*file, "id");
    if (IsRooted() && root_ancestors_.count(id)) {
      LOG_WARNING << "A folder above the remote root changed; id=" << id << ".";
      constructor.FinishAdoption();
      return false;
    }
    // 3. Its public link, and its resource key.
    std::optional<std::string> path = ids->GetPathById(id);
    if (path && !path->empty()) {
      Change link(Change::PUBLIC_LINK, *path);
      link.id = id;
      link.size = Text(*file, "shared") == "true" ? 1 : 0;
      changes->push_back(std::move(link));
    }
    resource_keys_.Record(id, Text(*file, "resourceKey"));
  }
  if (!constructor.FinishAdoption()) {
    ReportChangesFailure(constructor.Error(), "Failed adopting changes. Tree error ");
    return false;
  }
  return true;
}

void RemoteFileSystemGoogle::WaitIdle() {
  LOG_INFO << "No changes.";
  std::unique_lock<std::mutex> lock(changes_mutex_);
  // 1. The pace: slow once the disk has been left alone.
  std::int64_t wait = kActivePollMs;
  if (utils::GetClock().NowMs() - last_disk_activity_time_ms_ > kInactiveAfterMs) {
    inactive_mode_ = true;
    LOG_INFO << "Switched to getting changes in INACTIVE mode.";
    wait = kInactivePollMs;
  } else {
    inactive_mode_ = false;
  }
  // 2. The pause, which disk activity, a wake-up or Stop ends.
  const bool was_inactive = inactive_mode_;
  utils::GetClock().WaitFor(changes_condition_, lock, wait, [this, was_inactive] {
    return IsStopped() || wake_changes_ || (was_inactive && !inactive_mode_);
  });
  wake_changes_ = false;
  if (was_inactive && !inactive_mode_) {
    LOG_INFO << "Switched to getting changes in ACTIVE mode.";
  }
}

void RemoteFileSystemGoogle::WakeChanges() {
  wake_changes_ = true;
  std::lock_guard<std::mutex> lock(changes_mutex_);
  changes_condition_.notify_all();
}

void RemoteFileSystemGoogle::OnDiskActivity() {
  std::lock_guard<std::mutex> lock(changes_mutex_);
  last_disk_activity_time_ms_ = utils::GetClock().NowMs();
  if (inactive_mode_) {
    inactive_mode_ = false;
    changes_condition_.notify_all();
  }
}

void RemoteFileSystemGoogle::CheckSizes(std::queue<Change>* changes) {
  std::int64_t now = utils::GetClock().NowMs();
  if (now - last_size_check_time_ms_ <= kSizeCheckEveryMs) {
    return;
  }
  Quota quota;
  if (ReadAbout(shared_items_enabled_, &quota, FeedClient()) != SUCCEEDED) {
    return;
  }
  last_size_check_time_ms_ = now;
  const bool total_changed = quota.total != total_size_;
  if (total_changed) {
    total_size_ = quota.total;
    Change total(Change::TOTAL_SIZE_SET, std::string());
    total.size = quota.total;
    changes->push(total);
  }
  if (total_changed || quota.used != used_size_) {
    used_size_ = quota.used;
    Change free(Change::FREE_SIZE_SET, std::string());
    free.size = Less(quota.total, quota.used);
    changes->push(free);
  }
}

FileSystem::Result RemoteFileSystemGoogle::PrepareAfterTreeDeserialized() {
  if (!OpenClient()) {
    return FATAL;
  }
  std::vector<std::string> chain;
  Result result = FindRootChain(&chain);
  if (result != SUCCEEDED) {
    LOG_ERROR << "Failed to get parent folder, result: " << result;
    return result;
  }
  root_ancestors_.clear();
  if (IsRooted()) {
    root_ancestors_.insert(chain.begin(), chain.end());
  }
  return SUCCEEDED;
}

// --- saved state ---------------------------------------------------------------------------

bool RemoteFileSystemGoogle::Serialize(const std::atomic<bool>* stop,
                                       const tsl::htrie_set<char>& shared_paths,
                                       std::ostream& out) {
  std::shared_ptr<RemoteFileIds> ids = SharedIds();
  if (!ids) {
    LOG_ERROR << "Id tree not init yet.";
    return false;
  }
  return GoogleStateWriter::Write(
      stop, {page_token_, *ids, shared_paths, *SharedDocs(), resource_keys_}, out);
}

bool RemoteFileSystemGoogle::Deserialize(const std::atomic<bool>* stop,
                                         tsl::htrie_set<char>* shared_paths,
                                         std::stringstream& in) {
  // 1. The whole file into stores of its own.
  GoogleStateReader state;
  if (!state.Read(stop, in)) {
    return false;
  }
  // 2. They take over together.
  SharedIds()->Swap(*state.ids);
  SharedDocs()->Swap(*state.docs);
  resource_keys_.Swap(*state.resource_keys);
  if (shared_paths) {
    shared_paths->swap(state.public_link_paths);
  }
  // 3. The feed goes on from the saved token at its next call, the quota read with it.
  page_token_ = state.page_token;
  restored_from_file_ = true;
  need_new_tree_ = false;
  tree_valid_ = true;
  const std::int64_t now = utils::GetClock().NowMs();
  last_tree_time_ms_ = now;
  last_size_check_time_ms_ = now - kSizeCheckEveryMs - 1;
  {
    std::lock_guard<std::mutex> lock(changes_mutex_);
    last_disk_activity_time_ms_ = now;
  }
  inactive_mode_ = false;
  return true;
}

QString RemoteFileSystemGoogle::GetLastErrorDescription() {
  return GoogleErrorDescription::Text(GetTreeError());
}

// --- applying a change ---------------------------------------------------------------------

bool RemoteFileSystemGoogle::ApplyRemoteChange(const Change& change, FolderNode* root,
                                               std::uint64_t* free, std::uint64_t* total) {
  switch (change.type) {
    case Change::FILE_CREATE:
    case Change::FILE_MODIFY:
    case Change::FILE_DELETE:
    case Change::FILE_RENAME:
      return ApplyFileChange(change, root, free);
    case Change::FOLDER_CREATE:
    case Change::FOLDER_DELETE:
    case Change::FOLDER_RENAME:
    case Change::FOLDER_UPDATE:
      return ApplyFolderChange(change, root);
    case Change::FREE_SIZE_SET:
      *free = change.size;
      return true;
    case Change::TOTAL_SIZE_SET:
      *total = change.size;
      return true;
    case Change::USED_SIZE_DECREASE:
      *free += change.size;
      return true;
    case Change::USED_SIZE_INCREASE:
      *free = Less(*free, change.size);
      return true;
    case Change::PUBLIC_LINK:
      // The link marks are the core's; the tree has nothing to change.
      return true;
    default:
      LOG_ERROR << "Unsupported change type for Google: " << Change::TypeName(change.type);
      return false;
  }
}

bool RemoteFileSystemGoogle::ApplyFileChange(const Change& change, FolderNode* root,
                                             std::uint64_t* free) {
  auto [parent, name_view] = root->TraversePath(change.path);
  const std::string name(name_view);
  // 1. A move or rename: from the old place to the new one.
  if (change.type == Change::FILE_RENAME) {
    auto [old_parent, old_name] = root->TraversePath(change.old_path);
    if (!old_parent) {
      LOG_ERROR << "No old parent directory: " << change.old_path;
      return FailedApply();
    }
    if (!parent) {
      LOG_ERROR << "No new parent directory: " << change.path;
      return FailedApply();
    }
    if (!old_parent->HasFile(old_name)) {
      LOG_ERROR << "No such file.";
      return FailedApply();
    }
    return FolderNode::MoveFileW(old_parent, old_name, parent, name) ||
           NameCollision(change, parent, name);
  }
  if (change.type == Change::FILE_DELETE) {
    if (!parent) {
      LOG_ERROR << "Deleting item in non existent folder.";
      return FailedApply();
    }
    if (!parent->HasFile(name)) {
      LOG_ERROR << "No such file to delete.";
      return FailedApply();
    }
    if (!parent->DeleteFileW(name)) {
      LOG_ERROR << "Failed deleting file.";
      return FailedApply();
    }
    parent->SetChanged(true);
    return true;
  }
  // 2. A new file, or new content.
  if (!parent) {
    LOG_ERROR << "No parent directory: " << change.path;
    return FailedApply();
  }
  FileNode* file = parent->GetFile(name);
  if (!file) {
    file = parent->CreateFileW(name, change.size, change.hash, change.time, 0, change.readonly);
    if (!file) {
      return NameCollision(change, parent, name);
    }
    file->SetChanged(true);
    *free = Less(*free, change.size);
    return true;
  }
  if (file->size == change.size && file->hash == change.hash &&
      file->IsReadonly() == change.readonly) {
    return true;
  }
  // The quota check of the feed puts the free space right; this is its estimate till then.
  *free = Less(*free + change.size, file->size);
  file->SetSize(change.size, false);
  file->SetHash(change.hash);
  file->SetTime(change.time);
  file->SetReadonly(change.readonly);
  file->SetChanged(true);
  return true;
}

bool RemoteFileSystemGoogle::ApplyFolderChange(const Change& change, FolderNode* root) {
  if (change.type == Change::FOLDER_CREATE && change.path.empty()) {
    return true;
  }
  auto [parent, name_view] = root->TraversePath(change.path);
  const std::string name(name_view);
  switch (change.type) {
    case Change::FOLDER_CREATE: {
      if (!parent) {
        LOG_ERROR << "No parent directory: " << change.path;
        return FailedApply();
      }
      FolderNode* folder = parent->CreateFolder(name, change.time);
      if (!folder) {
        return NameCollision(change, parent, name);
      }
      folder->SetChanged(true);
      if (change.readonly) {
        folder->SetReadonly(change.path == kExternalItemsFolderName ? FolderNode::kReadonlyLocked
                                                                    : FolderNode::kReadonly);
      }
      return true;
    }
    case Change::FOLDER_DELETE:
      if (!parent || !parent->HasFolder(name)) {
        LOG_ERROR << "No such folder to delete.";
        return FailedApply();
      }
      parent->DeleteFolder(name);
      parent->SetChanged(true);
      return true;
    case Change::FOLDER_RENAME: {
      auto [old_parent, old_name] = root->TraversePath(change.old_path);
      if (!old_parent || !old_parent->HasFolder(old_name) || !parent) {
        LOG_ERROR << "No such folder.";
        return FailedApply();
      }
      if (FolderNode::MoveFolder(old_parent, old_name, parent, name)) {
        return true;
      }
      LOG_ERROR << "Failed to move folder.";
      return NameCollision(change, parent, name);
    }
    default: {  // FOLDER_UPDATE
      if (!parent) {
        LOG_ERROR << "Update for non existent folder.";
        return FailedApply();
      }
      FolderNode* folder = parent->GetFolder(name);
      if (!folder) {
        LOG_ERROR << "No such folder to update.";
        return FailedApply();
      }
      folder->SetReadonly(change.readonly ? FolderNode::kReadonly : FolderNode::kWritable);
      folder->SetChanged(true);
      return true;
    }
  }
}

bool RemoteFileSystemGoogle::NameCollision(const Change& change, FolderNode* parent,
                                           const std::string& name) {
  TreeError error;
  error.path = change.path;
  error.is_file = change.IsFileChange();
  if (parent->HasChild(name)) {
    bool shared = IsInsideExternalFolder(change.path);
    error.reason = shared ? TreeError::kSharedDuplicate : TreeError::kDuplicate;
  } else {
    error.reason = TreeError::kUnknown;
  }
  KeepTreeError(error, "google_changes_tree_error");
  FailedApply();
  return false;
}

bool RemoteFileSystemGoogle::FailedApply() {
  RadarsLogger::instance().SendMetric("failed_google_apply_changes", "1", 1);
  need_new_tree_ = true;
  return true;
}

// --- items ---------------------------------------------------------------------------------

namespace {

// The folder part and the name of a canonical path.
std::pair<std::string, std::string> SplitPath(const std::string& path) {
  std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) {
    return {std::string(), path};
  }
  return {path.substr(0, slash), path.substr(slash + 1)};
}

}  // namespace

FileSystem::Result RemoteFileSystemGoogle::WriteRequest(
    const std::string& verb, const std::string& path, const std::string& body,
    const std::vector<std::string>& ids_for_keys, utils::json::json_tree* json) {
  // 1. The client.
  std::shared_ptr<URLProcessor> http = Client();
  if (!http) {
    LOG_FATAL << "Not initialized.";
    return FATAL;
  }
  if (IsStopped()) {
    LOG_INFO << "Stopped.";
    return STOPPED;
  }
  // 2. The request, with the resource keys of the items it names.
  URLProcessor::Request request;
  request.verb = verb;
  request.url = DispatcherUrl::FromString(Endpoints::Get(Endpoints::kGoogleDrive) +
                                          google::kDriveApiBase + path);
  request.body = body;
  if (!body.empty()) {
    request.content_type = "application/json";
  }
  std::string keys = resource_keys_.BuildHeader(ids_for_keys);
  if (!keys.empty()) {
    request.headers.push_back(keys);
  }
  utils::json::json_tree scratch;
  std::string error;
  bool parsed = http->Send(request) &&
                utils::json::ReadAndParse(http->GetInputStream(), json ? json : &scratch, &error);
  URLProcessorResult result = http->Finish();
  SetFailReason(result, http->GetResponseCode());
  // 3. The verdict; an answer that should carry JSON must.
  if (result == URLProcessorResult::STOPPED) {
    LOG_INFO << "Stopped.";
    return STOPPED;
  }
  Result mapped = MapFailure(http.get(), result);
  if (mapped == SUCCEEDED && json && !parsed) {
    LOG_ERROR << "Failed to read response. " << error;
    return FAILED;
  }
  return mapped;
}

FileSystem::Result RemoteFileSystemGoogle::MapFailure(URLProcessor* http,
                                                      URLProcessorResult url_result) {
  Result result = MapGoogleFailure(http, url_result);
  if (result == CONFLICT) {
    if (restored_from_file_) {
      need_new_tree_ = true;
    }
    WakeChanges();
  }
  return result;
}

std::string RemoteFileSystemGoogle::FileId(const std::string& path) {
  std::string id = SharedIds()->GetFileIdByPath(path);
  if (id.empty() && restored_from_file_) {
    need_new_tree_ = true;
  }
  return id;
}

std::string RemoteFileSystemGoogle::FolderId(const std::string& path) {
  std::string id = SharedIds()->GetFolderIdByPath(path);
  if (id.empty() && restored_from_file_) {
    need_new_tree_ = true;
  }
  return id;
}

FileSystem::Result RemoteFileSystemGoogle::ExistingFileId(const std::string& path,
                                                          const char* missing_line,
                                                          std::string* id) {
  if (!IsRelativeCanonicalPath(path)) {
    LOG_ERROR << "Invalid path.";
    return FAILED;
  }
  *id = FileId(path);
  if (id->empty()) {
    LOG_ERROR << missing_line;
    return ITEM_MISSED;
  }
  return SUCCEEDED;
}

FileSystem::Result RemoteFileSystemGoogle::ExistingItemId(const std::string& path,
                                                          const char* missing_line,
                                                          std::string* id) {
  if (path.empty()) {
    LOG_ERROR << "Empty path.";
    return FAILED;
  }
  *id = FileId(path);
  if (id->empty()) {
    *id = FolderId(path);
  }
  if (id->empty()) {
    LOG_ERROR << missing_line << path;
    return ITEM_MISSED;
  }
  return SUCCEEDED;
}

bool RemoteFileSystemGoogle::IsItemInMountedDir(const std::string& path) {
  return IsInsideExternalFolder(path);
}

FileSystem::Result RemoteFileSystemGoogle::CreateFolderImpl(const OverwriteControl&,
                                                            const std::string& path) {
  LOG_INFO << "Creating folder \"" << path;
  // 1. Where it goes: not among other people's items, not over an item of the tree.
  if (IsInsideExternalFolder(path)) {
    LOG_ERROR << "Permission denied creating shared folder.";
    return ACCESS_DENIED;
  }
  auto [parent_path, name] = SplitPath(path);
  std::string parent_id = FolderId(parent_path);
  if (parent_id.empty()) {
    LOG_ERROR << "Parent not found by path: " << path;
    return ITEM_MISSED;
  }
  std::shared_ptr<RemoteFileIds> ids = SharedIds();
  if (!ids->GetFileIdByPath(path).empty()) {
    LOG_ERROR << "There is already file with same path: " << path;
    return CONFLICT;
  }
  if (!ids->GetFolderIdByPath(path).empty()) {
    LOG_ERROR << "There is already folder with same path: " << path;
    return CONFLICT;
  }
  // 2. The request. The feed may meet the new folder before its answer comes: the creation is
  // announced first, so that the feed takes it for the echo it is, and no lock is held meanwhile.
  std::string remote_name = name;
  MapNameToRemote(&remote_name);
  utils::json::Writer body;
  body.BeginObject()
      .Key("name")
      .String(remote_name)
      .Key("mimeType")
      .String(google::kFolderMimeType)
      .Key("parents")
      .BeginArray()
      .String(parent_id)
      .EndArray()
      .EndObject();
  expected_.BeginFolderCreation(parent_id, name);
  utils::json::json_tree json;
  Result result = WriteRequest("POST", "/files", body.Text(), {}, &json);
  // 3. The id into the tree.
  std::string id = result == SUCCEEDED ? Text(json, "id") : std::string();
  if (result == SUCCEEDED && id.empty()) {
    LOG_ERROR << "No id in response.";
    result = FAILED;
  }
  if (result == SUCCEEDED && !ids->AddFolderId(id, name, parent_id)) {
    LOG_ERROR << "Failed to add folder.";
    result = FAILED;
  }
  expected_.EndFolderCreation(parent_id, name, result == SUCCEEDED ? id : std::string());
  if (result != SUCCEEDED && result != STOPPED) {
    std::shared_ptr<URLProcessor> http = Client();
    LOG_ERROR << "Failed creating folder; http response code: "
              << (http ? http->GetResponseCode() : 0) << "; result " << result << ".";
  }
  return result;
}

FileSystem::Result RemoteFileSystemGoogle::TrashItem(const std::string& id) {
  utils::json::Writer body;
  body.BeginObject().Key("trashed").Bool(true).EndObject();
  Result result = WriteRequest("PATCH", "/files/" + id, body.Text(), {id}, nullptr);
  if (result != SUCCEEDED && result != STOPPED) {
    LOG_ERROR << "Patch request failed.";
    if (!resource_keys_.BuildHeader({id}).empty()) {
      RadarsLogger::instance().SendMetric("ggl_delete_failed_resource_key", "1", 1);
    }
  }
  return result;
}

FileSystem::Result RemoteFileSystemGoogle::TrashWithEcho(const std::string& id) {
  // The echo is expected before the request, so that the feed drops it whenever it comes.
  expected_.ExpectTrashing(id);
  const Result result = TrashItem(id);
  if (result != SUCCEEDED) {
    expected_.TakeTrashing(id);
    LOG_ERROR << "Deleting item failed: " << result << ".";
  }
  return result;
}

FileSystem::Result RemoteFileSystemGoogle::DeleteFileImpl(const OverwriteControl&,
                                                          const std::string& path, std::uint64_t,
                                                          std::uint64_t) {
  LOG_INFO << "Deleting file \"" << path;
  // 1. The item.
  std::string id;
  if (const Result found = ExistingFileId(path, "Failed to get id by path.", &id);
      found != SUCCEEDED) {
    return found;
  }
  // 2. To the trash.
  if (const Result trashed = TrashWithEcho(id); trashed != SUCCEEDED) {
    return trashed;
  }
  // 3. Out of the id tree.
  std::shared_ptr<RemoteFileIds> ids = SharedIds();
  if (!ids->RemoveFile(ids->GetNameById(id), id)) {
    LOG_ERROR << "Failed to remove file \"" << path << "\" (" << id << "). Possible conflict.";
  }
  ids->AddTrashed(id);
  return SUCCEEDED;
}

FileSystem::Result RemoteFileSystemGoogle::DeleteFolderImpl(const FolderNode&, const Revision&,
                                                            const std::string& path) {
  LOG_INFO << "Deleting folder \"" << path;
  // 1. The item.
  if (path == kExternalItemsFolderName) {
    LOG_ERROR << "Permission denied deleting emulated external items folder.";
    return ACCESS_DENIED;
  }
  std::string id = FolderId(path);
  if (id.empty() || path.empty()) {
    LOG_ERROR << "Failed to get id by path.";
    return ITEM_MISSED;
  }
  // 2. To the trash.
  if (const Result trashed = TrashWithEcho(id); trashed != SUCCEEDED) {
    return trashed;
  }
  // 3. Everything below goes with it: the feed's entries for them are echoes too.
  std::shared_ptr<RemoteFileIds> ids = SharedIds();
  bool removed = false;
  expected_.Locked([&](GoogleSelfMadeChanges::Records& records) {
    ids->VisitSubtree(id, [&records, &id](const std::string& child) {
      if (child != id) {
        records.expected_trashings.insert(child);
      }
    });
    removed = ids->RemoveFolder(ids->GetNameById(id), id);
  });
  if (!removed) {
    LOG_ERROR << "Failed to remote folder from ids tree. Maybe conflict.";
  }
  return SUCCEEDED;
}

FileSystem::Result RemoteFileSystemGoogle::ResolveRelocation(bool is_folder,
                                                             const std::string& from,
                                                             const std::string& to,
                                                             Relocation* relocation) {
  // 1. The item.
  relocation->id = is_folder ? FolderId(from) : FileId(from);
  if (relocation->id.empty() || from.empty()) {
    LOG_ERROR << (is_folder ? "Failed to find folder id for: " : "Failed to find id for: ") << from
              << ".";
    return ITEM_MISSED;
  }
  // 2. Both parents; other people's items stay where they are.
  auto [old_parent, old_name] = SplitPath(from);
  auto [new_parent, new_name] = SplitPath(to);
  relocation->old_name = old_name;
  relocation->new_name = new_name;
  relocation->new_parent_id = FolderId(new_parent);
  if (relocation->new_parent_id.empty()) {
    LOG_ERROR << "Failed to find new parent id for: " << to << ".";
    return ITEM_MISSED;
  }
  relocation->old_parent_id = FolderId(old_parent);
  if (relocation->old_parent_id.empty()) {
    LOG_ERROR << "Failed to find old parent id for: " << from << ".";
    return ITEM_MISSED;
  }
  if (IsInsideExternalFolder(from) || IsInsideExternalFolder(to)) {
    LOG_ERROR << "Permission denied moving to emulated shared folder.";
    return ACCESS_DENIED;
  }
  return SUCCEEDED;
}

FileSystem::Result RemoteFileSystemGoogle::PatchItem(const Relocation& relocation,
                                                     std::int64_t* version) {
  // 1. The name only when it changes, the parents only when they do.
  utils::json::Writer body;
  body.BeginObject();
  if (relocation.new_name != relocation.old_name) {
    std::string remote_name = relocation.new_name;
    MapNameToRemote(&remote_name);
    body.Key("name").String(remote_name);
  }
  body.EndObject();
  google::QueryParams params;
  if (relocation.new_parent_id != relocation.old_parent_id) {
    params = {{"removeParents", relocation.old_parent_id},
              {"addParents", relocation.new_parent_id}};
  }
  params.emplace_back("fields", "id, version");
  // 2. The request.
  utils::json::json_tree json;
  Result result = WriteRequest("PATCH", google::WithQuery("/files/" + relocation.id, params),
                               body.Text(), {relocation.id}, &json);
  if (result != SUCCEEDED) {
    if (result != STOPPED) {
      LOG_ERROR << "Patch request failed: " << result << ".";
      if (!resource_keys_.BuildHeader({relocation.id}).empty()) {
        RadarsLogger::instance().SendMetric("ggl_rename_failed_resource_key", "1", 1);
      }
    }
    return result;
  }
  // 3. The same item, at its new version.
  std::string id = Text(json, "id");
  if (id.empty()) {
    LOG_ERROR << "Invalid response.";
    return FAILED;
  }
  if (id != relocation.id) {
    LOG_ERROR << "File id has changed with update request: " << relocation.id << "    " << id;
    return FAILED;
  }
  *version = static_cast<std::int64_t>(Number(Text(json, "version")));
  return SUCCEEDED;
}

FileSystem::Result RemoteFileSystemGoogle::Relocate(bool folder, const std::string& from,
                                                    const std::string& to, Relocation* relocation,
                                                    std::int64_t* version) {
  Result result = ResolveRelocation(folder, from, to, relocation);
  if (result == SUCCEEDED && folder && relocation->id == ConstructorBase::kExternalItemsFolderId) {
    LOG_ERROR << "Permission denied moving to emulated shared folder.";
    result = ACCESS_DENIED;
  }
  if (result == SUCCEEDED) {
    result = PatchItem(*relocation, version);
  }
  if (result != SUCCEEDED) {
    LOG_ERROR << "Failed moving: " << result;
  }
  return result;
}

namespace {

// A file and a folder move alike but for their place in the id tree and its failure's line.
struct MoveKind {
  const char* noun;
  bool (RemoteFileIds::*move)(const std::string& id, const std::string& old_name,
                              const std::string& new_parent_id, const std::string& new_name);
  const char* tree_failure;
};

constexpr MoveKind kFileMove{"file", &RemoteFileIds::MoveFileW, "Failed to rename file."};
constexpr MoveKind kFolderMove{"folder", &RemoteFileIds::MoveFolder, "Failed to move folder."};

}  // namespace

FileSystem::Result RemoteFileSystemGoogle::MoveItem(
    bool folder, const std::string& from, const std::string& to,
    const std::function<void(const Relocation&, std::int64_t version)>& expect_echo) {
  const MoveKind& kind = folder ? kFolderMove : kFileMove;
  LOG_INFO << "Moving " << kind.noun << " \"" << from << "\" to \"" << to;
  if (from == to) {
    LOG_INFO << "Moving to same path.";
    return SUCCEEDED;
  }
  // 1. The request; the emulated shared folder itself never moves.
  Relocation relocation;
  std::int64_t version = 0;
  if (const Result result = Relocate(folder, from, to, &relocation, &version);
      result != SUCCEEDED) {
    return result;
  }
  // 2. The id tree, and the echo to come.
  std::shared_ptr<RemoteFileIds> ids = SharedIds();
  if (!(ids.get()->*kind.move)(relocation.id, ids->GetNameById(relocation.id),
                               relocation.new_parent_id, relocation.new_name)) {
    LOG_ERROR << kind.tree_failure;
  }
  expect_echo(relocation, version);
  return SUCCEEDED;
}

FileSystem::Result RemoteFileSystemGoogle::MoveFileImpl(const FileNode& file,
                                                        const OverwriteControl&,
                                                        const std::string& from,
                                                        const OverwriteControl&,
                                                        const std::string& to) {
  return MoveItem(false, from, to, [&](const Relocation& relocation, std::int64_t version) {
    HashGoogle hash =
        file.hash.GetType() == SomeHash::GOOGLE ? file.hash.GetHashGoogle() : HashGoogle();
    expected_.ExpectUpload({relocation.id, hash, file.size, version, relocation.new_parent_id, to});
  });
}

FileSystem::Result RemoteFileSystemGoogle::MoveFolderImpl(const FolderNode&,
                                                          const OverwriteControl&,
                                                          const std::string& from,
                                                          const OverwriteControl&,
                                                          const std::string& to) {
  return MoveItem(true, from, to, [this](const Relocation& relocation, std::int64_t) {
    expected_.ExpectFolder(relocation.id);
  });
}

// --- public links --------------------------------------------------------------------------

FileSystem::Result RemoteFileSystemGoogle::GetPublicLink(const std::string& path, bool,
                                                         std::string* link) {
  LOG_INFO << "Getting public link for '" << path;
  // 1. The item.
  std::string id;
  if (const Result found = ExistingItemId(path, "Failed to find ", &id); found != SUCCEEDED) {
    return found;
  }
  // 2. Anyone with the link may read it.
  utils::json::Writer body;
  body.BeginObject().Key("role").String("reader").Key("type").String("anyone").EndObject();
  utils::json::json_tree json;
  Result result = WriteRequest("POST", "/files/" + id + "/permissions", body.Text(), {id}, &json);
  if (result != SUCCEEDED) {
    if (result != STOPPED) {
      LOG_ERROR << "Failed request: " << result;
    }
    return result;
  }
  // 3. The link of the item's page.
  return ReadText("/files/" + id, "webViewLink", "webViewLink",
                  {"Failed to get file resource link.", "No web view link in response."}, link);
}

FileSystem::Result RemoteFileSystemGoogle::ClosePublicLink(const std::string& path) {
  LOG_INFO << "Closing public link for '" << path;
  std::string id;
  if (const Result found = ExistingItemId(path, "Failed to find \"", &id); found != SUCCEEDED) {
    return found;
  }
  Result result =
      WriteRequest("DELETE", "/files/" + id + "/permissions/anyoneWithLink", "", {id}, nullptr);
  if (result == SUCCEEDED) {
    LOG_INFO << "Public link for \"" << path << "\" is closed.";
  } else if (result != STOPPED) {
    std::shared_ptr<URLProcessor> http = Client();
    LOG_ERROR << "Failed to delete public link permission for \"" << path << "\" with code "
              << (http ? http->GetResponseCode() : 0);
  }
  return result;
}

// --- sizes and recent files ----------------------------------------------------------------

FileSystem::Result RemoteFileSystemGoogle::SumSizes(const std::string& query,
                                                    const std::string& fields, const char* order,
                                                    std::uint64_t* sum) {
  *sum = 0;
  std::string token;
  do {
    google::QueryParams params{{"fields", fields}};
    if (!token.empty()) {
      params.emplace_back("pageToken", token);
    }
    params.insert(params.end(), {{"q", query}, {"pageSize", "999"}});
    if (order) {
      params.emplace_back("orderBy", order);
    }
    params.emplace_back("prettyPrint", "false");
    utils::json::json_tree json;
    Result result = SendRequest(google::WithQuery("/files", params), "", &json);
    if (result != SUCCEEDED) {
      return result;
    }
    if (auto files = utils::json::Member(json, "files")) {
      for (const auto& file : *files) {
        *sum += Number(Text(file.second, "size"));
      }
    }
    token = Text(json, "nextPageToken");
  } while (!token.empty());
  return SUCCEEDED;
}

std::uint64_t RemoteFileSystemGoogle::GetMountedDirSize() {
  std::uint64_t sum = 0;
  SumSizes("trashed=false and (not 'me' in owners or sharedWithMe=true)",
           "files(name,size),nextPageToken", "folder", &sum);
  return sum;
}

std::uint64_t RemoteFileSystemGoogle::GetTrashedFilesSize() {
  std::uint64_t sum = 0;
  SumSizes("trashed=true", "files(size),nextPageToken", nullptr, &sum);
  return sum;
}

utils::ValueOrError<std::vector<RemoteFileSystem::FileInfo>, FileSystem::Result>
RemoteFileSystemGoogle::GetLastFiles(int count) {
  // 1. The newest first, from the v2 API.
  utils::json::json_tree json;
  std::string path = google::WithQuery(
      "/files", {{"maxResults", std::to_string(count)}, {"orderBy", "recency desc"}});
  Result result = SendRequest(path, "", &json, nullptr, google::kDriveApiV2Base);
  if (result != SUCCEEDED) {
    LOG_ERROR << "Failed GetLastFiles request from api";
    return result;
  }
  // 2. The files among them.
  std::vector<FileInfo> files;
  auto items = utils::json::Member(json, "items");
  if (!items) {
    return files;
  }
  for (const auto& entry : *items) {
    const utils::json::json_tree& item = entry.second;
    if (Text(item, "mimeType") == google::kFolderMimeType ||
        Text(item, "labels.trashed") == "true") {
      continue;
    }
    FileInfo info;
    info.id = Text(item, "id");
    info.name = Text(item, "title");
    std::string date = Text(item, "modifiedDate");
    std::int64_t seconds = 0;
    if (utils::TryParseISODateTime(date.substr(0, date.find('.')), &seconds)) {
      info.time = static_cast<std::uint64_t>(std::max<std::int64_t>(seconds, 0));
    }
    info.size = Number(Text(item, "fileSize"));
    files.push_back(std::move(info));
  }
  return files;
}

// --- file content --------------------------------------------------------------------------

namespace {

constexpr int kMtimeTries = 3;
constexpr std::int64_t kMtimeRetryMs = 2000;
constexpr const char* kUploadAnswerFields = "id, md5Checksum, size, version";

const char* HashText(const HashGoogle& hash) {
  static thread_local std::string text;
  text = hash.ToHexString();
  return text.c_str();
}

}  // namespace

std::string RemoteFileSystemGoogle::FormatTime(std::uint64_t seconds) {
  std::time_t time = static_cast<std::time_t>(seconds);
  std::tm parts{};
  gmtime_r(&time, &parts);
  char text[32];
  std::strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%S.000Z", &parts);
  return text;
}

FileSystem::Result RemoteFileSystemGoogle::IdleFileSlot(std::shared_ptr<URLProcessor>* http) {
  *http = FileClient();
  if (!*http) {
    LOG_FATAL << "Not initialized.";
    return FATAL;
  }
  if (operation_ != kNone) {
    LOG_ERROR << "Another file operation is open.";
    return FAILED;
  }
  return SUCCEEDED;
}

std::shared_ptr<URLProcessor> RemoteFileSystemGoogle::FileClient() const {
  std::lock_guard<std::mutex> lock(http_mutex_);
  return file_http_;
}

std::shared_ptr<resumable_upload::ResumableSessions<RemoteFileSystemGoogle::CurrentUpload>>
RemoteFileSystemGoogle::Sessions() const {
  return SharedDataAs<RemoteFileSystemGoogleSharedData>()->sessions;
}

FileSystem::Result RemoteFileSystemGoogle::OpenForCreate(const OverwriteControl&,
                                                         const std::string& path,
                                                         const SomeHash& hash, std::uint64_t size,
                                                         std::uint64_t time,
                                                         std::uint64_t* resume_offset, bool) {
  LOG_INFO << "Creating file \"" << path << "\", size=" << size;
  std::shared_ptr<RemoteFileIds> ids = SharedIds();
  if (!ids->GetFileIdByPath(path).empty() || !ids->GetFolderIdByPath(path).empty()) {
    LOG_ERROR << "File or folder already exists with such path \"" << path << "\".";
    if (restored_from_file_) {
      need_new_tree_ = true;
    }
    return CONFLICT;
  }
  return OpenUpload(path, std::string(), hash, size, time, resume_offset);
}

FileSystem::Result RemoteFileSystemGoogle::OpenForRewrite(const OverwriteControl& control,
                                                          const std::string& path,
                                                          const SomeHash& hash, std::uint64_t size,
                                                          std::uint64_t time,
                                                          std::uint64_t* resume_offset) {
  LOG_INFO << "Rewriting file \"" << path << "\", size=" << size;
  std::string id = FileId(path);
  if (id.empty()) {
    LOG_ERROR << "No such file \"" << path << "\".";
    return ITEM_MISSED;
  }
  if (SharedDocs()->HasDoc(id, path)) {
    LOG_ERROR << "Attempt to write google doc.";
    return ACCESS_DENIED;
  }
  // The tree may be behind the server: the content replaced must be the one the caller saw.
  if (control.hash.GetType() == SomeHash::GOOGLE && !control.hash.IsZero()) {
    utils::json::json_tree json;
    Result result = SendRequest(google::WithQuery("/files/" + id, {}), "md5Checksum", &json);
    if (result != SUCCEEDED) {
      return result;
    }
    HashGoogle remote = google::HashFromHex(Text(json, "md5Checksum"));
    if (remote != control.hash.GetHashGoogle()) {
      LOG_WARNING << "File \"" << path << "\" changed on the server: expected "
                  << control.hash.ToHexString() << ", found " << remote.ToHexString() << ".";
      return CONFLICT;
    }
  }
  return OpenUpload(path, id, hash, size, time, resume_offset);
}

FileSystem::Result RemoteFileSystemGoogle::OpenUpload(const std::string& path,
                                                      const std::string& file_id,
                                                      const SomeHash& hash, std::uint64_t size,
                                                      std::uint64_t time,
                                                      std::uint64_t* resume_offset) {
  // 1. The slot and the client.
  std::shared_ptr<URLProcessor> http;
  if (Result idle = IdleFileSlot(&http); idle != SUCCEEDED) {
    return idle;
  }
  *resume_offset = 0;
  uploader_ = std::make_unique<google::GoogleUpload>(*http);
  // 2. A stored session of this content goes on where it stopped.
  Result result = SUCCEEDED;
  if (ResumeUpload(path, size, hash, &result, resume_offset)) {
    return SUCCEEDED;
  }
  if (result != SUCCEEDED) {
    return result;
  }
  // 3. A new session.
  CurrentUpload upload;
  upload.path = path;
  upload.size = size;
  upload.file_id = file_id;
  upload.mtime = time;
  upload.expected_hash = hash.GetType() == SomeHash::GOOGLE ? hash.GetHashGoogle() : HashGoogle();
  std::string url = Endpoints::Get(Endpoints::kGoogleDrive) + google::kUploadApiBase + "/files" +
                    (file_id.empty() ? std::string() : "/" + file_id);
  result = RequestUploadSession(path, url, !file_id.empty(), time, &upload);
  if (result != SUCCEEDED) {
    LOG_ERROR << "Failed to get upload uri: " << result;
    return result;
  }
  // 4. The body.
  upload_ = upload;
  upload_hash_.Begin();
  upload_digest_.reset();
  return StartBody(*http);
}

FileSystem::Result RemoteFileSystemGoogle::RequestUploadSession(const std::string& path,
                                                                const std::string& url,
                                                                bool is_update, std::uint64_t mtime,
                                                                CurrentUpload* upload) {
  // 1. Where the file goes.
  if (!FileSystem::IsRelativeCanonicalPath(path)) {
    LOG_ERROR << "Invalid path.";
    return FAILED;
  }
  auto [parent_path, name] = SplitPath(path);
  upload->parent_id = FolderId(parent_path);
  if (upload->parent_id.empty()) {
    LOG_ERROR << "Failed to find parent folder id for " << name << ".";
    return ITEM_MISSED;
  }
  if (IsInsideExternalFolder(path)) {
    LOG_ERROR << "Permission denied writing to emulated shared folder.";
    return ACCESS_DENIED;
  }
  // 2. The metadata.
  utils::json::Writer body;
  body.BeginObject();
  if (!is_update) {
    std::string remote_name = name;
    MapNameToRemote(&remote_name);
    body.Key("parents").BeginArray().String(upload->parent_id).EndArray();
    body.Key("name").String(remote_name);
  }
  body.Key("modifiedTime").String(FormatTime(mtime)).EndObject();
  std::string target =
      google::WithQuery(url, {{"uploadType", "resumable"}, {"fields", kUploadAnswerFields}});
  std::string key_header =
      is_update ? resource_keys_.BuildHeader({upload->file_id}) : std::string();
  // 3. The session.
  Result result = uploader_->RequestSession(target, is_update, body.Text(), key_header, upload);
  SetFailReason(uploader_->LastResult(), uploader_->LastCode());
  if (result == FAILED) {
    if (!key_header.empty()) {
      RadarsLogger::instance().SendMetric("ggl_upload_failed_resource_key", "1", 1);
    }
    std::shared_ptr<URLProcessor> http = FileClient();
    if (IsSuccessResult(uploader_->LastResult())) {
      return FAILED;
    }
    return MapFailure(http.get(), uploader_->LastResult());
  }
  upload->path = path;
  return result;
}

bool RemoteFileSystemGoogle::ResumeUpload(const std::string& path, std::uint64_t size,
                                          const SomeHash& hash, Result* result,
                                          std::uint64_t* offset) {
  // 1. A stored session of the same content.
  CurrentUpload upload;
  if (hash.GetType() != SomeHash::GOOGLE ||
      !Sessions()->TakeForResume(path, SomeHash(hash.GetHashGoogle()), size, &upload)) {
    return false;
  }
  if (upload.session_url.empty()) {
    LOG_WARNING << "Upload not resumed: empty session url.";
    return false;
  }
  // 2. How far the server got.
  std::string answer;
  google::SessionStatus status = uploader_->QueryStatus(&upload, &answer);
  SetFailReason(uploader_->LastResult(), uploader_->LastCode());
  switch (status) {
    case google::SessionStatus::kResumable:
      break;
    case google::SessionStatus::kExpired:
      LOG_WARNING << "Upload session for file \"" << path << "\" expired.";
      RadarsLogger::instance().SendMetric("google_upload_session_expired", "1", 1);
      return false;
    case google::SessionStatus::kComplete: {
      // The last attempt's bytes all arrived; only its answer was lost.
      LOG_INFO << "Upload of \"" << path << "\" completed already.";
      upload_ = upload;
      upload_.offset = upload_.sent = upload_.size;
      upload_.is_resumed = true;
      operation_ = kWriting;
      completed_answer_ = answer;
      *offset = size;
      return true;
    }
    case google::SessionStatus::kFailed: {
      if (uploader_->LastResult() == URLProcessorResult::STOPPED) {
        LOG_INFO << "Stopped.";
        *result = STOPPED;
      } else if (URLProcessor::IsNetworkError(uploader_->LastResult())) {
        // The session may still stand: it waits in the store for the next try.
        Sessions()->Store(path, upload);
        *result = FAILED;
      }
      return false;
    }
  }
  // 3. The rest of the body.
  upload.sent = upload.started_from = upload.offset;
  upload.is_resumed = true;
  upload_ = upload;
  std::shared_ptr<URLProcessor> http = FileClient();
  *result = StartBody(*http);
  if (*result != SUCCEEDED) {
    return false;
  }
  RadarsLogger::instance().SendMetric("google_upload_resumed", "1", 1);
  LOG_INFO << "Resume upload for file \"" << path << "\" from " << upload_.offset
           << " offset, size = " << upload_.size << ".";
  *offset = upload_.offset;
  return true;
}

FileSystem::Result RemoteFileSystemGoogle::StartBody(URLProcessor& http) {
  completed_answer_.clear();
  if (!uploader_->BeginBody(upload_)) {
    URLProcessorResult result = http.Finish();
    SetFailReason(result, http.GetResponseCode());
    if (result == URLProcessorResult::STOPPED) {
      LOG_INFO << "Stopped.";
      return STOPPED;
    }
    LOG_ERROR << "Failed to start upload.";
    return FAILED;
  }
  operation_ = kWriting;
  return SUCCEEDED;
}

FileSystem::Result RemoteFileSystemGoogle::WriteFile(const std::uint8_t* data, std::uint32_t size) {
  if (operation_ != kWriting) {
    LOG_ERROR << "No upload is open.";
    return FAILED;
  }
  // 1. Never past the announced size: nothing goes out. A session the server had finished
  // already takes no bytes at all.
  if (size == 0) {
    return SUCCEEDED;
  }
  if (upload_.offset + size > upload_.size) {
    LOG_ERROR << "Write overflow; size=" << upload_.size << ", actual_offset=" << upload_.offset
              << ".";
    return FAILED;
  }
  if (!upload_.is_resumed) {
    upload_hash_.Feed(data, size);
  }
  upload_.offset += size;
  upload_.sent += size;
  // 2. The last block stays here when the content is not what was announced.
  if (upload_.offset == upload_.size && !upload_.expected_hash.IsZero() && !upload_.is_resumed) {
    const HashGoogle& got = UploadDigest();
    if (got != upload_.expected_hash) {
      LOG_ERROR << "File \"" << upload_.path << "\" has different hashes: expected "
                << HashText(upload_.expected_hash) << ", got " << got.ToHexString() << ".";
      std::shared_ptr<URLProcessor> http = FileClient();
      http->Stop();
      std::string ignored;
      URLProcessorResult ended = uploader_->Finish(&ignored);
      http->Start();
      if (ended != URLProcessorResult::OK) {
        LOG_INFO << "Finished but not succeeded but " << ended << ".";
      }
      operation_ = kFailed;
      SetFailReasonValue(FAIL_REASON_HTTP);
      RadarsLogger::instance().SendMetric("google_invalid_upload_hash", "1", 1);
      return FAILED;
    }
  }
  // 3. The bytes.
  if (uploader_->Write(data, size)) {
    return SUCCEEDED;
  }
  upload_.offset -= size;
  upload_.sent -= size;
  operation_ = kFailed;
  std::shared_ptr<URLProcessor> http = FileClient();
  std::string answer;
  URLProcessorResult result = uploader_->Finish(&answer);
  RadarsLogger::instance().SendIfNetworkError(result, "remote_google", http->GetResponseCode(),
                                              http->GetUrl());
  SetFailReason(result, http->GetResponseCode());
  KeepSessionForResume();
  LOG_INFO << "Finished with result: " << result << ".";
  if (result == URLProcessorResult::STOPPED) {
    LOG_INFO << "Stopped.";
    return STOPPED;
  }
  LOG_ERROR << "Writing failed.";
  return IsSuccessResult(result) ? FAILED : MapFailure(http.get(), result);
}

const HashGoogle& RemoteFileSystemGoogle::UploadDigest() {
  if (!upload_digest_) {
    upload_digest_ = upload_hash_.Finish().GetHashGoogle();
  }
  return *upload_digest_;
}

void RemoteFileSystemGoogle::KeepSessionForResume() {
  if (!upload_.expected_hash.IsZero() && !upload_.session_url.empty()) {
    Sessions()->Store(upload_.path, upload_);
  }
}

void RemoteFileSystemGoogle::SetFileHashToResumeInterruptedUpload(const SomeHash& hash) {
  if (operation_ == kWriting && upload_.expected_hash.IsZero() &&
      hash.GetType() == SomeHash::GOOGLE) {
    upload_.expected_hash = hash.GetHashGoogle();
  }
}

FileSystem::Result RemoteFileSystemGoogle::CloseFile(FileProperties* props) {
  std::lock_guard<std::mutex> lock(operation_mutex_);
  int operation = operation_.exchange(kNone);
  switch (operation) {
    case kWriting:
      return FinishUpload(props);
    case kReading:
      return EndRead();
    case kFailed: {
      std::shared_ptr<URLProcessor> http = FileClient();
      if (uploader_ && uploader_->BodyOpen()) {
        std::string ignored;
        uploader_->Finish(&ignored);
      } else if (read_.open && http) {
        http->Finish();
      }
      read_ = CurrentRead();
      return SUCCEEDED;
    }
    default:
      LOG_ERROR << "No file operation is open.";
      return FATAL;
  }
}

FileSystem::Result RemoteFileSystemGoogle::InterruptFile() {
  LOG_INFO << "File operation interrupted.";
  std::shared_ptr<URLProcessor> http = FileClient();
  if (http) {
    http->Stop();
  }
  Result result = operation_ == kNone ? SUCCEEDED : CloseFile(nullptr);
  if (http) {
    http->Start();
  }
  return result;
}

FileSystem::Result RemoteFileSystemGoogle::FinishUpload(FileProperties* props) {
  // 1. The server's answer.
  std::string answer = completed_answer_;
  if (answer.empty()) {
    std::shared_ptr<URLProcessor> http = FileClient();
    URLProcessorResult result = uploader_->Finish(&answer);
    RadarsLogger::instance().SendIfNetworkError(result, "remote_google", http->GetResponseCode(),
                                                http->GetUrl());
    SetFailReason(result, -1);
    if (!IsSuccessResult(result)) {
      LOG_ERROR << "Response: " << answer;
      if (upload_.offset < upload_.size || URLProcessor::IsNetworkError(result) ||
          result == URLProcessorResult::STOPPED) {
        KeepSessionForResume();
      }
      if (result == URLProcessorResult::STOPPED) {
        LOG_INFO << "Stopped.";
        return STOPPED;
      }
      LOG_ERROR << "Not successful finish writing file.";
      return MapFailure(http.get(), result);
    }
  }
  completed_answer_.clear();
  if (upload_.offset < upload_.size) {
    LOG_WARNING << "Partial write.";
  }
  return TakeUploadedFile(answer, props);
}

FileSystem::Result RemoteFileSystemGoogle::TakeUploadedFile(const std::string& answer,
                                                            FileProperties* props) {
  // 1. The file as the server has it.
  utils::json::json_tree json;
  std::string error;
  if (!utils::json::Parse(answer, &json, &error)) {
    LOG_ERROR << "Failed to parse reponse: " << answer;
    return FAILED;
  }
  std::string id = Text(json, "id");
  std::string md5 = Text(json, "md5Checksum");
  if (id.empty() || md5.empty()) {
    LOG_ERROR << "Invalid server response.";
    return FAILED;
  }
  HashGoogle remote = google::HashFromHex(md5);
  // 2. What was sent is what arrived.
  if (!upload_.is_resumed) {
    const HashGoogle& computed = UploadDigest();
    if (computed != remote) {
      LOG_ERROR << "Invalid content being uploaded. Expected hash is " << computed.ToHexString()
                << ". Actual is " << remote.ToHexString() << ".";
      SetFailReasonValue(FAIL_REASON_HTTP);
      RadarsLogger::instance().SendMetric("google_invalid_upload_hash", "1", 1);
      return FAILED;
    }
  }
  std::uint64_t size = Number(Text(json, "size"));
  std::int64_t version = static_cast<std::int64_t>(Number(Text(json, "version")));
  if (size != upload_.size) {
    LOG_ERROR << "Uploaded file size does not match: expected " << upload_.size << " got " << size
              << ".";
    return FAILED;
  }
  if (!upload_.expected_hash.IsZero() && remote != upload_.expected_hash) {
    LOG_ERROR << "Uploaded file hash does not match: expected " << HashText(upload_.expected_hash)
              << " got " << remote.ToHexString() << ".";
    SetFailReasonValue(FAIL_REASON_HTTP);
    RadarsLogger::instance().SendMetric("google_invalid_upload_hash", "1", 1);
    return FAILED;
  }
  // 3. The time the caller gives the file, when it is not the one sent with the session.
  if (props && props->time != 0 && props->time != upload_.mtime &&
      PatchMtime(id, props->time, &version) != SUCCEEDED) {
    LOG_WARNING << "Failed to patch mtime for \"" << upload_.path << "\" to " << props->time;
    RadarsLogger::instance().SendMetric("google_failed_patch_mtime", upload_.path, 1);
  }
  // 4. The tree, the echo the feed will bring, the key.
  if (upload_.file_id.empty() &&
      !SharedIds()->AddFileId(id, SplitPath(upload_.path).second, upload_.parent_id)) {
    LOG_ERROR << "Failed to add file id.";
  }
  expected_.ExpectUpload(
      {id, remote, size, version, upload_.parent_id, SplitPath(upload_.path).second});
  resource_keys_.Record(id, Text(json, "resourceKey"));
  if (props) {
    props->hash = size == 0 ? SomeHash(HashGoogle()) : SomeHash(remote);
    props->size = size;
  }
  return SUCCEEDED;
}

FileSystem::Result RemoteFileSystemGoogle::PatchMtime(const std::string& id, std::uint64_t mtime,
                                                      std::int64_t* version) {
  utils::json::Writer body;
  body.BeginObject().Key("modifiedTime").String(FormatTime(mtime)).EndObject();
  std::string path = google::WithQuery("/files/" + id, {{"fields", "id, version"}});
  Result result = FAILED;
  for (int attempt = 1; attempt <= kMtimeTries; ++attempt) {
    utils::json::json_tree json;
    result = WriteRequest("PATCH", path, body.Text(), {id}, &json);
    if (result == SUCCEEDED) {
      *version = static_cast<std::int64_t>(Number(Text(json, "version")));
      return SUCCEEDED;
    }
    if (result == STOPPED) {
      return STOPPED;
    }
    LOG_WARNING << "Patch request failed: " << result;
    if (attempt < kMtimeTries && WaitForStop(kMtimeRetryMs)) {
      LOG_INFO << "Stopped.";
      return STOPPED;
    }
  }
  LOG_ERROR << "Tries exceeded.";
  return result;
}

FileSystem::Result RemoteFileSystemGoogle::OpenForRead(const std::string& path,
                                                       std::uint64_t offset, std::uint64_t limit,
                                                       std::uint64_t size, const SomeHash&) {
  LOG_INFO << "Reading remote file \"" << path << "\".";
  // 1. The file.
  std::shared_ptr<URLProcessor> http;
  if (Result idle = IdleFileSlot(&http); idle != SUCCEEDED) {
    return idle;
  }
  std::string id;
  if (const Result found = ExistingFileId(path, "Failed to find file id. No such file.", &id);
      found != SUCCEEDED) {
    return found;
  }
  read_ = CurrentRead();
  read_id_ = id;
  // 2. A Google document is its shortcut text, made here.
  std::shared_ptr<GoogleDocs> docs = SharedDocs();
  if (docs->HasDoc(id, path)) {
    std::string content = docs->ShortcutContent(id);
    if (limit > offset) {
      content = offset < content.size() ? content.substr(offset, limit - offset) : std::string();
    }
    read_.fake_content = content;
    read_.fake = true;
    read_.read_size = content.size();
    operation_ = kReading;
    return SUCCEEDED;
  }
  // 3. A range only for a part of the file.
  URLProcessor::Request request;
  request.url =
      DispatcherUrl::FromString(Endpoints::Get(Endpoints::kGoogleDrive) + google::kDriveApiBase +
                                google::WithQuery("/files/" + id, {{"alt", "media"}}));
  bool whole = offset == 0 && (limit == 0 || limit >= size);
  if (limit > offset && !whole) {
    request.range = URLProcessor::Range{offset, limit - 1};
  }
  read_.read_size = limit > offset && !whole ? limit - offset : size;
  read_.size_known = read_.read_size != 0 || whole;
  std::string keys = resource_keys_.BuildHeader({id});
  if (!keys.empty()) {
    request.headers.push_back(keys);
  }
  read_.open = http->Send(request);
  operation_ = kReading;
  return SUCCEEDED;
}

FileSystem::Result RemoteFileSystemGoogle::ReadFile(std::uint8_t* buffer, std::uint32_t size,
                                                    std::uint32_t* done) {
  *done = 0;
  if (operation_ != kReading) {
    LOG_WARNING << "Connection is closed, can't read anymore.";
    SetFailReasonValue(FAIL_REASON_NETWORK);
    return FAILED;
  }
  // 1. A document's text.
  if (read_.fake) {
    std::uint64_t rest = read_.fake_content.size() - read_.read_offset;
    *done = static_cast<std::uint32_t>(std::min<std::uint64_t>(size, rest));
    std::memcpy(buffer, read_.fake_content.data() + read_.read_offset, *done);
    read_.read_offset += *done;
    return SUCCEEDED;
  }
  std::shared_ptr<URLProcessor> http = FileClient();
  if (!read_.open) {
    return FailedRead(*http, std::string());
  }
  // 2. The next bytes.
  StreamResult read = http->GetInputStream()->Read(buffer, size, done);
  if (read != StreamResult::OK && read != StreamResult::END) {
    *done = 0;
    return FailedRead(*http, std::string());
  }
  if (URLProcessor::IsNotSuccessHttpCode(http->GetResponseCode())) {
    std::string body(reinterpret_cast<const char*>(buffer), *done);
    *done = 0;
    return FailedRead(*http, body);
  }
  // 3. The first bytes tell the size the server sends.
  if (read_.first_chunk) {
    read_.first_chunk = false;
    std::string length =
        GetValueFromHTTPHeaders(http->GetResponseHeaders(), "Content-Length", true);
    if (read_.size_known && !length.empty() && Number(length) != read_.read_size) {
      LOG_ERROR << "Got unexpected file size: " << length << "; expected size is "
                << read_.read_size;
      RadarsLogger::instance().SendMetric("ggl_read_remote_unexpected_size", "1", 1);
      *done = 0;
      http->Stop();
      http->Finish();
      http->Start();
      read_.open = false;
      operation_ = kFailed;
      return FAILED;
    }
  }
  read_.read_offset += *done;
  if (read == StreamResult::END) {
    read_.open = false;
    URLProcessorResult ended = http->Finish();
    if (!IsSuccessResult(ended)) {
      return FailedRead(*http, std::string());
    }
    if (read_.size_known && read_.read_offset != read_.read_size) {
      LOG_WARNING << "Stream closed at " << read_.read_offset << " out of " << read_.read_size
                  << ".";
      RadarsLogger::instance().SendMetric("ggl_read_remote_unexpected_size", "1", 1);
      operation_ = kFailed;
      return FAILED;
    }
  }
  return SUCCEEDED;
}

FileSystem::Result RemoteFileSystemGoogle::FailedRead(URLProcessor& http, const std::string& body) {
  // 1. How the GET ended.
  std::string text = body;
  if (read_.open) {
    http.GetInputStream()->ReadAllTo(&text, 4096, 64 * 1024);
    read_.open = false;
  }
  URLProcessorResult result = http.Finish();
  int code = http.GetResponseCode();
  RadarsLogger::instance().SendIfNetworkError(result, "remote_google", code, http.GetUrl());
  SetFailReason(result, code);
  operation_ = kFailed;
  if (result == URLProcessorResult::STOPPED) {
    LOG_INFO << "Stopped.";
    SetFailReasonValue(FAIL_REASON_NONE);
    return STOPPED;
  }
  // 2. What the server said.
  if (!text.empty()) {
    LOG_ERROR << "Received body: \n" << text;
    std::string type = GetValueFromHTTPHeaders(http.GetResponseHeaders(), "Content-Type", true);
    if (type.find("json") == std::string::npos &&
        text.find("\"cannotDownloadFile\"") != std::string::npos) {
      LOG_ERROR << "Assuming access denied, full respone is: \n" << text;
    }
  }
  if (code == 403) {
    LOG_WARNING << "Got 403 when reading, assuming RATE_LIMIT.";
    RadarsLogger::instance().SendMetric("ggl_read_rate_limit", "1", 1);
    SetFailReasonValue(FAIL_REASON_RATE_LIMIT);
  }
  if (code == 404 && !resource_keys_.BuildHeader({read_id_}).empty()) {
    RadarsLogger::instance().SendMetric("ggl_read_failed_resource_key", "1", 1);
  }
  LOG_ERROR << "Finish result: " << result << ";   http_code=" << code;
  Result mapped = MapFailure(&http, result);
  return mapped == SUCCEEDED ? FAILED : mapped;
}

FileSystem::Result RemoteFileSystemGoogle::EndRead() {
  std::shared_ptr<URLProcessor> http = FileClient();
  if (read_.open && http) {
    // The caller read what it wanted: the rest of the body is not waited for.
    http->Stop();
    http->Finish();
    http->Start();
  }
  read_ = CurrentRead();
  return SUCCEEDED;
}
