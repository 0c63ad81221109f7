#include "services/BackupMetainfoRemoteWriterDropbox.h"

#include <functional>
#include <utility>
#include <vector>

#include "core/JsonWriter.h"
#include "core/LoggerWrapper.h"
#include "services/DropboxFileProperties.h"
#include "services/RemoteDropboxUtils.h"
#include "services/RemoteFileSystemFactoryDropbox.h"

namespace {

using Fields = std::vector<std::pair<const char*, std::string>>;

void WriteFields(const Fields& fields, utils::json::Writer* body) {
  body->BeginArray();
  for (const auto& [name, value] : fields) {
    body->BeginObject().Key("name").String(name).Key("value").String(value).EndObject();
  }
  body->EndArray();
}

// One group of `templateId` for the item at `path`, under `groupsKey` with its fields at
// `fieldsKey`: the shape of an add and of an update alike.
std::string GroupBody(const std::string& path, const char* groupsKey, const std::string& templateId,
                      const char* fieldsKey, const Fields& fields) {
  utils::json::Writer body;
  body.BeginObject().Key("path").String(path);
  body.Key(groupsKey).BeginArray().BeginObject().Key("template_id").String(templateId);
  body.Key(fieldsKey);
  WriteFields(fields, &body);
  body.EndObject().EndArray().EndObject();
  return body.Text();
}

bool Describes(const std::vector<dropbox::PropertyGroup>& groups, const std::string& localPath,
               const std::string& remotePath) {
  for (const dropbox::PropertyGroup& group : groups) {
    if (group.Field(dropbox::kLocalPathField) == localPath &&
        group.Field(dropbox::kCloudPathField) == remotePath) {
      return true;
    }
  }
  return false;
}

}  // namespace

BackupMetainfoRemoteWriterDropbox::BackupMetainfoRemoteWriterDropbox(
    std::shared_ptr<RemoteFileSystemSharedData> sharedData,
    std::shared_ptr<URLProcessorFactory> urlFactory, const std::string& localPath,
    const std::string& remotePath)
    : BackupMetainfoRemoteWriter(std::move(sharedData), std::move(urlFactory), localPath,
                                 remotePath),
      account_(dynamic_cast<RemoteFileSystemDropboxSharedData*>(shared_data_.get())) {}

FileSystem::Result BackupMetainfoRemoteWriterDropbox::Call(const std::string& name,
                                                           const std::string& body,
                                                           utils::json::json_tree* json) {
  if (CheckStopped()) {
    return FileSystem::STOPPED;
  }
  return dropbox::CallFileProperties(http_, name, body, json);
}

std::string BackupMetainfoRemoteWriterDropbox::FolderPath() const {
  const std::size_t start = remote_path_.find_first_not_of('/');
  if (start == std::string::npos) {
    return "/";
  }
  return "/" + remote_path_.substr(start, remote_path_.find_last_not_of('/') + 1 - start);
}

FileSystem::Result BackupMetainfoRemoteWriterDropbox::FindTemplate(std::string* id) {
  // 1. Known to the account already; an inert writer knows none.
  if (IsInert()) {
    return FileSystem::FAILED;
  }
  *id = account_ ? account_->MetainfoTemplateId() : std::string();
  if (!id->empty()) {
    return FileSystem::SUCCEEDED;
  }
  // 2. The app's templates on the service: one there is taken as it stands, whatever its fields.
  utils::json::json_tree answer;
  FileSystem::Result result = Call("templates/list_for_user", std::string(), &answer);
  if (result != FileSystem::SUCCEEDED) {
    LOG_WARNING << "Can`t register corvane metadata.";
    return result;
  }
  if (auto ids = utils::json::Member(answer, "template_ids"); ids && !ids->empty()) {
    *id = ids->front().second.data();
  }
  // 3. None: the account gets it now.
  if (id->empty()) {
    result = RegisterTemplate(id);
  }
  if (result == FileSystem::SUCCEEDED && account_) {
    account_->SetMetainfoTemplateId(*id);
  }
  return result;
}

FileSystem::Result BackupMetainfoRemoteWriterDropbox::RegisterTemplate(std::string* id) {
  utils::json::json_tree answer;
  const FileSystem::Result result =
      Call("templates/add_for_user", dropbox::MetainfoTemplateBody(), &answer);
  if (result != FileSystem::SUCCEEDED) {
    LOG_WARNING << "Can`t register corvane metadata.";
    return result;
  }
  *id = dropbox::ReadString(answer, "template_id");
  if (id->empty()) {
    LOG_WARNING << "Empty template id for metadata properties from response.";
    return FileSystem::FAILED;
  }
  LOG_INFO << "Registered metadata template " << *id << ".";
  return FileSystem::SUCCEEDED;
}

FileSystem::Result BackupMetainfoRemoteWriterDropbox::IsRegistered(bool* registered) {
  // The group is searched by each of its paths; it stands when both searches find this pair.
  const std::function<bool()> stopped = [this] { return CheckStopped(); };
  std::vector<dropbox::PropertyGroup> byLocal;
  std::vector<dropbox::PropertyGroup> byCloud;
  FileSystem::Result result = dropbox::SearchPropertyGroups(http_, dropbox::kLocalPathField,
                                                            local_path_, stopped, &byLocal);
  if (result == FileSystem::SUCCEEDED) {
    result = dropbox::SearchPropertyGroups(http_, dropbox::kCloudPathField, remote_path_, stopped,
                                           &byCloud);
  }
  if (result != FileSystem::SUCCEEDED) {
    LOG_WARNING << "Can`t get backups.";
    return result;
  }
  *registered = Describes(byLocal, local_path_, remote_path_) &&
                Describes(byCloud, local_path_, remote_path_);
  return FileSystem::SUCCEEDED;
}

FileSystem::Result BackupMetainfoRemoteWriterDropbox::Create() {
  // 1. The account's template.
  std::string templateId;
  FileSystem::Result result = FindTemplate(&templateId);
  if (result != FileSystem::SUCCEEDED) {
    return result;
  }
  // 2. Nothing to do when this backup is described already.
  bool registered = false;
  result = IsRegistered(&registered);
  if (result != FileSystem::SUCCEEDED) {
    return result;
  }
  if (registered) {
    LOG_INFO << "Backup for local_path=\"" << local_path_ << "\", remote_path=\"" << remote_path_
             << "\" already registered.";
    return FileSystem::SUCCEEDED;
  }
  // 3. The group on the backup's folder; size and time come with the first update.
  const Fields fields = {{dropbox::kLocalPathField, local_path_},
                         {dropbox::kCloudPathField, remote_path_},
                         {dropbox::kLastUpdateTimeField, "0"},
                         {dropbox::kSizeField, "0"},
                         {dropbox::kAppNameField, dropbox::kAppName}};
  const std::string body = GroupBody(FolderPath(), "property_groups", templateId, "fields", fields);
  utils::json::json_tree answer;
  result = Call("properties/add", body, &answer);
  // 4. The folder carries a group of the template with other paths (the backup's local folder
  // moved): Dropbox keeps one group per item and template, so this one replaces it.
  if (result == FileSystem::FAILED &&
      dropbox::ReadString(answer, "error_summary").find("property_group_already_exists") !=
          std::string::npos) {
    LOG_INFO << "Backup metainfo of \"" << remote_path_
             << "\" describes other paths, replacing it.";
    result = Call("properties/overwrite", body, &answer);
  }
  return result;
}

FileSystem::Result BackupMetainfoRemoteWriterDropbox::Update(std::uint64_t size,
                                                             std::int64_t lastUpdateTime) {
  std::string templateId;
  FileSystem::Result result = FindTemplate(&templateId);
  if (result != FileSystem::SUCCEEDED) {
    return result;
  }
  const Fields fields = {{dropbox::kLastUpdateTimeField, std::to_string(lastUpdateTime)},
                         {dropbox::kSizeField, std::to_string(size)}};
  utils::json::json_tree answer;
  return Call(
      "properties/update",
      GroupBody(FolderPath(), "update_property_groups", templateId, "add_or_update_fields", fields),
      &answer);
}
