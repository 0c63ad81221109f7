// RemoteFileSystemYandex: a Yandex Disk account, over its WebDAV host and its REST API
// ("/v1/disk"). The whole disk loads from the paged JSON snapshot, which also gives the revision
// the delta feed starts from; a mounted folder loads from the binary snapshot of the WebDAV host
// (YandexBinarySnapshot), and when that can't be read, by the PROPFIND walk of the WebDAV family.
//
//   RemoteFileSystemYandex yandex(sharedData, "");
//   yandex.Open(factory);                // processors carrying "Authorization: OAuth <token>"
//   yandex.GetFullTree(&root, &free, &total, &serviceItems);
//   yandex.GetChanges(&changes);         // on the feed's thread, with a processor of its own
//
// A mounted folder takes the feed's revision from the disk's own answer, read before its tree:
// changes made while the tree loads come again through the feed, which is harmless.
//
// Content moves in REST mode by the links of the resources API; the upload link is asked with
// both digests and the size, so that the disk takes content it holds already without its bytes.
// In WebDAV mode (and for every ".jpg" and ".jpeg" read, which the WebDAV host would alter) it
// goes over the WebDAV host, where the head of an upload carries the digests and is answered
// before the body: 201, the content is known; 100, send it. A read is checked by its etag at the
// first block and, whole, by both digests at the last; an upload by both digests before its last
// block leaves.
//
//   yandex.OpenForCreate(control, "docs/a.txt", hash, size, time, &resumeOffset, false);
//   // WriteFile from resumeOffset on (nothing when it is the size), then CloseFile(&props)
//
// Every file operation's result passes NoteOperationResult: conflicts that keep coming while the
// feed says nothing mean the tree is behind, and ShouldRenewTree asks for a new one.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <queue>
#include <string>
#include <vector>

#include "core/HashCalculators.h"
#include "core/Json.h"
#include "services/RemoteFileSystemWebDAVBase.h"
#include "services/YandexItems.h"
#include "services/YandexSelfUploads.h"

class YandexBinarySnapshot;

class RemoteFileSystemYandex : public RemoteFileSystemWebDAVBase {
 public:
  // REST mode loads the whole disk from the JSON snapshot and keeps a revision for the feed.
  enum Mode : std::uint32_t { kWebDavMode = 0, kRestMode = 1 };
  using SelfUploadedFile = YandexSelfUploads::SelfUploadedFile;

  static constexpr int kSnapshotAttempts = 5;
  static constexpr std::int64_t kSnapshotRetryMs = 1000;
  static constexpr std::int64_t kJsonPageRetryMs = 2000;
  static constexpr std::int64_t kRateLimitWaitMs = 2000;
  static constexpr std::int64_t kNoHashWaitMs = 1000;
  static constexpr int kNoHashRepeats = 10;
  static constexpr int kSnapshotTimeoutSec = 900;
  static constexpr int kOpenTimeoutSec = 600;
  static constexpr std::int64_t kConflictReloadSec = 61;
  static constexpr std::uint32_t kConflictReloadCount = 3;
  static constexpr std::uint32_t kSizeEveryCalls = 10;
  static constexpr std::uint64_t kMinMaxFileSize = 1048576;
  // A deltas page of this many items or more is no page.
  static constexpr std::size_t kMaxDeltaItems = 16777216;
  // An operation is asked after 600 ms, then half as long again each time, at most every 2 s.
  static constexpr std::int64_t kFirstOperationPollMs = 600;
  static constexpr std::int64_t kMaxOperationPollMs = 2000;
  static constexpr std::uint64_t kListingPageLimit = 1024;

  RemoteFileSystemYandex(std::shared_ptr<RemoteFileSystemSharedData> sharedData,
                         const std::string& remoteRootPath);
  ~RemoteFileSystemYandex() override;

  // Stop also breaks a running GetChanges.
  void Stop() override;
  bool Open(const std::shared_ptr<URLProcessorFactory>& factory) override;
  Result CheckConnection() override;
  Result GetCloudSize(std::uint64_t* total, std::uint64_t* used) override;

  // --- tree and feed ------------------------------------------------------------------------
  Result GetFullTree(FolderNode* root, std::uint64_t* free, std::uint64_t* total,
                     tsl::htrie_set<char>* serviceItems) override;
  Result GetChanges(std::queue<Change>* changes) override;
  bool ApplyRemoteChange(const Change& change, FolderNode* root, std::uint64_t* free,
                         std::uint64_t* total) override;
  void OnDiskActivity() override;
  bool ShouldRenewTree() override;
  // Feeds the conflict rule with the result of a file operation, and gives it back.
  Result NoteOperationResult(Result result);
  // A confirmed upload, whose echo in the feed is to be dropped.
  void AddSelfUploadedFile(const std::string& path, const SelfUploadedFile& file);

  // --- files -------------------------------------------------------------------------------
  // In REST mode content moves by links of the resources API; otherwise over WebDAV, with both
  // digests in the head so that the server can take known content without its bytes.
  void SetMode(Mode mode) { mode_ = mode; }
  Result CreateFolderImpl(const OverwriteControl& control, const std::string& path) override;
  Result DeleteFileImpl(const OverwriteControl& control, const std::string& path,
                        std::uint64_t size, std::uint64_t time) override;
  Result DeleteFolderImpl(const FolderNode& folder, const Revision& revision,
                          const std::string& path) override;
  Result MoveFileImpl(const FileNode& file, const OverwriteControl& fromControl,
                      const std::string& from, const OverwriteControl& toControl,
                      const std::string& to) override;
  Result MoveFolderImpl(const FolderNode& folder, const OverwriteControl& fromControl,
                        const std::string& from, const OverwriteControl& toControl,
                        const std::string& to) override;
  Result OpenForCreate(const OverwriteControl& control, const std::string& path,
                       const SomeHash& hash, std::uint64_t size, std::uint64_t time,
                       std::uint64_t* resumeOffset, bool flag) override;
  Result OpenForRewrite(const OverwriteControl& control, const std::string& path,
                        const SomeHash& hash, std::uint64_t size, std::uint64_t time,
                        std::uint64_t* resumeOffset) override;
  Result OpenForRead(const std::string& path, std::uint64_t offset, std::uint64_t limit,
                     std::uint64_t size, const SomeHash& hash) override;
  Result ReadFile(std::uint8_t* buffer, std::uint32_t size, std::uint32_t* done) override;
  Result WriteFile(const std::uint8_t* data, std::uint32_t size) override;
  Result GetPublicLink(const std::string& path, bool flag, std::string* link) override;
  Result ClosePublicLink(const std::string& path) override;
  Result GetFolderListing(const std::string& path, FolderListing* listing) override;

  // The resources API's URL of `path`, with "/" and `action` when one is given.
  DispatcherUrl RequestResourceUrl(const std::string& path, const std::string& action);
  // The answer of a REST call as a result; a rate limit waits first.
  Result GetResultFromYandexHttpCode(URLProcessor::Result result, int code);
  // Follows the operation an asynchronous answer links to until it ends.
  Result WaitForOperation(const utils::json::json_tree& response);
  Result PollOperation(const std::string& href);

  // --- fixed answers ------------------------------------------------------------------------
  CloudServiceId GetServiceId() override { return CloudServiceId::YANDEX; }
  SomeHash::HashType GetHashType() override { return SomeHash::YANDEX; }
  bool IsCaseInsensitive() override { return false; }
  bool IsServiceTraitA() override { return true; }
  bool SupportsServiceTraitC() override { return true; }
  // The feed is promised in REST mode, unless the disk gave no revision to follow it from.
  bool SupportsChangesListening() override;
  bool SupportsSelfChangeFiltering() override { return mode_ == kRestMode; }
  // The service's limit; one below 1 MiB is no limit anyone meant.
  std::uint64_t GetMaxFileSize() override;

  // The path below the mounted folder.
  DispatcherUrl MakeRequestUrl(const std::string& path, bool asFolder) override;

 protected:
  Result FinishWrite(SomeHash* hashOut) override;
  // An etag (the MD5) and its sha256, as the WebDAV listing joins them.
  SomeHash MakeHashFromServerValue(const std::string& value) override;
  std::string GetPropfindBody() override;

 private:
  struct DiskInfo {
    std::uint64_t total = 0;
    std::uint64_t used = 0;
    std::string revision;
  };
  // Where a GetChanges call stands.
  struct FeedRun {
    std::string baseRevision;      // what the run's pages are asked after
    std::string latestRevision;    // the disk's revision as its pages tell it
    std::string lastItemRevision;  // of the last item read
    std::string iterationKey;
    int noHashRepeats = 0;
    bool askAgain = false;  // the page is asked again from a new revision
    std::vector<Change> changes;
  };

  // --- requests -----------------------------------------------------------------------------
  DispatcherUrl RestUrl(const std::string& path) const;
  // GET of a JSON answer over `processor`; the tree is empty when the body wasn't JSON.
  URLProcessor::Result GetJson(URLProcessor* processor, const DispatcherUrl& url,
                               utils::json::json_tree* json);
  Result RequestDiskInfo(URLProcessor* processor, DiskInfo* info);
  // A REST request on the adapter's processor; `*json` gets the answer's body when it is JSON.
  URLProcessor::Result SendRest(const URLProcessor::Request& request, utils::json::json_tree* json);
  // A change of an item: its answer mapped, an operation followed, the conflict rule fed.
  Result ChangeItem(const URLProcessor::Request& request);
  // `word` and the path logged, then `verb` on the resource of `path` with `headers`.
  Result ChangeResource(const char* word, const char* verb, const std::string& path,
                        std::vector<std::string> headers);
  Result GetWebDavCloudSize(std::uint64_t* total, std::uint64_t* used);
  // "disk:/" and the remote form of `path` below the mounted folder.
  std::string DiskPath(const std::string& path);
  Result MoveItem(const std::string& from, const std::string& to, bool overwrite);
  Result PublishOverWebDav(const std::string& path, std::string* link);

  // --- tree ---------------------------------------------------------------------------------
  Result LoadTreeWithRetries(FolderNode* root, std::uint64_t* free, std::uint64_t* total,
                             tsl::htrie_set<char>* serviceItems);
  Result GetTreeFromBinarySnapshot(FolderNode* root);
  // The verdict on a binary snapshot from how its transfer ended and how its parse went.
  Result FinishBinarySnapshot(const YandexBinarySnapshot& snapshot, bool parsed,
                              URLProcessor::Result transfer, std::int64_t startMs);
  Result GetTreeFromJsonSnapshot(FolderNode* root, tsl::htrie_set<char>* serviceItems);
  Result RequestJsonSnapshotPage(const std::string& iterationKey, utils::json::json_tree* json);
  Result AddJsonSnapshotItems(const utils::json::json_tree& items, FolderNode* root,
                              tsl::htrie_set<char>* serviceItems, std::uint64_t* files,
                              std::uint64_t* folders);
  // A good tree starts the feed afresh.
  void OnTreeLoaded(const std::string& diskRevision);

  // --- feed ---------------------------------------------------------------------------------
  // One page of deltas; nothing while pages are left.
  std::optional<Result> FetchDeltas(FeedRun* run, URLProcessor* processor);
  std::optional<Result> ReadDeltaItems(const utils::json::json_tree& items, FeedRun* run);
  std::optional<Result> AskAgainForHash(FeedRun* run);
  // Gives the feed up: a new tree is needed.
  void LoseFeed();
  Result AddSizeChanges(URLProcessor* processor, std::queue<Change>* changes);
  std::shared_ptr<URLProcessor> OpenFeedProcessor();
  void DropFeedProcessor();

  // --- tree edits ---------------------------------------------------------------------------
  void LoseTreeOnFailedChange(const char* word);
  bool ApplyFolderCreate(const Change& change, FolderNode* root);
  bool ApplyFileChange(const Change& change, FolderNode* root, std::uint64_t* free);
  bool ApplyDelete(const Change& change, FolderNode* root, std::uint64_t* free);

  // --- transfers ----------------------------------------------------------------------------
  enum class UploadRoad { kKnownContent, kLink, kWebDav };
  Result OpenUpload(const OverwriteControl& control, const std::string& path, const SomeHash& hash,
                    std::uint64_t size, bool overwrite, std::uint64_t* resumeOffset);
  // CONFLICT when the file at `path` no longer has the content `control` names.
  Result CheckCurrentContent(const std::string& path, const OverwriteControl& control);
  Result OpenUploadByLink(const std::string& path, const SomeHash& hash, std::uint64_t size,
                          bool overwrite, std::uint64_t* resumeOffset);
  Result OpenUploadOverWebDav(const OverwriteControl& control, const std::string& path,
                              const SomeHash& hash, std::uint64_t size,
                              std::uint64_t* resumeOffset);
  // The code of the head of a WebDAV upload as a result; SUCCEEDED to go on.
  Result UploadHeadResult(int code, const std::string& condition, const std::string& path,
                          const SomeHash& hash, std::uint64_t size, std::uint64_t* resumeOffset);
  // The state of an upload the server has taken: `bytesDone` bytes of it are there.
  void BeginUploadState(UploadRoad road, const std::string& path, const SomeHash& hash,
                        std::uint64_t size, std::uint64_t bytesDone);
  Result FinishUploadByLink();
  // Ends the upload short of its length; `result` unless the ending was stopped.
  Result AbandonUpload(Result result);
  Result OpenReadByLink(const std::string& path, std::uint64_t offset, std::uint64_t limit,
                        std::uint64_t size);
  // The content read isn't the one asked for: the transfer ends.
  Result RefuseRead(const std::string& expected, const std::string& got);

  yandex_items::Mount Mount() const;

  std::uint32_t mode_ = kRestMode;
  std::atomic<std::uint64_t> maxFileSize_{0};
  std::string diskRevision_;  // of the last disk answer on the adapter's thread

  // The feed's state, touched by the feed's thread and by file operations.
  std::mutex changesMutex_;
  std::string revision_;
  bool hasRevision_ = false;
  bool feedUnavailable_ = false;
  bool shouldRenewTree_ = false;
  std::int64_t firstConflictTime_ = 0;
  bool hasConflictTime_ = false;
  std::uint32_t conflictCount_ = 0;
  std::uint32_t getChangesCalls_ = 0;
  std::int64_t lastDiskActivityTime_ = 0;
  std::shared_ptr<URLProcessor> feedProcessor_;

  YandexSelfUploads selfUploadedFiles_;

  // The open read or upload.
  HashYandex expectedHash_;
  std::uint64_t expectedSize_ = 0;
  std::uint64_t bytesDone_ = 0;
  bool checkHashOnFirstRead_ = false;
  bool hashingUpload_ = false;
  bool hashingRead_ = false;
  HashYandex writtenHash_;
  HashCalculatorYandex hashCalculator_;
  // A whole read is checked by one digest, which catches any changed byte: SHA-256 where the
  // tree knows it (with the CPU's instructions the faster of the two), else MD5.
  std::unique_ptr<HashCalculator> readCalculator_;
  std::string readExpected_;
  UploadRoad uploadRoad_ = UploadRoad::kWebDav;
  std::optional<std::string> operationLink_;
  std::string uploadPath_;
};
