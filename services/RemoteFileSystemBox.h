// RemoteFileSystemBox: Box spoken to over its WebDAV door. Box refuses a file over 250 MiB on an
// account of up to 10 GiB, and says so as a lack of space; this adapter tells it as a file too
// large. The factory of Box makes the REST adapter; this class stays for the accounts that use it.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "core/RemoteFileSystemSharedData.h"
#include "services/RemoteFileSystemWebDAV.h"

// What the adapters of one account share: the total the quota last reported, which sets the
// limit of a file for all of them.
struct RemoteFileSystemBoxWebDAVSharedData : RemoteFileSystemSharedData {
  std::atomic<std::uint64_t> total{0};
};

class RemoteFileSystemBox : public RemoteFileSystemWebDAV {
 public:
  static constexpr std::uint64_t kSmallAccountMaxFileSize = 262144000;    // 250 MiB
  static constexpr std::uint64_t kSmallAccountMaxTotal = 10737418240ULL;  // 10 GiB

  RemoteFileSystemBox(std::shared_ptr<RemoteFileSystemBoxWebDAVSharedData> sharedData,
                      const std::string& remoteRootPath);

  CloudServiceId GetServiceId() override { return CloudServiceId::BOX; }
  Result GetCloudSize(std::uint64_t* total, std::uint64_t* used) override;
  std::uint64_t GetMaxFileSize() override;
  Result WriteFile(const std::uint8_t* data, std::uint32_t size) override;
  bool IsServiceTraitA() override { return true; }
  bool IsCaseInsensitive() override { return true; }
  bool SupportsServiceTraitC() override { return false; }

 protected:
  Result FinishWrite(SomeHash* hashOut) override;

 private:
  bool IsSmallAccount() const;
  // NO_SPACE for a file over the limit of a small account is the limit, not the space.
  Result TellTooLarge(Result result) const;
  std::atomic<std::uint64_t>& SharedTotal() const;
};
