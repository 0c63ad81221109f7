// Any bytes as a binary tree snapshot of Yandex Disk. The first byte picks a mounted folder or
// none and the read size the stream hands over; the rest is the body. No crash, no hang, and the
// tree holds exactly the files the parse counted.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "core/InputStream.h"
#include "core/Nodes.h"
#include "services/YandexBinarySnapshot.h"
#include "tests/support/PassThroughNameMapper.h"

namespace {

std::uint64_t CountFiles(const FolderNode& folder) {
  std::uint64_t files = folder.FileCount();
  for (auto it = folder.FoldersBegin(); it != folder.FoldersEnd(); ++it) {
    files += CountFiles(**it);
  }
  return files;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) {
    return 0;
  }
  const std::uint8_t control = data[0];
  const std::string mount = (control & 1) ? "Docs" : "";
  const std::string headers = (control & 2) ? "Item-Count: 3\r\n" : "";
  const std::uint32_t block = 1 + (control >> 2) * 97;
  MemoryInputStream body(std::string(reinterpret_cast<const char*>(data) + 1, size - 1), block);
  test::PassThroughNameMapper mapper;
  FolderNode root;
  RemoteFileSystem::SnapshotDownloadProgress progress;
  YandexBinarySnapshot snapshot(&root, {{mount, &mapper}, 1}, &progress);
  snapshot.Parse(&body, headers);
  if (CountFiles(root) != snapshot.Files() || snapshot.Offset() > size - 1) {
    std::abort();
  }
  return 0;
}
