// RemoteFileSystemDropbox: a Dropbox account through API v2. Paths are the identity (no id tree):
// the tree comes from one recursive "files/list_folder", the feed from a longpoll on its cursor,
// and the adapter's own changes are told from foreign ones by DropboxSelfMadeFilter.
//
// Three doors: CallRpc (JSON in and out on the API host), the longpoll on the notify host without
// a token, and content calls on the content host with their arguments in "Dropbox-API-Arg".
// Every failure goes through HandleRpcFailure, which maps Dropbox's "error_summary" to a Result
// and waits out a rate limit on the stop condition.
//
// Two clients: the changes client (snapshot, feed, quota), so that a transfer on the file client
// does not hold them up, and the file client (transfers, file operations, links, thumbnails).
//
// A transfer streams: a download is read block by block with its content hash checked on the
// first bytes; an upload is one request, or a session whose chunks are sized by a
// ChunkSizeController, and an interrupted session is kept in the account's store so that another
// adapter of the factory goes on where the server stands.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <queue>
#include <string>

#include "core/HashCalculators.h"
#include "core/Json.h"
#include "core/RemoteFileSystemChangesSupport.h"
#include "core/URLProcessor.h"
#include "core/tsl/htrie_map.h"
#include "services/ChunkSizeController.h"
#include "services/DropboxListing.h"
#include "services/DropboxSelfMadeFilter.h"
#include "services/ResumableUpload.h"

class RemoteFileSystemDropbox : public RemoteFileSystemChangesSupport {
 public:
  // What the commit of an upload says: where, and over which revision.
  struct UploadArgs {
    std::string path;  // remote root + path
    bool create = false;
    std::uint64_t time = 0;  // 0: unknown, the session stays open until CloseFile brings it
    std::string rev;         // the revision an overwrite must hit; empty if none
    bool strictConflict = true;
  };

  // The state of an upload, and what the account's store keeps of an interrupted one.
  struct UploadSession {
    bool active = false;
    bool finishing = false;
    std::string sessionId;
    ChunkSizeController chunking{kChunkGranularity, kMaxChunk, kMaxChunk};
    std::uint64_t fileSize = 0;
    std::uint64_t writePosition = 0;
    bool hasSize = false;
    HashDropbox expectedHash;
    bool resumed = false;
    HashCalculatorDropbox hashCalculator;
    HashDropbox resumeHash;
    std::uint64_t resumeSize = 0;
    UploadArgs args;
    std::uint64_t sessionOffset = 0;  // of the chunk in flight
  };

  static constexpr std::uint64_t kChunkGranularity = 128;
  static constexpr std::uint64_t kMaxChunk = 134217728;

  RemoteFileSystemDropbox(std::shared_ptr<RemoteFileSystemSharedData> sharedData,
                          const std::string& remoteRootPath);
  ~RemoteFileSystemDropbox() override;

  void Start() override;
  void Stop() override;

  // --- files --------------------------------------------------------------------------------
  Result WriteFile(const std::uint8_t* data, std::uint32_t size) override;
  Result CloseFile(FileProperties* props) override;
  Result InterruptFile() override;
  Result OpenForCreate(const OverwriteControl& control, const std::string& path,
                       const SomeHash& hash, std::uint64_t size, std::uint64_t time,
                       std::uint64_t* resumeOffset, bool flag) override;
  Result OpenForRead(const std::string& path, std::uint64_t offset, std::uint64_t limit,
                     std::uint64_t size, const SomeHash& hash) override;
  Result OpenForRewrite(const OverwriteControl& control, const std::string& path,
                        const SomeHash& hash, std::uint64_t size, std::uint64_t time,
                        std::uint64_t* resumeOffset) override;
  Result ReadFile(std::uint8_t* buffer, std::uint32_t size, std::uint32_t* done) override;
  void SetFileHashToResumeInterruptedUpload(const SomeHash& hash) override;

  // --- file operations ----------------------------------------------------------------------
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
  Result GetPublicLink(const std::string& path, bool flag, std::string* link) override;
  Result ClosePublicLink(const std::string& path) override;
  utils::ValueOrError<QImage, Result> GetThumbnail(const std::string& path) override;

  // --- connection, tree and feed -------------------------------------------------------------
  bool Open(const std::shared_ptr<URLProcessorFactory>& factory) override;
  Result Close() override;
  Result CheckConnection() override;
  Result GetFullTree(FolderNode* root, std::uint64_t* free, std::uint64_t* total,
                     tsl::htrie_set<char>* serviceItems) override;
  Result GetChanges(std::queue<Change>* changes) override;
  bool ApplyRemoteChange(const Change& change, FolderNode* root, std::uint64_t* free,
                         std::uint64_t* total) override;
  bool ShouldRenewTree() override;
  Result GetCloudSize(std::uint64_t* total, std::uint64_t* used) override;
  double GetFirstSnapshotProgress() override;

  // --- fixed answers ------------------------------------------------------------------------
  std::uint64_t GetMaxFileSize() override { return UINT64_MAX; }
  bool IsServiceTraitA() override { return false; }
  bool IsCaseInsensitive() override { return true; }
  bool SupportsServiceTraitC() override { return false; }
  bool SupportsResumingUpload() override { return true; }
  const UnsupportedSymbolsMap& GetUnsupportedSymbolsMap() const override;
  CloudServiceId GetServiceId() override { return CloudServiceId::DROPBOX; }
  SomeHash::HashType GetHashType() override { return SomeHash::DROPBOX; }

 private:
  using Client = std::shared_ptr<URLProcessor>;
  using LinkMap = tsl::htrie_map<char, std::string>;
  using ResumableSessions = resumable_upload::ResumableSessions<UploadSession>;

  // --- the doors ----------------------------------------------------------------------------
  Result CallRpc(const std::string& name, const std::string& body, utils::json::json_tree* json,
                 const Client& client);
  Result CallRpcUrl(const std::string& url, const std::string& body, utils::json::json_tree* json,
                    const Client& client, bool authorize);
  Result HandleRpcFailure(const utils::json::json_tree& json, const Client& client);
  Result HandleEndpointError(const utils::json::json_tree& json);
  // An "incorrect_offset" answer: the server's offset becomes the session's and the writer's.
  void CorrectSessionOffset(const utils::json::json_tree& json);
  // A wait the service asked for; STOPPED when Stop ended it.
  Result WaitAsAsked(std::int64_t ms, Result otherwise);

  // --- snapshot and feed --------------------------------------------------------------------
  Result GetSpaceUsage(std::uint64_t* allocated, std::uint64_t* used, const Client& client);
  Result ListFolderPage(const std::string& name, const std::string& body,
                        utils::json::json_tree* json, const Client& client);
  struct SnapshotCounts {
    std::uint64_t files = 0;
    std::uint64_t folders = 0;
  };
  Result ApplySnapshotPage(const utils::json::json_tree& json, FolderNode* root,
                           std::uint64_t* free, std::uint64_t* total, SnapshotCounts* counts,
                           DropboxPage* page);
  Result Longpoll(bool* hasChanges);
  Result ReadChanges(std::queue<Change>* changes);
  // The change of one feed entry; false for an entry that is skipped (logged).
  bool ChangeOfFeedEntry(const utils::json::json_tree& json, Change* change);
  Result ListSharedLinks(LinkMap* links);
  void CheckSharedLinkChanges(std::queue<Change>* changes);
  void PushSizeChanges(std::queue<Change>* changes);
  bool StripRemoteRoot(std::string* path) const;
  // The local path of an entry's canonical path; false when it lies outside the remote root.
  bool ToLocalPath(const std::string& entryPath, std::string* local) const;

  // --- tree edits ---------------------------------------------------------------------------
  bool ApplyFileCreate(const Change& change, FolderNode* root, std::uint64_t* free);
  bool ApplyDelete(const Change& change, FolderNode* root, std::uint64_t* free);
  bool ApplyFolderCreate(const Change& change, FolderNode* root, std::uint64_t* free);

  // --- file operations ----------------------------------------------------------------------
  // "/" + the remote root + the mapped local path.
  std::string RemotePath(const std::string& path);
  Result GetExistingPublicLink(const std::string& remotePath, std::string* link);
  // The request of a delete or a move; `expectEcho` records, once it succeeded, the change the
  // feed will bring back.
  Result DeleteRemote(const std::string& path, const std::string& parentRev,
                      const std::function<void()>& expectEcho);
  Result MoveRemote(const std::string& from, const std::string& to,
                    const std::function<void()>& expectEcho);
  Client FileClient();
  // A start or a stop reaches every client that is open.
  void ForEachClient(void (Stoppable::*call)());
  Client ChangesClient();
  bool EnsureChangesClient();

  // --- transfers ----------------------------------------------------------------------------
  enum FileMode { kClosed = 0, kIdle = 1, kReading = 2, kWriting = 3 };
  Result StartUpload(const std::string& path, const std::string& rev, const SomeHash& hash,
                     std::uint64_t size, std::uint64_t time, bool create);
  Result StartUploadSession();
  Result AppendToSession(std::uint64_t offset, std::uint64_t size, bool closePrevious);
  Result FinishSession(std::uint64_t offset, std::uint64_t size, bool closePrevious);
  // The shared head of an append and a finish: the verdict on the chunk before, the session id.
  Result JudgePreviousChunk(bool closePrevious, bool appending);
  Result SendChunk(const char* endpoint, const std::string& arg, std::uint64_t size);
  // The request for the chunk that begins at `chunkEnd`: an append, or the finish.
  Result NextChunk(std::uint64_t chunkEnd);
  Result FailedWrite(const Client& client);
  Result StoppedUpload();
  void AbandonUpload();
  Result FinishUpload(const SomeHash& hash, std::uint64_t time, SomeHash* out);
  Result CheckFinishedUpload(SomeHash* out);
  Result CheckReadHash(const Client& client);
  Result FailedRead(const Client& client);
  Result CloseRead();
  bool TryResumeUpload(const std::string& path, std::uint64_t size, const SomeHash& hash,
                       Result* result, std::uint64_t* resumeOffset);
  std::string MakeCommitArg(const UploadArgs& args) const;
  // The "Dropbox-API-Result" header of the last answer.
  bool ReadApiResult(utils::json::json_tree* json, const Client& client);
  // The answer of the request in flight: its body into `responseBuffer_`, and how it ended.
  URLProcessor::Result EndRequest(const Client& client);
  // EndRequest of an upload, its failure counted and its stop logged; `*code` the HTTP status.
  URLProcessor::Result EndUploadRequest(const Client& client, int* code);
  Result FailureOfResponse(const Client& client);
  ResumableSessions& Sessions();

  int fileMode_ = kIdle;
  std::string transferPath_;
  std::uint64_t readFileSize_ = 0;
  std::uint64_t readOffset_ = 0;
  bool checkReadHash_ = false;
  HashDropbox readExpectedHash_;
  UploadSession upload_;
  std::string responseBuffer_;
  bool requestOpen_ = false;  // the file client has a request whose answer is not read yet

  std::shared_ptr<URLProcessorFactory> factory_;
  std::mutex clientsMutex_;  // Stop may come while a client is made
  Client changesClient_;
  Client fileClient_;

  std::atomic<std::int64_t> lastTreeRequestTime_{0};
  std::int64_t lastSizeRequestTime_ = 0;
  std::string cursor_;
  std::atomic<bool> treeRequested_{false};
  std::atomic<bool> renewTree_{false};
  std::string root_;  // remote root with a trailing slash, or empty
  std::string lowerRoot_;
  std::uint32_t rootDepth_ = 0;
  std::int64_t lastLinksTime_ = 0;
  LinkMap sharedLinks_;
  std::mutex changesMutex_;
  DropboxSelfMadeFilter selfMade_;
};

// The store keys a Dropbox session by the hash and size a later attempt has to match, and resumes
// it at the start of the chunk that was in flight.
template <>
struct resumable_upload::SessionFields<RemoteFileSystemDropbox::UploadSession> {
  using Session = RemoteFileSystemDropbox::UploadSession;
  static HashDropbox& Hash(Session& session) { return session.resumeHash; }
  static const HashDropbox& Hash(const Session& session) { return session.resumeHash; }
  static std::uint64_t Size(const Session& session) { return session.resumeSize; }
  static std::uint64_t Offset(const Session& session) { return session.sessionOffset; }
};
