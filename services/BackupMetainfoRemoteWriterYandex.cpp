#include "services/BackupMetainfoRemoteWriterYandex.h"

#include "core/LoggerWrapper.h"
#include "core/PercentEncoding.h"
#include "core/URLProcessor.h"
#include "services/DavPropstat.h"
#include "services/RemoteWebDAVUtils.h"

namespace {

constexpr char kPatchHead[] =
    "<?xml version=\"1.0\" encoding=\"utf-8\" ?>  <propertyupdate xmlns=\"DAV:\" "
    "xmlns:u=\"backups_metainfo\">   <set><prop>";
constexpr char kPatchTail[] = "   </prop></set>  </propertyupdate>";

}  // namespace

const char* const BackupMetainfoRemoteWriterYandex::kPropfindBody =
    "<?xml version=\"1.0\" encoding=\"utf-8\" ?>  <propfind xmlns=\"DAV:\">   <prop>    "
    "<cloud_path xmlns=\"backups_metainfo\"/>    <local_path xmlns=\"backups_metainfo\"/>    "
    "<size xmlns=\"backups_metainfo\"/>    <last_update_time xmlns=\"backups_metainfo\"/>  "
    "</prop></propfind>";

BackupMetainfoRemoteWriterYandex::BackupMetainfoRemoteWriterYandex(
    std::shared_ptr<RemoteFileSystemSharedData> shared_data,
    std::shared_ptr<URLProcessorFactory> url_factory, const std::string& local_path,
    const std::string& remote_path)
    : BackupMetainfoRemoteWriter(std::move(shared_data), std::move(url_factory), local_path,
                                 remote_path) {}

BackupMetainfoRemoteWriterYandex::~BackupMetainfoRemoteWriterYandex() = default;

DispatcherUrl BackupMetainfoRemoteWriterYandex::DiskUrl(const std::string& path) {
  std::string base = GetYandexWebDavUrl().Url();
  while (!base.empty() && base.back() == '/') {
    base.pop_back();
  }
  return DispatcherUrl::FromString(base + "/disk/" + utils::PercentEncoded(path, true));
}

bool BackupMetainfoRemoteWriterYandex::DescriptionStands() {
  URLProcessor::Request request;
  request.verb = "PROPFIND";
  request.url = DiskUrl(remote_path_);
  request.headers = {"Depth: 0"};
  request.body = kPropfindBody;
  request.content_type = "application/xml";
  utils::xml::xml_tree tree;
  bool stands = false;
  if (dav_propstat::Send(http_.get(), request, &tree) == URLProcessor::Result::MULTI_STATUS) {
    dav_propstat::ForEachFoundProp(tree, [&](const std::string&, const utils::xml::xml_tree& prop) {
      stands = stands || (prop.get("local_path", std::string()) == local_path_ &&
                          prop.get("cloud_path", std::string()) == remote_path_);
    });
  }
  return stands;
}

FileSystem::Result BackupMetainfoRemoteWriterYandex::SetProperties(const std::string& props) {
  URLProcessor::Request request;
  request.verb = "PROPPATCH";
  request.url = DiskUrl(remote_path_);
  request.body = kPatchHead + props + kPatchTail;
  request.content_type = "application/xml";
  utils::xml::xml_tree tree;
  const URLProcessor::Result result = dav_propstat::Send(http_.get(), request, &tree);
  if (result == URLProcessor::Result::STOPPED) {
    LOG_INFO << "Stopped.";
    return FileSystem::STOPPED;
  }
  const int code = http_->GetResponseCode();
  if (!URLProcessor::IsSuccessHttpCode(code)) {
    LOG_WARNING << "Get metainfo request error, code = " << code;
    return GetResultFromHttpCodeOrFailed(code);
  }
  return FileSystem::SUCCEEDED;
}

FileSystem::Result BackupMetainfoRemoteWriterYandex::Create() {
  if (IsInert()) {
    return FileSystem::FAILED;
  }
  if (CheckStopped()) {
    return FileSystem::STOPPED;
  }
  if (DescriptionStands()) {
    LOG_INFO << "Metainfo already exists for \"" << remote_path_ << "\".";
    return FileSystem::SUCCEEDED;
  }
  if (CheckStopped()) {
    return FileSystem::STOPPED;
  }
  return SetProperties("    <u:local_path>" + dav_propstat::XmlEscaped(local_path_) +
                       "</u:local_path>    <u:cloud_path>" +
                       dav_propstat::XmlEscaped(remote_path_) + "</u:cloud_path>");
}

FileSystem::Result BackupMetainfoRemoteWriterYandex::Update(std::uint64_t size,
                                                            std::int64_t last_update_time) {
  if (IsInert()) {
    return FileSystem::FAILED;
  }
  if (CheckStopped()) {
    return FileSystem::STOPPED;
  }
  return SetProperties("    <u:size>" + std::to_string(size) + "</u:size>    <u:last_update_time>" +
                       std::to_string(last_update_time) + "</u:last_update_time>");
}
