// GraphMetainfoClient: the Graph requests of the OneDrive backup metainfo, on the reader's or the
// writer's own processor. Each answers a Result by the adapter's table and logs its failure.
//
//   GraphMetainfoClient graph(http_.get());
//   utils::json::json_tree folder;
//   graph.Get("/me/drive/items/" + id, "description", &folder);
#pragma once

#include <string>

#include "core/DispatcherUrl.h"
#include "core/FileSystem.h"
#include "core/Json.h"

class URLProcessor;

class GraphMetainfoClient {
 public:
  explicit GraphMetainfoClient(URLProcessor* http) : http_(http) {}

  // `path` below the Graph base, or a whole URL on the Graph host that the service gave (a next
  // link); `select` goes in "$select" unless empty.
  FileSystem::Result Get(const std::string& path, const std::string& select,
                         utils::json::json_tree* reply);
  FileSystem::Result Patch(const std::string& path, const std::string& body,
                           utils::json::json_tree* reply);

 private:
  FileSystem::Result Run(const std::string& verb, const DispatcherUrl& url, const std::string& body,
                         utils::json::json_tree* reply);

  URLProcessor* const http_;
};
