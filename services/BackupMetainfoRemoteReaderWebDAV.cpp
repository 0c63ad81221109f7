#include "services/BackupMetainfoRemoteReaderWebDAV.h"

#include <QUrl>

#include "core/LoggerWrapper.h"
#include "core/PercentEncoding.h"
#include "core/RemoteFileSystem.h"
#include "core/TimeUtils.h"
#include "core/URLProcessor.h"
#include "services/DavPropstat.h"
#include "services/RemoteWebDAVUtils.h"

namespace {

constexpr char kListingBody[] =
    "<D:propfind xmlns:D=\"DAV:\">  <D:prop>   <D:resourcetype/>  </D:prop></D:propfind>";
constexpr char kLastModifiedBody[] =
    "<D:propfind xmlns:D=\"DAV:\">  <D:prop>   <D:getlastmodified/>  </D:prop></D:propfind>";

std::string TrimSlashes(const std::string& path) {
  const std::size_t begin = path.find_first_not_of('/');
  if (begin == std::string::npos) {
    return std::string();
  }
  return path.substr(begin, path.find_last_not_of('/') + 1 - begin);
}

// An href is a path on the server, or (some servers) a whole URL: its path either way.
std::string HrefPath(const std::string& href) {
  const QUrl url(QString::fromStdString(href));
  return url.isRelative() ? href : url.path(QUrl::FullyEncoded).toStdString();
}

}  // namespace

BackupMetainfoRemoteReaderWebDAV::BackupMetainfoRemoteReaderWebDAV(
    std::shared_ptr<RemoteFileSystemSharedData> shared_data,
    std::shared_ptr<URLProcessorFactory> url_factory)
    : BackupMetainfoRemoteReader(std::move(shared_data), std::move(url_factory)) {}

BackupMetainfoRemoteReaderWebDAV::~BackupMetainfoRemoteReaderWebDAV() = default;

std::vector<BackupMetainfoRecord> BackupMetainfoRemoteReaderWebDAV::ReadAll() {
  // 1. The server, and the folders in the backups' top folder.
  if (IsInert() || CheckStopped()) {
    return {};
  }
  const DispatcherUrl base = GetBaseUrlFromCookie(http_.get());
  if (base.IsEmpty()) {
    return {};
  }
  rootPath_ = "/" + TrimSlashes(HrefPath(base.Url()));
  std::vector<std::string> hrefs;
  if (!ListBackupFolders(base, &hrefs)) {
    return {};
  }

  // 2. Each folder's last change; a stop keeps what was found.
  std::vector<BackupMetainfoRecord> records;
  for (const std::string& href : hrefs) {
    BackupMetainfoRecord record;
    if (ReadFolder(base, href, &record)) {
      records.push_back(std::move(record));
    } else if (CheckStopped()) {
      LOG_INFO << "Remote metainfo reader was stopped.";
      break;
    }
  }
  return records;
}

bool BackupMetainfoRemoteReaderWebDAV::ListBackupFolders(const DispatcherUrl& base,
                                                         std::vector<std::string>* hrefs) {
  URLProcessor::Request request;
  request.verb = "PROPFIND";
  request.url = DispatcherUrl::FromString(
      base.Url() + (base.Url().back() == '/' ? "" : "/") +
      utils::PercentEncoded(RemoteFileSystem::kRemoteBackupRootFolder, true) + "/");
  request.headers = {"Depth: 1"};
  request.body = kListingBody;
  request.content_type = "application/xml";
  utils::xml::xml_tree tree;
  const URLProcessor::Result result = dav_propstat::Send(http_.get(), request, &tree);
  if (result != URLProcessor::Result::MULTI_STATUS) {
    LOG_WARNING << "Can`t get folder listing: " << result << ", code " << http_->GetResponseCode();
    return false;
  }
  const std::string top =
      rootPath_ + (rootPath_ == "/" ? "" : "/") + RemoteFileSystem::kRemoteBackupRootFolder;
  dav_propstat::ForEachFoundProp(
      tree, [&](const std::string& href, const utils::xml::xml_tree& prop) {
        const std::string path = "/" + TrimSlashes(utils::PercentDecoded(HrefPath(href)));
        if (prop.get_child_optional("resourcetype.collection") && path != top) {
          hrefs->push_back(href);
        }
      });
  return true;
}

bool BackupMetainfoRemoteReaderWebDAV::ReadFolder(const DispatcherUrl& base,
                                                  const std::string& href,
                                                  BackupMetainfoRecord* record) {
  // 1. The folder's own properties.
  const QUrl server(QString::fromStdString(base.Url()));
  URLProcessor::Request request;
  request.verb = "PROPFIND";
  request.url =
      DispatcherUrl::FromString(server.resolved(QUrl(QString::fromStdString(HrefPath(href))))
                                    .toString(QUrl::FullyEncoded)
                                    .toStdString());
  request.headers = {"Depth: 0"};
  request.body = kLastModifiedBody;
  request.content_type = "application/xml";
  utils::xml::xml_tree tree;
  const URLProcessor::Result result = dav_propstat::Send(http_.get(), request, &tree);
  if (result != URLProcessor::Result::MULTI_STATUS) {
    LOG_WARNING << "Get metainfo request error, code = " << http_->GetResponseCode();
    return false;
  }

  // 2. Its path below the server's root, and its last change.
  bool found = false;
  dav_propstat::ForEachFoundProp(tree, [&](const std::string& answered,
                                           const utils::xml::xml_tree& prop) {
    std::string path = utils::PercentDecoded(HrefPath(answered));
    if (rootPath_ != "/" && path.compare(0, rootPath_.size(), rootPath_) == 0) {
      path.erase(0, rootPath_.size());
    }
    record->cloud_path = TrimSlashes(path);
    utils::TryParseHttpDate(prop.get("getlastmodified", std::string()), &record->last_update_time);
    found = !record->cloud_path.empty();
  });
  return found;
}
