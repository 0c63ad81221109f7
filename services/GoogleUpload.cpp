#include "services/GoogleUpload.h"

#include <cerrno>
#include <cstdlib>

#include "core/LoggerWrapper.h"

namespace google {

namespace {

constexpr std::size_t kMaxAnswerBytes = 64 * 1024;

}  // namespace

std::uint64_t OffsetFromRangeHeader(const std::string& range) {
  const std::string prefix = "bytes=0-";
  if (range.compare(0, prefix.size(), prefix) != 0 || range.size() == prefix.size() ||
      range[prefix.size()] < '0' || range[prefix.size()] > '9') {
    return 0;
  }
  errno = 0;
  char* end = nullptr;
  unsigned long long last = std::strtoull(range.c_str() + prefix.size(), &end, 10);
  // Anything but a plain number is no offset we can trust: the upload starts over. The end is the
  // header's length, not the first NUL: "bytes=0-41\0..." is no more a number than "bytes=0-41x".
  if (end != range.c_str() + range.size() || errno != 0 || last == UINT64_MAX) {
    LOG_WARNING << "Unreadable Range of a resumable upload, starting over: " << range.size()
                << " bytes";
    return 0;
  }
  return last + 1;
}

FileSystem::Result GoogleUpload::RequestSession(const std::string& url, bool is_update,
                                                const std::string& metadata,
                                                const std::string& key_header,
                                                CurrentUpload* upload) {
  // 1. The request.
  URLProcessor::Request request;
  request.verb = is_update ? "PATCH" : "POST";
  request.url = DispatcherUrl::FromString(url);
  request.body = metadata;
  request.content_type = "application/json; charset=UTF-8";
  request.headers.push_back("X-Upload-Content-Type: application/octet-stream");
  request.headers.push_back("X-Upload-Content-Length: " + std::to_string(upload->size));
  if (!key_header.empty()) {
    request.headers.push_back(key_header);
  }
  std::string text;
  if (http_.Send(request)) {
    http_.GetInputStream()->ReadAllTo(&text, 4096, 4096);
  }
  URLProcessorResult result = http_.Finish();
  // 2. The session's URL.
  if (result == URLProcessorResult::STOPPED) {
    LOG_INFO << "Stopped.";
    return FileSystem::STOPPED;
  }
  if (!IsSuccessResult(result)) {
    LOG_ERROR << "Response: " << text;
    LOG_ERROR << "Failed to request upload uri: " << result << "; code " << http_.GetResponseCode();
    return FileSystem::FAILED;
  }
  upload->session_url = GetValueFromHTTPHeaders(http_.GetResponseHeaders(), "Location", true);
  if (upload->session_url.empty()) {
    LOG_ERROR << "Response: " << text;
    LOG_ERROR << "Invalid respone headers: " << http_.GetResponseHeaders();
    return FileSystem::FAILED;
  }
  upload->offset = 0;
  upload->sent = 0;
  upload->started_from = 0;
  return FileSystem::SUCCEEDED;
}

SessionStatus GoogleUpload::QueryStatus(CurrentUpload* upload, std::string* answer) {
  URLProcessor::Request request;
  request.verb = "PUT";
  request.url = DispatcherUrl::FromString(upload->session_url);
  request.headers.push_back("Content-Range: bytes */" + std::to_string(upload->size));
  if (http_.Send(request)) {
    http_.GetInputStream()->ReadAllTo(answer, 4096, kMaxAnswerBytes);
  }
  URLProcessorResult result = http_.Finish();
  int code = http_.GetResponseCode();
  if (code == 308) {
    upload->offset =
        OffsetFromRangeHeader(GetValueFromHTTPHeaders(http_.GetResponseHeaders(), "Range", true));
    return upload->offset > upload->size ? SessionStatus::kFailed : SessionStatus::kResumable;
  }
  if (code == 404) {
    return SessionStatus::kExpired;
  }
  if ((code == 200 || code == 201) && IsSuccessResult(result)) {
    return SessionStatus::kComplete;
  }
  return SessionStatus::kFailed;
}

bool GoogleUpload::BeginBody(const CurrentUpload& upload) {
  URLProcessor::Request request;
  request.verb = "PUT";
  request.url = DispatcherUrl::FromString(upload.session_url);
  request.content_type = "application/octet-stream";
  std::uint64_t rest = upload.size - upload.offset;
  if (upload.offset > 0) {
    request.headers.push_back("Content-Range: bytes " + std::to_string(upload.offset) + "-" +
                              std::to_string(upload.size - 1) + "/" + std::to_string(upload.size));
  }
  body_open_ = http_.BeginUpload(request, rest);
  return body_open_;
}

bool GoogleUpload::Write(const std::uint8_t* data, std::uint32_t size) {
  if (!body_open_) {
    return false;
  }
  StreamResult written = http_.GetOutputStream()->Write(data, size);
  return written == StreamResult::OK || written == StreamResult::END;
}

URLProcessorResult GoogleUpload::Finish(std::string* answer) {
  if (body_open_) {
    if (InputStream* stream = http_.GetInputStream()) {
      stream->ReadAllTo(answer, 4096, kMaxAnswerBytes);
    }
  }
  body_open_ = false;
  return http_.Finish();
}

}  // namespace google
