// HuaweiRequester: the requests of Huawei Drive over one URLProcessor, answered as Results: a GET
// or a request with a JSON body whose answer is JSON, one item's metadata, the paged listing by
// "nextCursor", and the lookup of a folder by name. Every answer passes one place (Check) that logs
// it and maps it.
//
//   HuaweiRequester http(processor.get());
//   utils::json::json_tree about;
//   if (http.Get(http.ApiUrl("/about").AppendParam(...), &about) == FileSystem::SUCCEEDED) ...
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "core/DispatcherUrl.h"
#include "core/FileSystem.h"
#include "core/URLProcessor.h"
#include "services/RemoteHuaweiUtils.h"

class HuaweiRequester {
 public:
  // `http` outlives the requester.
  explicit HuaweiRequester(URLProcessor* http) : http_(http) {}

  static DispatcherUrl ApiUrl(const std::string& path);
  static DispatcherUrl UploadUrl(const std::string& path);

  // A GET whose answer is JSON.
  FileSystem::Result Get(const DispatcherUrl& url, utils::json::json_tree* json);
  // A request with a JSON body ("Content-Type: application/json") and more header lines.
  FileSystem::Result Send(const std::string& verb, const DispatcherUrl& url,
                          const std::string& body, utils::json::json_tree* json,
                          const std::vector<std::string>& headers = {});
  // Every page of "files" for the query; `item` sees each file object and may end the walk by
  // answering false (the answer is then FAILED).
  FileSystem::Result ListAll(const std::string& query, const std::string& fields,
                             const std::function<bool(const utils::json::json_tree&)>& item,
                             bool by_creation = false);
  // One item as the server has it now.
  FileSystem::Result GetItem(const std::string& id, huawei::Item* item);
  // The id of the folder `name` in `parent_id` that is not recycled; empty with SUCCEEDED when
  // there is none.
  FileSystem::Result FindFolder(const std::string& name, const std::string& parent_id,
                                std::string* id);

  URLProcessor& http() { return *http_; }
  int LastCode() const { return http_->GetResponseCode(); }

 private:
  FileSystem::Result Check(URLProcessor::Result result, bool parsed,
                           const utils::json::json_tree& json);

  URLProcessor* http_;
};
