#include "services/RemoteFileSystemBoxRestApi.h"

#include <QString>

#include <algorithm>
#include <random>

#include "core/Clock.h"
#include "core/Endpoints.h"
#include "core/LoggerWrapper.h"
#include "core/Nodes.h"
#include "core/RadarsLogger.h"
#include "core/StringUtils.h"
#include "services/BoxTreeBuilder.h"
#include "services/MultiThreadWorker.h"

namespace rest_api {
namespace {

constexpr int kRequestTimeoutSec = 60;
constexpr int kMaxCommitTries = 10;
constexpr int kMaxCommitWaitSec = 60;
constexpr char kJsonType[] = "application/json";
constexpr char kLevelFields[] =
    "?fields=id,etag,type,name,sha1,content_modified_at,name,parent,shared_link,size&limit=7000&"
    "usemarker=true";
constexpr char kListingFields[] =
    "?fields=id,etag,type,name,sha1,content_modified_at,name,parent,size&limit=7000&usemarker=true";
// Box ignores "use_marker" and pages this lookup by offset; the walk follows whichever it gets.
constexpr char kRootLookupFields[] = "?fields=id,name,type,parent&direction=ASC&use_marker=true";

std::string Quoted(const std::string& text) {
  return "\"" + text + "\"";
}

std::string LastSegment(const std::string& path) {
  std::size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string ParentPath(const std::string& path) {
  std::size_t slash = path.rfind('/');
  return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

bool CheckPath(const std::string& path) {
  if (FileSystem::IsRelativeCanonicalPath(path))
    return true;
  LOG_ERROR << "Invalid path.";
  return false;
}

std::string Field(const BoxAnswer& answer, const std::string& path) {
  if (!answer.json)
    return std::string();
  auto child = utils::json::Child(*answer.json, path);
  return child && child->empty() && child->data() != "null" ? child->data() : std::string();
}

std::string RandomBoundary() {
  thread_local std::mt19937_64 generator(std::random_device{}());
  char text[40];
  std::snprintf(text, sizeof(text), "corvane-%016llx",
                static_cast<unsigned long long>(generator()));
  return text;
}

std::int64_t NowSec() {
  return utils::GetClock().NowMs() / 1000;
}

// An item of a listing enters the id tree, or moves there when it was known elsewhere.
void RecordListedItem(RemoteFileIds& ids, const BoxItem& item, const std::string& name) {
  const bool known = item.folder ? ids.HasFolder(item.id) : ids.HasFile(item.id);
  if (!known) {
    if (!(item.folder ? ids.AddFolderId(item.id, name, item.parent_id)
                      : ids.AddFileId(item.id, name, item.parent_id))) {
      LOG_WARNING << "Failed add item " << item.id << " in id tree.";
    }
    return;
  }
  const std::string old_name = ids.GetNameById(item.id);
  if (old_name == name && ids.GetParentId(item.id) == item.parent_id)
    return;
  if (item.folder ? !ids.MoveFolder(item.id, old_name, item.parent_id, name)
                  : !ids.MoveFileW(item.id, old_name, item.parent_id, name)) {
    LOG_WARNING << (item.folder ? "Failed to move folder \"" : "Failed to move file \"") << name
                << "\" in id tree.";
  }
}

}  // namespace

RemoteFileSystemBox::RemoteFileSystemBox(std::shared_ptr<RemoteFileSystemSharedData> shared_data,
                                         const std::string& remote_root_path)
    : RemoteFileSystemNoChangesSupport(std::move(shared_data), remote_root_path) {}

RemoteFileSystemBox::~RemoteFileSystemBox() = default;

RemoteFileSystemBoxSharedData& RemoteFileSystemBox::Shared() const {
  return *SharedDataAs<RemoteFileSystemBoxSharedData>();
}

std::string RemoteFileSystemBox::ApiUrl(const std::string& path) const {
  return api_base_ + path;
}

std::string RemoteFileSystemBox::UploadUrl(const std::string& path) const {
  return upload_base_ + path;
}

// --- connection ----------------------------------------------------------------------------

void RemoteFileSystemBox::Start() {
  pool_.StartAll();
  {
    std::lock_guard<std::mutex> lock(processors_mutex_);
    for (const auto& processor : {items_, content_}) {
      if (processor)
        processor->Start();
    }
  }
  RemoteFileSystem::Start();
}

void RemoteFileSystemBox::Stop() {
  RemoteFileSystem::Stop();
  pool_.StopAll();
  std::lock_guard<std::mutex> lock(processors_mutex_);
  for (const auto& processor : {items_, content_}) {
    if (processor)
      processor->Stop();
  }
}

bool RemoteFileSystemBox::Open(const std::shared_ptr<URLProcessorFactory>& factory) {
  api_base_ = Endpoints::Get(Endpoints::kBoxApi) + "/2.0/";
  upload_base_ = Endpoints::Get(Endpoints::kBoxUpload) + "/2.0/";
  pool_.SetFactory(factory);
  std::shared_ptr<URLProcessor> items = factory ? factory->Create() : nullptr;
  std::shared_ptr<URLProcessor> content = factory ? factory->Create() : nullptr;
  if (!items || !content || !items->Open(nullptr) || !content->Open(nullptr)) {
    LOG_ERROR << "Failed to open http client.";
    return false;
  }
  items->SetTimeoutSec(kRequestTimeoutSec);
  content->SetTimeoutSec(kRequestTimeoutSec);
  {
    std::lock_guard<std::mutex> lock(processors_mutex_);
    items_ = std::move(items);
    content_ = std::move(content);
    if (IsStopped()) {
      items_->Stop();
      content_->Stop();
    }
  }
  mode_ = Mode::kIdle;
  return true;
}

FileSystem::Result RemoteFileSystemBox::Close() {
  pool_.CloseAll();
  if (items_)
    items_->Close();
  if (content_)
    content_->Close();
  mode_ = Mode::kClosed;
  return SUCCEEDED;
}

BoxAnswer RemoteFileSystemBox::Request(const std::string& verb, const std::string& url,
                                       const std::string& body, std::vector<std::string> headers) {
  URLProcessor::Request request;
  request.verb = verb;
  request.url = DispatcherUrl::FromString(url);
  request.headers = std::move(headers);
  if (!body.empty()) {
    request.body = body;
    request.content_type = kJsonType;
  }
  BoxAnswer answer = SendThroughGate(*items_, request, &gate_, &stop_flag_);
  SetFailReason(answer.transfer, answer.code);
  return answer;
}

FileSystem::Result RemoteFileSystemBox::Settle(const BoxAnswer& answer) {
  return GetResultFromBoxAnswer(answer);
}

// --- account -------------------------------------------------------------------------------

FileSystem::Result RemoteFileSystemBox::ReadUser(const char* fields, BoxAnswer* answer) {
  if (!items_) {
    LOG_ERROR << "Http client not exists";
    return FATAL;
  }
  *answer = Request("GET", ApiUrl(std::string("users/me?fields=") + fields), std::string());
  return Settle(*answer);
}

FileSystem::Result RemoteFileSystemBox::CheckConnection() {
  BoxAnswer answer;
  return ReadUser("max_upload_size", &answer);
}

FileSystem::Result RemoteFileSystemBox::GetCloudSize(std::uint64_t* total, std::uint64_t* used) {
  BoxAnswer answer;
  Result result = ReadUser("space_amount,space_used,max_upload_size", &answer);
  if (result != SUCCEEDED)
    return result;
  std::uint64_t max_upload = 0;
  if (!ParseBoxNumber(Field(answer, "space_amount"), total) ||
      !ParseBoxNumber(Field(answer, "space_used"), used)) {
    LOG_ERROR << "Failed to read the quota of the account.";
    return FAILED;
  }
  Shared().total_quota.store(*total);
  snapshot_progress_.expected_bytes = *used;
  if (!max_file_size_known_ && ParseBoxNumber(Field(answer, "max_upload_size"), &max_upload)) {
    max_file_size_.store(max_upload);
    max_file_size_known_ = true;
  }
  return SUCCEEDED;
}

FileSystem::Result RemoteFileSystemBox::UpdateMaxFileSize() {
  BoxAnswer answer;
  Result result = ReadUser("max_upload_size", &answer);
  std::uint64_t max_upload = 0;
  if (result == SUCCEEDED && ParseBoxNumber(Field(answer, "max_upload_size"), &max_upload)) {
    max_file_size_.store(max_upload);
    max_file_size_known_ = true;
  }
  return result;
}

double RemoteFileSystemBox::GetFirstSnapshotProgress() {
  return GetPercentCompleteGettingFirstSnapshot(snapshot_progress_);
}

FileSystem::Result RemoteFileSystemBox::GetPublicLink(const std::string&, bool, std::string*) {
  return FAILED;
}

FileSystem::Result RemoteFileSystemBox::ClosePublicLink(const std::string&) {
  return FAILED;
}

// --- tree ----------------------------------------------------------------------------------

FileSystem::Result RemoteFileSystemBox::FindRemoteRoot(std::string* root_id) {
  *root_id = "0";
  const QStringList components =
      QString::fromStdString(GetRemoteRootPath()).split(QRegExp("[/\\\\]"), Qt::SkipEmptyParts);
  if (components.isEmpty()) {
    LOG_INFO << "No backup root path is set.";
    return SUCCEEDED;
  }
  for (const QString& component : components) {
    std::string wanted = component.toStdString();
    MapNameToRemote(&wanted);
    const std::string wanted_key = ToLower(wanted);
    std::string found;
    Result result =
        ForEachItemsPage(*items_, ApiUrl("folders/" + *root_id + "/items" + kRootLookupFields),
                         &gate_, &stop_flag_, [&](const BoxItemsPage& page) {
                           for (const BoxItem& item : page.items) {
                             if (item.folder && ToLower(item.name) == wanted_key) {
                               found = item.id;
                               return false;
                             }
                           }
                           return true;
                         });
    if (result != SUCCEEDED)
      return result;
    if (found.empty()) {
      LOG_ERROR << "Remote root folder not found: " << Quoted(wanted) << " of "
                << Quoted(GetRemoteRootPath()) << ".";
      return ITEM_MISSED;
    }
    *root_id = found;
  }
  return SUCCEEDED;
}

FileSystem::Result RemoteFileSystemBox::GetFullTree(FolderNode* root, std::uint64_t* free,
                                                    std::uint64_t* total, tsl::htrie_set<char>*) {
  // 1. The quota, then the remote root.
  root->Clear();
  snapshot_progress_.seen_bytes = 0;
  std::uint64_t cloud_total = 0;
  std::uint64_t cloud_used = 0;
  Result result = GetCloudSize(&cloud_total, &cloud_used);
  if (result != SUCCEEDED) {
    LOG_WARNING << "Failed get cloud sizes.";
    return result;
  }
  std::string root_id;
  result = FindRemoteRoot(&root_id);
  if (result != SUCCEEDED) {
    LOG_WARNING << "Failed get full tree: " << result;
    return result;
  }
  // 2. The tree is built aside and replaces the account's only when whole.
  RemoteFileIds ids;
  ids.Init(root_id);
  BoxTreeBuilder builder(root, &ids, root_id, [this](const std::string& remote) {
    std::string local = remote;
    UnmapNameToLocal(&local);
    return local;
  });
  RateLimitGate download_gate(true);
  auto fetch = [this, &download_gate](const std::string& url) {
    MultiThreadWorker::RequestResult out;
    out.pages = std::make_shared<std::vector<BoxItemsPage>>();
    std::shared_ptr<URLProcessor> client = IsStopped() ? nullptr : pool_.Take();
    if (!client) {
      out.result = IsStopped() ? STOPPED : FAILED;
      return out;
    }
    out.result = ForEachItemsPage(*client, url, &download_gate, &stop_flag_,
                                  [&out](const BoxItemsPage& page) {
                                    out.pages->push_back(page);
                                    return true;
                                  });
    pool_.Give(std::move(client));
    return out;
  };
  auto level_url = [this](const std::string& id) {
    return ApiUrl("folders/" + id + "/items" + kLevelFields);
  };
  // 3. The root's level on this thread, then each level on the pool.
  MultiThreadWorker worker(fetch);
  QList<MultiThreadWorker::RequestResult> results{fetch(level_url(root_id))};
  while (result == SUCCEEDED && !results.isEmpty()) {
    std::vector<std::string> next;
    for (const MultiThreadWorker::RequestResult& one : results) {
      if (one.result != SUCCEEDED) {
        result = one.result;
        break;
      }
      for (const BoxItemsPage& page : *one.pages)
        snapshot_progress_.AddSeenBytes(builder.AddPage(page, &next));
    }
    QList<std::string> urls;
    for (const std::string& id : next)
      urls.push_back(level_url(id));
    worker.SetUrls(urls);
    results = result == SUCCEEDED && !urls.isEmpty() ? worker.MakeRequests()
                                                     : QList<MultiThreadWorker::RequestResult>();
  }
  if (result == SUCCEEDED && IsStopped())
    result = STOPPED;
  if (result != SUCCEEDED) {
    LOG_WARNING << "Failed get full tree, result:" << result;
    root->Clear();
    return result;
  }
  // 4. The account's id tree and sizes.
  Shared().ids.Swap(ids);
  *total = cloud_total;
  *free = cloud_total > cloud_used ? cloud_total - cloud_used : 0;
  return SUCCEEDED;
}

FileSystem::Result RemoteFileSystemBox::GetFolderListing(const std::string& path,
                                                         FolderListing* listing) {
  RemoteFileIds& ids = Shared().ids;
  const std::string id = ids.GetFolderIdByPath(path);
  if (id.empty()) {
    LOG_WARNING << "Empty folder id for " << Quoted(path) << ".";
    return ITEM_MISSED;
  }
  Result result =
      ForEachItemsPage(*items_, ApiUrl("folders/" + id + "/items" + kListingFields), &gate_,
                       &stop_flag_, [&](const BoxItemsPage& page) {
                         if (page.entries == 0)
                           LOG_INFO << "Empty entries list in folder listing response.";
                         for (const BoxItem& item : page.items) {
                           std::string name = item.name;
                           UnmapNameToLocal(&name);
                           if (item.folder) {
                             listing->folders.push_back(name);
                           } else {
                             listing->files.emplace_back(
                                 name, FileProperties(SomeHash(HashBox{item.sha1, item.etag}), 0,
                                                      item.size, item.time, false));
                           }
                           RecordListedItem(ids, item, name);
                         }
                         return true;
                       });
  if (result != SUCCEEDED) {
    LOG_WARNING << "Failed to fill listing for folder " << Quoted(path) << ".";
    return result;
  }
  LOG_INFO << "Get folder listing for " << Quoted(path) << " success.";
  return SUCCEEDED;
}

// --- item operations -------------------------------------------------------------------------

FileSystem::Result RemoteFileSystemBox::CreateFolderImpl(const OverwriteControl&,
                                                         const std::string& path) {
  // 1. The parent and the request.
  if (!CheckPath(path))
    return FAILED;
  RemoteFileIds& ids = Shared().ids;
  const std::string parent_id = ids.GetFolderIdByPath(ParentPath(path));
  if (parent_id.empty()) {
    LOG_WARNING << "No id for " << path;
    return ITEM_MISSED;
  }
  std::string name = LastSegment(path);
  MapNameToRemote(&name);
  BoxAnswer answer =
      Request("POST", ApiUrl("folders?fields=name,id"), NameAndParentJson(name, parent_id));
  Result result = Settle(answer);
  if (result != SUCCEEDED) {
    LOG_WARNING << "Failed create folder: " << path;
    return result;
  }
  // 2. The new id.
  const std::string id = Field(answer, "id");
  if (id.empty() || Field(answer, "name").empty()) {
    LOG_ERROR << "No required param as name or id in response.";
    return FAILED;
  }
  if (!ids.AddFolderId(id, LastSegment(path), parent_id))
    LOG_ERROR << "Failed add folder id to id tree for " << path;
  return SUCCEEDED;
}

FileSystem::Result RemoteFileSystemBox::DeleteFileImpl(const OverwriteControl& control,
                                                       const std::string& path, std::uint64_t,
                                                       std::uint64_t) {
  LOG_INFO << "Deleting " << Quoted(path) << "...";
  if (!CheckPath(path))
    return FAILED;
  RemoteFileIds& ids = Shared().ids;
  const std::string id = ids.GetFileIdByPath(path);
  if (id.empty()) {
    LOG_WARNING << "No id for file " << Quoted(path) << " is found.";
    return ITEM_MISSED;
  }
  std::vector<std::string> headers;
  const std::string etag = control.hash.GetHashBox().etag;
  if (!etag.empty())
    headers.push_back("if-match: " + etag);
  BoxAnswer answer = Request("DELETE", ApiUrl("files/" + id), std::string(), headers);
  Result result = Settle(answer);
  if (result != SUCCEEDED) {
    if (!answer.empty_body && !answer.json)
      LOG_WARNING << "Failed parse JSON.";
    return result;
  }
  if (!ids.RemoveFile(LastSegment(path), id)) {
    LOG_ERROR << "Failed delete id of " << path << " from id tree.";
  } else {
    LOG_INFO << Quoted(path) << " successfully deleted.";
  }
  return SUCCEEDED;
}

FileSystem::Result RemoteFileSystemBox::DeleteFolderImpl(const FolderNode&, const Revision&,
                                                         const std::string& path) {
  LOG_INFO << "Deleting " << Quoted(path) << "...";
  if (!CheckPath(path))
    return FAILED;
  RemoteFileIds& ids = Shared().ids;
  const std::string id = ids.GetFolderIdByPath(path);
  if (id.empty()) {
    LOG_WARNING << "No id for folder " << Quoted(path) << " is found.";
    return ITEM_MISSED;
  }
  BoxAnswer answer = Request("DELETE", ApiUrl("folders/" + id + "?recursive=true"), std::string());
  Result result = Settle(answer);
  if (result != SUCCEEDED) {
    if (!answer.empty_body && !answer.json)
      LOG_WARNING << "Failed parse JSON.";
    return result;
  }
  if (!ids.RemoveFolder(LastSegment(path), id)) {
    LOG_ERROR << "Failed delete id of " << path << " from id tree.";
  } else {
    LOG_INFO << Quoted(path) << " successfully deleted.";
  }
  return SUCCEEDED;
}

FileSystem::Result RemoteFileSystemBox::UpdateItem(bool folder, const std::string& from,
                                                   const std::string& to,
                                                   const std::string& if_match, BoxAnswer* answer) {
  // 1. Both ids, known before any request.
  LOG_INFO << "Renaming " << Quoted(from) << " to " << Quoted(to) << "...";
  if (!CheckPath(from) || !CheckPath(to))
    return FAILED;
  RemoteFileIds& ids = Shared().ids;
  const std::string id = folder ? ids.GetFolderIdByPath(from) : ids.GetFileIdByPath(from);
  if (id.empty()) {
    LOG_WARNING << (folder ? "No id for folder " : "No id for file ") << Quoted(from)
                << " is found.";
    return ITEM_MISSED;
  }
  const std::string parent_id = ids.GetFolderIdByPath(ParentPath(to));
  if (parent_id.empty()) {
    LOG_WARNING << "No id for " << to;
    return ITEM_MISSED;
  }
  // 2. The move and rename in one request.
  std::vector<std::string> headers;
  if (!if_match.empty())
    headers.push_back("if-match: " + if_match);
  std::string name = LastSegment(to);
  MapNameToRemote(&name);
  *answer = Request("PUT", ApiUrl((folder ? "folders/" : "files/") + id),
                    NameAndParentJson(name, parent_id), headers);
  Result result = Settle(*answer);
  if (result != SUCCEEDED) {
    LOG_WARNING << "Failed rename " << Quoted(from);
    return result;
  }
  // 3. The id tree follows.
  const bool moved = folder ? ids.MoveFolder(id, LastSegment(from), parent_id, LastSegment(to))
                            : ids.MoveFileW(id, LastSegment(from), parent_id, LastSegment(to));
  if (!moved)
    LOG_ERROR << "Failed to rename " << from << " to " << to << " in file id tree.";
  LOG_INFO << "Renamed " << Quoted(from) << " to " << Quoted(to) << ".";
  return SUCCEEDED;
}

FileSystem::Result RemoteFileSystemBox::RenameFileImpl(const FileNode&,
                                                       const OverwriteControl& from_control,
                                                       const std::string& from,
                                                       const OverwriteControl&,
                                                       const std::string& to, SomeHash* hash) {
  BoxAnswer answer;
  Result result = UpdateItem(false, from, to, from_control.hash.GetHashBox().etag, &answer);
  if (result == SUCCEEDED && hash)
    *hash = SomeHash(HashBox{Field(answer, "sha1"), Field(answer, "etag")});
  return result;
}

FileSystem::Result RemoteFileSystemBox::MoveFileImpl(const FileNode& file,
                                                     const OverwriteControl& from_control,
                                                     const std::string& from,
                                                     const OverwriteControl& to_control,
                                                     const std::string& to) {
  SomeHash hash;
  return RenameFileImpl(file, from_control, from, to_control, to, &hash);
}

FileSystem::Result RemoteFileSystemBox::MoveFolderImpl(const FolderNode&, const OverwriteControl&,
                                                       const std::string& from,
                                                       const OverwriteControl&,
                                                       const std::string& to) {
  BoxAnswer answer;
  return UpdateItem(true, from, to, std::string(), &answer);
}

// --- reading ---------------------------------------------------------------------------------

FileSystem::Result RemoteFileSystemBox::OpenForRead(const std::string& path, std::uint64_t offset,
                                                    std::uint64_t limit, std::uint64_t size,
                                                    const SomeHash& hash) {
  // 1. The file's id and the range.
  LOG_INFO << "Reading remote file " << Quoted(path) << ", offset: " << offset
           << ", limit: " << limit << ".";
  if (mode_ != Mode::kIdle) {
    LOG_ERROR << "A file is open already.";
    return FAILED;
  }
  if (!CheckPath(path))
    return FAILED;
  const std::string id = Shared().ids.GetFileIdByPath(path);
  if (id.empty()) {
    LOG_WARNING << "No such file " << Quoted(path) << " in file ids tree.";
    return ITEM_MISSED;
  }
  URLProcessor::Request request;
  request.url = DispatcherUrl::FromString(ApiUrl("files/" + id + "/content"));
  read_whole_ = offset == 0 && (limit == size || limit == 0);
  if (offset < limit && !read_whole_)
    request.range = URLProcessor::Range{offset, limit - 1};
  // 2. The head decides; the redirect to the download URL is followed.
  const bool sent = content_->Send(request);
  const int code = content_->GetResponseCode();
  if (sent && (code == 200 || code == 206)) {
    read_offset_ = offset;
    read_expected_ = hash;
    read_complete_ = false;
    read_hash_.Begin();
    mode_ = Mode::kReading;
    return SUCCEEDED;
  }
  BoxAnswer answer = ReadAnswer(*content_, sent);
  SetFailReason(answer.transfer, answer.code);
  RadarsLogger::instance().SendIfNetworkError(answer.transfer, "remote_box", answer.code,
                                              content_->GetUrl());
  return Settle(answer) == SUCCEEDED ? FAILED : Settle(answer);
}

FileSystem::Result RemoteFileSystemBox::ReadFile(std::uint8_t* buffer, std::uint32_t size,
                                                 std::uint32_t* done) {
  *done = 0;
  if (mode_ != Mode::kReading) {
    LOG_INFO << "Connection is closed, can't read anymore.";
    SetFailReasonValue(FAIL_REASON_NETWORK);
    return FAILED;
  }
  const InputStream::Result read = content_->GetInputStream()->Read(buffer, size, done);
  if (read == InputStream::Result::OK) {
    if (read_whole_)
      read_hash_.Feed(buffer, *done);
    return SUCCEEDED;
  }
  if (read == InputStream::Result::END) {
    read_complete_ = true;
    return SUCCEEDED;
  }
  // The transfer broke off.
  mode_ = Mode::kIdle;
  const URLProcessor::Result result = content_->Finish();
  const int code = content_->GetResponseCode();
  SetFailReason(result, code);
  RadarsLogger::instance().SendIfNetworkError(result, "remote_box", code, content_->GetUrl());
  LOG_INFO << "Connection is closed, can't read anymore.";
  return result == URLProcessor::Result::STOPPED ? STOPPED : FAILED;
}

FileSystem::Result RemoteFileSystemBox::FinishRead() {
  const URLProcessor::Result result = content_->Finish();
  const int code = content_->GetResponseCode();
  SetFailReason(result, code);
  if (result == URLProcessor::Result::STOPPED)
    return STOPPED;
  if (IsNetworkErrorResult(result)) {
    RadarsLogger::instance().SendIfNetworkError(result, "remote_box", code, content_->GetUrl());
    return FAILED;
  }
  const std::string expected = read_expected_.GetHashBox().sha1;
  if (read_whole_ && read_complete_ && !expected.empty()) {
    const std::string got = read_hash_.Finish().GetHashBox().sha1;
    if (got != expected) {
      LOG_ERROR << "Invalid content received, expected " << expected << ",  got " << got;
      RadarsLogger::instance().SendMetric("box_remote_invalid_hash", "1", 1);
      return FAILED;
    }
  }
  return SUCCEEDED;
}

// --- uploading -------------------------------------------------------------------------------

void RemoteFileSystemBox::SetFileHashToResumeInterruptedUpload(const SomeHash& hash) {
  pending_hash_ = hash;
}

FileSystem::Result RemoteFileSystemBox::OpenForCreate(const OverwriteControl&,
                                                      const std::string& path, const SomeHash& hash,
                                                      std::uint64_t size, std::uint64_t time,
                                                      std::uint64_t* resume_offset, bool) {
  return OpenUpload(path, std::string(), std::string(), hash, size, time, resume_offset);
}

FileSystem::Result RemoteFileSystemBox::OpenForRewrite(const OverwriteControl& control,
                                                       const std::string& path,
                                                       const SomeHash& hash, std::uint64_t size,
                                                       std::uint64_t time,
                                                       std::uint64_t* resume_offset) {
  const std::string id = Shared().ids.GetFileIdByPath(path);
  if (id.empty()) {
    LOG_WARNING << "Empty file id for " << path;
    return ITEM_MISSED;
  }
  return OpenUpload(path, id, control.hash.GetHashBox().etag, hash, size, time, resume_offset);
}

FileSystem::Result RemoteFileSystemBox::OpenUpload(
    const std::string& path, const std::string& target_id, const std::string& if_match,
    const SomeHash& hash, std::uint64_t size, std::uint64_t time, std::uint64_t* resume_offset) {
  // 1. State, path and the parent's id.
  LOG_INFO << "Start uploading for " << Quoted(path) << ", size=" << size << ".";
  *resume_offset = 0;
  if (mode_ != Mode::kIdle) {
    LOG_ERROR << "A file is open already.";
    return FAILED;
  }
  if (!CheckPath(path))
    return FAILED;
  upload_ = Upload();
  upload_.path = path;
  upload_.name = LastSegment(path);
  MapNameToRemote(&upload_.name);
  upload_.target_id = target_id;
  upload_.if_match = if_match;
  upload_.hash = hash.IsEmpty() ? pending_hash_ : hash;
  pending_hash_ = SomeHash();
  upload_.size = size;
  upload_.time = time;
  upload_.running.Begin();
  if (target_id.empty()) {
    upload_.parent_id = Shared().ids.GetFolderIdByPath(ParentPath(path));
    if (upload_.parent_id.empty()) {
      LOG_WARNING << "No id for " << path;
      return ITEM_MISSED;
    }
  }
  // 2. The limit, then one request or a session.
  if (size > GetMaxFileSize()) {
    LOG_WARNING << "File is too big, size = " << size;
    return TOO_LARGE;
  }
  const bool plain = size < kSessionUploadFrom;
  Result result = plain ? BeginPlainUpload() : ResumeOrCreateSession(resume_offset);
  if (result == SUCCEEDED) {
    upload_.start = upload_.written = *resume_offset;
    mode_ = plain ? Mode::kWritingPlain : Mode::kWritingSession;
  }
  return result;
}

std::string RemoteFileSystemBox::UploadAttributes(bool for_form) const {
  std::string members;
  if (for_form) {
    members += "\"name\":" + JsonQuoted(upload_.name);
    if (upload_.target_id.empty())
      members += ",\"parent\":{\"id\":" + JsonQuoted(upload_.parent_id) + "}";
  }
  if (upload_.time > 0) {
    const std::string time = JsonQuoted(BoxTimeText(upload_.time));
    if (upload_.target_id.empty())
      members += std::string(members.empty() ? "" : ",") + "\"content_created_at\":" + time;
    members += std::string(members.empty() ? "" : ",") + "\"content_modified_at\":" + time;
  }
  return "{" + members + "}";
}

FileSystem::Result RemoteFileSystemBox::BeginPlainUpload() {
  // The form streams: attributes first, then the file's bytes as the core writes them.
  const std::string boundary = RandomBoundary();
  const std::string head = "--" + boundary +
                           "\r\nContent-Disposition: form-data; name=\"attributes\"\r\n\r\n" +
                           UploadAttributes(true) + "\r\n--" + boundary +
                           "\r\nContent-Disposition: form-data; name=\"file\"; filename=\"file\""
                           "\r\nContent-Type: application/octet-stream\r\n\r\n";
  upload_.multipart_tail = "\r\n--" + boundary + "--\r\n";
  URLProcessor::Request request;
  request.verb = "POST";
  request.url = DispatcherUrl::FromString(
      upload_.target_id.empty() ? UploadUrl("files/content")
                                : UploadUrl("files/" + upload_.target_id + "/content"));
  request.content_type = "multipart/form-data; boundary=" + boundary;
  if (!upload_.if_match.empty())
    request.headers.push_back("if-match: " + upload_.if_match);
  const std::uint64_t length = head.size() + upload_.size + upload_.multipart_tail.size();
  if (content_->BeginUpload(request, length)) {
    const OutputStream::Result written =
        content_->GetOutputStream()->Write(reinterpret_cast<const std::uint8_t*>(head.data()),
                                           static_cast<std::uint32_t>(head.size()));
    if (written == OutputStream::Result::OK)
      return SUCCEEDED;
  }
  BoxAnswer answer = ReadAnswer(*content_, content_->GetResponseCode() != 0);
  SetFailReason(answer.transfer, answer.code);
  const Result result = Settle(answer);
  return result == SUCCEEDED ? FAILED : result;
}

FileSystem::Result RemoteFileSystemBox::ResumeOrCreateSession(std::uint64_t* resume_offset) {
  BoxUploadSession stored;
  if (Shared().sessions.TakeForResume(upload_.path, upload_.hash, upload_.size, &stored)) {
    if (stored.target_id != upload_.target_id) {
      LOG_INFO << "Upload session of " << Quoted(upload_.path) << " was for another file.";
    } else if (static_cast<std::int64_t>(stored.expires_at) <= NowSec()) {
      LOG_INFO << "Upload session for file " << Quoted(upload_.path) << " expired.";
    } else if (ResumeSession(&stored, resume_offset)) {
      upload_.session = stored;
      upload_.part.reserve(stored.part_size);
      return SUCCEEDED;
    } else if (IsStopped()) {
      return STOPPED;
    }
  }
  return CreateSession();
}

bool RemoteFileSystemBox::ResumeSession(BoxUploadSession* session, std::uint64_t* resume_offset) {
  // 1. What the server holds of the session.
  BoxAnswer answer =
      Request("GET", UploadUrl("files/upload_sessions/" + session->id + "/parts"), std::string());
  std::vector<BoxUploadPart> parts;
  if (Settle(answer) != SUCCEEDED || !answer.json || !ParsePartsList(*answer.json, &parts)) {
    LOG_WARNING << "Upload session of " << Quoted(upload_.path) << " can't be resumed.";
    return false;
  }
  if (parts.empty())
    LOG_INFO << "Empty parts list, upload from the beggining.";
  // 2. The parts that follow each other from the start, each of the session's part size.
  std::vector<BoxUploadPart> kept;
  ContiguousBytes(parts, &kept);
  std::uint64_t reached = 0;
  std::size_t whole = 0;
  for (const BoxUploadPart& part : kept) {
    if (part.size != session->part_size && reached + part.size != session->size)
      break;
    reached += part.size;
    ++whole;
  }
  kept.resize(whole);
  session->parts = kept;
  *resume_offset = reached;
  return true;
}

FileSystem::Result RemoteFileSystemBox::CreateSession() {
  const std::string size = std::to_string(upload_.size);
  const bool fresh_file = upload_.target_id.empty();
  const std::string url = fresh_file ? UploadUrl("files/upload_sessions")
                                     : UploadUrl("files/" + upload_.target_id + "/upload_sessions");
  const std::string body = fresh_file ? "{\"folder_id\": " + JsonQuoted(upload_.parent_id) +
                                            ",\"file_size\": " + size +
                                            ",\"file_name\": " + JsonQuoted(upload_.name) + "}"
                                      : "{\"file_size\": " + size + "}";
  BoxAnswer answer = Request("POST", url, body);
  Result result = Settle(answer);
  if (result != SUCCEEDED) {
    LOG_WARNING << "Failed to create upload session for " << Quoted(upload_.path) << ".";
    return result;
  }
  BoxUploadSession session;
  if (!answer.json || !ParseUploadSession(*answer.json, &session)) {
    LOG_ERROR << "Invalid upload session params.";
    return FAILED;
  }
  session.target_id = upload_.target_id;
  upload_.session = session;
  upload_.part.reserve(session.part_size);
  return SUCCEEDED;
}

FileSystem::Result RemoteFileSystemBox::WriteFile(const std::uint8_t* data, std::uint32_t size) {
  // 1. An open upload, and no more than announced.
  if (mode_ != Mode::kWritingPlain && mode_ != Mode::kWritingSession) {
    LOG_ERROR << "No upload is open.";
    return FAILED;
  }
  if (upload_.written + size > upload_.size) {
    LOG_ERROR << "Write overflow; size=" << upload_.size
              << ", actual_offset=" << upload_.written + size;
    return FAILED;
  }
  // 2. The plain upload streams on; a session fills parts and sends each full one.
  if (mode_ == Mode::kWritingPlain) {
    const OutputStream::Result written = content_->GetOutputStream()->Write(data, size);
    if (written != OutputStream::Result::OK && written != OutputStream::Result::END) {
      mode_ = Mode::kIdle;
      BoxAnswer answer = ReadAnswer(*content_, content_->GetResponseCode() != 0);
      SetFailReason(answer.transfer, answer.code);
      const Result result = Settle(answer);
      return result == SUCCEEDED ? FAILED : result;
    }
    upload_.running.Feed(data, size);
    upload_.written += size;
    return SUCCEEDED;
  }
  while (size > 0) {
    const std::uint32_t room = static_cast<std::uint32_t>(
        std::min<std::uint64_t>(size, upload_.session.part_size - upload_.part.size()));
    upload_.part.insert(upload_.part.end(), data, data + room);
    upload_.running.Feed(data, room);
    upload_.written += room;
    data += room;
    size -= room;
    if (upload_.part.size() == upload_.session.part_size) {
      Result result = SendPart();
      if (result != SUCCEEDED)
        return result;
    }
  }
  return SUCCEEDED;
}

FileSystem::Result RemoteFileSystemBox::SendPart() {
  // 1. The part with its digest and range.
  const std::uint64_t first = upload_.written - upload_.part.size();
  HashCalculatorBox part_hash;
  part_hash.Begin();
  part_hash.Feed(upload_.part.data(), static_cast<std::uint32_t>(upload_.part.size()));
  URLProcessor::Request request;
  request.verb = "PUT";
  request.url = DispatcherUrl::FromString(upload_.session.upload_part_url);
  request.content_type = "application/octet-stream";
  request.headers = {"Digest: sha=" + DigestOfHexSha1(part_hash.Finish().GetHashBox().sha1),
                     "Content-Range: bytes " + std::to_string(first) + "-" +
                         std::to_string(first + upload_.part.size() - 1) + "/" +
                         std::to_string(upload_.size)};
  if (gate_.PauseIfLimited(&stop_flag_)) {
    KeepSessionForLater();
    return STOPPED;
  }
  BoxAnswer answer = SendJsonUpload(*content_, request, upload_.part.data(), upload_.part.size());
  SetFailReason(answer.transfer, answer.code);
  if (answer.code == 429)
    gate_.Raise();
  // 2. The part joins the session's list; a failure keeps the session for a later try.
  BoxUploadPart part;
  Result result = Settle(answer);
  if (result == SUCCEEDED &&
      (!CheckUploadedPart(answer) || !answer.json || !ParseUploadedPart(*answer.json, &part))) {
    LOG_ERROR << "Failed parse answer: " << upload_.session.upload_part_url;
    result = FAILED;
  }
  if (result != SUCCEEDED) {
    LOG_WARNING << "Failed upload part of file.";
    mode_ = Mode::kIdle;
    if (answer.code == 404) {
      LOG_WARNING << "Upload session of " << Quoted(upload_.path) << " is gone.";
    } else {
      KeepSessionForLater();
    }
    return result == CONFLICT && answer.code == 404 ? FAILED : result;
  }
  upload_.session.parts.push_back(part);
  upload_.part.clear();
  return SUCCEEDED;
}

void RemoteFileSystemBox::KeepSessionForLater() {
  BoxUploadSession& session = upload_.session;
  session.hash = upload_.hash.GetHashBox();
  session.size = upload_.size;
  session.offset = 0;
  for (const BoxUploadPart& part : session.parts)
    session.offset += part.size;
  Shared().sessions.Store(upload_.path, session);
}

FileSystem::Result RemoteFileSystemBox::CloseFile(FileProperties* props) {
  const Mode mode = mode_;
  if (mode == Mode::kReading) {
    mode_ = Mode::kIdle;
    return FinishRead();
  }
  if (mode != Mode::kWritingPlain && mode != Mode::kWritingSession)
    return FAILED;
  mode_ = Mode::kIdle;
  // 1. An upload cut short: a session waits in the store for the next try.
  if (upload_.written < upload_.size) {
    LOG_WARNING << "File upload was interrupted.";
    LOG_WARNING << "Write incorrect size, wrote " << upload_.written << ", expected "
                << upload_.size << ".";
    if (mode == Mode::kWritingSession) {
      KeepSessionForLater();
    } else {
      content_->Stop();
      content_->Finish();
      content_->Start();
    }
    return FAILED;
  }
  // 2. The end of the form, or the last part and the commit.
  if (mode == Mode::kWritingPlain)
    return FinishPlainUpload(props);
  if (!upload_.part.empty()) {
    Result result = SendPart();
    if (result != SUCCEEDED)
      return result;
  }
  return CommitSession(props);
}

FileSystem::Result RemoteFileSystemBox::FinishPlainUpload(FileProperties* props) {
  const std::string& tail = upload_.multipart_tail;
  const OutputStream::Result written = content_->GetOutputStream()->Write(
      reinterpret_cast<const std::uint8_t*>(tail.data()), static_cast<std::uint32_t>(tail.size()));
  BoxAnswer answer = ReadAnswer(*content_, written == OutputStream::Result::OK ||
                                               written == OutputStream::Result::END ||
                                               content_->GetResponseCode() != 0);
  SetFailReason(answer.transfer, answer.code);
  Result result = Settle(answer);
  if (result != SUCCEEDED)
    return result;
  return TakeUploadedItem(answer, props);
}

FileSystem::Result RemoteFileSystemBox::CommitSession(FileProperties* props) {
  // 1. The whole file's digest: after a resume, the core's hash covers the parts sent before.
  const std::string whole_sha1 = upload_.start > 0 ? upload_.hash.GetHashBox().sha1
                                                   : upload_.running.Finish().GetHashBox().sha1;
  std::vector<std::string> headers = {"Digest: sha=" + DigestOfHexSha1(whole_sha1)};
  if (!upload_.if_match.empty())
    headers.push_back("if-match: " + upload_.if_match);
  const std::string url = UploadUrl("files/upload_sessions/" + upload_.session.id + "/commit");
  const std::string body = CommitBody(upload_.session.parts, UploadAttributes(false));
  // 2. The commit, again after the wait Box asks for while it assembles the parts.
  BoxAnswer answer;
  for (int attempt = 0; attempt < kMaxCommitTries; ++attempt) {
    answer = Request("POST", url, body, headers);
    if (answer.code != 202)
      break;
    std::uint64_t wait_sec = 1;
    if (!ParseBoxNumber(answer.retry_after, &wait_sec) || wait_sec == 0)
      wait_sec = 1;
    wait_sec = std::min<std::uint64_t>(wait_sec, kMaxCommitWaitSec);
    LOG_INFO << "Upload session is not ready, commit again in " << wait_sec << " s.";
    utils::GetClock().SleepMs(static_cast<std::int64_t>(wait_sec) * 1000, &stop_flag_);
    if (IsStopped()) {
      KeepSessionForLater();
      return STOPPED;
    }
  }
  Result result = Settle(answer);
  if (answer.code == 202)
    result = FAILED;
  if (result != SUCCEEDED) {
    LOG_WARNING << "Failed to commit upload session of " << Quoted(upload_.path) << ".";
    if (answer.code != 404)
      KeepSessionForLater();
    return result == CONFLICT && answer.code == 404 ? FAILED : result;
  }
  upload_.hash =
      upload_.hash.IsZero() ? SomeHash(HashBox{whole_sha1, std::string()}) : upload_.hash;
  return TakeUploadedItem(answer, props);
}

FileSystem::Result RemoteFileSystemBox::TakeUploadedItem(const BoxAnswer& answer,
                                                         FileProperties* props) {
  // 1. The file Box made.
  if (!answer.json) {
    LOG_ERROR << "Failed parse answer, got " << answer.code;
    return FAILED;
  }
  auto entries = answer.json->get_child_optional("entries");
  if (!entries || entries->empty()) {
    LOG_ERROR << "empty item list.";
    return FAILED;
  }
  const utils::json::json_tree& entry = entries->begin()->second;
  auto text = [&entry](const char* key) {
    auto child = utils::json::Child(entry, key);
    return child && child->empty() && child->data() != "null" ? child->data() : std::string();
  };
  const std::string id = text("id");
  const std::string sha1 = text("sha1");
  if (id.empty()) {
    LOG_ERROR << "Empty id in response.";
    return FAILED;
  }
  // 2. Its content is the one sent.
  const std::string expected =
      upload_.hash.IsZero() && upload_.start == 0 ? std::string() : upload_.hash.GetHashBox().sha1;
  if (!expected.empty() && expected != sha1) {
    LOG_ERROR << "Invalid content being uploaded. Expected hash is " << expected << ". Actual is "
              << sha1;
    return FAILED;
  }
  // 3. The id tree and the caller's hash.
  if (upload_.target_id.empty() &&
      !Shared().ids.AddFileId(id, LastSegment(upload_.path), upload_.parent_id)) {
    LOG_ERROR << "Failed add file " << upload_.path << " to ids tree.";
  }
  if (props)
    props->hash = SomeHash(HashBox{sha1, text("etag")});
  return SUCCEEDED;
}

FileSystem::Result RemoteFileSystemBox::InterruptFile() {
  content_->Stop();
  const Result result = CloseFile(nullptr);
  content_->Start();
  return result;
}

}  // namespace rest_api
