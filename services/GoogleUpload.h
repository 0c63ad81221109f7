// GoogleUpload: the wire side of one file going up to Drive through a resumable session. One
// POST (new file) or PATCH (new version) with the metadata asks for the session, whose URL comes
// in "Location"; a single streaming PUT carries the bytes; a stored session is asked how far it
// got by an empty PUT with "Content-Range: bytes */SIZE" and goes on from there.
//
//   GoogleUpload upload(http);
//   upload.RequestSession(url, false, metadata, key_header, &record);
//   upload.BeginBody(record);                 // from record.offset on
//   upload.Write(block, size) ...;
//   std::string answer;
//   URLProcessorResult ended = upload.Finish(&answer);   // the file resource as JSON
//
// The caller owns the state of the upload (google::CurrentUpload) and its verdicts; this class
// logs the exchange and tells how each request ended.
#pragma once

#include <cstdint>
#include <string>

#include "core/FileSystem.h"
#include "core/SomeHash.h"
#include "core/URLProcessor.h"
#include "services/ResumableUpload.h"

namespace google {

// An upload in progress, and what the account's store keeps of an interrupted one.
struct CurrentUpload {
  std::string path;
  std::string parent_id;
  std::string session_url;
  std::uint64_t sent = 0;  // bytes handed to the client
  bool is_resumed = false;
  std::uint64_t size = 0;          // announced
  std::uint64_t offset = 0;        // the next byte to send
  std::uint64_t started_from = 0;  // where this attempt began
  HashGoogle expected_hash;        // announced by the caller; zero when unknown
  std::string file_id;             // the file a rewrite replaces
  std::uint64_t mtime = 0;         // sent with the session
};

// Where a stored session stands on the server.
enum class SessionStatus { kResumable, kExpired, kComplete, kFailed };

class GoogleUpload {
 public:
  explicit GoogleUpload(URLProcessor& http) : http_(http) {}

  // POST or PATCH of the metadata; `upload->session_url` from "Location".
  FileSystem::Result RequestSession(const std::string& url, bool is_update,
                                    const std::string& metadata, const std::string& key_header,
                                    CurrentUpload* upload);
  // The status PUT. kResumable sets `upload->offset` (0 when the server holds nothing); kComplete
  // leaves the server's file resource in `*answer`.
  SessionStatus QueryStatus(CurrentUpload* upload, std::string* answer);
  // The streaming PUT of the bytes from `upload.offset` to the end.
  bool BeginBody(const CurrentUpload& upload);
  // False when the client took the block not: the server answered early or the exchange broke.
  bool Write(const std::uint8_t* data, std::uint32_t size);
  // Ends the PUT: the answer's text (at most 64 KiB) and how the request ended.
  URLProcessorResult Finish(std::string* answer);

  URLProcessorResult LastResult() const { return http_.GetLastResult(); }
  int LastCode() const { return http_.GetResponseCode(); }
  bool BodyOpen() const { return body_open_; }

 private:
  URLProcessor& http_;
  bool body_open_ = false;
};

// "bytes=0-N" of a 308's "Range": N + 1 bytes are held; no such header, nothing is.
std::uint64_t OffsetFromRangeHeader(const std::string& range);

}  // namespace google

namespace resumable_upload {

template <>
struct SessionFields<google::CurrentUpload> {
  static HashGoogle& Hash(google::CurrentUpload& session) { return session.expected_hash; }
  static const HashGoogle& Hash(const google::CurrentUpload& session) {
    return session.expected_hash;
  }
  static std::uint64_t Size(const google::CurrentUpload& session) { return session.size; }
  static std::uint64_t Offset(const google::CurrentUpload& session) { return session.offset; }
};

}  // namespace resumable_upload
