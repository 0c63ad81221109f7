#include "services/OneDriveBackupDescription.h"

#include <QDateTime>

#include <algorithm>

#include "core/Json.h"
#include "core/JsonWriter.h"
#include "core/TimeUtils.h"

const char* const OneDriveBackupDescription::kProperty = "corvaneBackupMetainfo_4827A6FB";

namespace {

// A scalar member as text; false when it is an object or a list.
bool ScalarOf(const utils::json::json_tree& object, const char* key, std::string* out) {
  auto member = utils::json::Member(object, key);
  if (!member) {
    out->clear();
    return true;
  }
  if (!member->empty())
    return false;
  *out = member->data();
  return true;
}

}  // namespace

bool OneDriveBackupDescription::Parse(const std::string& text, OneDriveBackupDescription* out) {
  // 1. Our object inside the folder's description.
  utils::json::json_tree document;
  if (text.empty() || !utils::json::Parse(text, &document))
    return false;
  auto record = utils::json::Member(document, kProperty);
  if (!record || record->empty())
    return false;
  // 2. Its members, each of the type it is written with.
  OneDriveBackupDescription parsed;
  std::string time;
  if (!ScalarOf(*record, "localPath", &parsed.localPath) ||
      !ScalarOf(*record, "cloudPath", &parsed.cloudPath) ||
      !ScalarOf(*record, "lastUpdateTime", &time))
    return false;
  if (!time.empty() && !utils::TryParseISODateTime(time, &parsed.lastUpdateTime))
    return false;
  if (auto list = utils::json::Member(*record, "localPathList")) {
    for (const auto& entry : *list) {
      if (!entry.first.empty() || !entry.second.empty())
        return false;
      parsed.localPathList.push_back(entry.second.data());
    }
  }
  if (parsed.localPath.empty() && !parsed.localPathList.empty())
    parsed.localPath = parsed.localPathList.back();
  *out = std::move(parsed);
  return true;
}

std::string OneDriveBackupDescription::ToText() const {
  utils::json::Writer writer;
  writer.BeginObject().Key(kProperty).BeginObject();
  writer.Key("localPath").String(localPath).Key("cloudPath").String(cloudPath);
  if (lastUpdateTime != 0) {
    writer.Key("lastUpdateTime")
        .String(QDateTime::fromSecsSinceEpoch(lastUpdateTime, Qt::UTC)
                    .toString(Qt::ISODateWithMs)
                    .toStdString());
  }
  writer.Key("localPathList").BeginArray();
  for (const std::string& path : localPathList)
    writer.String(path);
  writer.EndArray().EndObject().EndObject();
  return writer.Text();
}

void OneDriveBackupDescription::Remember(const std::string& path) {
  if (std::find(localPathList.begin(), localPathList.end(), path) == localPathList.end())
    localPathList.push_back(path);
}
