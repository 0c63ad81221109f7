#include "emulators/YandexRestApi.h"

#include <QDateTime>
#include <QJsonArray>
#include <QJsonDocument>
#include <QStringList>
#include <QUrl>

#include <cstdlib>

#include "emulators/WebDavSurface.h"
#include "emulators/YandexSnapshot.h"

namespace emulators {

namespace {

constexpr const char* kApi = "/v1/disk";
constexpr std::size_t kKeptSnapshots = 4;
constexpr const char* kDownloadPath = "/yadisk-download/";
constexpr const char* kUploadPath = "/yadisk-upload/";
constexpr const char* kOperations = "/v1/disk/operations";

QString Q(const std::string& text) {
  return QString::fromStdString(text);
}

std::string DiskPath(const std::string& path) {
  return "disk:/" + path;
}

std::string YandexTime(std::int64_t ms) {
  return QDateTime::fromMSecsSinceEpoch(ms, Qt::UTC)
      .toString("yyyy-MM-ddTHH:mm:ss+00:00")
      .toStdString();
}

bool IsTrue(const std::string& value) {
  return value == "true" || value == "1";
}

// A decimal number of the whole text; false for anything else.
bool ParseNumber(const std::string& text, std::uint64_t* value) {
  if (text.empty() || text.size() > 19 || text.find_first_not_of("0123456789") != std::string::npos)
    return false;
  *value = std::strtoull(text.c_str(), nullptr, 10);
  return true;
}

using FieldPaths = std::vector<QStringList>;

// What of `value` the dotted names ask for: "items.path" keeps "path" in each object of "items".
QJsonValue Keep(const QJsonValue& value, const FieldPaths& paths) {
  if (value.isArray()) {
    QJsonArray kept;
    for (const QJsonValue& element : value.toArray())
      kept.append(Keep(element, paths));
    return kept;
  }
  if (!value.isObject())
    return value;
  QJsonObject object = value.toObject();
  QJsonObject kept;
  for (auto it = object.begin(); it != object.end(); ++it) {
    FieldPaths below;
    bool whole = false;
    for (const QStringList& path : paths) {
      if (path.front() == it.key()) {
        whole = whole || path.size() == 1;
        below.push_back(path.mid(1));
      }
    }
    if (whole)
      kept.insert(it.key(), it.value());
    else if (!below.empty())
      kept.insert(it.key(), Keep(it.value(), below));
  }
  return kept;
}

// A good JSON answer cut to the request's "fields", as Yandex does; all of it without them.
HttpResponse KeepFields(HttpResponse response, const std::string& fields) {
  QJsonDocument document = QJsonDocument::fromJson(QByteArray::fromStdString(response.body));
  if (fields.empty() || response.status >= 300 || !document.isObject())
    return response;
  FieldPaths paths;
  for (const QString& field :
       QString::fromStdString(fields).split(QLatin1Char(','), Qt::SkipEmptyParts))
    paths.push_back(field.trimmed().split('.'));
  response.body = QJsonDocument(Keep(document.object(), paths).toObject())
                      .toJson(QJsonDocument::Compact)
                      .toStdString();
  return response;
}

}  // namespace

std::string YandexPublicLink(const Item& item) {
  return "https://yadi.sk/d/" + item.id;
}

std::uint64_t YandexTrashSize(const CloudAccount& account) {
  std::uint64_t size = 0;
  for (const Item& item : account.AllItems()) {
    if (!item.IsFolder() && account.IsInTrash(item.id))
      size += item.size;
  }
  return size;
}

bool YandexAccountPath(const std::string& value, std::string* path) {
  return CleanPath(value.compare(0, 5, "disk:") == 0 ? value.substr(5) : value, path);
}

YandexRestApi::YandexRestApi(const Dialect& dialect, const YandexOptions& options, Router& router)
    : dialect_(dialect),
      options_(options),
      router_(router),
      unhashed_answers_(options.unhashed_answers) {}

void YandexRestApi::Install() {
  auto route = [this](const char* verb, const std::string& path,
                      HttpResponse (YandexRestApi::*handler)(const HttpRequest&),
                      RouteOptions options = RouteOptions()) {
    router_.Handle(
        verb, path,
        [this, handler](const HttpRequest& request) {
          return KeepFields((this->*handler)(request), QueryParam(request.query, "fields"));
        },
        std::move(options));
  };
  const std::string resources = std::string(kApi) + "/resources";
  route("GET", kApi, &YandexRestApi::Disk);
  route("GET", resources, &YandexRestApi::GetResource);
  route("PUT", resources, &YandexRestApi::CreateFolder);
  route("DELETE", resources, &YandexRestApi::Delete);
  route("POST", resources + "/move", &YandexRestApi::Move);
  route("PUT", resources + "/publish", &YandexRestApi::Publish);
  route("PUT", resources + "/unpublish", &YandexRestApi::Unpublish);
  route("GET", resources + "/download", &YandexRestApi::DownloadLink);
  // Yandex documents a GET; a PUT may carry the content's digests.
  route("GET", resources + "/upload", &YandexRestApi::UploadLinkRequest);
  route("PUT", resources + "/upload", &YandexRestApi::UploadLinkRequest);
  route("GET", resources + "/snapshot", &YandexRestApi::Snapshot);
  route("GET", resources + "/deltas", &YandexRestApi::Deltas);
  // An operation is named by "?id=" in the links given out, and by path as well.
  route("GET", kOperations, &YandexRestApi::OperationStatus);
  RouteOptions prefixed;
  prefixed.match = Match::kPrefix;
  route("GET", std::string(kOperations) + "/", &YandexRestApi::OperationStatus, prefixed);
  // The links are pre-authorized, as Yandex's are.
  prefixed.needs_auth = false;
  route("GET", kDownloadPath, &YandexRestApi::Download, prefixed);
  prefixed.mode = BodyMode::kStoreBounded;
  route("PUT", kUploadPath, &YandexRestApi::Upload, prefixed);
}

bool YandexRestApi::FindItem(const HttpRequest& request, const char* param, Item* item,
                             std::string* path, HttpResponse* refusal) const {
  if (!HasQueryParam(request.query, param) ||
      !YandexAccountPath(QueryParam(request.query, param), path)) {
    *refusal = dialect_.Error(400, "FieldValidationError");
    return false;
  }
  std::optional<Item> found = router_.account().FindByPath(*path);
  if (!found) {
    *refusal = dialect_.Error(404, "DiskNotFoundError");
    return false;
  }
  *item = *found;
  return true;
}

bool YandexRestApi::PlanNew(const HttpRequest& request, const char* param, std::string* parent_id,
                            std::string* name, std::optional<Item>* existing,
                            HttpResponse* refusal) const {
  std::string path;
  if (!YandexAccountPath(QueryParam(request.query, param), &path) || path.empty()) {
    *refusal = dialect_.Error(400, "FieldValidationError");
    return false;
  }
  std::optional<Item> parent = router_.account().FindByPath(ParentPath(path));
  if (!parent || !parent->IsFolder()) {
    *refusal = dialect_.Error(409, "DiskPathDoesntExistsError");
    return false;
  }
  *parent_id = parent->id;
  *name = LeafName(path);
  *existing = router_.account().ChildByName(parent->id, *name);
  return true;
}

QJsonObject YandexRestApi::Resource(const Item& item, const std::string& path) const {
  QJsonObject resource{
      {"path", Q(DiskPath(path))},
      {"name", Q(path.empty() ? "disk" : item.name)},
      {"type", item.IsFolder() ? "dir" : "file"},
      {"created", Q(YandexTime(item.created_ms))},
      {"modified", Q(YandexTime(item.modified_ms))},
      {"resource_id", Q(item.id)},
      {"revision", static_cast<double>(YandexDialect::kRevisionBase + item.revision)}};
  if (!item.IsFolder()) {
    resource.insert("size", static_cast<double>(item.size));
    resource.insert("md5", Q(item.digests.md5));
    resource.insert("sha256", Q(item.digests.sha256));
    resource.insert("mime_type", "application/octet-stream");
  }
  if (!item.public_link.empty()) {
    resource.insert("public_url", Q(item.public_link));
    resource.insert("public_key", Q(item.id));
  }
  return resource;
}

QJsonObject YandexRestApi::Link(const std::string& href, const char* method) const {
  return QJsonObject{{"href", Q(href)}, {"method", method}, {"templated", false}};
}

HttpResponse YandexRestApi::ResourceLink(int status, const std::string& path) const {
  QString query = QUrl::toPercentEncoding(Q(DiskPath(path)));
  return JsonResponse(status,
                      Link(router_.BaseUrl() + kApi + "/resources?path=" + query.toStdString()));
}

std::string YandexRestApi::NewOperation(Operation operation) {
  std::lock_guard<std::mutex> lock(mutex_);
  std::string id = "op" + std::to_string(++made_);
  operations_[id] = std::move(operation);
  return id;
}

std::string YandexRestApi::OperationUrl(const std::string& id) const {
  return router_.BaseUrl() + kOperations + "?id=" + id;
}

HttpResponse YandexRestApi::Accepted(const std::string& status) {
  Operation operation;
  operation.polls_left = options_.operation_polls;
  operation.status = status;
  std::string id = NewOperation(operation);
  return JsonResponse(202, Link(OperationUrl(id)));
}

bool YandexRestApi::IsLarge(const Item& item) const {
  if (!item.IsFolder())
    return false;
  std::size_t count = 0;
  WalkTree(router_.account(), item, std::string(),
           [&count](const Item&, const std::string&) { ++count; });
  return count > options_.async_items;
}

HttpResponse YandexRestApi::Disk(const HttpRequest&) {
  const CloudAccount& account = router_.account();
  std::uint64_t trash = YandexTrashSize(account);
  return JsonResponse(
      200, QJsonObject{{"total_space", static_cast<double>(account.TotalSpace())},
                       {"used_space", static_cast<double>(account.UsedSpace())},
                       {"trash_size", static_cast<double>(trash)},
                       {"max_file_size", static_cast<double>(options_.max_file_size)},
                       {"is_paid", false},
                       {"revision",
                        static_cast<double>(YandexDialect::kRevisionBase + account.Sequence())}});
}

HttpResponse YandexRestApi::GetResource(const HttpRequest& request) {
  // 1. The item.
  Item item;
  std::string path;
  HttpResponse refusal;
  if (!FindItem(request, "path", &item, &path, &refusal))
    return refusal;
  QJsonObject resource = Resource(item, path);
  if (!item.IsFolder())
    return JsonResponse(200, resource);
  // 2. A folder's page of children, "limit" capped by the server.
  std::uint64_t limit = 20, offset = 0;
  if ((HasQueryParam(request.query, "limit") &&
       !ParseNumber(QueryParam(request.query, "limit"), &limit)) ||
      (HasQueryParam(request.query, "offset") &&
       !ParseNumber(QueryParam(request.query, "offset"), &offset))) {
    return dialect_.Error(400, "FieldValidationError");
  }
  limit = std::min<std::uint64_t>(limit, options_.listing_limit);
  std::size_t total = 0;
  QJsonArray items;
  for (const Item& child : router_.account().Children(item.id, false, offset, limit, &total)) {
    items.append(Resource(child, path.empty() ? child.name : path + "/" + child.name));
  }
  resource.insert("_embedded", QJsonObject{{"items", items},
                                           {"limit", static_cast<double>(limit)},
                                           {"offset", static_cast<double>(offset)},
                                           {"total", static_cast<double>(total)},
                                           {"path", Q(DiskPath(path))},
                                           {"sort", ""}});
  return JsonResponse(200, resource);
}

HttpResponse YandexRestApi::CreateFolder(const HttpRequest& request) {
  std::string parent_id, name;
  std::optional<Item> existing;
  HttpResponse refusal;
  if (!PlanNew(request, "path", &parent_id, &name, &existing, &refusal))
    return refusal;
  if (existing) {
    return dialect_.Error(409, existing->IsFolder() ? "DiskPathPointsToExistentDirectoryError"
                                                    : "DiskResourceAlreadyExistsError");
  }
  Item folder;
  if (router_.account().CreateFolder(parent_id, name, &folder) != AccountError::kNone)
    return dialect_.Error(409, "DiskResourceAlreadyExistsError");
  return ResourceLink(201, router_.account().PathOf(folder.id));
}

HttpResponse YandexRestApi::Delete(const HttpRequest& request) {
  // 1. The item, and the content it must still have.
  Item item;
  std::string path;
  HttpResponse refusal;
  if (!FindItem(request, "path", &item, &path, &refusal))
    return refusal;
  if (path.empty())
    return dialect_.Error(403, "ForbiddenError");
  std::string md5 =
      request.HasHeader("If-Match") ? request.Header("If-Match") : QueryParam(request.query, "md5");
  if (!md5.empty() && !item.IsFolder() && md5 != item.digests.md5)
    return dialect_.Error(409, "DiskResourceModifiedError");
  // 2. To the trash, or for good.
  bool large = IsLarge(item);
  CloudAccount& account = router_.account();
  if (IsTrue(QueryParam(request.query, "permanently")))
    account.Delete(item.id);
  else
    account.Trash(item.id, nullptr);
  return large ? Accepted() : HttpResponse::Status(204);
}

HttpResponse YandexRestApi::Move(const HttpRequest& request) {
  // 1. The item and its new place.
  Item item;
  std::string from, parent_id, name;
  std::optional<Item> existing;
  HttpResponse refusal;
  if (!FindItem(request, "from", &item, &from, &refusal) ||
      !PlanNew(request, "path", &parent_id, &name, &existing, &refusal)) {
    return refusal;
  }
  if (from.empty())
    return dialect_.Error(403, "ForbiddenError");
  // 2. What stands there goes only when asked.
  CloudAccount& account = router_.account();
  if (existing && existing->id != item.id) {
    if (!IsTrue(QueryParam(request.query, "overwrite")))
      return dialect_.Error(409, "DiskResourceAlreadyExistsError");
    account.Trash(existing->id, nullptr);
  }
  // 3. The move.
  bool large = IsLarge(item);
  Item moved;
  AccountError error = account.Move(item.id, {parent_id}, name, &moved);
  if (error == AccountError::kCycle)
    return dialect_.Error(409, "DiskMoveToItselfError");
  if (error != AccountError::kNone)
    return dialect_.Error(409, "DiskResourceAlreadyExistsError");
  return large ? Accepted() : ResourceLink(201, account.PathOf(moved.id));
}

HttpResponse YandexRestApi::Publish(const HttpRequest& request) {
  Item item;
  std::string path;
  HttpResponse refusal;
  if (!FindItem(request, "path", &item, &path, &refusal))
    return refusal;
  if (item.public_link.empty())
    router_.account().SetPublicLink(item.id, YandexPublicLink(item), nullptr);
  return ResourceLink(200, path);
}

HttpResponse YandexRestApi::Unpublish(const HttpRequest& request) {
  Item item;
  std::string path;
  HttpResponse refusal;
  if (!FindItem(request, "path", &item, &path, &refusal))
    return refusal;
  router_.account().SetPublicLink(item.id, std::string(), nullptr);
  return ResourceLink(200, path);
}

HttpResponse YandexRestApi::DownloadLink(const HttpRequest& request) {
  Item item;
  std::string path;
  HttpResponse refusal;
  if (!FindItem(request, "path", &item, &path, &refusal))
    return refusal;
  if (item.IsFolder())
    return dialect_.Error(400, "FieldValidationError");
  return JsonResponse(200, Link(router_.BaseUrl() + kDownloadPath + item.id));
}

HttpResponse YandexRestApi::Download(const HttpRequest& request) {
  std::optional<Item> item =
      router_.account().Find(DecodePath(request.path.substr(std::string(kDownloadPath).size())));
  if (!item || item->IsFolder() || router_.account().IsInTrash(item->id))
    return dialect_.Error(404, "DiskNotFoundError");
  HttpResponse response = ContentResponse(*item, request.Header("Range"));
  if (response.status == 200 || response.status == 206)
    response.headers.emplace_back("ETag", item->digests.md5);
  return response;
}

HttpResponse YandexRestApi::UploadLinkRequest(const HttpRequest& request) {
  // 1. The place, which takes a file only over one with "overwrite".
  std::string parent_id, name;
  std::optional<Item> existing;
  HttpResponse refusal;
  if (!PlanNew(request, "path", &parent_id, &name, &existing, &refusal))
    return refusal;
  bool overwrite = IsTrue(QueryParam(request.query, "overwrite"));
  if (existing && existing->IsFolder())
    return dialect_.Error(409, "DiskPathPointsToExistentDirectoryError");
  if (existing && !overwrite)
    return dialect_.Error(409, "DiskResourceAlreadyExistsError");
  // 2. The announced size must fit.
  std::uint64_t size = 0;
  bool sized = ParseNumber(QueryParam(request.query, "size"), &size);
  const CloudAccount& account = router_.account();
  if (sized && size > options_.max_file_size)
    return dialect_.Error(413, "FileTooBigError");
  std::uint64_t freed = existing ? existing->size : 0;
  if (sized && account.UsedSpace() - freed + size > account.TotalSpace())
    return dialect_.Error(507, "DiskInsufficientStorageError");
  // 3. Content the disk holds already is taken at once, when the request names its digests.
  std::string md5 = QueryParam(request.query, "md5");
  std::string sha256 = QueryParam(request.query, "sha256");
  std::optional<Item> known;
  if (request.verb == "PUT" && sized && !md5.empty() && !sha256.empty())
    known = FindKnownContent(account, md5, sha256, size);
  if (known &&
      PutKnownContent(router_.account(), parent_id, name, existing, *known) == AccountError::kNone)
    return ResourceLink(
        201, account.PathOf(parent_id).empty() ? name : account.PathOf(parent_id) + "/" + name);
  // 4. A link for the bytes, and the operation that ends when they came.
  Operation waiting;
  waiting.waiting = true;
  std::string operation = NewOperation(waiting);
  std::string id;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    id = "u" + std::to_string(++made_);
    uploads_[id] = UploadLink{parent_id, name, overwrite, operation};
  }
  QJsonObject link = Link(router_.BaseUrl() + kUploadPath + id, "PUT");
  std::string operation_url = OperationUrl(operation);
  QJsonObject answer = link;
  answer.insert("operation_id", Q(operation));
  answer.insert("upload_link", link);
  answer.insert("operation_link", Q(operation_url));
  return JsonResponse(200, answer);
}

HttpResponse YandexRestApi::Upload(const HttpRequest& request) {
  // 1. The link.
  UploadLink link;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto found = uploads_.find(request.path.substr(std::string(kUploadPath).size()));
    if (found == uploads_.end())
      return dialect_.Error(404, "DiskUploadTargetNotFoundError");
    link = found->second;
    uploads_.erase(found);
  }
  // 2. The file, unless the place was taken meanwhile.
  CloudAccount& account = router_.account();
  std::optional<Item> existing = account.ChildByName(link.parent_id, link.name);
  AccountError error = AccountError::kNameTaken;
  if (!existing || (!existing->IsFolder() && link.overwrite))
    error = PutUploadedBytes(account, request, link.parent_id, link.name, existing);
  // 3. The operation ends with it.
  bool accepted = options_.upload_accepted && error == AccountError::kNone;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    Operation& operation = operations_[link.operation];
    operation.waiting = false;
    operation.polls_left = accepted ? options_.operation_polls : 0;
    operation.status = error == AccountError::kNone ? "success" : "failed";
  }
  if (error == AccountError::kNoSpace)
    return HttpResponse::Status(507);
  if (error != AccountError::kNone)
    return HttpResponse::Status(409);
  if (accepted)
    return JsonResponse(202, Link(OperationUrl(link.operation)));
  return HttpResponse::Status(201);
}

HttpResponse YandexRestApi::OperationStatus(const HttpRequest& request) {
  std::string id = request.path == kOperations
                       ? QueryParam(request.query, "id")
                       : request.path.substr(std::string(kOperations).size() + 1);
  std::lock_guard<std::mutex> lock(mutex_);
  auto found = operations_.find(id);
  if (found == operations_.end())
    return dialect_.Error(404, "DiskNotFoundError");
  Operation& operation = found->second;
  std::string status = operation.status;
  if (operation.waiting || operation.polls_left > 0) {
    status = "in-progress";
    if (!operation.waiting)
      --operation.polls_left;
  }
  return JsonResponse(200, QJsonObject{{"status", Q(status)}});
}

HttpResponse YandexRestApi::Snapshot(const HttpRequest& request) {
  // 1. A new snapshot is taken whole; a key names its next page.
  const CloudAccount& account = router_.account();
  std::string key = QueryParam(request.query, "iteration_key");
  std::uint64_t id = 0, offset = 0;
  std::lock_guard<std::mutex> lock(mutex_);
  if (key.empty()) {
    std::vector<QJsonObject> items;
    std::uint64_t revision = YandexDialect::kRevisionBase + account.Sequence();
    WalkTree(
        account, *account.Find(account.RootId()), std::string(),
        [&](const Item& item, const std::string& path) { items.push_back(Resource(item, path)); });
    id = ++made_;
    snapshots_[id] = std::move(items);
    snapshot_revisions_[id] = revision;
    // A page may be asked again after a lost answer, the last one as well: the newest few
    // snapshots stay whole.
    if (snapshots_.size() > kKeptSnapshots) {
      snapshot_revisions_.erase(snapshots_.begin()->first);
      snapshots_.erase(snapshots_.begin());
    }
  } else {
    std::size_t colon = key.find(':');
    if (colon == std::string::npos || !ParseNumber(key.substr(0, colon), &id) ||
        !ParseNumber(key.substr(colon + 1), &offset) || !snapshots_.count(id) ||
        offset > snapshots_[id].size()) {
      return dialect_.Error(400, "FieldValidationError");
    }
  }
  // 2. The page.
  const std::vector<QJsonObject>& items = snapshots_[id];
  std::size_t end = std::min<std::size_t>(items.size(), offset + options_.snapshot_page);
  QJsonArray page;
  for (std::size_t i = offset; i < end; ++i)
    page.append(items[i]);
  QJsonObject answer{{"revision", static_cast<double>(snapshot_revisions_[id])}, {"items", page}};
  if (end < items.size())
    answer.insert("iteration_key", Q(std::to_string(id) + ":" + std::to_string(end)));
  return JsonResponse(200, answer);
}

void YandexRestApi::DeltaItems(const JournalEntry& entry, std::vector<QJsonObject>* out) const {
  // 1. Where the item is now, and where it was; an item whose old folder is gone went with it.
  const CloudAccount& account = router_.account();
  const Item& item = entry.item;
  auto path_in = [&account](const std::string& parent_id, const std::string& name) {
    std::string parent = account.PathOf(parent_id);
    return parent.empty() ? name : parent + "/" + name;
  };
  if (item.parents.empty() || !account.Find(item.parents.front()))
    return;
  std::string path = path_in(item.parents.front(), item.name);
  QJsonObject delta{
      {"revision", static_cast<double>(YandexDialect::kRevisionBase + entry.sequence)},
      {"type", item.IsFolder() ? "dir" : "file"},
      {"path", Q(DiskPath(path))}};
  auto with = [&delta](const char* change, const std::string& at, const QJsonObject& resource) {
    QJsonObject made = delta;
    made.insert("change_type", change);
    made.insert("path", Q(DiskPath(at)));
    if (!resource.isEmpty())
      made.insert("resource", resource);
    return made;
  };
  // 2. The change as Yandex names it.
  switch (entry.kind) {
    case ChangeKind::kCreated:
    case ChangeKind::kRestored:
      out->push_back(with("new", path, Resource(item, path)));
      break;
    case ChangeKind::kModified:
    case ChangeKind::kUpdated:
      out->push_back(with("changed", path, Resource(item, path)));
      break;
    case ChangeKind::kTrashed:
    case ChangeKind::kDeleted:
      out->push_back(with("deleted", path, QJsonObject()));
      break;
    case ChangeKind::kMoved: {
      if (entry.old_parents.empty() || !account.Find(entry.old_parents.front()))
        return;
      std::string old_path = path_in(entry.old_parents.front(), entry.old_name);
      if (item.IsFolder()) {
        QJsonObject moved = with("moved", old_path, Resource(item, path));
        moved.insert("new_path", Q(DiskPath(path)));
        out->push_back(moved);
      } else {
        out->push_back(with("deleted", old_path, QJsonObject()));
        out->push_back(with("new", path, Resource(item, path)));
      }
      break;
    }
  }
}

HttpResponse YandexRestApi::Deltas(const HttpRequest& request) {
  // 1. The base, which the journal must still hold.
  const CloudAccount& account = router_.account();
  std::uint64_t base = 0;
  if (!ParseNumber(QueryParam(request.query, "base_revision"), &base) ||
      base < YandexDialect::kRevisionBase) {
    return dialect_.Error(400, "FieldValidationError");
  }
  std::uint64_t from = base - YandexDialect::kRevisionBase;
  if (from < account.ForgottenUpTo())
    return dialect_.Error(410, "DiskRevisionTooOldError");
  // 2. The first page fixes the revision that the pages lead up to.
  std::uint64_t upper = account.Sequence();
  std::string key = QueryParam(request.query, "iteration_key");
  if (!key.empty()) {
    std::size_t colon = key.find(':');
    if (colon == std::string::npos || !ParseNumber(key.substr(0, colon), &upper) ||
        !ParseNumber(key.substr(colon + 1), &from)) {
      return dialect_.Error(400, "FieldValidationError");
    }
  }
  // 3. The page's entries.
  std::vector<JournalEntry> entries = account.ChangesSince(from, options_.deltas_page);
  std::vector<QJsonObject> items;
  std::uint64_t last = from;
  for (const JournalEntry& entry : entries) {
    if (entry.sequence > upper)
      break;
    DeltaItems(entry, &items);
    last = entry.sequence;
  }
  // 4. Files the server is still hashing come without their digests.
  bool unhashed = unhashed_answers_.load() > 0 && unhashed_answers_.fetch_sub(1) > 0;
  QJsonArray page;
  for (QJsonObject item : items) {
    if (unhashed && item["type"] == "file" && item.contains("resource")) {
      QJsonObject resource = item["resource"].toObject();
      resource.remove("md5");
      resource.remove("sha256");
      item["resource"] = resource;
    }
    page.append(item);
  }
  QJsonObject answer{{"revision", static_cast<double>(YandexDialect::kRevisionBase + upper)},
                     {"items", page}};
  if (last < upper && !entries.empty() && entries.back().sequence <= upper &&
      entries.size() == options_.deltas_page) {
    answer.insert("iteration_key", Q(std::to_string(upper) + ":" + std::to_string(last)));
  }
  return JsonResponse(200, answer);
}

}  // namespace emulators
