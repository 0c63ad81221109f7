#include "StateFile.h"

#include <cstdio>
#include <fstream>
#include <sstream>

#include "Output.h"
#include "core/PercentEncoding.h"

namespace corvane {
namespace {

constexpr const char* kHeader = "corvane-state 1";

SomeHash HashFromText(int type, const std::string& hex) {
  switch (type) {
    case SomeHash::GOOGLE:
      return SomeHash(HashGoogle::FromHexString(hex));
    case SomeHash::DROPBOX:
      return SomeHash(HashDropbox::FromHexString(hex));
    case SomeHash::YANDEX:
      return SomeHash(HashYandex::FromHexString(hex));
    default:
      return SomeHash();
  }
}

// One line of the tree into `root`; false for a line that is no item.
bool AddItem(const std::string& line, FolderNode* root) {
  std::istringstream in(line);
  char kind = 0;
  std::uint64_t time = 0;
  std::uint64_t size = 0;
  int hash_type = 0;
  std::string hex;
  std::string encoded;
  in >> kind >> time;
  if (kind == 'F') {
    in >> size >> hash_type >> hex;
  }
  in >> encoded;
  // The name is a view into the path: the path outlives it.
  const std::string path = utils::PercentDecoded(encoded);
  std::string_view name;
  FolderNode* parent = in ? root->TraversePathAndCreateDirs(path, &name) : nullptr;
  if (!parent || (kind != 'F' && kind != 'D')) {
    return false;
  }
  return kind == 'D'
             ? parent->CreateFolder(name, time) != nullptr
             : parent->CreateFileW(name, size, HashFromText(hash_type, hex), time) != nullptr;
}

}  // namespace

bool StateFile::Load(const std::string& path, RemoteFileSystem& fs, Snapshot* snapshot,
                     std::string* why) {
  // 1. The file.
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    *why = "no state in " + path;
    return false;
  }
  std::string line;
  std::size_t items = 0;
  if (!std::getline(file, line) || line != kHeader || !std::getline(file, line) ||
      !(std::istringstream(line) >> snapshot->free >> snapshot->total >> items)) {
    *why = path + " holds no state of this tool";
    return false;
  }
  // 2. The core's tree, then the adapter's state: the rest of the file.
  bool read = true;
  for (std::size_t i = 0; read && i < items; ++i) {
    read = std::getline(file, line) && AddItem(line, &snapshot->root);
  }
  std::stringstream rest;
  if (read && file.peek() != std::ifstream::traits_type::eof()) {
    rest << file.rdbuf();
  }
  if (!read || !fs.Deserialize(nullptr, &snapshot->service_items, rest)) {
    *why = read ? "the adapter refused the state in " + path
                : "the tree in " + path + " is cut or damaged";
    snapshot->root.Clear();
    snapshot->service_items.clear();
    return false;
  }
  return true;
}

bool StateFile::Save(const std::string& path, RemoteFileSystem& fs, const Snapshot& snapshot,
                     std::string* why) {
  // 1. The core's tree.
  std::ostringstream tree;
  std::size_t items = 0;
  VisitTreeInPathOrder(snapshot.root, [&](const Item& item) {
    tree << (item.folder ? 'D' : 'F') << ' ' << item.mtime << ' ';
    if (!item.folder) {
      tree << item.size << ' ' << static_cast<int>(item.hash.GetType()) << ' '
           << (item.hash.IsEmpty() ? "-" : item.hash.ToHexString()) << ' ';
    }
    tree << utils::PercentEncoded(item.path, true) << '\n';
    ++items;
  });
  // 2. The adapter's section after it.
  std::ostringstream adapter;
  if (!fs.Serialize(nullptr, snapshot.service_items, adapter)) {
    *why = "the adapter could not save its state";
    return false;
  }
  // 3. In place at once.
  const std::string temporary = path + ".part";
  {
    std::ofstream file(temporary, std::ios::binary | std::ios::trunc);
    file << kHeader << '\n'
         << snapshot.free << ' ' << snapshot.total << ' ' << items << '\n'
         << tree.str() << adapter.str();
    if (!file.flush()) {
      *why = "cannot write " + temporary;
      return false;
    }
  }
  if (std::rename(temporary.c_str(), path.c_str()) != 0) {
    *why = "cannot replace " + path;
    std::remove(temporary.c_str());
    return false;
  }
  return true;
}

}  // namespace corvane
