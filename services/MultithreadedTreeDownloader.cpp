#include "services/MultithreadedTreeDownloader.h"

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <utility>

#include "core/Clock.h"
#include "core/ExceptionCatchWrapper.h"
#include "core/LoggerWrapper.h"
#include "core/Nodes.h"
#include "core/RadarsLogger.h"
#include "services/DavListingParser.h"

namespace auxil {

namespace {

constexpr char kThreadName[] = "MultithreadedTreeDownloader(WebDAV)";
constexpr int kProcessorTimeoutSec = 90;
constexpr int kMaxRateLimitWaitSec = 90;
constexpr int kMinRateLimitWaitSec = 2;
constexpr int kFailedRetrySec = 3;
// While one worker is in a rate limit back-off, the others hold their next request in steps of
// this length.
constexpr std::int64_t kRateLimitHoldMs = 150;

std::int64_t NowSec() {
  return utils::GetClock().NowMs() / 1000;
}

std::string Trimmed(const std::string& text) {
  const std::size_t begin = text.find_first_not_of(" \t\r\n");
  if (begin == std::string::npos) {
    return std::string();
  }
  return text.substr(begin, text.find_last_not_of(" \t\r\n") + 1 - begin);
}

}  // namespace

MultithreadedTreeDownloader::MultithreadedTreeDownloader(ListFolderFunction listFolder,
                                                         MakeHashFunction makeHash,
                                                         RemoteNameMapper* nameMapper)
    : listFolder_(std::move(listFolder)), makeHash_(std::move(makeHash)), nameMapper_(nameMapper) {}

MultithreadedTreeDownloader::~MultithreadedTreeDownloader() {
  // A walk abandoned by an exception of the caller still must not leave a thread behind.
  if (!threads_.empty()) {
    Finish();
  }
}

FileSystem::Result MultithreadedTreeDownloader::DownloadTree(
    FolderNode* root, URLProcessorFactory& factory, std::atomic<std::uint64_t>* bytesSeen) {
  Start(kThreadCount, factory);
  queries_.Push(Query{std::string(), root});
  std::uint64_t discovered = 1;
  std::uint64_t processed = 0;
  std::uint64_t files = 0;
  FileSystem::Result result = FileSystem::SUCCEEDED;
  for (;;) {
    const DownloadedDir dir = downloaded_.Pop();
    if (dir.result != FileSystem::SUCCEEDED) {
      result = dir.result;
      if (result != FileSystem::STOPPED) {
        LOG_WARNING << "Got error from download thread: " << result;
      }
      break;
    }
    ++processed;
    bytesSeen->fetch_add(dir.folder->FolderSize(FolderNode::WithServiceItems(true)));
    files += dir.folder->FileCount();
    PushSubfolders(dir, &discovered);
    if (processed == discovered) {
      break;
    }
  }
  if (result == FileSystem::SUCCEEDED) {
    LOG_INFO << "Got total " << files << " files and " << discovered << " dirs in WebDAV storage.";
    RadarsLogger::instance().SendMetric("count_files_in_webdav", std::to_string(files), 1);
    RadarsLogger::instance().SendMetric("count_folders_in_webdav", std::to_string(discovered), 1);
  } else if (result != FileSystem::FAILED && result != FileSystem::AUTH_INVALID &&
             result != FileSystem::STOPPED && result != FileSystem::CONFLICT) {
    LOG_ERROR << "Fatal because of result: " << result;
  }
  return result;
}

// The largest subfolders go first, so that the long listings start early.
void MultithreadedTreeDownloader::PushSubfolders(const DownloadedDir& dir,
                                                 std::uint64_t* discovered) {
  std::vector<FolderNode*> subfolders;
  for (auto it = dir.folder->FoldersBegin(); it != dir.folder->FoldersEnd(); ++it) {
    subfolders.push_back(*it);
  }
  std::stable_sort(subfolders.begin(), subfolders.end(), [](FolderNode* a, FolderNode* b) {
    return a->FolderCount() > b->FolderCount();
  });
  for (FolderNode* subfolder : subfolders) {
    const std::string& name = subfolder->GetName();
    queries_.Push(Query{dir.path.empty() ? name : dir.path + "/" + name, subfolder});
  }
  *discovered += subfolders.size();
}

void MultithreadedTreeDownloader::Start(int threadCount, URLProcessorFactory& factory,
                                        const std::optional<std::string>& userAgent) {
  {
    // A Stop() that came before the workers holds for them too.
    std::lock_guard<std::mutex> lock(processorsMutex_);
    running_ = !stopped_;
  }
  for (int i = 0; i < threadCount; ++i) {
    std::shared_ptr<URLProcessor> processor = factory.Create();
    if (!processor) {
      LOG_ERROR << "Failed to open urlprocessor.";
      continue;
    }
    if (userAgent) {
      processor->SetUserAgent(*userAgent);
    }
    processor->SetTimeoutSec(kProcessorTimeoutSec);
    processor->SetHttpVersion(URLProcessor::kHttp11);
    {
      std::lock_guard<std::mutex> lock(processorsMutex_);
      if (stopped_) {
        processor->Stop();
      }
      processors_.push_back(processor);
    }
    threads_.emplace_back([this, processor] {
      try {
        Worker(processor);
      } catch (const std::exception& error) {
        // Nothing can mend a worker that threw: the process ends, with the word of what it was.
        utils::ExceptionCatchWrapperBase::LogException(kThreadName, error);
        throw;
      }
    });
  }
  lastOkTime_ = NowSec();
}

void MultithreadedTreeDownloader::Worker(std::shared_ptr<URLProcessor> processor) {
  std::string responseHeaders;
  if (!processor->Open(&responseHeaders)) {
    LOG_ERROR << "Failed to open urlprocessor.";
    return;
  }
  for (;;) {
    const Query query = queries_.Pop();
    if (!query.folder) {
      processor->Close();
      return;
    }
    ListWithRetries(query, processor, responseHeaders);
  }
}

void MultithreadedTreeDownloader::ListWithRetries(const Query& query,
                                                  const std::shared_ptr<URLProcessor>& processor,
                                                  const std::string& responseHeaders) {
  int delay = 0;
  bool ownsBackoff = false;
  while (running_) {
    while (rateLimited_ && running_ && !ownsBackoff) {
      utils::GetClock().SleepMs(kRateLimitHoldMs, nullptr);
    }
    const FileSystem::Result result = DownloadDir(query, processor);
    if (result == FileSystem::SUCCEEDED || result == FileSystem::STOPPED) {
      // Any worker's good answer ends the back-off of all. It is recorded before the folder is
      // handed on, so that no request for a subfolder of it can meet a back-off that it ended.
      rateLimited_ = false;
      rateLimitReported_ = false;
      lastOkTime_ = NowSec();
      if (result == FileSystem::SUCCEEDED) {
        downloaded_.Push(DownloadedDir{query.folder, query.path, FileSystem::SUCCEEDED});
      }
      return;
    }
    const int code = processor->GetResponseCode();
    if (code == 429 || code == 503) {
      ownsBackoff = true;
      WaitForRateLimit(responseHeaders, &delay);
      continue;
    }
    query.folder->Clear();
    LOG_WARNING << "Failed downloading directory: " << result;
    if (result != FileSystem::FAILED) {
      downloaded_.Push(DownloadedDir{nullptr, std::string(), result});
      return;
    }
    // A passing fault: tried again until it goes through or the walk is stopped.
    SleepWhileRunning(kFailedRetrySec);
  }
}

FileSystem::Result MultithreadedTreeDownloader::ResultOfFailedListing(int code) {
  switch (code) {
    case 404:
      return FileSystem::CONFLICT;
    case 401:
      // Refused credentials stay refused however often the folder is asked for.
      LOG_WARNING << "Authorization failed (401).";
      return FileSystem::AUTH_INVALID;
    default:
      return FileSystem::FAILED;
  }
}

FileSystem::Result MultithreadedTreeDownloader::DownloadDir(
    const Query& query, const std::shared_ptr<URLProcessor>& processor) {
  const FileSystem::Result listed = listFolder_(query.path, processor);
  if (listed != FileSystem::SUCCEEDED) {
    return listed;
  }
  bool parseOk = true;
  if (processor->GetResponseCode() == 207) {
    ParseFolderToFolderNode listener(query.folder, makeHash_);
    parseOk = ParsePropfindResponse(processor->GetInputStream(), listener, processor->GetUrl(),
                                    nameMapper_);
    if (!parseOk && listener.noEtag) {
      serverLacksEtag_ = true;
    }
  }
  switch (processor->Finish()) {
    case URLProcessor::Result::MULTI_STATUS:
      if (!parseOk) {
        LOG_ERROR << "Failed to parse xml propstat for folder: " << query.path;
        return FileSystem::FATAL;
      }
      return FileSystem::SUCCEEDED;
    case URLProcessor::Result::STOPPED:
      LOG_INFO << "Stopped.";
      return FileSystem::STOPPED;
    default:
      return ResultOfFailedListing(processor->GetResponseCode());
  }
}

void MultithreadedTreeDownloader::WaitForRateLimit(const std::string& responseHeaders, int* delay) {
  {
    std::lock_guard<std::mutex> lock(rateLimitMutex_);
    if (!rateLimitReported_) {
      RadarsLogger::instance().SendMetric("webdav_listing_rate_limit",
                                          std::to_string(NowSec() - lastOkTime_), 1);
      rateLimitReported_ = true;
    }
  }
  rateLimited_ = true;
  LOG_WARNING << "Got rate limit while downloading dir.";
  const std::string retryAfter =
      Trimmed(GetValueFromHTTPHeaders(responseHeaders, "Retry-After", true));
  // A date in the header reads as 0 and, like a negative number, leaves the wait to our own row.
  const int asked =
      retryAfter.empty() ? 0 : std::min(std::atoi(retryAfter.c_str()), kMaxRateLimitWaitSec);
  int wait = asked;
  if (asked > 0) {
    LOG_WARNING << "Retry after " << wait << " seconds, as asked by server.";
  } else {
    *delay = std::clamp(*delay * 3 / 2, kMinRateLimitWaitSec, kMaxRateLimitWaitSec);
    wait = *delay;
    LOG_WARNING << "Retry after " << wait << " seconds.";
  }
  SleepWhileRunning(wait);
}

void MultithreadedTreeDownloader::SleepWhileRunning(int seconds) {
  std::unique_lock<std::mutex> lock(sleepMutex_);
  utils::GetClock().WaitFor(sleepCondition_, lock, std::int64_t{seconds} * 1000,
                            [this] { return !running_; });
}

void MultithreadedTreeDownloader::Stop() {
  running_ = false;
  {
    std::lock_guard<std::mutex> lock(sleepMutex_);
    sleepCondition_.notify_all();
  }
  {
    // The null queries of a running Finish() are the only way its workers end.
    std::lock_guard<std::mutex> lock(processorsMutex_);
    if (!finishing_) {
      queries_.Clear();
    }
  }
  downloaded_.Push(DownloadedDir{nullptr, std::string(), FileSystem::STOPPED});
  StopProcessors();
}

void MultithreadedTreeDownloader::Start() {
  std::lock_guard<std::mutex> lock(processorsMutex_);
  stopped_ = false;
  for (const std::shared_ptr<URLProcessor>& processor : processors_) {
    processor->Start();
  }
}

void MultithreadedTreeDownloader::StopProcessors() {
  std::lock_guard<std::mutex> lock(processorsMutex_);
  stopped_ = true;
  for (const std::shared_ptr<URLProcessor>& processor : processors_) {
    processor->Stop();
  }
}

void MultithreadedTreeDownloader::Finish() {
  running_ = false;
  {
    std::lock_guard<std::mutex> lock(sleepMutex_);
    sleepCondition_.notify_all();
  }
  {
    std::lock_guard<std::mutex> lock(processorsMutex_);
    finishing_ = true;
    queries_.Clear();
    for (std::size_t i = 0; i < threads_.size(); ++i) {
      queries_.Push(Query());
    }
  }
  // A worker still waiting for an answer that no one will read would hold up the join for as
  // long as the server takes.
  StopProcessors();
  for (std::thread& thread : threads_) {
    thread.join();
  }
  queries_.Clear();
  downloaded_.Clear();
  threads_.clear();
  std::lock_guard<std::mutex> lock(processorsMutex_);
  processors_.clear();
  finishing_ = false;
}

}  // namespace auxil
