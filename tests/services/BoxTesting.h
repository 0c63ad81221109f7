// Helpers of the Box adapter tests: the Box emulator with the library's endpoints pointed at it,
// adapters of one factory opened with a token, and a tree read back as path -> file.
#pragma once

#include <map>
#include <memory>
#include <string>

#include "core/Cookie.h"
#include "core/CurlURLProcessorFactory.h"
#include "core/Endpoints.h"
#include "core/Nodes.h"
#include "emulators/Dialect.h"
#include "emulators/Emulator.h"
#include "services/RemoteFSFactoryConstructor.h"
#include "services/RemoteFileSystemBoxRestApi.h"
#include "support/StartEmulator.h"

namespace test {

class BoxAccount {
 public:
  explicit BoxAccount(const std::string& root = std::string())
      : BoxAccount(emulators::MakeDialect("box"), root) {}
  // The dialect given may wrap Box's own, e.g. to watch its handlers.
  BoxAccount(std::unique_ptr<emulators::Dialect> dialect, const std::string& root) {
    emulator = test::StartEmulator(std::move(dialect));
    factory.reset(H6BA54F7D00(CloudServiceId::BOX, root));
    url_factory = std::make_shared<CurlURLProcessorFactory>(
        std::make_shared<core::cookie::CookieOAuth>("token"));
  }
  ~BoxAccount() { Endpoints::ResetOverrides(); }

  std::unique_ptr<rest_api::RemoteFileSystemBox> Open() {
    std::unique_ptr<rest_api::RemoteFileSystemBox> box(
        static_cast<rest_api::RemoteFileSystemBox*>(factory->Create()));
    box->Open(url_factory);
    return box;
  }
  rest_api::RemoteFileSystemBoxSharedData& Shared() {
    return *static_cast<rest_api::RemoteFileSystemBoxSharedData*>(factory->GetSharedData().get());
  }
  emulators::CloudAccount& account() { return emulator->account(); }
  std::string Folder(const std::string& parent, const std::string& name) {
    emulators::Item item;
    account().CreateFolder(parent, name, &item);
    return item.id;
  }
  std::string File(const std::string& parent, const std::string& name, const std::string& data) {
    emulators::Item item;
    account().CreateFile(parent, name, data, 1700000000000, &item);
    return item.id;
  }
  // Requests on the wire whose path starts so, with the verb given ("" any).
  std::size_t Count(const std::string& verb, const std::string& prefix) {
    std::size_t count = 0;
    for (const auto& request : emulator->server().Requests())
      count += (verb.empty() || request.verb == verb) && request.path.rfind(prefix, 0) == 0;
    return count;
  }

  std::unique_ptr<emulators::Emulator> emulator;
  std::unique_ptr<RemoteFileSystemFactory> factory;
  std::shared_ptr<URLProcessorFactory> url_factory;
};

// The whole tree by `fs`, the space of the account left aside.
inline FileSystem::Result ReadTree(RemoteFileSystem& fs, FolderNode* root) {
  std::uint64_t free = 0, total = 0;
  return fs.GetFullTree(root, &free, &total, nullptr);
}

// Every file of a tree by path, with its size and SHA-1.
inline void CollectFiles(const FolderNode& folder, const std::string& prefix,
                         std::map<std::string, std::pair<std::uint64_t, std::string>>* out) {
  for (auto it = folder.FilesBegin(); it != folder.FilesEnd(); ++it)
    (*out)[prefix + it->GetName()] = {it->size, it->hash.GetHashBox().sha1};
  for (auto it = folder.FoldersBegin(); it != folder.FoldersEnd(); ++it) {
    (*out)[prefix + it->GetName() + "/"] = {0, std::string()};
    CollectFiles(**it, prefix + it->GetName() + "/", out);
  }
}

}  // namespace test
