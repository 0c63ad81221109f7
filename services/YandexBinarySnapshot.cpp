#include "services/YandexBinarySnapshot.h"

#include <charconv>

#include "core/HashImpl.h"
#include "core/LoggerWrapper.h"
#include "core/Nodes.h"
#include "core/RadarsLogger.h"
#include "core/SomeHash.h"
#include "core/URLProcessor.h"

namespace {

using yandex_items::Place;

constexpr std::uint32_t kFileHashesBytes = 48;

std::string Trimmed(const std::string& text) {
  const std::size_t begin = text.find_first_not_of(" \t\r\n");
  if (begin == std::string::npos) {
    return std::string();
  }
  return text.substr(begin, text.find_last_not_of(" \t\r\n") + 1 - begin);
}

// A count is a positive decimal number; "-1", "" and "12x" are none.
std::uint64_t ParseCount(const std::string& text) {
  std::uint64_t value = 0;
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, value);
  return error == std::errc() && stop == end ? value : 0;
}

std::string_view WithoutLeadingSlash(std::string_view path) {
  if (!path.empty() && path.front() == '/') {
    path.remove_prefix(1);
  }
  return path;
}

}  // namespace

YandexBinarySnapshot::YandexBinarySnapshot(FolderNode* root, Settings settings,
                                           RemoteFileSystem::SnapshotDownloadProgress* progress)
    : root_(root), settings_(std::move(settings)), progress_(progress) {}

bool YandexBinarySnapshot::Parse(InputStream* input, const std::string& headers) {
  SnapshotBufferedReader reader(input);
  bool good = true;
  while (!reader.Failed() && !reader.EndOfStream() &&
         (expectedItems_ == 0 || expectedItems_ > files_ + folders_)) {
    bool ended = false;
    if (!ReadEntry(&reader, headers, &ended)) {
      good = false;
      break;
    }
    if (ended) {
      break;
    }
    // Progress counts entries here, not bytes.
    progress_->seen_bytes = files_ + folders_;
    progress_->expected_bytes = expectedItems_;
  }
  offset_ = reader.Offset();
  return good;
}

void YandexBinarySnapshot::ReadExpectedItems(const std::string& headers) {
  expectedItems_ = ParseCount(Trimmed(GetValueFromHTTPHeaders(headers, "Item-Count", true)));
  if (expectedItems_ == 0) {
    RadarsLogger::instance().SendMetric("yandex_snapshot_no_total_count", "1", 1);
    LOG_WARNING << "No item count header in: " << headers;
  } else {
    LOG_INFO << "Expecting " << expectedItems_ << " items in snapshot.";
  }
}

bool YandexBinarySnapshot::ReadEntry(SnapshotBufferedReader* reader, const std::string& headers,
                                     bool* ended) {
  const std::uint64_t start = reader->Offset();
  std::uint8_t type = 0;
  if (!reader->ReadByte(&type)) {
    if (reader->EndOfStream()) {
      *ended = true;
      return true;
    }
    LOG_WARNING << "Snapshot is truncated at " << reader->Offset();
    return false;
  }
  if (expectedItems_ == 0) {
    ReadExpectedItems(headers);
  }
  switch (type) {
    case kFileEntry:
      return ReadFile(reader);
    case kFolderEntry:
      return ReadFolder(reader);
    default:
      LOG_WARNING << "Unknown entry type: " << static_cast<int>(type) << " at " << start;
      return false;
  }
}

bool YandexBinarySnapshot::ReadPath(SnapshotBufferedReader* reader, std::string* path) {
  std::uint64_t length = 0;
  return reader->ReadULEB64(&length) && reader->ReadString(length, path);
}

bool YandexBinarySnapshot::FailedRecord(const SnapshotBufferedReader& reader,
                                        const char* recordWord, std::uint64_t recordStart) {
  if (reader.EndOfStream()) {
    LOG_WARNING << "Snapshot is truncated at " << reader.Offset();
  } else {
    LOG_WARNING << recordWord << recordStart;
  }
  return false;
}

bool YandexBinarySnapshot::ReadFile(SnapshotBufferedReader* reader) {
  // 1. The record.
  const std::uint64_t start = reader->Offset();
  std::uint8_t hashes[kFileHashesBytes];
  std::uint64_t size = 0;
  std::string path;
  if (!reader->ReadBytes(hashes, kFileHashesBytes) || !reader->ReadULEB64(&size) ||
      !ReadPath(reader, &path)) {
    return FailedRecord(*reader, "Failed to deserialize file record, offset ", start);
  }

  // 2. Its place in the tree.
  std::string local;
  const Place place = yandex_items::LocalPath(WithoutLeadingSlash(path), settings_.mount, &local);
  if (place == Place::kOutside) {
    LOG_WARNING << "Encountered path no rooted at remote \"" << path << "\"";
    return false;
  }
  std::string_view name;
  FolderNode* parent = place == Place::kInside ? FileParent(local, &name) : nullptr;
  if (!parent) {
    LOG_ERROR << "Failed to find/create parent for: " << path;
    return false;
  }

  // 3. The node.
  HashYandex hash;
  std::copy(hashes, hashes + hash.md5.kSize, hash.md5.data());
  std::copy(hashes + hash.md5.kSize, hashes + kFileHashesBytes, hash.sha256.data());
  if (!parent->CreateFileW(name, size, SomeHash(hash), settings_.snapshotTime)) {
    LOG_ERROR << "Failed to create file at: " << path;
    return false;
  }
  ++files_;
  return true;
}

bool YandexBinarySnapshot::ReadFolder(SnapshotBufferedReader* reader) {
  // 1. The record; the mounted folder itself is counted and no more.
  const std::uint64_t start = reader->Offset();
  std::string path;
  if (!ReadPath(reader, &path)) {
    return FailedRecord(*reader, "Failed to deserialize folder record, offset ", start);
  }
  std::string local;
  const Place place = yandex_items::LocalPath(WithoutLeadingSlash(path), settings_.mount, &local);
  if (place == Place::kMountedRoot) {
    ++folders_;
    return true;
  }
  if (place == Place::kOutside) {
    LOG_WARNING << "Encountered path no rooted at remote \"" << path << "\"";
    return false;
  }

  // 2. Its parent came before it; a file record may have made the folder itself already.
  const auto [parent, name] = root_->TraversePath(local);
  if (!parent) {
    LOG_ERROR << "Failed to find parent for: " << path;
    return false;
  }
  if (!parent->GetFolder(name) && !parent->CreateFolder(name)) {
    LOG_ERROR << "Failed to create folder at: " << path;
    return false;
  }
  ++folders_;
  return true;
}

FolderNode* YandexBinarySnapshot::FileParent(const std::string& local, std::string_view* name) {
  const std::size_t slash = local.rfind('/');
  const std::string_view parentPath =
      slash == std::string::npos ? std::string_view() : std::string_view(local).substr(0, slash);
  *name = slash == std::string::npos ? std::string_view(local)
                                     : std::string_view(local).substr(slash + 1);
  if (lastParent_ && parentPath == lastParentPath_) {
    return lastParent_;
  }
  std::string_view last;
  FolderNode* parent = root_->TraversePathAndCreateDirs(local, &last);
  lastParent_ = parent;
  lastParentPath_.assign(parentPath);
  return parent;
}
