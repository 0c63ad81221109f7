// GraphDriveItem: one driveItem of a Microsoft Graph answer (a delta page, a listing, an upload's
// final answer), read into plain fields. Reading never throws: a member of the wrong shape counts
// as missing, a number that is not one as an error.
//
//   GraphDriveItem item;
//   std::string error;
//   if (!GraphDriveItem::Parse(node, &item, &error)) LOG_ERROR << error;
//   if (item.deleted) { ... place it through item.id ... }
#pragma once

#include <cstdint>
#include <string>

#include "core/Json.h"
#include "core/SomeHash.h"

struct GraphDriveItem {
  std::string id;
  std::string name;
  std::string parentId;
  std::string parentPath;  // "parentReference.path", absent from delta answers
  bool hasParentPath = false;
  std::string driveId;
  std::string remoteId;  // "remoteItem.id": the item is a link to one of another drive
  std::string remoteDriveId;
  bool hasRemote = false;
  bool isFolder = false;  // "folder", "package" or "remoteItem.folder"
  bool isFile = false;    // "file" or "remoteItem.file"
  bool deleted = false;
  bool isRoot = false;
  bool isPublic = false;  // "shared.scope" of a link anyone may use
  std::uint64_t size = 0;
  std::uint64_t time = 0;  // "fileSystemInfo.lastModifiedDateTime", seconds
  HashOneDrive hash;

  // False with `error` set when the node is not an object or a value is malformed.
  static bool Parse(const utils::json::json_tree& node, GraphDriveItem* item, std::string* error);
  // The hash members of a driveItem: "file.hashes.*" and "eTag".
  static HashOneDrive ParseHash(const utils::json::json_tree& node);
};
