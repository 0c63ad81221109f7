#include "emulators/OneDriveDialect.h"

#include <QByteArray>
#include <QDateTime>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <map>
#include <mutex>
#include <set>
#include <unordered_map>

namespace emulators {

namespace {

constexpr std::uint64_t kUploadGranularity = 320 * 1024;
// A user-visible text of an item, kept as its property of that name.
constexpr const char* kDescription = "description";
// Delta tokens end in an escaped character, so that a client that decodes and re-encodes the
// link instead of sending it back as it came is refused.
constexpr const char* kTokenEnd = "%21";

QString Q(const std::string& text) {
  return QString::fromStdString(text);
}

std::string DefaultErrorCode(int status) {
  static const std::map<int, const char*> kCodes = {
      {400, "invalidRequest"},       {401, "unauthenticated"},   {403, "accessDenied"},
      {404, "itemNotFound"},         {409, "nameAlreadyExists"}, {410, "resyncRequired"},
      {412, "preconditionFailed"},   {416, "invalidRange"},      {423, "resourceLocked"},
      {429, "activityLimitReached"}, {500, "generalException"},  {501, "notSupported"},
      {503, "serviceNotAvailable"},  {507, "quotaLimitReached"}, {509, "activityLimitReached"},
  };
  auto it = kCodes.find(status);
  return it == kCodes.end() ? "generalException" : it->second;
}

HttpResponse GraphError(int status, const std::string& code, const std::string& message) {
  static std::atomic<unsigned> request_counter{0};
  QJsonObject inner{{"date", Q(IsoTime(QDateTime::currentMSecsSinceEpoch()))},
                    {"request-id", QString("0e5f7a3c-0000-4000-8000-%1")
                                       .arg(request_counter.fetch_add(1) + 1, 12, 10, QChar('0'))},
                    {"client-request-id", "00000000-0000-0000-0000-000000000000"}};
  QJsonObject error{{"code", Q(code.empty() ? DefaultErrorCode(status) : code)},
                    {"message", Q(message.empty() ? "The request failed." : message)},
                    {"innerError", inner}};
  return JsonResponse(status, QJsonObject{{"error", error}});
}

HttpResponse ErrorOf(AccountError error) {
  switch (error) {
    case AccountError::kNotFound:
    case AccountError::kSessionMissing:
      return GraphError(404, "itemNotFound", "The resource could not be found.");
    case AccountError::kNameTaken:
      return GraphError(409, "nameAlreadyExists", "The specified item name already exists.");
    case AccountError::kInvalidName:
    case AccountError::kNotAFolder:
    case AccountError::kNotAFile:
    case AccountError::kCycle:
      return GraphError(400, "invalidRequest", "The request is malformed or incorrect.");
    case AccountError::kNoSpace:
      return GraphError(507, "quotaLimitReached", "Insufficient space.");
    case AccountError::kBadOffset:
    case AccountError::kSizeMismatch:
      return GraphError(416, "invalidRange", "The range is not satisfiable.");
    case AccountError::kNone:
      break;
  }
  return GraphError(500, "generalException", "");
}

std::string ETagOf(const Item& item) {
  return "\"{" + item.id + "}," + std::to_string(item.revision) + "\"";
}

// An "if-match" that names another version of the item.
bool IsStaleMatch(const std::string& match, const Item& item) {
  return !match.empty() && match != ETagOf(item);
}

HttpResponse PreconditionFailed() {
  return GraphError(412, "preconditionFailed", "The eTag does not match.");
}

std::string UpperHex(std::string hex) {
  std::transform(hex.begin(), hex.end(), hex.begin(), ::toupper);
  return hex;
}

std::vector<std::string> SplitSelect(const std::string& select) {
  std::vector<std::string> keys;
  std::size_t start = 0;
  while (start <= select.size()) {
    std::size_t comma = select.find(',', start);
    if (comma == std::string::npos)
      comma = select.size();
    if (comma > start)
      keys.push_back(select.substr(start, comma - start));
    start = comma + 1;
  }
  return keys;
}

QJsonObject Select(const QJsonObject& object, const std::vector<std::string>& keys) {
  if (keys.empty())
    return object;
  QJsonObject selected;
  for (const std::string& key : keys) {
    auto it = object.find(Q(key));
    if (it != object.end())
      selected.insert(it.key(), it.value());
  }
  return selected;
}

int CountParam(const std::string& query, const std::string& key) {
  int count = 0;
  ForEachQueryPair(query, [&](const std::string& pair) {
    if (PercentDecode(pair.substr(0, pair.find('='))) == key)
      ++count;
    return true;
  });
  return count;
}

// The raw value of a query parameter, escapes left as they came.
std::string RawParam(const std::string& query, const std::string& key) {
  std::string value;
  ForEachQueryPair(query, [&](const std::string& pair) {
    if (pair.compare(0, key.size() + 1, key + "=") != 0)
      return true;
    value = pair.substr(key.size() + 1);
    return false;
  });
  return value;
}

QJsonObject ParseBody(const std::string& body) {
  return QJsonDocument::fromJson(QByteArray::fromStdString(body)).object();
}

std::int64_t ParseIsoMs(const QString& text) {
  QDateTime time = QDateTime::fromString(text, Qt::ISODateWithMs);
  return time.isValid() ? time.toMSecsSinceEpoch() : 0;
}

// "bytes 0-327679/1000000" into its three numbers.
bool ParseContentRange(const std::string& text, std::uint64_t* first, std::uint64_t* last,
                       std::uint64_t* total) {
  if (text.compare(0, 6, "bytes ") != 0)
    return false;
  char* end = nullptr;
  const char* cursor = text.c_str() + 6;
  *first = std::strtoull(cursor, &end, 10);
  if (end == cursor || *end != '-')
    return false;
  cursor = end + 1;
  *last = std::strtoull(cursor, &end, 10);
  if (end == cursor || *end != '/')
    return false;
  cursor = end + 1;
  *total = std::strtoull(cursor, &end, 10);
  return end != cursor && *end == '\0' && *first <= *last && *last < *total;
}

// Where a request points: an item (by id or path), or a child name below a parent, and what
// follows the address ("/children", "/content", ...).
struct Address {
  std::string drive_id;
  std::string item_id;    // empty: the drive itself, or a child that does not exist yet
  std::string parent_id;  // with child_name: ":/name:" addressing
  std::string child_name;
  std::string suffix;
  bool valid = true;
};

}  // namespace

class OneDriveDialect::GraphService {
 public:
  GraphService(Router& router, OneDriveOptions options) : router_(router), options_(options) {}

  HttpResponse Graph(const HttpRequest& request);
  HttpResponse Download(const HttpRequest& request);
  HttpResponse UploadPiece(const HttpRequest& request);
  HttpResponse UploadStatus(const HttpRequest& request);
  HttpResponse UploadCancel(const HttpRequest& request);

 private:
  CloudAccount& account() { return router_.account(); }
  // Downloads are served from another host name, as the service's are, so that a client's
  // credentials don't follow the redirect.
  std::string DownloadHost() const {
    std::string base = router_.BaseUrl();
    std::size_t host = base.find("127.0.0.1");
    return host == std::string::npos ? base : base.replace(host, 9, "localhost");
  }
  Address Parse(const std::string& path) const;
  HttpResponse Dispatch(const HttpRequest& request, const Address& address);

  // Items as Graph shapes them.
  std::string SharedFolderOf(const Item& item) const;
  QJsonObject ItemJson(const Item& item, bool with_path);
  // The item as an operation left it, or the operation's error.
  HttpResponse ItemAnswer(AccountError error, int status, const Item& item);
  QJsonObject LinkJson(const Item& folder);
  // An item asked for by its address or listed among children: a folder with its size.
  QJsonObject AddressedJson(const Item& item);
  QJsonObject DeletedJson(const Item& item, const std::string& drive_id);
  std::uint64_t SubtreeSize(const std::string& folder_id) const;
  std::string DriveOf(const Item& item) const;

  // The calls.
  HttpResponse DriveResource(const HttpRequest& request);
  HttpResponse GetItem(const HttpRequest& request, const Item& item);
  HttpResponse Children(const HttpRequest& request, const Item& folder);
  HttpResponse Delta(const HttpRequest& request, const Address& address);
  HttpResponse Snapshot(const HttpRequest& request, const std::string& scope, std::uint64_t seq,
                        std::size_t offset);
  HttpResponse Changes(const HttpRequest& request, const std::string& scope, std::uint64_t seq);
  // Shared, not copied: a page of 200 must not cost a copy of the whole listing.
  std::shared_ptr<const std::vector<Item>> ScopeItems(const std::string& scope, std::uint64_t seq);
  bool InScope(const Item& item, const std::string& scope) const;
  HttpResponse DeltaPage(const HttpRequest& request, const std::string& scope, QJsonArray value,
                         const std::string& token, bool last);
  HttpResponse SharedWithMe(const HttpRequest& request);
  HttpResponse Recent();
  HttpResponse ContentRedirect(const Item& item);
  HttpResponse SimpleUpload(const HttpRequest& request, const Address& address);
  HttpResponse CreateSession(const HttpRequest& request, const Address& address);
  HttpResponse CreateFolder(const HttpRequest& request, const Item& parent);
  HttpResponse Update(const HttpRequest& request, const Item& item);
  HttpResponse Remove(const HttpRequest& request, const Item& item);
  HttpResponse Permissions(const Item& item);
  HttpResponse RemovePermission(const Item& item, const std::string& permission_id);
  QJsonObject SessionStatus(const UploadState& state) const;

  Router& router_;
  const OneDriveOptions options_;
  std::mutex mutex_;
  // The listing of a snapshot, kept while its pages are read.
  std::map<std::pair<std::string, std::uint64_t>, std::shared_ptr<std::vector<Item>>> snapshots_;
};

Address OneDriveDialect::GraphService::Parse(const std::string& raw) const {
  Address address;
  std::string rest = raw.substr(std::string("/v1.0").size());
  if (rest.compare(0, 9, "/me/drive") == 0) {
    address.drive_id = kDriveId;
    rest = rest.substr(9);
  } else if (rest.compare(0, 8, "/drives/") == 0) {
    std::size_t slash = rest.find('/', 8);
    address.drive_id = rest.substr(8, slash == std::string::npos ? slash : slash - 8);
    rest = slash == std::string::npos ? std::string() : rest.substr(slash);
  } else {
    address.valid = false;
    return address;
  }
  if (rest.compare(0, 6, "/root:") == 0) {
    std::string after = rest.substr(6);
    std::size_t colon = after.find(':');
    std::string path = PercentDecode(after.substr(0, colon));
    address.suffix = colon == std::string::npos ? std::string() : after.substr(colon + 1);
    while (!path.empty() && path.front() == '/')
      path.erase(0, 1);
    while (!path.empty() && path.back() == '/')
      path.pop_back();
    if (std::optional<Item> item = router_.account().FindByPath(path)) {
      address.item_id = item->id;
    } else {
      std::size_t slash = path.rfind('/');
      std::string parent_path = slash == std::string::npos ? std::string() : path.substr(0, slash);
      std::optional<Item> parent = router_.account().FindByPath(parent_path);
      address.parent_id = parent ? parent->id : std::string();
      address.child_name = slash == std::string::npos ? path : path.substr(slash + 1);
    }
    return address;
  }
  if (rest.compare(0, 5, "/root") == 0) {
    address.item_id = router_.account().RootId();
    address.suffix = rest.substr(5);
    return address;
  }
  if (rest.compare(0, 7, "/items/") == 0) {
    std::size_t end = rest.find_first_of("/:", 7);
    std::string id = PercentDecode(rest.substr(7, end == std::string::npos ? end : end - 7));
    if (id.compare(0, 2, kLinkPrefix) == 0)
      id = id.substr(2);
    std::string tail = end == std::string::npos ? std::string() : rest.substr(end);
    if (tail.compare(0, 2, ":/") == 0) {
      std::size_t colon = tail.find(':', 2);
      address.parent_id = id;
      address.child_name =
          PercentDecode(tail.substr(2, colon == std::string::npos ? colon : colon - 2));
      address.suffix = colon == std::string::npos ? std::string() : tail.substr(colon + 1);
      if (std::optional<Item> child = router_.account().ChildByName(id, address.child_name))
        address.item_id = child->id;
    } else {
      address.item_id = id;
      address.suffix = tail;
    }
    return address;
  }
  address.suffix = rest;
  return address;
}

HttpResponse OneDriveDialect::GraphService::Graph(const HttpRequest& request) {
  if (CountParam(request.query, "$select") > 1) {
    return GraphError(400, "invalidRequest",
                      "Query option '$select' was specified more than once.");
  }
  Address address = Parse(request.path);
  if (!address.valid)
    return GraphError(400, "invalidRequest", "Invalid request.");
  return Dispatch(request, address);
}

HttpResponse OneDriveDialect::GraphService::Dispatch(const HttpRequest& request,
                                                     const Address& address) {
  const std::string& verb = request.verb;
  const std::string& suffix = address.suffix;
  // 1. Calls on the drive.
  if (address.item_id.empty() && address.child_name.empty()) {
    if (verb == "GET" && suffix.empty())
      return DriveResource(request);
    if (verb == "GET" && suffix == "/sharedWithMe")
      return SharedWithMe(request);
    if (verb == "GET" && suffix == "/recent")
      return Recent();
    return GraphError(400, "invalidRequest", "Unsupported request.");
  }
  // 2. Calls that make what they address.
  if (address.item_id.empty() || suffix == "/createUploadSession") {
    if (verb == "PUT" && suffix == "/content")
      return SimpleUpload(request, address);
    if (verb == "POST" && suffix == "/createUploadSession")
      return CreateSession(request, address);
    return GraphError(404, "itemNotFound", "The resource could not be found.");
  }
  std::optional<Item> item = account().Find(address.item_id);
  if (!item || account().IsInTrash(item->id))
    return GraphError(404, "itemNotFound", "The resource could not be found.");
  // 3. Calls on an item.
  if (verb == "GET" && suffix.empty())
    return GetItem(request, *item);
  if (verb == "GET" && suffix == "/children")
    return Children(request, *item);
  if (verb == "GET" && suffix == "/delta")
    return Delta(request, address);
  if (verb == "GET" && suffix == "/content")
    return ContentRedirect(*item);
  if (verb == "PUT" && suffix == "/content")
    return SimpleUpload(request, address);
  if (verb == "POST" && suffix == "/children")
    return CreateFolder(request, *item);
  if (verb == "PATCH" && suffix.empty())
    return Update(request, *item);
  if (verb == "DELETE" && suffix.empty())
    return Remove(request, *item);
  if (verb == "GET" && suffix == "/permissions")
    return Permissions(*item);
  if (verb == "DELETE" && suffix.compare(0, 13, "/permissions/") == 0)
    return RemovePermission(*item, PercentDecode(suffix.substr(13)));
  return GraphError(400, "invalidRequest", "Unsupported request.");
}

// --- items -----------------------------------------------------------------------------------

std::string OneDriveDialect::GraphService::SharedFolderOf(const Item& item) const {
  std::string parent = item.parents.empty() ? std::string() : item.parents.front();
  while (!parent.empty()) {
    std::optional<Item> folder = router_.account().Find(parent);
    if (!folder)
      return std::string();
    if (folder->shared_with_me && folder->IsFolder())
      return folder->id;
    parent = folder->parents.empty() ? std::string() : folder->parents.front();
  }
  return std::string();
}

std::string OneDriveDialect::GraphService::DriveOf(const Item& item) const {
  return SharedFolderOf(item).empty() ? kDriveId : kSharedDriveId;
}

std::uint64_t OneDriveDialect::GraphService::SubtreeSize(const std::string& folder_id) const {
  std::uint64_t size = 0;
  for (const Item& child : router_.account().Children(folder_id))
    size += child.IsFolder() ? SubtreeSize(child.id) : child.size;
  return size;
}

HttpResponse OneDriveDialect::GraphService::ItemAnswer(AccountError error, int status,
                                                       const Item& item) {
  if (error != AccountError::kNone)
    return ErrorOf(error);
  return JsonResponse(status, ItemJson(item, true));
}

QJsonObject OneDriveDialect::GraphService::ItemJson(const Item& item, bool with_path) {
  if (item.shared_with_me && item.IsFolder() && SharedFolderOf(item).empty())
    return LinkJson(item);
  const bool is_root = item.id == account().RootId();
  const std::string drive_id = DriveOf(item);
  QJsonObject parent{{"driveId", Q(drive_id)},
                     {"driveType", Q(drive_id == kDriveId ? options_.drive_type : "personal")}};
  if (!is_root) {
    parent.insert("id", Q(item.parents.empty() ? std::string() : item.parents.front()));
    if (with_path) {
      std::string parent_path =
          item.parents.empty() ? std::string() : account().PathOf(item.parents.front());
      parent.insert("path", Q("/drive/root:" + (parent_path.empty() ? "" : "/" + parent_path)));
    }
  }
  QJsonObject times{{"createdDateTime", Q(IsoTime(item.created_ms))},
                    {"lastModifiedDateTime", Q(IsoTime(item.modified_ms))}};
  QJsonObject json{{"id", Q(item.id)},
                   {"name", Q(is_root ? "root" : item.name)},
                   {"eTag", Q(ETagOf(item))},
                   {"cTag", Q("\"c:{" + item.id + "}," + std::to_string(item.revision) + "\"")},
                   {"size", static_cast<double>(item.IsFolder() ? 0 : item.size)},
                   {"createdDateTime", Q(IsoTime(item.created_ms))},
                   {"lastModifiedDateTime", Q(IsoTime(item.modified_ms))},
                   {"fileSystemInfo", times},
                   {"parentReference", parent}};
  if (item.IsFolder()) {
    json.insert("folder", QJsonObject{{"childCount",
                                       static_cast<double>(account().Children(item.id).size())}});
  } else {
    QJsonObject hashes;
    if (!options_.sha1_only && !item.digests.quickxor.empty())
      hashes.insert("quickXorHash", Q(item.digests.quickxor));
    if ((options_.sha1_only || options_.drive_type == "personal") && !item.digests.sha1.empty())
      hashes.insert("sha1Hash", Q(UpperHex(item.digests.sha1)));
    json.insert("file", QJsonObject{{"mimeType", "application/octet-stream"}, {"hashes", hashes}});
  }
  if (is_root)
    json.insert("root", QJsonObject());
  if (!item.public_link.empty())
    json.insert("shared", QJsonObject{{"scope", "anonymous"}});
  auto description = item.properties.find(kDescription);
  if (description != item.properties.end())
    json.insert(kDescription, Q(description->second));
  return json;
}

QJsonObject OneDriveDialect::GraphService::LinkJson(const Item& folder) {
  QJsonObject remote{
      {"id", Q(folder.id)},
      {"name", Q(folder.name)},
      {"size", static_cast<double>(SubtreeSize(folder.id))},
      {"folder",
       QJsonObject{{"childCount", static_cast<double>(account().Children(folder.id).size())}}},
      {"parentReference", QJsonObject{{"driveId", kSharedDriveId}, {"driveType", "personal"}}}};
  QJsonObject parent{{"driveId", kDriveId},
                     {"driveType", Q(options_.drive_type)},
                     {"id", Q(folder.parents.empty() ? std::string() : folder.parents.front())}};
  return QJsonObject{
      {"id", Q(kLinkPrefix + folder.id)},
      {"name", Q(folder.name)},
      {"eTag", Q(ETagOf(folder))},
      {"size", static_cast<double>(SubtreeSize(folder.id))},
      {"fileSystemInfo", QJsonObject{{"lastModifiedDateTime", Q(IsoTime(folder.modified_ms))}}},
      {"parentReference", parent},
      {"remoteItem", remote}};
}

// A removed item as the delta reports it: no facet, and no name on a business drive.
QJsonObject OneDriveDialect::GraphService::DeletedJson(const Item& item,
                                                       const std::string& drive_id) {
  QJsonObject parent{{"driveId", Q(drive_id)},
                     {"id", Q(item.parents.empty() ? std::string() : item.parents.front())}};
  QJsonObject json{{"id", Q(item.shared_with_me && item.IsFolder() && drive_id == kDriveId
                                ? kLinkPrefix + item.id
                                : item.id)},
                   {"deleted", QJsonObject{{"state", "deleted"}}},
                   {"parentReference", parent}};
  if (options_.drive_type == "personal")
    json.insert("name", Q(item.name));
  return json;
}

HttpResponse OneDriveDialect::GraphService::DriveResource(const HttpRequest& request) {
  std::uint64_t shared = 0;
  for (const Item& item : account().AllItems()) {
    if (item.shared_with_me && item.IsFolder())
      shared += SubtreeSize(item.id);
  }
  const std::uint64_t total = account().TotalSpace();
  const std::uint64_t used = account().UsedSpace() - std::min(shared, account().UsedSpace());
  QJsonObject quota{{"total", static_cast<double>(total)},
                    {"used", static_cast<double>(used)},
                    {"remaining", static_cast<double>(total > used ? total - used : 0)},
                    {"deleted", 0},
                    {"state", used >= total ? "exceeded" : "normal"}};
  QJsonObject drive{{"id", kDriveId},
                    {"driveType", Q(options_.drive_type)},
                    {"owner", QJsonObject{{"user", QJsonObject{{"displayName", "Emulated User"}}}}},
                    {"quota", quota}};
  return JsonResponse(200, Select(drive, SplitSelect(QueryParam(request.query, "$select"))));
}

QJsonObject OneDriveDialect::GraphService::AddressedJson(const Item& item) {
  QJsonObject json = ItemJson(item, true);
  if (item.IsFolder())
    json.insert("size", static_cast<double>(SubtreeSize(item.id)));
  return json;
}

HttpResponse OneDriveDialect::GraphService::GetItem(const HttpRequest& request, const Item& item) {
  return JsonResponse(
      200, Select(AddressedJson(item), SplitSelect(QueryParam(request.query, "$select"))));
}

HttpResponse OneDriveDialect::GraphService::Children(const HttpRequest& request,
                                                     const Item& folder) {
  // 1. One page of the children, from where the skip token says.
  std::vector<std::string> keys = SplitSelect(QueryParam(request.query, "$select"));
  const std::size_t skip =
      std::strtoull(QueryParam(request.query, "$skiptoken").c_str(), nullptr, 10);
  std::size_t total = 0;
  QJsonArray value;
  for (const Item& child : account().Children(folder.id, false, skip, options_.page_size, &total))
    value.append(Select(AddressedJson(child), keys));
  QJsonObject page{{"value", value}};
  // 2. The link to the next, with the query options it was asked with.
  if (skip + options_.page_size < total) {
    std::string link = router_.BaseUrl() + request.path + "?";
    if (HasQueryParam(request.query, "$select"))
      link += "$select=" + RawParam(request.query, "$select") + "&";
    page.insert("@odata.nextLink",
                Q(link + "$skiptoken=" + std::to_string(skip + options_.page_size)));
  }
  return JsonResponse(200, page);
}

// --- delta -----------------------------------------------------------------------------------

bool OneDriveDialect::GraphService::InScope(const Item& item, const std::string& scope) const {
  if (scope.empty())
    return SharedFolderOf(item).empty();
  return item.id == scope || SharedFolderOf(item) == scope;
}

std::shared_ptr<const std::vector<Item>> OneDriveDialect::GraphService::ScopeItems(
    const std::string& scope, std::uint64_t seq) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto key = std::make_pair(scope, seq);
  auto it = snapshots_.find(key);
  if (it == snapshots_.end()) {
    auto items = std::make_shared<std::vector<Item>>();
    for (Item& item : account().AllItems()) {
      if (!account().IsInTrash(item.id) &&
          (!item.parents.empty() || item.id == account().RootId() || item.id == scope) &&
          InScope(item, scope)) {
        items->push_back(std::move(item));
      }
    }
    snapshots_.clear();
    it = snapshots_.emplace(key, items).first;
  }
  return it->second;
}

HttpResponse OneDriveDialect::GraphService::Delta(const HttpRequest& request,
                                                  const Address& address) {
  // 1. Whose delta: the own drive from its root, or a folder of the second drive.
  std::string scope;
  if (address.item_id != account().RootId()) {
    std::optional<Item> folder = account().Find(address.item_id);
    if (!folder || !folder->shared_with_me || address.drive_id != kSharedDriveId)
      return GraphError(400, "invalidRequest",
                        "Delta is only supported on the root or a shared folder.");
    scope = folder->id;
  }
  // 2. The token, as this emulator wrote it.
  std::string token = RawParam(request.query, "token");
  if (token.empty())
    return Snapshot(request, scope, account().Sequence(), 0);
  const std::string end = kTokenEnd;
  if (token.size() < end.size() + 2 ||
      token.compare(token.size() - end.size(), end.size(), end) != 0)
    return GraphError(400, "invalidRequest", "The delta token is malformed.");
  token.resize(token.size() - end.size());
  char* rest = nullptr;
  std::uint64_t seq = std::strtoull(token.c_str() + 1, &rest, 10);
  if (token[0] == 'S' && *rest == '.')
    return Snapshot(request, scope, seq, std::strtoull(rest + 1, nullptr, 10));
  if (token[0] == 'D' && *rest == '\0')
    return Changes(request, scope, seq);
  return GraphError(400, "invalidRequest", "The delta token is malformed.");
}

HttpResponse OneDriveDialect::GraphService::Snapshot(const HttpRequest& request,
                                                     const std::string& scope, std::uint64_t seq,
                                                     std::size_t offset) {
  std::size_t top = options_.page_size;
  if (HasQueryParam(request.query, "$top"))
    top = std::max<std::size_t>(
        1, std::strtoull(QueryParam(request.query, "$top").c_str(), nullptr, 10));
  std::shared_ptr<const std::vector<Item>> items = ScopeItems(scope, seq);
  QJsonArray value;
  for (std::size_t i = offset; i < items->size() && i < offset + top; ++i)
    value.append(ItemJson((*items)[i], false));
  bool last = offset + top >= items->size();
  std::string token = last ? "D" + std::to_string(seq)
                           : "S" + std::to_string(seq) + "." + std::to_string(offset + top);
  return DeltaPage(request, scope, value, token, last);
}

HttpResponse OneDriveDialect::GraphService::Changes(const HttpRequest& request,
                                                    const std::string& scope, std::uint64_t seq) {
  // 1. A token the journal no longer reaches starts over.
  if (seq < account().ForgottenUpTo() || seq > account().Sequence()) {
    HttpResponse gone =
        GraphError(410, "resyncRequired",
                   "Resync required. Replace any local items with the server's version.");
    std::string restart = scope.empty() ? "/v1.0/me/drive/root/delta"
                                        : "/v1.0/drives/" + std::string(kSharedDriveId) +
                                              "/items/" + scope + "/delta";
    gone.headers.emplace_back("Location", router_.BaseUrl() + restart);
    return gone;
  }
  // 2. One page of the journal; each item once, in its present state.
  std::vector<JournalEntry> entries = account().ChangesSince(seq, options_.page_size);
  const bool last = entries.size() < options_.page_size;
  std::uint64_t next = entries.empty() ? seq : entries.back().sequence;
  QJsonArray value;
  std::set<std::string> seen;
  auto emit = [&](const Item& state, bool gone) {
    if (!seen.insert(state.id).second)
      return;
    if (gone) {
      value.append(DeletedJson(state, scope.empty() ? kDriveId : kSharedDriveId));
    } else {
      value.append(ItemJson(state, false));
    }
  };
  for (const JournalEntry& entry : entries) {
    std::optional<Item> now = account().Find(entry.item.id);
    const Item& state = now ? *now : entry.item;
    bool gone = !now || account().IsInTrash(state.id);
    if (!InScope(state, scope) && !(gone && scope.empty() && SharedFolderOf(entry.item).empty()))
      continue;
    if (gone && state.IsFolder()) {
      // What lay below a removed folder goes with it, deepest first.
      std::vector<Item> below;
      std::vector<std::string> folders{state.id};
      for (std::size_t i = 0; i < folders.size(); ++i) {
        for (const Item& child : account().Children(folders[i], true)) {
          below.push_back(child);
          if (child.IsFolder())
            folders.push_back(child.id);
        }
      }
      for (auto it = below.rbegin(); it != below.rend(); ++it)
        emit(*it, true);
    }
    emit(state, gone);
  }
  return DeltaPage(request, scope, value, "D" + std::to_string(next), last);
}

HttpResponse OneDriveDialect::GraphService::DeltaPage(const HttpRequest& request,
                                                      const std::string& scope, QJsonArray value,
                                                      const std::string& token, bool last) {
  std::vector<std::string> keys = SplitSelect(QueryParam(request.query, "$select"));
  for (auto it = value.begin(); it != value.end(); ++it)
    *it = Select(it->toObject(), keys);
  // Links keep the query options they were asked with, as OData's next links do.
  std::string link = router_.BaseUrl() +
                     (scope.empty() ? std::string("/v1.0/me/drive/root/delta")
                                    : "/v1.0/drives/" + std::string(kSharedDriveId) + "/items/" +
                                          scope + "/delta") +
                     "?";
  if (HasQueryParam(request.query, "$select"))
    link += "$select=" + RawParam(request.query, "$select") + "&";
  link += "token=" + token + kTokenEnd;
  QJsonObject page{{"value", value}};
  page.insert(last ? "@odata.deltaLink" : "@odata.nextLink", Q(link));
  return JsonResponse(200, page);
}

HttpResponse OneDriveDialect::GraphService::SharedWithMe(const HttpRequest& request) {
  QJsonArray value;
  for (const Item& item : account().AllItems()) {
    if (item.shared_with_me && !account().IsInTrash(item.id)) {
      QJsonObject link = item.IsFolder() ? LinkJson(item) : ItemJson(item, false);
      value.append(Select(link, SplitSelect(QueryParam(request.query, "$select"))));
    }
  }
  return JsonResponse(200, QJsonObject{{"value", value}});
}

HttpResponse OneDriveDialect::GraphService::Recent() {
  std::vector<Item> files;
  for (const Item& item : account().AllItems()) {
    if (!item.IsFolder() && !account().IsInTrash(item.id))
      files.push_back(item);
  }
  std::stable_sort(files.begin(), files.end(),
                   [](const Item& a, const Item& b) { return a.modified_ms > b.modified_ms; });
  QJsonArray value;
  for (const Item& file : files)
    value.append(ItemJson(file, true));
  return JsonResponse(200, QJsonObject{{"value", value}});
}

// --- content ---------------------------------------------------------------------------------

HttpResponse OneDriveDialect::GraphService::ContentRedirect(const Item& item) {
  if (item.IsFolder())
    return GraphError(400, "invalidRequest", "A folder has no content.");
  HttpResponse redirect = HttpResponse::Status(302);
  redirect.headers = {{"Location", DownloadHost() + "/_download/" + item.id +
                                       "?r=" + std::to_string(item.revision)}};
  return redirect;
}

HttpResponse OneDriveDialect::GraphService::Download(const HttpRequest& request) {
  // The download URL is pre-authenticated: a bearer token on it is refused, as the service does.
  if (request.HasHeader("Authorization"))
    return GraphError(401, "unauthenticated", "The download URL takes no Authorization header.");
  std::string id = PercentDecode(request.path.substr(std::string("/_download/").size()));
  std::optional<Item> item = account().Find(id);
  if (!item || account().IsInTrash(id))
    return GraphError(404, "itemNotFound", "The resource could not be found.");
  HttpResponse response = ContentResponse(*item, request.Header("Range"));
  response.headers.emplace_back("ETag", ETagOf(*item));
  return response;
}

HttpResponse OneDriveDialect::GraphService::SimpleUpload(const HttpRequest& request,
                                                         const Address& address) {
  Item out;
  AccountError error;
  std::int64_t now = QDateTime::currentMSecsSinceEpoch();
  if (!address.item_id.empty()) {
    std::optional<Item> existing = account().Find(address.item_id);
    if (existing && IsStaleMatch(request.Header("if-match"), *existing))
      return PreconditionFailed();
    error = account().ReplaceContent(address.item_id, request.body, now, &out);
  } else {
    if (address.parent_id.empty())
      return GraphError(404, "itemNotFound", "The parent could not be found.");
    error = account().CreateFile(address.parent_id, address.child_name, request.body, now, &out);
  }
  return ItemAnswer(error, address.item_id.empty() ? 201 : 200, out);
}

HttpResponse OneDriveDialect::GraphService::CreateSession(const HttpRequest& request,
                                                          const Address& address) {
  // Graph's form nests the item's properties in "item"; the flat form is taken as well.
  QJsonObject body = ParseBody(request.body);
  QJsonObject item = body.value("item").isObject() ? body.value("item").toObject() : body;
  std::string behavior =
      item.value("@microsoft.graph.conflictBehavior").toString("replace").toStdString();
  UploadSpec spec;
  spec.granularity = kUploadGranularity;
  if (!address.item_id.empty()) {
    std::optional<Item> existing = account().Find(address.item_id);
    std::string match = request.Header("if-match");
    if (!existing || existing->IsFolder())
      return GraphError(409, "nameAlreadyExists", "A folder holds the name.");
    if (IsStaleMatch(match, *existing))
      return PreconditionFailed();
    if (behavior == "fail" && match.empty())
      return GraphError(409, "nameAlreadyExists", "The specified item name already exists.");
    spec.target_id = existing->id;
  } else {
    if (address.parent_id.empty())
      return GraphError(404, "itemNotFound", "The parent could not be found.");
    spec.parent_id = address.parent_id;
    spec.name = address.child_name;
  }
  std::string session = account().OpenUpload(spec);
  std::optional<UploadState> state = account().FindUpload(session);
  QJsonObject answer = SessionStatus(*state);
  answer.insert("uploadUrl", Q(router_.BaseUrl() + "/_upload/" + session));
  return JsonResponse(200, answer);
}

QJsonObject OneDriveDialect::GraphService::SessionStatus(const UploadState& state) const {
  return QJsonObject{{"expirationDateTime", Q(IsoTime(state.expires_ms))},
                     {"nextExpectedRanges", QJsonArray{Q(std::to_string(state.persisted) + "-")}}};
}

HttpResponse OneDriveDialect::GraphService::UploadPiece(const HttpRequest& request) {
  if (request.HasHeader("Authorization"))
    return GraphError(401, "unauthenticated", "The upload URL takes no Authorization header.");
  std::string session = request.path.substr(std::string("/_upload/").size());
  std::optional<UploadState> state = account().FindUpload(session);
  if (!state)
    return GraphError(404, "itemNotFound", "The upload session was not found.");
  // 1. The piece's place, which the session keeps in multiples of 320 KiB but for the last.
  std::uint64_t first = 0, last = 0, total = 0;
  if (!ParseContentRange(request.Header("Content-Range"), &first, &last, &total) ||
      last - first + 1 != request.body_size)
    return GraphError(400, "invalidRequest", "Content-Range is missing or does not fit the body.");
  if (last + 1 != total && request.body_size % kUploadGranularity != 0)
    return GraphError(400, "invalidRequest", "Fragments must be multiples of 320 KiB.");
  if (first != state->persisted) {
    HttpResponse refused = GraphError(416, "invalidRange", "The fragment overlaps or skips.");
    return refused;
  }
  // 2. The bytes, and the file once all are in.
  std::uint64_t persisted = 0;
  AccountError error = account().AppendUpload(session, first, request.body, &persisted);
  if (error != AccountError::kNone)
    return ErrorOf(error);
  if (persisted < total) {
    state = account().FindUpload(session);
    return JsonResponse(202, SessionStatus(*state));
  }
  Item out;
  bool replacing = !state->spec.target_id.empty();
  error = account().CommitUpload(session, &out);
  return ItemAnswer(error, replacing ? 200 : 201, out);
}

HttpResponse OneDriveDialect::GraphService::UploadStatus(const HttpRequest& request) {
  std::optional<UploadState> state =
      account().FindUpload(request.path.substr(std::string("/_upload/").size()));
  if (!state)
    return GraphError(404, "itemNotFound", "The upload session was not found.");
  return JsonResponse(200, SessionStatus(*state));
}

HttpResponse OneDriveDialect::GraphService::UploadCancel(const HttpRequest& request) {
  account().DropUpload(request.path.substr(std::string("/_upload/").size()));
  return HttpResponse::Status(204);
}

// --- item operations -------------------------------------------------------------------------

HttpResponse OneDriveDialect::GraphService::CreateFolder(const HttpRequest& request,
                                                         const Item& parent) {
  QJsonObject body = ParseBody(request.body);
  std::string name = body.value("name").toString().toStdString();
  if (!body.value("folder").isObject() || name.empty())
    return GraphError(400, "invalidRequest", "A folder needs a name and the folder facet.");
  std::string behavior =
      body.value("@microsoft.graph.conflictBehavior").toString("fail").toStdString();
  std::optional<Item> existing = account().ChildByName(parent.id, name, true);
  if (existing && behavior == "fail")
    return GraphError(409, "nameAlreadyExists", "The specified item name already exists.");
  if (existing && behavior == "replace")
    account().Delete(existing->id);
  Item out;
  AccountError error = account().CreateFolder(parent.id, name, &out);
  return ItemAnswer(error, 201, out);
}

HttpResponse OneDriveDialect::GraphService::Update(const HttpRequest& request, const Item& item) {
  if (IsStaleMatch(request.Header("if-match"), item))
    return PreconditionFailed();
  QJsonObject body = ParseBody(request.body);
  Item out = item;
  AccountError error = AccountError::kNone;
  // 1. Place and name.
  std::string name = body.value("name").toString().toStdString();
  std::string parent_id =
      body.value("parentReference").toObject().value("id").toString().toStdString();
  if (!parent_id.empty() && (item.parents.empty() || parent_id != item.parents.front())) {
    std::optional<Item> taken =
        account().ChildByName(parent_id, name.empty() ? item.name : name, true);
    if (taken && taken->id != item.id)
      account().Delete(taken->id);
    error = account().Move(item.id, {parent_id}, name, &out);
  } else if (!name.empty() && name != item.name) {
    std::optional<Item> taken = account().ChildByName(item.parents.front(), name, true);
    if (taken && taken->id != item.id)
      account().Delete(taken->id);
    error = account().Rename(item.id, name, &out);
  }
  // 2. The one free text an item carries.
  if (error == AccountError::kNone && body.value(kDescription).isString()) {
    error = account().SetProperty(item.id, kDescription,
                                  body.value(kDescription).toString().toStdString(), &out);
  }
  // 3. Times.
  QString modified =
      body.value("fileSystemInfo").toObject().value("lastModifiedDateTime").toString();
  if (error == AccountError::kNone && !modified.isEmpty())
    error = account().SetModified(item.id, ParseIsoMs(modified), &out);
  return ItemAnswer(error, 200, out);
}

HttpResponse OneDriveDialect::GraphService::Remove(const HttpRequest& request, const Item& item) {
  if (IsStaleMatch(request.Header("if-match"), item))
    return PreconditionFailed();
  AccountError error = account().Delete(item.id);
  if (error != AccountError::kNone)
    return ErrorOf(error);
  return HttpResponse::Status(204);
}

HttpResponse OneDriveDialect::GraphService::Permissions(const Item& item) {
  QJsonArray value;
  auto link = [](const std::string& url) {
    return QJsonObject{{"type", "view"}, {"scope", "anonymous"}, {"webUrl", Q(url)}};
  };
  if (!item.public_link.empty()) {
    value.append(QJsonObject{{"id", Q("link-" + item.id)},
                             {"roles", QJsonArray{"read"}},
                             {"link", link(item.public_link)}});
  }
  std::string parent = item.parents.empty() ? std::string() : item.parents.front();
  while (!parent.empty()) {
    std::optional<Item> folder = account().Find(parent);
    if (!folder)
      break;
    if (!folder->public_link.empty()) {
      value.append(QJsonObject{{"id", Q("link-" + folder->id)},
                               {"roles", QJsonArray{"read"}},
                               {"link", link(folder->public_link)},
                               {"inheritedFrom", QJsonObject{{"id", Q(folder->id)}}}});
    }
    parent = folder->parents.empty() ? std::string() : folder->parents.front();
  }
  return JsonResponse(200, QJsonObject{{"value", value}});
}

HttpResponse OneDriveDialect::GraphService::RemovePermission(const Item& item,
                                                             const std::string& permission_id) {
  if (item.public_link.empty() || permission_id != "link-" + item.id)
    return GraphError(404, "itemNotFound", "The permission could not be found.");
  Item out;
  AccountError error = account().SetPublicLink(item.id, std::string(), &out);
  return error == AccountError::kNone ? HttpResponse::Status(204) : ErrorOf(error);
}

// --- the dialect -----------------------------------------------------------------------------

OneDriveDialect::OneDriveDialect(OneDriveOptions options) : options_(std::move(options)) {}

OneDriveDialect::~OneDriveDialect() = default;

HttpResponse OneDriveDialect::Error(int status, const std::string& code) const {
  return GraphError(status, code, std::string());
}

std::unique_ptr<CloudAccount> OneDriveDialect::MakeAccount() const {
  auto account = std::make_unique<CloudAccount>(kRootId);
  account->SetIdMaker(
      [](std::uint64_t n, ItemKind) { return "B1E5D7C93A6F0042!" + std::to_string(1000 + n); });
  return account;
}

void OneDriveDialect::Install(Router& router) {
  service_ = std::make_shared<GraphService>(router, options_);
  std::shared_ptr<GraphService> service = service_;
  RouteOptions graph;
  graph.match = Match::kPrefix;
  router.Handle(
      "*", "/v1.0/", [service](const HttpRequest& request) { return service->Graph(request); },
      graph);
  RouteOptions open;
  open.match = Match::kPrefix;
  open.needs_auth = false;
  router.Handle(
      "GET", "/_download/",
      [service](const HttpRequest& request) { return service->Download(request); }, open);
  router.Handle(
      "PUT", "/_upload/",
      [service](const HttpRequest& request) { return service->UploadPiece(request); }, open);
  router.Handle(
      "GET", "/_upload/",
      [service](const HttpRequest& request) { return service->UploadStatus(request); }, open);
  router.Handle(
      "DELETE", "/_upload/",
      [service](const HttpRequest& request) { return service->UploadCancel(request); }, open);
}

std::unique_ptr<Dialect> MakeOneDriveDialect() {
  return std::make_unique<OneDriveDialect>();
}

std::unique_ptr<Dialect> MakeOneDriveDialect(const OneDriveOptions& options) {
  return std::make_unique<OneDriveDialect>(options);
}

}  // namespace emulators
