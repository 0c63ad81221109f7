// YandexSelfUploads: the uploads this client made to a Yandex Disk, kept until the change feed
// brings each one back, so that the echo is dropped instead of applied again. Records are keyed
// by path; two uploads of the same content make two records, each used once.
//
//   uploads.Add("docs/a.txt", {hash, 12});          // the upload was confirmed
//   if (uploads.Take(change)) return true;         // its FILE_CREATE or FILE_MODIFY came back
//
// Added on the thread of a file operation, taken on the thread of the feed: guarded by a mutex.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "core/FileSystem.h"
#include "core/SomeHash.h"
#include "core/tsl/htrie_map.h"

class YandexSelfUploads {
 public:
  struct SelfUploadedFile {
    HashYandex hash;
    std::uint64_t size = 0;
  };

  void Add(const std::string& path, const SelfUploadedFile& file);
  // True, and the record is used up, when `change` creates or modifies a file as recorded.
  bool Take(const FileSystem::Change& change);

 private:
  std::mutex mutex_;
  tsl::htrie_map<char, std::vector<SelfUploadedFile>> files_;
};
