// RemoteFileSystemOneDrive: OneDrive over Microsoft Graph v1.0. One feed serves everything: the
// first delta of the drive is the snapshot, each run from the saved delta link gives the changes
// since. Items are named by id, so the adapter keeps the account's RemoteFileIds beside the file
// tree and types each delta item by comparing it with that tree. Folders that others share with
// the user are mounted and followed on delta links of their own.
//
//   RemoteFileSystemOneDrive drive(shared, "");
//   drive.Open(factory);                          // processors carry the account's bearer token
//   drive.GetFullTree(&root, &free, &total, &public_items);
//   std::queue<FileSystem::Change> changes;
//   drive.GetChanges(&changes);                   // then PrepareRemoteChange + ApplyRemoteChange
//
// Every metadata request goes through RunRequest, and every failure through GetHttpFailure: the
// one place where Graph's answers become Results. Delta and quota run on their own processor so
// that a long transfer does not hold up the feed.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "core/HashCalculators.h"
#include "core/Json.h"
#include "core/RemoteFileSystemChangesSupport.h"
#include "core/URLProcessor.h"
#include "services/GraphDriveItem.h"
#include "services/RemoteFileSystemOneDriveSharedData.h"
#include "services/SelfMadeChanges.h"

class RemoteFileSystemOneDrive : public RemoteFileSystemChangesSupport {
 public:
  // An upload of the adapter's own, expected back through the feed.
  struct ExpectedUpload {
    std::string id;
    HashOneDrive hash;
    std::string eTag;
    bool operator==(const ExpectedUpload& other) const {
      return id == other.id && hash == other.hash && eTag == other.eTag;
    }
  };
  struct ExpectedUploadHash {
    std::size_t operator()(const ExpectedUpload& record) const;
  };
  using UploadSession = OneDriveUploadSession;

  static constexpr std::uint64_t kMaxFileSize = 25ull << 32;
  static constexpr std::int64_t kMaxRetryAfterSec = 300;
  static constexpr std::int64_t kQuotaIntervalSec = 101;
  static constexpr std::int64_t kChangesPauseMs = 4000;
  static const char* const kSelect;
  static const char* const kDeltaPath;

  RemoteFileSystemOneDrive(std::shared_ptr<RemoteFileSystemOneDriveSharedData> sharedData,
                           const std::string& remoteRootPath);
  ~RemoteFileSystemOneDrive() override;

  void Start() override;
  void Stop() override;

  // --- connection, tree and feed ----------------------------------------------------------
  bool Open(const std::shared_ptr<URLProcessorFactory>& factory) override;
  Result Close() override;
  Result CheckConnection() override;
  Result GetFullTree(FolderNode* root, std::uint64_t* free, std::uint64_t* total,
                     tsl::htrie_set<char>* serviceItems) override;
  Result GetChanges(std::queue<Change>* changes) override;
  bool PrepareRemoteChange(Change* change) override;
  bool ApplyRemoteChange(const Change& change, FolderNode* root, std::uint64_t* free,
                         std::uint64_t* total) override;
  Result GetCloudSize(std::uint64_t* total, std::uint64_t* used) override;

  // --- files and folders ------------------------------------------------------------------
  Result OpenForRead(const std::string& path, std::uint64_t offset, std::uint64_t limit,
                     std::uint64_t size, const SomeHash& hash) override;
  Result ReadFile(std::uint8_t* buffer, std::uint32_t size, std::uint32_t* done) override;
  Result OpenForCreate(const OverwriteControl& control, const std::string& path,
                       const SomeHash& hash, std::uint64_t size, std::uint64_t time,
                       std::uint64_t* resumeOffset, bool flag) override;
  Result OpenForRewrite(const OverwriteControl& control, const std::string& path,
                        const SomeHash& hash, std::uint64_t size, std::uint64_t time,
                        std::uint64_t* resumeOffset) override;
  Result WriteFile(const std::uint8_t* data, std::uint32_t size) override;
  void SetFileHashToResumeInterruptedUpload(const SomeHash& hash) override;
  Result CloseFile(FileProperties* props) override;
  Result InterruptFile() override;
  Result CreateFolderImpl(const OverwriteControl& control, const std::string& path) override;
  Result DeleteFileImpl(const OverwriteControl& control, const std::string& path,
                        std::uint64_t size, std::uint64_t time) override;
  Result DeleteFolderImpl(const FolderNode& folder, const Revision& revision,
                          const std::string& path) override;
  Result RenameFileImpl(const FileNode& file, const OverwriteControl& fromControl,
                        const std::string& from, const OverwriteControl& toControl,
                        const std::string& to, SomeHash* hash) override;
  // Moves are renames here: RenameFileImpl does both in one request.
  Result MoveFileImpl(const FileNode& file, const OverwriteControl& fromControl,
                      const std::string& from, const OverwriteControl& toControl,
                      const std::string& to) override;
  Result MoveFolderImpl(const FolderNode& folder, const OverwriteControl& fromControl,
                        const std::string& from, const OverwriteControl& toControl,
                        const std::string& to) override;

  // --- account ----------------------------------------------------------------------------
  Result GetPublicLink(const std::string& path, bool flag, std::string* link) override;
  Result ClosePublicLink(const std::string& path) override;
  std::uint64_t GetMaxFileSize() override { return kMaxFileSize; }
  utils::ValueOrError<std::vector<FileInfo>, Result> GetLastFiles(int count) override;
  std::uint64_t GetMountedDirSize() override;
  bool IsItemInMountedDir(const std::string& path) override;

  // --- capabilities -----------------------------------------------------------------------
  LengthLimits GetMaxSupportedPathLength() const override;
  bool IsServiceTraitA() override { return false; }
  bool IsCaseInsensitive() override { return true; }
  bool SupportsServiceTraitC() override { return true; }
  bool SupportsResumingUpload() override { return true; }
  const UnsupportedSymbolsMap& GetUnsupportedSymbolsMap() const override;
  CloudServiceId GetServiceId() override { return CloudServiceId::ONEDRIVE; }
  SomeHash::HashType GetHashType() override { return SomeHash::ONEDRIVE; }

  static bool IsPublicItem(const utils::json::json_tree& item);
  // Graph's answer as a Result, throttling aside (that one waits, and only the adapter can).
  static Result ResultOfHttpCode(int code);

 private:
  using Request = std::function<bool(URLProcessor*)>;
  class DeltaRun;
  enum FileMode { kClosed = 0, kIdle = 1, kPlainUpload = 2, kReading = 3, kSessionUpload = 4 };

  // --- requests ---------------------------------------------------------------------------
  Result GetResource(const std::string& url, const std::string& select,
                     utils::json::json_tree* json, URLProcessor* client);
  Result PostResource(const std::string& url, const std::string& body, utils::json::json_tree* json,
                      URLProcessor* client);
  Result PatchResource(const std::string& url, const std::string& body,
                       const std::vector<std::string>& headers, utils::json::json_tree* json);
  Result DeleteItem(const std::string& url, const std::vector<std::string>& headers);
  Result RunRequest(utils::json::json_tree* json, URLProcessor* client, const Request& request,
                    URLProcessor::Result successResult);
  Result GetHttpFailure(URLProcessor* client, URLProcessor::Result urlResult);
  std::string GraphUrl(const std::string& path) const;

  // --- tree and feed ----------------------------------------------------------------------
  Result GetRootItem(std::string* rootId);
  Result GetDriveType(const utils::json::json_tree& root);
  Result GetQuota(std::uint64_t* total, std::uint64_t* used);
  Result GetDelta(DeltaRun* run);
  Result FollowDelta(DeltaRun* run, const std::string& start, std::string* link);
  Result GetDeltaPage(const std::string& url, DeltaRun* run, std::string* next,
                      std::string* deltaLink);
  void MakeChange(const GraphDriveItem& item, const std::string& path, DeltaRun* run);
  std::string RemotePath(const std::string& path) const;
  void ReadSharedFolders(DeltaRun* run);
  void PushQuotaChanges(std::vector<Change>* changes);
  void TestSuspiciousDelete();
  bool IsSelfMadeChange(const Change& change);

  // --- applying changes -------------------------------------------------------------------
  bool ApplyCreate(const Change& change, FolderNode* root, std::uint64_t* free, bool mounted);
  bool ApplyRename(const Change& change, FolderNode* root);
  bool ApplyModify(const Change& change, FolderNode* root, std::uint64_t* free, bool mounted);
  bool ApplyDelete(const Change& change, FolderNode* root, std::uint64_t* free, bool mounted);
  void NoteMissingItem(const char* metric);

  // --- items ------------------------------------------------------------------------------
  // "/me/drive", or "/drives/ID" for a path in a mounted folder.
  std::string DrivePrefix(const std::string& path) const;
  Result ItemIdOf(const std::string& path, bool folder, std::string* id);
  Result PatchItem(const std::string& from, const std::string& to, const std::string& id,
                   const std::string& eTag, bool folder, utils::json::json_tree* reply);

  // --- transfers --------------------------------------------------------------------------
  Result OpenUpload(const std::string& path, const SomeHash& hash, std::uint64_t size,
                    std::uint64_t time, const std::string& eTag, std::uint64_t* resumeOffset);
  Result CreateUploadSession(const std::string& url, const std::string& eTag);
  bool TryResumeUpload(const std::string& path, const SomeHash& hash, std::uint64_t size);
  Result GetNextExpectedRange(std::uint64_t* offset);
  void KeepSessionForLater();
  Result BeginChunk(std::uint64_t size);
  Result WriteChunkPart(const std::uint8_t* data, std::uint32_t size);
  // Ends the chunk's request with the answer kept in the response buffer.
  URLProcessor::Result FinishChunk();
  // The service's verdict on the chunk that just ended.
  Result JudgeChunk(URLProcessor::Result result);
  Result FinishFile(FileProperties* props, utils::json::json_tree json);
  Result PatchModifiedTime(const std::string& id, std::uint64_t time, utils::json::json_tree* json,
                           bool* changed);
  void CancelUploadSession();

  RemoteFileSystemOneDriveSharedData* sharedData() const {
    return SharedDataAs<RemoteFileSystemOneDriveSharedData>();
  }

  int driveType = 0;
  bool renewDelta = false;
  std::shared_ptr<URLProcessorFactory> factory_;
  std::shared_ptr<URLProcessor> fileClient_;
  std::shared_ptr<URLProcessor> changesClient_;
  std::uint64_t totalSize = 0;
  std::uint64_t usedSize = 0;
  std::int64_t lastSizeRequestTime = 0;
  std::int64_t lastChangeTime = 0;
  std::int64_t lastMissingItemTime = 0;
  std::string deltaLink;

  // Records of the adapter's own changes (uploads, deletes by id, created folders by id).
  SelfMadeChanges<ExpectedUpload, ExpectedUploadHash> expectedUploads_;
  SelfMadeChanges<std::string> expectedDeletes_;
  SelfMadeChanges<std::string> expectedFolders_;

  // The one open file.
  FileMode fileMode = kClosed;
  std::string transferPath_;
  std::string expectedETag_;
  std::uint64_t expectedSize_ = 0;
  bool rangedRead_ = false;
  bool firstBlock_ = false;
  std::uint64_t readOffset_ = 0;
  SomeHash resumeHash_;
  struct Upload {
    bool resumed = false;
    std::string parentId;
    std::string name;
    std::string prefix;
    std::string sessionUrl;
    std::int64_t sessionExpiry = 0;
    std::string eTag;
    std::uint64_t fileSize = 0;
    std::uint64_t sentBytes = 0;
    std::uint64_t confirmedOffset = 0;
    std::uint64_t time = 0;
    bool chunkInFlight = false;
    std::uint64_t chunkSize = 0;
    std::uint64_t chunkPosition = 0;
    HashOneDrive expected;
    HashCalculatorOneDrive hashCalculator;
    std::string responseBuffer;
  } upload_;
};
