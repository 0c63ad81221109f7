#include "emulators/Emulator.h"

#include <QJsonArray>
#include <QJsonDocument>

#include <stdexcept>

namespace emulators {

namespace {

// Removes `key` from every object of a JSON answer; other bodies pass as they are.
void DropField(const std::string& key, HttpResponse* response) {
  QJsonDocument document = QJsonDocument::fromJson(QByteArray::fromStdString(response->body));
  if (document.isNull())
    return;
  std::function<QJsonValue(QJsonValue)> drop = [&](QJsonValue value) -> QJsonValue {
    if (value.isObject()) {
      QJsonObject object = value.toObject();
      object.remove(QString::fromStdString(key));
      for (auto it = object.begin(); it != object.end(); ++it)
        *it = drop(*it);
      return object;
    }
    if (value.isArray()) {
      QJsonArray array = value.toArray();
      for (auto it = array.begin(); it != array.end(); ++it)
        *it = drop(*it);
      return array;
    }
    return value;
  };
  QJsonValue root = document.isObject() ? QJsonValue(document.object()) : document.array();
  root = drop(root);
  document = root.isObject() ? QJsonDocument(root.toObject()) : QJsonDocument(root.toArray());
  response->body = document.toJson(QJsonDocument::Compact).toStdString();
}

QJsonObject ItemJson(const Item& item) {
  QJsonArray parents;
  for (const std::string& parent : item.parents)
    parents.append(QString::fromStdString(parent));
  QJsonObject properties;
  for (const auto& property : item.properties) {
    properties.insert(QString::fromStdString(property.first),
                      QString::fromStdString(property.second));
  }
  QJsonObject json{{"id", QString::fromStdString(item.id)},
                   {"name", QString::fromStdString(item.name)},
                   {"parents", parents},
                   {"kind", item.IsFolder() ? "folder" : "file"},
                   {"modified", IsoTime(item.modified_ms).c_str()},
                   {"revision", static_cast<double>(item.revision)},
                   {"trashed", item.trashed},
                   {"shared", item.shared_with_me},
                   {"properties", properties}};
  if (!item.IsFolder()) {
    json.insert("size", static_cast<double>(item.size));
    json.insert("md5", QString::fromStdString(item.digests.md5));
    json.insert("sha1", QString::fromStdString(item.digests.sha1));
    json.insert("sha256", QString::fromStdString(item.digests.sha256));
    json.insert("dropbox", QString::fromStdString(item.digests.dropbox));
    json.insert("quickxor", QString::fromStdString(item.digests.quickxor));
  }
  if (!item.public_link.empty())
    json.insert("link", QString::fromStdString(item.public_link));
  return json;
}

QJsonObject ParseObject(const std::string& body, std::string* error) {
  QJsonParseError parse_error;
  QJsonDocument document = QJsonDocument::fromJson(QByteArray::fromStdString(body), &parse_error);
  if (!document.isObject())
    *error = "a JSON object is needed";
  return document.object();
}

HttpResponse ControlAnswer(const std::string& error) {
  if (error.empty())
    return HttpResponse::Status(204);
  HttpResponse response = HttpResponse::Status(400, error + "\n");
  response.headers = {{"Content-Type", "text/plain"}};
  return response;
}

}  // namespace

std::unique_ptr<Emulator> Emulator::Start(const std::string& service, int port,
                                          std::string* error) {
  std::unique_ptr<Dialect> dialect = MakeDialect(service);
  if (!dialect) {
    *error = "no emulator for " + service;
    return nullptr;
  }
  return Start(std::move(dialect), port, error);
}

std::unique_ptr<Emulator> Emulator::Start(std::unique_ptr<Dialect> dialect, int port,
                                          std::string* error) {
  std::unique_ptr<HttpServer> server;
  try {
    server = std::make_unique<HttpServer>(port);
  } catch (const std::runtime_error& failure) {
    *error = failure.what();
    return nullptr;
  }
  return std::unique_ptr<Emulator>(new Emulator(std::move(dialect), std::move(server)));
}

Emulator::Emulator(std::unique_ptr<Dialect> dialect, std::unique_ptr<HttpServer> server)
    : dialect_(std::move(dialect)), server_(std::move(server)), account_(dialect_->MakeAccount()) {
  dialect_->Install(*this);
  InstallControl();
}

Emulator::~Emulator() {
  // The connections' threads end before the account they serve.
  dialect_->Shutdown();
  server_.reset();
}

HostList Emulator::Endpoints() const {
  HostList endpoints;
  for (const auto& host : dialect_->Hosts()) {
    endpoints.emplace_back(host.first, BaseUrl() + host.second);
  }
  return endpoints;
}

void Emulator::Handle(const std::string& verb, const std::string& path, Handler handler,
                      RouteOptions options) {
  bool needs_auth = options.needs_auth;
  HeadHandler on_head;
  if (options.on_head) {
    // A head answered before the body (content the server knows) needs the token as well.
    on_head = [this, head_handler = std::move(options.on_head),
               needs_auth](const HttpRequest& head) {
      return needs_auth && !Authorized(head) ? dialect_->Error(401, std::string())
                                             : head_handler(head);
    };
  }
  server_->Handle(
      verb, path,
      [this, handler = std::move(handler), needs_auth](const HttpRequest& request) {
        return Serve(handler, needs_auth, request);
      },
      options.match, options.mode, std::move(on_head));
}

bool Emulator::Authorized(const HttpRequest& request) const {
  std::string prefix = dialect_->AuthScheme() + " ";
  std::string header = request.Header("Authorization");
  if (header.compare(0, prefix.size(), prefix) != 0 || header.size() == prefix.size()) {
    return false;
  }
  return header.substr(prefix.size()) != kRejectedToken;
}

HttpResponse Emulator::Serve(const Handler& handler, bool needs_auth, const HttpRequest& request) {
  // 1. The token.
  if (needs_auth && !Authorized(request)) {
    return dialect_->Error(401, std::string());
  }
  // 2. A fault replaces the answer or bends it.
  std::optional<Fault> fault = faults_.Take(request.verb, request.path);
  if (fault && fault->expire_sessions)
    account_->ExpireUploads();
  if (fault && fault->persist_limit != UINT64_MAX)
    account_->LimitNextPersist(fault->persist_limit);
  HttpResponse response =
      fault && fault->status > 0 ? dialect_->Error(fault->status, fault->error) : handler(request);
  if (!fault) {
    return response;
  }
  if (fault->retry_after_s >= 0) {
    response.headers.emplace_back("Retry-After", std::to_string(fault->retry_after_s));
  }
  if (!fault->drop_field.empty())
    DropField(fault->drop_field, &response);
  response.delay_ms = fault->delay_ms;
  response.cut_after = fault->cut_after;
  if (fault->flip_byte < response.body.size())
    response.body[fault->flip_byte] = static_cast<char>(~response.body[fault->flip_byte]);
  response.reset = fault->reset;
  response.trickle_bytes = fault->trickle_bytes;
  response.trickle_interval_ms = fault->trickle_interval_ms;
  // 3. Someone else changes the account right after this answer was made.
  if (fault->change_after) {
    std::string error;
    ApplyForeignChange(*account_, *fault->change_after, &error);
  }
  return response;
}

void Emulator::InstallControl() {
  std::string base = kControlPath;
  server_->Handle("POST", base + "faults", [this](const HttpRequest& request) {
    std::string error;
    faults_.Add(request.body, &error);
    return ControlAnswer(error);
  });
  server_->Handle("DELETE", base + "faults", [this](const HttpRequest&) {
    faults_.Clear();
    return ControlAnswer(std::string());
  });
  server_->Handle("POST", base + "seed", [this](const HttpRequest& request) {
    std::string error;
    QJsonObject seed = ParseObject(request.body, &error);
    std::optional<Item> folder = account_->FindByPath(seed.value("path").toString().toStdString());
    if (error.empty() && !folder)
      error = "no folder at the path";
    if (error.empty()) {
      account_->SeedFromFolder(seed.value("dir").toString().toStdString(), folder->id, &error);
    }
    return ControlAnswer(error);
  });
  server_->Handle("POST", base + "change", [this](const HttpRequest& request) {
    std::string error;
    QJsonObject change = ParseObject(request.body, &error);
    if (error.empty() &&
        !ApplyForeignChange(*account_,
                            ForeignChange{change.value("op").toString().toStdString(),
                                          change.value("path").toString().toStdString(),
                                          change.value("to").toString().toStdString(),
                                          change.value("content").toString().toStdString()},
                            &error)) {
      return ControlAnswer(error);
    }
    return ControlAnswer(error == "none" ? std::string() : error);
  });
  server_->Handle("GET", base + "requests", [this, base](const HttpRequest&) {
    QJsonArray served;
    for (const HttpRequest& request : server_->Requests()) {
      if (request.path.compare(0, base.size(), base) != 0) {
        QJsonObject entry{{"verb", QString::fromStdString(request.verb)},
                          {"path", QString::fromStdString(request.path)},
                          {"query", QString::fromStdString(request.query)},
                          {"size", static_cast<qint64>(request.body_size)}};
        // Where an upload piece goes, or a status query, tells a resume from a fresh start.
        if (request.HasHeader("Content-Range"))
          entry.insert("content_range", QString::fromStdString(request.Header("Content-Range")));
        served.append(entry);
      }
    }
    HttpResponse response = HttpResponse::Status(
        200, QJsonDocument(served).toJson(QJsonDocument::Compact).toStdString());
    response.headers = {{"Content-Type", "application/json"}};
    return response;
  });
  server_->Handle("GET", base + "dump", [this](const HttpRequest&) {
    HttpResponse response = HttpResponse::Status(200, DumpAccount(*account_));
    response.headers = {{"Content-Type", "application/json"}};
    return response;
  });
}

std::string DumpAccount(const CloudAccount& account) {
  QJsonArray items;
  for (const Item& item : account.AllItems())
    items.append(ItemJson(item));
  QJsonObject dump{{"root", QString::fromStdString(account.RootId())},
                   {"sequence", static_cast<double>(account.Sequence())},
                   {"total", static_cast<double>(account.TotalSpace())},
                   {"used", static_cast<double>(account.UsedSpace())},
                   {"items", items}};
  return QJsonDocument(dump).toJson(QJsonDocument::Compact).toStdString();
}

}  // namespace emulators
