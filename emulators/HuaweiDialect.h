// HuaweiDialect: Huawei Drive's REST form ("/drive/v1", uploads under "/upload/drive/v1") over
// the shared account model.
//
//   auto emulator = emulators::Emulator::Start("huawei", 0, &error);
//   Endpoints::Override("huawei.drive", emulator->BaseUrl());
//
// What it answers:
//   GET    /drive/v1/about                     quota and the upload limit
//   GET    /drive/v1/files                     queryParam (mimeType, fileName, recycled,
//                                              "'ID' in parentFolder"), pages by "cursor"
//   GET    /drive/v1/files/ID                  one item; ?form=content gives its bytes (Range)
//   POST   /drive/v1/files                     a folder (or an empty file) in "parentFolder"
//   PATCH  /drive/v1/files/ID                  fileName, recycled, properties, parents by
//                                              addParentFolder and removeParentFolder
//   DELETE /drive/v1/files/ID                  for good
//   GET    /drive/v1/changes/getStartCursor    and /drive/v1/changes?cursor=C
//   POST   /upload/drive/v1/files?uploadType=resume     a session for a new file ("Location")
//   PATCH  /upload/drive/v1/files/ID?uploadType=resume  a session for a new version
//   PUT    the session URL with "Content-Range"         308 until the last byte, then the file
// Failures carry Huawei's body: {"error":{"code":S,"message":M,"errorDetail":[{"errorCode":
// "21004041","reason":...,"description":...}]}}, the last four digits naming the documented case.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "emulators/Dialect.h"

namespace emulators {

class HuaweiDialect : public Dialect {
 public:
  static constexpr const char* kFolderMime = "application/vnd.huawei-apps.folder";
  static constexpr const char* kRootId = "0HwRootFolder";
  static constexpr std::size_t kPageSize = 100;
  static constexpr std::uint64_t kDefaultSliceSize = 4ull << 20;

  const char* Service() const override { return "huawei"; }
  HostList Hosts() const override { return {{"huawei.drive", ""}}; }
  HttpResponse Error(int status, const std::string& code) const override;
  std::unique_ptr<CloudAccount> MakeAccount() const override;
  void Install(Router& router) override;

  // The "sliceSize" a new session names; a test makes slices small to see many of them. A knob of
  // the wire form, reachable through the emulator's const dialect().
  void SetSliceSize(std::uint64_t bytes) const { slice_size_ = bytes; }
  std::uint64_t SliceSize() const { return slice_size_; }

 private:
  mutable std::atomic<std::uint64_t> slice_size_{kDefaultSliceSize};
};

std::unique_ptr<Dialect> MakeHuaweiDialect();

}  // namespace emulators
