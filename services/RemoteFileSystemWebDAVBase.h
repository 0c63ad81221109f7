// RemoteFileSystemWebDAVBase: what every adapter that speaks WebDAV shares. One request per
// operation over the adapter's own URLProcessor, the state machine of the one open file, the walk
// of the whole tree over MultithreadedTreeDownloader, and the mapping of answers to results.
//
// A derived class gives the server (baseUrl_, set in its Open), the conditional requests of its
// service (DeleteFileImpl, OpenForRewrite) and the kind of hash it makes of an etag.
//
//   RemoteFileSystemWebDAV dav(shared, "backups");
//   dav.Open(factory);                        // factory's processors carry the account's cookie
//   dav.GetFullTree(&root, &free, &total, &serviceItems);
#pragma once

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "core/DispatcherUrl.h"
#include "core/RemoteFileSystemNoChangesSupport.h"
#include "core/URLProcessor.h"

namespace auxil {
class MultithreadedTreeDownloader;
}

class RemoteFileSystemWebDAVBase : public RemoteFileSystemNoChangesSupport {
 public:
  // The states of the one open file.
  enum OpenMode : std::uint32_t {
    kClosed = 0,
    kIdle = 1,
    kWritePrepared = 2,  // a write set up by a derived class; CloseFile finishes it
    kReading = 3,
    kWriting = 4,
  };

  RemoteFileSystemWebDAVBase(std::shared_ptr<RemoteFileSystemSharedData> sharedData,
                             const std::string& remoteRootPath);
  ~RemoteFileSystemWebDAVBase() override;

  // Start clears the stop state of the processor; Stop reaches a running tree walk too.
  void Start() override;
  void Stop() override;

  bool Open(const std::shared_ptr<URLProcessorFactory>& factory) override;
  Result Close() override;

  Result WriteFile(const std::uint8_t* data, std::uint32_t size) override;
  Result CloseFile(FileProperties* props) override;
  Result InterruptFile() override;
  Result CreateFolderImpl(const OverwriteControl& control, const std::string& path) override;
  Result DeleteFolderImpl(const FolderNode& folder, const Revision& revision,
                          const std::string& path) override;
  // The same PUT serves new and existing files: the derived OpenForRewrite.
  Result OpenForCreate(const OverwriteControl& control, const std::string& path,
                       const SomeHash& hash, std::uint64_t size, std::uint64_t time,
                       std::uint64_t* resumeOffset, bool flag) override;
  Result OpenForRead(const std::string& path, std::uint64_t offset, std::uint64_t limit,
                     std::uint64_t size, const SomeHash& hash) override;
  Result ReadFile(std::uint8_t* buffer, std::uint32_t size, std::uint32_t* done) override;
  Result MoveFileImpl(const FileNode& file, const OverwriteControl& fromControl,
                      const std::string& from, const OverwriteControl& toControl,
                      const std::string& to) override;
  Result MoveFolderImpl(const FolderNode& folder, const OverwriteControl& fromControl,
                        const std::string& from, const OverwriteControl& toControl,
                        const std::string& to) override;

  Result GetFullTree(FolderNode* root, std::uint64_t* free, std::uint64_t* total,
                     tsl::htrie_set<char>* serviceItems) override;
  Result GetFolderListing(const std::string& path, FolderListing* listing) override;
  // Servers without the quota properties of RFC 4331 give a total and a use of 0.
  Result GetCloudSize(std::uint64_t* total, std::uint64_t* used) override;

  Result GetPublicLink(const std::string& path, bool flag, std::string* link) override;
  Result ClosePublicLink(const std::string& path) override;
  std::uint64_t GetMaxFileSize() override;
  Result UpdateMaxFileSize() override;
  double GetFirstSnapshotProgress() override;
  QString GetLastErrorDescription() override;
  bool IsServiceTraitA() override { return false; }
  bool SupportsResumingUpload() override { return false; }
  bool SupportsMoveToExistingFile() override { return true; }

  // The URL of a remote path; `asFolder` ends it with "/".
  virtual DispatcherUrl MakeRequestUrl(const std::string& path, bool asFolder);
  virtual DispatcherUrl MakeFileUrl(const std::string& path) { return MakeRequestUrl(path, false); }
  virtual DispatcherUrl MakeFolderUrl(const std::string& path) {
    return MakeRequestUrl(path, true);
  }

 protected:
  virtual Result FinishRead();
  virtual Result FinishWrite(SomeHash* hashOut);
  // An etag or sha256 text of the server as the service's kind of hash.
  virtual SomeHash MakeHashFromServerValue(const std::string& value) = 0;
  // Empty: the server chooses the properties of a listing.
  virtual std::string GetPropfindBody();

  // DELETE with "If-Match: `ifMatch`" unless it is empty.
  Result DeleteItem(const std::string& path, const std::string& ifMatch);
  // `folder`: both URLs name a collection.
  Result MoveItem(const std::string& from, const std::string& to, const OverwriteControl& toControl,
                  bool folder);
  // Sends a request whose answer only matters by its code; logs what the server said.
  URLProcessor::Result SendAndFinish(const URLProcessor::Request& request);
  // The answer every request shares: SUCCEEDED for one of the `good` transfer results, STOPPED
  // (logged) for a stop; nothing for the rest, which each operation words and maps itself.
  static std::optional<Result> SettledResult(URLProcessor::Result result,
                                             std::initializer_list<URLProcessor::Result> good);
  // Ends the running transfer, records the fail reason and counts a network failure.
  URLProcessor::Result FinishTransfer(const char* metricTag);
  // False, with the line that tells it, when there is no open client: never opened, a failed
  // Open, or closed since. Nothing may go out then.
  bool HasClient() const;
  // SUCCEEDED when a file may be opened: a client, and no other file open.
  Result CheckFileSlotIdle() const;
  // The URL text of the running or last request.
  std::string CurrentUrl() const;
  // The start of every tree download: a cleared tree and progress, then the quota, which sets
  // `*free` (never below 0), `*total` and the bytes the progress expects.
  Result BeginTree(FolderNode* root, std::uint64_t* free, std::uint64_t* total);
  // Sends a read of `request`'s URL, ranged as OpenForRead's arguments ask, and opens the file
  // slot for it when the answer's head is a good one.
  Result OpenRead(URLProcessor::Request request, std::uint64_t offset, std::uint64_t limit,
                  std::uint64_t size);
  // Sends the PROPFIND of one folder level on `processor` and leaves the answer unread.
  Result ListFolderDepth1(const std::string& path, URLProcessor* processor);

  std::int64_t lastTreeTime_ = 0;
  std::int64_t lastTreeAttemptTime_ = 0;
  std::uint32_t openMode_ = kClosed;
  std::shared_ptr<URLProcessorFactory> urlProcessorFactory_;
  std::shared_ptr<URLProcessor> urlProcessor_;
  std::string responseHeaders_;
  DispatcherUrl baseUrl_;
  // The mounted root on the server in its remote form: "/backups" or "" for the whole account.
  std::string mountedRoot_;
  bool serverLacksFeatures_ = false;
  std::string responseBody_;
  std::uint64_t readStartOffset_ = 0;

 private:
  // Guards runningDownloader_ and the processor pointer against Stop() from another thread.
  std::mutex downloaderMutex_;
  auxil::MultithreadedTreeDownloader* runningDownloader_ = nullptr;
};
