// ContractTarget: one row of the contract suite, an adapter of one service together with a way
// past the adapter to the account it serves (a real server's folder, or an emulator's model), so
// that the suite can judge what the adapter did.
//
//   class ApacheTarget : public contract::ContractTarget { ... };
//   const contract::Registration kApache("apache", [] { return std::make_unique<ApacheTarget>();
//   });
//
// Each service adds its row in tests/contract/targets/; the cases in Contract_test.cpp are the
// same for every row.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "core/Cookie.h"
#include "core/RemoteFileSystem.h"
#include "core/RemoteFileSystemFactory.h"
#include "core/SomeHash.h"
#include "emulators/Faults.h"

namespace contract {

struct RemoteItem {
  bool folder = false;
  std::uint64_t size = 0;
  std::uint64_t time = 0;  // seconds
  SomeHash hash;           // as the service reports it in the adapter's type; empty: not compared
};

// Path below the mounted root -> item.
using RemoteTree = std::map<std::string, RemoteItem>;

class ContractTarget {
 public:
  virtual ~ContractTarget() = default;

  // Brings the account up with an empty mounted root; false with `error` when it can't.
  virtual bool Start(std::string* error) = 0;
  // A new adapter, opened, from the one factory of the account, as the core makes one: the
  // adapters of a target share the factory's data (the id tree, the upload sessions).
  std::unique_ptr<RemoteFileSystem> Connect();

  // The account below the mounted root, read past the adapter.
  virtual RemoteTree Remote() = 0;
  virtual void PutFile(const std::string& path, const std::string& content) = 0;
  virtual std::string ReadRemote(const std::string& path) = 0;

  // An item with this name in the mounted root, as only a server could make it; false where the
  // server can't hold such a name.
  virtual bool PlantName(const std::string& name) {
    (void)name;
    return false;
  }
  // Every later answer waits seconds before its head; false where the server can't be slowed.
  virtual bool SlowDown() { return false; }
  // Fault instructions, where the server takes them (an emulator; a real server doesn't).
  virtual bool TakesFaults() const { return false; }
  virtual void AddFault(const emulators::FaultRule& rule) { (void)rule; }
  virtual void ClearFaults() {}
  // Whether the server honours a conditional write (rclone's WebDAV ignores If-Match).
  virtual bool ChecksOverwriteControl() const { return true; }
  // Whether the service's hash of a file is a digest of its bytes that our calculator of the
  // adapter's hash type computes too (not a version or an etag).
  virtual bool HashIsContentDigest() const { return false; }
  // Whether a file moves through RenameFileImpl (the adapter refuses MoveFileImpl).
  virtual bool MovesByRename() const { return false; }
  // Whether the adapter reads, writes and changes items yet, or only lists the account.
  virtual bool ServesItemOperations() const { return true; }
  // Whether it reads and writes the content of files yet, besides changing items.
  virtual bool ServesTransfers() const { return true; }
  // Whether a self-filtering feed drops the echo of a folder the adapter made, or (Yandex) only
  // those of its uploads; an echoed folder is one the core's tree holds already.
  virtual bool FiltersOwnFolderEchoes() const { return true; }
  // Whether the tree of a mounted folder carries each file's own time (a snapshot may give
  // every file the time it was taken).
  virtual bool TreeHasFileTimes() const { return true; }

 protected:
  // The account's factory, made through the library's entry.
  virtual std::unique_ptr<RemoteFileSystemFactory> MakeFactory() = 0;
  virtual std::shared_ptr<const core::cookie::Cookie> Credentials() = 0;

 private:
  std::unique_ptr<RemoteFileSystemFactory> factory_;
};

using TargetMaker = std::function<std::unique_ptr<ContractTarget>()>;

struct ContractRow {
  std::string name;
  TargetMaker make;
};

std::vector<ContractRow>& ContractRows();

// A row joins the suite by a static object of this type in its own file.
struct Registration {
  Registration(std::string name, TargetMaker make);
};

}  // namespace contract
