// RemoteFileSystemFactory: everything of one connected account comes from its factory. A service
// derives its own, builds its shared data record in the constructor (std::make_shared, stored in
// shared_data_) and makes its adapter in Create:
//
//   RemoteFileSystem* RemoteFileSystemFactoryWebDAV::Create() {
//     return new RemoteFileSystemWebDAV(shared_data_, remote_root_path_);
//   }
//
// No constructor of a factory does fallible work or touches the network.
#pragma once

#include <memory>
#include <string>

#include "core/RemoteFileSystemSharedData.h"

class BackupMetainfoRemoteReader;
class BackupMetainfoRemoteWriter;
class RemoteFileSystem;
class SpecialDocsTypeRemoteReader;
class URLProcessorFactory;

class RemoteFileSystemFactory {
 public:
  explicit RemoteFileSystemFactory(const std::string& remote_root_path);
  virtual ~RemoteFileSystemFactory();

  // A new adapter of the account; the caller owns it.
  virtual RemoteFileSystem* Create() = 0;
  virtual std::shared_ptr<RemoteFileSystemSharedData> GetSharedData();
  // Null unless the service keeps backup metainfo or special documents.
  virtual std::shared_ptr<BackupMetainfoRemoteWriter> CreateMetainfoWriter(
      std::shared_ptr<URLProcessorFactory> factory, const std::string& local_path,
      const std::string& remote_path);
  virtual std::shared_ptr<BackupMetainfoRemoteReader> CreateMetainfoReader(
      std::shared_ptr<URLProcessorFactory> factory);
  virtual std::shared_ptr<SpecialDocsTypeRemoteReader> CreateSpecialDocsTypeRemoteReader(
      std::shared_ptr<URLProcessorFactory> factory);

  const std::string& GetRemoteRootPath() const { return remote_root_path_; }

 protected:
  const std::string remote_root_path_;
  std::shared_ptr<RemoteFileSystemSharedData> shared_data_;
};
