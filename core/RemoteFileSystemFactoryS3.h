// The factories of S3 accounts. Their adapters belong to the desktop client's core, not to this
// library: Create answers null here.
#pragma once

#include <memory>
#include <string>

#include "core/CloudServiceId.h"
#include "core/RemoteFileSystemFactory.h"

namespace s3 {

// The record of an S3 account: which flavour of S3 it speaks.
class RemoteFileSystemS3SharedData : public RemoteFileSystemSharedData {
 public:
  explicit RemoteFileSystemS3SharedData(CloudServiceId service_id) : service_id(service_id) {}
  const CloudServiceId service_id;
};

class RemoteFileSystemFactoryS3 : public RemoteFileSystemFactory {
 public:
  RemoteFileSystemFactoryS3(const std::string& remote_root_path, CloudServiceId service_id);

  RemoteFileSystem* Create() override;
  std::shared_ptr<RemoteFileSystemSharedData> GetSharedData() override;

 private:
  const std::shared_ptr<RemoteFileSystemS3SharedData> s3_shared_data_;
};

class RemoteFileSystemFactoryS3Base : public RemoteFileSystemFactoryS3 {
 public:
  explicit RemoteFileSystemFactoryS3Base(const std::string& remote_root_path)
      : RemoteFileSystemFactoryS3(remote_root_path, CloudServiceId::S3_BASE) {}
};

class RemoteFileSystemFactoryS3Embera : public RemoteFileSystemFactoryS3 {
 public:
  explicit RemoteFileSystemFactoryS3Embera(const std::string& remote_root_path)
      : RemoteFileSystemFactoryS3(remote_root_path, CloudServiceId::S3_EMBERA) {}
};

class RemoteFileSystemFactoryS3Amazon : public RemoteFileSystemFactoryS3 {
 public:
  explicit RemoteFileSystemFactoryS3Amazon(const std::string& remote_root_path)
      : RemoteFileSystemFactoryS3(remote_root_path, CloudServiceId::S3_AMAZON) {}
};

}  // namespace s3
