#include "services/RemoteFileSystemFactoryGoogle.h"

#include "services/GoogleDocsReader.h"
#include "services/RemoteFileSystemGoogle.h"
#include "services/RemoteFileSystemGoogleSharedData.h"

RemoteFileSystemFactoryGoogle::RemoteFileSystemFactoryGoogle(const std::string& remote_root_path)
    : RemoteFileSystemFactory(remote_root_path) {
  shared_data_ = std::make_shared<RemoteFileSystemGoogleSharedData>();
}

RemoteFileSystem* RemoteFileSystemFactoryGoogle::Create() {
  return new RemoteFileSystemGoogle(shared_data_, remote_root_path_);
}

std::shared_ptr<SpecialDocsTypeRemoteReader>
RemoteFileSystemFactoryGoogle::CreateSpecialDocsTypeRemoteReader(
    std::shared_ptr<URLProcessorFactory> factory) {
  return std::make_shared<GoogleDocsReader>(shared_data_, std::move(factory));
}
