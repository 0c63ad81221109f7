#include "support/DavTreeFixture.h"

#include <QByteArray>

namespace test {

namespace {

std::string Escaped(const std::string& path) {
  return QByteArray::fromStdString(path).toPercentEncoding("/").toStdString();
}

}  // namespace

std::string DavFolderUrl(const std::string& path) {
  return std::string(kDavBaseUrl) + (path.empty() ? "" : Escaped(path) + "/");
}

std::string DavListing(const std::string& path, const std::vector<std::string>& folders,
                       const std::vector<DavFile>& files) {
  const std::string base = "/" + (path.empty() ? "" : Escaped(path) + "/");
  const std::string ok = "<D:status>HTTP/1.1 200 OK</D:status></D:propstat></D:response>";
  std::string body = "<?xml version=\"1.0\" encoding=\"utf-8\"?><D:multistatus xmlns:D=\"DAV:\">";
  body += "<D:response><D:href>" + base +
          "</D:href><D:propstat><D:prop><D:resourcetype><D:collection/></D:resourcetype>"
          "</D:prop>" +
          ok;
  for (const std::string& folder : folders) {
    body += "<D:response><D:href>" + base + Escaped(folder) +
            "/</D:href><D:propstat><D:prop><D:resourcetype><D:collection/></D:resourcetype>"
            "</D:prop>" +
            ok;
  }
  for (const DavFile& file : files) {
    body += "<D:response><D:href>" + base + Escaped(file.name) +
            "</D:href><D:propstat><D:prop><D:resourcetype/><D:getcontentlength>" +
            std::to_string(file.size) + "</D:getcontentlength>" +
            (file.etag.empty() ? "" : "<D:getetag>" + file.etag + "</D:getetag>") +
            "<D:getlastmodified>Tue, 14 Nov 2023 10:00:00 GMT</D:getlastmodified></D:prop>" + ok;
  }
  return body + "</D:multistatus>";
}

auxil::MultithreadedTreeDownloader::ListFolderFunction SendDavPropfind() {
  return [](const std::string& path, std::shared_ptr<URLProcessor> processor) {
    URLProcessor::Request request;
    request.verb = "PROPFIND";
    request.url = DispatcherUrl::FromString(DavFolderUrl(path));
    request.headers = {"Depth: 1"};
    if (processor->Send(request)) {
      return FileSystem::SUCCEEDED;
    }
    return processor->Finish() == URLProcessor::Result::STOPPED ? FileSystem::STOPPED
                                                                : FileSystem::FAILED;
  };
}

}  // namespace test
