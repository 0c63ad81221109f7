#include "services/DropboxFileProperties.h"

#include "core/Endpoints.h"
#include "core/JsonWriter.h"
#include "core/LoggerWrapper.h"
#include "services/RemoteDropboxUtils.h"

namespace dropbox {

namespace {

constexpr char kJsonContentType[] = "application/json";
constexpr char kTemplateName[] = "corvane_metadata";
constexpr char kTemplateDescription[] = "Corvane info about uploaded info";

struct TemplateField {
  const char* name;
  const char* description;
};

constexpr TemplateField kTemplateFields[] = {
    {kLocalPathField, "Path on PC where data are loaded from"},
    {kCloudPathField, "Path in cloud storage"},
    {kLastUpdateTimeField, "Last update time by application"},
    {kSizeField, "Size of directories"},
    {kAppNameField, "name of application using properties"},
};

std::string SearchBody(const std::string& field, const std::string& value) {
  utils::json::Writer body;
  body.BeginObject().Key("queries").BeginArray().BeginObject();
  body.Key("query").String(value);
  body.Key("mode").BeginObject().Key(".tag").String("field_name");
  body.Key("field_name").String(field).EndObject();
  body.Key("logical_operator").String("or_operator");
  body.EndObject().EndArray();
  body.Key("template_filter").String("filter_none").EndObject();
  return body.Text();
}

std::string ContinueBody(const std::string& cursor) {
  utils::json::Writer body;
  body.BeginObject().Key("cursor").String(cursor).EndObject();
  return body.Text();
}

bool ReadGroup(const utils::json::json_tree& json, const std::string& path, PropertyGroup* group) {
  auto fields = utils::json::Member(json, "fields");
  if (!fields) {
    return false;
  }
  group->path = path;
  group->templateId = ReadString(json, "template_id");
  for (const auto& field : *fields) {
    const std::string name = ReadString(field.second, "name");
    if (!name.empty()) {
      group->fields[name] = ReadString(field.second, "value");
    }
  }
  return true;
}

}  // namespace

std::string PropertyGroup::Field(const std::string& name) const {
  auto found = fields.find(name);
  return found == fields.end() ? std::string() : found->second;
}

FileSystem::Result CallFileProperties(const std::shared_ptr<URLProcessor>& client,
                                      const std::string& name, const std::string& body,
                                      utils::json::json_tree* json) {
  // 1. The request: JSON when there is a body.
  URLProcessor::Request request;
  request.verb = "POST";
  request.url = DispatcherUrl::FromString(Endpoints::Get(Endpoints::kDropboxApi) +
                                          "/2/file_properties/" + name);
  request.body = body;
  request.content_type = body.empty() ? std::string() : kJsonContentType;
  client->Send(request);
  // 2. The answer, and the service's word on a failure.
  URLProcessor::Result transport = URLProcessor::Result::OK;
  json->clear();
  const FileSystem::Result parsed = ParseRpcResponse(json, client, &transport);
  if (parsed != FileSystem::SUCCEEDED) {
    return parsed;
  }
  return URLProcessor::IsSuccessHttpCode(client->GetResponseCode()) ? FileSystem::SUCCEEDED
                                                                    : GetRpcError(*json, client);
}

std::string MetainfoTemplateBody() {
  utils::json::Writer body;
  body.BeginObject().Key("name").String(kTemplateName);
  body.Key("description").String(kTemplateDescription);
  body.Key("fields").BeginArray();
  for (const TemplateField& field : kTemplateFields) {
    body.BeginObject().Key("name").String(field.name);
    body.Key("description").String(field.description);
    body.Key("type").String("string").EndObject();
  }
  body.EndArray().EndObject();
  return body.Text();
}

FileSystem::Result SearchPropertyGroups(const std::shared_ptr<URLProcessor>& client,
                                        const std::string& field, const std::string& value,
                                        const std::function<bool()>& stopped,
                                        std::vector<PropertyGroup>* groups) {
  // 1. The first page, then each page the cursor names until it runs out.
  std::string name = "properties/search";
  std::string body = SearchBody(field, value);
  std::string previous;
  do {
    if (stopped()) {
      return FileSystem::STOPPED;
    }
    utils::json::json_tree page;
    const FileSystem::Result result = CallFileProperties(client, name, body, &page);
    if (result != FileSystem::SUCCEEDED) {
      return result;
    }
    // 2. Its groups; the cursor, when there is one, leads to the next page.
    std::string cursor;
    ReadPropertySearchPage(page, groups, &cursor);
    if (!cursor.empty() && cursor == previous) {
      LOG_WARNING << "Properties search repeats its cursor: " << cursor;
      return FileSystem::FAILED;
    }
    previous = cursor;
    name = "properties/search/continue";
    body = cursor.empty() ? std::string() : ContinueBody(cursor);
  } while (!body.empty());
  return FileSystem::SUCCEEDED;
}

void ReadPropertySearchPage(const utils::json::json_tree& page, std::vector<PropertyGroup>* groups,
                            std::string* cursor) {
  *cursor = ReadString(page, "cursor");
  auto matches = utils::json::Member(page, "matches");
  if (!matches) {
    LOG_WARNING << "No matches in properties search reply: " << utils::json::ToString(page, false);
    return;
  }
  for (const auto& match : *matches) {
    auto owned = utils::json::Member(match.second, "property_groups");
    if (!owned || ReadBool(match.second, "is_deleted", false)) {
      continue;
    }
    const std::string path = ReadString(match.second, "path");
    for (const auto& json : *owned) {
      PropertyGroup group;
      if (ReadGroup(json.second, path, &group)) {
        groups->push_back(std::move(group));
      }
    }
  }
}

}  // namespace dropbox
