// rest_api::RemoteFileSystemBox: Box over its REST API 2.0. Items are addressed by id through the
// account's RemoteFileIds; the tree comes down one level of folders at a time, the listings of a
// level side by side (MultiThreadWorker); a file below 20 MiB goes up in one multipart request,
// a larger one in a chunked upload session that another adapter of the account can resume.
//
//   rest_api::RemoteFileSystemBox box(shared, "Backups/PC 1");
//   box.Open(factory);
//   box.GetFullTree(&root, &free, &total, &service_items);
//
// Box has no change feed: the core walks it again with GetFullTree or GetFolderListing.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "core/HashCalculators.h"
#include "core/RemoteFileSystemNoChangesSupport.h"
#include "core/RemoteFileSystemSharedData.h"
#include "core/URLProcessor.h"
#include "services/BoxUploadSession.h"
#include "services/ProcessorPool.h"
#include "services/RemoteBoxUtils.h"
#include "services/RemoteFileIds.h"
#include "services/ResumableUpload.h"

namespace rest_api {

class RemoteFileSystemBoxSharedData : public RemoteFileSystemSharedData {
 public:
  std::atomic<std::uint64_t> total_quota{0};
  resumable_upload::ResumableSessions<BoxUploadSession> sessions;
  RemoteFileIds ids;
};

class RemoteFileSystemBox : public RemoteFileSystemNoChangesSupport {
 public:
  // From this size on a file goes up in a session.
  static constexpr std::uint64_t kSessionUploadFrom = 20971520;

  RemoteFileSystemBox(std::shared_ptr<RemoteFileSystemSharedData> shared_data,
                      const std::string& remote_root_path);
  ~RemoteFileSystemBox() override;

  void Start() override;
  void Stop() override;
  bool Open(const std::shared_ptr<URLProcessorFactory>& factory) override;
  Result Close() override;

  Result WriteFile(const std::uint8_t* data, std::uint32_t size) override;
  LengthLimits GetMaxSupportedPathLength() const override { return LengthLimits(); }
  LengthLimits GetMaxSupportedNameLength() const override { return LengthLimits(); }
  Result CloseFile(FileProperties* props) override;
  Result InterruptFile() override;
  Result CreateFolderImpl(const OverwriteControl& control, const std::string& path) override;
  Result DeleteFileImpl(const OverwriteControl& control, const std::string& path,
                        std::uint64_t size, std::uint64_t time) override;
  Result DeleteFolderImpl(const FolderNode& folder, const Revision& revision,
                          const std::string& path) override;
  Result OpenForCreate(const OverwriteControl& control, const std::string& path,
                       const SomeHash& hash, std::uint64_t size, std::uint64_t time,
                       std::uint64_t* resume_offset, bool flag) override;
  Result OpenForRead(const std::string& path, std::uint64_t offset, std::uint64_t limit,
                     std::uint64_t size, const SomeHash& hash) override;
  Result OpenForRewrite(const OverwriteControl& control, const std::string& path,
                        const SomeHash& hash, std::uint64_t size, std::uint64_t time,
                        std::uint64_t* resume_offset) override;
  Result ReadFile(std::uint8_t* buffer, std::uint32_t size, std::uint32_t* done) override;
  Result RenameFileImpl(const FileNode& file, const OverwriteControl& from_control,
                        const std::string& from, const OverwriteControl& to_control,
                        const std::string& to, SomeHash* hash) override;
  Result MoveFileImpl(const FileNode& file, const OverwriteControl& from_control,
                      const std::string& from, const OverwriteControl& to_control,
                      const std::string& to) override;
  Result MoveFolderImpl(const FolderNode& folder, const OverwriteControl& from_control,
                        const std::string& from, const OverwriteControl& to_control,
                        const std::string& to) override;

  Result CheckConnection() override;
  Result GetFullTree(FolderNode* root, std::uint64_t* free, std::uint64_t* total,
                     tsl::htrie_set<char>* service_items) override;
  Result GetFolderListing(const std::string& path, FolderListing* listing) override;
  Result GetCloudSize(std::uint64_t* total, std::uint64_t* used) override;
  Result GetPublicLink(const std::string& path, bool flag, std::string* link) override;
  Result ClosePublicLink(const std::string& path) override;
  std::uint64_t GetMaxFileSize() override { return max_file_size_.load(); }
  Result UpdateMaxFileSize() override;
  double GetFirstSnapshotProgress() override;

  bool IsServiceTraitA() override { return false; }
  bool IsCaseInsensitive() override { return true; }
  bool SupportsServiceTraitC() override { return false; }
  bool SupportsResumingUpload() override { return true; }
  CloudServiceId GetServiceId() override { return CloudServiceId::BOX; }
  SomeHash::HashType GetHashType() override { return SomeHash::BOX; }
  void SetFileHashToResumeInterruptedUpload(const SomeHash& hash) override;

 private:
  enum class Mode { kClosed, kIdle, kReading, kWritingPlain, kWritingSession };

  // What one upload needs from its open to its close.
  struct Upload {
    std::string path;
    std::string name;       // as Box has it
    std::string parent_id;  // a new file
    std::string target_id;  // a new version
    std::string if_match;
    SomeHash hash;
    std::uint64_t size = 0;
    std::uint64_t time = 0;
    std::uint64_t written = 0;  // bytes the core gave, counted from 0
    std::uint64_t start = 0;    // where this try began
    std::string multipart_tail;
    BoxUploadSession session;
    std::vector<std::uint8_t> part;  // the part being filled
    HashCalculatorBox running;
  };

  RemoteFileSystemBoxSharedData& Shared() const;
  std::string ApiUrl(const std::string& path) const;
  std::string UploadUrl(const std::string& path) const;
  // One JSON request on the items client through the rate limit gate; the failure is recorded.
  BoxAnswer Request(const std::string& verb, const std::string& url, const std::string& body,
                    std::vector<std::string> headers = {});
  Result Settle(const BoxAnswer& answer);
  Result ReadUser(const char* fields, BoxAnswer* answer);
  Result FindRemoteRoot(std::string* root_id);

  Result OpenUpload(const std::string& path, const std::string& target_id,
                    const std::string& if_match, const SomeHash& hash, std::uint64_t size,
                    std::uint64_t time, std::uint64_t* resume_offset);
  Result BeginPlainUpload();
  Result ResumeOrCreateSession(std::uint64_t* resume_offset);
  bool ResumeSession(BoxUploadSession* session, std::uint64_t* resume_offset);
  Result CreateSession();
  Result SendPart();
  Result FinishPlainUpload(FileProperties* props);
  Result CommitSession(FileProperties* props);
  Result TakeUploadedItem(const BoxAnswer& answer, FileProperties* props);
  void KeepSessionForLater();
  std::string UploadAttributes(bool with_parent) const;
  Result FinishRead();
  Result UpdateItem(bool folder, const std::string& from, const std::string& to,
                    const std::string& if_match, BoxAnswer* answer);

  ProcessorPool pool_;
  std::shared_ptr<URLProcessor> items_;
  std::shared_ptr<URLProcessor> content_;
  std::mutex processors_mutex_;
  RateLimitGate gate_;
  std::string api_base_;
  std::string upload_base_;
  std::atomic<std::uint64_t> max_file_size_{UINT64_MAX};
  bool max_file_size_known_ = false;
  Mode mode_ = Mode::kClosed;
  Upload upload_;
  // A read in progress.
  std::uint64_t read_offset_ = 0;
  bool read_whole_ = false;
  SomeHash read_expected_;
  HashCalculatorBox read_hash_;
  bool read_complete_ = false;
  SomeHash pending_hash_;
};

}  // namespace rest_api
