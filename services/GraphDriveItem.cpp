#include "services/GraphDriveItem.h"

#include <QByteArray>

#include <algorithm>
#include <array>

#include "core/TimeUtils.h"

namespace {

using utils::json::json_tree;

// A member that is a scalar: its text; empty when missing or an object.
std::string Text(const json_tree& node, const std::string& path) {
  auto child = utils::json::Child(node, path);
  if (!child || !child->empty())
    return std::string();
  return child->data();
}

bool Has(const json_tree& node, const std::string& path) {
  return static_cast<bool>(utils::json::Child(node, path));
}

bool IsObject(const json_tree& node, const std::string& path) {
  auto child = utils::json::Child(node, path);
  return child && (!child->empty() || child->data().empty());
}

bool ParseUnsigned(const std::string& text, std::uint64_t* value) {
  if (text.empty() || text.size() > 20)
    return false;
  std::uint64_t result = 0;
  for (char c : text) {
    if (c < '0' || c > '9')
      return false;
    std::uint64_t next = result * 10 + static_cast<std::uint64_t>(c - '0');
    if (next / 10 != result)
      return false;
    result = next;
  }
  *value = result;
  return true;
}

template <std::size_t N>
HashBase<N> FromBase64(const std::string& text) {
  QByteArray bytes = QByteArray::fromBase64(QByteArray::fromStdString(text));
  if (static_cast<std::size_t>(bytes.size()) != N)
    return HashBase<N>();
  std::array<std::uint8_t, N> raw{};
  std::copy(bytes.begin(), bytes.end(), raw.begin());
  return HashBase<N>(raw);
}

}  // namespace

HashOneDrive GraphDriveItem::ParseHash(const json_tree& node) {
  HashOneDrive hash;
  std::string quick_xor = Text(node, "file.hashes.quickXorHash");
  if (!quick_xor.empty())
    hash.quick_xor = FromBase64<20>(quick_xor);
  std::string sha1 = Text(node, "file.hashes.sha1Hash");
  if (sha1.size() == 40 && sha1.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos)
    hash.sha1 = HashBase<20>::FromHexString(sha1);
  std::string crc32 = Text(node, "file.hashes.crc32Hash");
  if (crc32.size() == 8 && crc32.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos) {
    hash.crc32 = static_cast<std::uint32_t>(std::stoul(crc32, nullptr, 16));
    hash.has_crc32 = true;
  }
  hash.etag = Text(node, "eTag");
  return hash;
}

bool GraphDriveItem::Parse(const json_tree& node, GraphDriveItem* item, std::string* error) {
  *item = GraphDriveItem();
  // 1. Identity and place.
  if (node.empty() && !node.data().empty()) {
    *error = "drive item is not an object";
    return false;
  }
  item->id = Text(node, "id");
  item->name = Text(node, "name");
  item->parentId = Text(node, "parentReference.id");
  item->hasParentPath = Has(node, "parentReference.path");
  item->parentPath = Text(node, "parentReference.path");
  item->driveId = Text(node, "parentReference.driveId");
  // 2. Kind.
  item->deleted = Has(node, "deleted");
  item->isRoot = Has(node, "root");
  item->hasRemote = IsObject(node, "remoteItem");
  if (item->hasRemote) {
    item->remoteId = Text(node, "remoteItem.id");
    item->remoteDriveId = Text(node, "remoteItem.parentReference.driveId");
  }
  item->isFolder =
      IsObject(node, "folder") || IsObject(node, "package") || IsObject(node, "remoteItem.folder");
  item->isFile = !item->isFolder && (IsObject(node, "file") || IsObject(node, "remoteItem.file"));
  item->isPublic =
      Text(node, "shared.scope") == "users" || Text(node, "shared.scope") == "anonymous";
  // 3. Size, time and hash.
  std::string size = Text(node, "size");
  if (!size.empty() && !ParseUnsigned(size, &item->size)) {
    *error = "invalid size \"" + size + "\" of item " + item->id;
    return false;
  }
  std::int64_t seconds = 0;
  std::string time = Text(node, "fileSystemInfo.lastModifiedDateTime");
  if (!time.empty() && utils::TryParseISODateTime(time, &seconds) && seconds > 0)
    item->time = static_cast<std::uint64_t>(seconds);
  item->hash = ParseHash(node);
  return true;
}
