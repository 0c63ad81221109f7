#include "services/HuaweiUpload.h"

#include <algorithm>
#include <cstdlib>

#include "core/Json.h"
#include "core/LoggerWrapper.h"
#include "core/StringUtils.h"
#include "services/HuaweiRequester.h"

namespace {

constexpr std::uint32_t kReadBlock = 16 * 1024;

std::string BodyOf(const utils::json::json_tree& body) {
  return utils::json::ToString(body, false);
}

// "bytes=0-N" of a 308's "Range" header: N + 1 bytes are in. False when there is no such header.
bool RangeEnd(const std::string& headers, std::uint64_t* end) {
  const std::string value = GetValueFromHTTPHeaders(headers, "Range", true);
  const std::size_t dash = value.find('-');
  if (value.compare(0, 8, "bytes=0-") != 0 || dash == std::string::npos) {
    return false;
  }
  *end = std::strtoull(value.c_str() + dash + 1, nullptr, 10) + 1;
  return true;
}

}  // namespace

HuaweiUpload::HuaweiUpload(URLProcessor& http, std::string path, HuaweiUploadSession session)
    : http_(http), path_(std::move(path)), session_(std::move(session)) {}

std::uint64_t HuaweiUpload::SliceEnd() const {
  return std::min(session_.size, session_.offset + session_.slice_size);
}

FileSystem::Result HuaweiUpload::Begin() {
  if (session_.url.empty()) {
    return RequestSession();
  }
  FileSystem::Result result = QueryOffset();
  if (result == FileSystem::ITEM_MISSED) {
    LOG_INFO << "Writing failed: \"" << path_ << "\", will start again.";
    session_.offset = 0;
    return RequestSession();
  }
  return result;
}

FileSystem::Result HuaweiUpload::RequestSession() {
  // 1. The request: POST for a new file in its folder, PATCH for a new version.
  utils::json::json_tree body;
  body.put("fileName", session_.name);
  body.put("editedTime", huawei::FormatTime(session_.time));
  DispatcherUrl url;
  std::string verb = "POST";
  if (session_.file_id.empty()) {
    url = HuaweiRequester::UploadUrl("/files");
    utils::json::json_tree parents, parent;
    parent.put_value(session_.parent_id);
    parents.push_back({"", parent});
    body.add_child("parentFolder", parents);
    body.put("createdTime", huawei::FormatTime(session_.time));
  } else {
    verb = "PATCH";
    url = HuaweiRequester::UploadUrl("/files/");
    url.Append(session_.file_id, DispatcherUrl::ValueEncodingMode::kSegment);
  }
  url.AppendParam("uploadType", "resume", DispatcherUrl::ValueEncodingMode::kAsIs);
  url.AppendParam("fields", "*", DispatcherUrl::ValueEncodingMode::kAsIs);
  url.AppendParam("autoRename", "false", DispatcherUrl::ValueEncodingMode::kAsIs);
  // 2. The answer names the session and its slice size.
  HuaweiRequester requester(&http_);
  utils::json::json_tree answer;
  FileSystem::Result result =
      requester.Send(verb, url, BodyOf(body), &answer,
                     {"X-Upload-Content-Length: " + std::to_string(session_.size)});
  if (result == FileSystem::STOPPED) {
    return result;
  }
  if (result != FileSystem::SUCCEEDED) {
    LOG_WARNING << "Get upload sessiob url request failed.";
    LOG_WARNING << "Failed get upload session url.";
    return result;
  }
  session_.url = GetValueFromHTTPHeaders(http_.GetResponseHeaders(), "Location", true);
  if (session_.url.empty()) {
    LOG_WARNING << "Failed get upload session url.";
    return FileSystem::FAILED;
  }
  const std::uint64_t named = std::strtoull(answer.get("sliceSize", "0").c_str(), nullptr, 10);
  session_.slice_size = named == 0 || named > kMaxSliceSize ? kDefaultSliceSize : named;
  session_.offset = 0;
  restart_needed_ = false;
  return FileSystem::SUCCEEDED;
}

FileSystem::Result HuaweiUpload::Put(bool query, int* code, std::string* body) {
  URLProcessor::Request request;
  request.verb = "PUT";
  request.url = DispatcherUrl::FromString(session_.url);
  const std::uint64_t first = session_.offset;
  request.headers.push_back(
      "Content-Range: bytes " +
      (query ? std::string("*")
             : std::to_string(first) + "-" + std::to_string(first + buffer_.size() - 1)) +
      "/" + std::to_string(session_.size));
  request.content_type = "application/octet-stream";
  const std::size_t length = query ? 0 : buffer_.size();
  if (http_.BeginUpload(request, length)) {
    if (length > 0) {
      http_.GetOutputStream()->Write(reinterpret_cast<const std::uint8_t*>(buffer_.data()),
                                     static_cast<std::uint32_t>(length));
    }
    http_.GetInputStream()->ReadAllTo(body, kReadBlock);
  }
  const URLProcessor::Result result = http_.Finish();
  *code = http_.GetResponseCode();
  if (result == URLProcessor::Result::STOPPED) {
    LOG_INFO << "Stopped.";
    return FileSystem::STOPPED;
  }
  if (IsNetworkErrorResult(result) || *code == 0) {
    LOG_WARNING << "Writing for \"" << path_ << "\" failed with result: " << result
                << ", response: " << utils::SafePrintBinary(*body);
    return FileSystem::FAILED;
  }
  return FileSystem::SUCCEEDED;
}

FileSystem::Result HuaweiUpload::QueryOffset() {
  int code = 0;
  std::string body;
  FileSystem::Result result = Put(true, &code, &body);
  if (result != FileSystem::SUCCEEDED) {
    return result;
  }
  if (code == 308) {
    return TakeProgress(body);
  }
  if (code == 200 || code == 201) {
    return TakeFile(body);
  }
  if (code == 404) {
    return FileSystem::ITEM_MISSED;
  }
  LOG_WARNING << "Writing failed: \"" << path_ << "\"";
  return huawei::ResultFromHttp(code, std::string());
}

FileSystem::Result HuaweiUpload::TakeProgress(const std::string& body) {
  // 1. How far the server got: the "Range" header, else the "rangeList" of the body.
  std::uint64_t end = 0;
  if (!RangeEnd(http_.GetResponseHeaders(), &end)) {
    utils::json::json_tree json;
    if (!utils::json::Parse(body, &json)) {
      LOG_WARNING << "Failed parse response.";
      return FileSystem::FAILED;
    }
    auto ranges = utils::json::Child(json, "rangeList");
    if (ranges && !ranges->empty()) {
      end = std::strtoull(ranges->back().second.get("end", "0").c_str(), nullptr, 10) + 1;
    }
  }
  // 2. A status query takes the server's word; a slice's answer lies within the slice.
  const std::uint64_t sent_end = session_.offset + buffer_.size();
  if (end > session_.size || (!buffer_.empty() && (end > sent_end || end < session_.offset))) {
    LOG_WARNING << "Writing failed: \"" << path_ << "\" reports offset " << end
                << " outside of the sent slice.";
    restart_needed_ = true;
    return FileSystem::FAILED;
  }
  buffer_.erase(0, static_cast<std::size_t>(end - session_.offset));
  session_.offset = end;
  return FileSystem::SUCCEEDED;
}

FileSystem::Result HuaweiUpload::TakeFile(const std::string& body) {
  final_answer_ = body;
  session_.offset = session_.size;
  buffer_.clear();
  done_ = true;
  return FileSystem::SUCCEEDED;
}

FileSystem::Result HuaweiUpload::SendSlice() {
  for (int attempt = 0; attempt < kMaxResends && !buffer_.empty(); ++attempt) {
    int code = 0;
    std::string body;
    FileSystem::Result result = Put(false, &code, &body);
    if (result != FileSystem::SUCCEEDED) {
      return result;
    }
    if (code == 200 || code == 201) {
      if (session_.offset + buffer_.size() != session_.size) {
        LOG_WARNING << "Writing failed: \"" << path_ << "\" finished before its last byte.";
        restart_needed_ = true;
        return FileSystem::FAILED;
      }
      LOG_INFO << "Last part of \"" << path_ << "\" uploaded, last offset is " << session_.size
               << ", finilizing upload...";
      return TakeFile(body);
    }
    if (code == 308) {
      result = TakeProgress(body);
      if (result != FileSystem::SUCCEEDED) {
        return result;
      }
      continue;
    }
    if (code == 404 && session_.offset == 0) {
      // The session expired before anything stayed: a new one takes the same slice.
      LOG_INFO << "Writing failed: \"" << path_ << "\", will start again.";
      session_.url.clear();
      result = RequestSession();
      if (result != FileSystem::SUCCEEDED) {
        return result;
      }
      continue;
    }
    LOG_WARNING << "Writing failed: \"" << path_ << "\"";
    restart_needed_ = code == 404;
    utils::json::json_tree json;
    const bool parsed = utils::json::Parse(body, &json);
    return huawei::ResultFromHttp(code, parsed ? huawei::ErrorCodeOf(json) : std::string());
  }
  if (!buffer_.empty()) {
    LOG_WARNING << "Writing failed: \"" << path_ << "\" makes no progress.";
    return FileSystem::FAILED;
  }
  return FileSystem::SUCCEEDED;
}

FileSystem::Result HuaweiUpload::Write(const std::uint8_t* data, std::uint32_t size) {
  std::uint32_t used = 0;
  while (used < size) {
    // 1. Fill the slice.
    const std::uint64_t room = SliceEnd() - session_.offset - buffer_.size();
    if (room == 0 || done_) {
      LOG_ERROR << "Write overflow; size=" << session_.size
                << ", actual_offset=" << session_.offset + buffer_.size();
      return FileSystem::FAILED;
    }
    const std::uint32_t take =
        static_cast<std::uint32_t>(std::min<std::uint64_t>(room, size - used));
    if (buffer_.capacity() < session_.slice_size) {
      buffer_.reserve(static_cast<std::size_t>(std::min(session_.slice_size, session_.size)));
    }
    buffer_.append(reinterpret_cast<const char*>(data) + used, take);
    used += take;
    // 2. A full slice goes.
    if (session_.offset + buffer_.size() == SliceEnd()) {
      if (session_.size > session_.slice_size) {
        LOG_INFO << "Writing big file, " << session_.offset << " of " << session_.size
                 << " is written.";
      }
      FileSystem::Result result = SendSlice();
      if (result != FileSystem::SUCCEEDED) {
        LOG_WARNING << "Writing failed.";
        return result;
      }
    }
  }
  return FileSystem::SUCCEEDED;
}

FileSystem::Result HuaweiUpload::Finish(huawei::Item* created) {
  // 1. A file of no bytes goes up by a status query alone.
  if (!done_ && session_.size == 0) {
    int code = 0;
    std::string body;
    FileSystem::Result result = Put(true, &code, &body);
    if (result != FileSystem::SUCCEEDED) {
      return result;
    }
    if (code != 200 && code != 201) {
      LOG_WARNING << "Failed to finalize upload of file \"" << path_ << "\"";
      return huawei::ResultFromHttp(code, std::string());
    }
    TakeFile(body);
  }
  if (!done_) {
    LOG_WARNING << "Failed to close opened file with result: " << FileSystem::FAILED;
    return FileSystem::FAILED;
  }
  LOG_INFO << "written data size: " << session_.size;
  // 2. The file the server made.
  utils::json::json_tree json;
  std::string error;
  if (!utils::json::Parse(final_answer_, &json) || !huawei::ParseItem(json, created, &error)) {
    LOG_ERROR << "Failed to parse JSON from: " << utils::SafePrintBinary(final_answer_);
    if (!error.empty()) {
      LOG_ERROR << error;
    }
    return FileSystem::FAILED;
  }
  if (created->size != session_.size) {
    LOG_ERROR << "Wrong uploaded size for \"" << path_ << "\", expected " << session_.size
              << ", got " << created->size;
    return FileSystem::FAILED;
  }
  LOG_INFO << "Finished.";
  return FileSystem::SUCCEEDED;
}
