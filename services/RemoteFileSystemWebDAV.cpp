#include "services/RemoteFileSystemWebDAV.h"

#include <QXmlStreamReader>

#include <algorithm>
#include <future>
#include <system_error>

#include "core/LoggerWrapper.h"
#include "core/RadarsLogger.h"
#include "core/StringUtils.h"
#include "services/RemoteWebDAVUtils.h"

const std::array<std::string, 12> kWebDavClientNames = {
    "Microsoft-WebDAV-MiniRedir/6.1.7600",
    "Microsoft-WebDAV-MiniRedir/6.1.7601",
    "Microsoft-WebDAV-MiniRedir/5.1.2600",
    "WebDAVFS/3.0.0 (03008000) Darwin/13.0.0 (x86_64)",
    "gvfs/1.20.3",
    "wdfs/1.4.2 neon/0.30.0",
    "davfs2/1.4.7 neon/0.30.0",
    "cadaver/0.23.3 neon/0.30.0",
    "Go-http-client/1.1",
    "1C+Enterprise/8.3",
    "Cyberduck/6.3.2.27291 (Windows 10/10.0) (x86)",
    "Microsoft-WebDAV-MiniRedir/10.0.17134",
};

namespace {

// A server that reports a size short of what was written may still be storing it.
constexpr std::int64_t kSizeSettleWaitMs = 300;

std::string WithoutQuotesAndBlanks(std::string text) {
  text.erase(std::remove_if(text.begin(), text.end(), [](char c) { return c == '"' || c == ' '; }),
             text.end());
  return text;
}

// An etag of a server against one the tree holds. Servers differ in quoting and case, and some
// add a suffix of their own, so the shorter one decides the length; one character proves nothing.
bool EtagsAgree(const std::string& header, const std::string& expected) {
  std::string a = WithoutQuotesAndBlanks(header);
  std::string b = WithoutQuotesAndBlanks(expected);
  const std::size_t common = std::min(a.size(), b.size());
  a.resize(common);
  b.resize(common);
  return common >= 2 && ToLower(a) == ToLower(b);
}

bool IsWeakEtag(const std::string& etag) {
  return etag.size() >= 2 && (etag[0] == 'W' || etag[0] == 'w') && etag[1] == '/';
}

// The tag without its weakness mark: what a weak comparison compares (RFC 7232).
std::string OpaqueTag(const std::string& etag) {
  return IsWeakEtag(etag) ? etag.substr(2) : etag;
}

std::string Quoted(const std::string& text) {
  return "\"" + text + "\"";
}

}  // namespace

RemoteFileSystemWebDAV::RemoteFileSystemWebDAV(
    std::shared_ptr<RemoteFileSystemSharedData> sharedData, const std::string& remoteRootPath)
    : RemoteFileSystemWebDAVBase(std::move(sharedData), remoteRootPath) {}

bool RemoteFileSystemWebDAV::Open(const std::shared_ptr<URLProcessorFactory>& factory) {
  if (!RemoteFileSystemWebDAVBase::Open(factory)) {
    return false;
  }
  baseUrl_ = GetBaseUrlFromCookie(urlProcessor_.get());
  if (baseUrl_.IsEmpty()) {
    LOG_ERROR << "No base url.";
    Close();
    return false;
  }
  return true;
}

FileSystem::Result RemoteFileSystemWebDAV::CheckConnection() {
  std::uint64_t total = 0;
  std::uint64_t used = 0;
  return GetCloudSize(&total, &used);
}

DispatcherUrl RemoteFileSystemWebDAV::MakeRequestUrl(const std::string& path, bool asFolder) {
  return RemoteFileSystemWebDAVBase::MakeRequestUrl(PathBelowMount(mountedRoot_, path), asFolder);
}

SomeHash RemoteFileSystemWebDAV::MakeHashFromServerValue(const std::string& value) {
  return SomeHash(value);
}

FileSystem::Result RemoteFileSystemWebDAV::DeleteFileImpl(const OverwriteControl& control,
                                                          const std::string& path,
                                                          std::uint64_t size, std::uint64_t) {
  std::string ifMatch;
  if (!control.hash.IsEmpty() || size == 0) {
    if (!HasClient()) {
      return FATAL;
    }
    const Result condition = IfMatchFor(path, control.hash.GetHashGenericString(), &ifMatch);
    if (condition != SUCCEEDED) {
      return condition;
    }
  } else {
    LOG_ERROR << "Hash is not set in overwrite control: " << path;
  }
  return DeleteItem(path, ifMatch);
}

FileSystem::Result RemoteFileSystemWebDAV::OpenForRewrite(const OverwriteControl& control,
                                                          const std::string& path,
                                                          const SomeHash& hash, std::uint64_t size,
                                                          std::uint64_t,
                                                          std::uint64_t* resumeOffset) {
  // 1. The request: a file must be what the tree says it is, or not exist yet. An empty file
  //    is written without a condition.
  LOG_INFO << "Uploading remote file \"" << path << "\", size=" << size << ".";
  *resumeOffset = 0;
  if (const Result idle = CheckFileSlotIdle(); idle != SUCCEEDED) {
    return idle;
  }
  URLProcessor::Request request;
  request.verb = "PUT";
  request.url = MakeFileUrl(path);
  request.content_type = "application/binary";
  request.headers = {"Content-Length: " + std::to_string(size)};
  if (control.hash.IsEmpty()) {
    request.headers.push_back("If-None-Match: *");
  } else if (size > 0) {
    std::string ifMatch;
    const Result condition = IfMatchFor(path, control.hash.GetHashGenericString(), &ifMatch);
    if (condition != SUCCEEDED) {
      return condition;
    }
    if (!ifMatch.empty()) {
      request.headers.push_back("If-Match: " + ifMatch);
    }
  }
  responseBody_.clear();
  if (!urlProcessor_->BeginUpload(request, size)) {
    const URLProcessor::Result result = FinishTransfer("remote_webdav");
    if (result == URLProcessor::Result::STOPPED) {
      LOG_INFO << "Stopped.";
      return STOPPED;
    }
    return GetResultFromHttpCodeOrFailed(urlProcessor_->GetResponseCode());
  }

  // 2. The state of the upload.
  uploadSize_ = size;
  bytesDone_ = *resumeOffset;
  expectedHash_ = hash.IsEmpty() ? std::string() : hash.GetHashGenericString();
  hashingUpload_ = !expectedHash_.empty() && size > 0;
  hashCalculator_.Begin();
  uploadPath_ = path;
  openMode_ = kWriting;
  return SUCCEEDED;
}

FileSystem::Result RemoteFileSystemWebDAV::WriteFile(const std::uint8_t* data, std::uint32_t size) {
  if (openMode_ == kWriting && size > uploadSize_ - bytesDone_) {
    LOG_ERROR << "Write overflow; size=" << uploadSize_ << ", actual_offset=" << bytesDone_ << ".";
    return AbandonUpload(FAILED);
  }
  bytesDone_ += size;
  if (!hashingUpload_) {
    return RemoteFileSystemWebDAVBase::WriteFile(data, size);
  }
  // The last block is hashed before it goes: a content other than the announced one never ends.
  if (bytesDone_ == uploadSize_) {
    hashCalculator_.Feed(data, size);
    const std::string actual = hashCalculator_.Finish().GetHashGenericString();
    if (ToLower(actual) != ToLower(expectedHash_)) {
      return AbandonInvalidUpload(actual);
    }
    return RemoteFileSystemWebDAVBase::WriteFile(data, size);
  }
  return SendWhileHashing(data, size);
}

// The hash of a large block is taken on another core while the block is sent, so that an upload
// runs at the speed of the connection rather than of the hash. A small one is not worth a thread.
FileSystem::Result RemoteFileSystemWebDAV::SendWhileHashing(const std::uint8_t* data,
                                                            std::uint32_t size) {
  std::future<void> hashed;
  if (size >= kHashAsideFrom) {
    try {
      hashed =
          std::async(std::launch::async, [this, data, size] { hashCalculator_.Feed(data, size); });
    } catch (const std::system_error& error) {
      LOG_WARNING << "No thread to hash the upload beside its sending: " << error.what();
    }
  }
  if (!hashed.valid()) {
    hashCalculator_.Feed(data, size);
  }
  const Result sent = RemoteFileSystemWebDAVBase::WriteFile(data, size);
  if (hashed.valid()) {
    hashed.wait();
  }
  return sent;
}

FileSystem::Result RemoteFileSystemWebDAV::AbandonInvalidUpload(const std::string& actualHash) {
  LOG_WARNING << "Invalid content being uploaded. Expected hash is " << expectedHash_
              << ". Actual is " << actualHash << ".";
  RadarsLogger::instance().SendMetric("webdav_invalid_write_hash", "1", 1);
  SetFailReasonValue(FAIL_REASON_HTTP);
  return AbandonUpload(FAILED);
}

FileSystem::Result RemoteFileSystemWebDAV::AbandonUpload(Result result) {
  // The body stops short of its announced length, so the server never takes it as a file.
  const URLProcessor::Result finished = urlProcessor_->Finish();
  if (finished != URLProcessor::Result::OK) {
    LOG_WARNING << "Finished returned not succeeded but " << finished << ".";
  }
  openMode_ = kIdle;
  bytesDone_ = 0;
  hashingUpload_ = false;
  return finished == URLProcessor::Result::STOPPED ? STOPPED : result;
}

FileSystem::Result RemoteFileSystemWebDAV::FinishWrite(SomeHash* hashOut) {
  checkEtagOnFirstRead_ = false;
  Result result = RemoteFileSystemWebDAVBase::FinishWrite(hashOut);
  if (result == SUCCEEDED) {
    const std::string etag = GetValueFromHTTPHeaders(responseHeaders_, "etag", true);
    if (bytesDone_ < uploadSize_) {
      LOG_WARNING << "Partial write.";
      result = FAILED;
    } else if (!hashOut) {
      LOG_ERROR << "No props. Props should be here to retrieve hash.";
      result = FAILED;
    } else if (!etag.empty()) {
      *hashOut = SomeHash(etag);
    } else {
      result = FetchEtagAfterUpload(hashOut);
    }
  }
  bytesDone_ = 0;
  hashingUpload_ = false;
  return result;
}

FileSystem::Result RemoteFileSystemWebDAV::PropfindFile(const std::string& path, FileProps* props,
                                                        const char* failureLine) {
  // 1. One Depth 0 PROPFIND of the file.
  URLProcessor::Request request;
  request.verb = "PROPFIND";
  request.url = MakeFileUrl(path);
  request.headers = {"Depth: 0"};
  std::string body;
  if (urlProcessor_->Send(request)) {
    body = ReadAnswerPrefix(urlProcessor_->GetInputStream());
  }
  const URLProcessor::Result result = urlProcessor_->Finish();
  SetFailReason(result, -1);
  if (result == URLProcessor::Result::STOPPED) {
    LOG_INFO << "Stopped.";
    return STOPPED;
  }
  if (result != URLProcessor::Result::MULTI_STATUS) {
    LOG_INFO << "Response: " << body;
    LOG_WARNING << failureLine << result;
    return GetResultFromHttpCodeOrFailed(urlProcessor_->GetResponseCode());
  }

  // 2. Its etag and length.
  QXmlStreamReader xml(QByteArray::fromRawData(body.data(), static_cast<int>(body.size())));
  while (!(props->length && !props->etag.empty()) && !xml.atEnd() && !xml.hasError()) {
    if (xml.readNext() != QXmlStreamReader::StartElement) {
      continue;
    }
    if (xml.name() == QLatin1String("getcontentlength")) {
      props->length = QStrToStr(xml.readElementText());
    } else if (xml.name() == QLatin1String("getetag")) {
      props->etag = QStrToStr(xml.readElementText());
    }
  }
  if (xml.hasError()) {
    LOG_ERROR << "Failed to parse xml from: " << body
              << " \nerror: " << QStrToStr(xml.errorString());
    return FAILED;
  }
  if (props->etag.empty()) {
    LOG_INFO << "Response: " << body;
  }
  return SUCCEEDED;
}

FileSystem::Result RemoteFileSystemWebDAV::FetchEtagAfterUpload(SomeHash* hashOut) {
  FileProps props;
  if (PropfindFile(uploadPath_, &props, "Failed to read response to propfind after file write: ") !=
      SUCCEEDED) {
    return FAILED;
  }
  if (props.length && *props.length != std::to_string(bytesDone_)) {
    LOG_WARNING << "Remote file size doesn't match " << bytesDone_ << ".";
    LOG_INFO << "Content length is 0, trying a bit later...";
    WaitForStop(kSizeSettleWaitMs);
  }
  if (props.etag.empty()) {
    LOG_ERROR << "No etag in response.";
    return FAILED;
  }
  *hashOut = SomeHash(props.etag);
  return SUCCEEDED;
}

FileSystem::Result RemoteFileSystemWebDAV::IfMatchFor(const std::string& path,
                                                      const std::string& control,
                                                      std::string* ifMatch) {
  // 1. A strong etag is sent as it is.
  *ifMatch = control;
  if (!IsWeakEtag(control)) {
    return SUCCEEDED;
  }
  // 2. A weak one never matches under If-Match's strong comparison: the file's etag of now is
  //    compared weakly instead.
  FileProps props;
  const Result asked = PropfindFile(path, &props, "Failed to read the etag of a file: ");
  if (asked != SUCCEEDED) {
    return asked;
  }
  if (OpaqueTag(props.etag) != OpaqueTag(control)) {
    LOG_WARNING << "Precondition failed: " << Quoted(path) << " is " << props.etag << ", not "
                << control << ".";
    return CONFLICT;
  }
  // 3. The same version: its strong form once the server gives one; while it is still weak, the
  //    check just made stands for the condition.
  *ifMatch = IsWeakEtag(props.etag) ? std::string() : props.etag;
  LOG_INFO << "Weak etag " << control
           << " matches; condition sent: " << (ifMatch->empty() ? std::string("none") : *ifMatch)
           << ".";
  return SUCCEEDED;
}

FileSystem::Result RemoteFileSystemWebDAV::OpenForRead(const std::string& path,
                                                       std::uint64_t offset, std::uint64_t limit,
                                                       std::uint64_t size, const SomeHash& hash) {
  // The state below belongs to the open file until it is closed.
  if (const Result idle = CheckFileSlotIdle(); idle != SUCCEEDED) {
    return idle;
  }
  expectedHash_ = hash.GetHashGenericString();
  uploadSize_ = size;
  bytesDone_ = 0;
  checkEtagOnFirstRead_ = true;
  return RemoteFileSystemWebDAVBase::OpenForRead(path, offset, limit, size, hash);
}

FileSystem::Result RemoteFileSystemWebDAV::ReadFile(std::uint8_t* buffer, std::uint32_t size,
                                                    std::uint32_t* done) {
  const Result result = RemoteFileSystemWebDAVBase::ReadFile(buffer, size, done);
  if (result != SUCCEEDED) {
    return result;
  }
  if (*done != 0 && checkEtagOnFirstRead_) {
    const Result checked = CheckEtagOfRead();
    if (checked != SUCCEEDED) {
      return checked;
    }
    checkEtagOnFirstRead_ = false;
  }
  bytesDone_ += *done;
  return SUCCEEDED;
}

FileSystem::Result RemoteFileSystemWebDAV::CheckEtagOfRead() {
  const std::string etag = GetValueFromHTTPHeaders(responseHeaders_, "etag", true);
  if (etag.empty() || expectedHash_.empty() || EtagsAgree(etag, expectedHash_)) {
    return SUCCEEDED;
  }
  LOG_WARNING << "Invalid content received, expected " << expectedHash_ << ",  got " << etag;
  RadarsLogger::instance().SendMetric("webdav_remote_invalid_hash", "1", 1);
  openMode_ = kIdle;
  const URLProcessor::Result finished = FinishTransfer(nullptr);
  LOG_INFO << "Finish() returned " << finished;
  // The transfer's word as a result: a read that went through is still refused.
  switch (finished) {
    case URLProcessor::Result::STOPPED:
      return STOPPED;
    case URLProcessor::Result::OK:
    case URLProcessor::Result::PARTIAL_CONTENT:
      return FAILED;
    default:
      return GetResultFromHttpCodeOrFailed(urlProcessor_->GetResponseCode());
  }
}

FileSystem::Result RemoteFileSystemWebDAV::FinishRead() {
  checkEtagOnFirstRead_ = false;
  const Result result = RemoteFileSystemWebDAVBase::FinishRead();
  bytesDone_ = 0;
  return result;
}
