// The common part of the backup metainfo readers and writers: the account's record, the HTTP
// client they open on construction, and the stop flag.
//
// A client that failed to open leaves the object inert (IsInert()): every operation then answers
// at once. Each loop and request of a derived class asks CheckStopped() first.
#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "core/RemoteFileSystemSharedData.h"
#include "core/Stoppable.h"

class URLProcessor;
class URLProcessorFactory;

class MetainfoRemoteClient : public virtual Stoppable {
 public:
  // `stopped_text` is logged by CheckStopped, e.g. "MetainfoReader is stopped.".
  MetainfoRemoteClient(std::shared_ptr<RemoteFileSystemSharedData> shared_data,
                       std::shared_ptr<URLProcessorFactory> url_factory, const char* stopped_text);
  ~MetainfoRemoteClient() override;

  // Clears the stop flag and restarts the client.
  void Start() override;
  // Raises the stop flag and stops the client's running request. Safe from any thread.
  void Stop() override;

 protected:
  bool IsInert() const { return !http_; }
  // True (and logged) once Stop() was called.
  bool CheckStopped() const;

  const std::shared_ptr<RemoteFileSystemSharedData> shared_data_;
  const std::shared_ptr<URLProcessorFactory> url_factory_;
  std::shared_ptr<URLProcessor> http_;  // null when it could not be opened

 private:
  const char* const stopped_text_;
  std::atomic<bool> stopped_{false};
};
