// The parser of PROPFIND listings (DAV multistatus answers). It reads the body while it arrives
// and hands each finished `response` element to a listener, so that a folder of a million
// entries costs one buffer and the fields of one element.
//
//   auxil::ParseFolderToFolderNode listener(folder, makeHash);
//   if (processor->GetResponseCode() == 207 &&
//       !auxil::ParsePropfindResponse(processor->GetInputStream(), listener,
//                                     processor->GetUrl(), nameMapper)) { ... }
//
// Several threads may parse at once, each with its own stream and listener.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "core/InputStream.h"
#include "services/ParseFolderListener.h"

class RemoteNameMapper;

namespace auxil {

// What the parser keeps of the `response` element it is in.
struct DavResponseFields {
  // Keeps the strings' storage, which the next entry of a large listing fills again.
  void Clear() {
    isCollection = false;
    statusOk = false;
    etag.clear();
    sha256.clear();
    href.clear();
    contentLength.reset();
    lastModified.reset();
  }

  bool isCollection = false;
  bool statusOk = false;
  std::string etag;
  std::string sha256;
  std::string href;
  std::optional<std::uint64_t> contentLength;
  std::optional<std::uint64_t> lastModified;  // seconds since 1970
};

// Parses the body of a 207 answer to a Depth 1 PROPFIND of `requestUrl`. The listed folder itself
// is recognised by its path and skipped; every other entry reaches `listener` under its local name
// (`nameMapper`'s UnmapNameToLocal). False on malformed XML, a failed stream, an entry without a
// good status, a name or a size, and when the listener refuses an entry; what the listener took
// before stays with it.
bool ParsePropfindResponse(InputStream* input, ParseFolderListener& listener,
                           const std::string& requestUrl, RemoteNameMapper* nameMapper);

// The path of a URL, scheme and authority removed; a text without a scheme is returned as it is.
std::string PathOfUrl(const std::string& url);

// Makes `path` absolute with single slashes and no trailing slash ("/" stays).
void NormalizeDavPath(std::string* path);

// The last segment of an href (a URL or an absolute path), percent-decoded. Empty when there is
// none, or when the segment can't be the name of an item: "." and "..", and a name that holds
// "/" or a zero byte once decoded.
std::string ItemNameFromHref(const std::string& href);

}  // namespace auxil
