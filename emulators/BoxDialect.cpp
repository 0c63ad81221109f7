#include "emulators/BoxDialect.h"

#include <QByteArray>
#include <QCryptographicHash>
#include <QDateTime>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <cstdio>
#include <map>
#include <mutex>
#include <optional>
#include <vector>

namespace emulators {
namespace {

constexpr const char* kApi = "/2.0/";
constexpr const char* kUpload = "/upload/2.0/";
constexpr const char* kDownload = "/dl/";
constexpr const char* kRootId = "0";
constexpr std::uint64_t kPartSize = 8ull << 20;
// Box takes chunked sessions only for files from 20 MB on.
constexpr std::uint64_t kMinSessionSize = 20000000;
constexpr std::uint64_t kMaxUploadSize = 5ull << 30;
constexpr int kDefaultPageSize = 100;
constexpr int kMaxPageSize = 1000;
constexpr int kMaxNameLength = 255;
// Box answers times in the account's zone; a zone other than UTC shows a reader that drops it.
constexpr int kZoneOffsetSeconds = -8 * 3600;
constexpr int kCommitRetryAfterSeconds = 1;

QString Text(const std::string& text) {
  return QString::fromStdString(text);
}

std::string BoxTime(std::int64_t ms) {
  return QDateTime::fromMSecsSinceEpoch(ms, Qt::OffsetFromUTC, kZoneOffsetSeconds)
      .toString(Qt::ISODate)
      .toStdString();
}

std::optional<std::int64_t> ParseBoxTime(const QJsonValue& value) {
  QDateTime time = QDateTime::fromString(value.toString(), Qt::ISODate);
  if (!time.isValid())
    return std::nullopt;
  return time.toMSecsSinceEpoch();
}

std::string Sha1Base64(const std::string& bytes) {
  return QCryptographicHash::hash(QByteArray::fromStdString(bytes), QCryptographicHash::Sha1)
      .toBase64()
      .toStdString();
}

std::string HexToBase64(const std::string& hex) {
  return QByteArray::fromHex(QByteArray::fromStdString(hex)).toBase64().toStdString();
}

// The path below `prefix`, split on "/".
std::vector<std::string> Segments(const std::string& path, const char* prefix) {
  std::vector<std::string> segments;
  std::string rest = path.substr(std::string(prefix).size());
  std::size_t start = 0;
  while (start <= rest.size()) {
    std::size_t slash = rest.find('/', start);
    if (slash == std::string::npos)
      slash = rest.size();
    if (slash > start)
      segments.push_back(PercentDecode(rest.substr(start, slash - start)));
    start = slash + 1;
  }
  return segments;
}

bool ParseObject(const std::string& body, QJsonObject* object) {
  QJsonDocument document = QJsonDocument::fromJson(QByteArray::fromStdString(body));
  if (!document.isObject())
    return false;
  *object = document.object();
  return true;
}

// The code of Box's answer to an unusable name, empty for a good one.
std::string NameProblem(const std::string& name) {
  if (name.size() > kMaxNameLength)
    return "item_name_too_long";
  bool unprintable = false;
  for (unsigned char c : name)
    unprintable = unprintable || c < 0x20 || c == 0x7f || c == '/' || c == '\\';
  if (name.empty() || name == "." || name == ".." || unprintable || name.back() == ' ')
    return "item_name_invalid";
  return std::string();
}

struct ContentRange {
  std::uint64_t first = 0;
  std::uint64_t last = 0;
  std::uint64_t total = 0;
};

std::optional<ContentRange> ParseContentRange(const std::string& header) {
  unsigned long long first = 0, last = 0, total = 0;
  char end = 0;
  if (std::sscanf(header.c_str(), "bytes %llu-%llu/%llu%c", &first, &last, &total, &end) != 3 ||
      last < first) {
    return std::nullopt;
  }
  return ContentRange{first, last, total};
}

// One form-data part of a multipart body.
struct FormPart {
  std::string name;
  std::string data;
};

std::vector<FormPart> ParseMultipart(const std::string& content_type, const std::string& body) {
  std::vector<FormPart> parts;
  std::size_t at = content_type.find("boundary=");
  if (at == std::string::npos)
    return parts;
  std::string boundary = content_type.substr(at + 9);
  if (boundary.size() > 1 && boundary.front() == '"')
    boundary = boundary.substr(1, boundary.size() - 2);
  const std::string delimiter = "--" + boundary;
  std::size_t start = body.find(delimiter);
  while (start != std::string::npos) {
    start += delimiter.size();
    if (body.compare(start, 2, "--") == 0)
      break;
    std::size_t head_end = body.find("\r\n\r\n", start);
    std::size_t next =
        body.find("\r\n" + delimiter, head_end == std::string::npos ? start : head_end);
    if (head_end == std::string::npos || next == std::string::npos)
      break;
    std::string head = body.substr(start, head_end - start);
    FormPart part;
    std::size_t name_at = head.find("name=\"");
    if (name_at != std::string::npos) {
      name_at += 6;
      part.name = head.substr(name_at, head.find('"', name_at) - name_at);
    }
    part.data = body.substr(head_end + 4, next - head_end - 4);
    parts.push_back(std::move(part));
    start = next + 2;
  }
  return parts;
}

class BoxDialect : public Dialect {
 public:
  const char* Service() const override { return "box"; }
  HostList Hosts() const override { return {{"box.api", ""}, {"box.upload", "/upload"}}; }
  HttpResponse Error(int status, const std::string& code) const override;
  std::unique_ptr<CloudAccount> MakeAccount() const override;
  void Install(Router& router) override;

 private:
  struct Session {
    std::uint64_t file_size = 0;
    std::vector<QJsonObject> parts;
    ContentHasher sha1{ContentHasher::kSha1};
    std::string whole_sha1_base64;  // once every byte is in
    bool commit_tried = false;
  };

  CloudAccount& account() { return router_->account(); }
  HttpResponse ErrorWith(int status, const std::string& code, const std::string& message) const;
  QJsonObject ItemJson(const Item& item, const std::string& fields);
  QJsonObject MiniFolder(const std::string& id);
  HttpResponse ItemAnswer(int status, const Item& item, const std::string& query);
  HttpResponse AccountFailure(AccountError error, const std::string& parent_id,
                              const std::string& name);
  std::optional<HttpResponse> CheckNewName(const std::string& parent_id, const std::string& name,
                                           const std::string& except_id);
  std::optional<HttpResponse> CheckIfMatch(const HttpRequest& request, const Item& item);
  std::string SessionUrl(const std::string& session_id) const;

  HttpResponse ApiGet(const HttpRequest& request);
  HttpResponse ApiPost(const HttpRequest& request);
  HttpResponse ApiPut(const HttpRequest& request);
  HttpResponse ApiDelete(const HttpRequest& request);
  HttpResponse Me();
  HttpResponse ListItems(const std::string& folder_id, const std::string& query);
  HttpResponse CreateFolder(const HttpRequest& request);
  HttpResponse UpdateItem(const HttpRequest& request, const std::string& id, bool folder);
  HttpResponse DeleteItem(const HttpRequest& request, const std::string& id, bool folder);
  HttpResponse Properties(const std::string& folder_id);
  HttpResponse AddProperties(const HttpRequest& request, const std::string& folder_id);

  HttpResponse UploadPost(const HttpRequest& request);
  HttpResponse UploadFile(const HttpRequest& request, const std::string& target_id);
  HttpResponse CreateSession(const HttpRequest& request, const std::string& target_id);
  HttpResponse UploadPart(const HttpRequest& request);
  HttpResponse ListParts(const std::string& session_id);
  HttpResponse Commit(const HttpRequest& request, const std::string& session_id);
  HttpResponse Abort(const std::string& session_id);

  Router* router_ = nullptr;
  std::mutex mutex_;
  std::map<std::string, std::unique_ptr<Session>> sessions_;
};

HttpResponse BoxDialect::Error(int status, const std::string& code) const {
  static const std::map<int, const char*> usual = {{400, "bad_request"},
                                                   {403, "forbidden"},
                                                   {404, "not_found"},
                                                   {405, "method_not_allowed"},
                                                   {409, "conflict"},
                                                   {412, "precondition_failed"},
                                                   {413, "file_size_limit_exceeded"},
                                                   {416, "range_not_satisfiable"},
                                                   {429, "rate_limit_exceeded"},
                                                   {500, "internal_server_error"},
                                                   {503, "unavailable"}};
  auto found = usual.find(status);
  std::string chosen = !code.empty() ? code : found != usual.end() ? found->second : "error";
  return ErrorWith(status, chosen, chosen);
}

HttpResponse BoxDialect::ErrorWith(int status, const std::string& code,
                                   const std::string& message) const {
  if (status == 401) {
    // Box answers a refused token with an empty body and the reason in the header.
    HttpResponse refused = HttpResponse::Status(401);
    refused.headers = {{"WWW-Authenticate",
                        "Bearer realm=\"Service\", error=\"invalid_token\", "
                        "error_description=\"The access token provided is "
                        "invalid.\""}};
    return refused;
  }
  return JsonResponse(status, QJsonObject{{"type", "error"},
                                          {"status", status},
                                          {"code", Text(code)},
                                          {"message", Text(message)},
                                          {"help_url",
                                           "https://developer.box.com/guides/api-calls/"
                                           "permissions-and-errors/common-errors/"},
                                          {"request_id", "emulated"}});
}

std::unique_ptr<CloudAccount> BoxDialect::MakeAccount() const {
  auto account = std::make_unique<CloudAccount>(kRootId);
  account->SetIdMaker(
      [](std::uint64_t n, ItemKind) { return std::to_string(1000000000000ull + n * 7); });
  return account;
}

void BoxDialect::Install(Router& router) {
  router_ = &router;
  RouteOptions prefix;
  prefix.match = Match::kPrefix;
  router.Handle(
      "GET", kApi, [this](const HttpRequest& r) { return ApiGet(r); }, prefix);
  router.Handle(
      "POST", kApi, [this](const HttpRequest& r) { return ApiPost(r); }, prefix);
  router.Handle(
      "PUT", kApi, [this](const HttpRequest& r) { return ApiPut(r); }, prefix);
  router.Handle(
      "DELETE", kApi, [this](const HttpRequest& r) { return ApiDelete(r); }, prefix);
  router.Handle(
      "POST", kUpload, [this](const HttpRequest& r) { return UploadPost(r); }, prefix);
  // Parts come in the session's part size, 8 MiB each: the log keeps their digests only.
  RouteOptions part = prefix;
  part.mode = BodyMode::kStoreUnlogged;
  router.Handle(
      "PUT", kUpload, [this](const HttpRequest& r) { return UploadPart(r); }, part);
  router.Handle(
      "GET", kUpload,
      [this](const HttpRequest& r) {
        std::vector<std::string> s = Segments(r.path, kUpload);
        if (s.size() == 4 && s[0] == "files" && s[1] == "upload_sessions" && s[3] == "parts")
          return ListParts(s[2]);
        return Error(404, std::string());
      },
      prefix);
  router.Handle(
      "DELETE", kUpload,
      [this](const HttpRequest& r) {
        std::vector<std::string> s = Segments(r.path, kUpload);
        if (s.size() == 3 && s[0] == "files" && s[1] == "upload_sessions")
          return Abort(s[2]);
        return Error(404, std::string());
      },
      prefix);
  // Download URLs are pre-authorized: they carry no token.
  RouteOptions download = prefix;
  download.needs_auth = false;
  router.Handle(
      "GET", kDownload,
      [this](const HttpRequest& r) {
        std::vector<std::string> s = Segments(r.path, kDownload);
        std::optional<Item> item = s.size() == 1 ? account().Find(s[0]) : std::nullopt;
        if (!item || item->IsFolder() || account().IsInTrash(item->id))
          return Error(404, std::string());
        return ContentResponse(*item, r.Header("Range"));
      },
      download);
}

QJsonObject BoxDialect::MiniFolder(const std::string& id) {
  std::optional<Item> folder = account().Find(id);
  bool root = id == kRootId;
  return QJsonObject{
      {"type", "folder"},
      {"id", Text(id)},
      {"sequence_id",
       root || !folder ? QJsonValue() : QJsonValue(Text(std::to_string(folder->revision)))},
      {"etag", root || !folder ? QJsonValue() : QJsonValue(Text(std::to_string(folder->revision)))},
      {"name", root ? "All Files" : Text(folder ? folder->name : std::string())}};
}

QJsonObject BoxDialect::ItemJson(const Item& item, const std::string& fields) {
  const bool root = item.id == kRootId;
  QJsonObject json{{"type", item.IsFolder() ? "folder" : "file"},
                   {"id", Text(item.id)},
                   {"etag", root ? QJsonValue() : QJsonValue(Text(std::to_string(item.revision)))}};
  QJsonObject all{
      {"sequence_id", root ? QJsonValue() : QJsonValue(Text(std::to_string(item.revision)))},
      {"name", root ? "All Files" : Text(item.name)},
      {"parent", item.parents.empty() ? QJsonValue() : QJsonValue(MiniFolder(item.parents[0]))},
      {"created_at", Text(BoxTime(item.created_ms))},
      {"modified_at", Text(BoxTime(item.modified_ms))},
      {"content_created_at", Text(BoxTime(item.created_ms))},
      {"content_modified_at", Text(BoxTime(item.modified_ms))},
      {"shared_link", QJsonValue()},
      {"size", static_cast<double>(item.size)}};
  if (!item.IsFolder())
    all.insert("sha1", Text(item.digests.sha1));
  for (auto it = all.begin(); it != all.end(); ++it) {
    bool asked = fields.empty();
    for (const QString& field : Text(fields).split(','))
      asked = asked || field == it.key();
    if (asked)
      json.insert(it.key(), it.value());
  }
  return json;
}

HttpResponse BoxDialect::ItemAnswer(int status, const Item& item, const std::string& query) {
  return JsonResponse(status, ItemJson(item, QueryParam(query, "fields")));
}

HttpResponse BoxDialect::AccountFailure(AccountError error, const std::string& parent_id,
                                        const std::string& name) {
  switch (error) {
    case AccountError::kNotFound:
    case AccountError::kNotAFolder:
    case AccountError::kNotAFile:
      return Error(404, std::string());
    case AccountError::kNameTaken:
      return CheckNewName(parent_id, name, std::string()).value_or(Error(409, "item_name_in_use"));
    case AccountError::kInvalidName:
      return Error(400, "item_name_invalid");
    case AccountError::kNoSpace:
      return Error(403, "storage_limit_exceeded");
    case AccountError::kCycle:
      return ErrorWith(400, "bad_request", "a folder can't move into itself");
    default:
      return Error(400, std::string());
  }
}

std::optional<HttpResponse> BoxDialect::CheckNewName(const std::string& parent_id,
                                                     const std::string& name,
                                                     const std::string& except_id) {
  std::string problem = NameProblem(name);
  if (!problem.empty())
    return Error(400, problem);
  std::optional<Item> parent = account().Find(parent_id);
  if (!parent || !parent->IsFolder() || account().IsInTrash(parent_id))
    return Error(404, std::string());
  // Names are unique in a folder without regard to case.
  std::optional<Item> taken = account().ChildByName(parent_id, name, true);
  if (taken && taken->id != except_id) {
    HttpResponse conflict = Error(409, "item_name_in_use");
    QJsonObject body;
    ParseObject(conflict.body, &body);
    body.insert("context_info",
                QJsonObject{{"conflicts", QJsonArray{ItemJson(*taken, "name,sha1,size")}}});
    return JsonResponse(409, body);
  }
  return std::nullopt;
}

std::optional<HttpResponse> BoxDialect::CheckIfMatch(const HttpRequest& request, const Item& item) {
  std::string expected = request.Header("if-match");
  if (!expected.empty() && expected != std::to_string(item.revision))
    return Error(412, std::string());
  return std::nullopt;
}

std::string BoxDialect::SessionUrl(const std::string& session_id) const {
  return router_->BaseUrl() + kUpload + "files/upload_sessions/" + session_id;
}

// --- API host -----------------------------------------------------------------------------

HttpResponse BoxDialect::ApiGet(const HttpRequest& request) {
  std::vector<std::string> s = Segments(request.path, kApi);
  if (s.size() == 2 && s[0] == "users" && s[1] == "me")
    return Me();
  if (s.size() == 3 && s[0] == "folders" && s[2] == "items")
    return ListItems(s[1], request.query);
  if (s.size() == 5 && s[0] == "folders" && s[2] == "metadata" && s[3] == "global" &&
      s[4] == "properties") {
    return Properties(s[1]);
  }
  if (s.size() >= 2 && (s[0] == "folders" || s[0] == "files")) {
    std::optional<Item> item = account().Find(s[1]);
    if (!item || item->IsFolder() != (s[0] == "folders") || account().IsInTrash(s[1]))
      return Error(404, std::string());
    if (s.size() == 2)
      return ItemAnswer(200, *item, request.query);
    if (s.size() == 3 && s[2] == "content" && s[0] == "files") {
      HttpResponse redirect = HttpResponse::Status(302);
      redirect.headers = {{"Location", router_->BaseUrl() + kDownload + item->id +
                                           "?v=" + std::to_string(item->revision)}};
      return redirect;
    }
  }
  return Error(404, std::string());
}

HttpResponse BoxDialect::Me() {
  return JsonResponse(200,
                      QJsonObject{{"type", "user"},
                                  {"id", "11446498"},
                                  {"name", "Emulated User"},
                                  {"login", "user@example.com"},
                                  {"space_amount", static_cast<double>(account().TotalSpace())},
                                  {"space_used", static_cast<double>(account().UsedSpace())},
                                  {"max_upload_size", static_cast<double>(kMaxUploadSize)}});
}

HttpResponse BoxDialect::ListItems(const std::string& folder_id, const std::string& query) {
  // 1. The folder and the page asked for; a larger limit is cut to Box's cap.
  std::optional<Item> folder = account().Find(folder_id);
  if (!folder || !folder->IsFolder() || account().IsInTrash(folder_id))
    return Error(404, std::string());
  int limit =
      HasQueryParam(query, "limit") ? Text(QueryParam(query, "limit")).toInt() : kDefaultPageSize;
  if (limit <= 0)
    return ErrorWith(400, "bad_request", "limit must be a positive number");
  limit = std::min(limit, kMaxPageSize);
  const bool marker_paging = QueryParam(query, "usemarker") == "true";
  std::size_t offset = 0;
  if (marker_paging && !QueryParam(query, "marker").empty()) {
    bool ok = false;
    offset = QByteArray::fromBase64(QByteArray::fromStdString(QueryParam(query, "marker")))
                 .toULongLong(&ok);
    if (!ok)
      return ErrorWith(400, "bad_request", "invalid marker");
  } else if (!marker_paging) {
    offset = Text(QueryParam(query, "offset")).toULongLong();
  }
  // 2. The entries.
  std::size_t total = 0;
  QJsonArray entries;
  const std::string fields = QueryParam(query, "fields");
  for (const Item& child : account().Children(folder_id, false, offset, limit, &total))
    entries.append(ItemJson(child, fields));
  // 3. Paging as asked: a marker (null on the last page) or offset and total.
  QJsonObject page{{"entries", entries}, {"limit", limit}};
  if (marker_paging) {
    std::size_t next = offset + entries.size();
    page.insert(
        "next_marker",
        next < total
            ? QJsonValue(QString(QByteArray::number(static_cast<qulonglong>(next)).toBase64()))
            : QJsonValue());
  } else {
    page.insert("total_count", static_cast<double>(total));
    page.insert("offset", static_cast<double>(offset));
    page.insert("order", QJsonArray{QJsonObject{{"by", "type"}, {"direction", "ASC"}},
                                    QJsonObject{{"by", "name"}, {"direction", "ASC"}}});
  }
  return JsonResponse(200, page);
}

HttpResponse BoxDialect::ApiPost(const HttpRequest& request) {
  std::vector<std::string> s = Segments(request.path, kApi);
  if (s.size() == 1 && s[0] == "folders")
    return CreateFolder(request);
  if (s.size() == 5 && s[0] == "folders" && s[2] == "metadata" && s[3] == "global" &&
      s[4] == "properties") {
    return AddProperties(request, s[1]);
  }
  return Error(404, std::string());
}

HttpResponse BoxDialect::CreateFolder(const HttpRequest& request) {
  QJsonObject body;
  if (!ParseObject(request.body, &body) || !body.value("name").isString() ||
      !body.value("parent").isObject() || !body.value("parent").toObject().value("id").isString()) {
    return ErrorWith(400, "bad_request", "name and parent.id are required");
  }
  std::string name = body.value("name").toString().toStdString();
  std::string parent_id = body.value("parent").toObject().value("id").toString().toStdString();
  if (std::optional<HttpResponse> refused = CheckNewName(parent_id, name, std::string()))
    return *refused;
  Item made;
  AccountError error = account().CreateFolder(parent_id, name, &made);
  if (error != AccountError::kNone)
    return AccountFailure(error, parent_id, name);
  return ItemAnswer(201, made, request.query);
}

HttpResponse BoxDialect::ApiPut(const HttpRequest& request) {
  std::vector<std::string> s = Segments(request.path, kApi);
  if (s.size() == 2 && (s[0] == "folders" || s[0] == "files"))
    return UpdateItem(request, s[1], s[0] == "folders");
  return Error(404, std::string());
}

HttpResponse BoxDialect::UpdateItem(const HttpRequest& request, const std::string& id,
                                    bool folder) {
  // 1. The item, its version, and a body of the documented shape.
  std::optional<Item> item = account().Find(id);
  if (!item || item->IsFolder() != folder || account().IsInTrash(id) || id == kRootId)
    return Error(404, std::string());
  if (std::optional<HttpResponse> refused = CheckIfMatch(request, *item))
    return *refused;
  QJsonObject body;
  if (!ParseObject(request.body, &body))
    return ErrorWith(400, "bad_request", "the body is no JSON object");
  QJsonValue parent = body.value("parent");
  if (body.contains("parent") &&
      (!parent.isObject() || !parent.toObject().value("id").isString())) {
    return ErrorWith(400, "bad_request", "parent must be an object with an id");
  }
  if (body.contains("name") && !body.value("name").isString())
    return ErrorWith(400, "bad_request", "name must be a string");
  // 2. The move or rename.
  std::string parent_id =
      parent.isObject() ? parent.toObject().value("id").toString().toStdString() : item->parents[0];
  std::string name =
      body.contains("name") ? body.value("name").toString().toStdString() : item->name;
  if (std::optional<HttpResponse> refused = CheckNewName(parent_id, name, id))
    return *refused;
  Item moved;
  AccountError error = account().Move(id, {parent_id}, name, &moved);
  if (error != AccountError::kNone)
    return AccountFailure(error, parent_id, name);
  return ItemAnswer(200, moved, request.query);
}

HttpResponse BoxDialect::ApiDelete(const HttpRequest& request) {
  std::vector<std::string> s = Segments(request.path, kApi);
  if (s.size() == 2 && (s[0] == "folders" || s[0] == "files"))
    return DeleteItem(request, s[1], s[0] == "folders");
  return Error(404, std::string());
}

HttpResponse BoxDialect::DeleteItem(const HttpRequest& request, const std::string& id,
                                    bool folder) {
  std::optional<Item> item = account().Find(id);
  if (id == kRootId)
    return Error(403, "access_denied_insufficient_permissions");
  if (!item || item->IsFolder() != folder || account().IsInTrash(id))
    return Error(404, std::string());
  if (std::optional<HttpResponse> refused = CheckIfMatch(request, *item))
    return *refused;
  if (folder && QueryParam(request.query, "recursive") != "true" &&
      !account().Children(id).empty()) {
    return Error(400, "folder_not_empty");
  }
  // A deleted item goes to the trash, as on Box.
  account().Trash(id, nullptr);
  return HttpResponse::Status(204);
}

HttpResponse BoxDialect::Properties(const std::string& folder_id) {
  std::optional<Item> folder = account().Find(folder_id);
  if (!folder || !folder->IsFolder())
    return Error(404, std::string());
  if (folder->properties.empty())
    return Error(404, "instance_not_found");
  QJsonObject instance{{"$type", "properties"},  {"$parent", Text("folder_" + folder_id)},
                       {"$scope", "global"},     {"$template", "properties"},
                       {"$id", Text(folder_id)}, {"$version", 0},
                       {"$typeVersion", 2},      {"$canEdit", true}};
  for (const auto& property : folder->properties)
    instance.insert(Text(property.first), Text(property.second));
  return JsonResponse(200, instance);
}

HttpResponse BoxDialect::AddProperties(const HttpRequest& request, const std::string& folder_id) {
  std::optional<Item> folder = account().Find(folder_id);
  if (!folder || !folder->IsFolder())
    return Error(404, std::string());
  if (!folder->properties.empty())
    return Error(409, "tuple_already_exists");
  QJsonObject body;
  if (!ParseObject(request.body, &body))
    return ErrorWith(400, "bad_request", "the body is no JSON object");
  for (auto it = body.begin(); it != body.end(); ++it) {
    if (!it.value().isString())
      return ErrorWith(400, "bad_request", "properties are strings");
    account().SetProperty(folder_id, it.key().toStdString(), it.value().toString().toStdString(),
                          nullptr);
  }
  return Properties(folder_id);
}

// --- upload host --------------------------------------------------------------------------

HttpResponse BoxDialect::UploadPost(const HttpRequest& request) {
  std::vector<std::string> s = Segments(request.path, kUpload);
  if (s.size() == 2 && s[0] == "files" && s[1] == "content")
    return UploadFile(request, std::string());
  if (s.size() == 3 && s[0] == "files" && s[2] == "content")
    return UploadFile(request, s[1]);
  if (s.size() == 2 && s[0] == "files" && s[1] == "upload_sessions")
    return CreateSession(request, std::string());
  if (s.size() == 3 && s[0] == "files" && s[2] == "upload_sessions")
    return CreateSession(request, s[1]);
  if (s.size() == 4 && s[0] == "files" && s[1] == "upload_sessions" && s[3] == "commit")
    return Commit(request, s[2]);
  return Error(404, std::string());
}

HttpResponse BoxDialect::UploadFile(const HttpRequest& request, const std::string& target_id) {
  // 1. The form: "attributes" must come before "file".
  std::vector<FormPart> parts = ParseMultipart(request.Header("Content-Type"), request.body);
  QJsonObject attributes;
  if (parts.size() != 2 || parts[0].name != "attributes" || parts[1].name != "file" ||
      !ParseObject(parts[0].data, &attributes)) {
    return ErrorWith(400, "bad_request", "attributes, then file, in multipart/form-data");
  }
  std::optional<std::int64_t> modified = ParseBoxTime(attributes.value("content_modified_at"));
  Item made;
  AccountError error = AccountError::kNone;
  if (target_id.empty()) {
    // 2. A new file.
    QJsonValue parent = attributes.value("parent");
    if (!attributes.value("name").isString() || !parent.isObject() ||
        !parent.toObject().value("id").isString()) {
      return ErrorWith(400, "bad_request", "attributes need name and parent.id");
    }
    std::string name = attributes.value("name").toString().toStdString();
    std::string parent_id = parent.toObject().value("id").toString().toStdString();
    if (std::optional<HttpResponse> refused = CheckNewName(parent_id, name, std::string()))
      return *refused;
    error = account().CreateFile(parent_id, name, parts[1].data, modified.value_or(0), &made);
    if (error != AccountError::kNone)
      return AccountFailure(error, parent_id, name);
  } else {
    // 3. A new version of a file, if it still is the version the caller names.
    std::optional<Item> item = account().Find(target_id);
    if (!item || item->IsFolder() || account().IsInTrash(target_id))
      return Error(404, std::string());
    if (std::optional<HttpResponse> refused = CheckIfMatch(request, *item))
      return *refused;
    error = account().ReplaceContent(target_id, parts[1].data, modified.value_or(0), &made);
    if (error != AccountError::kNone)
      return AccountFailure(error, std::string(), std::string());
  }
  return JsonResponse(
      201, QJsonObject{{"total_count", 1}, {"entries", QJsonArray{ItemJson(made, std::string())}}});
}

HttpResponse BoxDialect::CreateSession(const HttpRequest& request, const std::string& target_id) {
  // 1. The body: numbers as numbers.
  QJsonObject body;
  if (!ParseObject(request.body, &body) || !body.value("file_size").isDouble())
    return ErrorWith(400, "bad_request", "file_size is a required number");
  const std::uint64_t size = static_cast<std::uint64_t>(body.value("file_size").toDouble());
  if (size < kMinSessionSize)
    return ErrorWith(400, "file_size_too_small", "sessions take files from 20000000 bytes on");
  if (size > kMaxUploadSize)
    return Error(413, std::string());
  UploadSpec spec;
  spec.total_size = size;
  spec.granularity = kPartSize;
  if (target_id.empty()) {
    if (!body.value("folder_id").isString() || !body.value("file_name").isString())
      return ErrorWith(400, "bad_request", "folder_id and file_name are required");
    spec.parent_id = body.value("folder_id").toString().toStdString();
    spec.name = body.value("file_name").toString().toStdString();
    if (std::optional<HttpResponse> refused =
            CheckNewName(spec.parent_id, spec.name, std::string()))
      return *refused;
  } else {
    std::optional<Item> item = account().Find(target_id);
    if (!item || item->IsFolder() || account().IsInTrash(target_id))
      return Error(404, std::string());
    spec.target_id = target_id;
  }
  // 2. The session.
  const std::string id = account().OpenUpload(spec);
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto session = std::make_unique<Session>();
    session->file_size = size;
    sessions_[id] = std::move(session);
  }
  const std::string url = SessionUrl(id);
  return JsonResponse(
      201, QJsonObject{{"id", Text(id)},
                       {"type", "upload_session"},
                       {"session_expires_at", Text(BoxTime(account().FindUpload(id)->expires_ms))},
                       {"part_size", static_cast<double>(kPartSize)},
                       {"total_parts", static_cast<double>((size + kPartSize - 1) / kPartSize)},
                       {"num_parts_processed", 0},
                       {"session_endpoints", QJsonObject{{"upload_part", Text(url)},
                                                         {"commit", Text(url + "/commit")},
                                                         {"abort", Text(url)},
                                                         {"list_parts", Text(url + "/parts")},
                                                         {"status", Text(url)},
                                                         {"log_event", Text(url + "/log")}}}});
}

HttpResponse BoxDialect::UploadPart(const HttpRequest& request) {
  // 1. The session, the range and the digest, as Box checks them.
  std::vector<std::string> s = Segments(request.path, kUpload);
  if (s.size() != 3 || s[0] != "files" || s[1] != "upload_sessions")
    return Error(404, std::string());
  const std::string& id = s[2];
  std::lock_guard<std::mutex> lock(mutex_);
  auto found = sessions_.find(id);
  if (found == sessions_.end() || !account().FindUpload(id))
    return Error(404, std::string());
  Session& session = *found->second;
  std::optional<ContentRange> range = ParseContentRange(request.Header("content-range"));
  if (!range || range->total != session.file_size || range->first % kPartSize != 0 ||
      range->last - range->first + 1 != request.body.size() ||
      (request.body.size() != kPartSize && range->last + 1 != session.file_size) ||
      request.body.size() > kPartSize) {
    return ErrorWith(416, "range_not_satisfiable", "the range does not fit the session's parts");
  }
  if (request.Header("digest") != "sha=" + Sha1Base64(request.body))
    return ErrorWith(412, "precondition_failed", "the digest does not match the part");
  // 2. The bytes; a part the server lost is answered as a failure.
  std::uint64_t persisted = 0;
  AccountError error = account().AppendUpload(id, range->first, request.body, &persisted);
  if (error == AccountError::kBadOffset || error == AccountError::kSizeMismatch)
    return ErrorWith(416, "range_not_satisfiable", "parts go in order here");
  if (error != AccountError::kNone)
    return Error(404, std::string());
  if (persisted != range->last + 1)
    return Error(500, std::string());
  session.sha1.Update(request.body.data(), request.body.size());
  if (persisted == session.file_size)
    session.whole_sha1_base64 = HexToBase64(session.sha1.Finish().sha1);
  char part_id[16];
  std::snprintf(part_id, sizeof(part_id), "%08X",
                static_cast<unsigned>(range->first / kPartSize * 2654435761u));
  QJsonObject part{{"part_id", part_id},
                   {"offset", static_cast<double>(range->first)},
                   {"size", static_cast<double>(request.body.size())},
                   {"sha1", Text(ContentHasher::Of(request.body, ContentHasher::kSha1).sha1)}};
  session.parts.push_back(part);
  return JsonResponse(200, QJsonObject{{"part", part}});
}

HttpResponse BoxDialect::ListParts(const std::string& session_id) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto found = sessions_.find(session_id);
  if (found == sessions_.end() || !account().FindUpload(session_id))
    return Error(404, std::string());
  QJsonArray entries;
  for (const QJsonObject& part : found->second->parts)
    entries.append(part);
  return JsonResponse(200, QJsonObject{{"entries", entries},
                                       {"limit", kMaxPageSize},
                                       {"offset", 0},
                                       {"total_count", entries.size()}});
}

HttpResponse BoxDialect::Commit(const HttpRequest& request, const std::string& session_id) {
  // 1. The session, complete, and the whole file's digest.
  std::unique_lock<std::mutex> lock(mutex_);
  auto found = sessions_.find(session_id);
  std::optional<UploadState> state = account().FindUpload(session_id);
  if (found == sessions_.end() || !state)
    return Error(404, std::string());
  Session& session = *found->second;
  if (session.whole_sha1_base64.empty())
    return ErrorWith(400, "bad_request", "the session lacks parts");
  if (request.Header("digest") != "sha=" + session.whole_sha1_base64)
    return ErrorWith(412, "precondition_failed", "the digest does not match the file");
  // 2. The parts list names exactly the parts received, numbers as numbers.
  QJsonObject body;
  if (!ParseObject(request.body, &body) || !body.value("parts").isArray())
    return ErrorWith(400, "bad_request", "parts is required");
  QJsonArray listed = body.value("parts").toArray();
  bool same = static_cast<std::size_t>(listed.size()) == session.parts.size();
  for (int i = 0; same && i < listed.size(); ++i) {
    QJsonObject given = listed[i].toObject();
    const QJsonObject& held = session.parts[i];
    same = given.value("part_id") == held.value("part_id") && given.value("offset").isDouble() &&
           given.value("offset") == held.value("offset") && given.value("size").isDouble() &&
           given.value("size") == held.value("size");
  }
  if (!same)
    return ErrorWith(400, "bad_request", "the parts do not match the uploaded parts");
  // 3. The version check of a new version, then Box's "not yet" on the first try.
  const std::string target = state->spec.target_id;
  if (!target.empty()) {
    std::optional<Item> item = account().Find(target);
    if (!item)
      return Error(404, std::string());
    if (std::optional<HttpResponse> refused = CheckIfMatch(request, *item))
      return *refused;
  }
  if (!session.commit_tried) {
    session.commit_tried = true;
    HttpResponse pending = HttpResponse::Status(202);
    pending.headers = {{"Retry-After", std::to_string(kCommitRetryAfterSeconds)}};
    return pending;
  }
  // 4. The file.
  Item made;
  AccountError error = account().CommitUpload(session_id, &made);
  if (error != AccountError::kNone)
    return AccountFailure(error, state->spec.parent_id, state->spec.name);
  sessions_.erase(found);
  lock.unlock();
  QJsonObject attributes = body.value("attributes").toObject();
  if (std::optional<std::int64_t> modified = ParseBoxTime(attributes.value("content_modified_at")))
    account().SetModified(made.id, *modified, &made);
  return JsonResponse(
      201, QJsonObject{{"total_count", 1}, {"entries", QJsonArray{ItemJson(made, std::string())}}});
}

HttpResponse BoxDialect::Abort(const std::string& session_id) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (sessions_.erase(session_id) == 0)
    return Error(404, std::string());
  account().DropUpload(session_id);
  return HttpResponse::Status(204);
}

}  // namespace

std::unique_ptr<Dialect> MakeBoxDialect() {
  return std::make_unique<BoxDialect>();
}

}  // namespace emulators
