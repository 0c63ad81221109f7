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
// does not hold them up, and the file client (file operations, links, thumbnails).
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <queue>
#include <string>

#include "core/Json.h"
#include "core/RemoteFileSystemChangesSupport.h"
#include "core/URLProcessor.h"
#include "core/tsl/htrie_map.h"
#include "services/DropboxListing.h"
#include "services/DropboxSelfMadeFilter.h"

class RemoteFileSystemDropbox : public RemoteFileSystemChangesSupport {
 public:
  // An interrupted upload session, kept in the account's store.
  struct UploadSession {
    HashDropbox hash;
    std::uint64_t size = 0;
    std::uint64_t offset = 0;
    std::string sessionId;
  };

  RemoteFileSystemDropbox(std::shared_ptr<RemoteFileSystemSharedData> sharedData,
                          const std::string& remoteRootPath);
  ~RemoteFileSystemDropbox() override;

  void Start() override;
  void Stop() override;

  // --- files (content transfers are not served by this adapter yet) -------------------------
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

  // --- the doors ----------------------------------------------------------------------------
  Result CallRpc(const std::string& name, const std::string& body, utils::json::json_tree* json,
                 const Client& client);
  Result CallRpcUrl(const std::string& url, const std::string& body, utils::json::json_tree* json,
                    const Client& client, bool authorize);
  Result HandleRpcFailure(const utils::json::json_tree& json, const Client& client);
  Result HandleEndpointError(const utils::json::json_tree& json);
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
  Client FileClient();
  Client ChangesClient();
  bool EnsureChangesClient();

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
