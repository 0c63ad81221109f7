#include "services/RemoteFSFactoryConstructor.h"

#include "core/LoggerWrapper.h"
#include "core/RemoteFileSystemFactoryS3.h"
#include "services/RemoteFileSystemFactoryBox.h"
#include "services/RemoteFileSystemFactoryDropbox.h"
#include "services/RemoteFileSystemFactoryGoogle.h"
#include "services/RemoteFileSystemFactoryHuawei.h"
#include "services/RemoteFileSystemFactoryOneDrive.h"
#include "services/RemoteFileSystemFactoryWebDAV.h"
#include "services/RemoteFileSystemFactoryYandex.h"

namespace {

using MakeFactory = RemoteFileSystemFactory* (*)(const std::string& remote_root_path);

template <typename Factory>
RemoteFileSystemFactory* Make(const std::string& remote_root_path) {
  return new Factory(remote_root_path);
}

struct FactoryRow {
  CloudServiceId service_id;
  MakeFactory make;
};

// One row per service this library serves; an id without a row has no factory.
constexpr FactoryRow kFactories[] = {
    {CloudServiceId::DROPBOX, &Make<RemoteFileSystemFactoryDropbox>},
    {CloudServiceId::YANDEX, &Make<RemoteFileSystemFactoryYandex>},
    {CloudServiceId::GOOGLE, &Make<RemoteFileSystemFactoryGoogle>},
    {CloudServiceId::WEBDAV, &Make<RemoteFileSystemFactoryWebDAV>},
    {CloudServiceId::BOX, &Make<RemoteFileSystemFactoryBox>},
    // pCloud is a plain WebDAV account.
    {CloudServiceId::PCLOUD, &Make<RemoteFileSystemFactoryWebDAV>},
    {CloudServiceId::ONEDRIVE, &Make<RemoteFileSystemFactoryOneDrive>},
    {CloudServiceId::S3_BASE, &Make<s3::RemoteFileSystemFactoryS3Base>},
    {CloudServiceId::S3_EMBERA, &Make<s3::RemoteFileSystemFactoryS3Embera>},
    {CloudServiceId::S3_AMAZON, &Make<s3::RemoteFileSystemFactoryS3Amazon>},
    {CloudServiceId::HUAWEI, &Make<RemoteFileSystemFactoryHuawei>},
};

}  // namespace

RemoteFileSystemFactory* H6BA54F7D00(CloudServiceId service_id,
                                     const std::string& remote_root_path) {
  for (const FactoryRow& row : kFactories) {
    if (row.service_id == service_id) {
      return row.make(remote_root_path);
    }
  }
  LOG_FATAL << "Unhandled service id: " << CloudServiceIdName(service_id);
  return nullptr;
}
