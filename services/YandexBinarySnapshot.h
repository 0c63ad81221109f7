// YandexBinarySnapshot: Yandex Disk's packed tree (the answer to "GET /disk?index&v=3" on the
// WebDAV host) parsed while it arrives, straight into the node tree.
//
// The body is a run of entries, no header nor trailer. Numbers are ULEB64.
//   file:   1, MD5 (16 bytes), SHA-256 (32 bytes), size, path length, path
//   folder: 2, path length, path
// Paths start at the disk's root and are joined by "/"; files bear no time, so each takes the
// time the request started.
//
//   YandexBinarySnapshot snapshot(root, {{"Docs", &mapper}, startSec}, &progress);
//   if (snapshot.Parse(processor->GetInputStream(), responseHeaders)) ...
//   snapshot.Files(); snapshot.Folders(); snapshot.ExpectedItems(); snapshot.Offset();
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "core/RemoteFileSystem.h"
#include "services/SnapshotBufferedReader.h"
#include "services/YandexItems.h"

class FolderNode;
class InputStream;

class YandexBinarySnapshot {
 public:
  enum EntryType : std::uint8_t { kFileEntry = 1, kFolderEntry = 2 };

  struct Settings {
    yandex_items::Mount mount;
    std::uint64_t snapshotTime = 0;
  };

  YandexBinarySnapshot(FolderNode* root, Settings settings,
                       RemoteFileSystem::SnapshotDownloadProgress* progress);

  // Reads entries until the body ends between two, or "Item-Count" of `headers` is reached.
  // False when an entry is broken or doesn't fit the tree (logged).
  bool Parse(InputStream* input, const std::string& headers);

  std::uint64_t Files() const { return files_; }
  std::uint64_t Folders() const { return folders_; }
  // "Item-Count" of the answer; 0 when it was missing or no count.
  std::uint64_t ExpectedItems() const { return expectedItems_; }
  std::uint64_t Offset() const { return offset_; }

 private:
  bool ReadEntry(SnapshotBufferedReader* reader, const std::string& headers, bool* ended);
  void ReadExpectedItems(const std::string& headers);
  bool ReadFile(SnapshotBufferedReader* reader);
  bool ReadFolder(SnapshotBufferedReader* reader);
  static bool ReadPath(SnapshotBufferedReader* reader, std::string* path);
  // Logs why a record could not be read: the body's end, or `recordWord` and where it began.
  static bool FailedRecord(const SnapshotBufferedReader& reader, const char* recordWord,
                           std::uint64_t recordStart);
  FolderNode* FileParent(const std::string& local, std::string_view* name);

  FolderNode* root_;
  Settings settings_;
  RemoteFileSystem::SnapshotDownloadProgress* progress_;
  std::uint64_t files_ = 0;
  std::uint64_t folders_ = 0;
  std::uint64_t expectedItems_ = 0;
  std::uint64_t offset_ = 0;
  // The folder of the last file: a snapshot lists a folder's files together.
  std::string lastParentPath_;
  FolderNode* lastParent_ = nullptr;
};
