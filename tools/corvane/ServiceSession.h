// ServiceSession: one adapter of one account, reached the way the client's core reaches it.
//
//   std::string error;
//   auto session = ServiceSession::Open(options, &error);   // dlopen, H6BA54F7D00, Create, Open
//   if (!session) { ... error ... }
//   session->fs().GetCloudSize(&total, &used);
//
// The library is opened with dlopen and the factory comes only from its exported entry; the
// transport (CurlURLProcessorFactory) is the core's and carries the credentials.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "Options.h"
#include "core/CloudServiceId.h"

class RemoteFileSystem;
class RemoteFileSystemFactory;
class SpecialDocsTypeRemoteReader;

namespace corvane {

// The CloudServiceId of a service name of the command line; nothing for an unknown name.
std::optional<CloudServiceId> ServiceIdByName(const std::string& name);

class ServiceSession {
 public:
  // Null with `*error` set when the library, its entry, the factory or the connection fails.
  static std::unique_ptr<ServiceSession> Open(const Options& options, std::string* error);
  ~ServiceSession();
  ServiceSession(const ServiceSession&) = delete;
  ServiceSession& operator=(const ServiceSession&) = delete;

  RemoteFileSystem& fs() { return *fs_; }
  // The account's reader of documents that exist only on the server; null where there are none.
  std::shared_ptr<SpecialDocsTypeRemoteReader> DocsReader() const;
  // True when a request of the adapter got no answer at all (refused, unresolved, timed out
  // before the head): the service is out of reach rather than failing.
  bool ServiceUnreachable() const;

 private:
  ServiceSession() = default;

  class ObservingFactory;

  void* library_ = nullptr;
  std::shared_ptr<ObservingFactory> transport_;
  std::unique_ptr<RemoteFileSystemFactory> factory_;
  std::unique_ptr<RemoteFileSystem> fs_;
  bool opened_ = false;
};

}  // namespace corvane
