#include "services/RemoteFileSystemYandex.h"

#include <algorithm>

#include "core/Clock.h"
#include "core/Endpoints.h"
#include "core/LoggerWrapper.h"
#include "core/Nodes.h"
#include "core/PercentEncoding.h"
#include "core/RadarsLogger.h"
#include "services/RemoteWebDAVUtils.h"
#include "services/YandexBinarySnapshot.h"

namespace {

constexpr char kSnapshotFields[] =
    "iteration_key,revision,items.path,items.type,items.size,items.md5,items.sha256,"
    "items.modified,items.public_url";
constexpr char kPropfindBody[] =
    "<?xml version=\"1.0\"?><propfind xmlns=\"DAV:\"><prop><resourcetype/><getetag/>"
    "<getcontentlength/><sha256 xmlns=\"urn:yandex:disk:meta\"/></prop></propfind>";

std::int64_t NowSec() {
  return utils::GetClock().NowMs() / 1000;
}

std::uint64_t Subtract(std::uint64_t from, std::uint64_t amount) {
  return from > amount ? from - amount : 0;
}

std::string Text(const utils::json::json_tree& json, const char* key) {
  const auto child = utils::json::Child(json, key);
  return child ? child->data() : std::string();
}

bool ReadNumber(const utils::json::json_tree& json, const char* key, std::uint64_t* value) {
  const auto child = utils::json::Child(json, key);
  if (!child) {
    return false;
  }
  const auto number = child->get_value_optional<std::uint64_t>();
  if (number) {
    *value = *number;
  }
  return number.has_value();
}

// The REST calls speak HTTP/2 where the WebDAV calls of the same processor keep to HTTP/1.1.
class RestHttpVersion {
 public:
  explicit RestHttpVersion(URLProcessor* processor) : processor_(processor) {
    processor_->SetHttpVersion(URLProcessor::kHttp2Tls);
  }
  ~RestHttpVersion() { processor_->SetHttpVersion(URLProcessor::kHttp11); }
  RestHttpVersion(const RestHttpVersion&) = delete;
  RestHttpVersion& operator=(const RestHttpVersion&) = delete;

 private:
  URLProcessor* processor_;
};

}  // namespace

RemoteFileSystemYandex::RemoteFileSystemYandex(
    std::shared_ptr<RemoteFileSystemSharedData> sharedData, const std::string& remoteRootPath)
    : RemoteFileSystemWebDAVBase(std::move(sharedData), remoteRootPath) {}

RemoteFileSystemYandex::~RemoteFileSystemYandex() = default;

void RemoteFileSystemYandex::Stop() {
  // The flag first: a feed processor published after this sees it and stops itself.
  RemoteFileSystemWebDAVBase::Stop();
  std::lock_guard<std::mutex> lock(changesMutex_);
  if (feedProcessor_) {
    feedProcessor_->Stop();
  }
}

bool RemoteFileSystemYandex::Open(const std::shared_ptr<URLProcessorFactory>& factory) {
  if (!RemoteFileSystemWebDAVBase::Open(factory)) {
    return false;
  }
  baseUrl_ = GetYandexWebDavUrl();
  urlProcessor_->SetTimeoutSec(kOpenTimeoutSec);
  return true;
}

yandex_items::Mount RemoteFileSystemYandex::Mount() const {
  return {mountedRoot_.empty() ? std::string() : mountedRoot_.substr(1), this};
}

DispatcherUrl RemoteFileSystemYandex::MakeRequestUrl(const std::string& path, bool asFolder) {
  return RemoteFileSystemWebDAVBase::MakeRequestUrl(PathBelowMount(mountedRoot_, path), asFolder);
}

SomeHash RemoteFileSystemYandex::MakeHashFromServerValue(const std::string& value) {
  std::string hex = value;
  hex.erase(std::remove_if(hex.begin(), hex.end(), [](char c) { return c == '"' || c == '_'; }),
            hex.end());
  return SomeHash(HashYandex::FromHexString(hex));
}

std::string RemoteFileSystemYandex::GetPropfindBody() {
  return kPropfindBody;
}

std::uint64_t RemoteFileSystemYandex::GetMaxFileSize() {
  const std::uint64_t limit = maxFileSize_.load();
  return limit >= kMinMaxFileSize ? limit : UINT64_MAX;
}

bool RemoteFileSystemYandex::SupportsChangesListening() {
  std::lock_guard<std::mutex> lock(changesMutex_);
  return mode_ == kRestMode && !feedUnavailable_;
}

// --- requests ---------------------------------------------------------------------------------

DispatcherUrl RemoteFileSystemYandex::RestUrl(const std::string& path) const {
  return DispatcherUrl::FromString(Endpoints::Get(Endpoints::kYandexRest) + path);
}

URLProcessor::Result RemoteFileSystemYandex::GetJson(URLProcessor* processor,
                                                     const DispatcherUrl& url,
                                                     utils::json::json_tree* json) {
  auto [tree, result] = processor->GetJSONAndResult(url, {});
  SetFailReason(result, processor->GetResponseCode());
  json->clear();
  if (tree) {
    json->swap(*tree);
  } else if (result == URLProcessor::Result::OK) {
    // A good code over a body that isn't JSON: the server's answer is broken, not the network.
    LOG_WARNING << "No JSON in the answer of " << processor->GetUrl();
    return URLProcessor::Result::HTTP_FAILED;
  }
  return result;
}

FileSystem::Result RemoteFileSystemYandex::GetResultFromYandexHttpCode(URLProcessor::Result result,
                                                                       int code) {
  if (result == URLProcessor::Result::STOPPED) {
    return STOPPED;
  }
  if (URLProcessor::IsSuccessHttpCode(code) && IsSuccessResult(result)) {
    return SUCCEEDED;
  }
  switch (code) {
    case 401:
      LOG_WARNING << "Authorization failed (401).";
      return AUTH_INVALID;
    case 404:
      LOG_WARNING << "Not found (404).";
      return CONFLICT;
    case 403:
      LOG_WARNING << "Forbidden (403).";
      return ACCESS_DENIED;
    case 429:
      LOG_WARNING << "Received rate limit.";
      return WaitForStop(kRateLimitWaitMs) ? STOPPED : FAILED;
    case 409:
      LOG_WARNING << "Received 409=path_already_exists.";
      return CONFLICT;
    case 423:
      LOG_WARNING << "Resource blocked.";
      return CONFLICT;
    case 507:
      LOG_WARNING << "No free space.";
      return NO_SPACE;
    case 0:
      return FAILED;
    default:
      LOG_WARNING << "Failed with HTTP code " << code;
      return FAILED;
  }
}

FileSystem::Result RemoteFileSystemYandex::RequestDiskInfo(URLProcessor* processor,
                                                           DiskInfo* info) {
  LOG_INFO << "Requesting disk size.";
  utils::json::json_tree json;
  const URLProcessor::Result result = GetJson(processor, RestUrl("/v1/disk"), &json);
  if (result != URLProcessor::Result::OK) {
    return GetResultFromYandexHttpCode(result, processor->GetResponseCode());
  }
  std::uint64_t maxFileSize = 0;
  if (!ReadNumber(json, "used_space", &info->used) ||
      !ReadNumber(json, "total_space", &info->total)) {
    LOG_WARNING << "Invalid disk info: " << utils::json::ToString(json, false);
    return FAILED;
  }
  if (ReadNumber(json, "max_file_size", &maxFileSize)) {
    maxFileSize_ = maxFileSize;
  }
  if (info->total == 0) {
    LOG_WARNING << "Total size is somehow 0.";
  }
  info->revision = Text(json, "revision");
  return SUCCEEDED;
}

FileSystem::Result RemoteFileSystemYandex::GetCloudSize(std::uint64_t* total, std::uint64_t* used) {
  DiskInfo info;
  RestHttpVersion version(urlProcessor_.get());
  const Result result = RequestDiskInfo(urlProcessor_.get(), &info);
  if (result == SUCCEEDED) {
    *total = info.total;
    *used = info.used;
    diskRevision_ = info.revision;
  }
  return result;
}

FileSystem::Result RemoteFileSystemYandex::CheckConnection() {
  if (!urlProcessor_) {
    LOG_ERROR << "Http client not exists";
    return FATAL;
  }
  DiskInfo info;
  RestHttpVersion version(urlProcessor_.get());
  return RequestDiskInfo(urlProcessor_.get(), &info);
}

// --- tree -------------------------------------------------------------------------------------

FileSystem::Result RemoteFileSystemYandex::GetFullTree(FolderNode* root, std::uint64_t* free,
                                                       std::uint64_t* total,
                                                       tsl::htrie_set<char>* serviceItems) {
  // 1. Start from nothing; the quota brings the revision a mounted folder's feed starts from.
  serviceItems->clear();
  const Result begun = BeginTree(root, free, total);
  if (begun != SUCCEEDED) {
    return begun;
  }

  // 2. The snapshot.
  return LoadTreeWithRetries(root, free, total, serviceItems);
}

FileSystem::Result RemoteFileSystemYandex::LoadTreeWithRetries(FolderNode* root,
                                                               std::uint64_t* free,
                                                               std::uint64_t* total,
                                                               tsl::htrie_set<char>* serviceItems) {
  const std::string diskRevision = diskRevision_;
  const bool json = mode_ == kRestMode && mountedRoot_.empty();
  Result result = FAILED;
  for (int attempt = 1; attempt <= kSnapshotAttempts; ++attempt) {
    result = json ? GetTreeFromJsonSnapshot(root, serviceItems) : GetTreeFromBinarySnapshot(root);
    switch (result) {
      case SUCCEEDED:
        OnTreeLoaded(diskRevision);
        return result;
      case FATAL:
        LOG_INFO << "Falling back to recursive WebDAV tree download.";
        RadarsLogger::instance().SendMetric("yandex_disk_fallback_snapshot", "1", 1);
        result = RemoteFileSystemWebDAVBase::GetFullTree(root, free, total, serviceItems);
        if (result == SUCCEEDED) {
          OnTreeLoaded(diskRevision_);
        }
        return result;
      case CONFLICT:
        return result;
      case STOPPED:
        LOG_INFO << "Stopped.";
        return result;
      default:
        break;
    }
    // A lost connection is for the caller to try again, not this loop.
    if (result == FAILED && GetFailReason() == FAIL_REASON_NETWORK) {
      return result;
    }
    if (attempt == kSnapshotAttempts) {
      break;
    }
    LOG_WARNING << "Trying to get snapshot another time ...";
    if (WaitForStop(kSnapshotRetryMs)) {
      LOG_INFO << "Stopped.";
      return STOPPED;
    }
  }
  LOG_WARNING << "Failed to get yandex snapshot after all retries.";
  return result;
}

void RemoteFileSystemYandex::OnTreeLoaded(const std::string& diskRevision) {
  lastTreeTime_ = lastTreeAttemptTime_ = NowSec();
  std::lock_guard<std::mutex> lock(changesMutex_);
  shouldRenewTree_ = false;
  conflictCount_ = 0;
  hasConflictTime_ = false;
  if (mountedRoot_.empty()) {
    return;  // the JSON snapshot brought its own revision
  }
  revision_ = diskRevision;
  hasRevision_ = !diskRevision.empty();
  feedUnavailable_ = diskRevision.empty();
  if (feedUnavailable_) {
    LOG_WARNING << "No revision in the disk's answer: no changes can be followed from this tree.";
  }
}

FileSystem::Result RemoteFileSystemYandex::GetTreeFromBinarySnapshot(FolderNode* root) {
  // 1. One GET brings the whole tree below the mounted folder.
  const std::int64_t startMs = utils::GetClock().NowMs();
  root->Clear();
  std::string url = baseUrl_.Url();
  while (!url.empty() && url.back() == '/') {
    url.pop_back();
  }
  URLProcessor::Request request;
  request.url = DispatcherUrl::FromString(url + "/disk" +
                                          utils::PercentEncoded(mountedRoot_, true) + "?index&v=3");
  YandexBinarySnapshot snapshot(root, {Mount(), static_cast<std::uint64_t>(startMs / 1000)},
                                &snapshot_progress_);

  // 2. Parsed while it arrives; an answer that isn't the snapshot is not parsed at all.
  urlProcessor_->SetTimeoutSec(kSnapshotTimeoutSec);
  bool parsed = true;
  if (urlProcessor_->Send(request) && urlProcessor_->GetResponseCode() == 200) {
    parsed = snapshot.Parse(urlProcessor_->GetInputStream(), responseHeaders_);
  }
  const URLProcessor::Result transfer = urlProcessor_->Finish();
  urlProcessor_->SetTimeoutSec(kOpenTimeoutSec);
  SetFailReason(transfer, urlProcessor_->GetResponseCode());
  return FinishBinarySnapshot(snapshot, parsed, transfer, startMs);
}

FileSystem::Result RemoteFileSystemYandex::FinishBinarySnapshot(
    const YandexBinarySnapshot& snapshot, bool parsed, URLProcessor::Result transfer,
    std::int64_t startMs) {
  RadarsLogger& metrics = RadarsLogger::instance();
  if (transfer == URLProcessor::Result::OK && parsed) {
    const std::uint64_t loaded = snapshot.Files() + snapshot.Folders();
    if (mountedRoot_.empty() && snapshot.ExpectedItems() > 0 &&
        loaded != snapshot.ExpectedItems()) {
      LOG_WARNING << "Snapshot is not fully loaded, expected " << snapshot.ExpectedItems()
                  << " items,  got " << loaded;
      metrics.SendMetric("yandex_snapshot_not_fully_loaded", "1", 1);
      return FATAL;
    }
    LOG_INFO << "Successfully parsed yandex snapshot, size " << snapshot.Offset();
    metrics.SendMetric("yandex_snapshot_count_files", std::to_string(snapshot.Files()), 1);
    metrics.SendMetric("yandex_snapshot_count_folders", std::to_string(snapshot.Folders()), 1);
    metrics.SendMetric("yandex_snapshot_loaded",
                       std::to_string((utils::GetClock().NowMs() - startMs) / 1000), 1);
    return SUCCEEDED;
  }
  if (transfer == URLProcessor::Result::OK) {
    metrics.SendMetric("yandex_failed_parse_tree_snapshot", "1", 1);
    LOG_ERROR << "Failed to deserialize snapshot.";
    return FATAL;
  }
  if (transfer == URLProcessor::Result::STOPPED) {
    LOG_INFO << "Stopped.";
    return STOPPED;
  }
  if (transfer == URLProcessor::Result::NOT_FOUND && !mountedRoot_.empty()) {
    LOG_WARNING << "Snapshoot remote root not found: " << mountedRoot_;
    return CONFLICT;
  }
  if (GetFailReason() != FAIL_REASON_NETWORK) {
    metrics.SendMetric("yd_failed_get_tree_snap", "1", 1);
  }
  LOG_WARNING << "Failed snapshot request, " << transfer << ", http code "
              << urlProcessor_->GetResponseCode();
  return FAILED;
}

FileSystem::Result RemoteFileSystemYandex::GetTreeFromJsonSnapshot(
    FolderNode* root, tsl::htrie_set<char>* serviceItems) {
  // 1. Start from nothing; the feed has no revision until the last page is in.
  root->Clear();
  {
    std::lock_guard<std::mutex> lock(changesMutex_);
    revision_.clear();
    hasRevision_ = false;
  }
  RestHttpVersion version(urlProcessor_.get());
  std::uint64_t files = 0;
  std::uint64_t folders = 0;
  std::string iterationKey;
  std::string revision;

  // 2. Page by page; the revision never steps back within one snapshot.
  do {
    utils::json::json_tree json;
    const Result page = RequestJsonSnapshotPage(iterationKey, &json);
    if (page != SUCCEEDED) {
      return page;
    }
    iterationKey = Text(json, "iteration_key");
    const std::string pageRevision = Text(json, "revision");
    if (yandex_items::IsLaterRevision(pageRevision, revision)) {
      revision = pageRevision;
    }
    const auto items = utils::json::Child(json, "items");
    if (!items) {
      LOG_WARNING << "No items in response.";
      return FAILED;
    }
    const Result added = AddJsonSnapshotItems(*items, root, serviceItems, &files, &folders);
    if (added != SUCCEEDED) {
      return added;
    }
  } while (!iterationKey.empty());

  // 3. The feed starts from here.
  RadarsLogger::instance().SendMetric("yandex_snapshot_count_files", std::to_string(files), 1);
  RadarsLogger::instance().SendMetric("yandex_snapshot_count_folders", std::to_string(folders), 1);
  std::lock_guard<std::mutex> lock(changesMutex_);
  revision_ = revision;
  hasRevision_ = true;
  feedUnavailable_ = false;
  return SUCCEEDED;
}

FileSystem::Result RemoteFileSystemYandex::RequestJsonSnapshotPage(const std::string& iterationKey,
                                                                   utils::json::json_tree* json) {
  DispatcherUrl url = RestUrl("/v1/disk/resources/snapshot");
  url.AppendParam("fields", kSnapshotFields, DispatcherUrl::ValueEncodingMode::kQueryValue);
  if (!iterationKey.empty()) {
    url.AppendParam("iteration_key", iterationKey, DispatcherUrl::ValueEncodingMode::kQueryValue);
  }
  while (true) {
    const URLProcessor::Result result = GetJson(urlProcessor_.get(), url, json);
    const int code = urlProcessor_->GetResponseCode();
    if (result == URLProcessor::Result::OK) {
      return SUCCEEDED;
    }
    if (result == URLProcessor::Result::STOPPED) {
      LOG_INFO << "Stopped.";
      return STOPPED;
    }
    if (code == 401) {
      utils::json::Log(*json, false);
      LOG_WARNING << "Unauthorized.";
      return AUTH_INVALID;
    }
    if (GetFailReason() != FAIL_REASON_NETWORK) {
      RadarsLogger::instance().SendMetric("yandex_failed_get_snapshot_v2", "1", 1);
      LOG_WARNING << "Failed snapshot request, " << result << ", http code " << code;
      return FAILED;
    }
    // The same page again, as long as it takes: only Stop ends a lost connection's retries.
    if (WaitForStop(kJsonPageRetryMs)) {
      LOG_INFO << "Stopped.";
      return STOPPED;
    }
  }
}

FileSystem::Result RemoteFileSystemYandex::AddJsonSnapshotItems(const utils::json::json_tree& items,
                                                                FolderNode* root,
                                                                tsl::htrie_set<char>* serviceItems,
                                                                std::uint64_t* files,
                                                                std::uint64_t* folders) {
  for (const auto& [key, node] : items) {
    // 1. The item and its place; a broken file is left out, the feed brings it later.
    yandex_items::SnapshotItem item;
    if (!yandex_items::ReadSnapshotItem(node, Mount(), &item) ||
        item.place == yandex_items::Place::kOutside) {
      continue;
    }
    if (item.place == yandex_items::Place::kMountedRoot) {
      ++*folders;
      continue;
    }
    if (item.published) {
      serviceItems->insert(item.path);
    }

    // 2. The node, below a parent that came before it.
    const auto [parent, name] = root->TraversePath(item.path);
    if (!parent) {
      LOG_WARNING << "Failed to find parent for: " << item.path;
      return FAILED;
    }
    if (!item.isFile) {
      if (parent->CreateFolder(name, item.time)) {
        ++*folders;
      } else {
        LOG_WARNING << "Failed to create folder.";
      }
    } else if (parent->CreateFileW(name, item.size, SomeHash(item.hash), item.time)) {
      ++*files;
      snapshot_progress_.AddSeenBytes(item.size);
    } else {
      LOG_WARNING << "Failed to create file.";
    }
  }
  return SUCCEEDED;
}

// --- feed -------------------------------------------------------------------------------------

std::shared_ptr<URLProcessor> RemoteFileSystemYandex::OpenFeedProcessor() {
  std::shared_ptr<URLProcessor> processor =
      urlProcessorFactory_ ? urlProcessorFactory_->Create() : nullptr;
  if (!processor || !processor->Open(nullptr)) {
    LOG_ERROR << "Failed to open urlprocessor for changes.";
    return nullptr;
  }
  processor->SetTimeoutSec(kOpenTimeoutSec);
  processor->SetHttpVersion(URLProcessor::kHttp2Tls);
  {
    std::lock_guard<std::mutex> lock(changesMutex_);
    feedProcessor_ = processor;
  }
  if (IsStopped()) {
    processor->Stop();
  }
  return processor;
}

void RemoteFileSystemYandex::DropFeedProcessor() {
  std::shared_ptr<URLProcessor> processor;
  {
    std::lock_guard<std::mutex> lock(changesMutex_);
    processor.swap(feedProcessor_);
  }
  if (processor) {
    processor->Close();
  }
}

FileSystem::Result RemoteFileSystemYandex::GetChanges(std::queue<Change>* changes) {
  // 1. A revision to ask from, and a processor of the feed's own.
  FeedRun run;
  {
    std::lock_guard<std::mutex> lock(changesMutex_);
    if (!hasRevision_ || revision_.empty()) {
      LOG_WARNING << "No revision to get changes from.";
      return FATAL;
    }
    run.baseRevision = revision_;
  }
  std::shared_ptr<URLProcessor> processor = OpenFeedProcessor();
  if (!processor) {
    return FATAL;
  }

  // 2. Every page of deltas.
  std::optional<Result> end;
  while (!(end = FetchDeltas(&run, processor.get()))) {
  }
  if (*end != SUCCEEDED) {
    DropFeedProcessor();
    return *end;
  }
  for (Change& change : run.changes) {
    changes->push(std::move(change));
  }

  // 3. The disk size with changes, and every tenth call anyway.
  std::uint32_t calls = 0;
  {
    std::lock_guard<std::mutex> lock(changesMutex_);
    calls = ++getChangesCalls_;
  }
  Result sizeResult = FAILED;
  const bool askSize = !run.changes.empty() || calls % kSizeEveryCalls == 0;
  if (askSize) {
    sizeResult = AddSizeChanges(processor.get(), changes);
  }
  DropFeedProcessor();
  if (askSize && sizeResult != SUCCEEDED && run.changes.empty()) {
    return sizeResult;
  }
  if (sizeResult == SUCCEEDED) {
    // A good pass proves the feed usable: conflicts so far were not the tree's fault.
    std::lock_guard<std::mutex> lock(changesMutex_);
    conflictCount_ = 0;
    hasConflictTime_ = false;
  }
  return SUCCEEDED;
}

std::optional<FileSystem::Result> RemoteFileSystemYandex::FetchDeltas(FeedRun* run,
                                                                      URLProcessor* processor) {
  // 1. The page after the revision the feed stands at.
  DispatcherUrl url = RestUrl("/v1/disk/resources/deltas?allow_moved_deltas=1");
  url.AppendParam("base_revision", run->baseRevision,
                  DispatcherUrl::ValueEncodingMode::kQueryValue);
  if (!run->iterationKey.empty()) {
    url.AppendParam("iteration_key", run->iterationKey,
                    DispatcherUrl::ValueEncodingMode::kQueryValue);
  }
  utils::json::json_tree json;
  const URLProcessor::Result result = GetJson(processor, url, &json);
  if (result != URLProcessor::Result::OK) {
    // A network fault is tried again with the same revision; a refusal loses the feed.
    if (result != URLProcessor::Result::STOPPED && !URLProcessor::IsNetworkError(result)) {
      LOG_WARNING << "Requesting snapshot as delta request failed.";
      LoseFeed();
    }
    return GetResultFromYandexHttpCode(result, processor->GetResponseCode());
  }

  // 2. Its items; a missing hash has the page asked again from the item before.
  run->askAgain = false;
  if (const auto items = utils::json::Child(json, "items")) {
    if (auto failed = ReadDeltaItems(*items, run)) {
      return failed;
    }
  }
  if (run->askAgain) {
    return std::nullopt;
  }

  // 3. The pages of one run share its base; the feed moves on once the last is in, so that a
  // run that fails half-way is asked for again whole.
  const std::string pageRevision = Text(json, "revision");
  if (!pageRevision.empty()) {
    run->latestRevision = pageRevision;
  }
  run->iterationKey = Text(json, "iteration_key");
  if (!run->iterationKey.empty()) {
    return std::nullopt;
  }
  if (!run->latestRevision.empty()) {
    std::lock_guard<std::mutex> lock(changesMutex_);
    revision_ = run->latestRevision;
  }
  return SUCCEEDED;
}

std::optional<FileSystem::Result> RemoteFileSystemYandex::ReadDeltaItems(
    const utils::json::json_tree& items, FeedRun* run) {
  if (items.size() >= kMaxDeltaItems) {
    LOG_ERROR << "Too many items in deltas: " << items.size();
    return FATAL;
  }
  run->changes.reserve(run->changes.size() + items.size());
  for (const auto& [key, item] : items) {
    Change change;
    std::string itemRevision;
    switch (yandex_items::ReadDeltaItem(item, Mount(), &change, &itemRevision)) {
      case yandex_items::DeltaOutcome::kChange:
        run->changes.push_back(std::move(change));
        break;
      case yandex_items::DeltaOutcome::kSkip:
        break;
      case yandex_items::DeltaOutcome::kFatal:
        return FATAL;
      case yandex_items::DeltaOutcome::kNoHash:
        return AskAgainForHash(run);
    }
    run->lastItemRevision = itemRevision;
  }
  return std::nullopt;
}

std::optional<FileSystem::Result> RemoteFileSystemYandex::AskAgainForHash(FeedRun* run) {
  // The server hasn't hashed the file yet. The deltas after the item before it bring it again;
  // the changes read so far are kept.
  if (run->noHashRepeats >= kNoHashRepeats) {
    RadarsLogger::instance().SendMetric("yandex_no_hash_get_tree", "1", 1);
    LOG_WARNING << "Invalid file hash.";
    std::lock_guard<std::mutex> lock(changesMutex_);
    shouldRenewTree_ = true;
    return FAILED;
  }
  RadarsLogger::instance().SendMetric("yandex_no_hash", "1", 1);
  if (WaitForStop(kNoHashWaitMs)) {
    return STOPPED;
  }
  if (!run->lastItemRevision.empty()) {
    run->baseRevision = run->lastItemRevision;
  }
  ++run->noHashRepeats;
  run->iterationKey.clear();
  run->askAgain = true;
  return std::nullopt;
}

void RemoteFileSystemYandex::LoseFeed() {
  std::lock_guard<std::mutex> lock(changesMutex_);
  shouldRenewTree_ = true;
  hasRevision_ = false;
}

FileSystem::Result RemoteFileSystemYandex::AddSizeChanges(URLProcessor* processor,
                                                          std::queue<Change>* changes) {
  DiskInfo info;
  const Result result = RequestDiskInfo(processor, &info);
  if (result != SUCCEEDED) {
    return result;
  }
  // The total first: applying it estimates the free space, which the server's figure then sets.
  Change total(Change::TOTAL_SIZE_SET, std::string());
  total.size = info.total;
  changes->push(total);
  Change free(Change::FREE_SIZE_SET, std::string());
  free.size = Subtract(info.total, info.used);
  changes->push(free);
  return SUCCEEDED;
}

void RemoteFileSystemYandex::OnDiskActivity() {
  {
    std::lock_guard<std::mutex> lock(changesMutex_);
    lastDiskActivityTime_ = NowSec();
  }
  stop_condition_.notify_all();
}

bool RemoteFileSystemYandex::ShouldRenewTree() {
  std::lock_guard<std::mutex> lock(changesMutex_);
  return shouldRenewTree_;
}

FileSystem::Result RemoteFileSystemYandex::NoteOperationResult(Result result) {
  std::unique_lock<std::mutex> lock(changesMutex_);
  // 1. Anything but a conflict proves the tree right.
  if (result != CONFLICT) {
    conflictCount_ = 0;
    hasConflictTime_ = false;
    return result;
  }
  if (mode_ != kRestMode || feedUnavailable_) {
    return result;
  }
  // 2. Conflicts that go on for a minute while the feed says nothing: the tree is behind.
  const std::int64_t now = NowSec();
  if (!hasConflictTime_) {
    firstConflictTime_ = now;
    hasConflictTime_ = true;
  } else if (!shouldRenewTree_ && now - firstConflictTime_ >= kConflictReloadSec &&
             conflictCount_ > kConflictReloadCount) {
    RadarsLogger::instance().SendMetric("yandex_inconsistent_remote_tree", "1", 1);
    LOG_WARNING << "Reloading full remote tree because of too many conflicts (possible changes "
                   "getting and applying fail).";
    shouldRenewTree_ = true;
  }
  ++conflictCount_;
  lock.unlock();
  stop_condition_.notify_all();
  return result;
}

void RemoteFileSystemYandex::AddSelfUploadedFile(const std::string& path,
                                                 const SelfUploadedFile& file) {
  selfUploadedFiles_.Add(path, file);
}

// --- tree edits -------------------------------------------------------------------------------

bool RemoteFileSystemYandex::ApplyRemoteChange(const Change& change, FolderNode* root,
                                               std::uint64_t* free, std::uint64_t* total) {
  if (selfUploadedFiles_.Take(change)) {
    LOG_WARNING << "Skip self change.";
    return true;
  }
  switch (change.type) {
    case Change::TOTAL_SIZE_SET:
      *total = change.size;
      *free = Subtract(change.size, root->FolderSize(FolderNode::WithServiceItems(true)));
      return true;
    case Change::FREE_SIZE_SET:
      *free = change.size;
      return true;
    case Change::FOLDER_CREATE:
      return ApplyFolderCreate(change, root);
    case Change::FILE_CREATE:
    case Change::FILE_MODIFY:
      return ApplyFileChange(change, root, free);
    case Change::FILE_DELETE:
    case Change::FOLDER_DELETE:
    case Change::FILE_OR_FOLDER_DELETE:
      return ApplyDelete(change, root, free);
    default:
      LOG_ERROR << "Unexpected change type " << Change::TypeName(change.type) << ".";
      return false;
  }
}

void RemoteFileSystemYandex::LoseTreeOnFailedChange(const char* word) {
  // The tree no longer follows the disk: a new one is asked for rather than the feed stopped.
  LOG_ERROR << word;
  std::lock_guard<std::mutex> lock(changesMutex_);
  shouldRenewTree_ = true;
}

bool RemoteFileSystemYandex::ApplyFolderCreate(const Change& change, FolderNode* root) {
  std::string_view name;
  FolderNode* parent = root->TraversePathAndCreateDirs(change.path, &name);
  if (!parent) {
    LoseTreeOnFailedChange("Failed to create folders.");
    return true;
  }
  if (parent->GetFolder(name)) {
    return true;
  }
  // A folder moved within the mount takes its content along.
  if (!change.old_path.empty()) {
    const auto [oldParent, oldName] = root->TraversePath(change.old_path);
    if (oldParent && oldParent->GetFolder(oldName) &&
        FolderNode::MoveFolder(oldParent, oldName, parent, std::string(name))) {
      oldParent->SetChanged(true);
      parent->SetChanged(true);
      return true;
    }
  }
  if (!parent->CreateFolder(name, change.time)) {
    LoseTreeOnFailedChange("Failed create folder.");
  }
  return true;
}

bool RemoteFileSystemYandex::ApplyFileChange(const Change& change, FolderNode* root,
                                             std::uint64_t* free) {
  // 1. The file, made if it is new.
  std::string_view name;
  FolderNode* parent = root->TraversePathAndCreateDirs(change.path, &name);
  if (!parent) {
    LoseTreeOnFailedChange("Failed to create folders.");
    return true;
  }
  FileNode* file = parent->GetFile(name);
  if (!file) {
    file = parent->CreateFileW(name, 0, SomeHash(), change.time);
    if (!file) {
      LoseTreeOnFailedChange("Failed to create file.");
      return true;
    }
  } else if (file->size == change.size && file->hash == change.hash) {
    return true;
  }
  // 2. Its new content, and the space it takes.
  *free = Subtract(*free + file->size, change.size);
  file->SetProperties(change.hash, change.size, change.time, file->GetInode());
  file->SetChanged(true);
  return true;
}

bool RemoteFileSystemYandex::ApplyDelete(const Change& change, FolderNode* root,
                                         std::uint64_t* free) {
  const auto [parent, name] = root->TraversePath(change.path);
  if (!parent) {
    return true;
  }
  // Both kinds go, whatever the change said it was.
  if (const FileNode* file = parent->GetFile(name)) {
    *free += file->size;
    parent->DeleteFileW(name);
    parent->SetChanged(true);
  }
  if (const FolderNode* folder = parent->GetFolder(name)) {
    *free += folder->FolderSize(FolderNode::WithServiceItems(true));
    parent->DeleteFolder(name);
    parent->SetChanged(true);
  }
  return true;
}

// --- files ------------------------------------------------------------------------------------

FileSystem::Result RemoteFileSystemYandex::DeleteFileImpl(const OverwriteControl&,
                                                          const std::string& path, std::uint64_t,
                                                          std::uint64_t) {
  LOG_ERROR << "Deleting a file is not available on Yandex Disk yet: " << path;
  return NOT_SUPPORTED;
}

FileSystem::Result RemoteFileSystemYandex::OpenForRewrite(const OverwriteControl&,
                                                          const std::string& path, const SomeHash&,
                                                          std::uint64_t, std::uint64_t,
                                                          std::uint64_t*) {
  LOG_ERROR << "Uploading is not available on Yandex Disk yet: " << path;
  return NOT_SUPPORTED;
}
