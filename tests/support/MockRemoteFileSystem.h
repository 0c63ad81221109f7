// Remote file systems whose every operation without a default is a gmock method, one over each
// base. Tests of the contract's defaults, and of helpers that take a RemoteFileSystem, use them:
//
//   testing::NiceMock<MockNoChangesFileSystem> fs;
//   EXPECT_CALL(fs, MoveFileImpl(...)).WillOnce(Return(FileSystem::SUCCEEDED));
#pragma once

#include <gmock/gmock.h>

#include <memory>
#include <queue>
#include <string>

#include "core/RemoteFileSystem.h"
#include "core/RemoteFileSystemChangesSupport.h"
#include "core/RemoteFileSystemNoChangesSupport.h"
#include "core/RemoteFileSystemSharedData.h"

template <typename Base>
class MockRemoteFileSystem : public Base {
 public:
  using Result = FileSystem::Result;
  using Change = FileSystem::Change;
  using FileProperties = FileSystem::FileProperties;
  using OverwriteControl = FileSystem::OverwriteControl;
  using Revision = FileSystem::Revision;
  using FolderListing = RemoteFileSystem::FolderListing;

  explicit MockRemoteFileSystem(std::shared_ptr<RemoteFileSystemSharedData> shared_data =
                                    std::make_shared<RemoteFileSystemSharedData>(),
                                const std::string& remote_root_path = std::string())
      : Base(std::move(shared_data), remote_root_path) {}

  MOCK_METHOD(Result, WriteFile, (const std::uint8_t*, std::uint32_t), (override));
  MOCK_METHOD(Result, CloseFile, (FileProperties*), (override));
  MOCK_METHOD(Result, InterruptFile, (), (override));
  MOCK_METHOD(Result, CreateFolderImpl, (const OverwriteControl&, const std::string&), (override));
  MOCK_METHOD(Result, DeleteFileImpl,
              (const OverwriteControl&, const std::string&, std::uint64_t, std::uint64_t),
              (override));
  MOCK_METHOD(Result, DeleteFolderImpl, (const FolderNode&, const Revision&, const std::string&),
              (override));
  MOCK_METHOD(Result, OpenForCreate,
              (const OverwriteControl&, const std::string&, const SomeHash&, std::uint64_t,
               std::uint64_t, std::uint64_t*, bool),
              (override));
  MOCK_METHOD(Result, OpenForRead,
              (const std::string&, std::uint64_t, std::uint64_t, std::uint64_t, const SomeHash&),
              (override));
  MOCK_METHOD(Result, OpenForRewrite,
              (const OverwriteControl&, const std::string&, const SomeHash&, std::uint64_t,
               std::uint64_t, std::uint64_t*),
              (override));
  MOCK_METHOD(Result, ReadFile, (std::uint8_t*, std::uint32_t, std::uint32_t*), (override));
  MOCK_METHOD(Result, MoveFileImpl,
              (const FileNode&, const OverwriteControl&, const std::string&,
               const OverwriteControl&, const std::string&),
              (override));
  MOCK_METHOD(Result, MoveFolderImpl,
              (const FolderNode&, const OverwriteControl&, const std::string&,
               const OverwriteControl&, const std::string&),
              (override));
  MOCK_METHOD(bool, Open, (const std::shared_ptr<URLProcessorFactory>&), (override));
  MOCK_METHOD(Result, Close, (), (override));
  MOCK_METHOD(Result, CheckConnection, (), (override));
  MOCK_METHOD(Result, GetFullTree,
              (FolderNode*, std::uint64_t*, std::uint64_t*, tsl::htrie_set<char>*), (override));
  MOCK_METHOD(Result, GetCloudSize, (std::uint64_t*, std::uint64_t*), (override));
  MOCK_METHOD(Result, GetPublicLink, (const std::string&, bool, std::string*), (override));
  MOCK_METHOD(Result, ClosePublicLink, (const std::string&), (override));
  MOCK_METHOD(std::uint64_t, GetMaxFileSize, (), (override));
  MOCK_METHOD(bool, IsServiceTraitA, (), (override));
  MOCK_METHOD(bool, IsCaseInsensitive, (), (override));
  MOCK_METHOD(bool, SupportsServiceTraitC, (), (override));
  MOCK_METHOD(bool, SupportsResumingUpload, (), (override));
  MOCK_METHOD(CloudServiceId, GetServiceId, (), (override));
  MOCK_METHOD(SomeHash::HashType, GetHashType, (), (override));

  using Base::GetSharedData;
  using Base::snapshot_progress_;
  using Base::WaitForStop;
};

class MockNoChangesFileSystem : public MockRemoteFileSystem<RemoteFileSystemNoChangesSupport> {
 public:
  using MockRemoteFileSystem::MockRemoteFileSystem;
  MOCK_METHOD(Result, GetFolderListing, (const std::string&, FolderListing*), (override));
};

class MockChangesFileSystem : public MockRemoteFileSystem<RemoteFileSystemChangesSupport> {
 public:
  using MockRemoteFileSystem::MockRemoteFileSystem;
  MOCK_METHOD(Result, GetChanges, (std::queue<Change>*), (override));
  MOCK_METHOD(bool, ApplyRemoteChange, (const Change&, FolderNode*, std::uint64_t*, std::uint64_t*),
              (override));
  using RemoteFileSystemChangesSupport::tree_renewal_;
};
