// DropboxDialect: Dropbox's API v2 over the shared account model, as Dropbox documents it. Three
// hosts under one server: the RPC host ("/api/2/..."), the content host ("/content/2/...") and
// the notify host ("/notify/2/files/list_folder/longpoll", reached without a token).
//
//   auto dialect = std::make_unique<emulators::DropboxDialect>();
//   dialect->SetPageSize(50);           // list_folder answers at most 50 entries a page
//   dialect->SetLongpollSecondMs(10);   // a longpoll "second" lasts 10 ms
//   auto emulator = emulators::Emulator::Start(std::move(dialect), 0, &error);
//
// Uploads go in one request (files/upload) or in a session (start, append_v2, finish) whose offsets
// are checked against what it holds, with "incorrect_offset" and its "correct_offset" in the shape
// of each call; the commit's "mode" decides over an existing file.
//
// File properties: templates of the user, one property group per item and template, and a search
// by a field's value whose pages are cut at SetSearchPageSize and followed by a cursor.
//
// Cursors are opaque: a snapshot's remaining pages are kept here, the journal's sequence stands
// for the rest; a cursor older than the account's forgotten journal gets the "reset" error.
// Errors follow Dropbox's documentation: 400 as plain text, 401/409 as JSON with
// "error_summary" and a tagged "error", 429 as JSON with "error.retry_after" (or plain text).
// A fault's error code selects the 409 tags ("path/not_found") or the 429 body: "plain" for a
// text body, "too_many_write_operations", or "too_many_requests:N" for a retry_after of N.
#pragma once

#include <QJsonObject>

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "emulators/Dialect.h"

namespace emulators {

class DropboxDialect : public Dialect {
 public:
  DropboxDialect();
  ~DropboxDialect() override;

  const char* Service() const override { return "dropbox"; }
  HostList Hosts() const override;
  HttpResponse Error(int status, const std::string& code) const override;
  std::unique_ptr<CloudAccount> MakeAccount() const override;
  void Install(Router& router) override;
  void Shutdown() override;

  // The most entries one list_folder page carries, whatever "limit" the client asks for.
  void SetPageSize(std::size_t entries) { page_size_ = entries; }
  // How long one second of a longpoll's "timeout" is held (tests shorten it).
  void SetLongpollSecondMs(int ms) { longpoll_second_ms_ = ms; }
  // Every longpoll answer asks the client to back off this long (0: no "backoff" key).
  void SetLongpollBackoff(int seconds) { longpoll_backoff_ = seconds; }
  // The most matches one properties search page carries.
  void SetSearchPageSize(std::size_t matches) { search_page_size_ = matches; }

 private:
  struct Snapshot {
    std::vector<QJsonObject> entries;
  };
  struct Cursor {
    std::uint64_t sequence = 0;
    std::string root;  // lower case, "" for the whole account
    bool recursive = true;
    std::uint64_t snapshot = 0;  // 0: the journal from `sequence` on
    std::size_t offset = 0;
  };

  HttpResponse ListFolder(const HttpRequest& request, const QJsonObject& args);
  HttpResponse Continue(const HttpRequest& request, const QJsonObject& args);
  HttpResponse LatestCursor(const HttpRequest& request, const QJsonObject& args);
  HttpResponse Longpoll(const HttpRequest& request, const QJsonObject& args);
  HttpResponse CreateFolder(const HttpRequest& request, const QJsonObject& args);
  HttpResponse Delete(const HttpRequest& request, const QJsonObject& args);
  HttpResponse Move(const HttpRequest& request, const QJsonObject& args);
  HttpResponse SpaceUsage(const HttpRequest& request, const QJsonObject& args);
  HttpResponse CreateLink(const HttpRequest& request, const QJsonObject& args);
  HttpResponse ListLinks(const HttpRequest& request, const QJsonObject& args);
  HttpResponse RevokeLink(const HttpRequest& request, const QJsonObject& args);
  HttpResponse Thumbnail(const HttpRequest& request, const QJsonObject& args);
  HttpResponse Download(const HttpRequest& request, const QJsonObject& args);
  HttpResponse Upload(const HttpRequest& request, const QJsonObject& args);
  HttpResponse SessionStart(const HttpRequest& request, const QJsonObject& args);
  HttpResponse SessionAppend(const HttpRequest& request, const QJsonObject& args);
  HttpResponse SessionFinish(const HttpRequest& request, const QJsonObject& args);
  HttpResponse AddTemplate(const HttpRequest& request, const QJsonObject& args);
  HttpResponse ListTemplates(const HttpRequest& request, const QJsonObject& args);
  HttpResponse AddProperties(const HttpRequest& request, const QJsonObject& args);
  HttpResponse UpdateProperties(const HttpRequest& request, const QJsonObject& args);
  HttpResponse OverwriteProperties(const HttpRequest& request, const QJsonObject& args);
  HttpResponse SearchProperties(const HttpRequest& request, const QJsonObject& args);
  HttpResponse ContinuePropertySearch(const HttpRequest& request, const QJsonObject& args);

  using PropertyFields = std::map<std::string, std::string>;  // name -> value
  // The item a properties call names, and the template its group is of; false with the refusal.
  bool FindGroupTarget(const QJsonObject& args, const QJsonObject& group, Item* item,
                       std::string* template_id, HttpResponse* refusal);
  // Fields that the template names, as strings short enough; false with the refusal.
  bool ReadPropertyFields(const QJsonArray& fields, const std::string& template_id,
                          PropertyFields* out, HttpResponse* refusal);
  // The next page of matches, the rest kept under a new cursor.
  HttpResponse SearchPage(std::vector<QJsonObject> matches);
  // The groups of an add or an overwrite, one per template; false with the refusal.
  bool ReadPropertyGroups(const QJsonObject& args, const char* function, Item* item,
                          std::map<std::string, PropertyFields>* groups, HttpResponse* refusal);

  // The session of an append or a finish, standing at the piece's offset; false with the refusal.
  // A finish names its errors as a lookup, and may end a session that an append closed.
  bool FindSessionAt(const std::string& id, std::uint64_t offset, bool finishing,
                     HttpResponse* refusal);
  // A piece into the session; the piece's "close" closes the session to further appends.
  void AppendPiece(const std::string& id, std::uint64_t offset, const HttpRequest& request,
                   const QJsonObject& args);
  // The groups of an add or an overwrite, each replacing the item's group of its template.
  HttpResponse StoreGroups(const QJsonObject& args, const char* function, bool adding);
  // Where a commit's bytes go under its "mode"; false with the endpoint error that refuses it.
  // `same_content` tells whether the bytes equal those of a file already at the path.
  bool PlanWrite(const QJsonObject& commit, const std::function<bool(const Item&)>& same_content,
                 UploadSpec* spec, HttpResponse* refusal, std::optional<Item>* unchanged);

  // A page of `cursor`: the snapshot's next entries, or what the journal holds since.
  HttpResponse Page(Cursor cursor, std::size_t limit);
  std::vector<QJsonObject> JournalEntries(const Cursor& cursor, std::size_t limit,
                                          std::uint64_t* sequence, bool* more);
  bool HasChangesSince(const Cursor& cursor);
  std::string EncodeCursor(const Cursor& cursor) const;
  bool DecodeCursor(const std::string& text, Cursor* cursor) const;

  // Metadata as Dropbox gives it; remembers the item's path for its later "deleted" entry.
  QJsonObject Metadata(const Item& item, const std::string& path);
  QJsonObject Deleted(const std::string& path);
  std::string PathFor(const Item& item);
  std::string RememberedPath(const Item& item);
  // Where a moved item was before the move.
  std::string OldPath(const JournalEntry& change);
  // Items below (and with) a folder, parents first.
  void Subtree(const Item& folder, const std::string& path, bool recursive, bool with_self,
               std::vector<QJsonObject>* out);

  Router* router_ = nullptr;
  std::size_t page_size_ = 2000;
  std::atomic<int> longpoll_second_ms_{1000};
  std::atomic<int> longpoll_backoff_{0};
  std::atomic<bool> stopping_{false};
  std::mutex mutex_;
  std::map<std::uint64_t, Snapshot> snapshots_;
  std::uint64_t next_snapshot_ = 1;
  std::map<std::string, std::string> paths_;  // item id -> last known display path
  std::set<std::string> closed_sessions_;
  std::size_t search_page_size_ = 1000;
  std::map<std::string, std::set<std::string>> templates_;  // id -> field names
  // item id -> template id -> the group's fields
  std::map<std::string, std::map<std::string, PropertyFields>> property_groups_;
  std::map<std::string, std::vector<QJsonObject>> searches_;  // cursor -> matches not yet given
  std::uint64_t next_property_id_ = 1;
};

std::unique_ptr<Dialect> MakeDropboxDialect();

}  // namespace emulators
