// RemoteFileSystemGoogle: Google Drive through the Drive API v3. Drive addresses items by id and
// is no tree (several parents, none, other people's items, same names in a folder); the adapter
// keeps the id tree of the account in the shared data and shows the drive as a tree of unique
// names, the items others shared with the account under an emulated read-only folder.
//
//   std::unique_ptr<RemoteFileSystemFactory> factory(H6BA54F7D00(CloudServiceId::GOOGLE, ""));
//   std::unique_ptr<RemoteFileSystem> drive(factory->Create());
//   drive->Open(std::make_shared<CurlURLProcessorFactory>(cookie));
//   FolderNode root;
//   drive->GetFullTree(&root, &free, &total, &shared_paths);
//
// Every JSON request goes through SendRequest, which waits out Drive's rate limits with an
// adaptive pause (GoogleRateLimiter) on the stop condition, so that Stop() ends it at once.
#pragma once

#include <QString>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_set>
#include <vector>

#include "core/HashCalculators.h"
#include "core/Json.h"
#include "core/RemoteFileSystemChangesSupport.h"
#include "core/URLProcessor.h"
#include "services/GoogleRateLimiter.h"
#include "services/GoogleResourceKeys.h"
#include "services/GoogleSelfMadeChanges.h"
#include "services/GoogleTreeConstructors.h"
#include "services/GoogleUpload.h"
#include "services/RemoteGoogleUtils.h"

class GoogleDocs;
class RemoteFileIds;

class RemoteFileSystemGoogle : public RemoteFileSystemChangesSupport {
 public:
  using CurrentUpload = google::CurrentUpload;
  using ExpectedRemoteChangeUpload = google::ExpectedRemoteChangeUpload;

  // The name of the emulated folder of items shared with the account.
  static const std::string kExternalItemsFolderName;
  // A new tree no sooner than this after the last one, however the feed was lost.
  static constexpr std::int64_t kRenewTreeAfterMs = 100'000;
  static constexpr unsigned kParentsPerListing = 16;
  // The feed's pace: polled this often while the user works with the disk...
  static constexpr std::int64_t kActivePollMs = 4'000;
  // ...and this often once the disk has been left alone this long.
  static constexpr std::int64_t kInactivePollMs = 1'200'000;
  static constexpr std::int64_t kInactiveAfterMs = 120'000;
  static constexpr std::int64_t kSizeCheckEveryMs = 120'000;

  RemoteFileSystemGoogle(std::shared_ptr<RemoteFileSystemSharedData> shared_data,
                         const std::string& remote_root_path);
  ~RemoteFileSystemGoogle() override;

  void Start() override;
  void Stop() override;

  // --- requests -----------------------------------------------------------------------------
  // A JSON GET of the Drive API under the rate limiter; `http` null uses the adapter's client.
  Result SendRequest(const std::string& path, const std::string& fields,
                     utils::json::json_tree* json_out,
                     const std::shared_ptr<URLProcessor>& http = nullptr,
                     const char* api_base = google::kDriveApiBase);
  void SetMinRateLimitValueSec(unsigned int seconds) override;
  const GoogleRateLimiter& RateLimiter() const { return rate_limiter_; }
  const GoogleResourceKeys& ResourceKeys() const { return resource_keys_; }

  // --- connection and tree ------------------------------------------------------------------
  bool Open(const std::shared_ptr<URLProcessorFactory>& factory) override;
  Result Close() override;
  Result CheckConnection() override;
  Result GetFullTree(FolderNode* root, std::uint64_t* free, std::uint64_t* total,
                     tsl::htrie_set<char>* shared_paths) override;
  Result GetFullTreeWithoutSharedData(FolderNode* root, std::uint64_t* free, std::uint64_t* total,
                                      tsl::htrie_set<char>* shared_paths) override;
  Result GetCloudSize(std::uint64_t* total, std::uint64_t* used) override;
  Result GetCloudSizeWithoutSharedData(std::uint64_t* total, std::uint64_t* used) override;
  bool ShouldRenewTree() override;
  TreeError GetTreeError() const;
  const std::unordered_set<std::string>& RootAncestors() const { return root_ancestors_; }

  // --- the change feed ----------------------------------------------------------------------
  Result GetChanges(std::queue<Change>* changes) override;
  bool ApplyRemoteChange(const Change& change, FolderNode* root, std::uint64_t* free,
                         std::uint64_t* total) override;
  void OnDiskActivity() override;
  Result PrepareAfterTreeDeserialized() override;
  bool IsInactive() const { return inactive_mode_; }
  GoogleSelfMadeChanges& SelfMadeChanges() { return expected_; }

  // --- saved state (GoogleStateWriter, GoogleStateReader) ----------------------------------
  bool Serialize(const std::atomic<bool>* stop, const tsl::htrie_set<char>& shared_paths,
                 std::ostream& out) override;
  // A failure leaves the adapter, the shared stores and `shared_paths` as they were.
  bool Deserialize(const std::atomic<bool>* stop, tsl::htrie_set<char>* shared_paths,
                   std::stringstream& in) override;
  bool NeedSavingStateInFile() override { return true; }
  QString GetLastErrorDescription() override;

  // --- items --------------------------------------------------------------------------------
  Result CreateFolderImpl(const OverwriteControl& control, const std::string& path) override;
  Result DeleteFileImpl(const OverwriteControl& control, const std::string& path,
                        std::uint64_t size, std::uint64_t time) override;
  Result DeleteFolderImpl(const FolderNode& folder, const Revision& revision,
                          const std::string& path) override;
  Result MoveFileImpl(const FileNode& file, const OverwriteControl& from_control,
                      const std::string& from, const OverwriteControl& to_control,
                      const std::string& to) override;
  Result MoveFolderImpl(const FolderNode& folder, const OverwriteControl& from_control,
                        const std::string& from, const OverwriteControl& to_control,
                        const std::string& to) override;
  Result GetPublicLink(const std::string& path, bool flag, std::string* link) override;
  Result ClosePublicLink(const std::string& path) override;
  std::uint64_t GetMountedDirSize() override;
  std::uint64_t GetTrashedFilesSize() override;
  bool IsItemInMountedDir(const std::string& path) override;
  utils::ValueOrError<std::vector<FileInfo>, Result> GetLastFiles(int count) override;

  // --- file content ------------------------------------------------------------------------
  Result OpenForCreate(const OverwriteControl& control, const std::string& path,
                       const SomeHash& hash, std::uint64_t size, std::uint64_t time,
                       std::uint64_t* resume_offset, bool flag) override;
  Result OpenForRewrite(const OverwriteControl& control, const std::string& path,
                        const SomeHash& hash, std::uint64_t size, std::uint64_t time,
                        std::uint64_t* resume_offset) override;
  Result WriteFile(const std::uint8_t* data, std::uint32_t size) override;
  Result OpenForRead(const std::string& path, std::uint64_t offset, std::uint64_t limit,
                     std::uint64_t size, const SomeHash& hash) override;
  Result ReadFile(std::uint8_t* buffer, std::uint32_t size, std::uint32_t* done) override;
  Result CloseFile(FileProperties* props) override;
  Result InterruptFile() override;
  void SetFileHashToResumeInterruptedUpload(const SomeHash& hash) override;
  bool IsReadingFakeContent() override { return !read_.fake_content.empty(); }
  // RFC 3339 in UTC, as Drive takes "modifiedTime": "2023-11-14T22:13:20.000Z".
  static std::string FormatTime(std::uint64_t seconds);

  // --- capabilities -------------------------------------------------------------------------
  std::uint64_t GetMaxFileSize() override { return max_upload_size_; }
  bool IsServiceTraitA() override { return true; }
  bool IsCaseInsensitive() override { return false; }
  bool SupportsServiceTraitC() override { return true; }
  bool SupportsResumingUpload() override { return true; }
  CloudServiceId GetServiceId() override { return CloudServiceId::GOOGLE; }
  SomeHash::HashType GetHashType() override { return SomeHash::GOOGLE; }

 private:
  struct Quota {
    std::uint64_t total = 0;
    std::uint64_t used = 0;
  };

  std::shared_ptr<URLProcessor> Client() const;
  std::shared_ptr<URLProcessor> FeedClient() const;
  // A start or a stop reaches every client that is open.
  void ForEachClient(void (Stoppable::*call)());
  bool OpenClient();
  std::shared_ptr<URLProcessor> MakeClient();
  bool IsRooted() const { return !GetRemoteRootPath().empty(); }
  Result GetTree(FolderNode* root, std::uint64_t* free, std::uint64_t* total,
                 tsl::htrie_set<char>* shared_paths, bool shared_items_enabled);
  // The ids from the drive's root down to the mounted root; only the drive's root when the whole
  // drive is mounted.
  Result FindRootChain(std::vector<std::string>* chain);
  Result ReadAbout(bool with_shared_data, Quota* quota,
                   const std::shared_ptr<URLProcessor>& http = nullptr);
  // Every page of every folder batch into `constructor`.
  Result ListTree(TreeConstructor& constructor, const std::shared_ptr<RemoteFileIds>& ids,
                  FolderNode* root, std::vector<std::string>* shared_ids);
  Result ListPages(TreeConstructor& constructor, const std::vector<std::string>& parents,
                   std::vector<std::string>* shared_ids);
  // False when the page held what no tree can take; the failure is reported.
  bool AddPage(TreeConstructor& constructor, const utils::json::json_tree& files,
               std::vector<std::string>* shared_ids);
  std::string ListingPath(const std::string& page_token,
                          const std::vector<std::string>& parents) const;
  bool QueueChildFolders(const std::vector<std::string>& taken, const RemoteFileIds& ids,
                         FolderNode* root, std::deque<std::string>* queue);
  void ReportTreeFailure(const TreeError& error, const char* what, const char* metric);
  void ReportChangesFailure(const TreeError& error, const char* what);
  // The error for the user's message, and its metric with the reason as value.
  void KeepTreeError(const TreeError& error, const char* metric);
  Result GetStartPageToken(std::string* token);
  // The lines that tell a failed request and an answer without the text asked for.
  struct TextFailureLines {
    const char* failed;
    const char* empty;
  };
  // One text member of a GET's answer, which must not be empty.
  Result ReadText(const std::string& path, const std::string& fields, const char* key,
                  const TextFailureLines& lines, std::string* text);

  // The feed.
  Result FetchChanges(std::vector<Change>* changes);
  // False when the page can't be applied; the failure is reported and the tree renewed.
  bool ReadChangesPage(const utils::json::json_tree& entries, std::vector<Change>* changes);
  void WaitIdle();
  void WakeChanges();
  bool WaitForChanges(std::int64_t ms, const std::function<bool()>& done);
  void CheckSizes(std::queue<Change>* changes);
  bool ApplyFileChange(const Change& change, FolderNode* root, std::uint64_t* free);
  bool ApplyFolderChange(const Change& change, FolderNode* root);
  // A name taken in the tree: the reason is kept for the user's message, and the apply failed.
  bool NameCollision(const Change& change, FolderNode* parent, const std::string& name);
  bool FailedApply();

  // Items.
  // A request that changes the drive: `expected` is the status of success (204 for a DELETE).
  // `json` null: the answer carries nothing to read (a 204).
  Result WriteRequest(const std::string& verb, const std::string& path, const std::string& body,
                      const std::vector<std::string>& ids_for_keys, utils::json::json_tree* json);
  // MapGoogleFailure, and a CONFLICT wakes the feed: the tree is behind the server.
  Result MapFailure(URLProcessor* http, URLProcessorResult url_result);
  // An id of the tree, or empty (and a restored tree is renewed).
  std::string FileId(const std::string& path);
  std::string FolderId(const std::string& path);
  // The file's id at a non-empty `path`, else the folder's; `missing_line` begins the line that
  // tells there is neither.
  Result ExistingItemId(const std::string& path, const char* missing_line, std::string* id);
  // The file's id at a canonical `path`; `missing_line` tells that there is none.
  Result ExistingFileId(const std::string& path, const char* missing_line, std::string* id);
  Result TrashItem(const std::string& id);
  // TrashItem with its echo expected by the feed, taken back when the request fails.
  Result TrashWithEcho(const std::string& id);
  // A move or rename of an item: its id and both places, resolved in the id tree.
  struct Relocation {
    std::string id;
    std::string old_parent_id;
    std::string new_parent_id;
    std::string old_name;
    std::string new_name;
  };
  Result ResolveRelocation(bool is_folder, const std::string& from, const std::string& to,
                           Relocation* relocation);
  Result PatchItem(const Relocation& relocation, std::int64_t* version);
  // Resolve and PATCH, the emulated shared folder itself refused; a failure is logged.
  Result Relocate(bool folder, const std::string& from, const std::string& to,
                  Relocation* relocation, std::int64_t* version);
  // A move of either kind, its id tree updated; `expect_echo` tells the feed what comes back.
  Result MoveItem(bool folder, const std::string& from, const std::string& to,
                  const std::function<void(const Relocation&, std::int64_t version)>& expect_echo);
  Result SumSizes(const std::string& query, const std::string& fields, const char* order,
                  std::uint64_t* sum);

  // File content.
  enum Operation { kNone = 0, kFailed = 1, kWriting = 2, kReading = 3 };
  struct CurrentRead {
    std::uint64_t read_size = 0;
    std::uint64_t read_offset = 0;
    bool size_known = false;
    bool first_chunk = true;
    std::string fake_content;  // a Google document's shortcut text: nothing is downloaded
    bool fake = false;         // even when the range asked cuts all of the text away
    bool open = false;         // a GET whose body is not all read yet
  };
  std::shared_ptr<URLProcessor> FileClient() const;
  // The content client, when the file slot is free for a new transfer.
  Result IdleFileSlot(std::shared_ptr<URLProcessor>* http);
  Result OpenUpload(const std::string& path, const std::string& file_id, const SomeHash& hash,
                    std::uint64_t size, std::uint64_t time, std::uint64_t* resume_offset);
  Result RequestUploadSession(const std::string& path, const std::string& url, bool is_update,
                              std::uint64_t mtime, CurrentUpload* upload);
  // A stored session of this path and content: true when it took the upload over, with
  // `*offset` where the caller goes on; `*result` tells a failure of the check.
  bool ResumeUpload(const std::string& path, std::uint64_t size, const SomeHash& hash,
                    Result* result, std::uint64_t* offset);
  Result StartBody(URLProcessor& http);
  // The streaming PUT ended: the server's answer checked, the file recorded.
  Result FinishUpload(FileProperties* props);
  // The answer of a finished session: its file checked against what was sent.
  Result TakeUploadedFile(const std::string& answer, FileProperties* props);
  Result PatchMtime(const std::string& id, std::uint64_t mtime, std::int64_t* version);
  // An upload that stopped short is kept for the next try, when its content is known.
  void KeepSessionForResume();
  const HashGoogle& UploadDigest();
  Result EndRead();
  Result FailedRead(URLProcessor& http, const std::string& body);
  std::shared_ptr<resumable_upload::ResumableSessions<CurrentUpload>> Sessions() const;

  std::shared_ptr<RemoteFileIds> SharedIds() const;
  std::shared_ptr<GoogleDocs> SharedDocs() const;

  GoogleRateLimiter rate_limiter_;
  // The account's, in the shared data: a key learned by one instance serves all.
  GoogleResourceKeys& resource_keys_;
  mutable std::mutex http_mutex_;
  std::shared_ptr<URLProcessor> http_;
  std::shared_ptr<URLProcessor> feed_http_;
  std::shared_ptr<URLProcessorFactory> url_factory_;

  std::string page_token_;
  std::atomic<bool> need_new_tree_{false};
  bool tree_valid_ = true;
  bool restored_from_file_ = false;
  bool shared_items_enabled_ = true;
  std::atomic<std::int64_t> last_tree_time_ms_{INT64_MIN};
  std::int64_t last_size_check_time_ms_ = 0;
  std::uint64_t total_size_ = 0;
  std::uint64_t used_size_ = 0;
  std::uint64_t max_upload_size_ = UINT64_MAX;
  std::unordered_set<std::string> root_ancestors_;
  unsigned requests_count_ = 0;
  mutable std::mutex tree_error_mutex_;
  TreeError tree_error_;

  std::shared_ptr<URLProcessor> file_http_;  // guarded by http_mutex_
  std::mutex operation_mutex_;
  std::atomic<int> operation_{kNone};
  CurrentUpload upload_;
  HashCalculatorGoogle upload_hash_;
  std::optional<HashGoogle> upload_digest_;  // upload_hash_ finished, once the bytes are all in
  std::unique_ptr<google::GoogleUpload> uploader_;
  std::string completed_answer_;  // a resumed session the server had finished already
  CurrentRead read_;
  std::string read_id_;

  GoogleSelfMadeChanges expected_;
  std::mutex changes_mutex_;
  std::condition_variable changes_condition_;
  std::int64_t last_disk_activity_time_ms_ = 0;  // guarded by changes_mutex_
  std::atomic<bool> inactive_mode_{false};
  std::atomic<bool> wake_changes_{false};
};
