#include "services/OneDriveChangeOrder.h"

#include <algorithm>

namespace {

using Change = FileSystem::Change;

bool IsDelete(const Change& change) {
  return change.type == Change::FILE_DELETE || change.type == Change::FOLDER_DELETE ||
         change.type == Change::FILE_OR_FOLDER_DELETE;
}

bool IsRename(const Change& change) {
  return change.type == Change::FILE_RENAME || change.type == Change::FOLDER_RENAME;
}

std::size_t Depth(const std::string& path) {
  return static_cast<std::size_t>(std::count(path.begin(), path.end(), '/'));
}

bool IsBelow(const std::string& path, const std::string& folder) {
  return path.size() > folder.size() && path.compare(0, folder.size(), folder) == 0 &&
         path[folder.size()] == '/';
}

void DeepestDeletesFirst(std::vector<Change>* changes) {
  auto run_begin = changes->begin();
  while (run_begin != changes->end()) {
    if (!IsDelete(*run_begin)) {
      ++run_begin;
      continue;
    }
    auto run_end = std::find_if_not(run_begin, changes->end(), IsDelete);
    std::stable_sort(run_begin, run_end, [](const Change& a, const Change& b) {
      return Depth(a.path) > Depth(b.path);
    });
    run_begin = run_end;
  }
}

void RenamesAfterTheirDeletes(std::vector<Change>* changes) {
  for (std::size_t i = 0; i < changes->size(); ++i) {
    if (!IsRename((*changes)[i]))
      continue;
    // The last later delete whose path holds the rename's target.
    std::size_t last_delete = i;
    for (std::size_t j = i + 1; j < changes->size(); ++j) {
      const Change& later = (*changes)[j];
      if (IsDelete(later) && IsBelow((*changes)[i].path, later.path))
        last_delete = j;
    }
    if (last_delete == i)
      continue;
    Change rename = std::move((*changes)[i]);
    changes->erase(changes->begin() + static_cast<std::ptrdiff_t>(i));
    changes->insert(changes->begin() + static_cast<std::ptrdiff_t>(last_delete), std::move(rename));
    --i;  // the change now at i has not been looked at
  }
}

}  // namespace

void OrderOneDriveChanges(std::vector<Change>* changes) {
  if (changes->size() < 2)
    return;
  DeepestDeletesFirst(changes);
  RenamesAfterTheirDeletes(changes);
}
