// YandexDialect: Yandex Disk over the shared account, its two hosts on one server: WebDAV below
// "/webdav" (webdav.yandex.ru) and the REST API below "/v1/disk" (cloud-api.yandex.net). Every
// request but the control path and the pre-authorized links needs "Authorization: OAuth <token>".
//
//   emulators::YandexOptions options;
//   options.snapshot_page = 100;         // JSON snapshot items per page
//   options.item_count = "-1";           // what the binary snapshot's "Item-Count" says
//   auto emulator = emulators::Emulator::Start(emulators::MakeYandexDialect(options), 0, &error);
//
// WebDAV (see WebDavSurface.h): "/webdav/<path>", and the same tree again below "/webdav/disk".
// A PROPFIND also answers Yandex's properties in "urn:yandex:disk:meta" (sha256, public_url,
// max-file-size, trash-used-bytes); a PROPPATCH of public_url "true" publishes the item and
// reports its link; other namespaces ("backups_metainfo") are kept as dead properties. A PUT
// with "Etag" (MD5) and "Sha256" of content the disk holds is answered 201 on its head.
// "GET /webdav/disk[/<folder>]?index&v=3" (that query exactly, anything else on a folder is 400)
// is the binary snapshot of YandexSnapshot.h with "Item-Count"; a folder that doesn't exist is 404.
//
// REST, paths as "disk:/a/b" (or "/a/b"): the disk, resources with "_embedded" pages, folder
// creation, delete (to the trash unless "permanently"), move, publish and unpublish, download
// and upload links, asynchronous operations ("/v1/disk/operations?id=ID", also by path), and two
// feeds that Yandex doesn't document:
// "/v1/disk/resources/snapshot" (pages by "iteration_key", one "revision" for all of them) and
// "/v1/disk/resources/deltas" (the journal since "base_revision"). Revisions are the journal's
// sequence plus kRevisionBase, so that their text order is their number order. Errors carry
// Yandex's body {"message","description","error"}; a fault's error code names the "error".
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "emulators/Dialect.h"

namespace emulators {

class YandexRestApi;

struct YandexOptions {
  std::size_t snapshot_page = 1000;  // JSON snapshot items per page
  std::size_t deltas_page = 1000;    // journal entries per deltas page
  std::size_t listing_limit = 1000;  // the most items of one "_embedded" page, whatever "limit"
  int operation_polls = 1;           // "in-progress" answers of an operation before its end
  // A folder with more items than this is deleted or moved by an operation (202): Yandex does
  // so for any folder that isn't empty.
  std::size_t async_items = 0;
  // The next this many deltas answers give their files without "md5" and "sha256", as Yandex
  // does while it still hashes them.
  int unhashed_answers = 0;
  bool upload_accepted = false;  // an upload link's PUT answers 202 and an operation
  std::uint64_t max_file_size = 50ull << 30;
  std::optional<std::string> item_count;  // "Item-Count" of the binary snapshot; "" leaves it out
  // Changes the binary snapshot's body before it goes (bytes after the last entry, a bad byte);
  // "Item-Count" still counts the true entries.
  std::function<void(std::string* body)> edit_snapshot;
};

class YandexDialect : public Dialect {
 public:
  static constexpr std::uint64_t kRevisionBase = 1600000000000000ull;
  static constexpr const char* kMetaNamespace = "urn:yandex:disk:meta";
  static constexpr const char* kSnapshotQuery = "index&v=3";

  explicit YandexDialect(YandexOptions options = YandexOptions());
  ~YandexDialect() override;

  const char* Service() const override { return "yandex"; }
  HostList Hosts() const override { return {{"yandex.webdav", "/webdav"}, {"yandex.rest", ""}}; }
  std::string AuthScheme() const override { return "OAuth"; }
  HttpResponse Error(int status, const std::string& code) const override;
  void Install(Router& router) override;

 private:
  class Dav;
  YandexOptions options_;
  std::unique_ptr<YandexRestApi> rest_;
  std::unique_ptr<Dav> dav_;
};

std::unique_ptr<Dialect> MakeYandexDialect();
std::unique_ptr<Dialect> MakeYandexDialect(const YandexOptions& options);

}  // namespace emulators
