// MultithreadedTreeDownloader: the walk of a whole WebDAV tree, one Depth 1 PROPFIND per folder,
// breadth-first over a few worker threads with a URLProcessor each. The caller's thread keeps the
// books: it takes each finished folder, feeds its subfolders back as work and ends the walk.
//
//   auxil::MultithreadedTreeDownloader downloader(
//       [this](const std::string& path, std::shared_ptr<URLProcessor> processor) {
//         return ListFolderDepth1(path, processor);  // sends the PROPFIND, nothing more
//       },
//       [this](const std::string& etag) { return MakeHashFromServerValue(etag); }, this);
//   { lock; runningDownloader = &downloader; }       // so that Stop() reaches it
//   FileSystem::Result result = downloader.DownloadTree(root, *factory, &bytesSeen);
//   { lock; runningDownloader = nullptr; downloader.Finish(); }
//
// Stop() may come from any thread; the walk then ends with STOPPED.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "core/FileSystem.h"
#include "core/InterThreadQueue.h"
#include "core/Stoppable.h"
#include "core/URLProcessor.h"
#include "services/ParseFolderListener.h"

class FolderNode;
class RemoteNameMapper;

namespace auxil {

class MultithreadedTreeDownloader : public Stoppable {
 public:
  // One folder to list. A null `folder` ends the worker that takes it.
  struct Query {
    std::string path;  // relative to the remote root, "" for the root
    FolderNode* folder = nullptr;
  };

  // The outcome of one folder; a failure carries no folder.
  struct DownloadedDir {
    FolderNode* folder = nullptr;
    std::string path;
    FileSystem::Result result = FileSystem::SUCCEEDED;
  };

  // Sends the listing request of `path` on `processor` and leaves the answer unread.
  using ListFolderFunction =
      std::function<FileSystem::Result(const std::string& path, std::shared_ptr<URLProcessor>)>;

  static constexpr int kThreadCount = 3;

  MultithreadedTreeDownloader(ListFolderFunction listFolder, MakeHashFunction makeHash,
                              RemoteNameMapper* nameMapper);
  ~MultithreadedTreeDownloader() override;
  MultithreadedTreeDownloader(const MultithreadedTreeDownloader&) = delete;
  MultithreadedTreeDownloader& operator=(const MultithreadedTreeDownloader&) = delete;

  // Walks the tree below `root` with kThreadCount workers and fills it. The sizes of the files
  // listed are added to `bytesSeen` as folders finish. The caller calls Finish() afterwards.
  FileSystem::Result DownloadTree(FolderNode* root, URLProcessorFactory& factory,
                                  std::atomic<std::uint64_t>* bytesSeen);

  // Starts the workers, each with its own processor from `factory`.
  void Start(int threadCount, URLProcessorFactory& factory,
             const std::optional<std::string>& userAgent = std::nullopt);
  // Any thread: ends the walk with STOPPED and breaks the running requests.
  void Stop() override;
  // Clears the stop state of the processors.
  void Start() override;
  // Breaks the running requests, ends and joins the workers; the downloader holds no thread
  // afterwards. Safe against a Stop() from another thread at the same time.
  void Finish();

  // Some listing failed on a file without an etag.
  bool ServerLacksEtag() const { return serverLacksEtag_; }

 private:
  void Worker(std::shared_ptr<URLProcessor> processor);
  void ListWithRetries(const Query& query, const std::shared_ptr<URLProcessor>& processor,
                       const std::string& responseHeaders);
  static FileSystem::Result ResultOfFailedListing(int code);
  FileSystem::Result DownloadDir(const Query& query,
                                 const std::shared_ptr<URLProcessor>& processor);
  void WaitForRateLimit(const std::string& responseHeaders, int* delay);
  // Sleeps unless or until Stop() or Finish().
  void SleepWhileRunning(int seconds);
  void PushSubfolders(const DownloadedDir& dir, std::uint64_t* discovered);
  // Breaks the running requests, and those of processors made later.
  void StopProcessors();

  template <typename T, std::uint64_t kSize>
  class FixedItemSizeQueue : public utils::InterThreadQueue<T> {
   public:
    std::uint64_t ItemSize(const T&) const override { return kSize; }
  };

  std::vector<std::thread> threads_;
  std::vector<std::shared_ptr<URLProcessor>> processors_;
  FixedItemSizeQueue<DownloadedDir, 32> downloaded_;
  FixedItemSizeQueue<Query, 28> queries_;
  ListFolderFunction listFolder_;
  MakeHashFunction makeHash_;
  std::atomic<bool> rateLimited_{false};
  std::atomic<bool> running_{false};
  std::atomic<std::int64_t> lastOkTime_{0};  // seconds since 1970
  std::mutex rateLimitMutex_;
  RemoteNameMapper* nameMapper_;
  std::atomic<bool> rateLimitReported_{false};
  std::atomic<bool> serverLacksEtag_{false};
  // Stop() comes from any thread, while Start() or Finish() may be changing the processors or
  // ending the workers.
  std::mutex processorsMutex_;
  bool stopped_ = false;    // under processorsMutex_
  bool finishing_ = false;  // under processorsMutex_
  std::mutex sleepMutex_;
  std::condition_variable sleepCondition_;
};

}  // namespace auxil
