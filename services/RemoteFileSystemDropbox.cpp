#include "services/RemoteFileSystemDropbox.h"

#include <QDateTime>
#include <QJsonDocument>
#include <QJsonObject>

#include <algorithm>
#include <set>

#include "core/Clock.h"
#include "core/Endpoints.h"
#include "core/LoggerWrapper.h"
#include "core/Nodes.h"
#include "core/PercentEncoding.h"
#include "core/RadarsLogger.h"
#include "core/StringUtils.h"
#include "services/RemoteDropboxUtils.h"
#include "services/RemoteFileSystemFactoryDropbox.h"

namespace {

constexpr char kJsonContentType[] = "application/json";
constexpr char kLongpollPath[] = "/2/files/list_folder/longpoll";
constexpr char kThumbnailPath[] = "/2/files/get_thumbnail_v2";
// A longpoll without "timeout" is held 30 s plus up to 90 s of Dropbox's jitter; the changes
// client waits longer than that, so a held poll never reads as a network failure.
constexpr int kChangesClientTimeoutSec = 180;
constexpr std::uint64_t kMaxRetryAfterSec = 180;
constexpr std::int64_t kSnapshotRetryMs = 2000;
constexpr std::int64_t kNoTreeWaitMs = 500;
constexpr std::int64_t kFeedPauseMs = 100;
constexpr std::int64_t kSizeIntervalSec = 100;
constexpr std::int64_t kLinksIntervalSec = 121;
constexpr std::int64_t kRenewIntervalSec = 60;
constexpr std::uint32_t kReadBlockSize = 4096;
constexpr float kLinksMaxLoadFactor = 8.0f;
constexpr std::size_t kLinksBurstThreshold = 16384;

std::int64_t NowSec() {
  return utils::GetClock().NowMs() / 1000;
}

// Seconds since `since`, or -1 when the clock ran back.
std::int64_t SecondsSince(std::int64_t since) {
  const std::int64_t now = NowSec();
  return now >= since ? now - since : -1;
}

std::string Encoded(const std::string& text) {
  return utils::JSONEncodedString(text, false);
}

std::string Quoted(const std::string& text) {
  return "\"" + text + "\"";
}

std::string EntryText(const utils::json::json_tree& entry) {
  return utils::json::ToString(entry, false);
}

void CutTrailingSlash(std::string* path) {
  if (path->size() > 1 && path->back() == '/') {
    path->pop_back();
  }
}

std::uint64_t Subtract(std::uint64_t from, std::uint64_t amount) {
  return from > amount ? from - amount : 0;
}

}  // namespace

RemoteFileSystemDropbox::RemoteFileSystemDropbox(
    std::shared_ptr<RemoteFileSystemSharedData> sharedData, const std::string& remoteRootPath)
    : RemoteFileSystemChangesSupport(std::move(sharedData), remoteRootPath) {
  sharedLinks_.max_load_factor(kLinksMaxLoadFactor);
  sharedLinks_.burst_threshold(kLinksBurstThreshold);
}

RemoteFileSystemDropbox::~RemoteFileSystemDropbox() = default;

void RemoteFileSystemDropbox::Start() {
  ForEachClient(&Stoppable::Start);
  RemoteFileSystem::Start();
}

void RemoteFileSystemDropbox::Stop() {
  ForEachClient(&Stoppable::Stop);
  RemoteFileSystem::Stop();
}

void RemoteFileSystemDropbox::ForEachClient(void (Stoppable::*call)()) {
  std::lock_guard<std::mutex> lock(clientsMutex_);
  for (const Client& client : {changesClient_, fileClient_}) {
    if (client) {
      (client.get()->*call)();
    }
  }
}

RemoteFileSystemDropbox::Client RemoteFileSystemDropbox::FileClient() {
  std::lock_guard<std::mutex> lock(clientsMutex_);
  return fileClient_;
}

RemoteFileSystemDropbox::Client RemoteFileSystemDropbox::ChangesClient() {
  std::lock_guard<std::mutex> lock(clientsMutex_);
  return changesClient_;
}

const RemoteFileSystem::UnsupportedSymbolsMap& RemoteFileSystemDropbox::GetUnsupportedSymbolsMap()
    const {
  return InvalidSymbolsMapping::kInvalidSymbolsMap_StdWin;
}

// --- the doors -------------------------------------------------------------------------------

FileSystem::Result RemoteFileSystemDropbox::CallRpc(const std::string& name,
                                                    const std::string& body,
                                                    utils::json::json_tree* json,
                                                    const Client& client) {
  return CallRpcUrl(Endpoints::Get(Endpoints::kDropboxApi) + "/2/" + name, body, json, client,
                    true);
}

FileSystem::Result RemoteFileSystemDropbox::CallRpcUrl(const std::string& url,
                                                       const std::string& body,
                                                       utils::json::json_tree* json,
                                                       const Client& client, bool authorize) {
  // 1. The request: JSON when there is a body.
  URLProcessor::Request request;
  request.verb = "POST";
  request.url = DispatcherUrl::FromString(url);
  request.body = body;
  request.content_type = body.empty() ? std::string() : kJsonContentType;
  request.authorize = authorize;
  client->Send(request);
  // 2. The answer, and the fail reason whatever it was.
  URLProcessor::Result transport = URLProcessor::Result::OK;
  json->clear();
  const Result parsed = ParseRpcResponse(json, client, &transport);
  const int code = client->GetResponseCode();
  SetFailReason(transport, code);
  if (parsed != SUCCEEDED) {
    return parsed;
  }
  return URLProcessor::IsSuccessHttpCode(code) ? SUCCEEDED : HandleRpcFailure(*json, client);
}

FileSystem::Result RemoteFileSystemDropbox::WaitAsAsked(std::int64_t ms, Result otherwise) {
  return WaitForStop(ms) ? STOPPED : otherwise;
}

FileSystem::Result RemoteFileSystemDropbox::HandleRpcFailure(const utils::json::json_tree& json,
                                                             const Client& client) {
  const int code = client->GetResponseCode();
  switch (code) {
    case 401:
      LOG_WARNING << "Dropbox API token is no longer valid.";
      return AUTH_INVALID;
    case 409:
      return HandleEndpointError(json);
    case 429: {
      utils::json::Log(json, false);
      LOG_WARNING << "Too many requests for Dropbox API.";
      RadarsLogger::instance().SendMetric("dropbox_too_many_requests", "1", 1);
      std::uint64_t seconds = dropbox::RetryAfterSeconds(json);
      if (seconds == 0) {
        LOG_INFO << "Waiting for one second.";
        return WaitAsAsked(1000, FAILED);
      }
      seconds = std::min(seconds, kMaxRetryAfterSec);
      LOG_INFO << "Waiting for " << seconds << "seconds.";
      return WaitAsAsked(static_cast<std::int64_t>(seconds) * 1000, FAILED);
    }
    default:
      utils::json::Log(json, false);
      if (code > 0) {
        LOG_WARNING << "Dropbox API RPC call failed for unknown reason with HTTP status code: "
                    << code << ".";
      }
      return FAILED;
  }
}

FileSystem::Result RemoteFileSystemDropbox::HandleEndpointError(
    const utils::json::json_tree& json) {
  // 1. The summary, kept as one string.
  const std::string summary = dropbox::LogEndpointError(json);
  // 2. A missing item means the tree is behind; a missing session of a resumed upload has
  // expired on the server.
  if (summary.find("not_found") != std::string::npos) {
    if (upload_.resumed) {
      RadarsLogger::instance().SendMetric("dropbox_upload_session_expired", "1", 1);
      LOG_WARNING << "Upload session for file " << Quoted(transferPath_) << " expired.";
      return FAILED;
    }
    return CONFLICT;
  }
  // 3. The table, then the write throttle, which asks for a second's pause.
  const Result result = dropbox::ResultOfErrorSummary(summary, BADNAM);
  if (summary.find("too_many_write_operations") != std::string::npos) {
    LOG_WARNING << "Encountered too many write operation, waiting for a second...";
    return WaitAsAsked(1000, result);
  }
  if (summary.find("incorrect_offset") != std::string::npos) {
    CorrectSessionOffset(json);
  }
  return result;
}

void RemoteFileSystemDropbox::CorrectSessionOffset(const utils::json::json_tree& json) {
  // The append names the offset under "error", the finish under "error.lookup_failed".
  utils::json::Log(json, false);
  const QJsonDocument document =
      QJsonDocument::fromJson(QByteArray::fromStdString(utils::json::ToString(json, false)));
  if (!document.isNull()) {
    const QJsonObject error = document.object().value("error").toObject();
    QJsonValue correct = error.value("correct_offset");
    if (correct.isUndefined()) {
      correct = error.value("lookup_failed").toObject().value("correct_offset");
    }
    bool ok = false;
    const std::uint64_t offset = correct.isDouble() ? static_cast<std::uint64_t>(correct.toDouble())
                                                    : correct.toString().toULongLong(&ok, 10);
    if (correct.isDouble() || ok) {
      LOG_WARNING << "Wrong file " << Quoted(transferPath_) << " offset for resumable upload, was "
                  << upload_.sessionOffset << ", now " << offset << " corrected from response.";
      upload_.sessionOffset = offset;
      upload_.writePosition = offset;
    }
  }
  RadarsLogger::instance().SendMetric("dropbox_offset_error", "1", 1);
}

// --- connection ------------------------------------------------------------------------------

bool RemoteFileSystemDropbox::Open(const std::shared_ptr<URLProcessorFactory>& factory) {
  // 1. The remote root: "a/b/" with its lower case and depth.
  std::string root = GetRemoteRootPath();
  if (root == "/") {
    LOG_ERROR << "Invalid non-normalized remote path \"" << root << "\".";
    return false;
  }
  // The root may come as an absolute path: the adapter's paths add their own leading slash.
  if (!root.empty() && root.front() == '/') {
    root.erase(0, 1);
  }
  if (!root.empty() && root.back() != '/') {
    root += '/';
  }
  root_ = root;
  lowerRoot_ = ToLower(root_);
  rootDepth_ = static_cast<std::uint32_t>(std::count(root_.begin(), root_.end(), '/')) + 1;
  // 2. The clients.
  factory_ = factory;
  Client client = FileClient();
  if (!client && factory_) {
    client = factory_->Create();
    std::lock_guard<std::mutex> lock(clientsMutex_);
    fileClient_ = client;
  }
  if (!client || !client->Open(nullptr)) {
    LOG_ERROR << "Failed to open http client.";
    return false;
  }
  return EnsureChangesClient();
}

bool RemoteFileSystemDropbox::EnsureChangesClient() {
  Client client = ChangesClient();
  if (client) {
    return true;
  }
  client = factory_ ? factory_->Create() : nullptr;
  if (!client || !client->Open(nullptr)) {
    LOG_ERROR << "Failed opening URLProcessor.";
    return false;
  }
  client->SetTimeoutSec(kChangesClientTimeoutSec);
  std::lock_guard<std::mutex> lock(clientsMutex_);
  changesClient_ = client;
  if (IsStopped()) {
    changesClient_->Stop();
  }
  return true;
}

FileSystem::Result RemoteFileSystemDropbox::Close() {
  for (const Client& client : {FileClient(), ChangesClient()}) {
    if (client) {
      client->Close();
    }
  }
  return SUCCEEDED;
}

FileSystem::Result RemoteFileSystemDropbox::CheckConnection() {
  Client client = ChangesClient();
  if (!client) {
    LOG_ERROR << "Http client not exists";
    return FATAL;
  }
  std::uint64_t allocated = 0;
  std::uint64_t used = 0;
  return GetSpaceUsage(&allocated, &used, client);
}

FileSystem::Result RemoteFileSystemDropbox::GetCloudSize(std::uint64_t* total,
                                                         std::uint64_t* used) {
  Client client = FileClient();
  if (!client) {
    LOG_ERROR << "Http client not exists";
    return FATAL;
  }
  return GetSpaceUsage(total, used, client);
}

FileSystem::Result RemoteFileSystemDropbox::GetSpaceUsage(std::uint64_t* allocated,
                                                          std::uint64_t* used,
                                                          const Client& client) {
  utils::json::json_tree json;
  const Result result = CallRpc("users/get_space_usage", std::string(), &json, client);
  if (result != SUCCEEDED) {
    return result;
  }
  *allocated = 0;
  *used = 0;
  dropbox::ReadUint64(json, "allocation.allocated", allocated);
  dropbox::ReadUint64(json, "used", used);
  return SUCCEEDED;
}

double RemoteFileSystemDropbox::GetFirstSnapshotProgress() {
  return treeRequested_ ? 1.0 : GetPercentCompleteGettingFirstSnapshot(snapshot_progress_);
}

bool RemoteFileSystemDropbox::ShouldRenewTree() {
  if (!renewTree_) {
    return false;
  }
  const std::int64_t since = SecondsSince(lastTreeRequestTime_);
  return since >= kRenewIntervalSec;
}

// --- snapshot --------------------------------------------------------------------------------

FileSystem::Result RemoteFileSystemDropbox::GetFullTree(FolderNode* root, std::uint64_t* free,
                                                        std::uint64_t* total,
                                                        tsl::htrie_set<char>*) {
  root->Clear();
  if (!EnsureChangesClient()) {
    return FATAL;
  }
  const Client client = ChangesClient();
  // 1. The quota first: it sizes the progress.
  LOG_INFO << "Requesting disk snapshot...";
  snapshot_progress_.expected_bytes = 0;
  snapshot_progress_.seen_bytes = 0;
  std::uint64_t allocated = 0;
  std::uint64_t used = 0;
  Result result = GetSpaceUsage(&allocated, &used, client);
  if (result != SUCCEEDED) {
    LOG_WARNING << "Failed to get space usage info: " << result << ".";
    return result;
  }
  if (allocated == 0) {
    LOG_ERROR << "Total size is 0.";
    return FATAL;
  }
  snapshot_progress_.expected_bytes = used;
  // 2. The listing, page by page, each applied as it comes.
  std::string listingPath;
  if (!root_.empty()) {
    LOG_INFO << "Getting snapshot rooted at \"" << root_ << "\".";
    listingPath = "/" + root_.substr(0, root_.size() - 1);
  }
  *free = Subtract(allocated, used);
  *total = allocated;
  std::string name = "files/list_folder";
  std::string body =
      "{\"path\": \"" + Encoded(listingPath) + "\",\"recursive\": true,\"limit\": 1999}";
  SnapshotCounts counts;
  DropboxPage page;
  do {
    utils::json::json_tree json;
    result = ListFolderPage(name, body, &json, client);
    if (result == SUCCEEDED) {
      result = ApplySnapshotPage(json, root, free, total, &counts, &page);
    }
    if (result != SUCCEEDED) {
      return result;
    }
    name = "files/list_folder/continue";
    body = "{\"cursor\":\"" + page.cursor + "\"}";
  } while (page.has_more);
  // 3. The feed starts from the listing's cursor.
  LOG_INFO << "Getting snapshot finished. Dropbox contains " << counts.files << " files and "
           << counts.folders << " folders.";
  *free = Subtract(allocated, used);
  *total = allocated;
  {
    std::lock_guard<std::mutex> lock(changesMutex_);
    cursor_ = page.cursor;
    lastSizeRequestTime_ = NowSec();
  }
  treeRequested_ = true;
  lastTreeRequestTime_ = NowSec();
  renewTree_ = false;
  // 4. The shared links as they are now, the base of their later comparison.
  LinkMap links;
  result = ListSharedLinks(&links);
  if (result == STOPPED || result == AUTH_INVALID) {
    return result;
  }
  std::lock_guard<std::mutex> lock(changesMutex_);
  sharedLinks_ = std::move(links);
  return SUCCEEDED;
}

FileSystem::Result RemoteFileSystemDropbox::ListFolderPage(const std::string& name,
                                                           const std::string& body,
                                                           utils::json::json_tree* json,
                                                           const Client& client) {
  // A failed page is asked again at the same place every 2 s, until the service answers or
  // something other than a plain failure ends it.
  while (true) {
    const Result result = CallRpc(name, body, json, client);
    if (result == SUCCEEDED) {
      return result;
    }
    LOG_WARNING << "Failed initiating folder listing: " << result;
    if (result != FAILED) {
      return result;
    }
    if (WaitForStop(kSnapshotRetryMs)) {
      return STOPPED;
    }
  }
}

FileSystem::Result RemoteFileSystemDropbox::ApplySnapshotPage(const utils::json::json_tree& json,
                                                              FolderNode* root, std::uint64_t* free,
                                                              std::uint64_t* total,
                                                              SnapshotCounts* counts,
                                                              DropboxPage* page) {
  std::string missing;
  if (!ReadDropboxPage(json, page, &missing)) {
    utils::json::Log(json, false);
    LOG_ERROR << (missing == "cursor" ? "No cursor in list folder reply."
                                      : "No entries in list folder reply.");
    return FATAL;
  }
  for (const auto& item : *page->entries) {
    const DropboxEntry entry = ReadDropboxEntry(item.second);
    // 1. Entries the tree can't take are logged and left out.
    if (entry.problem != DropboxEntry::kNone) {
      LOG_WARNING << EntryText(item.second);
      LOG_WARNING << (entry.problem == DropboxEntry::kEmptyPath ? "Invalid empty path."
                                                                : "Invalid entry.");
      continue;
    }
    Change change;
    if (!ToLocalPath(entry.path, &change.path)) {
      LOG_ERROR << "Invalid path outside requested dir \"" << entry.path << "\".";
      return FATAL;
    }
    // 2. The change the entry stands for.
    if (entry.kind == DropboxEntry::kFolder) {
      ++counts->folders;
      change.type = Change::FOLDER_CREATE;
    } else if (entry.kind == DropboxEntry::kFile) {
      ++counts->files;
      change.type = Change::FILE_CREATE;
      snapshot_progress_.AddSeenBytes(entry.size);
      change.size = entry.size;
      change.time = static_cast<std::uint64_t>(std::max<std::int64_t>(entry.time, 0));
      change.hash = entry.hash;
    } else {
      LOG_WARNING << EntryText(item.second);
      LOG_WARNING << "Unknown item type in entries.";
      continue;
    }
    if (!ApplyRemoteChange(change, root, free, total)) {
      LOG_ERROR << "Failed apply remote change.";
      return FATAL;
    }
  }
  return SUCCEEDED;
}

bool RemoteFileSystemDropbox::StripRemoteRoot(std::string* path) const {
  // 1. Below the root, or the root's own entry.
  if (path->compare(0, root_.size(), root_) == 0) {
    path->erase(0, root_.size());
    return true;
  }
  if (path->size() + 1 == root_.size() && root_.compare(0, path->size(), *path) == 0) {
    path->clear();
    return true;
  }
  if (path->empty()) {
    return false;
  }
  // 2. A root spelled in another case: the prefix through the root's depth, lower-cased.
  std::uint32_t slashes = 0;
  std::size_t position = 0;
  for (; position < path->size() && slashes < rootDepth_; ++position) {
    if ((*path)[position] == '/') {
      ++slashes;
    }
  }
  if (slashes < rootDepth_ || position >= path->size() || (*path)[position] != '/') {
    return false;
  }
  std::string lower;
  bool changed = false;
  const std::string_view prefix(path->data(), position + 1);
  if (!LowercaseIfNeeded(prefix, &lower, &changed) || changed || prefix != lowerRoot_) {
    return false;
  }
  path->erase(0, position + 1);
  return true;
}

bool RemoteFileSystemDropbox::ToLocalPath(const std::string& entryPath, std::string* local) const {
  std::string path = entryPath;
  if (!root_.empty() && !StripRemoteRoot(&path)) {
    return false;
  }
  std::string unmapped;
  bool changed = false;
  const_cast<RemoteFileSystemDropbox*>(this)->UnmapPathToLocal(path, &unmapped, &changed);
  *local = changed ? unmapped : path;
  return true;
}

// --- feed ------------------------------------------------------------------------------------

FileSystem::Result RemoteFileSystemDropbox::GetChanges(std::queue<Change>* changes) {
  std::lock_guard<std::mutex> lock(changesMutex_);
  // 1. Nothing to follow before the first tree.
  if (!treeRequested_) {
    LOG_INFO << "No changes since the tree has not been requested.";
    return WaitAsAsked(kNoTreeWaitMs, SUCCEEDED);
  }
  if (!ChangesClient()) {
    LOG_ERROR << "No http client.";
    return FATAL;
  }
  // 2. The longpoll, the links, then the changes it announced.
  bool hasChanges = false;
  Result result = Longpoll(&hasChanges);
  if (result != SUCCEEDED) {
    return result;
  }
  CheckSharedLinkChanges(changes);
  if (hasChanges) {
    result = ReadChanges(changes);
    if (result != SUCCEEDED) {
      LOG_WARNING << "Failed read changes: " << result;
      return result;
    }
  }
  if (WaitForStop(kFeedPauseMs)) {
    return STOPPED;
  }
  // 3. The quota now and then.
  PushSizeChanges(changes);
  return SUCCEEDED;
}

void RemoteFileSystemDropbox::PushSizeChanges(std::queue<Change>* changes) {
  const std::int64_t since = SecondsSince(lastSizeRequestTime_);
  if (since <= kSizeIntervalSec) {
    return;
  }
  std::uint64_t allocated = 0;
  std::uint64_t used = 0;
  if (GetSpaceUsage(&allocated, &used, ChangesClient()) != SUCCEEDED) {
    return;
  }
  lastSizeRequestTime_ = NowSec();
  Change total(Change::TOTAL_SIZE_SET, std::string());
  total.size = allocated;
  changes->push(total);
  Change free(Change::FREE_SIZE_SET, std::string());
  free.size = Subtract(allocated, used);
  changes->push(free);
}

FileSystem::Result RemoteFileSystemDropbox::Longpoll(bool* hasChanges) {
  *hasChanges = false;
  utils::json::json_tree json;
  const Result result =
      CallRpcUrl(Endpoints::Get(Endpoints::kDropboxNotify) + kLongpollPath,
                 "{ \"cursor\":\"" + cursor_ + "\" }", &json, ChangesClient(), false);
  if (result == STOPPED) {
    return result;
  }
  if (result != SUCCEEDED) {
    // A summary (a reset cursor above all) means the feed's thread is lost: a new tree at once.
    LOG_WARNING << "Longpoll failed: " << result;
    const std::string summary = dropbox::ReadString(json, "error_summary");
    if (!summary.empty()) {
      LOG_WARNING << "Got error while longpoll: " << summary;
      renewTree_ = true;
      lastTreeRequestTime_ = 0;
    }
    return result;
  }
  if (!utils::json::Member(json, "changes")) {
    utils::json::Log(json, false);
    LOG_WARNING << "No changes files in response.";
    return SUCCEEDED;
  }
  *hasChanges = dropbox::ReadBool(json, "changes", false);
  std::uint64_t backoff = 0;
  if (dropbox::ReadUint64(json, "backoff", &backoff) && backoff != 0) {
    LOG_INFO << "Received backoff from Dropbox, sleeping for " << backoff << " secs.";
    return WaitAsAsked(
        static_cast<std::int64_t>(std::min<std::uint64_t>(backoff, INT32_MAX)) * 1000, SUCCEEDED);
  }
  return SUCCEEDED;
}

FileSystem::Result RemoteFileSystemDropbox::ReadChanges(std::queue<Change>* changes) {
  std::string cursor = cursor_;
  DropboxPage page;
  do {
    // 1. The next page; a failure leaves the cursor where it was.
    utils::json::json_tree json;
    const Result result = CallRpc("files/list_folder/continue", "{\"cursor\":\"" + cursor + "\"}",
                                  &json, ChangesClient());
    if (result != SUCCEEDED) {
      LOG_WARNING << "Failed continuing folder listing while reading changes: " << result;
      if (!root_.empty()) {
        LOG_WARNING << "Root dir is missed.";
        renewTree_ = true;
      }
      return result;
    }
    std::string missing;
    if (!ReadDropboxPage(json, &page, &missing)) {
      utils::json::Log(json, false);
      LOG_ERROR << (missing == "cursor" ? "No cursor in list folder reply."
                                        : "No entries in list folder reply.");
      return FATAL;
    }
    cursor = page.cursor;
    // 2. Its entries, in order.
    for (const auto& item : *page.entries) {
      Change change;
      if (ChangeOfFeedEntry(item.second, &change)) {
        changes->push(std::move(change));
      }
    }
  } while (page.has_more);
  cursor_ = cursor;
  return SUCCEEDED;
}

bool RemoteFileSystemDropbox::ChangeOfFeedEntry(const utils::json::json_tree& json,
                                                Change* change) {
  const DropboxEntry entry = ReadDropboxEntry(json);
  if (entry.problem != DropboxEntry::kNone) {
    LOG_WARNING << EntryText(json);
    LOG_WARNING << (entry.problem == DropboxEntry::kEmptyPath ? "Invalid empty path."
                                                              : "Invalid entry.");
    return false;
  }
  if (!ToLocalPath(entry.path, &change->path)) {
    LOG_INFO << "Skipping event at \"" << entry.path << " \" outside the remote root \"" << root_
             << "\".";
    return false;
  }
  switch (entry.kind) {
    case DropboxEntry::kFolder:
      change->type = Change::FOLDER_CREATE;
      return true;
    case DropboxEntry::kFile:
      change->type = Change::FILE_CREATE;
      change->size = entry.size;
      change->time = static_cast<std::uint64_t>(std::max<std::int64_t>(entry.time, 0));
      change->hash = entry.hash;
      if (entry.rev.empty()) {
        LOG_WARNING << EntryText(json);
        LOG_WARNING << "No revision in change.";
      }
      return true;
    case DropboxEntry::kDeleted:
      change->type = Change::FILE_OR_FOLDER_DELETE;
      return true;
    default:
      LOG_WARNING << EntryText(json);
      LOG_WARNING << "Unknown item type in changes list.";
      return false;
  }
}

// --- shared links ----------------------------------------------------------------------------

FileSystem::Result RemoteFileSystemDropbox::ListSharedLinks(LinkMap* links) {
  links->max_load_factor(kLinksMaxLoadFactor);
  links->burst_threshold(kLinksBurstThreshold);
  // The service's key for a next page is "has_more"; "more" is what this loop goes on for, and
  // its cursor is never sent, so it asks for the first page again.
  bool more = true;
  std::string cursor;
  while (more) {
    utils::json::json_tree json;
    const Result result =
        CallRpc("sharing/list_shared_links", std::string(), &json, ChangesClient());
    if (result != SUCCEEDED) {
      utils::json::Log(json, false);
      LOG_WARNING << "Can`t get list of shared links: " << result;
      return result;
    }
    if (auto list = utils::json::Member(json, "links")) {
      for (const auto& link : *list) {
        const std::string url = dropbox::ReadString(link.second, "url");
        std::string path = dropbox::ReadString(link.second, "path_lower");
        if (!url.empty() && !path.empty()) {
          RemoveFirstSlashIfExists(&path);
          (*links)[path] = url;
        }
      }
    }
    more = static_cast<bool>(utils::json::Member(json, "more"));
    if (more) {
      cursor = dropbox::ReadString(json, "cursor");
    }
  }
  lastLinksTime_ = NowSec();
  return SUCCEEDED;
}

void RemoteFileSystemDropbox::CheckSharedLinkChanges(std::queue<Change>* changes) {
  // 1. At most every 121 s; a failed listing compares as fewer links and is asked again soon.
  if (SecondsSince(lastLinksTime_) < kLinksIntervalSec) {
    return;
  }
  LinkMap links;
  ListSharedLinks(&links);
  // 2. Paths that gained a link first, then those that lost one. The change's size carries the
  // link flag: 1 for a new link, 0 for a withdrawn one.
  std::set<std::string> now;
  std::set<std::string> before;
  for (auto it = links.begin(); it != links.end(); ++it) {
    now.insert(it.key());
  }
  for (auto it = sharedLinks_.begin(); it != sharedLinks_.end(); ++it) {
    before.insert(it.key());
  }
  bool same = now == before;
  for (auto it = links.begin(); same && it != links.end(); ++it) {
    auto old = sharedLinks_.find(it.key());
    same = old != sharedLinks_.end() && old.value() == it.value();
  }
  if (same) {
    return;
  }
  for (const std::string& path : now) {
    if (!before.count(path)) {
      Change change(Change::PUBLIC_LINK, path);
      change.size = 1;
      changes->push(change);
    }
  }
  for (const std::string& path : before) {
    if (!now.count(path)) {
      changes->push(Change(Change::PUBLIC_LINK, path));
    }
  }
  sharedLinks_ = std::move(links);
}

// --- the tree --------------------------------------------------------------------------------

bool RemoteFileSystemDropbox::ApplyRemoteChange(const Change& change, FolderNode* root,
                                                std::uint64_t* free, std::uint64_t* total) {
  if (selfMade_.IsSelfMadeChange(change)) {
    LOG_INFO << "Skipping self made change: " << Change::TypeName(change.type) << "  "
             << Quoted(change.path);
    return true;
  }
  switch (change.type) {
    case Change::FILE_CREATE:
      return ApplyFileCreate(change, root, free);
    case Change::FILE_OR_FOLDER_DELETE:
      return ApplyDelete(change, root, free);
    case Change::FOLDER_CREATE:
      return ApplyFolderCreate(change, root, free);
    case Change::FREE_SIZE_SET:
      *free = change.size;
      return true;
    case Change::TOTAL_SIZE_SET:
      *free = Subtract(change.size, root->FolderSize(FolderNode::WithServiceItems(true)));
      *total = change.size;
      return true;
    default:
      LOG_WARNING << "Unsupported change type for Dropbox: " << Change::TypeName(change.type)
                  << ".";
      return false;
  }
}

bool RemoteFileSystemDropbox::ApplyFileCreate(const Change& change, FolderNode* root,
                                              std::uint64_t* free) {
  // 1. The folder that holds it.
  FolderNode* parent = nullptr;
  std::string_view name;
  if (!CreatePathTo(change.path, root, &parent, &name, true)) {
    LOG_WARNING << "Failed to create path.";
    return false;
  }
  // 2. What stands at its name goes: an older file (its inode stays), or a folder.
  std::uint64_t inode = 0;
  if (FileNode* old = parent->GetFile(name, true)) {
    *free += old->size;
    inode = old->GetInode();
    if (!parent->DeleteFileW(std::string(old->GetName()))) {
      LOG_WARNING << "Failed deleting old file.";
      return false;
    }
    parent->SetChanged(true);
  } else if (FolderNode* folder = parent->GetFolder(name, true)) {
    if (!parent->DeleteFolder(std::string(folder->GetName()))) {
      LOG_WARNING << "Failed delting old folder.";
      return false;
    }
    parent->SetChanged(true);
    LOG_INFO << "Replacing folder with file: " << change.path;
  }
  // 3. The new file.
  FileNode* file = parent->CreateFileW(name, change.size, change.hash, change.time, inode);
  if (!file) {
    RadarsLogger::instance().SendMetric("fail_error",
                                        "failed_in_applying_remote_changes_while_creating_file", 1);
    return false;
  }
  file->SetChanged(true);
  *free = Subtract(*free, change.size);
  return true;
}

bool RemoteFileSystemDropbox::ApplyDelete(const Change& change, FolderNode* root,
                                          std::uint64_t* free) {
  auto [parent, name] = root->TraversePath(change.path, true);
  if (!parent) {
    LOG_INFO << "Deleting item in non-existing folder.";
    return true;
  }
  std::uint64_t size = 0;
  bool deleted = false;
  if (FileNode* file = parent->GetFile(name, true)) {
    size = file->size;
    deleted = parent->DeleteFileW(std::string(file->GetName()));
  } else if (FolderNode* folder = parent->GetFolder(name, true)) {
    size = folder->FolderSize(FolderNode::WithServiceItems(true));
    deleted = parent->DeleteFolder(std::string(folder->GetName()));
  } else {
    LOG_INFO << "Invalid change FILE_OR_FOLDER_DELETE: no such file or folder in tree: "
             << change.path;
    return true;
  }
  if (!deleted) {
    LOG_WARNING << "Failed deleting file.";
    return false;
  }
  parent->SetChanged(true);
  *free += size;
  return true;
}

bool RemoteFileSystemDropbox::ApplyFolderCreate(const Change& change, FolderNode* root,
                                                std::uint64_t* free) {
  if (change.path.empty()) {
    return true;
  }
  FolderNode* parent = nullptr;
  std::string_view name;
  if (!CreatePathTo(change.path, root, &parent, &name, true)) {
    LOG_WARNING << "Failed creating path.";
    return false;
  }
  if (parent->GetFolder(name, true)) {
    LOG_INFO << "Skipping replacing folder: " << name;
    return true;
  }
  if (FileNode* file = parent->GetFile(name, true)) {
    *free += file->size;
    if (!parent->DeleteFileW(std::string(file->GetName()))) {
      LOG_WARNING << "Failed deleting file.";
      return false;
    }
    LOG_INFO << "Replacing file with folder: " << name;
  }
  FolderNode* folder = parent->CreateFolder(name);
  if (!folder) {
    LOG_WARNING << "Failed creating folder.";
    return false;
  }
  folder->SetChanged(true);
  parent->SetChanged(true);
  return true;
}

// --- file operations -------------------------------------------------------------------------

std::string RemoteFileSystemDropbox::RemotePath(const std::string& path) {
  std::string mapped;
  bool changed = false;
  MapPathToRemote(path, &mapped, &changed);
  std::string remote = "/" + root_ + (changed ? mapped : path);
  CutTrailingSlash(&remote);
  return remote;
}

FileSystem::Result RemoteFileSystemDropbox::CreateFolderImpl(const OverwriteControl&,
                                                             const std::string& path) {
  LOG_INFO << "Creating folder " << Quoted(path) << ".";
  utils::json::json_tree json;
  const Result result =
      CallRpc("files/create_folder_v2",
              "{ \"path\":\"" + Encoded(RemotePath(path)) + "\", \"autorename\":false }", &json,
              FileClient());
  if (result != SUCCEEDED) {
    LOG_WARNING << "Failed creating folder: " << result;
    return result;
  }
  selfMade_.ExpectFolder(path);
  return SUCCEEDED;
}

FileSystem::Result RemoteFileSystemDropbox::DeleteRemote(const std::string& path,
                                                         const std::string& parentRev,
                                                         const std::function<void()>& expectEcho) {
  if (!IsRelativeCanonicalPath(path)) {
    LOG_ERROR << "Invalid path.";
    return FATAL;
  }
  LOG_INFO << "Deleting " << Quoted(path) << ".";
  std::string body = "{ \"path\":\"" + Encoded(RemotePath(path)) + "\" ";
  if (!parentRev.empty()) {
    body += ",\"parent_rev\":\"" + Encoded(parentRev) + "\" ";
  }
  body += "}";
  utils::json::json_tree json;
  const Result result = CallRpc("files/delete_v2", body, &json, FileClient());
  if (result != SUCCEEDED) {
    LOG_WARNING << "Failed deleting: " << result << ", args=" << body;
    return result;
  }
  expectEcho();
  return SUCCEEDED;
}

FileSystem::Result RemoteFileSystemDropbox::DeleteFileImpl(const OverwriteControl& control,
                                                           const std::string& path, std::uint64_t,
                                                           std::uint64_t) {
  // Only the revision the core last saw may go.
  const bool pinned =
      control.hash.GetType() == SomeHash::DROPBOX && !control.hash.GetHashDropbox().rev.empty();
  return DeleteRemote(path, pinned ? control.hash.GetHashDropbox().rev : "",
                      [&] { selfMade_.ExpectDelete(path); });
}

FileSystem::Result RemoteFileSystemDropbox::DeleteFolderImpl(const FolderNode& folder,
                                                             const Revision&,
                                                             const std::string& path) {
  return DeleteRemote(path, "", [&] { selfMade_.ExpectFolderDelete(folder, path); });
}

FileSystem::Result RemoteFileSystemDropbox::MoveRemote(const std::string& from,
                                                       const std::string& to,
                                                       const std::function<void()>& expectEcho) {
  LOG_INFO << "Moving " << Quoted(from) << " to " << Quoted(to) << ".";
  utils::json::json_tree json;
  const Result result =
      CallRpc("files/move_v2",
              "{ \"from_path\":\"" + Encoded(RemotePath(from)) + "\", \"to_path\":\"" +
                  Encoded(RemotePath(to)) + "\", \"autorename\":false }",
              &json, FileClient());
  if (result != SUCCEEDED) {
    LOG_WARNING << "Failed moving: " << result;
    return result;
  }
  expectEcho();
  return SUCCEEDED;
}

FileSystem::Result RemoteFileSystemDropbox::MoveFileImpl(const FileNode& file,
                                                         const OverwriteControl&,
                                                         const std::string& from,
                                                         const OverwriteControl&,
                                                         const std::string& to) {
  return MoveRemote(from, to, [&] { selfMade_.ExpectFileMove(file, from, to); });
}

FileSystem::Result RemoteFileSystemDropbox::MoveFolderImpl(const FolderNode& folder,
                                                           const OverwriteControl&,
                                                           const std::string& from,
                                                           const OverwriteControl&,
                                                           const std::string& to) {
  return MoveRemote(from, to, [&] { selfMade_.ExpectFolderMove(folder, from, to); });
}

FileSystem::Result RemoteFileSystemDropbox::GetPublicLink(const std::string& path, bool,
                                                          std::string* link) {
  // 1. A new public link.
  const std::string remote = RemotePath(path);
  utils::json::json_tree json;
  const Result result =
      CallRpc("sharing/create_shared_link_with_settings",
              "{  \"path\": \"" + Encoded(remote) +
                  "\",  \"settings\": {    \"requested_visibility\": \"public\"  }}",
              &json, FileClient());
  // 2. One that exists already is looked up instead.
  if (result != SUCCEEDED) {
    if (dropbox::ReadString(json, "error_summary").find("shared_link_already_exists") !=
        std::string::npos) {
      LOG_INFO << "Public link already exists. Falling back to GetExistingPublicLink().";
      return GetExistingPublicLink(remote, link);
    }
    return result;
  }
  const std::string url = dropbox::ReadString(json, "url");
  if (url.empty()) {
    utils::json::Log(json, false);
    LOG_WARNING << "Failed to find public url in response.";
    return FAILED;
  }
  LOG_INFO << "Public link successfully created for " << path;
  *link = url;
  return SUCCEEDED;
}

FileSystem::Result RemoteFileSystemDropbox::GetExistingPublicLink(const std::string& remotePath,
                                                                  std::string* link) {
  utils::json::json_tree json;
  const Result result =
      CallRpc("sharing/list_shared_links",
              "{    \"path\": \"" + Encoded(remotePath) + "\",    \"direct_only\": true}", &json,
              FileClient());
  if (result != SUCCEEDED) {
    return result;
  }
  auto links = utils::json::Member(json, "links");
  if (!links || links->empty() || dropbox::ReadString(links->begin()->second, "url").empty()) {
    utils::json::Log(json, false);
    LOG_WARNING << "There are no public links for " << Quoted(remotePath) << ".";
    return FATAL;
  }
  *link = dropbox::ReadString(links->begin()->second, "url");
  LOG_INFO << "Existing public link got successfully for " << Quoted(remotePath) << ".";
  return SUCCEEDED;
}

FileSystem::Result RemoteFileSystemDropbox::ClosePublicLink(const std::string& path) {
  std::string url;
  Result result = GetExistingPublicLink(RemotePath(path), &url);
  if (result != SUCCEEDED) {
    LOG_WARNING << "No existing link found.";
    return result;
  }
  utils::json::json_tree json;
  result = CallRpc("sharing/revoke_shared_link", "{\"url\":\"" + Encoded(url) + "\"}", &json,
                   FileClient());
  if (result != SUCCEEDED) {
    LOG_WARNING << "Failed close public link for \"" << path << " with result " << result;
  } else {
    LOG_INFO << "Public link for \"" << path << " is closed.";
  }
  return result;
}

utils::ValueOrError<QImage, FileSystem::Result> RemoteFileSystemDropbox::GetThumbnail(
    const std::string& path) {
  // 1. A GET with its argument in the query, the path escaped for JSON and then for the URL.
  const Client client = FileClient();
  if (!client) {
    return FATAL;
  }
  URLProcessor::Request request;
  request.url = DispatcherUrl::FromString(
      Endpoints::Get(Endpoints::kDropboxContent) + kThumbnailPath +
      "?arg={%22resource%22:%20{%22.tag%22:%20%22path%22,%20%22path%22%20:%20%22" +
      utils::PercentEncoded(Encoded(RemotePath(path)), true) + "%22}}");
  client->Send(request);
  std::string body;
  InputStream* stream = client->GetInputStream();
  const StreamResult read =
      stream ? stream->ReadAllTo(&body, kReadBlockSize) : StreamResult::FAILED;
  const URLProcessor::Result transport = client->Finish();
  const int code = client->GetResponseCode();
  SetFailReason(transport, code);
  // 2. A failure as the service named it.
  if (transport == URLProcessor::Result::STOPPED || read == StreamResult::STOPPED) {
    return STOPPED;
  }
  if (!URLProcessor::IsSuccessHttpCode(code)) {
    utils::json::json_tree json;
    utils::json::Parse(body, &json);
    LOG_WARNING << "Failed getting thumbnail of " << Quoted(path) << ", HTTP code " << code;
    return code == 0 ? FAILED : HandleRpcFailure(json, client);
  }
  // 3. The image.
  QImage image;
  if (read != StreamResult::END || !image.loadFromData(reinterpret_cast<const uchar*>(body.data()),
                                                       static_cast<int>(body.size()))) {
    LOG_WARNING << "Failed to decode thumbnail of " << Quoted(path) << ".";
    return FAILED;
  }
  return image;
}

// --- content transfers -----------------------------------------------------------------------

namespace {

constexpr char kDownloadPath[] = "/2/files/download";
constexpr char kUploadPath[] = "/2/files/upload";
constexpr char kSessionStartPath[] = "/2/files/upload_session/start";
constexpr char kSessionAppendPath[] = "/2/files/upload_session/append_v2";
constexpr char kSessionFinishPath[] = "/2/files/upload_session/finish";
constexpr char kOctetStream[] = "application/octet-stream";

HashDropbox DropboxHashOf(const SomeHash& hash) {
  if (hash.GetType() == SomeHash::DROPBOX) {
    return hash.GetHashDropbox();
  }
  HashDropbox zero;
  zero.Clear();
  return zero;
}

std::string ContentUrl(const char* path) {
  return Endpoints::Get(Endpoints::kDropboxContent) + path;
}

bool IsGoodWrite(StreamResult result) {
  return result == StreamResult::OK || result == StreamResult::END;
}

}  // namespace

RemoteFileSystemDropbox::ResumableSessions& RemoteFileSystemDropbox::Sessions() {
  return *static_cast<RemoteFileSystemDropboxSharedData&>(*GetSharedData()).uploadSessions;
}

bool RemoteFileSystemDropbox::ReadApiResult(utils::json::json_tree* json, const Client& client) {
  const std::string& headers = client->GetResponseHeaders();
  const std::string value = GetValueFromHTTPHeaders(headers, "Dropbox-API-Result", true);
  if (value.empty()) {
    LOG_WARNING << "No dropbox response in headers: " << headers;
    return false;
  }
  if (!utils::json::Parse(value, json)) {
    LOG_WARNING << "Failed parsing dropbox response as JSON: " << headers;
    return false;
  }
  return true;
}

URLProcessor::Result RemoteFileSystemDropbox::EndRequest(const Client& client) {
  if (!requestOpen_) {
    return client->GetLastResult();
  }
  if (InputStream* stream = client->GetInputStream()) {
    stream->ReadAllTo(&responseBuffer_, kReadBlockSize);
  }
  requestOpen_ = false;
  return client->Finish();
}

URLProcessor::Result RemoteFileSystemDropbox::EndUploadRequest(const Client& client, int* code) {
  const URLProcessor::Result result = EndRequest(client);
  *code = client->GetResponseCode();
  RadarsLogger::instance().SendIfNetworkError(result, "remote_dropbox", *code, client->GetUrl());
  SetFailReason(result, *code);
  if (result == URLProcessor::Result::STOPPED) {
    LOG_INFO << "Stopped.";
  }
  return result;
}

// --- reading ---------------------------------------------------------------------------------

FileSystem::Result RemoteFileSystemDropbox::OpenForRead(const std::string& path,
                                                        std::uint64_t offset, std::uint64_t limit,
                                                        std::uint64_t size, const SomeHash& hash) {
  // 1. The read state.
  const Client client = FileClient();
  if (!client) {
    LOG_ERROR << "Http client not exists";
    return FATAL;
  }
  LOG_INFO << "Reading remote file " << Quoted(path) << ".";
  readExpectedHash_ = DropboxHashOf(hash);
  readFileSize_ = size;
  checkReadHash_ = true;
  readOffset_ = 0;
  transferPath_ = path;
  // 2. A range only for a part of the file: the whole file goes without one.
  URLProcessor::Request request;
  request.verb = "POST";
  request.url = DispatcherUrl::FromString(ContentUrl(kDownloadPath));
  request.headers = MakeApiArgHeaders("{ \"path\":\"" + Encoded(RemotePath(path)) + "\" }");
  // The transport's range option turns into Content-Range on a POST: the header goes as it is.
  if (limit > offset && !(offset == 0 && limit == size)) {
    request.headers.push_back("Range: bytes=" + std::to_string(offset) + "-" +
                              std::to_string(limit - 1));
  }
  // 3. The head of the answer; its body is read by ReadFile.
  requestOpen_ = client->Send(request);
  if (!requestOpen_) {
    const URLProcessor::Result result = client->Finish();
    SetFailReason(result, client->GetResponseCode());
    LOG_WARNING << "Failed to open " << Quoted(path) << " for reading: " << result << ".";
    return result == URLProcessor::Result::STOPPED ? STOPPED : FAILED;
  }
  fileMode_ = kReading;
  return SUCCEEDED;
}

FileSystem::Result RemoteFileSystemDropbox::ReadFile(std::uint8_t* buffer, std::uint32_t size,
                                                     std::uint32_t* done) {
  *done = 0;
  const Client client = FileClient();
  if (fileMode_ != kReading || !requestOpen_) {
    LOG_WARNING << "Connection is closed, can't read anymore.";
    SetFailReasonValue(FAIL_REASON_NETWORK);
    return FAILED;
  }
  // 1. The next bytes; the end of the stream ends the request.
  const StreamResult read = client->GetInputStream()->Read(buffer, size, done);
  const int code = client->GetResponseCode();
  bool good = read == StreamResult::OK && (*done == 0 || !URLProcessor::IsNotSuccessHttpCode(code));
  if (read == StreamResult::END) {
    requestOpen_ = false;
    const URLProcessor::Result ended = client->Finish();
    good = ended == URLProcessor::Result::OK || ended == URLProcessor::Result::PARTIAL_CONTENT;
  }
  if (!good) {
    responseBuffer_.assign(reinterpret_cast<const char*>(buffer), *done);
    *done = 0;
    return FailedRead(client);
  }
  // 2. The content's hash, from the head of the first bytes: a ranged answer carries the whole
  // file's.
  if (checkReadHash_ && *done > 0) {
    const Result checked = CheckReadHash(client);
    if (checked != SUCCEEDED) {
      return checked;
    }
  }
  // 3. How far the read got.
  readOffset_ += *done;
  if (read == StreamResult::END && readOffset_ != readFileSize_) {
    LOG_INFO << "Stream closed at " << readOffset_ << " out of " << readFileSize_ << ".";
  }
  return SUCCEEDED;
}

FileSystem::Result RemoteFileSystemDropbox::CheckReadHash(const Client& client) {
  utils::json::json_tree json;
  if (!ReadApiResult(&json, client)) {
    LOG_WARNING << "Failed to read response header from: " << client->GetResponseHeaders();
  }
  const std::string received = dropbox::ReadString(json, "content_hash");
  if (received.empty()) {
    utils::json::Log(json, false);
    LOG_WARNING << "Failed to find content_hash.";
  }
  if (!readExpectedHash_.IsZero() && received != readExpectedHash_.ToHexString()) {
    RadarsLogger::instance().SendMetric("dropbox_remote_unexpected_hash", "1", 1);
    LOG_WARNING << "Unexpected content received: expected_hash=" << readExpectedHash_.ToHexString()
                << ";  received_hash=" << received << ".";
    client->Finish();
    requestOpen_ = false;
    fileMode_ = kIdle;
    return CONFLICT;
  }
  checkReadHash_ = false;
  return SUCCEEDED;
}

FileSystem::Result RemoteFileSystemDropbox::FailedRead(const Client& client) {
  // 1. How the request ended.
  const URLProcessor::Result result = EndRequest(client);
  const int code = client->GetResponseCode();
  SetFailReason(result, code);
  RadarsLogger::instance().SendIfNetworkError(result, "remote", code, client->GetUrl());
  fileMode_ = kIdle;
  if (result == URLProcessor::Result::STOPPED) {
    LOG_INFO << "Stopped.";
    return STOPPED;
  }
  // 2. The service's own words about it.
  utils::json::json_tree json;
  if (!utils::json::Parse(responseBuffer_, &json)) {
    LOG_WARNING << "Failed to parse JSON from error response: " << responseBuffer_;
    if (responseBuffer_.empty() && !ReadApiResult(&json, client)) {
      LOG_WARNING << "Failed to read response header from: " << client->GetResponseHeaders();
      LOG_WARNING << "Response: " << responseBuffer_;
    }
  }
  return HandleRpcFailure(json, client);
}

FileSystem::Result RemoteFileSystemDropbox::CloseRead() {
  const Client client = FileClient();
  if (!requestOpen_) {
    return SUCCEEDED;
  }
  requestOpen_ = false;
  const URLProcessor::Result result = client->Finish();
  const int code = client->GetResponseCode();
  RadarsLogger::instance().SendIfNetworkError(result, "remote", code, client->GetUrl());
  SetFailReason(result, code);
  if (result == URLProcessor::Result::STOPPED) {
    LOG_INFO << "Stopped.";
    return STOPPED;
  }
  if (URLProcessor::IsSuccessHttpCode(code) && !URLProcessor::IsNetworkError(result)) {
    return SUCCEEDED;
  }
  if (URLProcessor::IsNetworkError(result)) {
    LOG_WARNING << "Headers: " << client->GetResponseHeaders();
    LOG_WARNING << "Failed.";
    return FAILED;
  }
  if (code == 401) {
    LOG_WARNING << "Invalid authorization";
    return AUTH_INVALID;
  }
  if (code == 409) {
    utils::json::json_tree json;
    if (!ReadApiResult(&json, client)) {
      LOG_WARNING << "Failed in CloseReadFile";
      return FAILED;
    }
    return HandleRpcFailure(json, client);
  }
  LOG_WARNING << "Headers: " << client->GetResponseHeaders();
  LOG_WARNING << "Unhandled invalid response code: " << result;
  return FAILED;
}

// --- opening an upload -----------------------------------------------------------------------

FileSystem::Result RemoteFileSystemDropbox::OpenForCreate(const OverwriteControl&,
                                                          const std::string& path,
                                                          const SomeHash& hash, std::uint64_t size,
                                                          std::uint64_t time,
                                                          std::uint64_t* resumeOffset, bool) {
  Result result = SUCCEEDED;
  if (TryResumeUpload(path, size, hash, &result, resumeOffset) || result != SUCCEEDED) {
    return result;
  }
  *resumeOffset = 0;
  return StartUpload(path, std::string(), hash, size, time, true);
}

FileSystem::Result RemoteFileSystemDropbox::OpenForRewrite(const OverwriteControl& control,
                                                           const std::string& path,
                                                           const SomeHash& hash, std::uint64_t size,
                                                           std::uint64_t time,
                                                           std::uint64_t* resumeOffset) {
  Result result = SUCCEEDED;
  if (TryResumeUpload(path, size, hash, &result, resumeOffset) || result != SUCCEEDED) {
    return result;
  }
  *resumeOffset = 0;
  return StartUpload(path, DropboxHashOf(control.hash).rev, hash, size, time, false);
}

FileSystem::Result RemoteFileSystemDropbox::StartUpload(const std::string& path,
                                                        const std::string& rev,
                                                        const SomeHash& hash, std::uint64_t size,
                                                        std::uint64_t time, bool create) {
  LOG_INFO << "Uploading remote file " << Quoted(path) << ", create=" << create << ", size=" << size
           << ".";
  // 1. Only a canonical path, and one upload at a time.
  if (!IsRelativeCanonicalPath(path)) {
    LOG_ERROR << "Invalid path.";
    return FATAL;
  }
  if (upload_.active) {
    LOG_ERROR << "Upload session already started with id " << upload_.sessionId;
    return FATAL;
  }
  // 2. The upload's state.
  upload_ = UploadSession();
  upload_.args.path = RemotePath(path);
  upload_.args.create = create;
  upload_.args.time = time;
  upload_.args.rev = rev;
  upload_.expectedHash = DropboxHashOf(hash);
  upload_.resumeHash = upload_.expectedHash;
  upload_.fileSize = size;
  upload_.hasSize = size != 0;
  upload_.resumeSize = size;
  upload_.hashCalculator.Begin();
  transferPath_ = path;
  // 3. One request for a file that fits and whose time is known, else a session.
  const Result result = size <= kMaxChunk && time != 0
                            ? SendChunk(kUploadPath, MakeCommitArg(upload_.args), size)
                            : StartUploadSession();
  if (result != SUCCEEDED) {
    return result;
  }
  fileMode_ = kWriting;
  return SUCCEEDED;
}

std::string RemoteFileSystemDropbox::MakeCommitArg(const UploadArgs& args) const {
  std::string mode = "\"add\"";
  if (!args.create) {
    mode = args.rev.empty() ? "\"overwrite\""
                            : "{ \".tag\":\"update\", \"update\":\"" + Encoded(args.rev) + "\" }";
  }
  const std::string time = QDateTime::fromSecsSinceEpoch(static_cast<qint64>(args.time))
                               .toUTC()
                               .toString(Qt::ISODate)
                               .toStdString();
  return "{ \"path\":\"" + Encoded(args.path) + "\", \"mode\":" + mode +
         ", \"autorename\":false, \"client_modified\":\"" + time +
         "\", \"strict_conflict\":" + (args.strictConflict ? "true" : "false") + "}";
}

FileSystem::Result RemoteFileSystemDropbox::SendChunk(const char* endpoint, const std::string& arg,
                                                      std::uint64_t size) {
  const Client client = FileClient();
  URLProcessor::Request request;
  request.verb = "POST";
  request.url = DispatcherUrl::FromString(ContentUrl(endpoint));
  request.headers = MakeApiArgHeaders(arg);
  request.content_type = kOctetStream;
  responseBuffer_.clear();
  requestOpen_ = client->BeginUpload(request, size);
  if (requestOpen_) {
    return SUCCEEDED;
  }
  // A request that never got through leaves the session where the chunk before it ended.
  const URLProcessor::Result result = client->Finish();
  SetFailReason(result, client->GetResponseCode());
  LOG_WARNING << "Failed to begin upload to " << endpoint << ": " << result << ".";
  if (result == URLProcessor::Result::STOPPED) {
    return StoppedUpload();
  }
  if (URLProcessor::IsNetworkError(result) && upload_.active && !upload_.resumeHash.IsZero()) {
    Sessions().Store(transferPath_, upload_);
  }
  return FAILED;
}

// --- sessions --------------------------------------------------------------------------------

FileSystem::Result RemoteFileSystemDropbox::StartUploadSession() {
  const std::uint64_t first = std::min(upload_.chunking.chunk, upload_.fileSize);
  const Result result = SendChunk(kSessionStartPath, "{ \"close\":false }", first);
  if (result != SUCCEEDED) {
    return result;
  }
  upload_.sessionOffset = 0;
  upload_.active = true;
  LOG_INFO << "Started upload session.";
  return SUCCEEDED;
}

FileSystem::Result RemoteFileSystemDropbox::JudgePreviousChunk(bool closePrevious, bool appending) {
  if (!upload_.active) {
    LOG_ERROR << "No upload session.";
    return FATAL;
  }
  // 1. The chunk before: a failure keeps the session for a later attempt where the server still
  // holds what came before it.
  const Client client = FileClient();
  if (closePrevious) {
    int code = 0;
    const URLProcessor::Result result = EndUploadRequest(client, &code);
    if (result == URLProcessor::Result::STOPPED) {
      return StoppedUpload();
    }
    if (!URLProcessor::IsSuccessHttpCode(code) || !IsSuccessResult(result)) {
      LOG_WARNING << (appending ? "Not successfull." : "Not successful.");
      const std::uint64_t offset = upload_.sessionOffset;
      const Result handled = FailureOfResponse(client);
      if (!upload_.resumeHash.IsZero() &&
          (URLProcessor::IsNetworkError(result) || upload_.sessionOffset != offset)) {
        Sessions().Store(transferPath_, upload_);
      } else if (appending) {
        upload_.resumeHash.Clear();
        upload_.resumeSize = 0;
      }
      return handled;
    }
  }
  // 2. The session's id, from the answer of its start.
  if (upload_.sessionId.empty()) {
    utils::json::json_tree json;
    if (!utils::json::Parse(responseBuffer_, &json)) {
      LOG_WARNING << "Failed to parse session start response: " << responseBuffer_;
    } else if ((upload_.sessionId = dropbox::ReadString(json, "session_id")).empty()) {
      utils::json::Log(json, false);
      LOG_WARNING << "No upload session id in response.";
    }
    if (upload_.sessionId.empty()) {
      LOG_WARNING << "Failed to read upload session id.";
      return FAILED;
    }
  }
  responseBuffer_.clear();
  return SUCCEEDED;
}

FileSystem::Result RemoteFileSystemDropbox::AppendToSession(std::uint64_t offset,
                                                            std::uint64_t size,
                                                            bool closePrevious) {
  const Result judged = JudgePreviousChunk(closePrevious, true);
  if (judged != SUCCEEDED) {
    return judged;
  }
  upload_.sessionOffset = offset;
  LOG_INFO << "Appending to upload session from " << offset;
  return SendChunk(kSessionAppendPath,
                   "{ \"close\":false, \"cursor\": {\"offset\":" + std::to_string(offset) +
                       ", \"session_id\":\"" + Encoded(upload_.sessionId) + "\"} }",
                   size);
}

FileSystem::Result RemoteFileSystemDropbox::FinishSession(std::uint64_t offset, std::uint64_t size,
                                                          bool closePrevious) {
  const Result judged = JudgePreviousChunk(closePrevious, false);
  if (judged != SUCCEEDED) {
    return judged;
  }
  upload_.sessionOffset = offset;
  upload_.finishing = true;
  LOG_INFO << "Finishing upload session from " << offset << ".";
  return SendChunk(kSessionFinishPath,
                   "{ \"cursor\":{ \"session_id\":\"" + Encoded(upload_.sessionId) +
                       "\", \"offset\":" + std::to_string(offset) +
                       "}, \"commit\":" + MakeCommitArg(upload_.args) + "}",
                   size);
}

FileSystem::Result RemoteFileSystemDropbox::FailureOfResponse(const Client& client) {
  utils::json::json_tree json;
  if (!responseBuffer_.empty() && !utils::json::Parse(responseBuffer_, &json)) {
    LOG_WARNING << "Failed to parse JSON error from: " << responseBuffer_;
  }
  return HandleRpcFailure(json, client);
}

FileSystem::Result RemoteFileSystemDropbox::StoppedUpload() {
  fileMode_ = kIdle;
  if (upload_.active && !upload_.resumeHash.IsZero()) {
    Sessions().Store(transferPath_, upload_);
  }
  return STOPPED;
}

// --- writing ---------------------------------------------------------------------------------

FileSystem::Result RemoteFileSystemDropbox::WriteFile(const std::uint8_t* data,
                                                      std::uint32_t size) {
  const Client client = FileClient();
  if (fileMode_ != kWriting) {
    LOG_WARNING << "No upload is open.";
    return FAILED;
  }
  // 1. Never more than announced.
  if (upload_.writePosition + size > upload_.fileSize) {
    LOG_ERROR << "Write overflow; size=" << upload_.fileSize
              << ", actual_offset=" << upload_.writePosition << ".";
    SetFailReason(client->GetLastResult(), client->GetResponseCode());
    AbandonUpload();
    return FATAL;
  }
  // 2. The content's hash, checked against the announced one before the last bytes go.
  const std::uint64_t before = upload_.writePosition;
  if (!upload_.resumed) {
    upload_.hashCalculator.Feed(data, size);
  }
  upload_.writePosition += size;
  if (!upload_.resumed && upload_.writePosition == upload_.fileSize && upload_.hasSize &&
      !upload_.expectedHash.IsZero()) {
    const HashDropbox got = upload_.hashCalculator.Finish().GetHashDropbox();
    if (got != upload_.expectedHash) {
      LOG_ERROR << "File " << Quoted(transferPath_) << " has different hashes: expected "
                << upload_.expectedHash.ToHexString() << ", got " << got.ToHexString() << ".";
      SetFailReason(client->GetLastResult(), client->GetResponseCode());
      if (client->GetLastResult() != URLProcessor::Result::OK) {
        LOG_WARNING << "Finished but not succeeded but " << client->GetLastResult() << ".";
      }
      RadarsLogger::instance().SendMetric("dropbox_invalid_upload_hash", "1", 1);
      AbandonUpload();
      return FAILED;
    }
  }
  // 3. The bytes, chunk by chunk: a block that crosses a chunk's end opens the next request there.
  std::uint64_t position = before;
  while (size > 0) {
    const std::uint64_t chunkEnd =
        upload_.active ? upload_.sessionOffset + upload_.chunking.chunk : upload_.fileSize;
    if (position == chunkEnd) {
      const Result next = NextChunk(chunkEnd);
      if (next != SUCCEEDED) {
        return next;
      }
      continue;
    }
    const std::uint32_t part =
        static_cast<std::uint32_t>(std::min<std::uint64_t>(size, chunkEnd - position));
    if (!IsGoodWrite(client->GetOutputStream()->Write(data, part))) {
      return FailedWrite(client);
    }
    data += part;
    size -= part;
    position += part;
  }
  return SUCCEEDED;
}

FileSystem::Result RemoteFileSystemDropbox::NextChunk(std::uint64_t chunkEnd) {
  // The size passes the chunks by, or the time is not known yet: the session stays open.
  const std::uint64_t rest = upload_.fileSize - chunkEnd;
  Result result = SUCCEEDED;
  if (rest > upload_.chunking.chunk || upload_.args.time == 0) {
    upload_.chunking.Report(true);
    result = AppendToSession(chunkEnd, std::min(upload_.chunking.chunk, rest), true);
    if (result != SUCCEEDED) {
      LOG_WARNING << "Failed to start upload session: " << result;
    }
  } else {
    result = FinishSession(chunkEnd, rest, true);
    if (result != SUCCEEDED) {
      LOG_WARNING << "Failed to finish upload session: " << result;
    }
  }
  if (result != SUCCEEDED) {
    fileMode_ = kIdle;
  }
  return result;
}

FileSystem::Result RemoteFileSystemDropbox::FailedWrite(const Client& client) {
  // 1. How the request ended, and the service's words on it.
  fileMode_ = kIdle;
  const URLProcessor::Result result = EndRequest(client);
  const int code = client->GetResponseCode();
  SetFailReason(result, code);
  RadarsLogger::instance().SendIfNetworkError(result, "remote_dropbox", code, client->GetUrl());
  Result answer = FAILED;
  if (result == URLProcessor::Result::OK) {
    LOG_WARNING << "Finished.";
  } else if (result == URLProcessor::Result::STOPPED) {
    LOG_INFO << "Stopped.";
    answer = STOPPED;
  } else {
    answer = FailureOfResponse(client);
  }
  // 2. The server keeps the chunks before this one: a later attempt goes on from there.
  if (!upload_.resumeHash.IsZero()) {
    Sessions().Store(transferPath_, upload_);
  }
  return answer;
}

void RemoteFileSystemDropbox::AbandonUpload() {
  const Client client = FileClient();
  if (requestOpen_) {
    requestOpen_ = false;
    client->Finish();
  }
  fileMode_ = kIdle;
  upload_ = UploadSession();
}

// --- ending an upload ------------------------------------------------------------------------

FileSystem::Result RemoteFileSystemDropbox::CloseFile(FileProperties* props) {
  const int mode = fileMode_;
  Result result = FAILED;
  if (mode == kReading) {
    result = CloseRead();
  } else if (mode == kWriting) {
    result = FinishUpload(props ? props->hash : SomeHash(), props ? props->time : 0,
                          props ? &props->hash : nullptr);
    if (result != STOPPED) {
      upload_ = UploadSession();
    }
  } else {
    LOG_WARNING << "No file is open.";
  }
  fileMode_ = kIdle;
  readExpectedHash_.Clear();
  readFileSize_ = 0;
  readOffset_ = 0;
  checkReadHash_ = false;
  return result;
}

FileSystem::Result RemoteFileSystemDropbox::FinishUpload(const SomeHash& hash, std::uint64_t time,
                                                         SomeHash* out) {
  // 1. A session left open for want of a time is finished now, with no further bytes.
  const Client client = FileClient();
  if (upload_.active && !upload_.finishing) {
    if (time != 0) {
      upload_.args.time = time;
    }
    const Result result = FinishSession(upload_.writePosition, 0, true);
    if (result != SUCCEEDED) {
      LOG_WARNING << "Failed to finish upload session: " << result;
      return result;
    }
  }
  // 2. The answer of the last request.
  int code = 0;
  const URLProcessor::Result result = EndUploadRequest(client, &code);
  if (result == URLProcessor::Result::STOPPED) {
    return StoppedUpload();
  }
  if (!IsSuccessResult(result) || !URLProcessor::IsSuccessHttpCode(code)) {
    if (upload_.resumed) {
      RadarsLogger::instance().SendMetric("dropbox_resumed_upload_end_err", "1", 1);
    }
    if (upload_.writePosition < upload_.fileSize) {
      LOG_WARNING << "Partially written file, " << upload_.writePosition << " out of "
                  << upload_.fileSize << ". ";
      return FAILED;
    }
    const std::uint64_t offset = upload_.sessionOffset;
    const Result handled = FailureOfResponse(client);
    if (!upload_.resumeHash.IsZero() && upload_.active &&
        (URLProcessor::IsNetworkError(result) || upload_.sessionOffset != offset)) {
      Sessions().Store(transferPath_, upload_);
    }
    return handled;
  }
  // 3. A hash that became known on the way.
  const HashDropbox given = DropboxHashOf(hash);
  if (!given.IsZero() && upload_.expectedHash.IsZero() && upload_.fileSize != 0) {
    upload_.expectedHash = given;
    upload_.resumeHash = given;
  }
  return CheckFinishedUpload(out);
}

FileSystem::Result RemoteFileSystemDropbox::CheckFinishedUpload(SomeHash* out) {
  // 1. The server's metadata of the new file.
  utils::json::json_tree json;
  if (!utils::json::Parse(responseBuffer_, &json)) {
    LOG_WARNING << "Failed to parse reponse: " << responseBuffer_;
    return FAILED;
  }
  const std::string contentHash = dropbox::ReadString(json, "content_hash");
  // 2. A resumed upload's bytes were not all hashed here: the server's hash is the only check.
  if (upload_.resumed && !upload_.resumeHash.IsZero() &&
      QString::fromStdString(upload_.resumeHash.ToHexString())
              .compare(QString::fromStdString(contentHash), Qt::CaseInsensitive) != 0) {
    LOG_ERROR << "Invalid content being uploaded. Expected hash is "
              << upload_.resumeHash.ToHexString() << ". Actual is " << contentHash << ".";
    SetFailReasonValue(FAIL_REASON_HTTP);
    RadarsLogger::instance().SendMetric("dropbox_invalid_upload_hash", "1", 1);
    RadarsLogger::instance().SendMetric("dropbox_resumed_upload_end_err", "1", 1);
    return FAILED;
  }
  // 3. Size and hash as the server holds them.
  std::uint64_t size = 0;
  dropbox::ReadUint64(json, "size", &size);
  HashDropbox server = HashDropbox::FromHexString(contentHash);
  server.rev = dropbox::ReadString(json, "rev");
  if (server.rev.empty()) {
    utils::json::Log(json, false);
    LOG_WARNING << "No revsision in response.";
  }
  if (size != upload_.fileSize) {
    utils::json::Log(json, false);
    LOG_ERROR << "Problem with server side file, different size: expected " << upload_.fileSize
              << ";  got " << size << ".";
    RadarsLogger::instance().SendMetric("dropbox_resumed_upload_end_err", "1", 1);
    return FAILED;
  }
  if (upload_.hasSize && !upload_.expectedHash.IsZero() && server != upload_.expectedHash) {
    utils::json::Log(json, false);
    LOG_ERROR << "Problem with server side file, different hash: expected "
              << upload_.expectedHash.ToHexString() << ";  got " << contentHash << ".";
    RadarsLogger::instance().SendMetric("dropbox_resumed_upload_end_err", "1", 1);
    return FAILED;
  }
  // 4. Its echo in the feed is the adapter's own.
  selfMade_.ExpectUpload(transferPath_, upload_.expectedHash, upload_.resumeSize);
  if (out) {
    *out = SomeHash(server);
  }
  return SUCCEEDED;
}

FileSystem::Result RemoteFileSystemDropbox::InterruptFile() {
  // The server keeps a session's chunks: the next attempt of this content goes on from them.
  if (fileMode_ == kWriting && upload_.active && !upload_.resumeHash.IsZero()) {
    Sessions().Store(transferPath_, upload_);
  }
  const Client client = FileClient();
  if (requestOpen_ && client) {
    requestOpen_ = false;
    client->Finish();
  }
  upload_ = UploadSession();
  fileMode_ = kIdle;
  return SUCCEEDED;
}

void RemoteFileSystemDropbox::SetFileHashToResumeInterruptedUpload(const SomeHash& hash) {
  if (fileMode_ == kWriting && upload_.active) {
    Sessions().StoreWithHash(transferPath_, hash, upload_, &SomeHash::GetHashDropbox);
  }
}

// --- resuming --------------------------------------------------------------------------------

bool RemoteFileSystemDropbox::TryResumeUpload(const std::string& path, std::uint64_t size,
                                              const SomeHash& hash, Result* result,
                                              std::uint64_t* resumeOffset) {
  // 1. A stored session of this content and size (the store logs why one is not taken).
  transferPath_ = path;
  *result = SUCCEEDED;
  *resumeOffset = 0;
  UploadSession stored;
  if (!Sessions().TakeForResume(path, hash, size, &stored)) {
    upload_ = UploadSession();
    return false;
  }
  // 2. A session the server never named can't be resumed.
  if (stored.sessionId.empty()) {
    upload_ = UploadSession();
    return false;
  }
  // 3. The chunk that failed goes again, smaller after two failures.
  upload_ = std::move(stored);
  upload_.active = true;
  upload_.finishing = false;
  upload_.chunking.Report(false);
  const std::uint64_t rest = upload_.fileSize - upload_.sessionOffset;
  *result =
      rest > upload_.chunking.chunk || upload_.args.time == 0
          ? AppendToSession(upload_.sessionOffset, std::min(upload_.chunking.chunk, rest), false)
          : FinishSession(upload_.sessionOffset, rest, false);
  if (*result != SUCCEEDED) {
    fileMode_ = kIdle;
    upload_ = UploadSession();
    return false;
  }
  upload_.writePosition = upload_.sessionOffset;
  upload_.resumed = true;
  *resumeOffset = upload_.sessionOffset;
  fileMode_ = kWriting;
  RadarsLogger::instance().SendMetric("dropbox_upload_resumed", "1", 1);
  LOG_INFO << "Resume upload for file " << Quoted(path) << " from " << upload_.sessionOffset
           << " offset, size = " << size << ".";
  return true;
}
