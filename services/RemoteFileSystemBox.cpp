#include "services/RemoteFileSystemBox.h"

#include "core/LoggerWrapper.h"

RemoteFileSystemBox::RemoteFileSystemBox(
    std::shared_ptr<RemoteFileSystemBoxWebDAVSharedData> sharedData,
    const std::string& remoteRootPath)
    : RemoteFileSystemWebDAV(std::move(sharedData), remoteRootPath) {}

FileSystem::Result RemoteFileSystemBox::GetCloudSize(std::uint64_t* total, std::uint64_t* used) {
  const Result result = RemoteFileSystemWebDAV::GetCloudSize(total, used);
  if (result == SUCCEEDED) {
    SharedTotal() = *total;
  }
  return result;
}

std::atomic<std::uint64_t>& RemoteFileSystemBox::SharedTotal() const {
  return SharedDataAs<RemoteFileSystemBoxWebDAVSharedData>()->total;
}

bool RemoteFileSystemBox::IsSmallAccount() const {
  const std::uint64_t total = SharedTotal();
  return total > 0 && total <= kSmallAccountMaxTotal;
}

std::uint64_t RemoteFileSystemBox::GetMaxFileSize() {
  return IsSmallAccount() ? kSmallAccountMaxFileSize : static_cast<std::uint64_t>(-1);
}

FileSystem::Result RemoteFileSystemBox::TellTooLarge(Result result) const {
  if (result == NO_SPACE && IsSmallAccount() && uploadSize_ > kSmallAccountMaxFileSize) {
    LOG_ERROR << "Assuming file too large.";
    return TOO_LARGE;
  }
  return result;
}

FileSystem::Result RemoteFileSystemBox::WriteFile(const std::uint8_t* data, std::uint32_t size) {
  return TellTooLarge(RemoteFileSystemWebDAV::WriteFile(data, size));
}

FileSystem::Result RemoteFileSystemBox::FinishWrite(SomeHash* hashOut) {
  return TellTooLarge(RemoteFileSystemWebDAV::FinishWrite(hashOut));
}
