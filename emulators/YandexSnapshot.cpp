#include "emulators/YandexSnapshot.h"

#include <QByteArray>

namespace emulators {

namespace {

constexpr char kFileEntry = 1;
constexpr char kFolderEntry = 2;

// The digest's raw bytes; zeros where the account has none.
void AppendRaw(const std::string& hex, std::size_t bytes, std::string* out) {
  QByteArray raw = QByteArray::fromHex(QByteArray::fromStdString(hex));
  raw.resize(static_cast<int>(bytes));
  out->append(raw.constData(), bytes);
}

void AppendEntry(const Item& item, const std::string& path, std::string* out) {
  out->push_back(item.IsFolder() ? kFolderEntry : kFileEntry);
  if (!item.IsFolder()) {
    AppendRaw(item.digests.md5, 16, out);
    AppendRaw(item.digests.sha256, 32, out);
    AppendUleb64(item.size, out);
  }
  AppendUleb64(path.size(), out);
  out->append(path);
}

}  // namespace

void AppendUleb64(std::uint64_t value, std::string* out) {
  do {
    std::uint8_t byte = value & 0x7f;
    value >>= 7;
    out->push_back(static_cast<char>(value ? byte | 0x80 : byte));
  } while (value);
}

void WalkTree(const CloudAccount& account, const Item& folder, const std::string& path,
              const std::function<void(const Item&, const std::string&)>& visit) {
  std::vector<Item> children = account.Children(folder.id);
  auto child_path = [&path](const Item& child) {
    return path.empty() ? child.name : path + "/" + child.name;
  };
  for (const Item& child : children) {
    if (!child.IsFolder())
      visit(child, child_path(child));
  }
  for (const Item& child : children) {
    if (child.IsFolder()) {
      visit(child, child_path(child));
      WalkTree(account, child, child_path(child), visit);
    }
  }
}

std::string BinarySnapshot(const CloudAccount& account, const Item& folder, const std::string& path,
                           std::uint64_t* count) {
  std::string body;
  *count = 0;
  auto append = [&body, count](const Item& item, const std::string& item_path) {
    AppendEntry(item, item_path, &body);
    ++*count;
  };
  if (!path.empty())
    append(folder, path);
  WalkTree(account, folder, path, append);
  return body;
}

}  // namespace emulators
