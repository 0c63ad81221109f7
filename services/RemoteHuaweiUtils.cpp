#include "services/RemoteHuaweiUtils.h"

#include <QDateTime>

#include <cstdlib>

#include "core/Json.h"
#include "core/Nodes.h"

namespace huawei {

namespace {

struct CodeRow {
  int http_code;
  const char* detail;  // the last four digits of the service's code; empty: any
  FileSystem::Result result;
};

// Rows with a detail come before the row of their HTTP code.
constexpr CodeRow kCodeMap[] = {
    {400, "4004", FileSystem::CONFLICT},  // a cursor or session that expired: reload
    {400, "4009", FileSystem::CONFLICT},  // the parent is gone
    {400, "4906", FileSystem::CONFLICT},  // the parent is in the recycle bin
    {400, "4008", FileSystem::NAME_TOO_LONG},
    {400, "4006", FileSystem::BADNAM},
    {400, "4007", FileSystem::BADNAM},
    {400, "", FileSystem::FAILED},
    {401, "", FileSystem::AUTH_INVALID},
    {402, "", FileSystem::ACCESS_DENIED},
    {403, "4039", FileSystem::NO_SPACE},
    {403, "4037", FileSystem::FAILED},  // the upload session broke on the server: start again
    {403, "", FileSystem::FORBIDDEN},
    {404, "", FileSystem::ITEM_MISSED},
    {409, "", FileSystem::CONFLICT},
    {410, "", FileSystem::CONFLICT},
    {412, "", FileSystem::CONFLICT},
    {413, "", FileSystem::TOO_LARGE},
    {429, "", FileSystem::FAILED},
    {451, "", FileSystem::BLOCKED},
    {500, "", FileSystem::FAILED},
    {502, "", FileSystem::FAILED},
    {503, "", FileSystem::FAILED},
    {504, "", FileSystem::FAILED},
};

bool ReadNumber(const std::string& text, std::uint64_t* value) {
  if (text.empty() || text.size() > 20 ||
      text.find_first_not_of("0123456789") != std::string::npos) {
    return false;
  }
  char* end = nullptr;
  *value = std::strtoull(text.c_str(), &end, 10);
  return *end == '\0';
}

}  // namespace

bool ParseTime(const std::string& text, std::uint64_t* seconds) {
  QDateTime time = QDateTime::fromString(QString::fromStdString(text), Qt::ISODateWithMs);
  if (!time.isValid() || time.toMSecsSinceEpoch() < 0) {
    return false;
  }
  *seconds = static_cast<std::uint64_t>(time.toMSecsSinceEpoch() / 1000);
  return true;
}

std::string FormatTime(std::uint64_t seconds) {
  return QDateTime::fromSecsSinceEpoch(static_cast<qint64>(seconds), Qt::UTC)
      .toString("yyyy-MM-ddTHH:mm:ss.zzzZ")
      .toStdString();
}

bool ParseItem(const utils::json::json_tree& json, Item* item, std::string* error) {
  // 1. Identity and place.
  *item = Item();
  item->id = json.get("id", "");
  item->name = json.get("fileName", "");
  if (item->id.empty() || !ChildNode::IsValidName(item->name) ||
      item->name.size() > kMaxPathLength) {
    *error = "Item without a usable id or name: \"" + item->id + "\"";
    return false;
  }
  auto parents = utils::json::Child(json, "parentFolder");
  if (!parents || parents->empty() || parents->front().second.data().empty()) {
    *error = "Item without a parent: \"" + item->id + "\"";
    return false;
  }
  item->parent_id = parents->front().second.data();
  item->is_folder = json.get("mimeType", "") == kFolderMime;
  // 2. The recycle mark is a boolean, nothing else.
  const std::string recycled = json.get("recycled", "false");
  if (recycled != "true" && recycled != "false") {
    *error = "Item with a \"recycled\" that is not a boolean: \"" + item->id + "\"";
    return false;
  }
  item->recycled = recycled == "true";
  // 3. Time, size and version; a folder has neither size nor version.
  if (!ParseTime(json.get("editedTime", ""), &item->time)) {
    *error = "Item with an unreadable \"editedTime\": \"" + item->id + "\"";
    return false;
  }
  if (!item->is_folder) {
    if (!ReadNumber(json.get("size", "0"), &item->size)) {
      *error = "Item with an unreadable \"size\": \"" + item->id + "\"";
      return false;
    }
    item->content_version = json.get("contentVersion", "");
  }
  return true;
}

std::string QuoteLiteral(const std::string& text) {
  std::string quoted = "'";
  for (char c : text) {
    if (c == '\'' || c == '\\') {
      quoted += '\\';
    }
    quoted += c;
  }
  return quoted + "'";
}

std::string ErrorCodeOf(const utils::json::json_tree& body) {
  auto details = utils::json::Child(body, "error.errorDetail");
  if (!details || details->empty()) {
    return std::string();
  }
  return details->front().second.get("errorCode", "");
}

FileSystem::Result ResultFromHttp(int http_code, const std::string& error_code) {
  const std::string detail =
      error_code.size() >= 4 ? error_code.substr(error_code.size() - 4) : std::string();
  for (const CodeRow& row : kCodeMap) {
    if (row.http_code == http_code && (row.detail[0] == '\0' || detail == row.detail)) {
      return row.result;
    }
  }
  return FileSystem::FAILED;
}

}  // namespace huawei
