// The Dropbox file properties calls of the backup metainfo: the account's template that describes a
// backup, one property group of it per backup folder, and the search that finds those groups.
//
//   utils::json::json_tree answer;
//   FileSystem::Result result =
//       dropbox::CallFileProperties(client, "templates/list_for_user", std::string(), &answer);
//
//   std::vector<dropbox::PropertyGroup> groups;
//   result = dropbox::SearchPropertyGroups(client, "app_name", "corvane", stopped, &groups);
//
// A call answers as GetRpcError reads it: only 401, 409 and 429 are failures of the service.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "core/FileSystem.h"
#include "core/Json.h"
#include "core/URLProcessor.h"

namespace dropbox {

constexpr char kLocalPathField[] = "local_path";
constexpr char kCloudPathField[] = "cloud_path";
constexpr char kLastUpdateTimeField[] = "last_update_time";
constexpr char kSizeField[] = "size";
constexpr char kAppNameField[] = "app_name";
// The value of "app_name" in every group this library writes, and what the reader looks for.
constexpr char kAppName[] = "corvane";

// One property group as a search found it.
struct PropertyGroup {
  std::string path;  // of the item that carries it, as the service displays it
  std::string templateId;
  std::map<std::string, std::string> fields;  // name -> value

  std::string Field(const std::string& name) const;
};

// Posts `body` (JSON, or nothing for a call without arguments) to the API host's
// "/2/file_properties/" + `name`.
FileSystem::Result CallFileProperties(const std::shared_ptr<URLProcessor>& client,
                                      const std::string& name, const std::string& body,
                                      utils::json::json_tree* json);

// "templates/add_for_user" of the template that describes a backup.
std::string MetainfoTemplateBody();

// Every group whose `field` holds `value`, through all pages of the search. `stopped` is asked
// before each request: a stop ends the walk with STOPPED and keeps what was found.
FileSystem::Result SearchPropertyGroups(const std::shared_ptr<URLProcessor>& client,
                                        const std::string& field, const std::string& value,
                                        const std::function<bool()>& stopped,
                                        std::vector<PropertyGroup>* groups);

// The groups of one search page, leaving out deleted items and what isn't a group; the cursor of
// the next page, empty after the last.
void ReadPropertySearchPage(const utils::json::json_tree& page, std::vector<PropertyGroup>* groups,
                            std::string* cursor);

}  // namespace dropbox
