// RemoteFileSystemWebDAV: any standard WebDAV server, pCloud included. A plain server is not
// trusted with the content: uploads and deletes are conditional on the etag the tree knows, an
// upload is hashed on its way and cut off before its last block when the content isn't what the
// caller announced, and a read is checked against the etag of the tree before its bytes are used.
//
//   auto cookie = std::make_shared<core::cookie::CookieWebDAVBase>(server, user, password);
//   RemoteFileSystemWebDAV dav(sharedData, "");
//   dav.Open(std::make_shared<CurlURLProcessorFactory>(cookie));
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "core/HashCalculators.h"
#include "services/RemoteFileSystemWebDAVBase.h"

// Identification strings of the WebDAV clients known to work with the servers we meet.
extern const std::array<std::string, 12> kWebDavClientNames;

class RemoteFileSystemWebDAV : public RemoteFileSystemWebDAVBase {
 public:
  RemoteFileSystemWebDAV(std::shared_ptr<RemoteFileSystemSharedData> sharedData,
                         const std::string& remoteRootPath);

  bool Open(const std::shared_ptr<URLProcessorFactory>& factory) override;
  Result CheckConnection() override;

  Result DeleteFileImpl(const OverwriteControl& control, const std::string& path,
                        std::uint64_t size, std::uint64_t time) override;
  Result OpenForRewrite(const OverwriteControl& control, const std::string& path,
                        const SomeHash& hash, std::uint64_t size, std::uint64_t time,
                        std::uint64_t* resumeOffset) override;
  Result WriteFile(const std::uint8_t* data, std::uint32_t size) override;
  Result OpenForRead(const std::string& path, std::uint64_t offset, std::uint64_t limit,
                     std::uint64_t size, const SomeHash& hash) override;
  Result ReadFile(std::uint8_t* buffer, std::uint32_t size, std::uint32_t* done) override;

  CloudServiceId GetServiceId() override { return CloudServiceId::WEBDAV; }
  SomeHash::HashType GetHashType() override { return SomeHash::GENERIC; }
  bool IsCaseInsensitive() override { return true; }
  bool SupportsServiceTraitC() override { return false; }

  // The path below the mounted root; "/" names the server's root itself.
  DispatcherUrl MakeRequestUrl(const std::string& path, bool asFolder) override;

 protected:
  Result FinishRead() override;
  Result FinishWrite(SomeHash* hashOut) override;
  SomeHash MakeHashFromServerValue(const std::string& value) override;

  std::uint64_t uploadSize_ = 0;  // of the running upload, or of the file being read
  std::uint64_t bytesDone_ = 0;

 private:
  struct FileProps {
    std::string etag;                   // empty when the server gives none
    std::optional<std::string> length;  // as the server wrote it
  };
  // One Depth 0 PROPFIND of a file; STOPPED, or the answer's code mapped (with `failureLine`
  // and the transfer's result in the log), when it fails.
  Result PropfindFile(const std::string& path, FileProps* props, const char* failureLine);
  // For servers that answer a PUT without an etag: one PROPFIND of the file just written.
  Result FetchEtagAfterUpload(SomeHash* hashOut);
  // The If-Match text for the etag a control holds; empty when a weak etag was checked here
  // instead. CONFLICT when the file is no longer that version.
  Result IfMatchFor(const std::string& path, const std::string& control, std::string* ifMatch);
  // Sends a block that is not the last one and feeds it to the upload's hash meanwhile.
  Result SendWhileHashing(const std::uint8_t* data, std::uint32_t size);
  // The content written differs from what the caller announced: the upload ends here.
  Result AbandonInvalidUpload(const std::string& actualHash);
  // Ends the upload short of its length; `result` unless the ending was stopped.
  Result AbandonUpload(Result result);
  // The etag of the answer against the tree's; the transfer is ended when they don't agree.
  Result CheckEtagOfRead();

  // Blocks from this size on are hashed beside their sending, smaller ones before it.
  static constexpr std::uint32_t kHashAsideFrom = 256 * 1024;

  bool checkEtagOnFirstRead_ = false;
  bool hashingUpload_ = false;
  std::string expectedHash_;
  HashCalculatorInternal hashCalculator_;
  std::string uploadPath_;
};
