#include "services/BoxItems.h"

#include <QDateTime>
#include <QString>

#include "core/LoggerWrapper.h"
#include "core/StringUtils.h"

namespace rest_api {
namespace {

// A JSON null reaches the tree as the text "null": it never is a value here.
std::string Scalar(const utils::json::json_tree& tree, const std::string& path) {
  auto child = utils::json::Child(tree, path);
  if (!child || !child->empty() || child->data() == "null")
    return std::string();
  return child->data();
}

bool IsUsableName(const std::string& name) {
  return !name.empty() && name != "." && name != ".." && name.size() <= kMaxBoxNameBytes &&
         name.find_first_of(std::string("/\0", 2)) == std::string::npos;
}

}  // namespace

bool ParseBoxNumber(const std::string& text, std::uint64_t* value) {
  if (text.empty() || text.size() > 19 || text.find_first_not_of("0123456789") != std::string::npos)
    return false;
  *value = std::stoull(text);
  return *value <= static_cast<std::uint64_t>(INT64_MAX);
}

std::uint64_t ParseBoxTime(const std::string& text) {
  const QDateTime time = QDateTime::fromString(QString::fromStdString(text), Qt::ISODate);
  const qint64 seconds = time.isValid() ? time.toSecsSinceEpoch() : 0;
  return seconds > 0 ? static_cast<std::uint64_t>(seconds) : 0;
}

bool ParseBoxItem(const utils::json::json_tree& entry, BoxItem* item, std::string* problem) {
  // 1. What the entry is.
  *item = BoxItem();
  const std::string type = Scalar(entry, "type");
  item->name = Scalar(entry, "name");
  if (type != "file" && type != "folder") {
    *problem = "Unknown item type: " + type + " for " + utils::SafePrintBinary(item->name);
    return false;
  }
  item->folder = type == "folder";
  item->id = Scalar(entry, "id");
  item->parent_id = Scalar(entry, "parent.id");
  if (item->id.empty() || item->parent_id.empty()) {
    *problem = "Item without id or parent id: " + utils::SafePrintBinary(item->name);
    return false;
  }
  if (!IsUsableName(item->name)) {
    *problem = "Unusable item name: " + utils::SafePrintBinary(item->name.substr(0, 256)) +
               " (id " + item->id + ")";
    return false;
  }
  // 2. Its state.
  item->etag = Scalar(entry, "etag");
  item->time = ParseBoxTime(Scalar(entry, "content_modified_at"));
  if (!item->folder) {
    item->sha1 = Scalar(entry, "sha1");
    // Box answers only the fields asked for, and a lookup by name asks for no size.
    const bool sized = static_cast<bool>(utils::json::Child(entry, "size"));
    if (sized && !ParseBoxNumber(Scalar(entry, "size"), &item->size)) {
      *problem = "Invalid size of file " + item->id + ": " +
                 utils::SafePrintBinary(Scalar(entry, "size").substr(0, 64));
      return false;
    }
  }
  return true;
}

bool ParseBoxItemsPage(const utils::json::json_tree& page, BoxItemsPage* out) {
  *out = BoxItemsPage();
  auto entries = page.get_child_optional("entries");
  if (!entries || !entries->data().empty()) {
    LOG_WARNING << "No entries list in folder listing response.";
    return false;
  }
  for (const auto& element : *entries) {
    ++out->entries;
    BoxItem item;
    std::string problem;
    if (ParseBoxItem(element.second, &item, &problem)) {
      out->items.push_back(std::move(item));
    } else {
      LOG_WARNING << problem;
    }
  }
  out->next_marker = Scalar(page, "next_marker");
  std::uint64_t number = 0;
  if (ParseBoxNumber(Scalar(page, "total_count"), &number))
    out->total_count = number;
  if (ParseBoxNumber(Scalar(page, "offset"), &number))
    out->offset = number;
  return true;
}

}  // namespace rest_api
