#include "core/RemoteFileSystemFactoryS3.h"

#include "core/LoggerWrapper.h"

namespace s3 {

RemoteFileSystemFactoryS3::RemoteFileSystemFactoryS3(const std::string& remote_root_path,
                                                     CloudServiceId service_id)
    : RemoteFileSystemFactory(remote_root_path),
      s3_shared_data_(std::make_shared<RemoteFileSystemS3SharedData>(service_id)) {
  shared_data_ = s3_shared_data_;
}

RemoteFileSystem* RemoteFileSystemFactoryS3::Create() {
  LOG_ERROR << "No S3 adapter in this library for " << s3_shared_data_->service_id;
  return nullptr;
}

std::shared_ptr<RemoteFileSystemSharedData> RemoteFileSystemFactoryS3::GetSharedData() {
  return s3_shared_data_;
}

}  // namespace s3
