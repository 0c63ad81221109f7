// The Huawei Drive wire vocabulary the adapter, its metainfo reader and writer share: the item as
// the service describes it, its times, the quoting of query literals, and the one map from an
// HTTP code and the service's error code to FileSystem::Result.
//
//   huawei::Item item;
//   std::string error;
//   if (!huawei::ParseItem(json, &item, &error)) LOG_ERROR << error;
//   std::string query = "fileName=" + huawei::QuoteLiteral("it's") + " and recycled=false";
#pragma once

#include <cstdint>
#include <string>

#include "core/FileSystem.h"
#include "core/URLProcessor.h"

namespace huawei {

constexpr char kFolderMime[] = "application/vnd.huawei-apps.folder";
constexpr char kApiPath[] = "/drive/v1";
constexpr char kUploadPath[] = "/upload/drive/v1";
constexpr char kFolderQuery[] = "mimeType='application/vnd.huawei-apps.folder' and recycled=false";
constexpr char kFileQuery[] = "mimeType!='application/vnd.huawei-apps.folder' and recycled=false";
// Names beyond the service's own limit are refused before any request.
constexpr std::uint32_t kMaxNameLength = 250;
constexpr std::uint32_t kMaxPathLength = 5000;

struct Item {
  std::string id;
  std::string name;
  std::string parent_id;  // the first of "parentFolder"
  bool is_folder = false;
  bool recycled = false;
  std::uint64_t size = 0;
  std::uint64_t time = 0;  // "editedTime", seconds
  std::string content_version;
};

// Reads one file object. False with `*error` set for a missing id, name or parent, a "recycled"
// that is not a JSON boolean, a size or time that doesn't read, or a name the tree can't hold.
bool ParseItem(const utils::json::json_tree& json, Item* item, std::string* error);
// "2024-05-01T10:20:30.123Z", milliseconds optional; false for anything else.
bool ParseTime(const std::string& text, std::uint64_t* seconds);
std::string FormatTime(std::uint64_t seconds);
// A query literal: quoted, with "\" and "'" escaped by a backslash. The caller percent-encodes
// the whole query, which covers "&", "#" and non-ASCII bytes.
std::string QuoteLiteral(const std::string& text);
// "errorDetail[0].errorCode" of an error body, empty when the body has none.
std::string ErrorCodeOf(const utils::json::json_tree& body);
// The one map from an answer to a Result. `error_code` is the service's code ("21004041"); its
// last four digits refine the HTTP code.
FileSystem::Result ResultFromHttp(int http_code, const std::string& error_code);

}  // namespace huawei
