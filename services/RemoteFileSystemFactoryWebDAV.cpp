#include "services/RemoteFileSystemFactoryWebDAV.h"

#include "services/RemoteFileSystemWebDAV.h"

RemoteFileSystemFactoryWebDAV::RemoteFileSystemFactoryWebDAV(const std::string& remoteRootPath)
    : RemoteFileSystemFactory(remoteRootPath) {
  shared_data_ = std::make_shared<RemoteFileSystemSharedData>();
}

RemoteFileSystem* RemoteFileSystemFactoryWebDAV::Create() {
  return new RemoteFileSystemWebDAV(shared_data_, remote_root_path_);
}
