#include "support/WebDavTesting.h"

#include "core/Cookie.h"
#include "core/RemoteFileSystemSharedData.h"

namespace test {

RecordingProcessorFactory::RecordingProcessorFactory(std::string server, std::string user,
                                                     std::string password)
    : cookie_(std::make_shared<core::cookie::CookieWebDAVBase>(std::move(server), std::move(user),
                                                               std::move(password))) {}

std::shared_ptr<URLProcessor> RecordingProcessorFactory::Create() {
  auto processor = std::make_shared<TimeoutRecordingProcessor>(cookie_);
  made.push_back(processor);
  return processor;
}

std::unique_ptr<RemoteFileSystemWebDAV> OpenWebDav(const std::string& server,
                                                   const std::string& root, const std::string& user,
                                                   const std::string& password) {
  auto dav = std::make_unique<RemoteFileSystemWebDAV>(
      std::make_shared<RemoteFileSystemSharedData>(), root);
  if (!dav->Open(std::make_shared<RecordingProcessorFactory>(server, user, password))) {
    return nullptr;
  }
  return dav;
}

std::string Multistatus(const std::vector<DavEntry>& entries) {
  std::string body = "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<D:multistatus xmlns:D=\"DAV:\">";
  for (const DavEntry& entry : entries) {
    body += "<D:response><D:href>" + entry.href + "</D:href><D:propstat><D:prop>";
    if (entry.folder) {
      body += "<D:resourcetype><D:collection/></D:resourcetype>";
    } else {
      body += "<D:resourcetype/><D:getcontentlength>" + std::to_string(entry.size) +
              "</D:getcontentlength>";
      if (!entry.etag.empty()) {
        body += "<D:getetag>" + entry.etag + "</D:getetag>";
      }
    }
    body += "<D:getlastmodified>" + entry.modified +
            "</D:getlastmodified></D:prop><D:status>HTTP/1.1 200 OK</D:status></D:propstat>"
            "</D:response>";
  }
  return body + "</D:multistatus>";
}

}  // namespace test
