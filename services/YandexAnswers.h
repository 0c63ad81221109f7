// YandexAnswers: the JSON and XML answers of Yandex Disk's resource calls that the adapter acts
// on: the upload link, the link of an asynchronous operation and its status, a page of a folder's
// "_embedded" items, and the multistatus of a WebDAV publish. Each reader logs what it refuses and
// never throws.
//
//   yandex_answers::UploadLink link = yandex_answers::ReadUploadLink(json);
//   if (!link.usable) ...                      // "No upload link in response." is the caller's
//
//   yandex_answers::ListingPage page;
//   if (!yandex_answers::ReadListingPage(json, &listing, &page)) ...
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "core/Json.h"
#include "core/RemoteFileSystem.h"
#include "core/Xml.h"

namespace yandex_answers {

// The answer to a request for an upload link.
struct UploadLink {
  std::string href;
  std::optional<std::string> operationLink;
  // A plain PUT to a fixed address, whose operation can be followed.
  bool usable = false;
};
UploadLink ReadUploadLink(const utils::json::json_tree& json);

// The link of an asynchronous operation: "href" with the "method" GET. Empty when the answer is
// no such link.
std::string ReadOperationLink(const utils::json::json_tree& json);

enum class OperationStatus { kSuccess, kFailed, kInProgress, kUnknown };
// "status" of an operation; `*text` gets the value as it came.
OperationStatus ReadOperationStatus(const utils::json::json_tree& json, std::string* text);

// Where a folder's listing stands after one page.
struct ListingPage {
  std::uint64_t total = 0;
  std::uint64_t limit = 0;  // what the server took as the page's size
};
// The items of one "_embedded" page appended to `*listing`. False (logged) when the page is not
// one, or an item's size or hash is invalid.
bool ReadListingPage(const utils::json::json_tree& json, RemoteFileSystem::FolderListing* listing,
                     ListingPage* page);

// The link a WebDAV PROPPATCH of "public_url" reported, from its multistatus (namespaces
// removed). Empty, with the reason logged, when the answer holds none.
std::string ReadPublishedUrl(const utils::xml::xml_tree& tree);

}  // namespace yandex_answers
