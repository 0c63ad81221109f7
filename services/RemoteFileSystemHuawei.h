// RemoteFileSystemHuawei: a Huawei Drive account. Items are addressed by id through the shared
// RemoteFileIds; the whole tree comes from two paged listings (folders, then files), the feed
// from the change cursor, files go up through resumable sessions in slices (HuaweiUpload).
//
//   RemoteFileSystemHuawei drive(shared, "Backups/laptop");
//   drive.Open(factory);
//   drive.GetFullTree(&root, &free, &total, &service_items);
//   std::queue<FileSystem::Change> changes;
//   drive.GetChanges(&changes);
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "core/RemoteFileSystemNoChangesSupport.h"
#include "core/URLProcessor.h"
#include "services/HuaweiRequester.h"
#include "services/HuaweiUpload.h"
#include "services/RemoteHuaweiUtils.h"

class RemoteFileSystemHuaweiSharedData;

class RemoteFileSystemHuawei : public RemoteFileSystemNoChangesSupport {
 public:
  enum OpenMode : std::uint32_t { kClosed = 0, kIdle = 1, kReading = 2, kSessionWriting = 3 };

  RemoteFileSystemHuawei(std::shared_ptr<RemoteFileSystemSharedData> shared_data,
                         const std::string& remote_root_path);
  ~RemoteFileSystemHuawei() override;

  void Start() override;
  void Stop() override;
  bool Open(const std::shared_ptr<URLProcessorFactory>& factory) override;
  Result Close() override;

  // Tree and feed.
  Result GetFullTree(FolderNode* root, std::uint64_t* free, std::uint64_t* total,
                     tsl::htrie_set<char>* service_items) override;
  // The changes since the last tree or call, the id tree kept in step. Created and modified
  // files, created folders, renames and moves (with the old path), and recycled or deleted items.
  Result GetChanges(std::queue<Change>* changes) override;
  bool PrepareRemoteChange(Change* change) override;
  Result GetFolderListing(const std::string& path, FolderListing* listing) override;
  Result CheckConnection() override;
  Result GetCloudSize(std::uint64_t* total, std::uint64_t* used) override;

  // Items.
  Result CreateFolderImpl(const OverwriteControl& control, const std::string& path) override;
  Result DeleteFileImpl(const OverwriteControl& control, const std::string& path,
                        std::uint64_t size, std::uint64_t time) override;
  Result DeleteFolderImpl(const FolderNode& folder, const Revision& revision,
                          const std::string& path) override;
  Result RenameFileImpl(const FileNode& file, const OverwriteControl& from_control,
                        const std::string& from, const OverwriteControl& to_control,
                        const std::string& to, SomeHash* hash) override;
  Result MoveFileImpl(const FileNode& file, const OverwriteControl& from_control,
                      const std::string& from, const OverwriteControl& to_control,
                      const std::string& to) override;
  Result MoveFolderImpl(const FolderNode& folder, const OverwriteControl& from_control,
                        const std::string& from, const OverwriteControl& to_control,
                        const std::string& to) override;

  // Content.
  Result OpenForRead(const std::string& path, std::uint64_t offset, std::uint64_t limit,
                     std::uint64_t size, const SomeHash& hash) override;
  Result ReadFile(std::uint8_t* buffer, std::uint32_t size, std::uint32_t* done) override;
  Result OpenForCreate(const OverwriteControl& control, const std::string& path,
                       const SomeHash& hash, std::uint64_t size, std::uint64_t time,
                       std::uint64_t* resume_offset, bool flag) override;
  Result OpenForRewrite(const OverwriteControl& control, const std::string& path,
                        const SomeHash& hash, std::uint64_t size, std::uint64_t time,
                        std::uint64_t* resume_offset) override;
  Result WriteFile(const std::uint8_t* data, std::uint32_t size) override;
  Result CloseFile(FileProperties* props) override;
  Result InterruptFile() override;
  void SetFileHashToResumeInterruptedUpload(const SomeHash& hash) override;

  // Account and capabilities.
  Result GetPublicLink(const std::string& path, bool flag, std::string* link) override;
  Result ClosePublicLink(const std::string& path) override;
  std::uint64_t GetMaxFileSize() override { return max_file_size_; }
  Result UpdateMaxFileSize() override;
  LengthLimits GetMaxSupportedPathLength() const override;
  LengthLimits GetMaxSupportedNameLength() const override;
  const UnsupportedSymbolsMap& GetUnsupportedSymbolsMap() const override;
  bool IsServiceTraitA() override { return true; }
  bool IsCaseInsensitive() override { return true; }
  bool SupportsServiceTraitC() override { return true; }
  bool SupportsResumingUpload() override { return true; }
  CloudServiceId GetServiceId() override { return CloudServiceId::HUAWEI; }
  SomeHash::HashType GetHashType() override { return SomeHash::GENERIC; }

 private:
  RemoteFileSystemHuaweiSharedData& Shared() const;
  // Start or Stop on every client the adapter has opened.
  void ForEachProcessor(void (Stoppable::*call)());
  // The id of the mounted root, looked up once per connection.
  Result ResolveMountedRoot();
  // The folder at a local path: from the id tree, else found component by component and added.
  Result ResolveFolder(const std::string& path, std::string* id);
  Result LearnParentOf(const std::string& path);
  // LearnParentOf a path that is checked first.
  Result CheckAndLearnParent(const std::string& path);
  // The refusals of an upload that need no request, then LearnParentOf; `named_here` when the
  // upload gives the file its name, which must fit the service's limits.
  Result AdmitUpload(const std::string& path, std::uint64_t size, bool named_here);
  // A GET of the API through the items client; `failure` is logged when it fails.
  Result GetFromApi(const char* path, const char* failure, utils::json::json_tree* json);
  // A listed item, its name made local; a parse failure is logged.
  bool ReadListedItem(const utils::json::json_tree& json, huawei::Item* item);
  std::string RemotePathOf(const std::string& path) const;
  Result ReadChangePage(std::queue<Change>* changes, std::string* next_cursor);
  void ApplyChangedItem(const utils::json::json_tree& change, std::queue<Change>* changes);
  // CONFLICT unless the file `id` is still there with the version `expected` names.
  Result CheckVersion(const std::string& id, const std::string& path, const SomeHash& expected);
  // An empty `expected` recycles whatever stands at the path.
  Result Recycle(const std::string& path, bool folder, const SomeHash& expected);
  Result MoveItem(const std::string& from, const std::string& to, bool folder);
  Result OpenUpload(const std::string& path, const SomeHash& hash, std::uint64_t size,
                    HuaweiUploadSession session, std::uint64_t* resume_offset);
  void KeepSessionForLater();
  Result FinishUpload(FileProperties* props);

  std::mutex processors_mutex_;  // guards the pointers against Stop() from another thread
  std::shared_ptr<URLProcessorFactory> factory_;
  std::shared_ptr<URLProcessor> items_http_;
  std::shared_ptr<URLProcessor> content_http_;
  std::shared_ptr<URLProcessor> feed_http_;
  std::unique_ptr<HuaweiRequester> items_;
  std::unique_ptr<HuaweiRequester> feed_;

  OpenMode mode_ = kClosed;
  std::string drive_root_id_;
  std::string mounted_id_;
  std::string cursor_;
  std::uint64_t max_file_size_ = UINT64_MAX;

  std::unique_ptr<HuaweiUpload> upload_;
  std::string upload_path_;
  SomeHash upload_hash_;
  std::uint64_t read_left_ = 0;
};
