#include "services/RemoteFileSystemOneDrive.h"

#include <QDateTime>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMutexLocker>

#include <algorithm>
#include <unordered_map>

#include "core/Clock.h"
#include "core/Endpoints.h"
#include "core/JsonWriter.h"
#include "core/LoggerWrapper.h"
#include "core/Nodes.h"
#include "core/PercentEncoding.h"
#include "core/RadarsLogger.h"
#include "core/StringUtils.h"
#include "core/TimeUtils.h"
#include "services/OneDriveChangeOrder.h"

using utils::json::json_tree;
using URLResult = URLProcessor::Result;

const char* const RemoteFileSystemOneDrive::kSelect =
    "file,fileSystemInfo,folder,name,package,parentReference,remoteItem,root,size,id,eTag,shared";
const char* const RemoteFileSystemOneDrive::kDeltaPath = "/me/drive/root/delta";

namespace {

constexpr std::uint64_t kMaxChunk = 49152000;  // a multiple of 320 KiB
constexpr std::size_t kMaxNameBytes = 400;     // the longest name the adapter writes, too

std::int64_t NowSec() {
  return utils::GetClock().NowMs() / 1000;
}

std::string JoinPath(const std::string& parent, const std::string& name) {
  return parent.empty() ? name : parent + "/" + name;
}

std::string ParentOf(const std::string& path) {
  std::size_t slash = path.rfind('/');
  return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

std::string NameOf(const std::string& path) {
  std::size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string MemberText(const json_tree& json, const std::string& key) {
  auto member = utils::json::Member(json, key);
  return member && member->empty() ? member->data() : std::string();
}

std::string ChildText(const json_tree& json, const std::string& path) {
  auto child = utils::json::Child(json, path);
  return child && child->empty() ? child->data() : std::string();
}

std::uint64_t ChildNumber(const json_tree& json, const std::string& path) {
  std::string text = ChildText(json, path);
  if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos)
    return 0;
  return std::strtoull(text.c_str(), nullptr, 10);
}

std::string IsoTime(std::uint64_t seconds) {
  return QDateTime::fromSecsSinceEpoch(static_cast<qint64>(seconds), Qt::UTC)
      .toString(Qt::ISODateWithMs)
      .toStdString();
}

}  // namespace

std::size_t RemoteFileSystemOneDrive::ExpectedUploadHash::operator()(
    const ExpectedUpload& record) const {
  // Equal records may differ in the digests one side lacks: only the id and eTag go in.
  return std::hash<std::string>()(record.id) ^ (std::hash<std::string>()(record.eTag) << 1);
}

// The state of one delta run: the changes gathered, where items made in this run stand (the id
// tree learns of them only when they are applied), and the shared folders found.
class RemoteFileSystemOneDrive::DeltaRun {
 public:
  DeltaRun(bool snapshot, tsl::htrie_set<char>* publicItems)
      : snapshot(snapshot), publicItems(publicItems) {}

  std::optional<std::string> PathOf(RemoteFileIds& ids, const std::string& id) const {
    auto it = placed.find(id);
    if (it != placed.end())
      return it->second.first;
    return ids.GetPathById(id);
  }
  bool IsFolder(RemoteFileIds& ids, const std::string& id) const {
    auto it = placed.find(id);
    return it != placed.end() ? it->second.second : ids.HasFolder(id);
  }
  void Place(const std::string& id, const std::string& path, bool folder) {
    placed[id] = {path, folder};
  }

  const bool snapshot;
  tsl::htrie_set<char>* publicItems;
  std::vector<Change> changes;
  std::unordered_map<std::string, std::pair<std::string, bool>> placed;
  RemoteFileSystemOneDriveSharedData::FolderList mounts;
  std::uint64_t files = 0;
  std::uint64_t folders = 0;
};

RemoteFileSystemOneDrive::RemoteFileSystemOneDrive(
    std::shared_ptr<RemoteFileSystemOneDriveSharedData> sharedData,
    const std::string& remoteRootPath)
    : RemoteFileSystemChangesSupport(std::move(sharedData), remoteRootPath) {}

RemoteFileSystemOneDrive::~RemoteFileSystemOneDrive() = default;

void RemoteFileSystemOneDrive::Start() {
  for (const auto& client : {fileClient_, changesClient_}) {
    if (client)
      client->Start();
  }
  RemoteFileSystem::Start();
}

void RemoteFileSystemOneDrive::Stop() {
  RemoteFileSystem::Stop();
  for (const auto& client : {fileClient_, changesClient_}) {
    if (client)
      client->Stop();
  }
}

bool RemoteFileSystemOneDrive::Open(const std::shared_ptr<URLProcessorFactory>& factory) {
  factory_ = factory;
  fileClient_ = factory ? factory->Create() : nullptr;
  changesClient_ = factory ? factory->Create() : nullptr;
  if (!fileClient_ || !changesClient_) {
    LOG_ERROR << "Http client not initialized.";
    return false;
  }
  fileClient_->Open(nullptr);
  changesClient_->Open(nullptr);
  if (IsStopped()) {
    fileClient_->Stop();
    changesClient_->Stop();
  }
  fileMode = kIdle;
  return true;
}

FileSystem::Result RemoteFileSystemOneDrive::Close() {
  for (const auto& client : {fileClient_, changesClient_}) {
    if (client)
      client->Close();
  }
  fileClient_.reset();
  changesClient_.reset();
  fileMode = kClosed;
  return SUCCEEDED;
}

FileSystem::Result RemoteFileSystemOneDrive::CheckConnection() {
  if (!fileClient_) {
    LOG_ERROR << "Http client not exists";
    return FATAL;
  }
  std::uint64_t total = 0, used = 0;
  return GetCloudSize(&total, &used);
}

// --- requests --------------------------------------------------------------------------------

std::string RemoteFileSystemOneDrive::GraphUrl(const std::string& path) const {
  return Endpoints::Get(Endpoints::kMicrosoftGraph) + path;
}

FileSystem::Result RemoteFileSystemOneDrive::GetResource(const std::string& url,
                                                         const std::string& select, json_tree* json,
                                                         URLProcessor* client) {
  DispatcherUrl full = DispatcherUrl::FromString(GraphUrl(url));
  if (!select.empty())
    full.AppendParam("$select", select, DispatcherUrl::ValueEncodingMode::kQueryValue);
  return RunRequest(
      json, client,
      [&full](URLProcessor* http) {
        URLProcessor::Request request;
        request.url = full;
        return http->Send(request);
      },
      URLResult::OK);
}

FileSystem::Result RemoteFileSystemOneDrive::PostResource(const std::string& url,
                                                          const std::string& body, json_tree* json,
                                                          URLProcessor* client) {
  LOG_INFO << "Post request:" << GraphUrl(url);
  return RunRequest(
      json, client,
      [&](URLProcessor* http) {
        URLProcessor::Request request;
        request.verb = "POST";
        request.url = DispatcherUrl::FromString(GraphUrl(url));
        request.body = body;
        request.content_type = "application/json";
        return http->Send(request);
      },
      URLResult::CREATED);
}

FileSystem::Result RemoteFileSystemOneDrive::PatchResource(const std::string& url,
                                                           const std::string& body,
                                                           const std::vector<std::string>& headers,
                                                           json_tree* json) {
  return RunRequest(
      json, nullptr,
      [&](URLProcessor* http) {
        URLProcessor::Request request;
        request.verb = "PATCH";
        request.url = DispatcherUrl::FromString(GraphUrl(url));
        request.headers = headers;
        request.body = body;
        request.content_type = "application/json";
        return http->Send(request);
      },
      URLResult::OK);
}

FileSystem::Result RemoteFileSystemOneDrive::DeleteItem(const std::string& url,
                                                        const std::vector<std::string>& headers) {
  LOG_INFO << "Delete request: " << GraphUrl(url);
  return RunRequest(
      nullptr, nullptr,
      [&](URLProcessor* http) {
        URLProcessor::Request request;
        request.verb = "DELETE";
        request.url = DispatcherUrl::FromString(GraphUrl(url));
        request.headers = headers;
        return http->Send(request);
      },
      URLResult::NO_CONTENT);
}

FileSystem::Result RemoteFileSystemOneDrive::RunRequest(json_tree* json, URLProcessor* client,
                                                        const Request& request,
                                                        URLResult successResult) {
  // 1. The client.
  if (!client)
    client = fileClient_.get();
  if (!client) {
    LOG_ERROR << "Http client not initialized.";
    return FATAL;
  }
  if (IsStopped()) {
    LOG_INFO << "Stopped.";
    return STOPPED;
  }
  // 2. The request, and the answer as JSON where one is awaited (a 204 has none).
  json_tree scratch;
  json_tree* tree = json ? json : &scratch;
  std::string error;
  bool parsed = false;
  if (request(client) && successResult != URLResult::NO_CONTENT)
    parsed = utils::json::ReadAndParse(client->GetInputStream(), tree, &error);
  const URLResult result = client->Finish();
  // 3. The verdict.
  if (result == successResult) {
    if (successResult != URLResult::NO_CONTENT && !parsed) {
      utils::json::Log(*tree, false);
      LOG_ERROR << "Failed to read response. " << error;
      return GetHttpFailure(client, result);
    }
    return SUCCEEDED;
  }
  if (result == URLResult::STOPPED) {
    LOG_INFO << "Stopped.";
    SetFailReasonValue(FAIL_REASON_NONE);
    return STOPPED;
  }
  if (result == URLResult::NETWORK_FAILED) {
    LOG_ERROR << "Network failed.";
    SetFailReasonValue(FAIL_REASON_NETWORK);
    return FAILED;
  }
  if (result == URLResult::NOT_FOUND && !GetRemoteRootPath().empty()) {
    LOG_ERROR << "No \"" << GetRemoteRootPath() << "\" dir in cloud.";
    return CONFLICT;
  }
  LOG_ERROR << "Failed request: " << result << " " << utils::json::ToString(*tree, false);
  return GetHttpFailure(client, result);
}

FileSystem::Result RemoteFileSystemOneDrive::ResultOfHttpCode(int code) {
  switch (code) {
    case 401:
      return FORBIDDEN;
    case 403:
      return ACCESS_DENIED;
    case 400:
    case 404:
    case 409:
    case 410:
    case 412:
      return CONFLICT;
    case 507:
      return NO_SPACE;
    default:
      return FAILED;
  }
}

FileSystem::Result RemoteFileSystemOneDrive::GetHttpFailure(URLProcessor* client,
                                                            URLResult urlResult) {
  SetFailReasonValue(URLProcessor::IsNetworkError(urlResult) ? FAIL_REASON_NETWORK
                                                             : FAIL_REASON_NONE);
  const int code = client->GetResponseCode();
  LOG_WARNING << "Last response code: " << code << ".";
  if (code != 429 && code != 509)
    return ResultOfHttpCode(code);
  // Throttled: the service says how long to keep away.
  const std::string retryAfter =
      GetValueFromHTTPHeaders(client->GetResponseHeaders(), "Retry-After", true);
  LOG_WARNING << "Too many requests, err code =" << code << "retry-after = " << retryAfter
              << "secs.";
  SetFailReasonValue(FAIL_REASON_RATE_LIMIT);
  if (retryAfter.empty() || retryAfter.size() > 9 ||
      retryAfter.find_first_not_of("0123456789") != std::string::npos) {
    return FAILED;
  }
  const std::int64_t seconds = std::stoll(retryAfter);
  if (seconds > kMaxRetryAfterSec) {
    LOG_ERROR << "Must wait " << seconds << "seconds, but it`s too long.";
    return FATAL;
  }
  if (seconds > 0 && WaitForStop(seconds * 1000)) {
    LOG_INFO << "Stopped.";
    return STOPPED;
  }
  return FAILED;
}

// --- tree ------------------------------------------------------------------------------------

FileSystem::Result RemoteFileSystemOneDrive::GetRootItem(std::string* rootId) {
  json_tree json;
  const std::string& root = GetRemoteRootPath();
  Result result = GetResource(
      root.empty() ? "/me/drive/root" : "/me/drive/root:/" + utils::PercentEncoded(root, true), "",
      &json, changesClient_.get());
  if (result != SUCCEEDED) {
    LOG_ERROR << "Failed to get root folder " << root << ", result: " << result;
    if (result == FORBIDDEN || result == ACCESS_DENIED) {
      LOG_FATAL << "No access to root, it`s fatal err.";
      return FATAL;
    }
    return result;
  }
  *rootId = MemberText(json, "id");
  if (rootId->empty()) {
    LOG_ERROR << "Empty id of root folder.";
    return FATAL;
  }
  {
    QMutexLocker locker(&sharedData()->idsMutex);
    sharedData()->ids.Init(*rootId);
  }
  LOG_INFO << "File id tree is cleared.";
  return GetDriveType(json);
}

FileSystem::Result RemoteFileSystemOneDrive::GetDriveType(const json_tree& root) {
  const std::string type = ChildText(root, "parentReference.driveType");
  if (type == "personal" || type == "business") {
    driveType = type == "personal" ? 0 : 1;
    return SUCCEEDED;
  }
  LOG_ERROR << "invalid drive_type value.";
  return FATAL;
}

FileSystem::Result RemoteFileSystemOneDrive::GetQuota(std::uint64_t* total, std::uint64_t* used) {
  json_tree json;
  Result result = GetResource("/me/drive", "quota", &json, changesClient_.get());
  if (result != SUCCEEDED) {
    LOG_ERROR << "Failed to get drive quota, result: " << result;
    return result;
  }
  *total = ChildNumber(json, "quota.total");
  *used = ChildNumber(json, "quota.used");
  return SUCCEEDED;
}

FileSystem::Result RemoteFileSystemOneDrive::GetCloudSize(std::uint64_t* total,
                                                          std::uint64_t* used) {
  Result result = GetQuota(total, used);
  if (result == SUCCEEDED) {
    totalSize = *total;
    usedSize = *used;
    snapshot_progress_.expected_bytes = *used;
  }
  return result;
}

FileSystem::Result RemoteFileSystemOneDrive::GetFullTree(FolderNode* root, std::uint64_t* free,
                                                         std::uint64_t* total,
                                                         tsl::htrie_set<char>* serviceItems) {
  LOG_INFO << "Requesting disk snapshot...";
  const bool renewalWanted = tree_renewal_.IsRequested();
  tree_renewal_.OnFullTreeRequested();
  auto failed = [&](Result result) {
    if (renewalWanted)
      tree_renewal_.RequestRenewal();
    return result;
  };
  // 1. The root, the drive and the quota.
  std::string rootId;
  Result result = GetRootItem(&rootId);
  if (result != SUCCEEDED) {
    LOG_ERROR << "Failed to get drive type.";
    return failed(result);
  }
  result = GetQuota(&totalSize, &usedSize);
  if (result != SUCCEEDED) {
    LOG_ERROR << "Failed to get space usage info: " << result;
    return failed(result);
  }
  lastSizeRequestTime = NowSec();
  // 2. The whole drive through its delta, applied by the feed's own rules.
  deltaLink.clear();
  sharedData()->SetSharedFolders({});
  DeltaRun run(true, serviceItems);
  result = GetDelta(&run);
  if (result != SUCCEEDED) {
    LOG_ERROR << "Failed to get root cloud delta, result: " << result;
    return failed(result);
  }
  std::uint64_t scratchFree = 0, scratchTotal = totalSize;
  for (const Change& change : run.changes) {
    if (!ApplyRemoteChange(change, root, &scratchFree, &scratchTotal)) {
      LOG_FATAL << "Failed apply remote change.";
      return failed(FATAL);
    }
  }
  // 3. The folders shared with the user, each on its own delta.
  ReadSharedFolders(&run);
  for (const Change& change : run.changes) {
    if (!ApplyRemoteChange(change, root, &scratchFree, &scratchTotal)) {
      LOG_FATAL << "Failed apply remote change.";
      return failed(FATAL);
    }
  }
  LOG_INFO << "Getting snapshot finished. OneDrive contains " << run.files << " files and "
           << run.folders << " folders.";
  *total = totalSize;
  *free = totalSize > usedSize ? totalSize - usedSize : 0;
  return SUCCEEDED;
}

void RemoteFileSystemOneDrive::ReadSharedFolders(DeltaRun* run) {
  const RemoteFileSystemOneDriveSharedData::FolderList mounts = run->mounts;
  sharedData()->SetSharedFolders(mounts);
  run->changes.clear();
  for (const auto& folder : mounts) {
    std::string link;
    Result result = FollowDelta(
        run, "/drives/" + folder->driveId + "/items/" + folder->itemId + "/delta", &link);
    if (result != SUCCEEDED) {
      LOG_ERROR << "Failed to get cloud delta, result: " << result;
      continue;
    }
    folder->deltaLink = link;
  }
}

// --- delta -----------------------------------------------------------------------------------

FileSystem::Result RemoteFileSystemOneDrive::GetDelta(DeltaRun* run) {
  // 1. The own drive.
  std::string link;
  Result result = FollowDelta(run, deltaLink.empty() ? kDeltaPath : deltaLink, &link);
  if (result != SUCCEEDED) {
    const int code = changesClient_->GetResponseCode();
    if (code == 410 || code == 400) {
      LOG_ERROR << "Invalid token for cloud delta.";
      run->changes.clear();
      if (GetFailReason() != FAIL_REASON_NETWORK) {
        LOG_WARNING << "Renew remote tree after unsuccessfull get delta.";
        tree_renewal_.RequestRenewal();
      }
    } else {
      LOG_ERROR << "Failed to get root cloud delta, result: " << result;
    }
    return result;
  }
  deltaLink = link;
  if (run->snapshot)
    return SUCCEEDED;
  // 2. Each mounted folder on its own link.
  for (const auto& folder : sharedData()->SharedFolders()) {
    std::string start = folder->deltaLink.empty()
                            ? "/drives/" + folder->driveId + "/items/" + folder->itemId + "/delta"
                            : folder->deltaLink;
    result = FollowDelta(run, start, &link);
    if (result != SUCCEEDED) {
      LOG_ERROR << "Failed to get cloud delta, result: " << result;
      return result;
    }
    folder->deltaLink = link;
  }
  return SUCCEEDED;
}

FileSystem::Result RemoteFileSystemOneDrive::FollowDelta(DeltaRun* run, const std::string& start,
                                                         std::string* link) {
  std::string url = start;
  while (true) {
    std::string next;
    link->clear();
    Result result = GetDeltaPage(url, run, &next, link);
    if (result != SUCCEEDED || !link->empty())
      return result;
    url = next;
  }
}

FileSystem::Result RemoteFileSystemOneDrive::GetDeltaPage(const std::string& url, DeltaRun* run,
                                                          std::string* next,
                                                          std::string* deltaLinkOut) {
  // 1. The link without its "$select" (ours goes on again) and without the Graph base.
  std::string path = url;
  const std::string base = Endpoints::Get(Endpoints::kMicrosoftGraph);
  if (path.compare(0, base.size(), base) == 0)
    path = path.substr(base.size());
  std::size_t query = path.find('?');
  if (query != std::string::npos) {
    std::string kept;
    std::size_t start = query + 1;
    while (start <= path.size()) {
      std::size_t end = path.find('&', start);
      if (end == std::string::npos)
        end = path.size();
      std::string part = path.substr(start, end - start);
      if (!part.empty() && part.compare(0, 8, "$select=") != 0 &&
          part.compare(0, 10, "%24select=") != 0)
        kept += (kept.empty() ? "" : "&") + part;
      start = end + 1;
    }
    path = path.substr(0, query) + (kept.empty() ? "" : "?" + kept);
  }
  // 2. The page.
  std::string select = kSelect;
  if (!run->snapshot)
    select += ",deleted";
  json_tree json;
  Result result = GetResource(path, select, &json, changesClient_.get());
  if (result != SUCCEEDED) {
    LOG_ERROR << "Failed to get resource, result: " << result;
    const int code = changesClient_->GetResponseCode();
    if (code == 400)
      tree_renewal_.RequestRenewal();
    if (code == 404)
      LOG_FATAL << "Root not found, it is fatal error.";
    return result;
  }
  auto value = utils::json::Member(json, "value");
  if (!value) {
    LOG_FATAL << "No items in response.";
    return FATAL;
  }
  // 3. Each item in turn.
  RemoteFileIds& ids = sharedData()->ids;
  for (const auto& entry : *value) {
    GraphDriveItem item;
    std::string error;
    if (!GraphDriveItem::Parse(entry.second, &item, &error)) {
      LOG_ERROR << "Invalid drive item: " << error;
      continue;
    }
    if (item.isRoot || (!item.hasRemote && sharedData()->FindSharedById(item.id)))
      continue;  // the drive's root, or the mounted folder itself in its own delta
    if (item.parentPath.find("Livefolders") != std::string::npos)
      utils::json::Log(entry.second, false);
    // Where it stands: by its path when the answer has one, else through the ids.
    std::string full;
    if (item.deleted) {
      full = run->PathOf(ids, item.hasRemote ? item.remoteId : item.id).value_or("");
    } else if (item.hasParentPath) {
      std::size_t root = item.parentPath.find("/root:");
      std::string parent =
          root == std::string::npos ? item.parentPath : item.parentPath.substr(root + 6);
      while (!parent.empty() && parent.front() == '/')
        parent.erase(0, 1);
      full = RemotePath(JoinPath(parent, item.name));
    } else if (auto parent = run->PathOf(ids, item.parentId)) {
      full = JoinPath(*parent, item.name);
    }
    if (full.empty()) {
      if (item.deleted && expectedDeletes_.Take(item.id)) {
        LOG_INFO << "Skipping self made change: " << item.id;
      } else {
        LOG_WARNING << "Invalid empty path. id=" << item.id;
      }
      continue;
    }
    if (item.hasRemote && !item.deleted && item.isFolder) {
      auto mount = std::make_shared<OneDriveSharedWithMeFolder>();
      mount->path = full;
      mount->name = item.name;
      mount->driveId = item.remoteDriveId;
      mount->itemId = item.remoteId;
      run->mounts.push_back(mount);
    }
    if (item.parentId.empty()) {
      RadarsLogger::instance().SendMetric("one_drive_parent_id_is_empty", "1", 1);
      LOG_WARNING << "Parent id is empty";
    }
    if (item.isPublic && !item.deleted) {
      if (run->publicItems) {
        run->publicItems->insert(ToLower(full));
      } else {
        run->changes.emplace_back(Change::PUBLIC_LINK, full);
      }
    }
    MakeChange(item, full, run);
  }
  // 4. The next page, or the link of the next run.
  *next = MemberText(json, "@odata.nextLink");
  if (!next->empty())
    return SUCCEEDED;
  std::string link = MemberText(json, "@odata.deltaLink");
  if (link.empty()) {
    utils::json::Log(json, false);
    LOG_FATAL << "Delta link is empty.";
    return FATAL;
  }
  *deltaLinkOut = link.compare(0, base.size(), base) == 0 ? link.substr(base.size()) : link;
  return SUCCEEDED;
}

std::string RemoteFileSystemOneDrive::RemotePath(const std::string& path) const {
  const std::string& root = GetRemoteRootPath();
  if (root.empty())
    return path;
  if (path.size() > root.size() && path.compare(0, root.size(), root) == 0 &&
      path[root.size()] == '/')
    return path.substr(root.size() + 1);
  return std::string();
}

void RemoteFileSystemOneDrive::MakeChange(const GraphDriveItem& item, const std::string& path,
                                          DeltaRun* run) {
  // 1. What it is: a removed item by what the ids knew of it, since its facet may be gone.
  if (item.hasParentPath && item.parentPath.find("/root:/Livefolders") != std::string::npos) {
    LOG_INFO << "Item in livefolders skipped.";
    return;
  }
  RemoteFileIds& ids = sharedData()->ids;
  const std::string id = item.hasRemote && !item.remoteId.empty() ? item.remoteId : item.id;
  if (id.empty()) {
    LOG_WARNING << "Empty id of \"" << path << "\".";
    return;
  }
  const bool folder = item.deleted ? run->IsFolder(ids, id) : item.isFolder;
  if (!item.deleted && !item.isFolder && !item.isFile) {
    LOG_WARNING << "Unknown drive_item's resource facet type. id=" << item.id;
    return;
  }
  // Graph may hand over a name no disk can show; such an item stays on the server only.
  if (!item.deleted && (!ChildNode::IsValidName(item.name) || item.name.size() > kMaxNameBytes)) {
    LOG_WARNING << "Skipping item with a name the disk can't hold; id=" << item.id << ".";
    return;
  }
  Change change(Change::DUMMY, path);
  change.id = id;
  change.drive_id = item.driveId;
  change.size = item.size;
  change.time = item.time;
  change.hash = SomeHash(item.hash);
  const std::optional<std::string> known = run->PathOf(ids, id);
  // 2. Its type, by comparison with the ids.
  if (!folder) {
    if (item.deleted) {
      change.type = Change::FILE_DELETE;
    } else if (!known) {
      change.type = Change::FILE_CREATE;
    } else if (*known == path) {
      change.type = Change::FILE_MODIFY;
    } else {
      change.type = Change::FILE_RENAME;
      change.old_path = *known;
      LOG_INFO << "File renamed: from " << *known << " to " << path;
    }
    if (run->snapshot)
      snapshot_progress_.AddSeenBytes(item.size);
    ++run->files;
  } else if (item.deleted) {
    change.type = Change::FOLDER_DELETE;
    renewDelta = true;
  } else if (known && *known == path) {
    if (expectedFolders_.Take(id)) {
      LOG_INFO << "Skipping self made change: " << path;
    } else {
      LOG_INFO << "Folder modified - event skipped.";
    }
    return;
  } else if (known) {
    change.type = Change::FOLDER_RENAME;
    change.old_path = *known;
    LOG_INFO << "Folder rename from " << *known << " to " << path;
    // The items that follow in this page are placed through the folder's new place.
    QMutexLocker locker(&sharedData()->idsMutex);
    std::string parentId = ids.GetFolderIdByPath(ParentOf(path));
    if (!ids.HasFolder(id) || parentId.empty() ||
        !ids.MoveFolder(id, NameOf(*known), parentId, NameOf(path))) {
      LOG_ERROR << "Can`t move folder id in tree, source file: " << *known << " " << path;
    }
  } else {
    change.type = Change::FOLDER_CREATE;
    ++run->folders;
  }
  if (!item.deleted)
    run->Place(id, path, folder);
  run->changes.push_back(std::move(change));
}

// --- feed ------------------------------------------------------------------------------------

FileSystem::Result RemoteFileSystemOneDrive::GetChanges(std::queue<Change>* changes) {
  // 1. The delta, again at once while a deleted folder may have left its children unreported.
  DeltaRun run(false, nullptr);
  Result result = GetDelta(&run);
  while (result == SUCCEEDED && renewDelta) {
    renewDelta = false;
    result = GetDelta(&run);
  }
  if (result != SUCCEEDED)
    return result;
  // 2. An order the tree can follow, then the sizes.
  OrderOneDriveChanges(&run.changes);
  if (NowSec() - lastSizeRequestTime >= kQuotaIntervalSec) {
    std::uint64_t total = 0, used = 0;
    result = GetQuota(&total, &used);
    if (result != SUCCEEDED) {
      LOG_ERROR << "Failed to update cloud sizes.";
      return result;
    }
    lastSizeRequestTime = NowSec();
    if (total != totalSize) {
      Change change(Change::TOTAL_SIZE_SET, "");
      change.size = total;
      run.changes.push_back(change);
    }
    if (total != totalSize || used != usedSize) {
      Change change(Change::FREE_SIZE_SET, "");
      change.size = total > used ? total - used : 0;
      run.changes.push_back(change);
    }
    totalSize = total;
    usedSize = used;
  }
  for (Change& change : run.changes)
    changes->push(std::move(change));
  TestSuspiciousDelete();
  if (WaitForStop(kChangesPauseMs)) {
    LOG_INFO << "Stopped.";
    return STOPPED;
  }
  return SUCCEEDED;
}

void RemoteFileSystemOneDrive::TestSuspiciousDelete() {
  // The stored times lie in the past: the differences reach these bounds only when the wall
  // clock was set back by as much.
  const std::int64_t now = NowSec();
  if (lastMissingItemTime > 0 && lastChangeTime > 0 && lastMissingItemTime - now >= 600 &&
      lastChangeTime - now >= 180 && !tree_renewal_.IsRequested()) {
    LOG_WARNING << "Renew tree because of suspicious delete event from remote.";
    tree_renewal_.RequestRenewal();
    lastMissingItemTime = 0;
    lastChangeTime = 0;
  }
}

bool RemoteFileSystemOneDrive::PrepareRemoteChange(Change* change) {
  UnmapPathToLocal(&change->path);
  UnmapPathToLocal(&change->old_path);
  return true;
}

bool RemoteFileSystemOneDrive::IsSelfMadeChange(const Change& change) {
  switch (change.type) {
    case Change::FILE_CREATE:
    case Change::FILE_MODIFY: {
      HashOneDrive hash = change.hash.GetHashOneDrive();
      if (expectedUploads_.Take(ExpectedUpload{change.id, hash, hash.etag})) {
        LOG_INFO << "Change will be skipped: eTag = " << hash.etag
                 << ", found item eTag= " << hash.etag;
        return true;
      }
      return false;
    }
    case Change::FILE_DELETE:
    case Change::FOLDER_DELETE:
      if (expectedDeletes_.Take(change.id)) {
        LOG_INFO << "Found id = " << change.id << ".";
        return true;
      }
      return false;
    case Change::FOLDER_CREATE:
      return expectedFolders_.Take(change.id);
    default:
      return false;
  }
}

bool RemoteFileSystemOneDrive::ApplyRemoteChange(const Change& change, FolderNode* root,
                                                 std::uint64_t* free, std::uint64_t* total) {
  lastChangeTime = NowSec();
  if (IsSelfMadeChange(change)) {
    LOG_INFO << "Skipping self made change: " << change.path;
    return true;
  }
  const bool mounted = sharedData()->FindSharedByPath(change.path) != nullptr;
  QMutexLocker locker(&sharedData()->idsMutex);
  switch (change.type) {
    case Change::FILE_CREATE:
    case Change::FOLDER_CREATE:
      return ApplyCreate(change, root, free, mounted);
    case Change::FILE_RENAME:
    case Change::FOLDER_RENAME:
      return ApplyRename(change, root);
    case Change::FILE_MODIFY:
      return ApplyModify(change, root, free, mounted);
    case Change::FILE_DELETE:
    case Change::FOLDER_DELETE:
      return ApplyDelete(change, root, free, mounted);
    case Change::FREE_SIZE_SET:
      *free = change.size;
      return true;
    case Change::TOTAL_SIZE_SET: {
      *total = change.size;
      std::uint64_t listed = root->FolderSize(FolderNode::WithServiceItems(true));
      *free = *total > listed ? *total - listed : 0;
      return true;
    }
    case Change::PUBLIC_LINK:
      return true;
    default:
      LOG_ERROR << "Unsupported change type for OneDrive: " << change.type;
      return false;
  }
}

void RemoteFileSystemOneDrive::NoteMissingItem(const char* metric) {
  RadarsLogger::instance().SendMetric(metric, "1", 1);
  lastMissingItemTime = NowSec();
}

bool RemoteFileSystemOneDrive::ApplyCreate(const Change& change, FolderNode* root,
                                           std::uint64_t* free, bool mounted) {
  RemoteFileIds& ids = sharedData()->ids;
  const bool isFile = change.type == Change::FILE_CREATE;
  if (isFile ? ids.HasFile(change.id) : ids.HasFolder(change.id))
    return true;
  // 1. The place, freed of what held the name before.
  FolderNode* parent = nullptr;
  std::string_view nameView;
  if (!CreatePathTo(change.path, root, &parent, &nameView, false)) {
    LOG_ERROR << (isFile ? "Failed to create path." : "Failed creating path.") << " "
              << change.path;
    if (isFile) {
      RadarsLogger::instance().SendMetric(
          "fail_error", "failed_in_applying_remote_changes_while_creating_file", 1);
    }
    return true;
  }
  const std::string name(nameView);
  if (FileNode* old = parent->GetFile(name)) {
    if (!isFile)
      LOG_INFO << "Replacing file with folder.";
    if (!mounted)
      *free += old->size;
    if (!parent->DeleteFileW(name))
      LOG_ERROR << "Failed deleting old file.";
  }
  if (parent->GetFolder(name)) {
    if (!isFile) {
      LOG_INFO << "Skipping replacing folder.";
    } else {
      LOG_INFO << "Replacing folder with file.";
      if (!parent->DeleteFolder(name))
        LOG_ERROR << "Failed delting old folder.";
    }
  }
  // 2. The node and its id.
  if (isFile) {
    if (!parent->CreateFileW(name, change.size, change.hash, change.time)) {
      LOG_ERROR << "Failed to create file " << change.path;
      RadarsLogger::instance().SendMetric(
          "fail_error", "failed_in_applying_remote_changes_while_creating_file", 1);
      return true;
    }
    if (!mounted)
      *free = *free > change.size ? *free - change.size : 0;
  } else if (!parent->GetFolder(name) && !parent->CreateFolder(name, change.time)) {
    LOG_ERROR << "Failed creating folder.";
    return true;
  }
  parent->SetChanged(true);
  const std::string parentId = ids.GetFolderIdByPath(ParentOf(change.path));
  if (parentId.empty()) {
    if (change.path.find("Livefolders") != std::string::npos) {
      LOG_INFO << (isFile ? "Skip file in Livefolders dir." : "Skip Livefolders dir.");
      RadarsLogger::instance().SendMetric("onedrive_skip_livefolders", "1", 1);
    } else {
      LOG_ERROR << "Can`t find id for \"" << change.path << "\".";
    }
    return true;
  }
  if (isFile ? !ids.AddFileId(change.id, name, parentId)
             : !ids.AddFolderId(change.id, name, parentId)) {
    LOG_ERROR << (isFile ? "Can`t id of file \"" : "Can`t add folder in id tree: \"") << change.path
              << "\".";
  }
  return true;
}

bool RemoteFileSystemOneDrive::ApplyRename(const Change& change, FolderNode* root) {
  RemoteFileIds& ids = sharedData()->ids;
  const bool isFile = change.type == Change::FILE_RENAME;
  if (!isFile)
    LOG_INFO << "Renaming folder " << change.old_path << " to " << change.path;
  auto [from, oldName] = root->TraversePath(change.old_path);
  FolderNode* to = nullptr;
  std::string_view newName;
  const bool hasSource =
      from && (isFile ? from->GetFile(oldName) != nullptr : from->GetFolder(oldName) != nullptr);
  if (!hasSource) {
    LOG_WARNING << (isFile ? "No such file to move." : "No such folder to move.") << " "
                << change.old_path;
    return true;
  }
  if (!CreatePathTo(change.path, root, &to, &newName, false)) {
    LOG_ERROR << (isFile ? "Failed moving file." : "Failed moving folder.");
    return true;
  }
  const std::string target(newName);
  if (isFile && to->GetFile(target)) {
    if (!to->DeleteFileW(target))
      LOG_ERROR << "Move in existing from remote: can`t delete file \"" << change.path
                << "\" to be replaced by \"" << change.old_path << "\"";
  }
  const std::string source(oldName);
  const bool moved = isFile ? FolderNode::MoveFileW(from, source, to, target)
                            : FolderNode::MoveFolder(from, source, to, target);
  if (!moved) {
    LOG_ERROR << (isFile ? "Failed moving file." : "Failed moving folder.");
    return true;
  }
  from->SetChanged(true);
  to->SetChanged(true);
  if (isFile) {
    FileNode* file = to->GetFile(target);
    file->SetProperties(change.hash, change.size, change.time, file->GetInode());
  }
  // The ids may be there already: a folder's are moved as soon as the delta names it.
  if (ids.GetPathById(change.id).value_or("") != change.path) {
    const std::string parentId = ids.GetFolderIdByPath(ParentOf(change.path));
    const bool idsMoved = isFile ? ids.MoveFileW(change.id, source, parentId, target)
                                 : ids.MoveFolder(change.id, source, parentId, target);
    if (!idsMoved) {
      LOG_ERROR << "Can`t move file id in tree, source file: " << change.old_path
                << ", dest file: " << change.path;
    }
  }
  if (isFile)
    LOG_INFO << "File renamed: from " << change.old_path << " to " << change.path;
  return true;
}

bool RemoteFileSystemOneDrive::ApplyModify(const Change& change, FolderNode* root,
                                           std::uint64_t* free, bool mounted) {
  LOG_INFO << "Apply remote change file modified: " << change.path << " ,  "
           << change.hash.ToDisplayString();
  auto [parent, name] = root->TraversePath(change.path);
  FileNode* file = parent ? parent->GetFile(name) : nullptr;
  if (!file) {
    LOG_WARNING << "No such file to modify - skipped";
    NoteMissingItem("one_drive_remote_mdf_no_file");
    return true;
  }
  if (!mounted) {
    *free += file->size;
    *free = *free > change.size ? *free - change.size : 0;
  }
  const bool sizeChanged = file->size != change.size;
  const bool hashChanged = file->hash != change.hash;
  if (sizeChanged || hashChanged) {
    LOG_INFO << "File set changed because of " << (sizeChanged ? "size" : "hash");
    file->SetProperties(change.hash, change.size, change.time, file->GetInode());
    file->SetChanged(true);
  } else {
    file->SetHash(change.hash);  // a new eTag for the same content
  }
  return true;
}

bool RemoteFileSystemOneDrive::ApplyDelete(const Change& change, FolderNode* root,
                                           std::uint64_t* free, bool mounted) {
  RemoteFileIds& ids = sharedData()->ids;
  auto [parent, nameView] = root->TraversePath(change.path);
  const std::string name(nameView);
  if (change.type == Change::FILE_DELETE) {
    FileNode* file = parent ? parent->GetFile(name) : nullptr;
    if (!file) {
      LOG_WARNING << "No such file to delete - skipped";
      NoteMissingItem("one_drive_remote_dlt_no_file");
      return true;
    }
    if (!mounted)
      *free += file->size;
    if (!parent->DeleteFileW(name))
      LOG_ERROR << "Failed deleting file.";
    parent->SetChanged(true);
    if (ids.HasFile(change.id) && !ids.RemoveFile(name, change.id))
      LOG_ERROR << "Can`t remove id of file: " << change.id;
    return true;
  }
  LOG_INFO << "Deleting " << change.path << " ...";
  FolderNode* folder = parent ? parent->GetFolder(name) : nullptr;
  if (!folder) {
    LOG_WARNING << "No such folder to delete - skipped";
    NoteMissingItem("one_drive_remote_dlt_no_folder");
    return true;
  }
  const bool sharedRoot = sharedData()->FindSharedById(change.id) != nullptr;
  if (!sharedRoot && !folder->IsEmpty()) {
    LOG_ERROR << "Failed deleting folder - it is not empty.";
    RadarsLogger::instance().SendMetric("remote_delete_not_empty_dir", "1", 1);
    return true;
  }
  if (!parent->DeleteFolder(name))
    LOG_ERROR << "Failed deleting folder.";
  parent->SetChanged(true);
  if (ids.HasFolder(change.id) && !ids.RemoveFolder(name, change.id))
    LOG_ERROR << "Can`t remove id of folder:" << change.id;
  return true;
}

// --- mounted folders, links and recent files -------------------------------------------------

bool RemoteFileSystemOneDrive::IsPublicItem(const json_tree& item) {
  return ChildText(item, "shared.scope") == "users" ||
         ChildText(item, "shared.scope") == "anonymous";
}

std::uint64_t RemoteFileSystemOneDrive::GetMountedDirSize() {
  json_tree json;
  Result result = GetResource("/me/drive/sharedWithMe", "size", &json, fileClient_.get());
  if (result != SUCCEEDED) {
    LOG_ERROR << "Failed to get drive quota, result: " << result;
    return 0;
  }
  std::uint64_t size = 0;
  if (auto value = utils::json::Member(json, "value")) {
    for (const auto& entry : *value)
      size += ChildNumber(entry.second, "size");
  }
  return size;
}

bool RemoteFileSystemOneDrive::IsItemInMountedDir(const std::string& path) {
  return sharedData()->FindSharedByPath(path) != nullptr;
}

utils::ValueOrError<std::vector<RemoteFileSystem::FileInfo>, FileSystem::Result>
RemoteFileSystemOneDrive::GetLastFiles(int count) {
  json_tree json;
  Result result = GetResource("/me/drive/recent", "", &json, fileClient_.get());
  if (result != SUCCEEDED) {
    LOG_ERROR << "Failed GetLastFiles request from api: " << result;
    return result;
  }
  std::vector<FileInfo> files;
  if (auto value = utils::json::Member(json, "value")) {
    for (const auto& entry : *value) {
      if (static_cast<int>(files.size()) >= count)
        break;
      auto remote = utils::json::Member(entry.second, "remoteItem");
      const json_tree& item = remote ? *remote : entry.second;
      FileInfo info;
      info.id = ChildText(item, "id");
      info.name = ChildText(item, "name");
      std::int64_t seconds = 0;
      if (utils::TryParseISODateTime(ChildText(item, "lastModifiedDateTime"), &seconds))
        info.time = static_cast<std::uint64_t>(std::max<std::int64_t>(seconds, 0));
      info.size = ChildNumber(item, "size");
      files.push_back(info);
    }
  }
  return files;
}

FileSystem::LengthLimits RemoteFileSystemOneDrive::GetMaxSupportedPathLength() const {
  LengthLimits limits;
  limits.second = 399;
  return limits;
}

const RemoteFileSystem::UnsupportedSymbolsMap& RemoteFileSystemOneDrive::GetUnsupportedSymbolsMap()
    const {
  return InvalidSymbolsMapping::kInvalidSymbolsMap_StdWin;
}

FileSystem::Result RemoteFileSystemOneDrive::GetPublicLink(const std::string&, bool, std::string*) {
  return FATAL;
}

FileSystem::Result RemoteFileSystemOneDrive::MoveFileImpl(const FileNode&, const OverwriteControl&,
                                                          const std::string&,
                                                          const OverwriteControl&,
                                                          const std::string&) {
  return FATAL;
}

// --- item operations -------------------------------------------------------------------------

std::string RemoteFileSystemOneDrive::DrivePrefix(const std::string& path) const {
  auto folder = sharedData()->FindSharedByPath(path);
  return folder ? "/drives/" + folder->driveId : "/me/drive";
}

FileSystem::Result RemoteFileSystemOneDrive::ItemIdOf(const std::string& path, bool folder,
                                                      std::string* id) {
  if (!FileSystem::IsRelativeCanonicalPath(path)) {
    LOG_ERROR << "Invalid path.";
    return FATAL;
  }
  QMutexLocker locker(&sharedData()->idsMutex);
  *id =
      folder ? sharedData()->ids.GetFolderIdByPath(path) : sharedData()->ids.GetFileIdByPath(path);
  if (id->empty()) {
    LOG_ERROR << "Can`t find id of " << (folder ? "folder" : "file") << " \"" << path << "\".";
    return FAILED;
  }
  return SUCCEEDED;
}

FileSystem::Result RemoteFileSystemOneDrive::CreateFolderImpl(const OverwriteControl&,
                                                              const std::string& path) {
  LOG_INFO << "Folder to create \"" << path << "\".";
  if (!FileSystem::IsRelativeCanonicalPath(path)) {
    LOG_ERROR << "Received empty item path to create: \"" << path << "\".";
    return FATAL;
  }
  std::string parentId;
  {
    QMutexLocker locker(&sharedData()->idsMutex);
    parentId = sharedData()->ids.GetFolderIdByPath(ParentOf(path));
  }
  if (parentId.empty()) {
    LOG_ERROR << "Can`t find parent id for " << path;
    return FAILED;
  }
  std::string name = NameOf(path);
  MapNameToRemote(&name);
  utils::json::Writer body;
  body.BeginObject()
      .Key("folder")
      .BeginObject()
      .EndObject()
      .Key("name")
      .String(name)
      .Key("@microsoft.graph.conflictBehavior")
      .String("replace")
      .EndObject();
  json_tree reply;
  Result result = PostResource(DrivePrefix(path) + "/items/" + parentId + "/children", body.Text(),
                               &reply, fileClient_.get());
  if (result != SUCCEEDED) {
    LOG_ERROR << "Failed to create folder, result: " << result;
    return result;
  }
  const std::string id = MemberText(reply, "id");
  QMutexLocker locker(&sharedData()->idsMutex);
  if (id.empty() || !sharedData()->ids.AddFolderId(id, NameOf(path), parentId))
    LOG_ERROR << "Can`t add folder to id tree: " << id;
  expectedFolders_.Expect(id);
  return SUCCEEDED;
}

FileSystem::Result RemoteFileSystemOneDrive::DeleteFileImpl(const OverwriteControl& control,
                                                            const std::string& path, std::uint64_t,
                                                            std::uint64_t) {
  const std::string eTag = control.hash.GetHashOneDrive().etag;
  LOG_INFO << "File to delete: \"" << path << "\", eTag = " << eTag;
  std::string id;
  Result result = ItemIdOf(path, false, &id);
  if (result != SUCCEEDED)
    return result;
  std::vector<std::string> headers;
  if (!eTag.empty())
    headers.push_back("if-match: " + eTag);
  LOG_INFO << "self made delete " << path << ", id = " << id;
  expectedDeletes_.Expect(id);
  result = DeleteItem(DrivePrefix(path) + "/items/" + id, headers);
  if (result != SUCCEEDED) {
    LOG_ERROR << "Failed to delete item \"" << path << "\", result: " << result;
    expectedDeletes_.Take(id);
    return result;
  }
  QMutexLocker locker(&sharedData()->idsMutex);
  if (!sharedData()->ids.RemoveFile(NameOf(path), id))
    LOG_ERROR << "Can`t remove item path= \"" << path << "\", item id=" << id;
  return SUCCEEDED;
}

FileSystem::Result RemoteFileSystemOneDrive::DeleteFolderImpl(const FolderNode&, const Revision&,
                                                              const std::string& path) {
  LOG_INFO << "Folder to delete: \"" << path << "\".";
  std::string id;
  Result result = ItemIdOf(path, true, &id);
  if (result != SUCCEEDED)
    return result;
  // The feed reports every item below as deleted too.
  std::vector<std::string> doomed;
  sharedData()->ids.VisitSubtree(id,
                                 [&doomed](const std::string& each) { doomed.push_back(each); });
  for (const std::string& each : doomed) {
    LOG_INFO << "self made delete " << path << ", id = " << each;
    expectedDeletes_.Expect(each);
  }
  result = DeleteItem(DrivePrefix(path) + "/items/" + id, {});
  if (result != SUCCEEDED) {
    LOG_ERROR << "Failed to delete item \"" << path << "\", result: " << result;
    for (const std::string& each : doomed)
      expectedDeletes_.Take(each);
    return result;
  }
  QMutexLocker locker(&sharedData()->idsMutex);
  if (!sharedData()->ids.RemoveFolder(NameOf(path), id))
    LOG_ERROR << "Can`t remove item path= \"" << path << "\", item id=" << id;
  return SUCCEEDED;
}

FileSystem::Result RemoteFileSystemOneDrive::PatchItem(const std::string& from,
                                                       const std::string& to, const std::string& id,
                                                       const std::string& eTag, bool folder,
                                                       json_tree* reply) {
  // 1. The body: the new name, and the new parent when it changes.
  std::string name = NameOf(to);
  MapNameToRemote(&name);
  utils::json::Writer body;
  body.BeginObject().Key("@microsoft.graph.conflictBehavior").String("replace");
  body.Key("name").String(name);
  if (ParentOf(from) != ParentOf(to)) {
    std::string parentId;
    {
      QMutexLocker locker(&sharedData()->idsMutex);
      parentId = sharedData()->ids.GetFolderIdByPath(ParentOf(to));
    }
    if (parentId.empty()) {
      LOG_ERROR << "Can`t find id for \"" << ParentOf(to) << "\".";
      return FAILED;
    }
    body.Key("parentReference").BeginObject().Key("id").String(parentId).EndObject();
  }
  body.EndObject();
  // 2. The PATCH.
  std::vector<std::string> headers;
  if (!folder && !eTag.empty())
    headers.push_back("if-match: " + eTag);
  Result result = PatchResource(DrivePrefix(from) + "/items/" + id, body.Text(), headers, reply);
  if (result != SUCCEEDED) {
    LOG_ERROR << "Patch request failed: " << result << ", rename file " << from << " to " << to
              << " request : " << body.Text();
    return result;
  }
  if (MemberText(*reply, "id").empty()) {
    LOG_ERROR << "Invalid response - no id.";
    return FAILED;
  }
  if (MemberText(*reply, "id") != id)
    LOG_WARNING << "File id has changed with update request: " << id << "    "
                << MemberText(*reply, "id");
  // 3. The ids follow.
  QMutexLocker locker(&sharedData()->idsMutex);
  RemoteFileIds& ids = sharedData()->ids;
  const std::string parentId = ids.GetFolderIdByPath(ParentOf(to));
  const bool moved = folder ? ids.MoveFolder(id, NameOf(from), parentId, NameOf(to))
                            : ids.MoveFileW(id, NameOf(from), parentId, NameOf(to));
  if (!moved)
    LOG_ERROR << "Can`t move file id in tree, source file: " << from << ", dest file: " << to;
  return SUCCEEDED;
}

FileSystem::Result RemoteFileSystemOneDrive::RenameFileImpl(const FileNode&,
                                                            const OverwriteControl&,
                                                            const std::string& from,
                                                            const OverwriteControl& toControl,
                                                            const std::string& to, SomeHash* hash) {
  const std::string eTag = toControl.hash.GetHashOneDrive().etag;
  LOG_INFO << "Moving file \"" << from << "\" to \"" << to << "\".";
  LOG_INFO << "etag for header = " << eTag;
  if (from == to) {
    LOG_INFO << "Moving to same path: \"" << from << "\".";
    return SUCCEEDED;
  }
  std::string id;
  Result result = ItemIdOf(from, false, &id);
  if (result != SUCCEEDED)
    return result;
  std::string replaced;
  {
    QMutexLocker locker(&sharedData()->idsMutex);
    replaced = sharedData()->ids.GetFileIdByPath(to);
  }
  json_tree reply;
  result = PatchItem(from, to, id, eTag, false, &reply);
  if (result != SUCCEEDED)
    return result;
  if (!replaced.empty()) {
    LOG_INFO << "self made delete " << to << ", id = " << replaced;
    expectedDeletes_.Expect(replaced);
  }
  HashOneDrive value = GraphDriveItem::ParseHash(reply);
  if (value.IsZero() && value.etag.empty())
    LOG_WARNING << "Empty hash for " << to;
  if (hash)
    *hash = SomeHash(value);
  return SUCCEEDED;
}

FileSystem::Result RemoteFileSystemOneDrive::MoveFolderImpl(const FolderNode&,
                                                            const OverwriteControl&,
                                                            const std::string& from,
                                                            const OverwriteControl&,
                                                            const std::string& to) {
  LOG_INFO << "Moving folder \"" << from << "\" to \"" << to << "\".";
  if (from == to)
    return SUCCEEDED;
  std::string id;
  Result result = ItemIdOf(from, true, &id);
  if (result != SUCCEEDED) {
    LOG_ERROR << "Can`t find dir id by name: \"" << from << "\".";
    return result;
  }
  json_tree reply;
  return PatchItem(from, to, id, std::string(), true, &reply);
}

FileSystem::Result RemoteFileSystemOneDrive::ClosePublicLink(const std::string& path) {
  // 1. The item and its permissions.
  std::string id;
  {
    QMutexLocker locker(&sharedData()->idsMutex);
    id = sharedData()->ids.GetFileIdByPath(path);
    if (id.empty())
      id = sharedData()->ids.GetFolderIdByPath(path);
  }
  if (id.empty() || path.empty()) {
    LOG_ERROR << "No item is found by path \"" << path;
    return FAILED;
  }
  const std::string url = DrivePrefix(path) + "/items/" + id + "/permissions";
  json_tree json;
  Result result = GetResource(url, "", &json, fileClient_.get());
  if (result != SUCCEEDED) {
    LOG_ERROR << "Failed to get permissions, result: " << result;
    return result;
  }
  // 2. The links of this item itself; inherited ones belong to a folder above.
  auto value = utils::json::Member(json, "value");
  if (!value) {
    LOG_ERROR << "Failed reading json.";
    return FAILED;
  }
  int closed = 0;
  for (const auto& entry : *value) {
    if (!utils::json::Member(entry.second, "link") ||
        utils::json::Member(entry.second, "inheritedFrom"))
      continue;
    result =
        DeleteItem(url + "/" + utils::PercentEncoded(MemberText(entry.second, "id"), false), {});
    if (result != SUCCEEDED) {
      LOG_ERROR << "Close public link failed.";
      return result;
    }
    ++closed;
  }
  if (closed == 0) {
    LOG_INFO << "Item \"" << path << "\" has no public links, nothig to close.";
    return SUCCEEDED;
  }
  LOG_INFO << "Public link for \"" << path << "\" is closed.";
  return SUCCEEDED;
}

// --- reading ---------------------------------------------------------------------------------

FileSystem::Result RemoteFileSystemOneDrive::OpenForRead(const std::string& path,
                                                         std::uint64_t offset, std::uint64_t limit,
                                                         std::uint64_t size, const SomeHash& hash) {
  LOG_INFO << "Reading remote file \"" << path << "\", offset: " << offset << ", limit: " << limit
           << ".";
  if (!FileSystem::IsRelativeCanonicalPath(path)) {
    LOG_ERROR << "Invalid path.";
    return FATAL;
  }
  if (fileMode != kIdle || !fileClient_)
    return FAILED;
  // 1. The URL: through the parent's id in a mounted folder, else by path.
  std::string remote = path;
  MapPathToRemote(&remote);
  std::string url;
  auto mounted = sharedData()->FindSharedByPath(path);
  if (mounted) {
    std::string parentId;
    {
      QMutexLocker locker(&sharedData()->idsMutex);
      parentId = sharedData()->ids.GetFolderIdByPath(ParentOf(path));
    }
    if (parentId.empty()) {
      LOG_ERROR << "Can`t find id for dir \"" << ParentOf(path) << "\".";
      return CONFLICT;
    }
    url = "/drives/" + mounted->driveId + "/items/" + utils::PercentEncoded(parentId, false) +
          ":/" + utils::PercentEncoded(NameOf(remote), false) + ":/content";
  } else {
    const std::string& root = GetRemoteRootPath();
    url = "/me/drive/root:/" + utils::PercentEncoded(JoinPath(root, remote), true) + ":/content";
  }
  // 2. The request, ranged unless the whole file is asked for.
  URLProcessor::Request request;
  request.url = DispatcherUrl::FromString(GraphUrl(url));
  rangedRead_ = limit > offset && limit != 0 && !(offset == 0 && limit == size);
  if (rangedRead_) {
    URLProcessor::Range range;
    range.first = offset;
    range.last = limit - 1;
    request.range = range;
  }
  transferPath_ = path;
  readOffset_ = offset;
  expectedETag_ = rangedRead_ ? std::string() : hash.GetHashOneDrive().etag;
  expectedSize_ = size;
  firstBlock_ = true;
  fileMode = kReading;
  if (!fileClient_->Send(request))
    fileClient_->GetInputStream();
  return SUCCEEDED;
}

FileSystem::Result RemoteFileSystemOneDrive::ReadFile(std::uint8_t* buffer, std::uint32_t size,
                                                      std::uint32_t* done) {
  *done = 0;
  if (fileMode != kReading) {
    LOG_ERROR << "Connection is closed, can't read anymore.";
    SetFailReasonValue(FAIL_REASON_NETWORK);
    return FAILED;
  }
  InputStream* stream = fileClient_->GetInputStream();
  const int code = fileClient_->GetResponseCode();
  InputStream::Result read = stream && URLProcessor::IsSuccessHttpCode(code)
                                 ? stream->Read(buffer, size, done)
                                 : InputStream::Result::FAILED;
  if (read != InputStream::Result::OK && read != InputStream::Result::END) {
    fileMode = kIdle;
    const URLResult result = fileClient_->Finish();
    SetFailReason(result, code);
    RadarsLogger::instance().SendIfNetworkError(result, "remote_onedrive", code,
                                                fileClient_->GetUrl());
    if (result == URLResult::STOPPED) {
      LOG_INFO << "Stopped.";
      return STOPPED;
    }
    if (result == URLResult::NOT_FOUND) {
      LOG_ERROR << "File not found; possible server side conflict.";
      RadarsLogger::instance().SendMetric("one_drive_not_found", "1", 1);
      return CONFLICT;
    }
    LOG_ERROR << "Failed, result " << result << ".";
    return GetHttpFailure(fileClient_.get(), result);
  }
  // The first block: the answer is checked against what the tree says of the file.
  if (firstBlock_ && (*done > 0 || read == InputStream::Result::END)) {
    firstBlock_ = false;
    const std::string& headers = fileClient_->GetResponseHeaders();
    if (!expectedETag_.empty()) {
      std::string eTag = GetValueFromHTTPHeaders(headers, "etag", true);
      std::string length = GetTotalPayloadSizeFromHTTPHeaders(headers);
      if (eTag != expectedETag_ || length != std::to_string(expectedSize_)) {
        RadarsLogger::instance().SendMetric("onedrive_remote_unexpected_hash", "1", 1);
        LOG_ERROR << headers << "Unexpected content received: expected_etag=" << expectedETag_
                  << ";  received_etag=" << eTag << ",  expected_size=" << expectedSize_
                  << ";  received_size=" << length;
        fileMode = kIdle;
        fileClient_->Finish();
        SetFailReasonValue(FAIL_REASON_HTTP);
        return FAILED;
      }
    }
    if (rangedRead_ && !URLProcessor::CheckRangeInResponseHeaders(headers, readOffset_, boost::none,
                                                                  boost::none)) {
      LOG_ERROR << "Invalid response range, full headers:\n" << headers;
      fileMode = kIdle;
      fileClient_->Finish();
      return FAILED;
    }
  }
  return SUCCEEDED;
}

// --- uploads ---------------------------------------------------------------------------------

FileSystem::Result RemoteFileSystemOneDrive::OpenForCreate(const OverwriteControl&,
                                                           const std::string& path,
                                                           const SomeHash& hash, std::uint64_t size,
                                                           std::uint64_t time,
                                                           std::uint64_t* resumeOffset, bool) {
  return OpenUpload(path, hash, size, time, std::string(), resumeOffset);
}

FileSystem::Result RemoteFileSystemOneDrive::OpenForRewrite(const OverwriteControl& control,
                                                            const std::string& path,
                                                            const SomeHash& hash,
                                                            std::uint64_t size, std::uint64_t time,
                                                            std::uint64_t* resumeOffset) {
  return OpenUpload(path, hash, size, time, control.hash.GetHashOneDrive().etag, resumeOffset);
}

FileSystem::Result RemoteFileSystemOneDrive::OpenUpload(const std::string& path,
                                                        const SomeHash& hash, std::uint64_t size,
                                                        std::uint64_t time, const std::string& eTag,
                                                        std::uint64_t* resumeOffset) {
  // 1. What can be refused without a request.
  if (resumeOffset)
    *resumeOffset = 0;
  if (!FileSystem::IsRelativeCanonicalPath(path)) {
    LOG_ERROR << "Invalid path.";
    return FATAL;
  }
  if (fileMode != kIdle || !fileClient_)
    return FAILED;
  if (size > kMaxFileSize) {
    LOG_ERROR << "File is too big, size = " << size << ".";
    return TOO_LARGE;
  }
  std::string name = NameOf(path);
  MapNameToRemote(&name);
  if (!ChildNode::IsValidName(name) || name.size() > kMaxNameBytes) {
    LOG_ERROR << "Invalid name: \"" << name << "\".";
    return BADNAM;
  }
  upload_ = Upload();
  {
    QMutexLocker locker(&sharedData()->idsMutex);
    upload_.parentId = sharedData()->ids.GetFolderIdByPath(ParentOf(path));
  }
  if (upload_.parentId.empty()) {
    LOG_ERROR << "Can`t get folder url and path for: \"" << path << "\".";
    return CONFLICT;
  }
  upload_.name = name;
  upload_.prefix = DrivePrefix(path);
  upload_.fileSize = size;
  upload_.time = time;
  upload_.eTag = eTag;
  const SomeHash contentHash = hash.IsEmpty() ? resumeHash_ : hash;
  resumeHash_ = SomeHash();
  upload_.expected = contentHash.GetHashOneDrive();
  transferPath_ = path;
  // 2. A session of this content that another try left behind goes on where the service stands.
  if (size > 0 && TryResumeUpload(path, contentHash, size)) {
    LOG_INFO << "Resume upload for file \"" << path << "\" from " << upload_.sentBytes
             << " offset, size = " << size << ".";
    if (resumeOffset)
      *resumeOffset = upload_.sentBytes;
    fileMode = kSessionUpload;
    return SUCCEEDED;
  }
  const std::string itemUrl = GraphUrl(upload_.prefix + "/items/" + upload_.parentId + ":/" +
                                       utils::PercentEncoded(name, false) + ":");
  // 3. An empty file goes in one plain PUT, any other through a session.
  if (size == 0) {
    URLProcessor::Request request;
    request.verb = "PUT";
    request.url = DispatcherUrl::FromString(itemUrl + "/content");
    if (!eTag.empty())
      request.headers.push_back("if-match: " + eTag);
    fileClient_->Send(request);
    fileMode = kPlainUpload;
    return SUCCEEDED;
  }
  Result result = CreateUploadSession(itemUrl + "/createUploadSession", eTag);
  if (result != SUCCEEDED) {
    LOG_ERROR << "File \"" << path << "\" not created.";
    return result;
  }
  fileMode = kSessionUpload;
  return SUCCEEDED;
}

FileSystem::Result RemoteFileSystemOneDrive::CreateUploadSession(const std::string& url,
                                                                 const std::string& eTag) {
  // A new file may not take an existing name; a rewrite names the version it replaces.
  utils::json::Writer body;
  body.BeginObject()
      .Key("@microsoft.graph.conflictBehavior")
      .String(eTag.empty() ? "fail" : "replace")
      .Key("name")
      .String(upload_.name);
  if (upload_.time != 0) {
    const std::string time = IsoTime(upload_.time);
    body.Key("fileSystemInfo").BeginObject().Key("@odata").BeginObject().Key("type").BeginObject();
    body.Key("lastModifiedDateTime").String(time).Key("lastAccessedDateTime").String(time);
    body.Key("createdDateTime").String(time).EndObject().EndObject().EndObject();
  }
  body.EndObject();
  json_tree json;
  Result result = RunRequest(
      &json, fileClient_.get(),
      [&](URLProcessor* http) {
        URLProcessor::Request request;
        request.verb = "POST";
        request.url = DispatcherUrl::FromString(url);
        request.body = body.Text();
        request.content_type = "application/json";
        if (!eTag.empty())
          request.headers.push_back("if-match: " + eTag);
        return http->Send(request);
      },
      URLResult::OK);
  upload_.sessionUrl = MemberText(json, "uploadUrl");
  std::int64_t expiry = 0;
  if (utils::TryParseISODateTime(MemberText(json, "expirationDateTime"), &expiry))
    upload_.sessionExpiry = expiry;
  if (result != SUCCEEDED || upload_.sessionUrl.empty()) {
    utils::json::Log(json, false);
    LOG_ERROR << "Create upload session failed, last response code:"
              << fileClient_->GetResponseCode() << ".";
    return result != SUCCEEDED ? result : FAILED;
  }
  LOG_INFO << "Created upload session.";
  upload_.hashCalculator.Begin();
  return SUCCEEDED;
}

void RemoteFileSystemOneDrive::SetFileHashToResumeInterruptedUpload(const SomeHash& hash) {
  // Known before the open, the hash lets this upload be stored; known later, the running one.
  if (fileMode != kSessionUpload || upload_.sessionUrl.empty()) {
    resumeHash_ = hash;
    return;
  }
  UploadSession session{upload_.expected,   upload_.fileSize,      upload_.confirmedOffset,
                        upload_.sessionUrl, upload_.sessionExpiry, upload_.eTag,
                        upload_.parentId,   upload_.prefix,        upload_.name,
                        upload_.time};
  sharedData()->sessions.StoreWithHash(transferPath_, hash, session, &SomeHash::GetHashOneDrive);
  upload_.expected = session.hash;
}

bool RemoteFileSystemOneDrive::TryResumeUpload(const std::string& path, const SomeHash& hash,
                                               std::uint64_t size) {
  // 1. A stored session of the same content and size, still alive by its expiry.
  UploadSession session;
  if (!sharedData()->sessions.TakeForResume(path, hash, size, &session))
    return false;
  if (session.sessionExpiry != 0 && utils::GetClock().NowMs() / 1000 >= session.sessionExpiry) {
    LOG_INFO << "Upload session for file \"" << path << "\" expired.";
    return false;
  }
  // 2. Its state, then where the service stands; a session the service lost leaves the new
  // upload as it was opened.
  const Upload opened = upload_;
  upload_.resumed = true;
  upload_.sessionUrl = session.sessionUrl;
  upload_.sessionExpiry = session.sessionExpiry;
  upload_.eTag = session.eTag;
  upload_.parentId = session.parentId;
  upload_.prefix = session.prefix;
  upload_.name = session.name;
  upload_.time = session.time;
  upload_.expected = session.hash;
  std::uint64_t offset = 0;
  if (GetNextExpectedRange(&offset) != SUCCEEDED || offset > size) {
    upload_ = opened;
    return false;
  }
  upload_.sentBytes = offset;
  upload_.confirmedOffset = offset;
  return true;
}

FileSystem::Result RemoteFileSystemOneDrive::GetNextExpectedRange(std::uint64_t* offset) {
  json_tree json;
  Result result = RunRequest(
      &json, fileClient_.get(),
      [this](URLProcessor* http) {
        URLProcessor::Request request;
        request.url = DispatcherUrl::FromString(upload_.sessionUrl);
        request.authorize = false;
        return http->Send(request);
      },
      URLResult::OK);
  if (result != SUCCEEDED) {
    if (result == STOPPED)
      LOG_INFO << "Stopped.";
    return result;
  }
  QJsonDocument document =
      QJsonDocument::fromJson(QByteArray::fromStdString(utils::json::ToString(json, false)));
  const QJsonArray ranges = document.object().value("nextExpectedRanges").toArray();
  const std::string first =
      ranges.isEmpty() ? std::string() : ranges.first().toString().toStdString();
  bool parsed = false;
  const std::uint64_t start =
      QString::fromStdString(first.substr(0, first.find('-'))).toULongLong(&parsed);
  if (!parsed) {
    LOG_ERROR << "No expected range in upload session status: "
              << utils::json::ToString(json, false);
    return FAILED;
  }
  *offset = start;
  RadarsLogger::instance().SendMetric("onedrive_upload_resumed", "1", 1);
  return SUCCEEDED;
}

void RemoteFileSystemOneDrive::KeepSessionForLater() {
  // Without the content's hash a later upload couldn't tell that it sends the same bytes.
  if (upload_.sessionUrl.empty() || upload_.expected.IsZero())
    return;
  sharedData()->sessions.Store(
      transferPath_, UploadSession{upload_.expected, upload_.fileSize, upload_.confirmedOffset,
                                   upload_.sessionUrl, upload_.sessionExpiry, upload_.eTag,
                                   upload_.parentId, upload_.prefix, upload_.name, upload_.time});
}

FileSystem::Result RemoteFileSystemOneDrive::BeginChunk(std::uint64_t size) {
  const std::uint64_t first = upload_.sentBytes;
  const std::uint64_t last = size == 0 ? 0 : first + size - 1;
  URLProcessor::Request request;
  request.verb = "PUT";
  request.url = DispatcherUrl::FromString(upload_.sessionUrl);
  request.authorize = false;  // the session URL carries its own rights
  request.headers.push_back("Content-Range: bytes " + std::to_string(first) + "-" +
                            std::to_string(last) + "/" + std::to_string(upload_.fileSize));
  upload_.responseBuffer.clear();
  upload_.chunkSize = size;
  upload_.chunkPosition = 0;
  upload_.chunkInFlight = true;
  if (!fileClient_->BeginUpload(request, size)) {
    upload_.chunkInFlight = false;
    fileMode = kIdle;
    KeepSessionForLater();
    const URLResult result = fileClient_->Finish();
    return result == URLResult::STOPPED ? STOPPED : GetHttpFailure(fileClient_.get(), result);
  }
  return SUCCEEDED;
}

FileSystem::Result RemoteFileSystemOneDrive::WriteFile(const std::uint8_t* data,
                                                       std::uint32_t size) {
  if (fileMode != kSessionUpload && fileMode != kPlainUpload)
    return FAILED;
  if (upload_.sentBytes + size > upload_.fileSize) {
    LOG_ERROR << "Write overflow; size=" << upload_.fileSize
              << ", actual_offset=" << upload_.sentBytes + size << ".";
    fileMode = kIdle;
    return FATAL;
  }
  while (size > 0) {
    if (!upload_.chunkInFlight) {
      Result result = BeginChunk(std::min(upload_.fileSize - upload_.sentBytes, kMaxChunk));
      if (result != SUCCEEDED)
        return result;
    }
    const std::uint32_t part = static_cast<std::uint32_t>(
        std::min<std::uint64_t>(size, upload_.chunkSize - upload_.chunkPosition));
    Result result = WriteChunkPart(data, part);
    if (result != SUCCEEDED)
      return result;
    data += part;
    size -= part;
  }
  return SUCCEEDED;
}

FileSystem::Result RemoteFileSystemOneDrive::WriteChunkPart(const std::uint8_t* data,
                                                            std::uint32_t size) {
  // 1. The bytes. The service may answer before it has them all, which ends the chunk; an answer
  // to the last bytes of it counts them as taken.
  OutputStream::Result written = fileClient_->GetOutputStream()->Write(data, size);
  const bool lastOfChunk = upload_.chunkPosition + size == upload_.chunkSize;
  URLResult result = URLResult::OK;
  if (written != OutputStream::Result::OK) {
    result = FinishChunk();
    const int code = fileClient_->GetResponseCode();
    if (!lastOfChunk || !URLProcessor::IsSuccessHttpCode(code)) {
      fileMode = kIdle;
      if (result == URLResult::STOPPED || IsStopped() || code == 0) {
        LOG_ERROR << "Writing for \"" << transferPath_ << "\" failed with result: " << result
                  << ", response: " << upload_.responseBuffer << ".";
        KeepSessionForLater();
        return result == URLResult::STOPPED || IsStopped()
                   ? STOPPED
                   : GetHttpFailure(fileClient_.get(), result);
      }
      return JudgeChunk(result);
    }
  }
  if (!upload_.resumed)
    upload_.hashCalculator.Feed(data, size);
  upload_.sentBytes += size;
  upload_.chunkPosition += size;
  if (!lastOfChunk)
    return SUCCEEDED;
  // 2. A full chunk: the service's verdict on it.
  if (upload_.chunkInFlight)
    result = FinishChunk();
  return JudgeChunk(result);
}

URLProcessor::Result RemoteFileSystemOneDrive::FinishChunk() {
  if (InputStream* stream = fileClient_->GetInputStream())
    stream->ReadAllTo(&upload_.responseBuffer, 4096);
  upload_.chunkInFlight = false;
  return fileClient_->Finish();
}

FileSystem::Result RemoteFileSystemOneDrive::JudgeChunk(URLResult result) {
  const int code = fileClient_->GetResponseCode();
  if (result == URLResult::STOPPED) {
    LOG_INFO << "Stopped.";
    fileMode = kIdle;
    KeepSessionForLater();
    return STOPPED;
  }
  const bool whole = upload_.chunkPosition == upload_.chunkSize;
  if (code == 202 && whole) {
    upload_.confirmedOffset = upload_.sentBytes;
    if (upload_.sentBytes < upload_.fileSize)
      return SUCCEEDED;
    // The service kept less than it was given: the stored session lets the next try send the rest
    // from where the service stands.
    LOG_ERROR << "Upload of \"" << transferPath_
              << "\" ended with the service expecting more: " << upload_.responseBuffer << ".";
    RadarsLogger::instance().SendMetric("onedrive_offset_error", "1", 1);
    fileMode = kIdle;
    KeepSessionForLater();
    return FAILED;
  }
  if (code == 200 || code == 201) {
    json_tree json;
    if (!utils::json::Parse(upload_.responseBuffer, &json)) {
      LOG_ERROR << "Failed to parse JSON from: " << upload_.responseBuffer;
      fileMode = kIdle;
      CancelUploadSession();
      return FAILED;
    }
    if (ChildNumber(json, "size") != upload_.fileSize || upload_.sentBytes != upload_.fileSize) {
      LOG_ERROR << "Size of written file is wrong, actual size is " << ChildNumber(json, "size")
                << "right size is " << upload_.fileSize << " " << upload_.responseBuffer;
      fileMode = kIdle;
      return FAILED;
    }
    return SUCCEEDED;
  }
  LOG_ERROR << "Writing failed: \"" << upload_.responseBuffer << "\", " << result << ".";
  if (code == 416)
    RadarsLogger::instance().SendMetric("onedrive_offset_error", "1", 1);
  fileMode = kIdle;
  const Result failure = GetHttpFailure(fileClient_.get(), result);
  // The session is kept at the offset the service names, which the next try starts from.
  std::uint64_t offset = 0;
  if (GetNextExpectedRange(&offset) == SUCCEEDED)
    upload_.confirmedOffset = offset;
  KeepSessionForLater();
  return failure;
}

void RemoteFileSystemOneDrive::CancelUploadSession() {
  if (upload_.sessionUrl.empty())
    return;
  Result result = RunRequest(
      nullptr, fileClient_.get(),
      [this](URLProcessor* http) {
        URLProcessor::Request request;
        request.verb = "DELETE";
        request.url = DispatcherUrl::FromString(upload_.sessionUrl);
        request.authorize = false;
        return http->Send(request);
      },
      URLResult::NO_CONTENT);
  if (result != SUCCEEDED)
    LOG_ERROR << "Can`t cancel upload session for file \"" << transferPath_ << "\".";
}

FileSystem::Result RemoteFileSystemOneDrive::CloseFile(FileProperties* props) {
  const FileMode mode = fileMode;
  if (fileMode != kClosed)
    fileMode = kIdle;
  switch (mode) {
    case kReading: {
      const URLResult result = fileClient_->Finish();
      if (result == URLResult::STOPPED)
        return STOPPED;
      return SUCCEEDED;
    }
    case kPlainUpload: {
      json_tree json;
      std::string error;
      bool parsed = utils::json::ReadAndParse(fileClient_->GetInputStream(), &json, &error);
      const URLResult result = fileClient_->Finish();
      if (result != URLResult::OK && result != URLResult::CREATED)
        return result == URLResult::STOPPED ? STOPPED : GetHttpFailure(fileClient_.get(), result);
      if (!parsed) {
        LOG_ERROR << "Can`t parse create file without session response: " << error;
        return FAILED;
      }
      return FinishFile(props, json);
    }
    case kSessionUpload: {
      json_tree json;
      if (upload_.chunkInFlight || upload_.sentBytes != upload_.fileSize ||
          !utils::json::Parse(upload_.responseBuffer, &json)) {
        LOG_ERROR << "Can`t parse upload session response: " << upload_.responseBuffer;
        if (upload_.chunkInFlight)
          fileClient_->Finish();
        CancelUploadSession();
        return FAILED;
      }
      return FinishFile(props, json);
    }
    default:
      return FAILED;
  }
}

FileSystem::Result RemoteFileSystemOneDrive::FinishFile(FileProperties* props, json_tree json) {
  // 1. The new item in the ids.
  const std::string id = MemberText(json, "id");
  if (id.empty()) {
    LOG_ERROR << "Empty id of created file \"" << transferPath_ << "\".";
    return FAILED;
  }
  {
    QMutexLocker locker(&sharedData()->idsMutex);
    RemoteFileIds& ids = sharedData()->ids;
    if (!ids.HasFile(id) && !ids.AddFileId(id, NameOf(transferPath_), upload_.parentId)) {
      LOG_ERROR << "Can`t add file to ids tree: file id =" << id << ", file name = \""
                << transferPath_ << "\", parent id=" << upload_.parentId;
    }
  }
  // 2. The content as the service computed it against ours.
  HashOneDrive remote = GraphDriveItem::ParseHash(json);
  // A resumed upload saw only its last bytes: the content's hash is the one it was stored with.
  HashOneDrive ours = upload_.fileSize == 0
                          ? SomeHash::EmptyFileHash(SomeHash::ONEDRIVE).GetHashOneDrive()
                      : upload_.resumed ? upload_.expected
                                        : upload_.hashCalculator.Finish().GetHashOneDrive();
  if (remote.quick_xor.IsZero()) {
    LOG_WARNING << "Hash of \"" << transferPath_
                << "\" is not comparable: " << remote.ToDisplayString();
  } else if (remote.quick_xor != ours.quick_xor) {
    LOG_ERROR << "Hashes for file :\"" << transferPath_
              << "\" are different, expected: " << ours.ToHexString()
              << ", got: " << remote.ToHexString() << ".";
    SetFailReasonValue(FAIL_REASON_HTTP);
    RadarsLogger::instance().SendMetric("one_drive_invalid_upload_hash", "1", 1);
    return FAILED;
  }
  expectedUploads_.Expect(ExpectedUpload{id, remote, remote.etag});
  // 3. The time, which gives the item a new eTag and a second echo.
  if (upload_.time != 0) {
    bool changed = false;
    if (PatchModifiedTime(id, upload_.time, &json, &changed) == SUCCEEDED) {
      if (changed) {
        remote = GraphDriveItem::ParseHash(json);
        expectedUploads_.Expect(ExpectedUpload{id, remote, remote.etag});
      }
    } else {
      LOG_ERROR << "Can`t update last modified time for file \"" << transferPath_ << "\".";
    }
  }
  if (props) {
    props->hash = SomeHash(remote);
    props->size = ChildNumber(json, "size");
  }
  return SUCCEEDED;
}

FileSystem::Result RemoteFileSystemOneDrive::PatchModifiedTime(const std::string& id,
                                                               std::uint64_t time, json_tree* json,
                                                               bool* changed) {
  *changed = false;
  std::int64_t current = 0;
  if (utils::TryParseISODateTime(ChildText(*json, "fileSystemInfo.lastModifiedDateTime"),
                                 &current) &&
      current == static_cast<std::int64_t>(time))
    return SUCCEEDED;
  utils::json::Writer body;
  body.BeginObject().Key("fileSystemInfo").BeginObject();
  body.Key("lastModifiedDateTime").String(IsoTime(time)).EndObject().EndObject();
  const std::string url = upload_.prefix + "/items/" + utils::PercentEncoded(id, false);
  for (int attempt = 1;; ++attempt) {
    // A failed answer is no item: the upload's answer stays.
    json_tree reply;
    Result result = PatchResource(url, body.Text(), {}, &reply);
    if (result == SUCCEEDED) {
      *json = std::move(reply);
      *changed = true;
      return SUCCEEDED;
    }
    if (result == STOPPED)
      return STOPPED;
    const int code = fileClient_->GetResponseCode();
    const bool again = attempt == 1 && code != 412;
    LOG_ERROR << "Can`t update last modified time \"" << transferPath_
              << "\", patch request failed: " << result << ", last response code: " << code
              << (again ? ", try once more..." : "");
    if (!again) {
      RadarsLogger::instance().SendMetric("onedrive_failed_patch_mtime", "1", 1);
      return result;
    }
  }
}

FileSystem::Result RemoteFileSystemOneDrive::InterruptFile() {
  if (!fileClient_)
    return FAILED;
  fileClient_->Stop();
  fileClient_->Finish();
  fileClient_->Start();
  if (fileMode == kSessionUpload)
    KeepSessionForLater();
  if (fileMode != kClosed)
    fileMode = kIdle;
  upload_.chunkInFlight = false;
  return SUCCEEDED;
}
