// A Google adapter opened against the Drive emulator on loopback, on a manual clock, and the
// helpers that read a tree back as "path" -> "size md5" lines for comparison with the account.
//
//   test::GoogleDrive drive;                  // whole drive; test::GoogleDrive drive("a/b") rooted
//   drive.dialect->SetMaxPageSize(100);
//   FolderNode root;
//   EXPECT_EQ(drive.GetFullTree(&root), FileSystem::SUCCEEDED);
//   EXPECT_EQ(test::TreeLines(root), test::AccountLines(drive.account()));
#pragma once

#include <map>
#include <memory>
#include <string>

#include "core/Clock.h"
#include "core/Nodes.h"
#include "core/RemoteFileSystemFactory.h"
#include "emulators/Emulator.h"
#include "emulators/GoogleDialect.h"
#include "services/RemoteFileSystemGoogle.h"

namespace test {

class GoogleDrive {
 public:
  explicit GoogleDrive(const std::string& remote_root = std::string(),
                       const std::string& token = "t");
  ~GoogleDrive();

  emulators::CloudAccount& account() { return emulator->account(); }
  FileSystem::Result GetFullTree(FolderNode* root, bool shared_items = true);
  // The GET requests the emulator saw whose path starts with `prefix`.
  int CountRequests(const std::string& prefix) const;

  utils::ManualClock clock;
  utils::ScopedClock scoped_clock{&clock};
  emulators::GoogleDialect* dialect = nullptr;
  std::unique_ptr<emulators::Emulator> emulator;
  std::unique_ptr<RemoteFileSystemFactory> factory;
  std::unique_ptr<RemoteFileSystemGoogle> fs;
  bool opened = false;
};

// Every file of the tree as "path" -> "size md5hex", folders as "path/" -> "".
std::map<std::string, std::string> TreeLines(const FolderNode& root);
// The same of the account as Drive lists it to its owner: by first parent, below `folder_path`,
// without trashed or hidden items.
std::map<std::string, std::string> AccountLines(const emulators::CloudAccount& account,
                                                const std::string& folder_path = std::string());

}  // namespace test
