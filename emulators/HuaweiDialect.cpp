#include "emulators/HuaweiDialect.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <QDateTime>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <vector>

namespace emulators {

namespace {

constexpr char kApi[] = "/drive/v1";
constexpr char kUpload[] = "/upload/drive/v1";
// The session URL carries a server id in its path, as the service's "Location" does.
constexpr char kSessionPath[] = "/upload/drive/v1/srv1/files";
constexpr std::uint64_t kMaxFileUploadSize = 50ull << 30;

struct ErrorCase {
  int status;
  const char* code;  // the documented four digits
  const char* reason;
};

// The usual case of each status, where a handler names none.
constexpr ErrorCase kErrorCases[] = {
    {400, "4002", "Parameter verification failed."},
    {401, "4011", "User authentication failed."},
    {403, "4035", "No permission."},
    {404, "4041", "The file does not exist."},
    {409, "4090", "The file name already exists."},
    {410, "4100", "The resource is gone."},
    {413, "4130", "The file is too large."},
    {416, "4160", "Requested range not satisfiable."},
    {429, "4290", "Too many requests."},
    {500, "5001", "Internal server error."},
    {503, "5030", "Service unavailable."},
};

QString Q(const std::string& text) {
  return QString::fromStdString(text);
}

std::string ContentVersion(const Item& item) {
  return item.digests.sha256.substr(0, 32);
}

QJsonObject FileJson(const Item& item, bool recycled) {
  QJsonArray parents;
  for (const std::string& parent : item.parents) {
    parents.append(Q(parent));
  }
  QJsonObject properties;
  for (const auto& property : item.properties) {
    properties.insert(Q(property.first), Q(property.second));
  }
  QJsonObject json{
      {"category", "drive#file"},
      {"id", Q(item.id)},
      {"fileName", Q(item.name)},
      {"mimeType", item.IsFolder() ? HuaweiDialect::kFolderMime : "application/octet-stream"},
      {"parentFolder", parents},
      {"createdTime", IsoTime(item.created_ms).c_str()},
      {"editedTime", IsoTime(item.modified_ms).c_str()},
      {"recycled", recycled},
      {"properties", properties}};
  if (!item.IsFolder()) {
    json.insert("size", static_cast<double>(item.size));
    json.insert("sha256", Q(item.digests.sha256));
    json.insert("contentVersion", Q(ContentVersion(item)));
  }
  return json;
}

// "files(id,recycled)" keeps those keys of each file; "*" or anything else keeps all.
std::vector<QString> FileFields(const std::string& fields) {
  const std::string prefix = "files(";
  if (fields.compare(0, prefix.size(), prefix) != 0 || fields.back() != ')') {
    return {};
  }
  std::vector<QString> keys;
  for (const QString& key :
       Q(fields.substr(prefix.size(), fields.size() - prefix.size() - 1)).split(',')) {
    keys.push_back(key.trimmed());
  }
  return keys;
}

QJsonObject Narrowed(const QJsonObject& file, const std::vector<QString>& keys) {
  if (keys.empty()) {
    return file;
  }
  QJsonObject narrowed;
  for (const QString& key : keys) {
    if (file.contains(key)) {
      narrowed.insert(key, file.value(key));
    }
  }
  return narrowed;
}

// One condition of a "queryParam": `'ID' in parentFolder`, `key='text'`, `key!='text'`,
// `key=true|false`.
struct Condition {
  std::string key;
  std::string value;
  bool negated = false;
};

// Reads a quoted literal at `*at`, with "\'" and "\\" escapes.
bool ReadLiteral(const std::string& text, std::size_t* at, std::string* value) {
  if (*at >= text.size() || text[*at] != '\'') {
    return false;
  }
  for (std::size_t i = *at + 1; i < text.size(); ++i) {
    if (text[i] == '\\' && i + 1 < text.size()) {
      *value += text[++i];
    } else if (text[i] == '\'') {
      *at = i + 1;
      return true;
    } else {
      *value += text[i];
    }
  }
  return false;
}

bool ParseQuery(const std::string& query, std::vector<Condition>* conditions) {
  std::size_t at = 0;
  while (at < query.size()) {
    Condition condition;
    if (query[at] == '\'') {
      const std::string in = " in parentFolder";
      if (!ReadLiteral(query, &at, &condition.value) || query.compare(at, in.size(), in) != 0) {
        return false;
      }
      condition.key = "parentFolder";
      at += in.size();
    } else {
      std::size_t op = query.find_first_of("!=", at);
      if (op == std::string::npos) {
        return false;
      }
      condition.key = query.substr(at, op - at);
      condition.negated = query[op] == '!';
      at = op + (condition.negated ? 2 : 1);
      if (at < query.size() && query[at] == '\'') {
        if (!ReadLiteral(query, &at, &condition.value)) {
          return false;
        }
      } else {
        std::size_t end = query.find(' ', at);
        condition.value = query.substr(at, end == std::string::npos ? end : end - at);
        at = end == std::string::npos ? query.size() : end;
      }
    }
    conditions->push_back(condition);
    const std::string joint = " and ";
    if (at < query.size()) {
      if (query.compare(at, joint.size(), joint) != 0) {
        return false;
      }
      at += joint.size();
    }
  }
  return true;
}

bool Matches(const Item& item, bool recycled, const std::vector<Condition>& conditions) {
  for (const Condition& condition : conditions) {
    bool match = true;
    if (condition.key == "parentFolder") {
      match = std::find(item.parents.begin(), item.parents.end(), condition.value) !=
              item.parents.end();
    } else if (condition.key == "mimeType") {
      match = (condition.value == HuaweiDialect::kFolderMime) == item.IsFolder();
    } else if (condition.key == "fileName") {
      match = condition.value == item.name;
    } else if (condition.key == "recycled") {
      match = (condition.value == "true") == recycled;
    }
    if (match == condition.negated) {
      return false;
    }
  }
  return true;
}

bool KnownKeys(const std::vector<Condition>& conditions) {
  for (const Condition& condition : conditions) {
    if (condition.key != "parentFolder" && condition.key != "mimeType" &&
        condition.key != "fileName" && condition.key != "recycled") {
      return false;
    }
  }
  return true;
}

std::string ItemIdOf(const std::string& path, const std::string& prefix) {
  std::string id = PercentDecode(path.substr(prefix.size()));
  return id == "root" ? HuaweiDialect::kRootId : id;
}

QJsonObject ParseBody(const std::string& body, bool* ok) {
  QJsonDocument document = QJsonDocument::fromJson(QByteArray::fromStdString(body));
  *ok = document.isObject() || body.empty();
  return document.object();
}

std::string FirstParent(const QJsonObject& body) {
  QJsonArray parents = body.value("parentFolder").toArray();
  return parents.isEmpty() ? std::string() : parents.first().toString().toStdString();
}

std::int64_t ParseTimeMs(const QJsonValue& value) {
  QDateTime time = QDateTime::fromString(value.toString(), Qt::ISODateWithMs);
  return time.isValid() ? time.toMSecsSinceEpoch() : 0;
}

// "bytes a-b/total" or "bytes */total".
struct ContentRange {
  bool query = false;
  std::uint64_t first = 0;
  std::uint64_t last = 0;
  std::uint64_t total = 0;
};

std::optional<ContentRange> ParseContentRange(const std::string& header) {
  const std::string prefix = "bytes ";
  std::size_t slash = header.find('/');
  if (header.compare(0, prefix.size(), prefix) != 0 || slash == std::string::npos) {
    return std::nullopt;
  }
  ContentRange range;
  range.total = std::strtoull(header.c_str() + slash + 1, nullptr, 10);
  std::string span = header.substr(prefix.size(), slash - prefix.size());
  if (span == "*") {
    range.query = true;
    return range;
  }
  std::size_t dash = span.find('-');
  if (dash == std::string::npos) {
    return std::nullopt;
  }
  range.first = std::strtoull(span.c_str(), nullptr, 10);
  range.last = std::strtoull(span.c_str() + dash + 1, nullptr, 10);
  if (range.last < range.first || range.last >= range.total) {
    return std::nullopt;
  }
  return range;
}

HttpResponse Incomplete(std::uint64_t persisted) {
  QJsonArray ranges;
  if (persisted > 0) {
    ranges.append(QJsonObject{{"start", 0}, {"end", static_cast<double>(persisted - 1)}});
  }
  HttpResponse response = JsonResponse(308, QJsonObject{{"rangeList", ranges}, {"processTime", 0}});
  if (persisted > 0) {
    response.headers.emplace_back("Range", "bytes=0-" + std::to_string(persisted - 1));
  }
  return response;
}

class Routes {
 public:
  Routes(const HuaweiDialect& dialect, Router& router) : dialect_(dialect), router_(router) {}

  HttpResponse About() const {
    CloudAccount& account = router_.account();
    QJsonObject quota{{"userCapacity", QString::number(account.TotalSpace())},
                      {"usedSpace", QString::number(account.UsedSpace())}};
    return JsonResponse(200, QJsonObject{{"category", "drive#about"},
                                         {"storageQuota", quota},
                                         {"maxFileUploadSize", QString::number(kMaxFileUploadSize)},
                                         {"user", QJsonObject{{"displayName", "Emulated"}}}});
  }

  HttpResponse List(const HttpRequest& request) const {
    // 1. The conditions and the page.
    std::vector<Condition> conditions;
    if (!ParseQuery(QueryParam(request.query, "queryParam"), &conditions) ||
        !KnownKeys(conditions)) {
      return dialect_.Error(400, "4003");
    }
    std::size_t offset = std::strtoull(QueryParam(request.query, "cursor").c_str(), nullptr, 10);
    std::size_t page_size = kPageSizeOf(request);
    // 2. Every item that matches, oldest first, as "orderBy=createdTime" asks.
    CloudAccount& account = router_.account();
    std::vector<Item> items = account.AllItems();
    std::stable_sort(items.begin(), items.end(),
                     [](const Item& a, const Item& b) { return a.created_ms < b.created_ms; });
    std::vector<QString> keys = FileFields(QueryParam(request.query, "fields"));
    QJsonArray files;
    std::size_t matched = 0;
    bool more = false;
    for (const Item& item : items) {
      if (item.id == account.RootId()) {
        continue;
      }
      bool recycled = account.IsInTrash(item.id);
      if (!Matches(item, recycled, conditions)) {
        continue;
      }
      if (matched++ < offset) {
        continue;
      }
      if (static_cast<std::size_t>(files.size()) == page_size) {
        more = true;
        break;
      }
      files.append(Narrowed(FileJson(item, recycled), keys));
    }
    QJsonObject answer{{"category", "drive#fileList"}, {"files", files}};
    if (more) {
      answer.insert("nextCursor", QString::number(offset + page_size));
    }
    return JsonResponse(200, answer);
  }

  HttpResponse Get(const HttpRequest& request) const {
    std::optional<Item> item = router_.account().Find(ItemIdOf(request.path, FilesPrefix()));
    if (!item) {
      return dialect_.Error(404, "");
    }
    if (QueryParam(request.query, "form") != "content") {
      return JsonResponse(200, FileJson(*item, router_.account().IsInTrash(item->id)));
    }
    if (item->IsFolder()) {
      return dialect_.Error(400, "4003");
    }
    HttpResponse content = ContentResponse(*item, request.Header("Range"));
    return content.status == 416 ? dialect_.Error(416, "") : content;
  }

  HttpResponse Create(const HttpRequest& request) const {
    bool ok = false;
    QJsonObject body = ParseBody(request.body, &ok);
    std::string name = body.value("fileName").toString().toStdString();
    if (!ok || name.empty()) {
      return dialect_.Error(400, "4001");
    }
    std::string parent = FirstParent(body);
    parent = parent.empty() ? router_.account().RootId() : parent;
    Item made;
    AccountError error = body.value("mimeType").toString() == HuaweiDialect::kFolderMime
                             ? router_.account().CreateFolder(parent, name, &made)
                             : router_.account().CreateFile(parent, name, std::string(), 0, &made);
    return error == AccountError::kNone ? JsonResponse(200, FileJson(made, false)) : Failure(error);
  }

  HttpResponse Update(const HttpRequest& request) const {
    // 1. The item and the body.
    CloudAccount& account = router_.account();
    const std::string id = ItemIdOf(request.path, FilesPrefix());
    std::optional<Item> item = account.Find(id);
    bool ok = false;
    QJsonObject body = ParseBody(request.body, &ok);
    if (!item) {
      return dialect_.Error(404, "");
    }
    if (!ok || (body.contains("recycled") && !body.value("recycled").isBool())) {
      return dialect_.Error(400, "4003");
    }
    // 2. Parents and name, then the recycle mark, then properties.
    std::string add = QueryParam(request.query, "addParentFolder");
    std::string remove = QueryParam(request.query, "removeParentFolder");
    if (add.empty() != remove.empty()) {
      return dialect_.Error(400, "4001");
    }
    std::string name = body.value("fileName").toString().toStdString();
    AccountError error = AccountError::kNone;
    if (!add.empty() || !name.empty()) {
      std::vector<std::string> parents = item->parents;
      if (!add.empty()) {
        parents.erase(std::remove(parents.begin(), parents.end(), remove), parents.end());
        parents.push_back(add);
      }
      error = account.Move(id, parents, name, nullptr);
    }
    if (error == AccountError::kNone && body.contains("recycled")) {
      error = body.value("recycled").toBool() ? account.Trash(id, nullptr)
                                              : account.Restore(id, nullptr);
    }
    QJsonObject properties = body.value("properties").toObject();
    for (auto it = properties.begin(); error == AccountError::kNone && it != properties.end();
         ++it) {
      error = account.SetProperty(id, it.key().toStdString(), it.value().toString().toStdString(),
                                  nullptr);
    }
    if (error != AccountError::kNone) {
      return Failure(error);
    }
    std::optional<Item> now = account.Find(id);
    return JsonResponse(200, FileJson(*now, account.IsInTrash(id)));
  }

  HttpResponse Delete(const HttpRequest& request) const {
    AccountError error = router_.account().Delete(ItemIdOf(request.path, FilesPrefix()));
    return error == AccountError::kNone ? HttpResponse::Status(204) : Failure(error);
  }

  HttpResponse StartCursor() const {
    return JsonResponse(200, QJsonObject{{"category", "drive#startCursor"},
                                         {"startCursor", CursorOf(router_.account().Sequence())}});
  }

  HttpResponse Changes(const HttpRequest& request) const {
    // 1. The cursor is a journal position; one older than the journal has expired.
    CloudAccount& account = router_.account();
    std::string cursor = QueryParam(request.query, "cursor");
    if (cursor.size() < 2 || cursor[0] != 'c') {
      return dialect_.Error(400, "4003");
    }
    std::uint64_t position = std::strtoull(cursor.c_str() + 1, nullptr, 10);
    if (position < account.ForgottenUpTo()) {
      return dialect_.Error(400, "4004");
    }
    // 2. One page of changes, then where to go on.
    std::size_t page_size = kPageSizeOf(request);
    std::vector<JournalEntry> entries = account.ChangesSince(position, page_size + 1);
    bool more = entries.size() > page_size;
    entries.resize(std::min(entries.size(), page_size));
    QJsonArray changes;
    for (const JournalEntry& entry : entries) {
      QJsonObject change{{"category", "drive#change"},
                         {"type", "file"},
                         {"fileId", Q(entry.item.id)},
                         {"time", IsoTime(entry.item.modified_ms).c_str()},
                         {"deleted", entry.kind == ChangeKind::kDeleted}};
      if (entry.kind != ChangeKind::kDeleted) {
        bool recycled = entry.item.trashed || account.IsInTrash(entry.item.id);
        change.insert("file", FileJson(entry.item, recycled));
      }
      changes.append(change);
    }
    QJsonObject answer{{"category", "drive#changeList"}, {"changes", changes}};
    if (more) {
      answer.insert("nextCursor", CursorOf(entries.back().sequence));
    } else {
      answer.insert("newStartCursor", CursorOf(account.Sequence()));
    }
    return JsonResponse(200, answer);
  }

  HttpResponse OpenSession(const HttpRequest& request, const std::string& target_id) const {
    // 1. The announced size and the metadata.
    std::string length = request.Header("X-Upload-Content-Length");
    bool ok = false;
    QJsonObject body = ParseBody(request.body, &ok);
    if (!ok || length.empty() || QueryParam(request.query, "uploadType") != "resume") {
      return dialect_.Error(400, "4001");
    }
    CloudAccount& account = router_.account();
    UploadSpec spec;
    spec.total_size = std::strtoull(length.c_str(), nullptr, 10);
    spec.modified_ms = ParseTimeMs(body.value("editedTime"));
    spec.target_id = target_id;
    if (target_id.empty()) {
      // Without a parent the file lands in the drive's root.
      spec.parent_id = FirstParent(body).empty() ? account.RootId() : FirstParent(body);
      spec.name = body.value("fileName").toString().toStdString();
      std::optional<Item> parent = account.Find(spec.parent_id);
      if (spec.name.empty() || !parent || !parent->IsFolder()) {
        return dialect_.Error(400, spec.name.empty() ? "4001" : "4009");
      }
      if (QueryParam(request.query, "autoRename") == "false" &&
          account.ChildByName(spec.parent_id, spec.name)) {
        return dialect_.Error(409, "");
      }
    } else {
      std::optional<Item> target = account.Find(target_id);
      if (!target || target->IsFolder()) {
        return dialect_.Error(404, "");
      }
    }
    if (spec.total_size > kMaxFileUploadSize) {
      return dialect_.Error(413, "");
    }
    // 2. The session, named by its URL.
    std::string session = account.OpenUpload(spec);
    HttpResponse response =
        JsonResponse(200, QJsonObject{{"sliceSize", static_cast<double>(SliceSize())}});
    response.headers.emplace_back(
        "Location", router_.BaseUrl() + kSessionPath + "?uploadType=resume&uploadId=" + session);
    return response;
  }

  HttpResponse Slice(const HttpRequest& request) const {
    // 1. The session and the piece's place.
    CloudAccount& account = router_.account();
    std::string session = QueryParam(request.query, "uploadId");
    std::optional<UploadState> state = account.FindUpload(session);
    if (!state) {
      return dialect_.Error(404, "4037");
    }
    std::optional<ContentRange> range = ParseContentRange(request.Header("Content-Range"));
    if (!range || range->total != state->spec.total_size ||
        (!range->query && request.body.size() != range->last - range->first + 1)) {
      return dialect_.Error(400, "4002");
    }
    // 2. The bytes; a piece that doesn't start where the session stands tells where it does.
    std::uint64_t persisted = state->persisted;
    if (!range->query) {
      AccountError error = account.AppendUpload(session, range->first, request.body, &persisted);
      if (error != AccountError::kNone && error != AccountError::kBadOffset) {
        return Failure(error);
      }
    }
    return persisted < state->spec.total_size ? Incomplete(persisted) : Commit(session);
  }

 private:
  static std::string FilesPrefix() { return std::string(kApi) + "/files/"; }

  static QString CursorOf(std::uint64_t sequence) { return "c" + QString::number(sequence); }

  static std::size_t kPageSizeOf(const HttpRequest& request) {
    std::size_t asked = std::strtoull(QueryParam(request.query, "pageSize").c_str(), nullptr, 10);
    return asked == 0 || asked > HuaweiDialect::kPageSize ? HuaweiDialect::kPageSize : asked;
  }

  std::uint64_t SliceSize() const { return dialect_.SliceSize(); }

  HttpResponse Commit(const std::string& session) const {
    Item made;
    AccountError error = router_.account().CommitUpload(session, &made);
    return error == AccountError::kNone ? JsonResponse(200, FileJson(made, false)) : Failure(error);
  }

  HttpResponse Failure(AccountError error) const {
    switch (error) {
      case AccountError::kNotFound:
        return dialect_.Error(404, "");
      case AccountError::kNameTaken:
        return dialect_.Error(409, "");
      case AccountError::kNoSpace:
        return dialect_.Error(403, "4039");
      case AccountError::kSessionMissing:
        return dialect_.Error(404, "4037");
      case AccountError::kNotAFolder:
        return dialect_.Error(400, "4009");
      default:
        return dialect_.Error(400, "4003");
    }
  }

  const HuaweiDialect& dialect_;
  Router& router_;
};

}  // namespace

HttpResponse HuaweiDialect::Error(int status, const std::string& code) const {
  const ErrorCase* found = nullptr;
  for (const ErrorCase& each : kErrorCases) {
    if (each.status == status) {
      found = &each;
    }
  }
  std::string digits = !code.empty() ? code : found ? found->code : std::to_string(status) + "0";
  std::string reason = found ? found->reason : "Request failed.";
  QJsonObject detail{
      {"errorCode", Q("2100" + digits)}, {"reason", Q(reason)}, {"description", Q(reason)}};
  QJsonObject error{{"code", status}, {"message", Q(reason)}, {"errorDetail", QJsonArray{detail}}};
  return JsonResponse(status, QJsonObject{{"error", error}});
}

std::unique_ptr<CloudAccount> HuaweiDialect::MakeAccount() const {
  auto account = std::make_unique<CloudAccount>(kRootId);
  account->SetIdMaker([](std::uint64_t n, ItemKind kind) {
    char id[32];
    std::snprintf(id, sizeof(id), "%s%014llx", kind == ItemKind::kFolder ? "Fd" : "Fl",
                  static_cast<unsigned long long>(n * 0x9E3779B97F4Aull));
    return std::string(id);
  });
  return account;
}

void HuaweiDialect::Install(Router& router) {
  auto routes = std::make_shared<Routes>(*this, router);
  const std::string api = kApi;
  const std::string upload = kUpload;
  RouteOptions prefix;
  prefix.match = Match::kPrefix;
  router.Handle("GET", api + "/about", [routes](const HttpRequest&) { return routes->About(); });
  router.Handle("GET", api + "/files",
                [routes](const HttpRequest& request) { return routes->List(request); });
  router.Handle("POST", api + "/files",
                [routes](const HttpRequest& request) { return routes->Create(request); });
  router.Handle(
      "GET", api + "/files/", [routes](const HttpRequest& request) { return routes->Get(request); },
      prefix);
  router.Handle(
      "PATCH", api + "/files/",
      [routes](const HttpRequest& request) { return routes->Update(request); }, prefix);
  router.Handle(
      "DELETE", api + "/files/",
      [routes](const HttpRequest& request) { return routes->Delete(request); }, prefix);
  router.Handle("GET", api + "/changes/getStartCursor",
                [routes](const HttpRequest&) { return routes->StartCursor(); });
  router.Handle("GET", api + "/changes",
                [routes](const HttpRequest& request) { return routes->Changes(request); });
  router.Handle("POST", upload + "/files", [routes](const HttpRequest& request) {
    return routes->OpenSession(request, std::string());
  });
  router.Handle(
      "PATCH", upload + "/files/",
      [routes, upload](const HttpRequest& request) {
        return routes->OpenSession(request, PercentDecode(request.path.substr(upload.size() + 7)));
      },
      prefix);
  router.Handle("PUT", kSessionPath,
                [routes](const HttpRequest& request) { return routes->Slice(request); });
}

std::unique_ptr<Dialect> MakeHuaweiDialect() {
  return std::make_unique<HuaweiDialect>();
}

}  // namespace emulators
