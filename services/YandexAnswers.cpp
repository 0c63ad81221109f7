#include "services/YandexAnswers.h"

#include <charconv>

#include "core/LoggerWrapper.h"
#include "services/YandexItems.h"

namespace yandex_answers {

namespace {

std::string Text(const utils::json::json_tree& json, const char* key) {
  const auto child = utils::json::Child(json, key);
  return child ? child->data() : std::string();
}

bool ReadCount(const utils::json::json_tree& json, const char* key, std::uint64_t* value) {
  const std::string text = Text(json, key);
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, *value);
  return !text.empty() && error == std::errc() && stop == end;
}

// One "_embedded" item; a name with a "/" in it names no child.
bool AddListingItem(const utils::json::json_tree& item, RemoteFileSystem::FolderListing* listing) {
  std::string name = Text(item, "name");
  if (name.empty() || name.find('/') != std::string::npos) {
    LOG_WARNING << "Invalid item name in listing: " << name;
    return false;
  }
  const std::uint64_t time = yandex_items::ReadModified(item, "modified");
  if (Text(item, "type") == "dir") {
    listing->folders.push_back(std::move(name));
    return true;
  }
  std::uint64_t size = 0;
  if (!yandex_items::ReadFileSize(item, "size", &size)) {
    return false;
  }
  const HashYandex hash = yandex_items::ReadHash(item, "md5", "sha256");
  if (hash.IsZero()) {
    LOG_WARNING << "Invalid file hash.";
    return false;
  }
  listing->files.emplace_back(std::move(name),
                              FileSystem::FileProperties(SomeHash(hash), 0, size, time, false));
  return true;
}

}  // namespace

UploadLink ReadUploadLink(const utils::json::json_tree& json) {
  UploadLink link;
  link.href = Text(json, "upload_link.href");
  if (utils::json::Child(json, "operation_link")) {
    link.operationLink = Text(json, "operation_link");
  }
  link.usable = Text(json, "upload_link.method") == "PUT" &&
                Text(json, "upload_link.templated") == "false" && !link.href.empty() &&
                link.operationLink && !link.operationLink->empty();
  return link;
}

std::string ReadOperationLink(const utils::json::json_tree& json) {
  return Text(json, "method") == "GET" ? Text(json, "href") : std::string();
}

OperationStatus ReadOperationStatus(const utils::json::json_tree& json, std::string* text) {
  *text = Text(json, "status");
  if (*text == "success") {
    return OperationStatus::kSuccess;
  }
  if (*text == "failed") {
    return OperationStatus::kFailed;
  }
  if (*text == "in-progress") {
    return OperationStatus::kInProgress;
  }
  return OperationStatus::kUnknown;
}

bool ReadListingPage(const utils::json::json_tree& json, RemoteFileSystem::FolderListing* listing,
                     ListingPage* page) {
  // 1. Where the page stands; a page that takes nothing would never end.
  if (!ReadCount(json, "_embedded.total", &page->total) ||
      !ReadCount(json, "_embedded.limit", &page->limit) || page->limit == 0) {
    LOG_WARNING << "Invalid listing page: " << utils::json::ToString(json, false);
    return false;
  }
  // 2. Its items.
  const auto items = utils::json::Child(json, "_embedded.items");
  if (!items) {
    LOG_WARNING << "No items in response.";
    return false;
  }
  for (const auto& [key, item] : *items) {
    if (!AddListingItem(item, listing)) {
      return false;
    }
  }
  return true;
}

std::string ReadPublishedUrl(const utils::xml::xml_tree& tree) {
  const auto propstat = tree.get_child_optional("multistatus.response.propstat");
  if (!propstat) {
    utils::xml::Log(tree);
    LOG_WARNING << "No propstat.";
    return std::string();
  }
  const std::string status = propstat->get("status", std::string());
  const std::string ok = "200 OK";
  if (status.size() < ok.size() || status.compare(status.size() - ok.size(), ok.size(), ok) != 0) {
    utils::xml::Log(tree);
    LOG_WARNING << "Status not OK but: " << status;
    return std::string();
  }
  const std::string link = propstat->get("prop.public_url", std::string());
  if (link.empty()) {
    utils::xml::Log(tree);
    LOG_WARNING << "No link in response.";
  }
  return link;
}

}  // namespace yandex_answers
