// OneDriveDialect: Microsoft Graph v1.0 as it documents the drive API, over the shared account.
//
//   emulators::OneDriveOptions options;
//   options.drive_type = "business";      // deleted items then come without their name
//   options.page_size = 200;              // items per delta page unless "$top" asks fewer
//   auto emulator = emulators::Emulator::Start(emulators::MakeOneDriveDialect(options), 0, &error);
//
// What it serves below "/v1.0": the drive with its quota, the root and items by id or by path
// ("root:/a/b:"), children, the delta of the drive and of a folder shared from a second drive,
// sharedWithMe, recent files, permissions, an item's "description" (set by PATCH), content through
// a redirect to a download path, simple uploads and upload sessions with nextExpectedRanges. Delta
// tokens are the account's journal sequence; a token older than what the journal keeps answers 410
// "resyncRequired" with a Location that starts over. Errors carry Graph's body:
// {"error":{"code","message","innerError"}}.
//
// A folder marked shared with the account (Item::shared_with_me) stands for a folder of the
// second drive that the user added to their own: the own drive lists it as a link item with a
// "remoteItem" facet, and its content belongs to the second drive's delta.
#pragma once

#include <memory>
#include <string>

#include "emulators/Dialect.h"

namespace emulators {

struct OneDriveOptions {
  std::string drive_type = "personal";  // "personal", "business" or "documentLibrary"
  std::size_t page_size = 200;          // of children listings too
  bool sha1_only = false;               // files report only "sha1Hash", as some drives do
};

class OneDriveDialect : public Dialect {
 public:
  static constexpr const char* kDriveId = "b1e5d7c93a6f0042";
  static constexpr const char* kSharedDriveId = "c20fa11e5ba5e77d";
  static constexpr const char* kRootId = "B1E5D7C93A6F0042!101";
  // The own drive's link item of a shared folder has the folder's id behind this prefix.
  static constexpr const char* kLinkPrefix = "L!";

  explicit OneDriveDialect(OneDriveOptions options = OneDriveOptions());
  ~OneDriveDialect() override;

  const char* Service() const override { return "onedrive"; }
  HostList Hosts() const override { return {{"microsoft.graph", "/v1.0"}}; }
  HttpResponse Error(int status, const std::string& code) const override;
  std::unique_ptr<CloudAccount> MakeAccount() const override;
  void Install(Router& router) override;

 private:
  class GraphService;
  OneDriveOptions options_;
  std::shared_ptr<GraphService> service_;
};

std::unique_ptr<Dialect> MakeOneDriveDialect();
std::unique_ptr<Dialect> MakeOneDriveDialect(const OneDriveOptions& options);

}  // namespace emulators
