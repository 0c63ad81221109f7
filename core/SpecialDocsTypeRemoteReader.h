// SpecialDocsTypeRemoteReader: reads documents that exist only on the server (Google Docs) as
// files the backup side can copy: each is exported in a file format and read as a stream.
//
//   reader->LoadLinks();
//   if (reader->Open(path) == FileSystem::SUCCEEDED && reader->ReadSizeHeader(&size) == ...)
//     while (reader->Read(buffer, sizeof buffer, &done) == FileSystem::SUCCEEDED && done) ...
//   reader->Close();
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "core/FileSystem.h"
#include "core/RemoteFileSystemSharedData.h"
#include "core/Stoppable.h"

class URLProcessorFactory;

namespace SynchronizerBasic {

// A source of file content for the backup side.
class AbstractReader {
 public:
  // The next block of the open file; `*done` == 0 at the end.
  virtual FileSystem::Result Read(std::uint8_t* buffer, std::uint32_t size,
                                  std::uint32_t* done) = 0;
  virtual FileSystem::Result Close() = 0;
  virtual ~AbstractReader() = default;
};

}  // namespace SynchronizerBasic

class SpecialDocsTypeRemoteReader : public SynchronizerBasic::AbstractReader,
                                    public virtual Stoppable {
 public:
  SpecialDocsTypeRemoteReader(std::shared_ptr<RemoteFileSystemSharedData> shared_data,
                              std::shared_ptr<URLProcessorFactory> url_factory);

  virtual FileSystem::Result Open(const std::string& path) = 0;
  // The size of the content being read, from the head of the answer.
  virtual FileSystem::Result ReadSizeHeader(std::uint64_t* size) = 0;
  // Empty when the path names no document.
  virtual std::string GetFileIdByPath(const std::string& path) = 0;
  // The extension of the export format ("docx", ...); empty when unknown.
  virtual std::string GetExtension(const std::string& path) = 0;
  virtual bool HasLink(const std::string& path) = 0;
  virtual bool IsStopped() const = 0;
  // Learns the export links of all documents of the account.
  virtual bool LoadLinks() = 0;
  // The size of all documents once exported; false when it could not be learned.
  virtual bool GetTotalSize(std::uint64_t* size) = 0;

 protected:
  const std::shared_ptr<RemoteFileSystemSharedData> shared_data_;
  const std::shared_ptr<URLProcessorFactory> url_factory_;
};
