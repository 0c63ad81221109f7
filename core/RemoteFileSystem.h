// RemoteFileSystem: what every adapter of a cloud service is to the core. The operations follow
// the core's table in order; those with a default here answer alike for most services.
//
// An adapter derives from RemoteFileSystemChangesSupport (a service with a change feed) or
// RemoteFileSystemNoChangesSupport, and:
//   - implements the pure operations of FileSystem and of this class;
//   - in Stop() stops each URLProcessor it holds, then calls RemoteFileSystem::Stop(); in Start()
//     starts them, then calls RemoteFileSystem::Start();
//   - waits only through WaitForStop(ms) (or utils::GetClock().WaitFor on stop_condition_), so
//     that Stop() ends the wait and the operation answers STOPPED.
#pragma once

#include <QImage>
#include <QString>

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <istream>
#include <memory>
#include <mutex>
#include <ostream>
#include <queue>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "core/CloudServiceId.h"
#include "core/FileSystem.h"
#include "core/RemoteNameMapper.h"
#include "core/ValueOrError.h"
#include "core/tsl/htrie_set.h"

class RemoteFileSystemSharedData;
class URLProcessorFactory;

class RemoteFileSystem : public FileSystem, public RemoteNameMapper {
 public:
  // The root of the account, as a remote path.
  static const std::string kRemoteRootPath;
  // The account's top folder for backups.
  static const std::string kRemoteBackupRootFolder;

  struct FolderListing {
    std::vector<std::string> folders;
    std::vector<std::pair<std::string, FileProperties>> files;
  };

  // One entry of GetLastFiles.
  struct FileInfo {
    std::string id;
    std::string name;
    std::uint64_t time = 0;
    std::uint64_t size = 0;
  };

  // How far the first tree download has come. GetCloudSize sets the bytes expected (the used
  // space); the walk adds the bytes of what it has listed. Read from other threads.
  struct SnapshotDownloadProgress {
    std::atomic<std::uint64_t> expected_bytes{0};
    std::atomic<std::uint64_t> seen_bytes{0};

    void AddSeenBytes(std::uint64_t bytes) { seen_bytes.fetch_add(bytes); }
  };
  // 0.0 to 1.0; 0.0 while the bytes expected are unknown.
  static double GetPercentCompleteGettingFirstSnapshot(const SnapshotDownloadProgress& progress);

  using UnsupportedSymbolsMap = InvalidSymbolsMapping::Map;

  // `shared_data`: the account's record of the factory; `remote_root_path`: where the mounted
  // root lies on the service ("" for the whole account).
  RemoteFileSystem(std::shared_ptr<RemoteFileSystemSharedData> shared_data,
                   const std::string& remote_root_path);
  ~RemoteFileSystem() override;

  // Clears the stop flag.
  void Start() override;
  // Raises the stop flag and wakes every wait on the stop condition. Safe from any thread.
  void Stop() override;

  // --- connection ---------------------------------------------------------------------------
  // Keeps the factory and makes the adapter's URLProcessors; false ends the connection.
  virtual bool Open(const std::shared_ptr<URLProcessorFactory>& factory) = 0;
  virtual Result Close() = 0;

  // --- tree and feed ------------------------------------------------------------------------
  virtual Result GetChanges(std::queue<Change>* changes) = 0;
  virtual Result CheckConnection() = 0;
  // Fills an empty tree with the whole account; `*free` is total minus used.
  virtual Result GetFullTree(FolderNode* root, std::uint64_t* free, std::uint64_t* total,
                             tsl::htrie_set<char>* service_items) = 0;
  // True: nothing to prepare.
  virtual bool PrepareRemoteChange(Change* change);
  // Applies one change to the tree, keeping `*free` and `*total` in step. False stops the feed.
  virtual bool ApplyRemoteChange(const Change& change, FolderNode* root, std::uint64_t* free,
                                 std::uint64_t* total) = 0;
  // True: a skipped change leaves nothing to undo.
  virtual bool SkipRemoteChange(const Change& change, FolderNode* root);
  virtual Result GetFolderListing(const std::string& path, FolderListing* listing) = 0;
  virtual void OnDiskActivity();

  // --- saved state --------------------------------------------------------------------------
  // Without a state of its own an adapter writes nothing and has nothing to restore:
  // Deserialize answers false, so the core downloads the tree instead.
  virtual bool Serialize(const std::atomic<bool>* stop, const tsl::htrie_set<char>& service_items,
                         std::ostream& out);
  virtual bool Deserialize(const std::atomic<bool>* stop, tsl::htrie_set<char>* service_items,
                           std::stringstream& in);
  virtual bool NeedSavingStateInFile();
  virtual Result PrepareAfterTreeDeserialized();

  // --- account ------------------------------------------------------------------------------
  virtual Result GetCloudSize(std::uint64_t* total, std::uint64_t* used) = 0;
  virtual Result GetPublicLink(const std::string& path, bool flag, std::string* link) = 0;
  virtual Result ClosePublicLink(const std::string& path) = 0;
  // All bits set: no limit.
  virtual std::uint64_t GetMaxFileSize() = 0;
  // SUCCEEDED at once for a service that doesn't tell its limit.
  virtual Result UpdateMaxFileSize();
  virtual double GetFirstSnapshotProgress();
  virtual QString GetLastErrorDescription();
  // Without shared folders of its own these are the plain GetCloudSize and GetFullTree.
  virtual Result GetCloudSizeWithoutSharedData(std::uint64_t* total, std::uint64_t* used);
  virtual Result GetFullTreeWithoutSharedData(FolderNode* root, std::uint64_t* free,
                                              std::uint64_t* total,
                                              tsl::htrie_set<char>* service_items);
  virtual bool ShouldRenewTree() = 0;

  // --- capabilities -------------------------------------------------------------------------
  virtual bool HasFoldersWithSeparateQuota();
  virtual bool IsServiceTraitA() = 0;
  virtual bool IsCaseInsensitive() = 0;
  virtual bool SupportsChangesListening() = 0;
  virtual bool SupportsCreationIntermediateFolders();
  virtual bool SupportsAutomaticRecursiveRemoving();
  virtual bool SupportsSelfChangeFiltering() = 0;
  virtual bool SupportsServiceTraitC() = 0;
  virtual bool SupportsTreeInfo();
  virtual bool SupportsMoveToExistingFile();
  virtual bool SupportsResumingUpload() = 0;
  virtual bool SupportsFolderMoving();
  // Empty by default: the service takes every character but "/".
  virtual const UnsupportedSymbolsMap& GetUnsupportedSymbolsMap() const;
  virtual bool IsReadingFakeContent();
  virtual CloudServiceId GetServiceId() = 0;
  virtual SomeHash::HashType GetHashType() = 0;

  // --- settings -----------------------------------------------------------------------------
  virtual void SetFileHashToResumeInterruptedUpload(const SomeHash& hash);
  virtual void SetMinRateLimitValueSec(unsigned int seconds);
  // Kept in get_changes_timeout_sec_ for an adapter whose feed waits on the server.
  virtual void SetGetChangesTimeoutSec(unsigned int seconds);

  // --- extras -------------------------------------------------------------------------------
  // NOT_SUPPORTED unless the service has them.
  virtual utils::ValueOrError<std::vector<FileInfo>, Result> GetLastFiles(int count);
  virtual utils::ValueOrError<QImage, Result> GetThumbnail(const std::string& path);
  // False: without a tree of its own the adapter can't tell.
  virtual bool HasItemByPath(const std::string& path);
  virtual std::uint64_t GetMountedDirSize();
  // True: the whole account is the mounted folder unless the adapter narrows it.
  virtual bool IsItemInMountedDir(const std::string& path);
  virtual std::uint64_t GetTrashedFilesSize();

  // --- helpers ------------------------------------------------------------------------------
  // Walks `path` from `root`, creating the folders on the way that are missing. `*folder`
  // receives the folder that holds the last segment, `*name` that segment. False when a segment
  // on the way is a file, the path is not canonical, or a folder can't be made.
  static bool CreatePathTo(std::string_view path, FolderNode* root, FolderNode** folder,
                           std::string_view* name, bool case_insensitive);
  static void RemoveFirstSlashIfExists(std::string* path);

  const std::string& GetRemoteRootPath() const { return remote_root_path_; }
  bool IsStopped() const { return stop_flag_.load(); }

 protected:
  // Waits up to `ms` or until Stop(); true when stopped.
  bool WaitForStop(std::int64_t ms);

  const std::shared_ptr<RemoteFileSystemSharedData>& GetSharedData() const { return shared_data_; }
  // The account's record as the adapter's own type; the base holds the only reference.
  template <typename Record>
  Record* SharedDataAs() const {
    return static_cast<Record*>(shared_data_.get());
  }

  std::atomic<bool> stop_flag_{false};
  std::mutex stop_mutex_;
  std::condition_variable stop_condition_;
  SnapshotDownloadProgress snapshot_progress_;
  std::atomic<unsigned int> get_changes_timeout_sec_{0};

 private:
  // Names travel by the service's table of unsupported symbols.
  const InvalidSymbolsMapping::Map& SymbolsMap() const final;

  std::shared_ptr<RemoteFileSystemSharedData> shared_data_;
  const std::string remote_root_path_;
};
