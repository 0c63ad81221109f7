#include "emulators/DropboxDialect.h"

#include <zlib.h>

#include <QByteArray>
#include <QDateTime>
#include <QJsonArray>
#include <QJsonDocument>
#include <QString>
#include <QUrl>

#include <chrono>
#include <thread>

namespace emulators {

namespace {

constexpr char kJson[] = "application/json";
constexpr char kCursorPrefix[] = "AAH";
constexpr int kMaxNameBytes = 255;

std::string Lower(const std::string& text) {
  return QString::fromStdString(text).toLower().toStdString();
}

HttpResponse JsonAnswer(int status, const QJsonValue& body) {
  HttpResponse response;
  response.status = status;
  response.headers = {{"Content-Type", kJson}};
  if (body.isObject()) {
    response.body = QJsonDocument(body.toObject()).toJson(QJsonDocument::Compact).toStdString();
  } else {
    response.body = "null";
  }
  return response;
}

HttpResponse TextAnswer(int status, const std::string& text, const char* type = "text/plain") {
  HttpResponse response = HttpResponse::Status(status, text);
  response.headers = {{"Content-Type", type}};
  return response;
}

// "path/not_found" -> {".tag":"path","path":{".tag":"not_found"}}
QJsonObject TaggedError(const std::string& code) {
  std::size_t slash = code.find('/');
  QString tag = QString::fromStdString(code.substr(0, slash));
  QJsonObject error{{".tag", tag}};
  if (slash != std::string::npos)
    error.insert(tag, TaggedError(code.substr(slash + 1)));
  return error;
}

HttpResponse EndpointError(const std::string& code) {
  return JsonAnswer(409, QJsonObject{{"error_summary", QString::fromStdString(code + "/..")},
                                     {"error", TaggedError(code)}});
}

HttpResponse BadInput(const std::string& function, const std::string& why) {
  return TextAnswer(400, "Error in call to API function \"" + function + "\": " + why);
}

// JSON for a header: every character above 0x7E as \uXXXX, as Dropbox documents for its headers.
std::string HeaderSafeJson(const QJsonObject& object) {
  QString text = QString::fromUtf8(QJsonDocument(object).toJson(QJsonDocument::Compact));
  std::string out;
  for (QChar c : text) {
    if (c.unicode() < 0x7F) {
      out += static_cast<char>(c.unicode());
    } else {
      out += QString("\\u%1").arg(c.unicode(), 4, 16, QChar('0')).toStdString();
    }
  }
  return out;
}

bool HasRawNonAscii(const std::string& text) {
  for (unsigned char c : text) {
    if (c >= 0x80)
      return true;
  }
  return false;
}

// An RPC body: a JSON object, or nothing ("null" or empty) for a call without arguments.
bool ReadRpcArgs(const HttpRequest& request, const std::string& function, QJsonObject* args,
                 HttpResponse* refusal) {
  if (request.body.empty() || request.body == "null")
    return true;
  if (request.Header("Content-Type").compare(0, 16, kJson) != 0) {
    *refusal =
        BadInput(function, "Bad HTTP \"Content-Type\" header: \"" + request.Header("Content-Type") +
                               "\".  Expecting one of \"application/json\".");
    return false;
  }
  QJsonDocument document = QJsonDocument::fromJson(QByteArray::fromStdString(request.body));
  if (!document.isObject()) {
    *refusal = BadInput(function, "request body: could not decode input as JSON");
    return false;
  }
  *args = document.object();
  return true;
}

// A content call's arguments: the "Dropbox-API-Arg" header, or the "arg" query parameter of a GET.
bool ReadContentArgs(const HttpRequest& request, const std::string& function, QJsonObject* args,
                     HttpResponse* refusal) {
  std::string text = request.Header("Dropbox-API-Arg");
  if (text.empty())
    text = QueryParam(request.query, "arg");
  else if (HasRawNonAscii(text)) {
    *refusal =
        BadInput(function, "HTTP header \"Dropbox-API-Arg\": could not decode input as JSON");
    return false;
  }
  QJsonDocument document = QJsonDocument::fromJson(QByteArray::fromStdString(text));
  if (!document.isObject()) {
    *refusal =
        BadInput(function, "HTTP header \"Dropbox-API-Arg\": could not decode input as JSON");
    return false;
  }
  *args = document.object();
  return true;
}

std::string Text(const QJsonObject& args, const char* key) {
  return args.value(key).toString().toStdString();
}

std::string IsoSeconds(std::int64_t ms) {
  return QDateTime::fromMSecsSinceEpoch(ms, Qt::UTC).toString("yyyy-MM-ddTHH:mm:ssZ").toStdString();
}

std::string Rev(const Item& item) {
  std::string rev = QString("%1").arg(item.revision, 9, 16, QChar('0')).toStdString();
  for (char c : item.id) {
    if (std::isdigit(static_cast<unsigned char>(c)))
      rev += c;
  }
  return rev;
}

// "" (the root) or "/a/b" with proper segments; "/" alone is not the root's name here.
bool IsWellFormed(const std::string& path) {
  if (path.empty())
    return true;
  if (path[0] != '/' || path.back() == '/')
    return false;
  std::size_t start = 1;
  while (start <= path.size()) {
    std::size_t end = path.find('/', start);
    if (end == std::string::npos)
      end = path.size();
    std::string segment = path.substr(start, end - start);
    if (segment.empty() || segment == "." || segment == ".." ||
        segment.find('\0') != std::string::npos || segment.size() > kMaxNameBytes) {
      return false;
    }
    start = end + 1;
  }
  return true;
}

std::string ParentOf(const std::string& path) {
  return path.substr(0, path.rfind('/'));
}

std::string NameOf(const std::string& path) {
  return path.substr(path.rfind('/') + 1);
}

bool IsUnder(const std::string& lower_path, const std::string& lower_root) {
  return lower_root.empty() || lower_path == lower_root ||
         lower_path.compare(0, lower_root.size() + 1, lower_root + "/") == 0;
}

enum class Lookup { kFound, kNotFound, kNotFolder, kMalformed };

// Walks a Dropbox path without regard to case; `create` makes the missing folders.
Lookup Resolve(CloudAccount& account, const std::string& path, Item* out, bool create = false) {
  if (path.compare(0, 3, "id:") == 0) {
    std::optional<Item> item = account.Find(path);
    if (!item || account.IsInTrash(item->id))
      return Lookup::kNotFound;
    *out = *item;
    return Lookup::kFound;
  }
  if (!IsWellFormed(path))
    return Lookup::kMalformed;
  Item current = *account.Find(account.RootId());
  std::size_t start = 1;
  while (start <= path.size() && !path.empty()) {
    std::size_t end = path.find('/', start);
    if (end == std::string::npos)
      end = path.size();
    if (!current.IsFolder())
      return Lookup::kNotFolder;
    std::string name = path.substr(start, end - start);
    std::optional<Item> child = account.ChildByName(current.id, name, true);
    if (!child && create && account.CreateFolder(current.id, name, &current) == AccountError::kNone)
      child = current;
    if (!child)
      return Lookup::kNotFound;
    current = *child;
    start = end + 1;
  }
  *out = current;
  return Lookup::kFound;
}

HttpResponse LookupError(Lookup lookup, const std::string& tag) {
  switch (lookup) {
    case Lookup::kMalformed:
      return EndpointError(tag + "/malformed_path");
    case Lookup::kNotFolder:
      return EndpointError(tag + "/not_folder");
    default:
      return EndpointError(tag + "/not_found");
  }
}

bool IsThumbnailable(const std::string& name) {
  static const char* const kExtensions[] = {".jpg", ".jpeg", ".png", ".tiff", ".tif",
                                            ".gif", ".webp", ".ppm", ".bmp",  ".heic"};
  std::string lower = Lower(name);
  for (const char* extension : kExtensions) {
    std::string ext(extension);
    if (lower.size() > ext.size() && lower.compare(lower.size() - ext.size(), ext.size(), ext) == 0)
      return true;
  }
  return false;
}

void AppendChunk(std::string* png, const char* type, const std::string& data) {
  std::uint32_t length = static_cast<std::uint32_t>(data.size());
  for (int shift = 24; shift >= 0; shift -= 8)
    *png += static_cast<char>((length >> shift) & 0xFF);
  std::string body = std::string(type, 4) + data;
  *png += body;
  std::uint32_t crc = static_cast<std::uint32_t>(
      crc32(0, reinterpret_cast<const Bytef*>(body.data()), static_cast<uInt>(body.size())));
  for (int shift = 24; shift >= 0; shift -= 8)
    *png += static_cast<char>((crc >> shift) & 0xFF);
}

// An 8x8 PNG tinted by the file's digest: a real image, different per content.
std::string ThumbnailPng(const std::string& seed) {
  constexpr int kSide = 8;
  std::string rows;
  for (int y = 0; y < kSide; ++y) {
    rows += '\0';
    for (int x = 0; x < kSide * 3; ++x)
      rows += seed.empty() ? '\x80' : seed[(y * kSide * 3 + x) % seed.size()];
  }
  std::string compressed(compressBound(static_cast<uLong>(rows.size())), '\0');
  uLongf size = static_cast<uLongf>(compressed.size());
  compress(reinterpret_cast<Bytef*>(&compressed[0]), &size,
           reinterpret_cast<const Bytef*>(rows.data()), static_cast<uLong>(rows.size()));
  compressed.resize(size);
  std::string header = {0, 0, 0, kSide, 0, 0, 0, kSide, 8, 2, 0, 0, 0};
  std::string png = "\x89PNG\r\n\x1a\n";
  AppendChunk(&png, "IHDR", header);
  AppendChunk(&png, "IDAT", compressed);
  AppendChunk(&png, "IEND", std::string());
  return png;
}

constexpr int kMaxTemplateFields = 32;
constexpr int kMaxFieldNameBytes = 256;
constexpr int kMaxFieldValueBytes = 1024;

// A void member of a tagged union: "string" or {".tag":"string"} alike.
std::string TagOf(const QJsonValue& value) {
  return value.isObject() ? value.toObject().value(".tag").toString().toStdString()
                          : value.toString().toStdString();
}

QJsonArray FieldArray(const std::map<std::string, std::string>& fields) {
  QJsonArray array;
  for (const auto& [name, value] : fields) {
    array.append(QJsonObject{{"name", QString::fromStdString(name)},
                             {"value", QString::fromStdString(value)}});
  }
  return array;
}

}  // namespace

DropboxDialect::DropboxDialect() = default;
DropboxDialect::~DropboxDialect() = default;

HostList DropboxDialect::Hosts() const {
  return {{"dropbox.api", "/api"}, {"dropbox.content", "/content"}, {"dropbox.notify", "/notify"}};
}

HttpResponse DropboxDialect::Error(int status, const std::string& code) const {
  switch (status) {
    case 400:
      return BadInput("", code.empty() ? "bad request" : code);
    case 401: {
      std::string tag = code.empty() ? "invalid_access_token" : code;
      return JsonAnswer(401, QJsonObject{{"error_summary", QString::fromStdString(tag + "/..")},
                                         {"error", TaggedError(tag)}});
    }
    case 409:
      return EndpointError(code.empty() ? "path/not_found" : code);
    case 429: {
      if (code == "plain")
        return TextAnswer(429, "Too Many Requests");
      std::size_t colon = code.find(':');
      std::string tag = code.empty() ? "too_many_requests" : code.substr(0, colon);
      int retry_after = colon == std::string::npos ? 1 : std::atoi(code.c_str() + colon + 1);
      return JsonAnswer(
          429, QJsonObject{{"error_summary", QString::fromStdString(tag + "/..")},
                           {"error", QJsonObject{{"reason", QJsonObject{{".tag", tag.c_str()}}},
                                                 {"retry_after", retry_after}}}});
    }
    case 503:
      return TextAnswer(503, "<html><body><h1>503 Service Unavailable</h1></body></html>",
                        "text/html");
    default:
      return TextAnswer(status, code.empty() ? "An error occurred on the Dropbox servers." : code);
  }
}

std::unique_ptr<CloudAccount> DropboxDialect::MakeAccount() const {
  auto account = std::make_unique<CloudAccount>("id:0");
  account->SetIdMaker([](std::uint64_t n, ItemKind) { return "id:" + std::to_string(n); });
  return account;
}

void DropboxDialect::Shutdown() {
  stopping_ = true;
}

void DropboxDialect::Install(Router& router) {
  router_ = &router;
  // Every call's arguments are read, as its host takes them, before its handler runs.
  using ArgsReader = bool (*)(const HttpRequest&, const std::string&, QJsonObject*, HttpResponse*);
  using Call = HttpResponse (DropboxDialect::*)(const HttpRequest&, const QJsonObject&);
  auto route = [this, &router](const char* verb, const char* host, const char* function,
                               ArgsReader read, Call call, RouteOptions options = RouteOptions()) {
    router.Handle(
        verb, std::string(host) + function,
        [this, function, read, call](const HttpRequest& request) {
          QJsonObject args;
          HttpResponse refusal;
          if (!read(request, function, &args, &refusal))
            return refusal;
          return (this->*call)(request, args);
        },
        options);
  };
  auto rpc = [&route](const char* function, Call call) {
    route("POST", "/api/2/", function, ReadRpcArgs, call);
  };
  auto content = [&route](const char* function, Call call) {
    route("POST", "/content/2/", function, ReadContentArgs, call);
  };
  rpc("files/list_folder", &DropboxDialect::ListFolder);
  rpc("files/list_folder/continue", &DropboxDialect::Continue);
  rpc("files/list_folder/get_latest_cursor", &DropboxDialect::LatestCursor);
  rpc("files/create_folder_v2", &DropboxDialect::CreateFolder);
  rpc("files/delete_v2", &DropboxDialect::Delete);
  rpc("files/move_v2", &DropboxDialect::Move);
  rpc("users/get_space_usage", &DropboxDialect::SpaceUsage);
  rpc("sharing/create_shared_link_with_settings", &DropboxDialect::CreateLink);
  rpc("sharing/list_shared_links", &DropboxDialect::ListLinks);
  rpc("sharing/revoke_shared_link", &DropboxDialect::RevokeLink);
  RouteOptions no_token;
  no_token.needs_auth = false;
  route("POST", "/notify/2/", "files/list_folder/longpoll", ReadRpcArgs, &DropboxDialect::Longpoll,
        no_token);
  for (const char* verb : {"GET", "POST"}) {
    route(verb, "/content/2/", "files/get_thumbnail_v2", ReadContentArgs,
          &DropboxDialect::Thumbnail);
    route(verb, "/content/2/", "files/download", ReadContentArgs, &DropboxDialect::Download);
  }
  content("files/upload", &DropboxDialect::Upload);
  content("files/upload_session/start", &DropboxDialect::SessionStart);
  content("files/upload_session/append_v2", &DropboxDialect::SessionAppend);
  content("files/upload_session/finish", &DropboxDialect::SessionFinish);
  rpc("file_properties/templates/add_for_user", &DropboxDialect::AddTemplate);
  rpc("file_properties/templates/list_for_user", &DropboxDialect::ListTemplates);
  rpc("file_properties/properties/add", &DropboxDialect::AddProperties);
  rpc("file_properties/properties/update", &DropboxDialect::UpdateProperties);
  rpc("file_properties/properties/overwrite", &DropboxDialect::OverwriteProperties);
  rpc("file_properties/properties/search", &DropboxDialect::SearchProperties);
  rpc("file_properties/properties/search/continue", &DropboxDialect::ContinuePropertySearch);
}

// --- listing ---------------------------------------------------------------------------------

HttpResponse DropboxDialect::ListFolder(const HttpRequest&, const QJsonObject& args) {
  // 1. The arguments as documented: "" names the root, "/" is refused.
  std::string path = Text(args, "path");
  if (path == "/") {
    return BadInput("files/list_folder",
                    "request body: path: Specify the root folder as an empty string rather than "
                    "as \"/\".");
  }
  int limit = args.value("limit").toInt(2000);
  if (limit < 1 || limit > 2000)
    return BadInput("files/list_folder", "request body: limit: out of range");
  // 2. The folder.
  std::lock_guard<std::mutex> lock(mutex_);
  CloudAccount& account = router_->account();
  Item folder;
  Lookup lookup = Resolve(account, path, &folder);
  if (lookup != Lookup::kFound)
    return LookupError(lookup, "path");
  if (!folder.IsFolder())
    return EndpointError("path/not_folder");
  // 3. The snapshot, kept for its later pages.
  Cursor cursor;
  cursor.sequence = account.Sequence();
  cursor.recursive = args.value("recursive").toBool(false);
  std::string display = folder.id == account.RootId() ? std::string() : PathFor(folder);
  cursor.root = Lower(display);
  Snapshot snapshot;
  Subtree(folder, display, cursor.recursive, cursor.recursive && !display.empty(),
          &snapshot.entries);
  cursor.snapshot = next_snapshot_++;
  snapshots_[cursor.snapshot] = std::move(snapshot);
  return Page(cursor, static_cast<std::size_t>(limit));
}

HttpResponse DropboxDialect::Continue(const HttpRequest&, const QJsonObject& args) {
  std::lock_guard<std::mutex> lock(mutex_);
  Cursor cursor;
  if (!DecodeCursor(Text(args, "cursor"), &cursor))
    return BadInput("files/list_folder/continue", "request body: cursor: invalid");
  if (cursor.sequence < router_->account().ForgottenUpTo() ||
      (cursor.snapshot != 0 && snapshots_.count(cursor.snapshot) == 0)) {
    return EndpointError("reset");
  }
  return Page(cursor, 2000);
}

HttpResponse DropboxDialect::LatestCursor(const HttpRequest&, const QJsonObject& args) {
  std::lock_guard<std::mutex> lock(mutex_);
  Item folder;
  Lookup lookup = Resolve(router_->account(), Text(args, "path"), &folder);
  if (lookup != Lookup::kFound)
    return LookupError(lookup, "path");
  Cursor cursor;
  cursor.sequence = router_->account().Sequence();
  cursor.recursive = args.value("recursive").toBool(false);
  cursor.root = folder.id == router_->account().RootId() ? std::string() : Lower(PathFor(folder));
  return JsonAnswer(200, QJsonObject{{"cursor", QString::fromStdString(EncodeCursor(cursor))}});
}

HttpResponse DropboxDialect::Page(Cursor cursor, std::size_t limit) {
  std::size_t size = std::min(limit, page_size_);
  QJsonArray entries;
  bool more = false;
  if (cursor.snapshot != 0) {
    // 1. The next entries of the snapshot; the journal takes over after its last page.
    const std::vector<QJsonObject>& all = snapshots_[cursor.snapshot].entries;
    std::size_t end = std::min(all.size(), cursor.offset + size);
    for (std::size_t i = cursor.offset; i < end; ++i)
      entries.append(all[i]);
    cursor.offset = end;
    more = end < all.size();
    if (!more) {
      snapshots_.erase(cursor.snapshot);
      cursor.snapshot = 0;
      cursor.offset = 0;
    }
  } else {
    // 2. What the journal holds since the cursor.
    for (QJsonObject& entry : JournalEntries(cursor, size, &cursor.sequence, &more))
      entries.append(entry);
  }
  return JsonAnswer(200, QJsonObject{{"entries", entries},
                                     {"cursor", QString::fromStdString(EncodeCursor(cursor))},
                                     {"has_more", more}});
}

std::vector<QJsonObject> DropboxDialect::JournalEntries(const Cursor& cursor, std::size_t limit,
                                                        std::uint64_t* sequence, bool* more) {
  CloudAccount& account = router_->account();
  std::vector<JournalEntry> journal = account.ChangesSince(cursor.sequence, limit);
  *more = journal.size() == limit;
  std::vector<QJsonObject> entries;
  auto add = [&](const QJsonObject& entry) {
    if (IsUnder(entry.value("path_lower").toString().toStdString(), cursor.root))
      entries.push_back(entry);
  };
  for (const JournalEntry& change : journal) {
    *sequence = change.sequence;
    const Item& item = change.item;
    switch (change.kind) {
      case ChangeKind::kUpdated:
        break;  // links and properties are not part of a listing
      case ChangeKind::kTrashed:
      case ChangeKind::kDeleted:
        add(Deleted(RememberedPath(item)));
        break;
      case ChangeKind::kMoved:
        add(Deleted(OldPath(change)));
        [[fallthrough]];
      case ChangeKind::kCreated:
      case ChangeKind::kModified:
      case ChangeKind::kRestored: {
        std::optional<Item> now = account.Find(item.id);
        if (!now || account.IsInTrash(item.id))
          break;
        std::vector<QJsonObject> subtree;
        Subtree(*now, PathFor(*now),
                cursor.recursive && change.kind != ChangeKind::kCreated &&
                    change.kind != ChangeKind::kModified,
                true, &subtree);
        for (const QJsonObject& entry : subtree)
          add(entry);
        break;
      }
    }
  }
  return entries;
}

bool DropboxDialect::HasChangesSince(const Cursor& cursor) {
  if (cursor.snapshot != 0)
    return true;
  Cursor next = cursor;
  bool more = true;
  while (more) {
    if (!JournalEntries(next, 500, &next.sequence, &more).empty())
      return true;
  }
  return false;
}

HttpResponse DropboxDialect::Longpoll(const HttpRequest&, const QJsonObject& args) {
  // 1. The arguments: a timeout from 30 to 480 s, 30 when absent.
  int timeout = args.value("timeout").toInt(30);
  if (timeout < 30 || timeout > 480)
    return BadInput("files/list_folder/longpoll", "request body: timeout: out of range");
  Cursor cursor;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!DecodeCursor(Text(args, "cursor"), &cursor))
      return BadInput("files/list_folder/longpoll", "request body: cursor: invalid");
    if (cursor.sequence < router_->account().ForgottenUpTo())
      return EndpointError("reset");
  }
  // 2. Held until a change under the cursor's folder, the timeout, or the server's end.
  auto deadline = std::chrono::steady_clock::now() +
                  std::chrono::milliseconds(std::int64_t{timeout} * longpoll_second_ms_);
  QJsonObject answer{{"changes", false}};
  if (longpoll_backoff_ > 0)
    answer.insert("backoff", longpoll_backoff_.load());
  while (!stopping_) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (HasChangesSince(cursor)) {
        answer.insert("changes", true);
        break;
      }
    }
    if (std::chrono::steady_clock::now() >= deadline)
      break;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return JsonAnswer(200, answer);
}

std::string DropboxDialect::EncodeCursor(const Cursor& cursor) const {
  QJsonObject object{{"q", QString::number(cursor.sequence)},
                     {"p", QString::fromStdString(cursor.root)},
                     {"r", cursor.recursive},
                     {"s", QString::number(cursor.snapshot)},
                     {"o", static_cast<double>(cursor.offset)}};
  QByteArray json = QJsonDocument(object).toJson(QJsonDocument::Compact);
  return kCursorPrefix +
         json.toBase64(QByteArray::Base64UrlEncoding | QByteArray::OmitTrailingEquals)
             .toStdString();
}

bool DropboxDialect::DecodeCursor(const std::string& text, Cursor* cursor) const {
  if (text.compare(0, 3, kCursorPrefix) != 0)
    return false;
  QByteArray json = QByteArray::fromBase64(QByteArray::fromStdString(text.substr(3)),
                                           QByteArray::Base64UrlEncoding);
  QJsonDocument document = QJsonDocument::fromJson(json);
  if (!document.isObject())
    return false;
  QJsonObject object = document.object();
  bool good_sequence = false;
  bool good_snapshot = false;
  cursor->sequence = object.value("q").toString().toULongLong(&good_sequence);
  cursor->snapshot = object.value("s").toString().toULongLong(&good_snapshot);
  cursor->root = object.value("p").toString().toStdString();
  cursor->recursive = object.value("r").toBool();
  cursor->offset = static_cast<std::size_t>(object.value("o").toDouble());
  return good_sequence && good_snapshot;
}

// --- metadata --------------------------------------------------------------------------------

QJsonObject DropboxDialect::Metadata(const Item& item, const std::string& path) {
  paths_[item.id] = path;
  QJsonObject entry{{".tag", item.IsFolder() ? "folder" : "file"},
                    {"name", QString::fromStdString(item.name)},
                    {"path_lower", QString::fromStdString(Lower(path))},
                    {"path_display", QString::fromStdString(path)},
                    {"id", QString::fromStdString(item.id)}};
  if (!item.IsFolder()) {
    entry.insert("client_modified", QString::fromStdString(IsoSeconds(item.modified_ms)));
    entry.insert("server_modified", QString::fromStdString(IsoSeconds(item.modified_ms)));
    entry.insert("rev", QString::fromStdString(Rev(item)));
    entry.insert("size", static_cast<double>(item.size));
    entry.insert("is_downloadable", true);
    entry.insert("content_hash", QString::fromStdString(item.digests.dropbox));
  }
  return entry;
}

QJsonObject DropboxDialect::Deleted(const std::string& path) {
  return QJsonObject{{".tag", "deleted"},
                     {"name", QString::fromStdString(NameOf(path))},
                     {"path_lower", QString::fromStdString(Lower(path))},
                     {"path_display", QString::fromStdString(path)}};
}

std::string DropboxDialect::PathFor(const Item& item) {
  if (item.parents.empty())
    return std::string();
  CloudAccount& account = router_->account();
  const std::string& parent = item.parents.front();
  std::string parent_path;
  if (parent != account.RootId()) {
    std::optional<Item> folder = account.Find(parent);
    parent_path = folder ? "/" + account.PathOf(parent) : RememberedPath(Item{parent});
  }
  return parent_path + "/" + item.name;
}

std::string DropboxDialect::OldPath(const JournalEntry& change) {
  Item before = change.item;
  if (!change.old_parents.empty())
    before.parents = change.old_parents;
  if (!change.old_name.empty())
    before.name = change.old_name;
  return PathFor(before);
}

std::string DropboxDialect::RememberedPath(const Item& item) {
  auto known = paths_.find(item.id);
  return known != paths_.end() ? known->second : PathFor(item);
}

void DropboxDialect::Subtree(const Item& folder, const std::string& path, bool recursive,
                             bool with_self, std::vector<QJsonObject>* out) {
  if (with_self)
    out->push_back(Metadata(folder, path));
  if (!folder.IsFolder())
    return;
  for (const Item& child : router_->account().Children(folder.id)) {
    std::string child_path = path + "/" + child.name;
    if (recursive && child.IsFolder()) {
      Subtree(child, child_path, true, true, out);
    } else {
      out->push_back(Metadata(child, child_path));
    }
  }
}

// --- file operations -------------------------------------------------------------------------

HttpResponse DropboxDialect::CreateFolder(const HttpRequest&, const QJsonObject& args) {
  std::string path = Text(args, "path");
  if (path.empty() || !IsWellFormed(path))
    return EndpointError("path/malformed_path");
  std::lock_guard<std::mutex> lock(mutex_);
  CloudAccount& account = router_->account();
  Item parent;
  Lookup lookup = Resolve(account, ParentOf(path), &parent, true);
  if (lookup == Lookup::kNotFolder || (lookup == Lookup::kFound && !parent.IsFolder()))
    return EndpointError("path/conflict/file");
  if (lookup != Lookup::kFound)
    return LookupError(lookup, "path");
  if (std::optional<Item> taken = account.ChildByName(parent.id, NameOf(path), true))
    return EndpointError(taken->IsFolder() ? "path/conflict/folder" : "path/conflict/file");
  Item folder;
  if (account.CreateFolder(parent.id, NameOf(path), &folder) != AccountError::kNone)
    return EndpointError("path/disallowed_name");
  return JsonAnswer(200, QJsonObject{{"metadata", Metadata(folder, PathFor(folder))}});
}

HttpResponse DropboxDialect::Delete(const HttpRequest&, const QJsonObject& args) {
  std::lock_guard<std::mutex> lock(mutex_);
  CloudAccount& account = router_->account();
  Item item;
  Lookup lookup = Resolve(account, Text(args, "path"), &item);
  if (lookup != Lookup::kFound || item.id == account.RootId())
    return LookupError(lookup == Lookup::kFound ? Lookup::kMalformed : lookup, "path_lookup");
  // A stale revision is a conflict: the file is not what the caller last saw.
  std::string parent_rev = Text(args, "parent_rev");
  if (!parent_rev.empty() && (item.IsFolder() || parent_rev != Rev(item)))
    return EndpointError(item.IsFolder() ? "path_lookup/not_file" : "path_write/conflict/file");
  QJsonObject metadata = Metadata(item, PathFor(item));
  account.Delete(item.id);
  return JsonAnswer(200, QJsonObject{{"metadata", metadata}});
}

HttpResponse DropboxDialect::Move(const HttpRequest&, const QJsonObject& args) {
  std::string to = Text(args, "to_path");
  if (to.empty() || !IsWellFormed(to))
    return EndpointError("to/malformed_path");
  std::lock_guard<std::mutex> lock(mutex_);
  CloudAccount& account = router_->account();
  // 1. The item, and where it goes (missing folders are made on the way).
  Item item;
  Lookup lookup = Resolve(account, Text(args, "from_path"), &item);
  if (lookup != Lookup::kFound || item.id == account.RootId())
    return LookupError(lookup == Lookup::kFound ? Lookup::kMalformed : lookup, "from_lookup");
  std::string from_lower = Lower(PathFor(item));
  std::string to_lower = Lower(to);
  if (item.IsFolder() && to_lower.compare(0, from_lower.size() + 1, from_lower + "/") == 0)
    return EndpointError("cant_move_folder_into_itself");
  Item parent;
  lookup = Resolve(account, ParentOf(to), &parent, true);
  if (lookup != Lookup::kFound || !parent.IsFolder())
    return EndpointError("to/conflict/file");
  std::optional<Item> taken = account.ChildByName(parent.id, NameOf(to), true);
  if (taken && taken->id != item.id)
    return EndpointError(taken->IsFolder() ? "to/conflict/folder" : "to/conflict/file");
  // 2. The move.
  Item moved;
  if (account.Move(item.id, {parent.id}, NameOf(to), &moved) != AccountError::kNone)
    return EndpointError("to/disallowed_name");
  return JsonAnswer(200, QJsonObject{{"metadata", Metadata(moved, PathFor(moved))}});
}

HttpResponse DropboxDialect::SpaceUsage(const HttpRequest&, const QJsonObject&) {
  CloudAccount& account = router_->account();
  return JsonAnswer(
      200, QJsonObject{{"used", static_cast<double>(account.UsedSpace())},
                       {"allocation",
                        QJsonObject{{".tag", "individual"},
                                    {"allocated", static_cast<double>(account.TotalSpace())}}}});
}

// --- shared links ----------------------------------------------------------------------------

namespace {

QJsonObject LinkMetadata(const Item& item, const std::string& path) {
  QJsonObject link{
      {".tag", item.IsFolder() ? "folder" : "file"},
      {"url", QString::fromStdString(item.public_link)},
      {"name", QString::fromStdString(item.name)},
      {"id", QString::fromStdString(item.id)},
      {"path_lower", QString::fromStdString(Lower(path))},
      {"link_permissions", QJsonObject{{"can_revoke", true},
                                       {"resolved_visibility", QJsonObject{{".tag", "public"}}}}}};
  if (!item.IsFolder()) {
    link.insert("rev", QString::fromStdString(Rev(item)));
    link.insert("size", static_cast<double>(item.size));
  }
  return link;
}

}  // namespace

HttpResponse DropboxDialect::CreateLink(const HttpRequest&, const QJsonObject& args) {
  std::lock_guard<std::mutex> lock(mutex_);
  CloudAccount& account = router_->account();
  Item item;
  Lookup lookup = Resolve(account, Text(args, "path"), &item);
  if (lookup != Lookup::kFound)
    return LookupError(lookup, "path");
  std::string path = PathFor(item);
  if (!item.public_link.empty()) {
    QJsonObject error{{".tag", "shared_link_already_exists"},
                      {"shared_link_already_exists",
                       QJsonObject{{".tag", "metadata"}, {"metadata", LinkMetadata(item, path)}}}};
    return JsonAnswer(
        409, QJsonObject{{"error_summary", "shared_link_already_exists/.."}, {"error", error}});
  }
  std::string url = router_->BaseUrl() + "/s/" + Rev(item) + "/" +
                    QUrl::toPercentEncoding(QString::fromStdString(item.name)).toStdString() +
                    "?dl=0";
  account.SetPublicLink(item.id, url, &item);
  return JsonAnswer(200, LinkMetadata(item, path));
}

HttpResponse DropboxDialect::ListLinks(const HttpRequest&, const QJsonObject& args) {
  std::lock_guard<std::mutex> lock(mutex_);
  CloudAccount& account = router_->account();
  QJsonArray links;
  if (args.contains("path")) {
    Item item;
    Lookup lookup = Resolve(account, Text(args, "path"), &item);
    if (lookup != Lookup::kFound)
      return LookupError(lookup, "path");
    if (!item.public_link.empty())
      links.append(LinkMetadata(item, PathFor(item)));
  } else {
    for (const Item& item : account.AllItems()) {
      if (!item.public_link.empty() && !account.IsInTrash(item.id))
        links.append(LinkMetadata(item, PathFor(item)));
    }
  }
  return JsonAnswer(200, QJsonObject{{"links", links}, {"has_more", false}});
}

HttpResponse DropboxDialect::RevokeLink(const HttpRequest&, const QJsonObject& args) {
  CloudAccount& account = router_->account();
  std::string url = Text(args, "url");
  for (const Item& item : account.AllItems()) {
    if (!url.empty() && item.public_link == url) {
      account.SetPublicLink(item.id, std::string(), nullptr);
      return JsonAnswer(200, QJsonValue());
    }
  }
  return EndpointError("shared_link_not_found");
}

// --- content ---------------------------------------------------------------------------------

HttpResponse DropboxDialect::Thumbnail(const HttpRequest&, const QJsonObject& args) {
  QJsonObject resource = args.value("resource").toObject();
  if (resource.value(".tag").toString() != "path")
    return BadInput("files/get_thumbnail_v2", "resource: unknown tag");
  std::lock_guard<std::mutex> lock(mutex_);
  Item item;
  Lookup lookup = Resolve(router_->account(), Text(resource, "path"), &item);
  if (lookup != Lookup::kFound)
    return LookupError(lookup, "path");
  if (item.IsFolder() || !IsThumbnailable(item.name))
    return EndpointError("unsupported_extension");
  HttpResponse response = HttpResponse::Status(200, ThumbnailPng(item.digests.sha256));
  response.headers = {
      {"Content-Type", "application/octet-stream"},
      {"Dropbox-API-Result",
       HeaderSafeJson(QJsonObject{{"file_metadata", Metadata(item, PathFor(item))}})}};
  return response;
}

HttpResponse DropboxDialect::Download(const HttpRequest& request, const QJsonObject& args) {
  std::lock_guard<std::mutex> lock(mutex_);
  Item item;
  Lookup lookup = Resolve(router_->account(), Text(args, "path"), &item);
  if (lookup != Lookup::kFound)
    return LookupError(lookup, "path");
  if (item.IsFolder())
    return EndpointError("path/not_file");
  HttpResponse response = ContentResponse(item, request.Header("Range"));
  response.headers.emplace_back("Dropbox-API-Result",
                                HeaderSafeJson(Metadata(item, PathFor(item))));
  return response;
}

// --- uploads ---------------------------------------------------------------------------------

namespace {

// Dropbox takes at most 150 MiB in one request's body.
constexpr std::uint64_t kMaxRequestBody = 150ull << 20;

std::int64_t ClientModifiedMs(const QJsonObject& commit, std::int64_t otherwise) {
  QDateTime time = QDateTime::fromString(commit.value("client_modified").toString(), Qt::ISODate);
  return time.isValid() ? time.toMSecsSinceEpoch() : otherwise;
}

// "incorrect_offset" as the append names it, or inside "lookup_failed" as the finish does.
HttpResponse OffsetError(std::uint64_t correct, bool in_lookup) {
  QJsonObject offset{{".tag", "incorrect_offset"},
                     {"correct_offset", static_cast<double>(correct)}};
  if (!in_lookup) {
    return JsonAnswer(409,
                      QJsonObject{{"error_summary", "incorrect_offset/.."}, {"error", offset}});
  }
  return JsonAnswer(
      409,
      QJsonObject{{"error_summary", "lookup_failed/incorrect_offset/.."},
                  {"error", QJsonObject{{".tag", "lookup_failed"}, {"lookup_failed", offset}}}});
}

HttpResponse SessionError(const std::string& tag, bool in_lookup) {
  return EndpointError(in_lookup ? "lookup_failed/" + tag : tag);
}

bool ReadCursor(const QJsonObject& args, std::string* session_id, std::uint64_t* offset) {
  QJsonObject cursor = args.value("cursor").toObject();
  *session_id = Text(cursor, "session_id");
  *offset = static_cast<std::uint64_t>(cursor.value("offset").toDouble(-1));
  return !session_id->empty() && cursor.value("offset").isDouble();
}

// The session and offset of an append or a finish, and a piece the server takes; false with the
// refusal.
bool ReadPiece(const HttpRequest& request, const QJsonObject& args, const char* function,
               std::string* session_id, std::uint64_t* offset, HttpResponse* refusal) {
  if (!ReadCursor(args, session_id, offset)) {
    *refusal = BadInput(function, "missing \"cursor\"");
    return false;
  }
  if (request.body_size > kMaxRequestBody) {
    *refusal = EndpointError("payload_too_large");
    return false;
  }
  return true;
}

// The answer to a write the account refused.
HttpResponse WriteRefusal(AccountError error) {
  return EndpointError(error == AccountError::kNoSpace ? "path/insufficient_space"
                                                       : "path/disallowed_name");
}

}  // namespace

bool DropboxDialect::PlanWrite(const QJsonObject& commit,
                               const std::function<bool(const Item&)>& same_content,
                               UploadSpec* spec, HttpResponse* refusal,
                               std::optional<Item>* unchanged) {
  CloudAccount& account = router_->account();
  // 1. The path, with its missing folders made on the way as Dropbox does.
  const std::string path = Text(commit, "path");
  if (path.empty() || !IsWellFormed(path)) {
    *refusal = EndpointError("path/malformed_path");
    return false;
  }
  Item parent;
  Lookup lookup = Resolve(account, ParentOf(path), &parent, true);
  if (lookup != Lookup::kFound || !parent.IsFolder()) {
    *refusal = EndpointError("path/conflict/file");
    return false;
  }
  std::optional<Item> existing = account.ChildByName(parent.id, NameOf(path), true);
  if (existing && existing->IsFolder()) {
    *refusal = EndpointError("path/conflict/folder");
    return false;
  }
  spec->modified_ms = ClientModifiedMs(commit, QDateTime::currentMSecsSinceEpoch());
  // 2. The mode: "add" keeps what is there, "update" must hit the revision, "overwrite" replaces.
  const bool strict = commit.value("strict_conflict").toBool(false);
  QJsonValue mode = commit.value("mode");
  const std::string tag =
      mode.isObject() ? Text(mode.toObject(), ".tag") : mode.toString("add").toStdString();
  bool conflict = false;
  if (tag == "add") {
    conflict = existing.has_value();
  } else if (tag == "update") {
    const std::string rev = Text(mode.toObject(), "update");
    conflict = existing ? Rev(*existing) != rev : strict;
  } else if (tag != "overwrite") {
    *refusal = BadInput("files/upload", "unknown write mode \"" + tag + "\"");
    return false;
  }
  // Without strict_conflict, the same bytes at the path are no conflict: nothing is written.
  if (conflict && existing && !strict && same_content(*existing)) {
    *unchanged = existing;
    return true;
  }
  if (conflict) {
    *refusal = EndpointError("path/conflict/file");
    return false;
  }
  spec->parent_id = parent.id;
  spec->name = NameOf(path);
  spec->target_id = existing ? existing->id : std::string();
  return true;
}

bool DropboxDialect::FindSessionAt(const std::string& id, std::uint64_t offset, bool finishing,
                                   HttpResponse* refusal) {
  std::optional<UploadState> state = router_->account().FindUpload(id);
  if (!state)
    *refusal = SessionError("not_found", finishing);
  else if (!finishing && closed_sessions_.count(id))
    *refusal = SessionError("closed", false);
  else if (offset != state->persisted)
    *refusal = OffsetError(state->persisted, finishing);
  else
    return true;
  return false;
}

void DropboxDialect::AppendPiece(const std::string& id, std::uint64_t offset,
                                 const HttpRequest& request, const QJsonObject& args) {
  std::uint64_t persisted = 0;
  router_->account().AppendUpload(id, offset, request.body, &persisted);
  if (args.value("close").toBool(false))
    closed_sessions_.insert(id);
}

HttpResponse DropboxDialect::Upload(const HttpRequest& request, const QJsonObject& args) {
  HttpResponse refusal;
  if (request.body_size > kMaxRequestBody)
    return EndpointError("payload_too_large");
  std::lock_guard<std::mutex> lock(mutex_);
  CloudAccount& account = router_->account();
  UploadSpec spec;
  std::optional<Item> unchanged;
  auto same = [&request](const Item& item) {
    return item.content && *item.content == request.body;
  };
  if (!PlanWrite(args, same, &spec, &refusal, &unchanged))
    return refusal;
  Item made = unchanged ? *unchanged : Item();
  AccountError error = AccountError::kNone;
  if (!unchanged) {
    error =
        spec.target_id.empty()
            ? account.CreateFile(spec.parent_id, spec.name, request.body, spec.modified_ms, &made)
            : account.ReplaceContent(spec.target_id, request.body, spec.modified_ms, &made);
  }
  if (error != AccountError::kNone)
    return WriteRefusal(error);
  return JsonAnswer(200, Metadata(made, PathFor(made)));
}

HttpResponse DropboxDialect::SessionStart(const HttpRequest& request, const QJsonObject& args) {
  if (request.body_size > kMaxRequestBody)
    return EndpointError("payload_too_large");
  std::lock_guard<std::mutex> lock(mutex_);
  CloudAccount& account = router_->account();
  const std::string id = account.OpenUpload(UploadSpec());
  AppendPiece(id, 0, request, args);
  return JsonAnswer(200, QJsonObject{{"session_id", QString::fromStdString(id)}});
}

HttpResponse DropboxDialect::SessionAppend(const HttpRequest& request, const QJsonObject& args) {
  std::string id;
  std::uint64_t offset = 0;
  HttpResponse refusal;
  if (!ReadPiece(request, args, "files/upload_session/append_v2", &id, &offset, &refusal))
    return refusal;
  std::lock_guard<std::mutex> lock(mutex_);
  if (!FindSessionAt(id, offset, false, &refusal))
    return refusal;
  AppendPiece(id, offset, request, args);
  return JsonAnswer(200, QJsonValue());
}

HttpResponse DropboxDialect::SessionFinish(const HttpRequest& request, const QJsonObject& args) {
  // 1. The session, and its last bytes where it stands.
  std::string id;
  std::uint64_t offset = 0;
  HttpResponse refusal;
  if (!ReadPiece(request, args, "files/upload_session/finish", &id, &offset, &refusal))
    return refusal;
  std::lock_guard<std::mutex> lock(mutex_);
  CloudAccount& account = router_->account();
  if (!FindSessionAt(id, offset, true, &refusal))
    return refusal;
  // 2. Where the file goes; a session's bytes are never compared, so an "add" over a file is a
  // conflict.
  UploadSpec spec;
  std::optional<Item> unchanged;
  if (!PlanWrite(
          args.value("commit").toObject(), [](const Item&) { return false; }, &spec, &refusal,
          &unchanged))
    return refusal;
  spec.total_size = offset + request.body_size;
  account.RetargetUpload(id, spec);
  std::uint64_t persisted = 0;
  account.AppendUpload(id, offset, request.body, &persisted);
  // 3. The file; a piece cut short leaves the session open at what it holds.
  Item made;
  AccountError error = account.CommitUpload(id, &made);
  if (error == AccountError::kSizeMismatch) {
    std::optional<UploadState> state = account.FindUpload(id);
    return OffsetError(state ? state->persisted : persisted, true);
  }
  if (error != AccountError::kNone)
    return WriteRefusal(error);
  closed_sessions_.erase(id);
  return JsonAnswer(200, Metadata(made, PathFor(made)));
}

std::unique_ptr<Dialect> MakeDropboxDialect() {
  return std::make_unique<DropboxDialect>();
}

// --- file properties -------------------------------------------------------------------------

HttpResponse DropboxDialect::AddTemplate(const HttpRequest&, const QJsonObject& args) {
  // 1. A name, a description and the fields, each a string field of a distinct name.
  const char* function = "file_properties/templates/add_for_user";
  if (!args.value("name").isString() || !args.value("description").isString() ||
      !args.value("fields").isArray()) {
    return BadInput(function, "request body: missing \"name\", \"description\" or \"fields\"");
  }
  const QJsonArray fields = args.value("fields").toArray();
  if (fields.size() > kMaxTemplateFields)
    return EndpointError("too_many_properties");
  std::set<std::string> names;
  for (const QJsonValue& field : fields) {
    const std::string name = field.toObject().value("name").toString().toStdString();
    if (name.empty() || TagOf(field.toObject().value("type")) != "string")
      return BadInput(function, "request body: fields: invalid field");
    if (!names.insert(name).second)
      return EndpointError("conflicting_property_names");
  }
  // 2. The template of this user and app.
  std::lock_guard<std::mutex> lock(mutex_);
  const std::string id = "ptid:" + std::to_string(next_property_id_++) + "corvaneEMU";
  templates_[id] = std::move(names);
  return JsonAnswer(200, QJsonObject{{"template_id", QString::fromStdString(id)}});
}

HttpResponse DropboxDialect::ListTemplates(const HttpRequest&, const QJsonObject&) {
  std::lock_guard<std::mutex> lock(mutex_);
  QJsonArray ids;
  for (const auto& entry : templates_)
    ids.append(QString::fromStdString(entry.first));
  return JsonAnswer(200, QJsonObject{{"template_ids", ids}});
}

bool DropboxDialect::FindGroupTarget(const QJsonObject& args, const QJsonObject& group, Item* item,
                                     std::string* template_id, HttpResponse* refusal) {
  *template_id = Text(group, "template_id");
  if (templates_.count(*template_id) == 0) {
    *refusal = EndpointError("template_not_found");
    return false;
  }
  Lookup lookup = Resolve(router_->account(), Text(args, "path"), item);
  if (lookup != Lookup::kFound || item->id == router_->account().RootId()) {
    *refusal = LookupError(lookup == Lookup::kFound ? Lookup::kMalformed : lookup, "path");
    return false;
  }
  return true;
}

bool DropboxDialect::ReadPropertyFields(const QJsonArray& fields, const std::string& template_id,
                                        PropertyFields* out, HttpResponse* refusal) {
  const std::set<std::string>& known = templates_[template_id];
  for (const QJsonValue& field : fields) {
    const std::string name = Text(field.toObject(), "name");
    const QJsonValue value = field.toObject().value("value");
    if (known.count(name) == 0 || !value.isString() || name.size() > kMaxFieldNameBytes) {
      *refusal = EndpointError("does_not_fit_template");
      return false;
    }
    if (value.toString().toUtf8().size() > kMaxFieldValueBytes) {
      *refusal = EndpointError("property_field_too_large");
      return false;
    }
    (*out)[name] = value.toString().toStdString();
  }
  return true;
}

bool DropboxDialect::ReadPropertyGroups(const QJsonObject& args, const char* function, Item* item,
                                        std::map<std::string, PropertyFields>* groups,
                                        HttpResponse* refusal) {
  const QJsonArray all = args.value("property_groups").toArray();
  if (all.isEmpty()) {
    *refusal = BadInput(function, "request body: property_groups: must have at least 1 items");
    return false;
  }
  for (const QJsonValue& value : all) {
    const QJsonObject group = value.toObject();
    std::string template_id;
    PropertyFields fields;
    if (!FindGroupTarget(args, group, item, &template_id, refusal) ||
        !ReadPropertyFields(group.value("fields").toArray(), template_id, &fields, refusal)) {
      return false;
    }
    if (groups->count(template_id) != 0) {
      *refusal = EndpointError("duplicate_property_groups");
      return false;
    }
    (*groups)[template_id] = std::move(fields);
  }
  return true;
}

HttpResponse DropboxDialect::AddProperties(const HttpRequest&, const QJsonObject& args) {
  // One group per template on an item that has none of it yet.
  return StoreGroups(args, "file_properties/properties/add", true);
}

HttpResponse DropboxDialect::OverwriteProperties(const HttpRequest&, const QJsonObject& args) {
  // Each named group is replaced whole, fields left out included; the item's other groups stay.
  return StoreGroups(args, "file_properties/properties/overwrite", false);
}

HttpResponse DropboxDialect::StoreGroups(const QJsonObject& args, const char* function,
                                         bool adding) {
  // 1. The groups, none of them one the item has already when they are added.
  HttpResponse refusal;
  std::lock_guard<std::mutex> lock(mutex_);
  std::map<std::string, PropertyFields> groups;
  Item item;
  if (!ReadPropertyGroups(args, function, &item, &groups, &refusal))
    return refusal;
  if (adding) {
    for (const auto& entry : groups) {
      if (property_groups_[item.id].count(entry.first) != 0)
        return EndpointError("property_group_already_exists");
    }
  }
  // 2. Kept beside the item: a group is no change of its content or revision.
  for (auto& [template_id, fields] : groups)
    property_groups_[item.id][template_id] = std::move(fields);
  return JsonAnswer(200, QJsonValue());
}

HttpResponse DropboxDialect::UpdateProperties(const HttpRequest&, const QJsonObject& args) {
  // 1. Every named group stands, and its new fields fit its template.
  HttpResponse refusal;
  std::lock_guard<std::mutex> lock(mutex_);
  std::map<std::string, PropertyFields> updated;
  Item item;
  for (const QJsonValue& value : args.value("update_property_groups").toArray()) {
    const QJsonObject group = value.toObject();
    std::string template_id;
    if (!FindGroupTarget(args, group, &item, &template_id, &refusal))
      return refusal;
    auto held = property_groups_[item.id].find(template_id);
    if (held == property_groups_[item.id].end())
      return EndpointError("property_group_lookup/property_group_not_found");
    PropertyFields fields = held->second;
    if (!ReadPropertyFields(group.value("add_or_update_fields").toArray(), template_id, &fields,
                            &refusal)) {
      return refusal;
    }
    for (const QJsonValue& removed : group.value("remove_fields").toArray())
      fields.erase(removed.toString().toStdString());
    updated[template_id] = std::move(fields);
  }
  // 2. All of them at once.
  for (auto& [template_id, fields] : updated)
    property_groups_[item.id][template_id] = std::move(fields);
  return JsonAnswer(200, QJsonValue());
}

HttpResponse DropboxDialect::SearchProperties(const HttpRequest&, const QJsonObject& args) {
  // 1. Queries of a field's exact value, joined by "or", over the templates the filter lets in.
  const char* function = "file_properties/properties/search";
  const QJsonArray queries = args.value("queries").toArray();
  if (queries.isEmpty())
    return BadInput(function, "request body: queries: must have at least 1 items");
  std::set<std::string> only;
  const QJsonValue filter = args.value("template_filter");
  if (TagOf(filter) == "filter_some") {
    for (const QJsonValue& id : filter.toObject().value("filter_some").toArray())
      only.insert(id.toString().toStdString());
  }
  for (const QJsonValue& query : queries) {
    if (TagOf(query.toObject().value("mode")) != "field_name")
      return BadInput(function, "request body: queries: unknown mode");
  }
  // 2. One match per item with the groups that answer a query; gone items say so.
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<QJsonObject> matches;
  for (const auto& [item_id, groups] : property_groups_) {
    QJsonArray found;
    for (const auto& [template_id, fields] : groups) {
      bool hit = false;
      for (const QJsonValue& value : queries) {
        const QJsonObject query = value.toObject();
        auto field = fields.find(Text(query.value("mode").toObject(), "field_name"));
        hit = hit || (field != fields.end() && field->second == Text(query, "query"));
      }
      if (hit && (only.empty() || only.count(template_id) != 0)) {
        found.append(QJsonObject{{"template_id", QString::fromStdString(template_id)},
                                 {"fields", FieldArray(fields)}});
      }
    }
    if (found.isEmpty())
      continue;
    std::optional<Item> item = router_->account().Find(item_id);
    const bool deleted = !item || router_->account().IsInTrash(item_id);
    matches.push_back(QJsonObject{
        {"id", QString::fromStdString(item_id)},
        {"path", QString::fromStdString(deleted ? RememberedPath(Item{item_id}) : PathFor(*item))},
        {"is_deleted", deleted},
        {"property_groups", found}});
  }
  return SearchPage(std::move(matches));
}

HttpResponse DropboxDialect::ContinuePropertySearch(const HttpRequest&, const QJsonObject& args) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto rest = searches_.find(Text(args, "cursor"));
  if (rest == searches_.end())
    return EndpointError("reset");
  std::vector<QJsonObject> matches = std::move(rest->second);
  searches_.erase(rest);
  return SearchPage(std::move(matches));
}

HttpResponse DropboxDialect::SearchPage(std::vector<QJsonObject> matches) {
  const std::size_t size = std::min(matches.size(), search_page_size_);
  QJsonArray page;
  for (std::size_t i = 0; i < size; ++i)
    page.append(matches[i]);
  QJsonObject answer{{"matches", page}};
  if (size < matches.size()) {
    const std::string cursor = "psc:" + std::to_string(next_property_id_++);
    searches_[cursor].assign(matches.begin() + static_cast<std::ptrdiff_t>(size), matches.end());
    answer.insert("cursor", QString::fromStdString(cursor));
  }
  return JsonAnswer(200, answer);
}

}  // namespace emulators
