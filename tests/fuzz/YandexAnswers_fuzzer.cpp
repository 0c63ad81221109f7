// Any bytes as an answer of Yandex Disk's resources API, read as each of its kinds: an upload
// link, an operation link and status, a page of a folder listing, and (as XML) the multistatus of
// a publish. No crash, and what the readers accept holds together: a usable upload link has its
// addresses, a listing page moves on, and its files have a hash.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "core/Json.h"
#include "core/Xml.h"
#include "services/YandexAnswers.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  utils::json::json_tree json;
  if (utils::json::Parse(text, &json)) {
    const yandex_answers::UploadLink link = yandex_answers::ReadUploadLink(json);
    if (link.usable && (link.href.empty() || !link.operationLink || link.operationLink->empty())) {
      std::abort();
    }
    yandex_answers::ReadOperationLink(json);
    std::string status;
    yandex_answers::ReadOperationStatus(json, &status);
    RemoteFileSystem::FolderListing listing;
    yandex_answers::ListingPage page;
    if (yandex_answers::ReadListingPage(json, &listing, &page)) {
      if (page.limit == 0) {
        std::abort();
      }
      for (const auto& [name, props] : listing.files) {
        if (name.empty() || props.hash.IsZero()) {
          std::abort();
        }
      }
    }
  }
  utils::xml::xml_tree xml;
  if (utils::xml::Parse(text, &xml)) {
    utils::xml::RemoveNamespaces(&xml);
    yandex_answers::ReadPublishedUrl(xml);
  }
  return 0;
}
