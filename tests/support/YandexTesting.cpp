#include "support/YandexTesting.h"

#include <functional>

#include "core/Cookie.h"
#include "core/CurlURLProcessorFactory.h"
#include "core/Endpoints.h"
#include "core/Nodes.h"
#include "core/RemoteFileSystemFactory.h"
#include "services/RemoteFSFactoryConstructor.h"
#include "services/RemoteFileSystemYandex.h"

namespace test {
namespace {

std::string DerivedBytes(const std::string& seed, std::size_t size) {
  std::string bytes(size, '\0');
  std::size_t state = std::hash<std::string>()(seed) | 1;
  for (char& byte : bytes) {
    state = state * 6364136223846793005ull + 1442695040888963407ull;
    byte = static_cast<char>((state >> 33) | 1);
  }
  return bytes;
}

std::string Hex(const std::string& bytes) {
  static const char kDigits[] = "0123456789abcdef";
  std::string out;
  for (unsigned char byte : bytes) {
    out += kDigits[byte >> 4];
    out += kDigits[byte & 15];
  }
  return out;
}

void Walk(const FolderNode& folder, const std::string& prefix, bool withTime,
          std::vector<std::string>* lines) {
  for (auto it = folder.FilesBegin(); it != folder.FilesEnd(); ++it) {
    std::string line = "f " + prefix + it->GetName() + " " + std::to_string(it->size) + " " +
                       it->hash.ToHexString();
    if (withTime) {
      line += " " + std::to_string(it->GetTime());
    }
    lines->push_back(line);
  }
  for (auto it = folder.FoldersBegin(); it != folder.FoldersEnd(); ++it) {
    lines->push_back("d " + prefix + it->GetName());
    Walk(**it, prefix + it->GetName() + "/", withTime, lines);
  }
}

}  // namespace

std::string Uleb64(std::uint64_t value) {
  std::string out;
  do {
    std::uint8_t byte = value & 0x7f;
    value >>= 7;
    if (value != 0) {
      byte |= 0x80;
    }
    out += static_cast<char>(byte);
  } while (value != 0);
  return out;
}

std::string SnapshotFolder(const std::string& path) {
  return std::string(1, '\x02') + Uleb64(path.size()) + path;
}

std::string SnapshotFile(const std::string& path, std::uint64_t size, const std::string& md5,
                         const std::string& sha256) {
  return std::string(1, '\x01') + md5 + sha256 + Uleb64(size) + Uleb64(path.size()) + path;
}

std::string SnapshotFile(const std::string& path, std::uint64_t size) {
  return SnapshotFile(path, size, DerivedBytes(path, 16), DerivedBytes(path + "#", 32));
}

std::string SnapshotFileHashHex(const std::string& path) {
  return Hex(DerivedBytes(path, 16)) + Hex(DerivedBytes(path + "#", 32));
}

void PointYandexAt(const std::string& baseUrl) {
  Endpoints::Override(Endpoints::kYandexWebDAV, baseUrl);
  Endpoints::Override(Endpoints::kYandexRest, baseUrl);
}

std::unique_ptr<RemoteFileSystemYandex> OpenYandex(
    const std::string& root, std::unique_ptr<RemoteFileSystemFactory>* factory) {
  factory->reset(H6BA54F7D00(CloudServiceId::YANDEX, root));
  std::unique_ptr<RemoteFileSystemYandex> fs(
      static_cast<RemoteFileSystemYandex*>((*factory)->Create()));
  auto http = std::make_shared<CurlURLProcessorFactory>(std::make_shared<core::cookie::CookieOAuth>(
      "token", core::cookie::CookieOAuth::kYandexScheme));
  if (!fs->Open(http)) {
    return nullptr;
  }
  return fs;
}

std::vector<std::string> TreeLines(const FolderNode& root, bool withTime) {
  std::vector<std::string> lines;
  Walk(root, "", withTime, &lines);
  return lines;
}

}  // namespace test
