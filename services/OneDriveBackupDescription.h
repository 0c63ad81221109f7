// OneDriveBackupDescription: how a backup describes itself on OneDrive. Graph keeps no custom
// properties on drive items; the one free text a folder carries is its "description", so the
// description holds a JSON object with the backup's record under kProperty:
//
//   {"corvaneBackupMetainfo_4827A6FB":{"localPath":"C:\\Docs","cloudPath":"Backups/PC",
//     "lastUpdateTime":"2026-11-20T10:00:00.000Z","localPathList":["C:\\Docs"]}}
//
//   OneDriveBackupDescription description;
//   if (OneDriveBackupDescription::Parse(item_description, &description))
//   use(description.localPath);
//
// A folder may carry several backups over time: "localPathList" keeps every local path it was
// written from, the newest last.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct OneDriveBackupDescription {
  static const char* const kProperty;

  std::string localPath;
  std::string cloudPath;
  std::int64_t lastUpdateTime = 0;  // seconds; 0 when never updated
  std::vector<std::string> localPathList;

  // False for text that is no description of ours (foreign text, malformed JSON, wrong types).
  static bool Parse(const std::string& text, OneDriveBackupDescription* out);
  std::string ToText() const;
  // Adds `path` to the list unless it stands there already.
  void Remember(const std::string& path);
};
