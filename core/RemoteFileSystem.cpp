#include "core/RemoteFileSystem.h"

#include <algorithm>

#include "core/Clock.h"
#include "core/Nodes.h"

const std::string RemoteFileSystem::kRemoteRootPath = "/";
const std::string RemoteFileSystem::kRemoteBackupRootFolder = "Backups";

RemoteFileSystem::RemoteFileSystem(std::shared_ptr<RemoteFileSystemSharedData> shared_data,
                                   const std::string& remote_root_path)
    : shared_data_(std::move(shared_data)), remote_root_path_(remote_root_path) {}

RemoteFileSystem::~RemoteFileSystem() = default;

double RemoteFileSystem::GetPercentCompleteGettingFirstSnapshot(
    const SnapshotDownloadProgress& progress) {
  const std::uint64_t expected = progress.expected_bytes.load();
  if (expected == 0) {
    return 0.0;
  }
  return std::min(1.0, static_cast<double>(progress.seen_bytes.load()) / expected);
}

void RemoteFileSystem::Start() {
  stop_flag_ = false;
}

void RemoteFileSystem::Stop() {
  {
    // Under the mutex, so that a waiter between its test of the flag and its wait can't miss it.
    std::lock_guard<std::mutex> lock(stop_mutex_);
    stop_flag_ = true;
  }
  stop_condition_.notify_all();
}

bool RemoteFileSystem::WaitForStop(std::int64_t ms) {
  std::unique_lock<std::mutex> lock(stop_mutex_);
  return utils::GetClock().WaitFor(stop_condition_, lock, ms, [this] { return stop_flag_.load(); });
}

bool RemoteFileSystem::PrepareRemoteChange(Change*) {
  return true;
}

bool RemoteFileSystem::SkipRemoteChange(const Change&, FolderNode*) {
  return true;
}

void RemoteFileSystem::OnDiskActivity() {}

bool RemoteFileSystem::Serialize(const std::atomic<bool>*, const tsl::htrie_set<char>&,
                                 std::ostream&) {
  return true;
}

bool RemoteFileSystem::Deserialize(const std::atomic<bool>*, tsl::htrie_set<char>*,
                                   std::stringstream&) {
  return false;
}

bool RemoteFileSystem::NeedSavingStateInFile() {
  return false;
}

FileSystem::Result RemoteFileSystem::PrepareAfterTreeDeserialized() {
  return NOT_SUPPORTED;
}

FileSystem::Result RemoteFileSystem::UpdateMaxFileSize() {
  return SUCCEEDED;
}

double RemoteFileSystem::GetFirstSnapshotProgress() {
  return GetPercentCompleteGettingFirstSnapshot(snapshot_progress_);
}

QString RemoteFileSystem::GetLastErrorDescription() {
  return QString();
}

FileSystem::Result RemoteFileSystem::GetCloudSizeWithoutSharedData(std::uint64_t* total,
                                                                   std::uint64_t* used) {
  return GetCloudSize(total, used);
}

FileSystem::Result RemoteFileSystem::GetFullTreeWithoutSharedData(
    FolderNode* root, std::uint64_t* free, std::uint64_t* total,
    tsl::htrie_set<char>* service_items) {
  return GetFullTree(root, free, total, service_items);
}

bool RemoteFileSystem::HasFoldersWithSeparateQuota() {
  return false;
}

bool RemoteFileSystem::SupportsCreationIntermediateFolders() {
  return false;
}

bool RemoteFileSystem::SupportsAutomaticRecursiveRemoving() {
  return true;  // DeleteFolderImpl removes a folder with its contents
}

bool RemoteFileSystem::SupportsTreeInfo() {
  return false;
}

bool RemoteFileSystem::SupportsMoveToExistingFile() {
  return false;
}

bool RemoteFileSystem::SupportsFolderMoving() {
  return true;
}

const RemoteFileSystem::UnsupportedSymbolsMap& RemoteFileSystem::GetUnsupportedSymbolsMap() const {
  static const UnsupportedSymbolsMap* empty = new UnsupportedSymbolsMap();
  return *empty;
}

bool RemoteFileSystem::IsReadingFakeContent() {
  return false;
}

void RemoteFileSystem::SetFileHashToResumeInterruptedUpload(const SomeHash&) {}

void RemoteFileSystem::SetMinRateLimitValueSec(unsigned int) {}

void RemoteFileSystem::SetGetChangesTimeoutSec(unsigned int seconds) {
  get_changes_timeout_sec_ = seconds;
}

utils::ValueOrError<std::vector<RemoteFileSystem::FileInfo>, FileSystem::Result>
RemoteFileSystem::GetLastFiles(int) {
  return NOT_SUPPORTED;
}

utils::ValueOrError<QImage, FileSystem::Result> RemoteFileSystem::GetThumbnail(const std::string&) {
  return NOT_SUPPORTED;
}

bool RemoteFileSystem::HasItemByPath(const std::string&) {
  return false;
}

std::uint64_t RemoteFileSystem::GetMountedDirSize() {
  return 0;
}

bool RemoteFileSystem::IsItemInMountedDir(const std::string&) {
  return true;
}

std::uint64_t RemoteFileSystem::GetTrashedFilesSize() {
  return 0;
}

const InvalidSymbolsMapping::Map& RemoteFileSystem::SymbolsMap() const {
  return GetUnsupportedSymbolsMap();
}

void RemoteFileSystem::RemoveFirstSlashIfExists(std::string* path) {
  if (!path->empty() && path->front() == '/') {
    path->erase(0, 1);
  }
}

bool RemoteFileSystem::CreatePathTo(std::string_view path, FolderNode* root, FolderNode** folder,
                                    std::string_view* name, bool case_insensitive) {
  *folder = nullptr;
  if (!root || !IsRelativeCanonicalPath(path)) {
    return false;
  }
  FolderNode* first_created = nullptr;
  *folder = root->TraversePathAndCreateDirs(path, name, case_insensitive, nullptr, &first_created);
  if (first_created) {
    // The new folders are news to the core, like any other change of the tree.
    first_created->SetChangedDown();
  }
  return *folder != nullptr;
}
