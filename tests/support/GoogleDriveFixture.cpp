#include "support/GoogleDriveFixture.h"

#include "core/Cookie.h"
#include "core/CurlURLProcessorFactory.h"
#include "core/Endpoints.h"
#include "core/HashCalculators.h"
#include "services/RemoteFileSystemFactoryGoogle.h"
#include "support/StartEmulator.h"

namespace test {

GoogleDrive::GoogleDrive(const std::string& remote_root, const std::string& token) {
  auto made = std::make_unique<emulators::GoogleDialect>();
  dialect = made.get();
  emulator = test::StartEmulator(std::move(made));
  factory = std::make_unique<RemoteFileSystemFactoryGoogle>(remote_root);
  fs.reset(static_cast<RemoteFileSystemGoogle*>(factory->Create()));
  opened = fs->Open(std::make_shared<CurlURLProcessorFactory>(
      std::make_shared<core::cookie::CookieOAuth>(token)));
}

GoogleDrive::~GoogleDrive() {
  fs.reset();
  emulator.reset();
  Endpoints::ResetOverrides();
}

FileSystem::Result GoogleDrive::GetFullTree(FolderNode* root, bool shared_items) {
  std::uint64_t free = 0;
  std::uint64_t total = 0;
  tsl::htrie_set<char> shared;
  return shared_items ? fs->GetFullTree(root, &free, &total, &shared)
                      : fs->GetFullTreeWithoutSharedData(root, &free, &total, &shared);
}

int GoogleDrive::CountRequests(const std::string& prefix) const {
  int count = 0;
  for (const auto& request : emulator->server().Requests()) {
    count += request.verb == "GET" && request.path.compare(0, prefix.size(), prefix) == 0 &&
             (request.path.size() == prefix.size() || prefix.back() == '/');
  }
  return count;
}

namespace {

void CollectTree(const FolderNode& folder, const std::string& prefix,
                 std::map<std::string, std::string>* lines) {
  for (auto it = folder.FilesBegin(); it != folder.FilesEnd(); ++it) {
    (*lines)[prefix + it->GetName()] = std::to_string(it->size) + " " + it->hash.ToHexString();
  }
  for (auto it = folder.FoldersBegin(); it != folder.FoldersEnd(); ++it) {
    (*lines)[prefix + it->GetName() + "/"] = "";
    CollectTree(**it, prefix + it->GetName() + "/", lines);
  }
}

}  // namespace

std::map<std::string, std::string> TreeLines(const FolderNode& root) {
  std::map<std::string, std::string> lines;
  CollectTree(root, std::string(), &lines);
  return lines;
}

std::map<std::string, std::string> AccountLines(const emulators::CloudAccount& account,
                                                const std::string& folder_path) {
  std::map<std::string, std::string> lines;
  std::string prefix = folder_path.empty() ? std::string() : folder_path + "/";
  for (const emulators::Item& item : account.AllItems()) {
    if (item.id == account.RootId() || account.IsInTrash(item.id) ||
        item.properties.count("google.hidden")) {
      continue;
    }
    std::string path = account.PathOf(item.id);
    if (path.compare(0, prefix.size(), prefix) != 0 || path == folder_path) {
      continue;
    }
    path = path.substr(prefix.size());
    if (item.IsFolder()) {
      lines[path + "/"] = "";
    } else {
      std::string md5 = item.size == 0 ? std::string(32, '0') : item.digests.md5;
      lines[path] = std::to_string(item.size) + " " + md5;
    }
  }
  return lines;
}

}  // namespace test
