// YandexRestApi: the REST half of the Yandex Disk dialect (YandexDialect.h tells what it serves),
// with the state that outlives a request: snapshots being paged, upload links, operations.
#pragma once

#include <QJsonObject>

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "emulators/YandexDialect.h"

namespace emulators {

// The link a published item gets.
std::string YandexPublicLink(const Item& item);
// The bytes of the files in the trash.
std::uint64_t YandexTrashSize(const CloudAccount& account);
// "disk:/a/b", "/a/b" or "a/b" as "a/b"; false for a path with "." or ".." in it.
bool YandexAccountPath(const std::string& value, std::string* path);

class YandexRestApi {
 public:
  YandexRestApi(const Dialect& dialect, const YandexOptions& options, Router& router);
  void Install();

 private:
  struct Operation {
    int polls_left = 0;
    bool waiting = false;  // for its upload's bytes
    std::string status = "success";
  };
  struct UploadLink {
    std::string parent_id;
    std::string name;
    bool overwrite = false;
    std::string operation;
  };

  HttpResponse Disk(const HttpRequest& request);
  HttpResponse GetResource(const HttpRequest& request);
  HttpResponse CreateFolder(const HttpRequest& request);
  HttpResponse Delete(const HttpRequest& request);
  HttpResponse Move(const HttpRequest& request);
  HttpResponse Publish(const HttpRequest& request);
  HttpResponse Unpublish(const HttpRequest& request);
  HttpResponse DownloadLink(const HttpRequest& request);
  HttpResponse Download(const HttpRequest& request);
  HttpResponse UploadLinkRequest(const HttpRequest& request);
  HttpResponse Upload(const HttpRequest& request);
  HttpResponse OperationStatus(const HttpRequest& request);
  HttpResponse Snapshot(const HttpRequest& request);
  HttpResponse Deltas(const HttpRequest& request);

  // The item of the request's "path" (or `param`): false with the answer that refuses it.
  bool FindItem(const HttpRequest& request, const char* param, Item* item, std::string* path,
                HttpResponse* refusal) const;
  // Where a new item named by `param` goes: its parent and what is there now.
  bool PlanNew(const HttpRequest& request, const char* param, std::string* parent_id,
               std::string* name, std::optional<Item>* existing, HttpResponse* refusal) const;
  QJsonObject Resource(const Item& item, const std::string& path) const;
  QJsonObject Link(const std::string& href, const char* method = "GET") const;
  HttpResponse ResourceLink(int status, const std::string& path) const;
  // 202 with the link of a new operation that ends after the configured polls.
  HttpResponse Accepted(const std::string& status = "success");
  std::string NewOperation(Operation operation);
  std::string OperationUrl(const std::string& id) const;
  // A folder with this many items or more goes by operation.
  bool IsLarge(const Item& item) const;
  // The delta items of one journal entry (none, one, or two for a moved file).
  void DeltaItems(const JournalEntry& entry, std::vector<QJsonObject>* out) const;

  const Dialect& dialect_;
  const YandexOptions options_;
  Router& router_;
  std::mutex mutex_;
  std::map<std::uint64_t, std::vector<QJsonObject>> snapshots_;  // pages in making, by id
  std::map<std::uint64_t, std::uint64_t> snapshot_revisions_;
  std::map<std::string, UploadLink> uploads_;
  std::map<std::string, Operation> operations_;
  std::uint64_t made_ = 0;
  std::atomic<int> unhashed_answers_;
};

}  // namespace emulators
