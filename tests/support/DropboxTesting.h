// DropboxTesting: an adapter of a Dropbox account served by the emulator on loopback, with a
// manual clock, for the Dropbox suites.
//
//   DropboxFixture fixture;                    // emulator, endpoints, adapter opened
//   fixture.account().CreateFile(...);
//   ASSERT_EQ(fixture.LoadTree(), FileSystem::SUCCEEDED);
//   fixture.ExpectTreeMatchesAccount();
#pragma once

#include <memory>
#include <queue>
#include <string>

#include "core/Clock.h"
#include "core/Nodes.h"
#include "emulators/DropboxDialect.h"
#include "emulators/Emulator.h"
#include "services/RemoteFileSystemDropbox.h"

class DropboxFixture {
 public:
  // `root`: the adapter's remote root ("" for the whole account).
  explicit DropboxFixture(const std::string& root = std::string(), std::size_t page_size = 2000);
  ~DropboxFixture();

  emulators::Emulator& emulator() { return *emulator_; }
  emulators::CloudAccount& account() { return emulator_->account(); }
  emulators::DropboxDialect& dialect() { return *dialect_; }
  RemoteFileSystemDropbox& adapter() { return *adapter_; }
  utils::ManualClock& clock() { return clock_; }
  FolderNode& tree() { return tree_; }

  // A second adapter of the same account and factory (a feed beside operations, a resumed
  // upload).
  std::unique_ptr<RemoteFileSystemDropbox> MakeAdapter(const std::string& root = std::string());
  FileSystem::Result LoadTree();
  // One GetChanges, each change applied to the tree; the result of GetChanges.
  FileSystem::Result FollowFeed();
  // Every file and folder of the account below `root` is in the tree with its size, time,
  // content hash and revision, and nothing else is.
  void ExpectTreeMatchesAccount(const std::string& root = std::string());
  std::string RevOf(const std::string& path);

  std::uint64_t free_ = 0;
  std::uint64_t total_ = 0;

 private:
  std::shared_ptr<RemoteFileSystemSharedData> shared_;
  utils::ManualClock clock_;
  utils::ScopedClock scoped_clock_{&clock_};
  emulators::DropboxDialect* dialect_ = nullptr;
  std::unique_ptr<emulators::Emulator> emulator_;
  std::unique_ptr<RemoteFileSystemDropbox> adapter_;
  FolderNode tree_;
};
