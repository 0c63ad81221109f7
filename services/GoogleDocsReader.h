// GoogleDocsReader: the account's Google documents (Docs, Sheets, Slides, Drawings) in an office
// format, for the backup side. The disk shows each document as a small shortcut file; this
// reader downloads a converted copy through the document's export link instead.
//
//   std::shared_ptr<SpecialDocsTypeRemoteReader> reader =
//       factory->CreateSpecialDocsTypeRemoteReader(url_factory);
//   reader->LoadLinks();                          // every document's export link, once
//   reader->Open("Docs/Report.url");              // the path the disk shows
//   reader->ReadSizeHeader(&size);
//   while (reader->Read(buffer, sizeof buffer, &done) == FileSystem::SUCCEEDED && done) ...
//   reader->Close();
//
// One thread uses a reader; Stop() from any other ends a transfer at once.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include "core/Json.h"
#include "core/SpecialDocsTypeRemoteReader.h"
#include "core/URLProcessor.h"

namespace google {

struct ExportLink {
  std::string name;
  std::string url;
  std::string mime_type;
  std::string extension;   // what follows "exportFormat=" in the link
  std::uint64_t size = 0;  // Drive's "size"; 0 when it tells none
};

// The formats asked for first, in this order; a document none fits is exported in its first.
extern const char* const kExportPreference[5];

// Picks from a document's "exportLinks" (MIME type -> URL). False when the chosen link names no
// "exportFormat".
bool ChooseExportLink(const utils::json::json_tree& export_links, ExportLink* out);

}  // namespace google

class GoogleDocsReader : public SpecialDocsTypeRemoteReader {
 public:
  GoogleDocsReader(std::shared_ptr<RemoteFileSystemSharedData> shared_data,
                   std::shared_ptr<URLProcessorFactory> url_factory);
  ~GoogleDocsReader() override;

  FileSystem::Result Read(std::uint8_t* buffer, std::uint32_t size, std::uint32_t* done) override;
  FileSystem::Result Close() override;
  FileSystem::Result Open(const std::string& path) override;
  FileSystem::Result ReadSizeHeader(std::uint64_t* size) override;
  std::string GetFileIdByPath(const std::string& path) override;
  std::string GetExtension(const std::string& path) override;
  bool HasLink(const std::string& path) override;
  bool IsStopped() const override { return stopped_; }
  bool LoadLinks() override;
  bool GetTotalSize(std::uint64_t* size) override;

  void Stop() override;
  // Undoes Stop; opens the client when there is none yet.
  void Start() override;

  int FailReason() const { return fail_reason_; }

 private:
  bool LoadPage(const std::string& page_token, std::string* next_token);
  // The end of a failed transfer: logged, mapped.
  FileSystem::Result Failed(URLProcessorResult result);

  // Set by Start on the reader's thread while Stop may come from any other.
  std::mutex http_mutex_;
  std::shared_ptr<URLProcessor> http_;
  int fail_reason_ = 0;
  std::uint64_t read_offset_ = 0;
  std::uint64_t size_ = 0;
  std::string header_;
  std::string content_;
  std::unordered_map<std::string, google::ExportLink> links_;
  std::atomic<bool> stopped_{false};
  bool open_ = false;
};
