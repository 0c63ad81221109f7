#include "services/RemoteFileSystemWebDAVBase.h"

#include <QCoreApplication>
#include <optional>

#include "core/Clock.h"
#include "core/LoggerWrapper.h"
#include "core/Nodes.h"
#include "core/PercentEncoding.h"
#include "core/RadarsLogger.h"
#include "core/StringUtils.h"
#include "core/Xml.h"
#include "services/DavListingParser.h"
#include "services/MultithreadedTreeDownloader.h"
#include "services/RemoteWebDAVUtils.h"

namespace {

constexpr int kHttpVersionSetting = URLProcessor::kHttp11;
// What a MOVE or a PUT may answer when it went through.
constexpr std::initializer_list<URLProcessor::Result> kWrittenResults = {
    URLProcessor::Result::OK, URLProcessor::Result::CREATED, URLProcessor::Result::NO_CONTENT};
constexpr char kQuotaBody[] =
    "<D:propfind xmlns:D=\"DAV:\">  <D:prop>   <D:quota-available-bytes/>   "
    "<D:quota-used-bytes/>  </D:prop></D:propfind>";
constexpr char kXmlContentType[] = "application/xml";
// A Depth: 0 answer about the root holds two numbers; anything near this size is not one.
constexpr std::size_t kMaxQuotaAnswerBytes = 1024 * 1024;

std::int64_t NowSec() {
  return utils::GetClock().NowMs() / 1000;
}

std::string Quoted(const std::string& text) {
  return "\"" + text + "\"";
}

std::string TrimSlashes(const std::string& path) {
  const std::size_t begin = path.find_first_not_of('/');
  if (begin == std::string::npos) {
    return std::string();
  }
  return path.substr(begin, path.find_last_not_of('/') + 1 - begin);
}

bool CheckPath(const std::string& path) {
  if (FileSystem::IsRelativeCanonicalPath(path)) {
    return true;
  }
  LOG_ERROR << "Invalid path.";
  return false;
}

// Digits only, and no more than fit: a "-1" or a 21-digit number is no size.
std::optional<std::uint64_t> ParseSize(const std::string& text) {
  if (text.empty() || text.size() > 20 ||
      text.find_first_not_of("0123456789") != std::string::npos) {
    return std::nullopt;
  }
  std::uint64_t value = 0;
  for (char digit : text) {
    const auto add = static_cast<std::uint64_t>(digit - '0');
    if (value > (UINT64_MAX - add) / 10) {
      return std::nullopt;
    }
    value = value * 10 + add;
  }
  return value;
}

// An absent or empty property (a server without quota lists it empty under a 404 status) is 0;
// one that holds something other than a size fails the answer.
bool ReadQuotaProperty(const utils::xml::xml_tree& tree, const std::string& name,
                       std::optional<std::uint64_t>* value) {
  const auto node = tree.get_child_optional("multistatus.response.propstat.prop." + name);
  if (!node) {
    return true;
  }
  const std::string& text = node->data();
  const std::size_t begin = text.find_first_not_of(" \t\r\n");
  const std::size_t end = text.find_last_not_of(" \t\r\n");
  if (begin == std::string::npos) {
    return true;
  }
  const std::string number = text.substr(begin, end + 1 - begin);
  // Some servers write a negative number for "unlimited" or "unknown": no figure to use.
  if (number.size() > 1 && number[0] == '-' && ParseSize(number.substr(1))) {
    LOG_INFO << "Quota property " << name << " not given: " << number;
    return true;
  }
  *value = ParseSize(number);
  if (!*value) {
    LOG_WARNING << "Invalid quota value of " << name << ": "
                << utils::SafePrintBinary(node->data());
    return false;
  }
  return true;
}

FileSystem::Result ReadQuota(utils::xml::xml_tree* tree, std::uint64_t* total,
                             std::uint64_t* used) {
  utils::xml::RemoveNamespaces(tree);
  std::optional<std::uint64_t> usedBytes;
  std::optional<std::uint64_t> availableBytes;
  if (!ReadQuotaProperty(*tree, "quota-used-bytes", &usedBytes) ||
      !ReadQuotaProperty(*tree, "quota-available-bytes", &availableBytes)) {
    return FileSystem::FAILED;
  }
  *used = usedBytes.value_or(0);
  if (availableBytes && *availableBytes > UINT64_MAX - *used) {
    LOG_WARNING << "Quota out of range: " << *availableBytes << " available and " << *used
                << " used.";
    return FileSystem::FAILED;
  }
  *total = availableBytes ? *availableBytes + *used : 0;
  if (*total == 0) {
    utils::xml::Log(*tree);
  }
  return FileSystem::SUCCEEDED;
}

bool IsReadGood(URLProcessor::Result result) {
  return result == URLProcessor::Result::OK || result == URLProcessor::Result::PARTIAL_CONTENT;
}

}  // namespace

RemoteFileSystemWebDAVBase::RemoteFileSystemWebDAVBase(
    std::shared_ptr<RemoteFileSystemSharedData> sharedData, const std::string& remoteRootPath)
    : RemoteFileSystemNoChangesSupport(std::move(sharedData), remoteRootPath) {}

RemoteFileSystemWebDAVBase::~RemoteFileSystemWebDAVBase() = default;

void RemoteFileSystemWebDAVBase::Start() {
  std::shared_ptr<URLProcessor> processor;
  {
    std::lock_guard<std::mutex> lock(downloaderMutex_);
    processor = urlProcessor_;
  }
  if (processor) {
    processor->Start();
  }
  RemoteFileSystem::Start();
}

void RemoteFileSystemWebDAVBase::Stop() {
  std::lock_guard<std::mutex> lock(downloaderMutex_);
  if (runningDownloader_) {
    runningDownloader_->Stop();
  }
  RemoteFileSystem::Stop();
  if (urlProcessor_) {
    urlProcessor_->Stop();
  }
}

bool RemoteFileSystemWebDAVBase::Open(const std::shared_ptr<URLProcessorFactory>& factory) {
  urlProcessorFactory_ = factory;
  if (!urlProcessor_) {
    std::shared_ptr<URLProcessor> processor = factory ? factory->Create() : nullptr;
    std::lock_guard<std::mutex> lock(downloaderMutex_);
    urlProcessor_ = std::move(processor);
  }
  if (!urlProcessor_ || !urlProcessor_->Open(&responseHeaders_)) {
    std::lock_guard<std::mutex> lock(downloaderMutex_);
    urlProcessor_.reset();
    return false;
  }
  urlProcessor_->SetTimeoutSec(kRequestTimeoutSec);
  urlProcessor_->SetHttpVersion(kHttpVersionSetting);
  std::string root = TrimSlashes(GetRemoteRootPath());
  MapPathToRemote(&root);
  mountedRoot_ = root.empty() ? root : "/" + root;
  openMode_ = kIdle;
  return true;
}

FileSystem::Result RemoteFileSystemWebDAVBase::Close() {
  URLProcessor::Result result = URLProcessor::Result::OK;
  if (urlProcessor_) {
    result = urlProcessor_->Close();
  }
  responseHeaders_.clear();
  openMode_ = kClosed;
  return IsNetworkErrorResult(result) ? FAILED : SUCCEEDED;
}

DispatcherUrl RemoteFileSystemWebDAVBase::MakeRequestUrl(const std::string& path, bool asFolder) {
  std::string remotePath;
  bool changed = false;
  MapPathToRemote(path, &remotePath, &changed);
  if (!changed) {
    remotePath = path;
  }
  std::string text = baseUrl_.Url();
  if (!path.empty()) {
    while (!text.empty() && text.back() == '/') {
      text.pop_back();
    }
  }
  text += utils::PercentEncoded(remotePath, true);
  DispatcherUrl url = DispatcherUrl::FromString(text);
  if (asFolder) {
    url.Append("/", DispatcherUrl::ValueEncodingMode::kAsIs);
  }
  return url;
}

bool RemoteFileSystemWebDAVBase::HasClient() const {
  if (urlProcessor_ && openMode_ != kClosed) {
    return true;
  }
  LOG_ERROR << "Http client not exists";
  return false;
}

FileSystem::Result RemoteFileSystemWebDAVBase::CheckFileSlotIdle() const {
  if (!HasClient()) {
    return FATAL;
  }
  if (openMode_ != kIdle) {
    // Opening another file would silently end the transfer of the one that is open.
    LOG_ERROR << "A file is already open; close it first (mode " << openMode_ << ").";
    return FATAL;
  }
  return SUCCEEDED;
}

std::string RemoteFileSystemWebDAVBase::CurrentUrl() const {
  return urlProcessor_ ? urlProcessor_->GetUrl() : std::string();
}

URLProcessor::Result RemoteFileSystemWebDAVBase::FinishTransfer(const char* metricTag) {
  const URLProcessor::Result result = urlProcessor_->Finish();
  const int code = urlProcessor_->GetResponseCode();
  SetFailReason(result, code);
  if (metricTag) {
    RadarsLogger::instance().SendIfNetworkError(result, metricTag, code, CurrentUrl());
  }
  return result;
}

std::optional<FileSystem::Result> RemoteFileSystemWebDAVBase::SettledResult(
    URLProcessor::Result result, std::initializer_list<URLProcessor::Result> good) {
  for (URLProcessor::Result each : good) {
    if (result == each) {
      return SUCCEEDED;
    }
  }
  if (result == URLProcessor::Result::STOPPED) {
    LOG_INFO << "Stopped.";
    return STOPPED;
  }
  return std::nullopt;
}

URLProcessor::Result RemoteFileSystemWebDAVBase::SendAndFinish(
    const URLProcessor::Request& request) {
  if (urlProcessor_->Send(request)) {
    const std::string answer = ReadAnswerPrefix(urlProcessor_->GetInputStream());
    if (!answer.empty()) {
      LOG_INFO << utils::SafePrintBinary(answer);
    }
  }
  const URLProcessor::Result result = urlProcessor_->Finish();
  SetFailReason(result, -1);
  return result;
}

FileSystem::Result RemoteFileSystemWebDAVBase::CreateFolderImpl(const OverwriteControl&,
                                                                const std::string& path) {
  LOG_INFO << "Creating folder " << Quoted(path) << ".";
  if (!HasClient()) {
    return FATAL;
  }
  URLProcessor::Request request;
  request.verb = "MKCOL";
  request.url = MakeFolderUrl(path);
  const URLProcessor::Result result = SendAndFinish(request);
  if (auto settled =
          SettledResult(result, {URLProcessor::Result::OK, URLProcessor::Result::CREATED})) {
    return *settled;
  }
  const int code = urlProcessor_->GetResponseCode();
  if (code == 405) {
    LOG_INFO << "Got method not allowed while creating dir, threating as the dir already exists.";
    return SUCCEEDED;
  }
  return GetResultFromHttpCodeOrFailed(code);
}

FileSystem::Result RemoteFileSystemWebDAVBase::DeleteItem(const std::string& path,
                                                          const std::string& ifMatch) {
  LOG_INFO << "Deleting " << Quoted(path) << ".";
  if (!HasClient()) {
    return FATAL;
  }
  URLProcessor::Request request;
  request.verb = "DELETE";
  request.url = MakeRequestUrl(path, false);
  if (!ifMatch.empty()) {
    request.headers.push_back("If-Match: " + ifMatch);
  }
  const URLProcessor::Result result = SendAndFinish(request);
  if (auto settled =
          SettledResult(result, {URLProcessor::Result::OK, URLProcessor::Result::NO_CONTENT})) {
    return *settled;
  }
  const int code = urlProcessor_->GetResponseCode();
  LOG_WARNING << "DELETE failed; response code " << code << ".";
  return GetResultFromHttpCodeOrFailed(code);
}

FileSystem::Result RemoteFileSystemWebDAVBase::DeleteFolderImpl(const FolderNode&, const Revision&,
                                                                const std::string& path) {
  if (!CheckPath(path)) {
    return FATAL;
  }
  return DeleteItem(path + "/", std::string());
}

FileSystem::Result RemoteFileSystemWebDAVBase::MoveItem(const std::string& from,
                                                        const std::string& to,
                                                        const OverwriteControl& toControl,
                                                        bool folder) {
  LOG_INFO << "Moving " << Quoted(from) << " to " << Quoted(to) << ".";
  if (!HasClient()) {
    return FATAL;
  }
  URLProcessor::Request request;
  request.verb = "MOVE";
  // A collection keeps its trailing "/" on both ends: some servers (lighttpd) move nothing else.
  request.url = MakeRequestUrl(from, folder);
  const std::string destination = "Destination: " + MakeRequestUrl(to, folder).Url();
  request.headers = {destination, toControl.hash.IsEmpty() ? "Overwrite: F" : "Overwrite: T"};
  const URLProcessor::Result result = SendAndFinish(request);
  if (auto settled = SettledResult(result, kWrittenResults)) {
    return *settled;
  }
  const int code = urlProcessor_->GetResponseCode();
  LOG_INFO << "Destination in headers: " << destination;
  LOG_WARNING << "MOVE failed; response code " << code << ".";
  return GetResultFromHttpCodeOrFailed(code);
}

FileSystem::Result RemoteFileSystemWebDAVBase::MoveFileImpl(const FileNode&,
                                                            const OverwriteControl&,
                                                            const std::string& from,
                                                            const OverwriteControl& toControl,
                                                            const std::string& to) {
  return MoveItem(from, to, toControl, false);
}

FileSystem::Result RemoteFileSystemWebDAVBase::MoveFolderImpl(const FolderNode&,
                                                              const OverwriteControl&,
                                                              const std::string& from,
                                                              const OverwriteControl&,
                                                              const std::string& to) {
  if (!CheckPath(from) || !CheckPath(to)) {
    return FATAL;
  }
  return MoveItem(from, to, OverwriteControl(), true);
}

FileSystem::Result RemoteFileSystemWebDAVBase::GetCloudSize(std::uint64_t* total,
                                                            std::uint64_t* used) {
  LOG_INFO << "Requesting disk size.";
  if (!HasClient()) {
    return FATAL;
  }
  URLProcessor::Request request;
  request.verb = "PROPFIND";
  request.url = MakeRequestUrl("/", false);
  request.headers = {"Depth: 0"};
  request.body = kQuotaBody;
  request.content_type = kXmlContentType;
  utils::xml::xml_tree tree;
  std::string error = "no answer";
  bool parsed = false;
  if (urlProcessor_->Send(request)) {
    parsed = utils::xml::ReadAndParse(urlProcessor_->GetInputStream(), &tree, &error,
                                      kMaxQuotaAnswerBytes);
  }
  const URLProcessor::Result result = urlProcessor_->Finish();
  SetFailReason(result, -1);
  if (result != URLProcessor::Result::MULTI_STATUS) {
    if (result == URLProcessor::Result::STOPPED) {
      LOG_INFO << "Stopped.";
      return STOPPED;
    }
    return GetResultFromHttpCodeOrFailed(urlProcessor_->GetResponseCode());
  }
  if (!parsed) {
    LOG_WARNING << "Failed to parse quota answer: " << error;
    return FAILED;
  }
  return ReadQuota(&tree, total, used);
}

FileSystem::Result RemoteFileSystemWebDAVBase::ListFolderDepth1(const std::string& path,
                                                                URLProcessor* processor) {
  URLProcessor::Request request;
  request.verb = "PROPFIND";
  request.url = MakeFolderUrl(path);
  request.headers = {"Depth: 1"};
  request.body = GetPropfindBody();
  if (!request.body.empty()) {
    request.content_type = kXmlContentType;
  }
  processor->Send(request);
  return SUCCEEDED;
}

std::string RemoteFileSystemWebDAVBase::GetPropfindBody() {
  return std::string();
}

FileSystem::Result RemoteFileSystemWebDAVBase::BeginTree(FolderNode* root, std::uint64_t* free,
                                                         std::uint64_t* total) {
  // 1. Start from nothing.
  serverLacksFeatures_ = false;
  root->Clear();
  snapshot_progress_.expected_bytes = 0;
  snapshot_progress_.seen_bytes = 0;
  LOG_INFO << "Requesting disk snapshot...";
  // 2. The quota.
  std::uint64_t cloudTotal = 0;
  std::uint64_t cloudUsed = 0;
  const Result sizeResult = GetCloudSize(&cloudTotal, &cloudUsed);
  if (sizeResult != SUCCEEDED) {
    LOG_WARNING << "Failed to get cloud size: " << sizeResult;
    return sizeResult;
  }
  snapshot_progress_.expected_bytes = cloudUsed;
  // A server may report a use and no total: nothing is known to be free.
  *free = cloudTotal > cloudUsed ? cloudTotal - cloudUsed : 0;
  *total = cloudTotal;
  return SUCCEEDED;
}

FileSystem::Result RemoteFileSystemWebDAVBase::GetFullTree(FolderNode* root, std::uint64_t* free,
                                                           std::uint64_t* total,
                                                           tsl::htrie_set<char>*) {
  // 1. Start from nothing, the quota first: it tells how far the walk has come.
  if (!HasClient()) {
    return FATAL;
  }
  const Result begun = BeginTree(root, free, total);
  if (begun != SUCCEEDED) {
    return begun;
  }

  // 3. The walk, where Stop() can reach it.
  auxil::MultithreadedTreeDownloader downloader(
      [this](const std::string& path, std::shared_ptr<URLProcessor> processor) {
        return ListFolderDepth1(path, processor.get());
      },
      [this](const std::string& value) { return MakeHashFromServerValue(value); }, this);
  {
    std::lock_guard<std::mutex> lock(downloaderMutex_);
    runningDownloader_ = &downloader;
  }
  Result result = STOPPED;
  if (!IsStopped()) {
    result = downloader.DownloadTree(root, *urlProcessorFactory_, &snapshot_progress_.seen_bytes);
  }
  serverLacksFeatures_ = downloader.ServerLacksEtag();
  if (result == SUCCEEDED) {
    lastTreeTime_ = lastTreeAttemptTime_ = NowSec();
  }

  // 4. No worker outlives the call.
  std::lock_guard<std::mutex> lock(downloaderMutex_);
  runningDownloader_ = nullptr;
  downloader.Finish();
  return result;
}

FileSystem::Result RemoteFileSystemWebDAVBase::GetFolderListing(const std::string& path,
                                                                FolderListing* listing) {
  if ((!path.empty() && !CheckPath(path)) || !HasClient()) {
    return FATAL;
  }
  ListFolderDepth1(path, urlProcessor_.get());
  bool parseOk = true;
  if (urlProcessor_->GetResponseCode() == 207) {
    auxil::ParseFolderToListing listener(
        listing, [this](const std::string& value) { return MakeHashFromServerValue(value); });
    parseOk = auxil::ParsePropfindResponse(urlProcessor_->GetInputStream(), listener,
                                           urlProcessor_->GetUrl(), this);
  }
  const URLProcessor::Result result = urlProcessor_->Finish();
  SetFailReason(result, -1);
  if (IsNetworkErrorResult(result)) {
    // What arrived before the break is not the folder: its missing entries would read as deleted.
    LOG_WARNING << "Folder listing is incomplete: " << path << " (" << result << ").";
    return FAILED;
  }
  if (result == URLProcessor::Result::MULTI_STATUS) {
    if (parseOk) {
      auxil::KeepFirstOfEachName(listing);
      return SUCCEEDED;
    }
    LOG_WARNING << "Failed to parse folder listing: " << path;
    return FATAL;
  }
  if (result == URLProcessor::Result::STOPPED) {
    LOG_INFO << "Stopped.";
    return STOPPED;
  }
  return GetResultFromHttpCode(urlProcessor_->GetResponseCode());
}

FileSystem::Result RemoteFileSystemWebDAVBase::OpenForCreate(const OverwriteControl& control,
                                                             const std::string& path,
                                                             const SomeHash& hash,
                                                             std::uint64_t size, std::uint64_t time,
                                                             std::uint64_t* resumeOffset, bool) {
  return OpenForRewrite(control, path, hash, size, time, resumeOffset);
}

FileSystem::Result RemoteFileSystemWebDAVBase::OpenForRead(const std::string& path,
                                                           std::uint64_t offset,
                                                           std::uint64_t limit, std::uint64_t size,
                                                           const SomeHash&) {
  // 1. The request.
  LOG_INFO << "Reading remote file " << Quoted(path) << ".";
  if (!CheckPath(path)) {
    return FATAL;
  }
  if (const Result idle = CheckFileSlotIdle(); idle != SUCCEEDED) {
    return idle;
  }
  URLProcessor::Request request;
  request.url = MakeFileUrl(path);
  return OpenRead(std::move(request), offset, limit, size);
}

FileSystem::Result RemoteFileSystemWebDAVBase::OpenRead(URLProcessor::Request request,
                                                        std::uint64_t offset, std::uint64_t limit,
                                                        std::uint64_t size) {
  // 1. A range unless the whole file is asked for.
  const bool wholeFile = offset == 0 && limit == size;
  if (offset < limit && limit != 0 && !wholeFile) {
    request.range = URLProcessor::Range{offset, limit - 1};
  }

  // 2. The head of the answer decides.
  if (urlProcessor_->Send(request)) {
    const int code = urlProcessor_->GetResponseCode();
    if (code == 200 || code == 206) {
      readStartOffset_ = offset;
      openMode_ = kReading;
      return SUCCEEDED;
    }
    LOG_INFO << "Finish() after InputStream::Result fail returned: " << FinishTransfer(nullptr);
    openMode_ = kIdle;
    return GetResultFromHttpCodeOrFailed(code);
  }
  const URLProcessor::Result result = FinishTransfer(nullptr);
  openMode_ = kIdle;
  if (result == URLProcessor::Result::STOPPED) {
    return STOPPED;
  }
  LOG_INFO << "Response code: " << urlProcessor_->GetResponseCode();
  if (result == URLProcessor::Result::TRANSFER_FAILED) {
    LOG_WARNING << "Failed to read response code, unexpected stream end.";
  } else {
    LOG_WARNING << "Failed to read response code.";
  }
  return FAILED;
}

FileSystem::Result RemoteFileSystemWebDAVBase::ReadFile(std::uint8_t* buffer, std::uint32_t size,
                                                        std::uint32_t* done) {
  *done = 0;
  if (!urlProcessor_ || openMode_ != kReading) {
    LOG_INFO << "Connection is closed, can't read anymore.";
    SetFailReasonValue(FAIL_REASON_NETWORK);
    return FAILED;
  }
  const InputStream::Result read = urlProcessor_->GetInputStream()->Read(buffer, size, done);
  const int code = urlProcessor_->GetResponseCode();
  if (read == InputStream::Result::OK && *done != 0 && URLProcessor::IsSuccessHttpCode(code)) {
    if (readStartOffset_ != 0 &&
        !URLProcessor::CheckRangeInResponseHeaders(responseHeaders_, readStartOffset_, boost::none,
                                                   boost::none)) {
      LOG_ERROR << "Invalid response range, full headers:\n" << responseHeaders_ << ".";
      return FATAL;
    }
    return SUCCEEDED;
  }
  if (*done != 0) {
    LOG_INFO << "Received: "
             << utils::SafePrintBinary(std::string_view(reinterpret_cast<char*>(buffer), *done));
  }
  openMode_ = kIdle;
  const URLProcessor::Result result = FinishTransfer("remote_webdav");
  if (result == URLProcessor::Result::STOPPED) {
    LOG_INFO << "Stopped.";
    return STOPPED;
  }
  return GetResultFromHttpCodeOrFailed(urlProcessor_->GetResponseCode());
}

FileSystem::Result RemoteFileSystemWebDAVBase::FinishRead() {
  const URLProcessor::Result result = FinishTransfer("remote_webdav");
  if (IsReadGood(result)) {
    return SUCCEEDED;
  }
  openMode_ = kIdle;
  if (result == URLProcessor::Result::STOPPED) {
    LOG_INFO << "Stopped.";
    return STOPPED;
  }
  LOG_WARNING << "Reading failed.";
  return GetResultFromHttpCodeOrFailed(urlProcessor_->GetResponseCode());
}

FileSystem::Result RemoteFileSystemWebDAVBase::WriteFile(const std::uint8_t* data,
                                                         std::uint32_t size) {
  // 1. The block goes out; a server may have answered before the body was all sent.
  if (openMode_ != kWriting) {
    return FAILED;
  }
  const OutputStream::Result written = urlProcessor_->GetOutputStream()->Write(data, size);
  const int code = urlProcessor_->GetResponseCode();
  const bool wentWell = written == OutputStream::Result::OK || written == OutputStream::Result::END;
  const bool codeFails = URLProcessor::IsNotSuccessHttpCode(code);
  if (wentWell && !codeFails) {
    return SUCCEEDED;
  }

  // 2. The upload is over: tell what the server said.
  if (codeFails) {
    LOG_WARNING << "Received unsuccessfull http code while writing file: " << code << ".";
    responseBody_ = ReadAnswerPrefix(urlProcessor_->GetInputStream());
  }
  if (!responseBody_.empty()) {
    LOG_INFO << "Received response: " << utils::SafePrintBinary(responseBody_);
    responseBody_.clear();
  }
  openMode_ = kIdle;
  const URLProcessor::Result result = FinishTransfer("remote");
  // A refusal that came while the body was on its way (a stale condition, a full disk, refused
  // credentials) means what it means at the end of an upload, whatever broke the sending.
  const int answered = urlProcessor_->GetResponseCode();
  const bool refused =
      URLProcessor::IsNotSuccessHttpCode(answered) && result != URLProcessor::Result::STOPPED &&
      result != URLProcessor::Result::FORBIDDEN && result != URLProcessor::Result::BLOCKED;
  if (refused) {
    return GetResultFromHttpCodeOrFailed(answered);
  }
  switch (result) {
    case URLProcessor::Result::STOPPED:
      LOG_INFO << "Stopped.";
      return STOPPED;
    case URLProcessor::Result::HTTP_FAILED:
    case URLProcessor::Result::NETWORK_FAILED:
    case URLProcessor::Result::TRANSFER_FAILED:
      LOG_WARNING << "Failed.";
      return FAILED;
    case URLProcessor::Result::FORBIDDEN:
      LOG_WARNING << "Forbidden.";
      return ACCESS_DENIED;
    case URLProcessor::Result::BLOCKED:
      LOG_WARNING << "Blocked.";
      return BLOCKED;
    case URLProcessor::Result::OK:
      // The server ended the request before the whole body was sent.
      LOG_INFO << "Stream finished.";
      return FAILED;
    default:
      return GetResultFromHttpCodeOrFailed(urlProcessor_->GetResponseCode());
  }
}

FileSystem::Result RemoteFileSystemWebDAVBase::FinishWrite(SomeHash*) {
  if (URLProcessor::IsNotSuccessHttpCode(urlProcessor_->GetResponseCode())) {
    responseBody_ = ReadAnswerPrefix(urlProcessor_->GetInputStream());
  }
  const URLProcessor::Result result = FinishTransfer("remote_webdav");
  if (auto settled = SettledResult(result, kWrittenResults)) {
    return *settled;
  }
  if (!responseBody_.empty()) {
    LOG_INFO << "Received: " << utils::SafePrintBinary(responseBody_);
    responseBody_.clear();
  }
  const int code = urlProcessor_->GetResponseCode();
  LOG_WARNING << "Write failed, http_code " << code;
  return GetResultFromHttpCodeOrFailed(code);
}

FileSystem::Result RemoteFileSystemWebDAVBase::CloseFile(FileProperties* props) {
  Result result = FAILED;
  if (openMode_ == kReading) {
    result = FinishRead();
  } else if (openMode_ == kWriting || openMode_ == kWritePrepared) {
    result = FinishWrite(props ? &props->hash : nullptr);
  }
  if (openMode_ != kClosed) {
    openMode_ = kIdle;
  }
  return result;
}

FileSystem::Result RemoteFileSystemWebDAVBase::InterruptFile() {
  if (!HasClient()) {
    return FATAL;
  }
  urlProcessor_->Stop();
  const Result result = CloseFile(nullptr);
  urlProcessor_->Start();
  return result;
}

FileSystem::Result RemoteFileSystemWebDAVBase::GetPublicLink(const std::string&, bool,
                                                             std::string*) {
  LOG_ERROR << "Not implemented.";
  return FATAL;
}

FileSystem::Result RemoteFileSystemWebDAVBase::ClosePublicLink(const std::string&) {
  return FATAL;
}

std::uint64_t RemoteFileSystemWebDAVBase::GetMaxFileSize() {
  return static_cast<std::uint64_t>(-1);
}

FileSystem::Result RemoteFileSystemWebDAVBase::UpdateMaxFileSize() {
  return SUCCEEDED;
}

double RemoteFileSystemWebDAVBase::GetFirstSnapshotProgress() {
  return GetPercentCompleteGettingFirstSnapshot(snapshot_progress_);
}

QString RemoteFileSystemWebDAVBase::GetLastErrorDescription() {
  if (!serverLacksFeatures_) {
    return QString();
  }
  return QCoreApplication::translate(
      "RemoteFileSystemWebDAVBase",
      "WebDAV сервер не поддерживает необходимый функционал для работы с Корвейн.");
}
