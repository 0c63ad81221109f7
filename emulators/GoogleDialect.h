// GoogleDialect: the Drive API v3 as its public reference describes it, over the shared account.
//
//   auto dialect = std::make_unique<emulators::GoogleDialect>();
//   emulators::GoogleDialect* drive = dialect.get();
//   auto emulator = emulators::Emulator::Start(std::move(dialect), 0, &error);
//   drive->SetMaxPageSize(100);        // every listing page holds at most 100 files...
//   drive->SetEmptyPages(true);        // ...and each is preceded by an empty one with a token
//   emulators::GoogleDialect::SeedDemoDrive(emulator->account());
//
// Served: files.list (the "q" forms below, "fields", "pageSize", "pageToken", "orderBy=folder"),
// files.get (with the "root" alias), files.create of folders and empty files, files.update
// (PATCH: "name", "trashed", "modifiedTime", "addParents"/"removeParents", "appProperties" merged
// key by key, a null value clearing its key), permissions.create of
// the "anyone" kind and its permissions.delete ("anyoneWithLink"), the v2 files.list of recent
// files ("maxResults", "orderBy=recency desc"), resumable uploads (a session by POST or PATCH of
// "/upload/drive/v3/files[/ID]?uploadType=resumable", bytes persisted in steps of 256 KiB, 308
// with "Range" for what it holds, 404 once it expired), "alt=media" downloads with "Range",
// documents' "exportLinks" (GET and HEAD) and files.export,
// about.get (whose "fields" is required),
// changes.getStartPageToken and changes.list (entries coalesced per file, "removed" entries for
// files deleted for good). Failures carry Drive's error body:
// {"error":{"errors":[{"domain","reason","message"}], "code":N,"message":...}}.
//
// "q" understands `'ID' in parents`, `'me' in owners`, `trashed = true|false`,
// `sharedWithMe = true|false`, any of them after "not", `name = '..'`,
// `name contains '..'`, `mimeType = | != | contains '..'`,
// `appProperties has { key='..' and value='..' }`, joined by "and", "or" and parentheses.
//
// What an account item has no member for is read from its properties: "google.mimeType" makes a
// Google document (no bytes, no size, no MD5), "google.parentless" lists the item without
// parents, "google.hidden" keeps it out of every answer (someone else's folder not shared with
// the account), "google.resourceKey" is its resource key, "google.noMd5" leaves out its MD5,
// "google.app.KEY" is the entry KEY of its "appProperties". An
// item shared with the account is not owned by it and can't be edited unless "google.canEdit".
#pragma once

#include <atomic>
#include <cstddef>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "emulators/Dialect.h"

namespace emulators {

class GoogleDialect : public Dialect {
 public:
  static constexpr const char* kFolderMime = "application/vnd.google-apps.folder";
  // The route (no token) that fills the account with SeedDemoDrive.
  static constexpr const char* kDemoPath = "/_emulator/google/demo";

  const char* Service() const override { return "google"; }
  HostList Hosts() const override { return {{"google.drive", ""}}; }
  HttpResponse Error(int status, const std::string& code) const override;
  std::unique_ptr<CloudAccount> MakeAccount() const override;
  void Install(Router& router) override;

  // A listing page never holds more than this, whatever "pageSize" asked.
  void SetMaxPageSize(std::size_t size) { max_page_size_ = size; }
  // Each page of a listing comes after an empty page that carries a token, as Drive may answer.
  void SetEmptyPages(bool empty_pages) { empty_pages_ = empty_pages; }

  // A small drive with every case a client of Drive meets: several parents, a child listed long
  // before its parent, an orphan, an owned file without parent, same names and a file beside a
  // folder of its name, a file without MD5, items shared with the account, a Google document, a
  // resource key, and names with an apostrophe and non-ASCII letters.
  static void SeedDemoDrive(CloudAccount& account);
  // What an export of a document in this format ("docx", "pdf"...) answers: a stand-in made from
  // the id and the format, so that a test knows the bytes to expect.
  static std::string ExportedBytes(const std::string& id, const std::string& extension);

 private:
  HttpResponse ListFiles(Router& router, const HttpRequest& request) const;
  HttpResponse GetFile(Router& router, const HttpRequest& request) const;
  HttpResponse About(Router& router, const HttpRequest& request) const;
  HttpResponse StartPageToken(Router& router) const;
  HttpResponse ListChanges(Router& router, const HttpRequest& request) const;
  HttpResponse CreateFile(Router& router, const HttpRequest& request) const;
  // PATCH of "/files/ID", POST of "/files/ID/permissions", DELETE of "/files/ID/permissions/P".
  HttpResponse UpdateFile(Router& router, const HttpRequest& request) const;
  HttpResponse CreatePermission(Router& router, const std::string& id,
                                const HttpRequest& request) const;
  HttpResponse DeletePermission(Router& router, const std::string& id,
                                const std::string& permission) const;
  HttpResponse ListRecentFiles(Router& router, const HttpRequest& request) const;
  // Resumable uploads: the session request (POST of a new file, PATCH of a new version), and the
  // PUT of its bytes or of a status query.
  HttpResponse OpenUploadSession(Router& router, const HttpRequest& request,
                                 const std::string& target_id) const;
  HttpResponse PutUploadSession(Router& router, const HttpRequest& request) const;
  HttpResponse UploadProgress(Router& router, const std::string& session) const;
  HttpResponse FinishByDigests(Router& router, const std::string& session, const UploadState& state,
                               const ContentDigests& digests) const;
  HttpResponse FinishedUpload(Router& router, const std::string& session) const;
  HttpResponse Media(Router& router, const Item& item, const HttpRequest& request) const;
  // A document in one of its export formats; GET and HEAD of its export link, or files.export.
  HttpResponse Export(Router& router, const std::string& id, const std::string& extension) const;

  // What a session keeps beside its bytes: the fields its answer shows, and once it is complete,
  // its file (a status query of a finished session answers with the file again).
  struct UploadSession {
    std::string fields;
    std::string file_id;
  };

  // The items of the last listing, in order, while the account stays as it was: a client pages
  // through one listing, and each page would otherwise copy, filter and sort the whole account.
  struct Listing {
    std::string query;  // "q" and "orderBy"
    std::uint64_t sequence = 0;
    std::shared_ptr<const std::vector<Item>> items;
  };

  std::atomic<std::size_t> max_page_size_{1000};
  std::atomic<bool> empty_pages_{false};
  mutable std::mutex listing_mutex_;
  mutable Listing listing_;
  mutable std::mutex uploads_mutex_;
  mutable std::map<std::string, UploadSession> uploads_;
};

std::unique_ptr<Dialect> MakeGoogleDialect();

}  // namespace emulators
