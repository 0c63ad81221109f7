// What the tool prints with --json, one object a line, as the tool tests read it.
#pragma once

#include <QByteArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <string>
#include <vector>

#include "support/Processes.h"

namespace test {

// The "path" of each line, in order.
inline std::vector<std::string> PrintedPaths(const std::string& out) {
  std::vector<std::string> paths;
  for (const std::string& line : Lines(out)) {
    paths.push_back(QJsonDocument::fromJson(QByteArray::fromStdString(line))
                        .object()["path"]
                        .toString()
                        .toStdString());
  }
  return paths;
}

}  // namespace test
