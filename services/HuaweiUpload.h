// HuaweiUpload: one file going up through a Huawei Drive resumable session. The session is asked
// for (POST for a new file, PATCH for a new version), the content goes in slices of the size the
// server names, each PUT with "Content-Range"; 308 tells how far the server got, 200 or 201
// carries the file. At most one slice is held in memory.
//
//   HuaweiUpload upload(processor, path, session);
//   if (upload.Begin() == SUCCEEDED) { skip session().offset bytes; upload.Write(...)...; }
//   huawei::Item created;
//   upload.Finish(&created);
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "core/FileSystem.h"
#include "core/URLProcessor.h"
#include "services/RemoteHuaweiUtils.h"

// What the session store keeps of an interrupted upload.
struct HuaweiUploadSession {
  std::string hash;  // the content's hash as the core gave it; empty until known
  std::uint64_t size = 0;
  std::uint64_t offset = 0;  // accepted by the server
  std::string url;           // the session's "Location"
  std::uint64_t slice_size = 0;
  std::string parent_id;  // a new file's folder
  std::string file_id;    // the file a new version replaces
  std::string name;
  std::uint64_t time = 0;
};

class HuaweiUpload {
 public:
  // Used where the server names no "sliceSize", or an unusable one.
  static constexpr std::uint64_t kDefaultSliceSize = 4ull << 20;
  static constexpr std::uint64_t kMaxSliceSize = 256ull << 20;
  static constexpr int kMaxResends = 8;

  HuaweiUpload(URLProcessor& http, std::string path, HuaweiUploadSession session);

  // A fresh session, or the check that a resumed one still stands (its offset then comes from
  // the server).
  FileSystem::Result Begin();
  FileSystem::Result Write(const std::uint8_t* data, std::uint32_t size);
  // After the last byte: the file as the server has it.
  FileSystem::Result Finish(huawei::Item* created);

  const HuaweiUploadSession& session() const { return session_; }
  // Whether the session can go on later from its offset.
  bool Resumable() const { return !session_.url.empty() && !restart_needed_; }

 private:
  FileSystem::Result RequestSession();
  FileSystem::Result QueryOffset();
  FileSystem::Result SendSlice();
  // One PUT of `buffer_` (or of nothing, for a status query) and its answer.
  FileSystem::Result Put(bool query, int* code, std::string* body);
  FileSystem::Result TakeProgress(const std::string& body);
  FileSystem::Result TakeFile(const std::string& body);
  std::uint64_t SliceEnd() const;

  URLProcessor& http_;
  const std::string path_;
  HuaweiUploadSession session_;
  std::string buffer_;  // bytes from session_.offset on, at most one slice
  std::string final_answer_;
  bool done_ = false;
  bool restart_needed_ = false;
};
