#include "services/DavListingParser.h"

#include <algorithm>
#include <cstring>
#include <optional>
#include <string_view>
#include <utility>

#include "core/Clock.h"
#include "core/LoggerWrapper.h"
#include "core/Nodes.h"
#include "core/PercentEncoding.h"
#include "core/RadarsLogger.h"
#include "core/RemoteNameMapper.h"
#include "services/DavXmlStream.h"

namespace auxil {

namespace {

bool EndsWith(const std::string& text, const std::string& tail) {
  return text.size() >= tail.size() &&
         text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

// The decoded, normalized path of a URL or href, the form in which the listed folder is found.
std::string DecodedDavPath(const std::string& url) {
  std::string path = PathOfUrl(url);
  NormalizeDavPath(&path);
  return utils::PercentDecoded(path);
}

// Whether one normalized path ends with the other, whole segments only: both begin with "/" and
// only "/" itself ends with one.
bool TailsAgree(const std::string& a, const std::string& b) {
  return EndsWith(a, b) || EndsWith(b, a);
}

// Whether an element's local name is `literal`; a compare of known length, for the dozen names
// of every entry.
template <std::size_t N>
bool Is(std::string_view name, const char (&literal)[N]) {
  return name.size() == N - 1 && std::memcmp(name.data(), literal, N - 1) == 0;
}

// Where an entry stands against the listed folder.
enum class Place { kSelf, kChild, kOutside };

// The path of a URL as PathOfUrl finds it, without a copy.
std::string_view PathViewOfUrl(std::string_view url) {
  if (url.empty() || url.find("://") == std::string_view::npos) {
    return url;
  }
  std::size_t slash = url.find('/');
  for (;;) {
    if (slash == 0 || url[slash - 1] != ':') {
      return url.substr(slash);
    }
    // The slashes of the scheme: the path begins at the first slash after the authority.
    const std::size_t from = slash + 2;
    slash = from < url.size() ? url.find('/', from) : std::string_view::npos;
    if (slash == std::string_view::npos) {
      return std::string_view();
    }
  }
}

// What comes before the last segment of an href's path, as it came. Whether an entry is in the
// listed folder depends on nothing else, so that entries sharing it share the answer. Nullopt
// for a path without a segment.
std::optional<std::string_view> RawParentOf(std::string_view href) {
  const std::string_view path = PathViewOfUrl(href);
  const std::size_t last = path.find_last_not_of('/');
  if (last == std::string_view::npos) {
    return std::nullopt;
  }
  const std::size_t slash = path.rfind('/', last);
  return path.substr(0, slash == std::string_view::npos ? 0 : slash);
}

// One parse: the reader, the fields of the current `response` and what the listing is about.
class PropfindParser {
 public:
  PropfindParser(InputStream* input, ParseFolderListener& listener, const std::string& requestUrl,
                 RemoteNameMapper* nameMapper)
      : stream_(input),
        listener_(listener),
        requestUrl_(requestUrl),
        requestedPath_(DecodedDavPath(requestUrl)),
        parseTime_(static_cast<std::uint64_t>(utils::GetClock().NowMs() / 1000)),
        nameMapper_(nameMapper) {}

  bool Run();

 private:
  void OnStartElement();
  void ReadStatus();
  bool FinishResponse();
  Place PlaceOf(const std::string& href);
  bool FinishFolder(std::string&& name);
  bool FinishFile(std::string&& name);
  bool FailOnEmptyName();

  DavXmlStream stream_;
  ParseFolderListener& listener_;
  const std::string& requestUrl_;
  const std::string requestedPath_;
  const std::uint64_t parseTime_;
  RemoteNameMapper* nameMapper_;
  DavResponseFields fields_;
  bool selfSeen_ = false;
  // The raw parent of the last child found: the next entries nearly always share it.
  std::optional<std::string> childParent_;
};

bool PropfindParser::Run() {
  while (stream_.ReadNext()) {
    if (stream_.Kind() == DavXmlStream::kEndElement && Is(stream_.LocalName(), "response")) {
      if (!FinishResponse()) {
        return false;
      }
    } else if (stream_.Kind() == DavXmlStream::kStartElement) {
      OnStartElement();
    }
  }
  switch (stream_.GetState()) {
    case DavXmlStream::kGood:
      return true;
    case DavXmlStream::kMalformed:
      LOG_ERROR << "Malformed xml received while parsing propstat response for " << requestUrl_
                << ".";
      RadarsLogger::instance().SendMetric("failed_parse_webdav_listing", "1", 1);
      return false;
    case DavXmlStream::kStreamFailed:
      return false;
  }
  return false;
}

void PropfindParser::OnStartElement() {
  const std::string_view name = stream_.LocalName();
  if (Is(name, "response")) {
    fields_.Clear();
  } else if (Is(name, "collection")) {
    fields_.isCollection = true;
  } else if (Is(name, "href")) {
    fields_.href.clear();
    stream_.ReadElementText(&fields_.href);
  } else if (Is(name, "sha256")) {
    fields_.sha256.clear();
    stream_.ReadElementText(&fields_.sha256);
  } else if (Is(name, "getetag")) {
    fields_.etag.clear();
    stream_.ReadElementText(&fields_.etag);
  } else if (Is(name, "getcontentlength")) {
    std::uint64_t length = 0;
    if (stream_.ReadIntegerElement(&length)) {
      fields_.contentLength = length;
    }
  } else if (Is(name, "getlastmodified")) {
    std::uint64_t modified = 0;
    if (stream_.ReadDateElement(&modified)) {
      fields_.lastModified = modified;
    }
  } else if (Is(name, "status")) {
    ReadStatus();
  }
}

// A `response` is good once any of its status lines is: a server answers a property it hasn't
// with a second `propstat` of 404 beside the good one.
void PropfindParser::ReadStatus() {
  std::string status;
  if (stream_.ReadElementText(&status) && (EndsWith(status, "OK") || EndsWith(status, "200"))) {
    fields_.statusOk = true;
  }
}

bool PropfindParser::FinishResponse() {
  if (!fields_.statusOk) {
    stream_.DumpXmlPosition();
    LOG_ERROR << "Non successful http status in: " << fields_.href;
    return false;
  }
  // 1. The listed folder itself, once; an entry anywhere else than directly in it is none of
  //    its children, whatever its last segment says.
  switch (PlaceOf(fields_.href)) {
    case Place::kSelf:
      if (selfSeen_) {
        LOG_WARNING << "The listed folder is listed again: " << fields_.href;
      }
      selfSeen_ = true;
      return true;
    case Place::kOutside:
      LOG_WARNING << "Skipping an entry outside the listed folder: " << fields_.href;
      return true;
    case Place::kChild:
      break;
  }
  // 2. A child, under its local name.
  std::string name = ItemNameFromHref(fields_.href);
  nameMapper_->UnmapNameToLocal(&name);
  return fields_.isCollection ? FinishFolder(std::move(name)) : FinishFile(std::move(name));
}

Place PropfindParser::PlaceOf(const std::string& href) {
  const std::optional<std::string_view> rawParent = RawParentOf(href);
  if (rawParent && childParent_ && *rawParent == *childParent_) {
    return Place::kChild;
  }
  // Paths are compared by their tails: a proxy may answer with a longer path than was asked for,
  // or a shorter one. The parent is cut before decoding, so that an encoded "/" inside a name
  // stays in the name.
  std::string path = PathOfUrl(href);
  NormalizeDavPath(&path);
  if (path != "/") {
    const std::string parent = path.substr(0, std::max<std::size_t>(path.rfind('/'), 1));
    if (TailsAgree(utils::PercentDecoded(parent), requestedPath_)) {
      childParent_ = std::string(*rawParent);
      return Place::kChild;
    }
  }
  return fields_.isCollection && TailsAgree(utils::PercentDecoded(path), requestedPath_)
             ? Place::kSelf
             : Place::kOutside;
}

bool PropfindParser::FinishFolder(std::string&& name) {
  if (name.empty()) {
    return FailOnEmptyName();
  }
  if (!listener_.AddFolder(std::move(name))) {
    stream_.DumpXmlPosition();
    LOG_ERROR << "Failed to add folder.";
    return false;
  }
  return true;
}

bool PropfindParser::FinishFile(std::string&& name) {
  // The etag and the sha256 make the one opaque value that versions are compared by.
  if (!fields_.sha256.empty()) {
    fields_.etag.append("_").append(fields_.sha256);
  }
  if (!fields_.contentLength) {
    stream_.DumpXmlPosition();
    LOG_ERROR << "No content length for element \"" << name << "\".";
    return false;
  }
  if (name.empty()) {
    return FailOnEmptyName();
  }
  const std::uint64_t modified = fields_.lastModified.value_or(parseTime_);
  if (!listener_.AddFile(std::move(name), *fields_.contentLength, modified, fields_.etag)) {
    LOG_ERROR << "Failed to add file.";
    stream_.DumpXmlPosition();
    return false;
  }
  return true;
}

bool PropfindParser::FailOnEmptyName() {
  stream_.DumpXmlPosition();
  LOG_ERROR << "Failed to get item name from href: " << fields_.href;
  return false;
}

}  // namespace

bool ParsePropfindResponse(InputStream* input, ParseFolderListener& listener,
                           const std::string& requestUrl, RemoteNameMapper* nameMapper) {
  return PropfindParser(input, listener, requestUrl, nameMapper).Run();
}

std::string PathOfUrl(const std::string& url) {
  return std::string(PathViewOfUrl(url));
}

void NormalizeDavPath(std::string* path) {
  std::string normalized;
  normalized.reserve(path->size() + 1);
  normalized.push_back('/');
  for (const char c : *path) {
    if (c != '/' || normalized.back() != '/') {
      normalized.push_back(c);
    }
  }
  if (normalized.size() > 1 && normalized.back() == '/') {
    normalized.pop_back();
  }
  *path = std::move(normalized);
}

std::string ItemNameFromHref(const std::string& href) {
  const std::size_t end = href.find_last_not_of('/');
  if (end == std::string::npos) {
    return std::string();
  }
  const std::size_t slash = href.rfind('/', end);
  const std::size_t begin = slash == std::string::npos ? 0 : slash + 1;
  std::string name = utils::PercentDecoded(std::string_view(href).substr(begin, end + 1 - begin));
  return FolderNode::IsValidName(name) ? name : std::string();
}

}  // namespace auxil
