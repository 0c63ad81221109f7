#include "services/RemoteFileSystemFactoryYandex.h"

#include "services/RemoteFileSystemYandex.h"

RemoteFileSystemFactoryYandex::RemoteFileSystemFactoryYandex(const std::string& remoteRootPath)
    : RemoteFileSystemFactory(remoteRootPath) {
  shared_data_ = std::make_shared<RemoteFileSystemSharedData>();
}

RemoteFileSystem* RemoteFileSystemFactoryYandex::Create() {
  return new RemoteFileSystemYandex(shared_data_, remote_root_path_);
}
