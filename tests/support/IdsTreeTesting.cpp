#include "IdsTreeTesting.h"

#include <algorithm>
#include <random>

#include "services/RemoteFileIds.h"

namespace ids_testing {

std::vector<Item> Snapshot(const RemoteFileIds& ids) {
  std::vector<Item> items;
  if (!ids.IsInit()) {
    return items;
  }
  ids.VisitSubtree(ids.GetRootId(), [&](const std::string& id) {
    Item item;
    item.path = ids.GetPathById(id).value_or("<no path>");
    item.id = id;
    item.folder = ids.HasFolder(id);
    item.trashed = ids.IsTrashed(id);
    item.mapped = ids.HasMappedName(id);
    if (item.mapped) {
      item.original_name = ids.MappedGetOriginalName(id);
      item.mapped_name = ids.MappedGetMappedName(id);
    }
    items.push_back(std::move(item));
  });
  std::sort(items.begin(), items.end());
  return items;
}

namespace {

std::string RandomName(std::mt19937_64& rng) {
  std::string name(1 + rng() % 24, ' ');
  for (char& c : name) {
    do {
      c = static_cast<char>(rng() % 256);
    } while (c == '\n' || c == '/');
  }
  // A top level item named "root" would read back as the root record.
  return name == "root" ? name + "_" : name;
}

}  // namespace

int BuildRandomTree(std::uint64_t seed, const RandomTreeOptions& options, RemoteFileIds* ids) {
  std::mt19937_64 rng(seed);
  int next_id = 0;
  auto new_id = [&] { return "id" + std::to_string(seed) + "_" + std::to_string(next_id++); };
  ids->Init(new_id());
  std::vector<std::string> folders{ids->GetRootId()};
  auto decorate = [&](const std::string& id) {
    if (rng() % 7 == 0) {
      ids->AddTrashed(id);
    }
    if (rng() % 5 == 0) {
      ids->AddMappingInfo(id, RandomName(rng), RandomName(rng));
    }
  };
  auto add_folder = [&](const std::string& parent) {
    const std::string id = new_id();
    if (ids->AddFolderId(id, RandomName(rng), parent)) {
      folders.push_back(id);
      decorate(id);
    }
    return id;
  };
  for (int i = 0; i < options.folders; ++i) {
    add_folder(folders[rng() % folders.size()]);
  }
  std::string deepest = folders[rng() % folders.size()];
  for (int i = 0; i < options.depth; ++i) {
    deepest = add_folder(deepest);
  }
  const std::string wide_folder = folders[rng() % folders.size()];
  for (int i = 0; i < options.files + options.wide; ++i) {
    const std::string id = new_id();
    const std::string& parent = i < options.files ? folders[rng() % folders.size()] : wide_folder;
    if (ids->AddFileId(id, RandomName(rng), parent)) {
      decorate(id);
    }
  }
  for (int i = 0; i < options.not_linked; ++i) {
    const std::string id = new_id();
    (i % 2 ? ids->AddNotLinkedFileId(id) : ids->AddNotLinkedFolderId(id));
    decorate(id);
  }
  // A random name may have displaced a sibling of the same kind: those count as not linked.
  return static_cast<int>(ids->GetItemsCount() - Snapshot(*ids).size());
}

std::string CheckInvariants(const RemoteFileIds& ids, unsigned not_linked) {
  const std::vector<Item> items = Snapshot(ids);
  for (const Item& item : items) {
    if (item.path == "<no path>") {
      return "no path for reachable " + item.id;
    }
    if (item.folder == ids.HasFile(item.id)) {
      return "kind of " + item.id + " is not one of file or folder";
    }
    if (item.id == ids.GetRootId()) {
      continue;
    }
    const std::string by_path =
        item.folder ? ids.GetFolderIdByPath(item.path) : ids.GetFileIdByPath(item.path);
    if (by_path != item.id) {
      return "path " + item.path + " leads to " + by_path + " instead of " + item.id;
    }
    const std::string name = item.path.substr(item.path.rfind('/') + 1);
    if (ids.GetNameById(item.id) != name) {
      return "name of " + item.id + " differs from its path";
    }
    if (ids.GetPathById(ids.GetParentId(item.id)).value_or("?") !=
        item.path.substr(0, item.path.size() - std::min(item.path.size(), name.size() + 1))) {
      return "parent of " + item.id + " is not where its path says";
    }
  }
  if (ids.GetItemsCount() != items.size() + not_linked) {
    return "count " + std::to_string(ids.GetItemsCount()) + " for " + std::to_string(items.size()) +
           " linked and " + std::to_string(not_linked) + " not linked";
  }
  return std::string();
}

}  // namespace ids_testing
