#include "emulators/GoogleDialect.h"

#include <QDateTime>
#include <QJsonArray>
#include <QJsonDocument>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <map>
#include <optional>
#include <vector>

namespace emulators {

namespace {

constexpr const char* kBase = "/drive/v3";
constexpr const char* kUploadBase = "/upload/drive/v3";
// Drive keeps the bytes of an interrupted upload in steps of this size.
constexpr std::uint64_t kUploadGranularity = 256 * 1024;
constexpr std::size_t kDefaultPageSize = 100;  // Drive's own default for files.list
constexpr std::size_t kLargestPageSize = 1000;
// The account keeps an item's "appProperties" among its properties under this prefix.
constexpr const char* kAppPropertyPrefix = "google.app.";

bool HasProperty(const Item& item, const char* key) {
  return item.properties.count(key) > 0;
}

std::string Property(const Item& item, const char* key) {
  auto found = item.properties.find(key);
  return found == item.properties.end() ? std::string() : found->second;
}

std::string MimeType(const Item& item) {
  if (item.IsFolder())
    return GoogleDialect::kFolderMime;
  std::string mime = Property(item, "google.mimeType");
  return mime.empty() ? "application/octet-stream" : mime;
}

bool IsGoogleDocument(const Item& item) {
  return !item.IsFolder() && HasProperty(item, "google.mimeType");
}

bool Visible(const Item& item, const std::string& root_id) {
  return item.id != root_id && !HasProperty(item, "google.hidden");
}

QString Text(const std::string& text) {
  return QString::fromStdString(text);
}

QString Number(std::uint64_t value) {
  return QString::number(static_cast<qulonglong>(value));
}

// The formats Drive exports each kind of document in, as "exportLinks" names them: MIME type and
// the extension its link asks for.
const std::vector<std::pair<const char*, const char*>>& ExportFormats(const std::string& mime) {
  static const std::map<std::string, std::vector<std::pair<const char*, const char*>>> formats = {
      {"application/vnd.google-apps.document",
       {{"application/rtf", "rtf"},
        {"application/vnd.oasis.opendocument.text", "odt"},
        {"application/pdf", "pdf"},
        {"application/vnd.openxmlformats-officedocument.wordprocessingml.document", "docx"},
        {"text/plain", "txt"}}},
      {"application/vnd.google-apps.spreadsheet",
       {{"text/csv", "csv"},
        {"application/pdf", "pdf"},
        {"application/vnd.openxmlformats-officedocument.spreadsheetml.sheet", "xlsx"}}},
      {"application/vnd.google-apps.presentation",
       {{"application/pdf", "pdf"},
        {"application/vnd.openxmlformats-officedocument.presentationml.presentation", "pptx"}}},
      {"application/vnd.google-apps.drawing",
       {{"image/png", "png"}, {"application/pdf", "pdf"}, {"image/jpeg", "jpeg"}}},
  };
  static const std::vector<std::pair<const char*, const char*>> none;
  auto found = formats.find(mime);
  return found == formats.end() ? none : found->second;
}

QJsonObject ExportLinks(const std::string& base_url, const Item& item) {
  QJsonObject links;
  for (const auto& [mime, extension] : ExportFormats(MimeType(item))) {
    links.insert(mime, Text(base_url + "/feeds/download/export/Export?id=" + item.id +
                            "&exportFormat=" + extension));
  }
  return links;
}

// 1. The file resource with every field this emulator knows.
QJsonObject FileResource(const CloudAccount& account, const std::string& base_url,
                         const Item& item) {
  QJsonArray parents;
  if (!HasProperty(item, "google.parentless")) {
    for (const std::string& parent : item.parents)
      parents.append(Text(parent));
  }
  bool owned = !item.shared_with_me;
  std::string link = IsGoogleDocument(item)
                         ? "https://docs.google.com/document/d/" + item.id + "/edit?usp=drivesdk"
                         : base_url + "/file/d/" + item.id + "/view?usp=drivesdk";
  QJsonObject file{
      {"kind", "drive#file"},
      {"id", Text(item.id)},
      {"name", Text(item.name)},
      {"mimeType", Text(MimeType(item))},
      {"parents", parents},
      {"trashed", account.IsInTrash(item.id)},
      {"explicitlyTrashed", item.trashed},
      {"modifiedTime", Text(IsoTime(item.modified_ms))},
      {"createdTime", Text(IsoTime(item.created_ms))},
      {"version", Number(item.revision)},
      {"ownedByMe", owned},
      {"shared", !item.public_link.empty()},
      {"webViewLink", Text(link)},
      {"capabilities", QJsonObject{{"canEdit", owned || HasProperty(item, "google.canEdit")}}}};
  if (IsGoogleDocument(item)) {
    QJsonObject links = ExportLinks(base_url, item);
    if (!links.isEmpty())
      file.insert("exportLinks", links);
    if (HasProperty(item, "google.size"))
      file.insert("size", Text(Property(item, "google.size")));
  }
  if (!item.IsFolder() && !IsGoogleDocument(item)) {
    file.insert("size", Number(item.size));
    if (!HasProperty(item, "google.noMd5"))
      file.insert("md5Checksum", Text(item.digests.md5));
  }
  if (HasProperty(item, "google.resourceKey"))
    file.insert("resourceKey", Text(Property(item, "google.resourceKey")));
  QJsonObject app_properties;
  const std::string prefix = kAppPropertyPrefix;
  for (const auto& [key, value] : item.properties) {
    if (key.compare(0, prefix.size(), prefix) == 0)
      app_properties.insert(Text(key.substr(prefix.size())), Text(value));
  }
  if (!app_properties.isEmpty())
    file.insert("appProperties", app_properties);
  return file;
}

// 2. Partial answers: "files(id, name, capabilities/canEdit), nextPageToken".
struct FieldMask {
  std::map<QString, FieldMask> children;  // empty: the whole value
};

class FieldMaskParser {
 public:
  explicit FieldMaskParser(const QString& text) : text_(text) {}

  bool Parse(FieldMask* mask) { return ParseList(mask) && AtEnd(); }

 private:
  bool ParseList(FieldMask* mask) {
    do {
      if (!ParsePath(mask))
        return false;
    } while (Take(','));
    return true;
  }
  bool ParsePath(FieldMask* mask) {
    QString name = TakeName();
    if (name.isEmpty())
      return false;
    FieldMask& child = mask->children[name];
    if (Take('/'))
      return ParsePath(&child);
    if (Take('('))
      return ParseList(&child) && Take(')');
    return true;
  }
  QString TakeName() {
    SkipSpaces();
    int start = position_;
    while (position_ < text_.size() &&
           (text_[position_].isLetterOrNumber() || text_[position_] == '_')) {
      ++position_;
    }
    return text_.mid(start, position_ - start);
  }
  bool Take(char c) {
    SkipSpaces();
    if (position_ < text_.size() && text_[position_] == c) {
      ++position_;
      return true;
    }
    return false;
  }
  bool AtEnd() {
    SkipSpaces();
    return position_ == text_.size();
  }
  void SkipSpaces() {
    while (position_ < text_.size() && text_[position_].isSpace())
      ++position_;
  }

  QString text_;
  int position_ = 0;
};

QJsonValue ApplyMask(const QJsonValue& value, const FieldMask& mask) {
  if (mask.children.empty())
    return value;
  if (value.isArray()) {
    QJsonArray out;
    for (const QJsonValue& element : value.toArray())
      out.append(ApplyMask(element, mask));
    return out;
  }
  if (!value.isObject())
    return value;
  QJsonObject in = value.toObject();
  QJsonObject out;
  for (const auto& [key, child] : mask.children) {
    if (in.contains(key))
      out.insert(key, ApplyMask(in.value(key), child));
  }
  return out;
}

// 3. The "q" subset.
struct Condition {
  // "parents", "owners", "trashed", "sharedWithMe", "name", "mimeType", "appProperties"
  std::string field;
  std::string op;  // "in", "=", "!=", "contains", "has"
  std::string value;
  std::string key;       // of "appProperties has { key='..' and value='..' }"
  bool negated = false;  // "not" before it
};

struct Query {
  // An expression in disjunctive form: any group whose conditions all hold.
  std::vector<std::vector<Condition>> any_of;
};

class QueryParser {
 public:
  explicit QueryParser(std::string text) : text_(std::move(text)) {}

  bool Parse(Query* query) {
    if (Peek() == '\0')
      return true;
    if (!ParseOr(&query->any_of))
      return false;
    SkipSpaces();
    return position_ == text_.size();
  }

 private:
  using Groups = std::vector<std::vector<Condition>>;

  bool ParseOr(Groups* out) {
    if (!ParseAnd(out))
      return false;
    while (TakeWord("or")) {
      Groups more;
      if (!ParseAnd(&more))
        return false;
      out->insert(out->end(), more.begin(), more.end());
    }
    return true;
  }
  bool ParseAnd(Groups* out) {
    if (!ParseTerm(out))
      return false;
    while (TakeWord("and")) {
      Groups right;
      if (!ParseTerm(&right))
        return false;
      Groups product;
      for (const auto& left_group : *out) {
        for (const auto& right_group : right) {
          std::vector<Condition> both = left_group;
          both.insert(both.end(), right_group.begin(), right_group.end());
          product.push_back(std::move(both));
        }
      }
      *out = std::move(product);
    }
    return true;
  }
  bool ParseTerm(Groups* out) {
    if (TakeChar('(')) {
      return ParseOr(out) && TakeChar(')');
    }
    Condition condition;
    condition.negated = TakeWord("not");
    if (Peek() == '\'') {
      // 'value' in parents | owners
      if (!TakeString(&condition.value) || !TakeWord("in"))
        return false;
      condition.op = "in";
      condition.field = TakeIdentifier();
      if (condition.field != "parents" && condition.field != "owners")
        return false;
    } else {
      condition.field = TakeIdentifier();
      if (condition.field == "trashed" || condition.field == "sharedWithMe") {
        if (!TakeChar('='))
          return false;
        condition.op = "=";
        condition.value = TakeIdentifier();
        if (condition.value != "true" && condition.value != "false")
          return false;
      } else if (condition.field == "appProperties") {
        if (!TakeWord("has") || !ParsePropertyMatch(&condition))
          return false;
        condition.op = "has";
      } else if (condition.field == "name" || condition.field == "mimeType") {
        if (TakeWord("contains")) {
          condition.op = "contains";
        } else if (TakeChar('!')) {
          if (!TakeChar('='))
            return false;
          condition.op = "!=";
        } else if (TakeChar('=')) {
          condition.op = "=";
        } else {
          return false;
        }
        if (!TakeString(&condition.value))
          return false;
      } else {
        return false;
      }
    }
    out->push_back({condition});
    return true;
  }
  // "{ key='..' and value='..' }"
  bool ParsePropertyMatch(Condition* condition) {
    return TakeChar('{') && TakeWord("key") && TakeChar('=') && TakeString(&condition->key) &&
           TakeWord("and") && TakeWord("value") && TakeChar('=') && TakeString(&condition->value) &&
           TakeChar('}');
  }
  char Peek() {
    SkipSpaces();
    return position_ < text_.size() ? text_[position_] : '\0';
  }
  bool TakeChar(char c) {
    if (Peek() != c)
      return false;
    ++position_;
    return true;
  }
  std::string TakeIdentifier() {
    SkipSpaces();
    std::size_t start = position_;
    while (
        position_ < text_.size() &&
        (std::isalnum(static_cast<unsigned char>(text_[position_])) || text_[position_] == '_')) {
      ++position_;
    }
    return text_.substr(start, position_ - start);
  }
  bool TakeWord(const char* word) {
    std::size_t saved = position_;
    if (TakeIdentifier() == word)
      return true;
    position_ = saved;
    return false;
  }
  // A single-quoted string; "\'" and "\\" are its escapes.
  bool TakeString(std::string* value) {
    if (!TakeChar('\''))
      return false;
    value->clear();
    while (position_ < text_.size()) {
      char c = text_[position_++];
      if (c == '\'')
        return true;
      if (c == '\\') {
        if (position_ == text_.size())
          return false;
        c = text_[position_++];
      }
      *value += c;
    }
    return false;
  }
  void SkipSpaces() {
    while (position_ < text_.size() && std::isspace(static_cast<unsigned char>(text_[position_])))
      ++position_;
  }

  std::string text_;
  std::size_t position_ = 0;
};

bool HoldsPlain(const CloudAccount& account, const Item& item, const Condition& condition) {
  if (condition.field == "sharedWithMe")
    return item.shared_with_me == (condition.value == "true");
  if (condition.field == "parents") {
    // "root" stands for the drive's root folder wherever an id is taken.
    const std::string& parent = condition.value == "root" ? account.RootId() : condition.value;
    return std::find(item.parents.begin(), item.parents.end(), parent) != item.parents.end();
  }
  if (condition.field == "owners")
    return condition.value == "me" && !item.shared_with_me;
  if (condition.field == "trashed")
    return account.IsInTrash(item.id) == (condition.value == "true");
  if (condition.field == "appProperties") {
    auto found = item.properties.find(kAppPropertyPrefix + condition.key);
    return found != item.properties.end() && found->second == condition.value;
  }
  const std::string text = condition.field == "name" ? item.name : MimeType(item);
  if (condition.op == "contains")
    return text.find(condition.value) != std::string::npos;
  return (text == condition.value) == (condition.op == "=");
}

bool Holds(const CloudAccount& account, const Item& item, const Condition& condition) {
  return HoldsPlain(account, item, condition) != condition.negated;
}

bool Matches(const CloudAccount& account, const Item& item, const Query& query) {
  if (query.any_of.empty())
    return true;
  for (const auto& group : query.any_of) {
    bool all = std::all_of(group.begin(), group.end(), [&](const Condition& condition) {
      return Holds(account, item, condition);
    });
    if (all)
      return true;
  }
  return false;
}

// 4. Errors as Drive's reference documents them.
struct ErrorText {
  const char* reason;
  const char* message;
};

ErrorText DefaultError(int status) {
  switch (status) {
    case 400:
      return {"badRequest", "Bad Request"};
    case 401:
      return {"authError", "Invalid Credentials"};
    case 403:
      return {"insufficientFilePermissions",
              "The user does not have sufficient permissions for this file."};
    case 404:
      return {"notFound", "File not found: ."};
    case 429:
      return {"rateLimitExceeded", "Rate Limit Exceeded"};
    default:
      return {"backendError", "Backend Error"};
  }
}

const std::map<std::string, std::pair<const char*, const char*>>& KnownErrors() {
  static const std::map<std::string, std::pair<const char*, const char*>> errors = {
      {"userRateLimitExceeded", {"usageLimits", "User Rate Limit Exceeded"}},
      {"rateLimitExceeded", {"usageLimits", "Rate Limit Exceeded"}},
      {"dailyLimitExceeded", {"usageLimits", "Daily Limit Exceeded"}},
      {"invalid", {"global", "Invalid Value"}},
      {"notFound", {"global", "File not found: ."}},
      {"authError", {"global", "Invalid Credentials"}},
      {"required", {"global", "The 'fields' parameter is required for this method."}},
  };
  return errors;
}

HttpResponse InvalidParameter(const GoogleDialect& dialect, const char* parameter) {
  HttpResponse response = dialect.Error(400, "invalid");
  QJsonObject body = QJsonDocument::fromJson(QByteArray::fromStdString(response.body)).object();
  QJsonObject error = body.value("error").toObject();
  QJsonArray errors = error.value("errors").toArray();
  QJsonObject first = errors.at(0).toObject();
  first.insert("location", parameter);
  first.insert("locationType", "parameter");
  errors.replace(0, first);
  error.insert("errors", errors);
  body.insert("error", error);
  return JsonResponse(400, body);
}

// The answer with the "fields" of the request applied; a mask that can't be read is a 400.
HttpResponse Partial(const GoogleDialect& dialect, const HttpRequest& request,
                     const QJsonObject& whole, const char* default_fields) {
  std::string fields = QueryParam(request.query, "fields");
  FieldMask mask;
  if (!FieldMaskParser(Text(fields.empty() ? default_fields : fields)).Parse(&mask))
    return InvalidParameter(dialect, "fields");
  return JsonResponse(200, ApplyMask(whole, mask).toObject());
}

std::size_t PageSize(const std::string& text, std::size_t cap) {
  std::size_t size = text.empty() ? kDefaultPageSize : std::strtoull(text.c_str(), nullptr, 10);
  size = std::min(std::max<std::size_t>(size, 1), kLargestPageSize);
  return std::min(size, std::max<std::size_t>(cap, 1));
}

bool CanEdit(const Item& item) {
  return !item.shared_with_me || HasProperty(item, "google.canEdit");
}

// A request body of JSON; Drive reads a boolean given as the text "true" too.
bool ParseBody(const std::string& body, QJsonObject* object) {
  QJsonParseError error;
  QJsonDocument document = QJsonDocument::fromJson(QByteArray::fromStdString(body), &error);
  if (error.error != QJsonParseError::NoError || !document.isObject())
    return false;
  *object = document.object();
  return true;
}

std::optional<bool> BoolValue(const QJsonValue& value) {
  if (value.isBool())
    return value.toBool();
  if (value.isString() && (value.toString() == "true" || value.toString() == "false"))
    return value.toString() == "true";
  return std::nullopt;
}

std::vector<std::string> SplitIds(const std::string& list) {
  std::vector<std::string> ids;
  std::size_t start = 0;
  while (start < list.size()) {
    std::size_t comma = std::min(list.find(',', start), list.size());
    if (comma > start)
      ids.push_back(list.substr(start, comma - start));
    start = comma + 1;
  }
  return ids;
}

// The folder a new item goes to ("parents" holds at most one); the refusal when it can't.
std::optional<HttpResponse> NewItemParent(const GoogleDialect& dialect, const CloudAccount& account,
                                          const QJsonObject& body, std::string* parent) {
  QJsonArray parents = body.value("parents").toArray();
  if (parents.size() > 1)
    return InvalidParameter(dialect, "parents");
  *parent = parents.isEmpty() ? account.RootId() : parents.at(0).toString().toStdString();
  std::optional<Item> holder = account.Find(*parent);
  if (!holder || !holder->IsFolder() || account.IsInTrash(*parent) ||
      (*parent != account.RootId() && !Visible(*holder, account.RootId()))) {
    return dialect.Error(404, "notFound");
  }
  if (!CanEdit(*holder))
    return dialect.Error(403, "insufficientFilePermissions");
  return std::nullopt;
}

// RFC 3339 text of "modifiedTime"; nullopt when it is no time.
std::optional<std::int64_t> ParseTime(const std::string& text) {
  QDateTime time = QDateTime::fromString(QString::fromStdString(text), Qt::ISODateWithMs);
  if (!time.isValid())
    return std::nullopt;
  return time.toMSecsSinceEpoch();
}

// "Content-Range" of an upload PUT: "bytes */TOTAL" or "bytes */*" asks for the status,
// "bytes FIRST-LAST/TOTAL" carries bytes. A total of "*" is unknown (UINT64_MAX).
struct UploadRange {
  bool query = false;
  std::uint64_t first = 0;
  std::uint64_t last = 0;
  std::uint64_t total = UINT64_MAX;
};

std::optional<UploadRange> ParseUploadRange(const std::string& header) {
  UploadRange range;
  if (header.compare(0, 6, "bytes ") != 0)
    return std::nullopt;
  std::string spec = header.substr(6);
  std::size_t slash = spec.find('/');
  if (slash == std::string::npos)
    return std::nullopt;
  std::string span = spec.substr(0, slash);
  std::string total = spec.substr(slash + 1);
  char* end = nullptr;
  if (total != "*") {
    range.total = std::strtoull(total.c_str(), &end, 10);
    if (total.empty() || *end != '\0')
      return std::nullopt;
  }
  if (span == "*") {
    range.query = true;
    return range;
  }
  std::size_t dash = span.find('-');
  if (dash == std::string::npos)
    return std::nullopt;
  range.first = std::strtoull(span.substr(0, dash).c_str(), &end, 10);
  range.last = std::strtoull(span.substr(dash + 1).c_str(), &end, 10);
  if (range.last < range.first || (range.total != UINT64_MAX && range.last >= range.total))
    return std::nullopt;
  return range;
}

// Drive's ids are opaque; these sort in the order the items were made.
std::string DriveId(std::uint64_t n, ItemKind) {
  char text[32];
  std::snprintf(text, sizeof(text), "1D%010llux", static_cast<unsigned long long>(n));
  return text;
}

}  // namespace

HttpResponse GoogleDialect::Error(int status, const std::string& code) const {
  ErrorText text = DefaultError(status);
  std::string domain = "global";
  std::string reason = code.empty() ? text.reason : code;
  std::string message = text.message;
  auto known = KnownErrors().find(reason);
  if (known != KnownErrors().end()) {
    domain = known->second.first;
    message = known->second.second;
  }
  QJsonObject detail{
      {"domain", Text(domain)}, {"reason", Text(reason)}, {"message", Text(message)}};
  HttpResponse response =
      JsonResponse(status, QJsonObject{{"error", QJsonObject{{"errors", QJsonArray{detail}},
                                                             {"code", status},
                                                             {"message", Text(message)}}}});
  if (status == 401)
    response.headers.emplace_back("WWW-Authenticate",
                                  "Bearer realm=\"https://accounts.google.com/\"");
  return response;
}

std::unique_ptr<CloudAccount> GoogleDialect::MakeAccount() const {
  auto account = std::make_unique<CloudAccount>("0AroOtDriveIdUk9PVA", SameNames::kAllow);
  account->SetIdMaker(DriveId);
  return account;
}

void GoogleDialect::Install(Router& router) {
  const std::string base = kBase;
  router.Handle("GET", base + "/files",
                [this, &router](const HttpRequest& request) { return ListFiles(router, request); });
  router.Handle(
      "GET", base + "/files/",
      [this, &router](const HttpRequest& request) { return GetFile(router, request); },
      RouteOptions{Match::kPrefix});
  router.Handle("GET", base + "/about",
                [this, &router](const HttpRequest& request) { return About(router, request); });
  router.Handle("GET", base + "/changes/startPageToken",
                [this, &router](const HttpRequest&) { return StartPageToken(router); });
  router.Handle("GET", base + "/changes", [this, &router](const HttpRequest& request) {
    return ListChanges(router, request);
  });
  router.Handle("POST", base + "/files", [this, &router](const HttpRequest& request) {
    return CreateFile(router, request);
  });
  for (const char* verb : {"PATCH", "POST", "DELETE"}) {
    router.Handle(
        verb, base + "/files/",
        [this, &router](const HttpRequest& request) { return UpdateFile(router, request); },
        RouteOptions{Match::kPrefix});
  }
  for (const char* verb : {"GET", "HEAD"}) {
    router.Handle(verb, "/feeds/download/export/Export",
                  [this, &router](const HttpRequest& request) {
                    return Export(router, QueryParam(request.query, "id"),
                                  QueryParam(request.query, "exportFormat"));
                  });
  }
  const std::string upload = kUploadBase;
  router.Handle("POST", upload + "/files", [this, &router](const HttpRequest& request) {
    return OpenUploadSession(router, request, std::string());
  });
  router.Handle(
      "PATCH", upload + "/files/",
      [this, &router, upload](const HttpRequest& request) {
        return OpenUploadSession(router, request,
                                 PercentDecode(request.path.substr(upload.size() + 7)));
      },
      RouteOptions{Match::kPrefix});
  // A session's URL is reached without the token, as Drive's are.
  for (Match match : {Match::kExact, Match::kPrefix}) {
    router.Handle(
        "PUT", upload + (match == Match::kExact ? "/files" : "/files/"),
        [this, &router](const HttpRequest& request) { return PutUploadSession(router, request); },
        RouteOptions{match, BodyMode::kStoreBounded, nullptr, false});
  }
  router.Handle("GET", "/drive/v2/files", [this, &router](const HttpRequest& request) {
    return ListRecentFiles(router, request);
  });
  router.Handle(
      "POST", kDemoPath,
      [&router](const HttpRequest&) {
        SeedDemoDrive(router.account());
        return HttpResponse::Status(204);
      },
      RouteOptions{Match::kExact, BodyMode::kStore, nullptr, false});
}

HttpResponse GoogleDialect::ListFiles(Router& router, const HttpRequest& request) const {
  const CloudAccount& account = router.account();
  // 1. What is asked.
  Query query;
  if (!QueryParser(QueryParam(request.query, "q")).Parse(&query))
    return InvalidParameter(*this, "q");
  std::string order = QueryParam(request.query, "orderBy");
  if (!order.empty() && order != "folder")
    return InvalidParameter(*this, "orderBy");
  std::size_t page_size = PageSize(QueryParam(request.query, "pageSize"), max_page_size_);
  std::string token = QueryParam(request.query, "pageToken");
  bool announced = !token.empty() && token[0] == 'e';
  std::size_t offset = 0;
  if (!token.empty()) {
    char* end = nullptr;
    offset = std::strtoull(token.c_str() + 1, &end, 10);
    if ((token[0] != 'p' && token[0] != 'e') || *end != '\0')
      return InvalidParameter(*this, "pageToken");
  }
  // 2. The matching files, in the order they were made, folders first when asked; the next page
  //    of an unchanged account takes them from the last one.
  const std::string key = QueryParam(request.query, "q") + '\n' + order;
  std::shared_ptr<const std::vector<Item>> kept;
  {
    std::lock_guard<std::mutex> lock(listing_mutex_);
    if (listing_.items && listing_.query == key && listing_.sequence == account.Sequence())
      kept = listing_.items;
  }
  if (!kept) {
    // The sequence is read first: a change made meanwhile lists again on the next page.
    const std::uint64_t sequence = account.Sequence();
    std::vector<Item> matching;
    for (Item& item : account.AllItems()) {
      if (Visible(item, account.RootId()) && Matches(account, item, query))
        matching.push_back(std::move(item));
    }
    std::sort(matching.begin(), matching.end(), [&](const Item& a, const Item& b) {
      if (order == "folder" && a.IsFolder() != b.IsFolder())
        return a.IsFolder();
      return a.id < b.id;
    });
    kept = std::make_shared<const std::vector<Item>>(std::move(matching));
    std::lock_guard<std::mutex> lock(listing_mutex_);
    listing_ = Listing{key, sequence, kept};
  }
  const std::vector<Item>& items = *kept;
  // 3. One page of them, or the empty page that comes first.
  QJsonObject list{{"kind", "drive#fileList"}, {"incompleteSearch", false}};
  QJsonArray files;
  if (empty_pages_ && !announced && offset < items.size()) {
    list.insert("nextPageToken", Text("e" + std::to_string(offset)));
  } else {
    std::size_t end = std::min(items.size(), offset + page_size);
    for (std::size_t i = offset; i < end; ++i)
      files.append(FileResource(account, router.BaseUrl(), items[i]));
    if (end < items.size())
      list.insert("nextPageToken", Text("p" + std::to_string(end)));
  }
  list.insert("files", files);
  return Partial(*this, request, list,
                 "kind,incompleteSearch,nextPageToken,files(kind,id,name,mimeType)");
}

HttpResponse GoogleDialect::GetFile(Router& router, const HttpRequest& request) const {
  const CloudAccount& account = router.account();
  std::string id = PercentDecode(request.path.substr(std::string(kBase).size() + 7));
  const std::string export_suffix = "/export";
  if (id.size() > export_suffix.size() &&
      id.compare(id.size() - export_suffix.size(), export_suffix.size(), export_suffix) == 0) {
    id.resize(id.size() - export_suffix.size());
    std::string mime = QueryParam(request.query, "mimeType");
    std::optional<Item> item = account.Find(id);
    for (const auto& [known, extension] :
         item ? ExportFormats(MimeType(*item)) : ExportFormats(std::string())) {
      if (mime == known)
        return Export(router, id, extension);
    }
    return InvalidParameter(*this, "mimeType");
  }
  if (id == "root")
    id = account.RootId();
  std::optional<Item> item = account.Find(id);
  if (id.empty() || id.find('/') != std::string::npos || !item ||
      (id != account.RootId() && !Visible(*item, account.RootId()))) {
    HttpResponse missing = Error(404, "notFound");
    return missing;
  }
  if (QueryParam(request.query, "alt") == "media")
    return Media(router, *item, request);
  QJsonObject file = FileResource(account, router.BaseUrl(), *item);
  if (id == account.RootId()) {
    file.insert("name", "My Drive");
    file.remove("parents");
  }
  return Partial(*this, request, file, "kind,id,name,mimeType");
}

HttpResponse GoogleDialect::About(Router& router, const HttpRequest& request) const {
  // about.get names its fields or is refused.
  if (QueryParam(request.query, "fields").empty()) {
    HttpResponse refused = Error(400, "required");
    return refused;
  }
  const CloudAccount& account = router.account();
  std::uint64_t used = account.UsedSpace();
  std::uint64_t trashed = 0;
  std::uint64_t shared = 0;
  for (const Item& item : account.AllItems()) {
    if (item.IsFolder())
      continue;
    if (account.IsInTrash(item.id))
      trashed += item.size;
    if (item.shared_with_me)
      shared += item.size;
  }
  QJsonObject quota{{"limit", Number(account.TotalSpace())},
                    {"usage", Number(used)},
                    {"usageInDrive", Number(used - shared)},
                    {"usageInDriveTrash", Number(trashed)}};
  QJsonObject about{{"kind", "drive#about"},
                    {"storageQuota", quota},
                    {"maxUploadSize", Number(5497558138880ull)},
                    {"user", QJsonObject{{"kind", "drive#user"}, {"me", true}}}};
  return Partial(*this, request, about, "kind");
}

HttpResponse GoogleDialect::StartPageToken(Router& router) const {
  return JsonResponse(200,
                      QJsonObject{{"kind", "drive#startPageToken"},
                                  {"startPageToken", Number(router.account().Sequence() + 1)}});
}

HttpResponse GoogleDialect::ListChanges(Router& router, const HttpRequest& request) const {
  const CloudAccount& account = router.account();
  // 1. The token: the first journal sequence not yet seen.
  std::string token = QueryParam(request.query, "pageToken");
  char* end = nullptr;
  std::uint64_t from = std::strtoull(token.c_str(), &end, 10);
  if (token.empty() || *end != '\0' || from == 0 || from <= account.ForgottenUpTo() ||
      from > account.Sequence() + 1) {
    return InvalidParameter(*this, "pageToken");
  }
  std::size_t page_size = PageSize(QueryParam(request.query, "pageSize"), max_page_size_);
  // 2. One entry per file, its state now, in the order of its last change.
  std::vector<JournalEntry> entries = account.ChangesSince(from - 1, SIZE_MAX);
  std::map<std::string, std::uint64_t> last_of;
  for (const JournalEntry& entry : entries)
    last_of[entry.item.id] = entry.sequence;
  QJsonArray changes;
  std::uint64_t next = account.Sequence() + 1;
  std::size_t count = 0;
  for (const JournalEntry& entry : entries) {
    if (last_of[entry.item.id] != entry.sequence || entry.item.id == account.RootId())
      continue;
    if (count == page_size) {
      next = entry.sequence;
      break;
    }
    std::optional<Item> now = account.Find(entry.item.id);
    if (now && !Visible(*now, account.RootId()))
      continue;
    QJsonObject change{{"kind", "drive#change"},
                       {"changeType", "file"},
                       {"fileId", Text(entry.item.id)},
                       {"time", Text(IsoTime(now ? now->modified_ms : entry.item.modified_ms))},
                       {"removed", !now}};
    if (now)
      change.insert("file", FileResource(account, router.BaseUrl(), *now));
    changes.append(change);
    ++count;
  }
  QJsonObject list{{"kind", "drive#changeList"}, {"changes", changes}};
  list.insert(next <= account.Sequence() ? "nextPageToken" : "newStartPageToken", Number(next));
  return Partial(*this, request, list,
                 "kind,nextPageToken,newStartPageToken,changes(kind,changeType,time,removed,fileId,"
                 "file(kind,id,name,mimeType))");
}

HttpResponse GoogleDialect::CreateFile(Router& router, const HttpRequest& request) const {
  CloudAccount& account = router.account();
  // 1. What is asked: a folder, or a file without bytes.
  QJsonObject body;
  if (!ParseBody(request.body, &body))
    return Error(400, "parseError");
  std::string name = body.value("name").toString().toStdString();
  std::string parent;
  if (std::optional<HttpResponse> refused = NewItemParent(*this, account, body, &parent))
    return *refused;
  // 2. The item.
  Item made;
  AccountError error = body.value("mimeType").toString() == kFolderMime
                           ? account.CreateFolder(parent, name, &made)
                           : account.CreateFile(parent, name, std::string(), 0, &made);
  if (error != AccountError::kNone)
    return InvalidParameter(*this, "name");
  return Partial(*this, request, FileResource(account, router.BaseUrl(), made),
                 "kind,id,name,mimeType");
}

HttpResponse GoogleDialect::UpdateFile(Router& router, const HttpRequest& request) const {
  CloudAccount& account = router.account();
  // 1. "ID", "ID/permissions" or "ID/permissions/PERMISSION".
  std::vector<std::string> parts;
  std::string rest = request.path.substr(std::string(kBase).size() + 7);
  for (std::size_t start = 0; start <= rest.size();) {
    std::size_t slash = std::min(rest.find('/', start), rest.size());
    parts.push_back(PercentDecode(rest.substr(start, slash - start)));
    start = slash + 1;
  }
  std::optional<Item> item = account.Find(parts[0]);
  if (!item || !Visible(*item, account.RootId()))
    return Error(404, "notFound");
  if (parts.size() == 2 && parts[1] == "permissions" && request.verb == "POST")
    return CreatePermission(router, item->id, request);
  if (parts.size() == 3 && parts[1] == "permissions" && request.verb == "DELETE")
    return DeletePermission(router, item->id, parts[2]);
  if (parts.size() != 1 || request.verb != "PATCH")
    return Error(404, "notFound");
  if (!CanEdit(*item))
    return Error(403, "insufficientFilePermissions");
  // 2. The metadata of the body.
  QJsonObject body;
  if (!request.body.empty() && !ParseBody(request.body, &body))
    return Error(400, "parseError");
  std::optional<bool> trashed;
  if (body.contains("trashed")) {
    trashed = BoolValue(body.value("trashed"));
    if (!trashed)
      return InvalidParameter(*this, "trashed");
  }
  std::string name = body.contains("name") ? body.value("name").toString().toStdString() : "";
  QJsonValue app_properties = body.value("appProperties");
  if (!app_properties.isUndefined() && !app_properties.isObject())
    return InvalidParameter(*this, "appProperties");
  for (const QJsonValue& value : app_properties.toObject()) {
    if (!value.isString() && !value.isNull())
      return InvalidParameter(*this, "appProperties");
  }
  // 3. The parents of the query.
  std::vector<std::string> added = SplitIds(QueryParam(request.query, "addParents"));
  std::vector<std::string> removed = SplitIds(QueryParam(request.query, "removeParents"));
  std::vector<std::string> parents;
  for (const std::string& parent : item->parents) {
    if (std::find(removed.begin(), removed.end(), parent) == removed.end())
      parents.push_back(parent);
  }
  for (const std::string& parent : added) {
    std::optional<Item> holder = account.Find(parent);
    if (!holder || !holder->IsFolder())
      return Error(404, "notFound");
    parents.push_back(parent);
  }
  if (parents.size() > 1)
    return Error(403, "cannotAddParent");
  // 4. The changes, each in the journal.
  AccountError error = AccountError::kNone;
  if (!added.empty() || !removed.empty()) {
    error = account.Move(item->id, parents, name, nullptr);
  } else if (!name.empty()) {
    error = account.Rename(item->id, name, nullptr);
  }
  if (error == AccountError::kNone && trashed && *trashed != item->trashed) {
    error = *trashed ? account.Trash(item->id, nullptr) : account.Restore(item->id, nullptr);
  }
  std::string modified = body.value("modifiedTime").toString().toStdString();
  if (error == AccountError::kNone && !modified.empty()) {
    std::optional<std::int64_t> time = ParseTime(modified);
    if (!time)
      return InvalidParameter(*this, "modifiedTime");
    error = account.SetModified(item->id, *time, nullptr);
  }
  const QJsonObject merged = app_properties.toObject();
  for (auto it = merged.begin(); error == AccountError::kNone && it != merged.end(); ++it) {
    error = account.SetProperty(item->id, kAppPropertyPrefix + it.key().toStdString(),
                                it.value().toString().toStdString(), nullptr);
  }
  if (error == AccountError::kCycle)
    return Error(403, "cannotMoveFolderIntoItself");
  if (error != AccountError::kNone)
    return InvalidParameter(*this, "name");
  return Partial(*this, request, FileResource(account, router.BaseUrl(), *account.Find(item->id)),
                 "kind,id,name,mimeType");
}

HttpResponse GoogleDialect::CreatePermission(Router& router, const std::string& id,
                                             const HttpRequest& request) const {
  CloudAccount& account = router.account();
  QJsonObject body;
  if (!ParseBody(request.body, &body))
    return Error(400, "parseError");
  std::string type = body.value("type").toString().toStdString();
  std::string role = body.value("role").toString().toStdString();
  if (type != "anyone" || (role != "reader" && role != "commenter" && role != "writer"))
    return InvalidParameter(*this, "permission.type");
  if (!CanEdit(*account.Find(id)))
    return Error(403, "insufficientFilePermissions");
  account.SetPublicLink(id, router.BaseUrl() + "/file/d/" + id + "/view?usp=sharing", nullptr);
  return JsonResponse(200, QJsonObject{{"kind", "drive#permission"},
                                       {"id", "anyoneWithLink"},
                                       {"type", Text(type)},
                                       {"role", Text(role)},
                                       {"allowFileDiscovery", false}});
}

HttpResponse GoogleDialect::DeletePermission(Router& router, const std::string& id,
                                             const std::string& permission) const {
  CloudAccount& account = router.account();
  std::optional<Item> item = account.Find(id);
  if (permission != "anyoneWithLink" || item->public_link.empty())
    return Error(404, "notFound");
  if (!CanEdit(*item))
    return Error(403, "insufficientFilePermissions");
  account.SetPublicLink(id, std::string(), nullptr);
  return HttpResponse::Status(204);
}

HttpResponse GoogleDialect::ListRecentFiles(Router& router, const HttpRequest& request) const {
  const CloudAccount& account = router.account();
  // 1. The v2 parameters: "maxResults" up to 1000, "orderBy" of the recency key.
  std::string order = QueryParam(request.query, "orderBy");
  if (!order.empty() && order != "recency" && order != "recency desc")
    return InvalidParameter(*this, "orderBy");
  std::string max_text = QueryParam(request.query, "maxResults");
  std::size_t max_results = max_text.empty() ? 100 : std::strtoull(max_text.c_str(), nullptr, 10);
  if (max_results == 0 || max_results > kLargestPageSize)
    return InvalidParameter(*this, "maxResults");
  // 2. Every visible item, newest first when asked so.
  std::vector<Item> items;
  for (Item& item : account.AllItems()) {
    if (Visible(item, account.RootId()))
      items.push_back(std::move(item));
  }
  bool newest_first = order == "recency desc";
  std::stable_sort(items.begin(), items.end(), [newest_first](const Item& a, const Item& b) {
    return newest_first ? a.modified_ms > b.modified_ms : a.modified_ms < b.modified_ms;
  });
  // 3. The v2 file resources.
  QJsonArray out;
  for (std::size_t i = 0; i < items.size() && i < max_results; ++i) {
    const Item& item = items[i];
    QJsonObject file{{"kind", "drive#file"},
                     {"id", Text(item.id)},
                     {"title", Text(item.name)},
                     {"mimeType", Text(MimeType(item))},
                     {"modifiedDate", Text(IsoTime(item.modified_ms))},
                     {"labels", QJsonObject{{"trashed", account.IsInTrash(item.id)}}}};
    if (!item.IsFolder() && !IsGoogleDocument(item)) {
      file.insert("fileSize", Number(item.size));
      file.insert("thumbnailLink", Text(router.BaseUrl() + "/thumbnail?id=" + item.id));
    }
    out.append(file);
  }
  return JsonResponse(200, QJsonObject{{"kind", "drive#fileList"}, {"items", out}});
}

std::string GoogleDialect::ExportedBytes(const std::string& id, const std::string& extension) {
  std::string line = extension + " export of " + id + "\n";
  std::string bytes;
  for (int i = 0; i < 200; ++i)
    bytes += std::to_string(i) + " " + line;
  return bytes;
}

HttpResponse GoogleDialect::Export(Router& router, const std::string& id,
                                   const std::string& extension) const {
  std::optional<Item> item = router.account().Find(id);
  if (!item || !Visible(*item, router.account().RootId()) || !IsGoogleDocument(*item))
    return Error(404, "notFound");
  for (const auto& format : ExportFormats(MimeType(*item))) {
    if (extension == format.second)
      return HttpResponse::Status(200, ExportedBytes(id, extension));
  }
  return InvalidParameter(*this, "exportFormat");
}

HttpResponse GoogleDialect::Media(Router&, const Item& item, const HttpRequest& request) const {
  if (item.IsFolder() || IsGoogleDocument(item))
    return Error(403, "fileNotDownloadable");
  return ContentResponse(item, request.Header("Range"));
}

HttpResponse GoogleDialect::OpenUploadSession(Router& router, const HttpRequest& request,
                                              const std::string& target_id) const {
  CloudAccount& account = router.account();
  // 1. Only the resumable protocol is served, with the file's metadata in the body.
  if (QueryParam(request.query, "uploadType") != "resumable")
    return InvalidParameter(*this, "uploadType");
  QJsonObject body;
  if (!request.body.empty() && !ParseBody(request.body, &body))
    return Error(400, "parseError");
  UploadSpec spec;
  spec.granularity = kUploadGranularity;
  spec.lifetime_ms = 7 * 24 * 3600 * 1000LL;
  std::string modified = body.value("modifiedTime").toString().toStdString();
  if (!modified.empty()) {
    std::optional<std::int64_t> time = ParseTime(modified);
    if (!time)
      return InvalidParameter(*this, "modifiedTime");
    spec.modified_ms = *time;
  }
  std::string length = request.Header("X-Upload-Content-Length");
  if (!length.empty())
    spec.total_size = std::strtoull(length.c_str(), nullptr, 10);
  // 2. Where the bytes go: a new file in its folder, or a new version of one.
  if (target_id.empty()) {
    spec.name = body.value("name").toString().toStdString();
    if (std::optional<HttpResponse> refused = NewItemParent(*this, account, body, &spec.parent_id))
      return *refused;
  } else {
    std::optional<Item> item = account.Find(target_id);
    if (!item || item->IsFolder() || !Visible(*item, account.RootId()))
      return Error(404, "notFound");
    if (!CanEdit(*item) || IsGoogleDocument(*item))
      return Error(403, "insufficientFilePermissions");
    spec.target_id = target_id;
  }
  // 3. The session, named by its URL.
  std::string session = account.OpenUpload(spec);
  {
    std::lock_guard<std::mutex> lock(uploads_mutex_);
    uploads_[session].fields = QueryParam(request.query, "fields");
  }
  HttpResponse response = HttpResponse::Status(200);
  response.headers.emplace_back("Location", router.BaseUrl() + kUploadBase +
                                                "/files?uploadType=resumable&upload_id=" + session);
  return response;
}

HttpResponse GoogleDialect::PutUploadSession(Router& router, const HttpRequest& request) const {
  CloudAccount& account = router.account();
  // 1. The session: finished ones answer with their file, forgotten ones are gone.
  std::string session = QueryParam(request.query, "upload_id");
  bool finished = false;
  {
    std::lock_guard<std::mutex> lock(uploads_mutex_);
    auto known = uploads_.find(session);
    finished = known != uploads_.end() && !known->second.file_id.empty();
  }
  if (finished)
    return FinishedUpload(router, session);
  std::optional<UploadState> state = account.FindUpload(session);
  if (!state)
    return Error(404, "notFound");
  // 2. What the PUT carries; without "Content-Range" it is the whole file.
  std::string header = request.Header("Content-Range");
  UploadRange range;
  range.total = request.body_size;
  range.last = request.body_size == 0 ? 0 : request.body_size - 1;
  if (!header.empty()) {
    std::optional<UploadRange> parsed = ParseUploadRange(header);
    if (!parsed || (!parsed->query && parsed->last - parsed->first + 1 != request.body_size))
      return Error(400, "badContentRange");
    range = *parsed;
  }
  if (range.total != UINT64_MAX && range.total != state->spec.total_size) {
    if (state->spec.total_size != UINT64_MAX || range.total < state->persisted)
      return Error(400, "badContentRange");
    UploadSpec spec = state->spec;
    spec.total_size = range.total;
    account.RetargetUpload(session, spec);
    state->spec.total_size = range.total;
  }
  // 3. A body too large to keep comes whole from the start, and is taken by its digests.
  if (!range.query && request.body.size() != request.body_size) {
    if (range.first != 0 || state->persisted != 0 || request.body_size != state->spec.total_size)
      return Error(400, "badContentRange");
    return FinishByDigests(router, session, *state, request.body_digests);
  }
  // 4. The bytes; a piece that starts elsewhere than the session stands is told where it does.
  if (!range.query && request.body_size > 0) {
    std::uint64_t persisted = 0;
    AccountError error = account.AppendUpload(session, range.first, request.body, &persisted);
    if (error == AccountError::kSizeMismatch)
      return Error(400, "badContentRange");
    if (error == AccountError::kSessionMissing)
      return Error(404, "notFound");
    state->persisted = persisted;
  }
  if (state->spec.total_size == UINT64_MAX || state->persisted < state->spec.total_size)
    return UploadProgress(router, session);
  // 5. All of it: the file.
  Item made;
  if (account.CommitUpload(session, &made) != AccountError::kNone)
    return Error(404, "notFound");
  {
    std::lock_guard<std::mutex> lock(uploads_mutex_);
    uploads_[session].file_id = made.id;
  }
  return FinishedUpload(router, session);
}

HttpResponse GoogleDialect::FinishByDigests(Router& router, const std::string& session,
                                            const UploadState& state,
                                            const ContentDigests& digests) const {
  CloudAccount& account = router.account();
  const UploadSpec& spec = state.spec;
  Item made;
  AccountError error = spec.target_id.empty()
                           ? account.CreateFileByDigests(spec.parent_id, spec.name, spec.total_size,
                                                         digests, spec.modified_ms, &made)
                           : account.ReplaceByDigests(spec.target_id, spec.total_size, digests,
                                                      spec.modified_ms, &made);
  account.DropUpload(session);
  if (error != AccountError::kNone)
    return Error(404, "notFound");
  {
    std::lock_guard<std::mutex> lock(uploads_mutex_);
    uploads_[session].file_id = made.id;
  }
  return FinishedUpload(router, session);
}

HttpResponse GoogleDialect::UploadProgress(Router& router, const std::string& session) const {
  std::optional<UploadState> state = router.account().FindUpload(session);
  HttpResponse response = HttpResponse::Status(308);
  if (state && state->persisted > 0)
    response.headers.emplace_back("Range", "bytes=0-" + std::to_string(state->persisted - 1));
  return response;
}

HttpResponse GoogleDialect::FinishedUpload(Router& router, const std::string& session) const {
  std::string fields;
  std::string id;
  {
    std::lock_guard<std::mutex> lock(uploads_mutex_);
    fields = uploads_[session].fields;
    id = uploads_[session].file_id;
  }
  std::optional<Item> item = router.account().Find(id);
  if (!item)
    return Error(404, "notFound");
  HttpRequest answer_of;
  answer_of.query = fields.empty() ? std::string() : "fields=" + fields;
  return Partial(*this, answer_of, FileResource(router.account(), router.BaseUrl(), *item),
                 "kind,id,name,mimeType");
}

void GoogleDialect::SeedDemoDrive(CloudAccount& account) {
  const std::string root = account.RootId();
  auto folder = [&account](const std::string& parent, const std::string& name) {
    Item made;
    account.CreateFolder(parent, name, &made);
    return made;
  };
  auto file = [&account](const std::string& parent, const std::string& name,
                         const std::string& content) {
    Item made;
    account.CreateFile(parent, name, content, 1700000000000, &made);
    return made;
  };
  // 1. Plain folders and files, a root with an apostrophe and non-ASCII letters.
  Item docs = folder(root, "Docs");
  file(docs.id, "readme.txt", "read me first\n");
  file(docs.id, "empty.bin", std::string());
  Item quoted = folder(root, "Jane's Åpfel");
  Item deeper = folder(quoted.id, "Ünder");
  file(deeper.id, "notes.md", "# notes\n");
  // 2. Same names, and a file beside a folder of its name.
  file(docs.id, "twin.txt", "first twin");
  file(docs.id, "twin.txt", "second twin");
  folder(docs.id, "clash");
  file(docs.id, "clash", "a file named like the folder");
  // 3. Two parents: listed under the first.
  Item photos = folder(root, "Photos");
  Item both = file(photos.id, "both.jpg", "in two folders");
  account.Move(both.id, {photos.id, docs.id}, std::string(), nullptr);
  // 4. A folder listed long before the folder that holds it.
  Item early = folder(root, "early");
  file(early.id, "inside-early.txt", "adopted");
  Item late = folder(root, "late");
  account.Move(early.id, {late.id}, std::string(), nullptr);
  // 5. Odd items: no MD5, an owned file without parent, a Google document, a resource key.
  Item no_md5 = file(docs.id, "no-md5.dat", "no digest given");
  account.SetProperty(no_md5.id, "google.noMd5", "1", nullptr);
  Item parentless = file(root, "parentless.txt", "owned but nowhere");
  account.SetProperty(parentless.id, "google.parentless", "1", nullptr);
  Item report = file(docs.id, "Report", std::string());
  account.SetProperty(report.id, "google.mimeType", "application/vnd.google-apps.document",
                      nullptr);
  Item keyed = file(docs.id, "keyed.pdf", "%PDF-1.4 keyed");
  account.SetProperty(keyed.id, "google.resourceKey", "0-keyOfKeyed", nullptr);
  // 6. Shared with the account: one without a visible parent, and an orphan whose parent is
  // someone else's folder the account can't see.
  Item gift = file(root, "gift.txt", "shared with me");
  account.SetProperty(gift.id, "google.parentless", "1", nullptr);
  account.SetSharedWithMe(gift.id, true, nullptr);
  Item foreign = folder(root, "someone else's");
  account.SetProperty(foreign.id, "google.hidden", "1", nullptr);
  Item orphan = file(foreign.id, "orphan.txt", "parent not visible");
  account.SetSharedWithMe(orphan.id, true, nullptr);
}

std::unique_ptr<Dialect> MakeGoogleDialect() {
  return std::make_unique<GoogleDialect>();
}

}  // namespace emulators
