#include "services/RemoteFileSystemYandex.h"

#include <QUrl>

#include <algorithm>

#include "core/Clock.h"
#include "core/Endpoints.h"
#include "core/LoggerWrapper.h"
#include "core/Nodes.h"
#include "core/PercentEncoding.h"
#include "core/RadarsLogger.h"
#include "core/StringUtils.h"
#include "core/Xml.h"
#include "services/RemoteWebDAVUtils.h"
#include "services/YandexAnswers.h"
#include "services/YandexBinarySnapshot.h"

namespace {

constexpr char kSnapshotFields[] =
    "iteration_key,revision,items.path,items.type,items.size,items.md5,items.sha256,"
    "items.modified,items.public_url";
constexpr char kListingFields[] =
    "_embedded.total,_embedded.limit,_embedded.offset,_embedded.items.name,_embedded.items.type,"
    "_embedded.items.size,_embedded.items.md5,_embedded.items.sha256,_embedded.items.modified,"
    "_embedded.items.public_url";
constexpr char kPublishBody[] =
    "<?xml version=\"1.0\"?><propertyupdate xmlns=\"DAV:\"><set><prop><public_url "
    "xmlns=\"urn:yandex:disk:meta\">true</public_url></prop></set></propertyupdate>";
constexpr char kQuotaBody[] =
    "<?xml version=\"1.0\"?><propfind xmlns=\"DAV:\" xmlns:y=\"urn:yandex:disk:meta\"><prop>"
    "<quota-available-bytes/><quota-used-bytes/><y:max-file-size/><y:trash-used-bytes/>"
    "<y:default-folders/></prop></propfind>";
constexpr char kXmlContentType[] = "application/xml";
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

std::string Quoted(const std::string& text) {
  return "\"" + text + "\"";
}

bool ValidPath(const std::string& path) {
  if (FileSystem::IsRelativeCanonicalPath(path)) {
    return true;
  }
  LOG_ERROR << "Invalid path " << Quoted(path);
  return false;
}

// The WebDAV host changes the bytes of images it serves; their links give them as stored.
bool IsImage(const std::string& path) {
  const std::string lower = ToLower(path);
  for (const std::string ending : {".jpg", ".jpeg"}) {
    if (lower.size() >= ending.size() &&
        lower.compare(lower.size() - ending.size(), ending.size(), ending) == 0) {
      return true;
    }
  }
  return false;
}

// "host[:port]" of a URL, as a "Host:" header names it.
std::string HostOf(const std::string& url) {
  const QUrl parsed(QString::fromStdString(url));
  std::string host = parsed.host().toStdString();
  if (parsed.port() != -1) {
    host += ":" + std::to_string(parsed.port());
  }
  return host;
}

std::uint64_t XmlNumber(const utils::xml::xml_tree& prop, const char* name) {
  return prop.get<std::uint64_t>(name, 0);
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
  if (!HasClient()) {
    return FATAL;
  }
  if (mode_ != kRestMode) {
    return GetWebDavCloudSize(total, used);
  }
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

// --- item operations --------------------------------------------------------------------------

std::string RemoteFileSystemYandex::DiskPath(const std::string& path) {
  std::string remote;
  bool changed = false;
  MapPathToRemote(path, &remote, &changed);
  return "disk:" + PathBelowMount(mountedRoot_, changed ? remote : path);
}

DispatcherUrl RemoteFileSystemYandex::RequestResourceUrl(const std::string& path,
                                                         const std::string& action) {
  DispatcherUrl url =
      RestUrl(action.empty() ? "/v1/disk/resources" : "/v1/disk/resources/" + action);
  url.AppendParam("path", DiskPath(path), DispatcherUrl::ValueEncodingMode::kQueryValue);
  return url;
}

URLProcessor::Result RemoteFileSystemYandex::SendRest(const URLProcessor::Request& request,
                                                      utils::json::json_tree* json) {
  RestHttpVersion version(urlProcessor_.get());
  json->clear();
  if (urlProcessor_->Send(request)) {
    std::string error;
    if (!utils::json::ReadAndParse(urlProcessor_->GetInputStream(), json, &error)) {
      json->clear();
    }
  }
  const URLProcessor::Result result = urlProcessor_->Finish();
  SetFailReason(result, urlProcessor_->GetResponseCode());
  return result;
}

FileSystem::Result RemoteFileSystemYandex::ChangeItem(const URLProcessor::Request& request) {
  utils::json::json_tree json;
  const URLProcessor::Result result = SendRest(request, &json);
  if (result == URLProcessor::Result::ACCEPTED) {
    return NoteOperationResult(WaitForOperation(json));
  }
  return NoteOperationResult(GetResultFromYandexHttpCode(result, urlProcessor_->GetResponseCode()));
}

FileSystem::Result RemoteFileSystemYandex::WaitForOperation(
    const utils::json::json_tree& response) {
  const std::string href = yandex_answers::ReadOperationLink(response);
  if (href.empty()) {
    utils::json::Log(response, false);
    LOG_WARNING << "Unexpected async operation response.";
    return FAILED;
  }
  return PollOperation(href);
}

FileSystem::Result RemoteFileSystemYandex::PollOperation(const std::string& href) {
  URLProcessor::Request request;
  request.url = DispatcherUrl::FromString(href);
  std::int64_t delay = kFirstOperationPollMs;
  for (;;) {
    // 1. Where the operation stands.
    utils::json::json_tree json;
    const URLProcessor::Result result = SendRest(request, &json);
    if (result != URLProcessor::Result::OK) {
      return GetResultFromYandexHttpCode(result, urlProcessor_->GetResponseCode());
    }
    std::string status;
    switch (yandex_answers::ReadOperationStatus(json, &status)) {
      case yandex_answers::OperationStatus::kSuccess:
        return SUCCEEDED;
      case yandex_answers::OperationStatus::kFailed:
        LOG_WARNING << "Operation failed: " << href;
        return FAILED;
      case yandex_answers::OperationStatus::kInProgress:
        break;
      case yandex_answers::OperationStatus::kUnknown:
        LOG_WARNING << "Unexpected operation status: " << status;
        return FAILED;
    }
    // 2. A while before the next look, longer each time up to its ceiling.
    LOG_INFO << "Waiting for operation to complete...";
    if (WaitForStop(delay)) {
      LOG_INFO << "Stopped.";
      return STOPPED;
    }
    delay = std::min(delay * 3 / 2, kMaxOperationPollMs);
  }
}

FileSystem::Result RemoteFileSystemYandex::ChangeResource(const char* word, const char* verb,
                                                          const std::string& path,
                                                          std::vector<std::string> headers) {
  LOG_INFO << word << Quoted(path);
  if (!ValidPath(path) || !HasClient()) {
    return FATAL;
  }
  URLProcessor::Request request;
  request.verb = verb;
  request.url = RequestResourceUrl(path, std::string());
  request.headers = std::move(headers);
  return ChangeItem(request);
}

FileSystem::Result RemoteFileSystemYandex::CreateFolderImpl(const OverwriteControl& control,
                                                            const std::string& path) {
  if (mode_ != kRestMode) {
    return RemoteFileSystemWebDAVBase::CreateFolderImpl(control, path);
  }
  return ChangeResource("Creating folder ", "PUT", path, {});
}

FileSystem::Result RemoteFileSystemYandex::DeleteFileImpl(const OverwriteControl& control,
                                                          const std::string& path,
                                                          std::uint64_t size, std::uint64_t) {
  // 1. The content the file must still have; without it, whatever it has now goes.
  const HashYandex hash = control.hash.GetHashYandex();
  std::string ifMatch;
  if (!hash.IsZero()) {
    ifMatch = hash.md5.ToHexString();
  } else if (size > 0) {
    LOG_ERROR << "Hash is not set in overwrite control: " << path;
  }
  if (mode_ != kRestMode) {
    return ValidPath(path) ? NoteOperationResult(DeleteItem(path, ifMatch)) : FATAL;
  }

  // 2. The delete, which may go on after the answer.
  return ChangeResource("Deleting file ", "DELETE", path,
                        ifMatch.empty() ? std::vector<std::string>()
                                        : std::vector<std::string>{"If-Match: " + ifMatch});
}

FileSystem::Result RemoteFileSystemYandex::DeleteFolderImpl(const FolderNode& folder,
                                                            const Revision& revision,
                                                            const std::string& path) {
  if (mode_ != kRestMode) {
    return RemoteFileSystemWebDAVBase::DeleteFolderImpl(folder, revision, path);
  }
  return ChangeResource("Deleting folder ", "DELETE", path, {});
}

FileSystem::Result RemoteFileSystemYandex::MoveItem(const std::string& from, const std::string& to,
                                                    bool overwrite) {
  LOG_INFO << "Moving " << Quoted(from) << " to " << Quoted(to);
  if (!ValidPath(from) || !ValidPath(to) || !HasClient()) {
    return FATAL;
  }
  URLProcessor::Request request;
  request.verb = "POST";
  request.url = RestUrl("/v1/disk/resources/move");
  request.url.AppendParam("from", DiskPath(from), DispatcherUrl::ValueEncodingMode::kQueryValue);
  request.url.AppendParam("path", DiskPath(to), DispatcherUrl::ValueEncodingMode::kQueryValue);
  request.url.AppendParam("overwrite", overwrite ? "true" : "false",
                          DispatcherUrl::ValueEncodingMode::kQueryValue);
  return ChangeItem(request);
}

FileSystem::Result RemoteFileSystemYandex::MoveFileImpl(const FileNode& file,
                                                        const OverwriteControl& fromControl,
                                                        const std::string& from,
                                                        const OverwriteControl& toControl,
                                                        const std::string& to) {
  if (mode_ != kRestMode) {
    return RemoteFileSystemWebDAVBase::MoveFileImpl(file, fromControl, from, toControl, to);
  }
  // A target the tree knows the content of is one the caller means to replace.
  return MoveItem(from, to, !toControl.hash.IsEmpty());
}

FileSystem::Result RemoteFileSystemYandex::MoveFolderImpl(const FolderNode& folder,
                                                          const OverwriteControl& fromControl,
                                                          const std::string& from,
                                                          const OverwriteControl& toControl,
                                                          const std::string& to) {
  if (mode_ != kRestMode) {
    return RemoteFileSystemWebDAVBase::MoveFolderImpl(folder, fromControl, from, toControl, to);
  }
  return MoveItem(from, to, false);
}

// --- public links, sizes, listing --------------------------------------------------------------

FileSystem::Result RemoteFileSystemYandex::GetPublicLink(const std::string& path, bool,
                                                         std::string* link) {
  // 1. The publish.
  link->clear();
  if (!ValidPath(path) || !HasClient()) {
    return FATAL;
  }
  if (mode_ != kRestMode) {
    return PublishOverWebDav(path, link);
  }
  LOG_INFO << "Creating public link in Yandex Disk: " << Quoted(path);
  URLProcessor::Request request;
  request.verb = "PUT";
  request.url = RequestResourceUrl(path, "publish");
  utils::json::json_tree json;
  URLProcessor::Result result = SendRest(request, &json);

  // 2. The link the resource has now.
  if (result == URLProcessor::Result::OK) {
    URLProcessor::Request resource;
    resource.url = RequestResourceUrl(path, std::string());
    resource.url.AppendParam("limit", "0", DispatcherUrl::ValueEncodingMode::kQueryValue);
    result = SendRest(resource, &json);
  }
  if (result != URLProcessor::Result::OK) {
    return GetResultFromYandexHttpCode(result, urlProcessor_->GetResponseCode());
  }
  const auto url = utils::json::Child(json, "public_url");
  *link = url ? url->data() : std::string();
  if (link->empty()) {
    LOG_WARNING << "No public url in resource after publishing.";
    return FAILED;
  }
  return SUCCEEDED;
}

FileSystem::Result RemoteFileSystemYandex::PublishOverWebDav(const std::string& path,
                                                             std::string* link) {
  // 1. The PROPPATCH and its multistatus.
  URLProcessor::Request request;
  request.verb = "PROPPATCH";
  request.url = MakeFileUrl(path);
  request.body = kPublishBody;
  request.content_type = kXmlContentType;
  utils::xml::xml_tree tree;
  if (urlProcessor_->Send(request)) {
    std::string error;
    utils::xml::ReadAndParse(urlProcessor_->GetInputStream(), &tree, &error);
  }
  const URLProcessor::Result result = urlProcessor_->Finish();
  SetFailReason(result, urlProcessor_->GetResponseCode());
  if (result == URLProcessor::Result::STOPPED) {
    LOG_INFO << "Stopped.";
    return STOPPED;
  }
  if (result != URLProcessor::Result::MULTI_STATUS) {
    LOG_INFO << "Response: " << utils::xml::ToString(tree);
    return GetResultFromHttpCodeOrFailed(urlProcessor_->GetResponseCode());
  }

  // 2. The link in it.
  utils::xml::RemoveNamespaces(&tree);
  *link = yandex_answers::ReadPublishedUrl(tree);
  return link->empty() ? FAILED : SUCCEEDED;
}

FileSystem::Result RemoteFileSystemYandex::ClosePublicLink(const std::string& path) {
  if (mode_ != kRestMode) {
    LOG_ERROR << "Not implemented.";
    return FATAL;
  }
  LOG_INFO << "Closing public link in Yandex Disk: " << Quoted(path);
  if (!ValidPath(path) || !HasClient()) {
    return FATAL;
  }
  URLProcessor::Request request;
  request.verb = "PUT";
  request.url = RequestResourceUrl(path, "unpublish");
  utils::json::json_tree json;
  const URLProcessor::Result result = SendRest(request, &json);
  return GetResultFromYandexHttpCode(result, urlProcessor_->GetResponseCode());
}

FileSystem::Result RemoteFileSystemYandex::GetWebDavCloudSize(std::uint64_t* total,
                                                              std::uint64_t* used) {
  // 1. The PROPFIND of the disk's root.
  LOG_INFO << "Requesting disk size.";
  URLProcessor::Request request;
  request.verb = "PROPFIND";
  request.url = RemoteFileSystemWebDAVBase::MakeRequestUrl("/", false);
  request.headers = {"Depth: 0"};
  request.body = kQuotaBody;
  request.content_type = kXmlContentType;
  utils::xml::xml_tree tree;
  bool parsed = false;
  if (urlProcessor_->Send(request)) {
    std::string error;
    parsed = utils::xml::ReadAndParse(urlProcessor_->GetInputStream(), &tree, &error);
  }
  const URLProcessor::Result result = urlProcessor_->Finish();
  SetFailReason(result, urlProcessor_->GetResponseCode());
  if (result == URLProcessor::Result::STOPPED) {
    LOG_INFO << "Stopped.";
    return STOPPED;
  }
  if (result != URLProcessor::Result::MULTI_STATUS || !parsed) {
    LOG_WARNING << "Failed disk size request, " << result << ", http code "
                << urlProcessor_->GetResponseCode();
    return GetResultFromHttpCodeOrFailed(urlProcessor_->GetResponseCode());
  }

  // 2. The sizes; a value that is no number counts as 0.
  utils::xml::RemoveNamespaces(&tree);
  const utils::xml::xml_tree prop =
      tree.get_child("multistatus.response.propstat.prop", utils::xml::xml_tree());
  *used = XmlNumber(prop, "quota-used-bytes");
  const std::uint64_t available = XmlNumber(prop, "quota-available-bytes");
  *total = available > UINT64_MAX - *used ? UINT64_MAX : *used + available;
  maxFileSize_ = XmlNumber(prop, "max-file-size");
  if (*total == 0) {
    LOG_WARNING << "Total size is somehow 0.";
  }
  return SUCCEEDED;
}

FileSystem::Result RemoteFileSystemYandex::GetFolderListing(const std::string& path,
                                                            FolderListing* listing) {
  if (mode_ != kRestMode) {
    return RemoteFileSystemWebDAVBase::GetFolderListing(path, listing);
  }
  if ((!path.empty() && !ValidPath(path)) || !HasClient()) {
    return FATAL;
  }
  // Pages as long as the server makes them, until its total is reached.
  std::uint64_t offset = 0;
  std::optional<std::uint64_t> total;
  do {
    URLProcessor::Request request;
    request.url = RequestResourceUrl(path, std::string());
    request.url.AppendParam("limit", std::to_string(kListingPageLimit),
                            DispatcherUrl::ValueEncodingMode::kQueryValue);
    request.url.AppendParam("offset", std::to_string(offset),
                            DispatcherUrl::ValueEncodingMode::kQueryValue);
    request.url.AppendParam("fields", kListingFields,
                            DispatcherUrl::ValueEncodingMode::kQueryValue);
    utils::json::json_tree json;
    const URLProcessor::Result result = SendRest(request, &json);
    if (result != URLProcessor::Result::OK) {
      return GetResultFromYandexHttpCode(result, urlProcessor_->GetResponseCode());
    }
    yandex_answers::ListingPage page;
    if (!yandex_answers::ReadListingPage(json, listing, &page)) {
      return FAILED;
    }
    if (total && *total != page.total) {
      LOG_WARNING << "Total item count changed while iterating the directory.";
    }
    total = page.total;
    offset += page.limit;
  } while (offset < *total);
  return SUCCEEDED;
}

// --- reads -------------------------------------------------------------------------------------

FileSystem::Result RemoteFileSystemYandex::OpenForRead(const std::string& path,
                                                       std::uint64_t offset, std::uint64_t limit,
                                                       std::uint64_t size, const SomeHash& hash) {
  // 1. What the content must be; a whole read is hashed on its way.
  if (const Result idle = CheckFileSlotIdle(); idle != SUCCEEDED) {
    return idle;
  }
  expectedHash_ = hash.GetHashYandex();
  expectedSize_ = size;
  bytesDone_ = 0;
  checkHashOnFirstRead_ = true;
  hashingRead_ = offset == 0 && limit >= size && size > 0 && !expectedHash_.IsZero();
  const bool bySha256 = !expectedHash_.sha256.IsZero();
  readCalculator_ = MakeHashCalculator(bySha256 ? SomeHash::GENERIC : SomeHash::GOOGLE);
  readExpected_ = bySha256 ? expectedHash_.sha256.ToHexString() : expectedHash_.md5.ToHexString();

  // 2. The road.
  if (mode_ != kRestMode && !IsImage(path)) {
    return RemoteFileSystemWebDAVBase::OpenForRead(path, offset, limit, size, hash);
  }
  return OpenReadByLink(path, offset, limit, size);
}

FileSystem::Result RemoteFileSystemYandex::OpenReadByLink(const std::string& path,
                                                          std::uint64_t offset, std::uint64_t limit,
                                                          std::uint64_t size) {
  // 1. The link.
  if (!ValidPath(path)) {
    return FATAL;
  }
  URLProcessor::Request request;
  request.url = RequestResourceUrl(path, "download");
  utils::json::json_tree json;
  const URLProcessor::Result result = SendRest(request, &json);
  if (result == URLProcessor::Result::STOPPED) {
    return STOPPED;
  }
  if (result != URLProcessor::Result::OK) {
    LOG_WARNING << "Failed requesting download link for " << Quoted(path) << ".";
    return NoteOperationResult(
        GetResultFromYandexHttpCode(result, urlProcessor_->GetResponseCode()));
  }
  NoteOperationResult(SUCCEEDED);
  const auto href = utils::json::Child(json, "href");
  if (!href || href->data().empty()) {
    LOG_WARNING << "No download link in response:" << utils::json::ToString(json, false);
    return FAILED;
  }

  // 2. The content, from a host that needs no credentials of ours.
  LOG_INFO << "Reading remote file " << Quoted(path) << "...";
  URLProcessor::Request read;
  read.url = DispatcherUrl::FromString(href->data());
  read.authorize = false;
  return OpenRead(std::move(read), offset, limit, size);
}

FileSystem::Result RemoteFileSystemYandex::ReadFile(std::uint8_t* buffer, std::uint32_t size,
                                                    std::uint32_t* done) {
  // 1. The bytes, whose version the first block's etag tells.
  const Result result = RemoteFileSystemWebDAVBase::ReadFile(buffer, size, done);
  if (result != SUCCEEDED) {
    return result;
  }
  if (*done != 0 && checkHashOnFirstRead_) {
    checkHashOnFirstRead_ = false;
    std::string etag = ToLower(GetValueFromHTTPHeaders(responseHeaders_, "etag", true));
    etag.erase(std::remove(etag.begin(), etag.end(), '"'), etag.end());
    const std::string md5 = expectedHash_.md5.ToHexString();
    if (!etag.empty() && !expectedHash_.IsZero() && etag != md5) {
      return RefuseRead(md5, etag);
    }
  }

  // 2. A whole read is what it was meant to be only once its last byte is in.
  bytesDone_ += *done;
  if (hashingRead_) {
    readCalculator_->Feed(buffer, *done);
    if (bytesDone_ >= expectedSize_) {
      hashingRead_ = false;
      const std::string actual = readCalculator_->Finish().ToHexString();
      if (actual != readExpected_) {
        return RefuseRead(readExpected_, actual);
      }
    }
  }
  return SUCCEEDED;
}

FileSystem::Result RemoteFileSystemYandex::RefuseRead(const std::string& expected,
                                                      const std::string& got) {
  LOG_WARNING << "Invalid content received, expected " << expected << ",  got " << got;
  RadarsLogger::instance().SendMetric("yandex_remote_invalid_hash", "1", 1);
  SetFailReasonValue(FAIL_REASON_HTTP);
  openMode_ = kIdle;
  hashingRead_ = false;
  const URLProcessor::Result finished = urlProcessor_->Finish();
  LOG_INFO << "Finish() returned " << finished;
  return finished == URLProcessor::Result::STOPPED ? STOPPED : FAILED;
}

// --- uploads -----------------------------------------------------------------------------------

FileSystem::Result RemoteFileSystemYandex::OpenForCreate(const OverwriteControl& control,
                                                         const std::string& path,
                                                         const SomeHash& hash, std::uint64_t size,
                                                         std::uint64_t, std::uint64_t* resumeOffset,
                                                         bool) {
  LOG_INFO << "Creating remote file " << Quoted(path) << ", " << size << "b, " << hash;
  return OpenUpload(control, path, hash, size, false, resumeOffset);
}

FileSystem::Result RemoteFileSystemYandex::OpenForRewrite(const OverwriteControl& control,
                                                          const std::string& path,
                                                          const SomeHash& hash, std::uint64_t size,
                                                          std::uint64_t,
                                                          std::uint64_t* resumeOffset) {
  return OpenUpload(control, path, hash, size, true, resumeOffset);
}

FileSystem::Result RemoteFileSystemYandex::OpenUpload(const OverwriteControl& control,
                                                      const std::string& path, const SomeHash& hash,
                                                      std::uint64_t size, bool overwrite,
                                                      std::uint64_t* resumeOffset) {
  *resumeOffset = 0;
  LOG_INFO << "Uploading remote file " << Quoted(path) << ", " << size << "b, " << hash;
  if (!ValidPath(path)) {
    return FATAL;
  }
  if (const Result idle = CheckFileSlotIdle(); idle != SUCCEEDED) {
    return idle;
  }
  if (mode_ == kRestMode) {
    const Result current = CheckCurrentContent(path, control);
    if (current != SUCCEEDED) {
      return NoteOperationResult(current);
    }
    return OpenUploadByLink(path, hash, size, overwrite, resumeOffset);
  }
  return OpenUploadOverWebDav(control, path, hash, size, resumeOffset);
}

FileSystem::Result RemoteFileSystemYandex::CheckCurrentContent(const std::string& path,
                                                               const OverwriteControl& control) {
  // An upload link replaces whatever stands at the path: the content the caller means to
  // replace is looked at first, so that a tree behind the server doesn't lose a foreign change.
  const HashYandex expected = control.hash.GetHashYandex();
  if (expected.IsZero()) {
    return SUCCEEDED;
  }
  URLProcessor::Request request;
  request.url = RequestResourceUrl(path, std::string());
  request.url.AppendParam("fields", "md5,sha256", DispatcherUrl::ValueEncodingMode::kQueryValue);
  utils::json::json_tree json;
  const URLProcessor::Result result = SendRest(request, &json);
  if (result != URLProcessor::Result::OK) {
    return GetResultFromYandexHttpCode(result, urlProcessor_->GetResponseCode());
  }
  const HashYandex current = yandex_items::ReadHash(json, "md5", "sha256");
  if (current != expected) {
    LOG_WARNING << "Precondition failed: " << Quoted(path) << " is " << current.ToHexString()
                << ", not " << expected.ToHexString();
    return CONFLICT;
  }
  return SUCCEEDED;
}

void RemoteFileSystemYandex::BeginUploadState(UploadRoad road, const std::string& path,
                                              const SomeHash& hash, std::uint64_t size,
                                              std::uint64_t bytesDone) {
  uploadRoad_ = road;
  uploadPath_ = path;
  expectedHash_ = hash.GetHashYandex();
  expectedSize_ = size;
  bytesDone_ = bytesDone;
  hashingUpload_ = size > 0 && bytesDone < size && !expectedHash_.IsZero();
  writtenHash_.Clear();
  hashCalculator_.Begin();
  responseBody_.clear();
  openMode_ = road == UploadRoad::kKnownContent ? kWritePrepared : kWriting;
}

FileSystem::Result RemoteFileSystemYandex::OpenUploadByLink(const std::string& path,
                                                            const SomeHash& hash,
                                                            std::uint64_t size, bool overwrite,
                                                            std::uint64_t* resumeOffset) {
  // 1. The link, asked with the content's digests: the disk may hold the content already.
  URLProcessor::Request request;
  request.verb = "PUT";
  request.url = RequestResourceUrl(path, "upload");
  const HashYandex digests = hash.GetHashYandex();
  if (!digests.IsZero() && size > 0) {
    const auto param = DispatcherUrl::ValueEncodingMode::kQueryValue;
    request.url.AppendParam("md5", digests.md5.ToHexString(), param);
    request.url.AppendParam("sha256", digests.sha256.ToHexString(), param);
    request.url.AppendParam("size", std::to_string(size), param);
  }
  if (overwrite) {
    request.url.AppendParam("overwrite", "true", DispatcherUrl::ValueEncodingMode::kQueryValue);
  }
  utils::json::json_tree json;
  const URLProcessor::Result result = SendRest(request, &json);
  if (result == URLProcessor::Result::CREATED) {
    LOG_INFO << "Content already exists: " << hash << " size " << size;
    *resumeOffset = size;
    BeginUploadState(UploadRoad::kKnownContent, path, hash, size, size);
    return SUCCEEDED;
  }
  if (result != URLProcessor::Result::OK) {
    LOG_WARNING << "Failed to request upload url.";
    return NoteOperationResult(
        GetResultFromYandexHttpCode(result, urlProcessor_->GetResponseCode()));
  }
  const yandex_answers::UploadLink link = yandex_answers::ReadUploadLink(json);
  operationLink_ = link.operationLink;
  if (!link.usable) {
    utils::json::Log(json, false);
    LOG_WARNING << "No upload link in response.";
    return FAILED;
  }

  // 2. The PUT of the bytes, to a host that needs no credentials of ours.
  URLProcessor::Request put;
  put.verb = "PUT";
  put.url = DispatcherUrl::FromString(link.href);
  put.authorize = false;
  if (!urlProcessor_->BeginUpload(put, size)) {
    const URLProcessor::Result begun = FinishTransfer("remote_yandex");
    return GetResultFromYandexHttpCode(begun, urlProcessor_->GetResponseCode());
  }
  BeginUploadState(UploadRoad::kLink, path, hash, size, 0);
  return SUCCEEDED;
}

FileSystem::Result RemoteFileSystemYandex::OpenUploadOverWebDav(const OverwriteControl& control,
                                                                const std::string& path,
                                                                const SomeHash& hash,
                                                                std::uint64_t size,
                                                                std::uint64_t* resumeOffset) {
  // 1. The head: the digests let the server take known content without its bytes, and it
  //    answers before the body is sent.
  URLProcessor::Request request;
  request.verb = "PUT";
  request.url = MakeFileUrl(path);
  request.headers = {"Host: " + HostOf(Endpoints::Get(Endpoints::kYandexWebDAV)),
                     "Content-Type: application/binary", "Content-Length: " + std::to_string(size)};
  const HashYandex digests = hash.GetHashYandex();
  if (!digests.IsZero()) {
    request.headers.push_back("Etag: " + digests.md5.ToHexString());
    request.headers.push_back("Sha256: " + digests.sha256.ToHexString());
  }
  const HashYandex current = control.hash.GetHashYandex();
  const std::string condition =
      current.IsZero() ? "If-None-Match: *" : "If-Match: " + current.md5.ToHexString();
  request.headers.push_back(condition);
  if (size > 0) {
    request.headers.push_back("Expect: 100-continue");
  }

  // 2. The answer to the head.
  if (!urlProcessor_->BeginUpload(request, size)) {
    const URLProcessor::Result result = FinishTransfer("remote_yandex");
    if (result == URLProcessor::Result::STOPPED) {
      LOG_INFO << "Stopped.";
      return STOPPED;
    }
    LOG_WARNING << (result == URLProcessor::Result::TRANSFER_FAILED
                        ? "Failed reading response code, unexpected stream end."
                        : "Failed reading response code.");
    return FAILED;
  }
  // No final code yet: the server waits for the body.
  const int code = urlProcessor_->GetResponseCode();
  return UploadHeadResult(code == 0 ? 100 : code, condition, path, hash, size, resumeOffset);
}

FileSystem::Result RemoteFileSystemYandex::UploadHeadResult(int code, const std::string& condition,
                                                            const std::string& path,
                                                            const SomeHash& hash,
                                                            std::uint64_t size,
                                                            std::uint64_t* resumeOffset) {
  // 1. The server takes the content, or asks for it.
  if (code == 100) {
    BeginUploadState(UploadRoad::kWebDav, path, hash, size, 0);
    NoteOperationResult(SUCCEEDED);
    return SUCCEEDED;
  }
  if (code == 201) {
    // The request is over: the transport calls an upload answered short of its body a failure,
    // which this answer is not.
    if (size > 0) {
      LOG_INFO << "Content already exists: " << hash << " size " << size;
    }
    urlProcessor_->Finish();
    *resumeOffset = size;
    BeginUploadState(UploadRoad::kKnownContent, path, hash, size, size);
    NoteOperationResult(SUCCEEDED);
    return SUCCEEDED;
  }

  // 2. A refusal ends the request.
  const URLProcessor::Result finished = FinishTransfer("remote_yandex");
  switch (code) {
    case 507:
      LOG_WARNING << "No space on Yandex Disk.";
      return NoteOperationResult(NO_SPACE);
    case 412:
      LOG_WARNING << "Precondition failed with " << Quoted(condition);
      return NoteOperationResult(CONFLICT);
    case 401:
      LOG_WARNING << "Invalid authorization";
      return NoteOperationResult(AUTH_INVALID);
    case 403:
      // A refusal of this one item says nothing of the tree.
      LOG_WARNING << "Access forbidden.";
      return ACCESS_DENIED;
    case 503:
      LOG_WARNING << "Access forbidden by 503.";
      return NoteOperationResult(ACCESS_DENIED);
    case 400:
      LOG_WARNING << "Invalid request.";
      return NoteOperationResult(BADNAM);
    case 409:
      LOG_WARNING << "Conflict.";
      return NoteOperationResult(CONFLICT);
    default:
      LOG_WARNING << "Unexpected response code: " << code;
      return NoteOperationResult(finished == URLProcessor::Result::STOPPED ? STOPPED : FAILED);
  }
}

FileSystem::Result RemoteFileSystemYandex::WriteFile(const std::uint8_t* data, std::uint32_t size) {
  // 1. The block is counted and hashed.
  if (openMode_ != kWriting) {
    return FAILED;
  }
  if (size > expectedSize_ - bytesDone_) {
    LOG_ERROR << "Write overflow; size=" << expectedSize_ << ", actual_offset=" << bytesDone_;
    return AbandonUpload(FAILED);
  }
  bytesDone_ += size;
  if (hashingUpload_) {
    hashCalculator_.Feed(data, size);
  }

  // 2. The last block goes only when the whole is what was announced.
  if (hashingUpload_ && bytesDone_ == expectedSize_) {
    writtenHash_ = hashCalculator_.Finish().GetHashYandex();
    if (writtenHash_ != expectedHash_) {
      LOG_WARNING << "Invalid content being uploaded. Expected hash is "
                  << expectedHash_.ToHexString() << ". Actual is " << writtenHash_.ToHexString();
      RadarsLogger::instance().SendMetric("yandex_conflict_invalid_write_hash", "1", 1);
      SetFailReasonValue(FAIL_REASON_HTTP);
      return AbandonUpload(FAILED);
    }
  }
  return RemoteFileSystemWebDAVBase::WriteFile(data, size);
}

FileSystem::Result RemoteFileSystemYandex::AbandonUpload(Result result) {
  // The body stops short of its announced length, so the server never takes it as a file.
  const URLProcessor::Result finished = urlProcessor_->Finish();
  if (finished != URLProcessor::Result::OK) {
    LOG_WARNING << "Finished returned not succeeded but " << finished;
  }
  openMode_ = kIdle;
  hashingUpload_ = false;
  return finished == URLProcessor::Result::STOPPED ? STOPPED : result;
}

FileSystem::Result RemoteFileSystemYandex::FinishWrite(SomeHash* hashOut) {
  // 1. The end of the transfer.
  checkHashOnFirstRead_ = false;
  Result result = SUCCEEDED;
  if (uploadRoad_ == UploadRoad::kLink) {
    result = FinishUploadByLink();
  } else if (uploadRoad_ == UploadRoad::kWebDav) {
    result = RemoteFileSystemWebDAVBase::FinishWrite(hashOut);
  }
  hashingUpload_ = hashingUpload_ && result == SUCCEEDED;
  if (result != SUCCEEDED) {
    return result;
  }

  // 2. The content the server has is the one announced, and the whole of it.
  if (hashOut && !expectedHash_.IsZero()) {
    *hashOut = SomeHash(expectedHash_);
  }
  if (hashingUpload_ && bytesDone_ > 0 && writtenHash_ != expectedHash_) {
    LOG_WARNING << "Different hashes after direct upload, " << writtenHash_.ToHexString() << ", "
                << expectedHash_.ToHexString();
    SetFailReasonValue(FAIL_REASON_HTTP);
    return FAILED;
  }
  if (bytesDone_ < expectedSize_) {
    LOG_WARNING << "Partial write.";
    return FAILED;
  }

  // 3. Its echo in the feed is ours.
  if (mode_ == kRestMode) {
    AddSelfUploadedFile(uploadPath_, {expectedHash_, expectedSize_});
  }
  return SUCCEEDED;
}

FileSystem::Result RemoteFileSystemYandex::FinishUploadByLink() {
  const URLProcessor::Result result = FinishTransfer("remote_yandex");
  const int code = urlProcessor_->GetResponseCode();
  if (code == 202 && operationLink_) {
    LOG_INFO << "File uploaded but not created.";
    return PollOperation(*operationLink_);
  }
  if (result == URLProcessor::Result::OK || result == URLProcessor::Result::CREATED) {
    return SUCCEEDED;
  }
  if (result == URLProcessor::Result::STOPPED) {
    LOG_INFO << "Stopped.";
    return STOPPED;
  }
  LOG_INFO << "Received response: " << utils::SafePrintBinary(responseBody_);
  responseBody_.clear();
  if (code == 413) {
    LOG_WARNING << "Too large.";
    return TOO_LARGE;
  }
  if (code == 507) {
    LOG_WARNING << "No space.";
    return NO_SPACE;
  }
  LOG_WARNING << "Uploading file failed, http_code " << code << ".";
  return GetResultFromYandexHttpCode(result, code);
}
