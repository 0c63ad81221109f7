// Helpers of the Yandex Disk tests: the bytes of a binary tree snapshot, built by hand from its
// record layout, and a tree written out line by line for comparison.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

class FolderNode;
class RemoteFileSystemFactory;
class RemoteFileSystemYandex;

namespace test {

// A ULEB64: seven bits a byte, lowest first, the top bit on all bytes but the last.
std::string Uleb64(std::uint64_t value);

// Records of the snapshot. `md5` and `sha256` are the raw digests (16 and 32 bytes); a file's
// digests default to bytes derived from its path.
std::string SnapshotFolder(const std::string& path);
std::string SnapshotFile(const std::string& path, std::uint64_t size);
std::string SnapshotFile(const std::string& path, std::uint64_t size, const std::string& md5,
                         const std::string& sha256);
// The digests SnapshotFile gives `path`, as lower-case hex of the MD5 then the SHA-256.
std::string SnapshotFileHashHex(const std::string& path);

// Points both Yandex hosts at `baseUrl` for the life of the process (until ResetOverrides).
void PointYandexAt(const std::string& baseUrl);
// An adapter of a new factory for `root`, opened with the token "token" in Yandex's scheme. The
// factory is kept in `*factory`.
std::unique_ptr<RemoteFileSystemYandex> OpenYandex(
    const std::string& root, std::unique_ptr<RemoteFileSystemFactory>* factory);

// "d path" for each folder and "f path size hash-hex time" for each file, in name order.
std::vector<std::string> TreeLines(const FolderNode& root, bool withTime = false);

}  // namespace test
