#include "emulators/WebDavSurface.h"

#include <QDateTime>
#include <QLocale>

#include <cstdlib>

namespace emulators {

namespace {

constexpr const char* kDav = "DAV:";

HttpResponse Text(int status, const std::string& text) {
  HttpResponse response = HttpResponse::Status(status, text + "\n");
  response.headers = {{"Content-Type", "text/plain; charset=utf-8"}};
  return response;
}

std::string JoinPath(const std::string& parent, const std::string& name) {
  return parent.empty() ? name : parent + "/" + name;
}

// The path of an absolute URL or of a path alone.
std::string UrlPath(const std::string& url) {
  std::size_t scheme = url.find("://");
  if (scheme == std::string::npos)
    return url;
  std::size_t slash = url.find('/', scheme + 3);
  return slash == std::string::npos ? "/" : url.substr(slash);
}

// RFC 4918's live properties of an item; nullopt for one it lacks.
std::optional<std::string> StandardProperty(const Item& item, const std::string& name,
                                            const CloudAccount& account) {
  if (name == "resourcetype")
    return item.IsFolder() ? std::string("<d:collection/>") : std::string();
  if (name == "displayname")
    return XmlEscape(item.name);
  if (name == "getlastmodified")
    return HttpDate(item.modified_ms);
  if (name == "creationdate")
    return IsoTime(item.created_ms);
  if (name == "quota-used-bytes")
    return std::to_string(account.UsedSpace());
  if (name == "quota-available-bytes") {
    std::uint64_t used = account.UsedSpace();
    std::uint64_t total = account.TotalSpace();
    return std::to_string(total > used ? total - used : 0);
  }
  if (item.IsFolder())
    return std::nullopt;
  if (name == "getcontentlength")
    return std::to_string(item.size);
  if (name == "getetag")
    return item.digests.md5;
  if (name == "getcontenttype")
    return std::string("application/octet-stream");
  return std::nullopt;
}

const char* const kAllProp[] = {"resourcetype",  "displayname",      "getlastmodified",
                                "creationdate",  "getcontentlength", "getetag",
                                "getcontenttype"};

std::string DeadKey(const DavProperty& prop) {
  return "{" + prop.ns + "}" + prop.name;
}

}  // namespace

WebDavSurface::WebDavSurface(Router& router, WebDavOptions options)
    : router_(router), options_(std::move(options)) {}

void WebDavSurface::Install() {
  RouteOptions prefixed;
  prefixed.match = Match::kPrefix;
  const std::string path = options_.prefix.empty() ? "/" : options_.prefix;
  auto route = [&](const char* verb, HttpResponse (WebDavSurface::*handler)(const HttpRequest&),
                   RouteOptions options) {
    router_.Handle(
        verb, path,
        [this, handler](const HttpRequest& request) { return (this->*handler)(request); },
        std::move(options));
  };
  route("PROPFIND", &WebDavSurface::Propfind, prefixed);
  route("PROPPATCH", &WebDavSurface::Proppatch, prefixed);
  route("GET", &WebDavSurface::Get, prefixed);
  route("MKCOL", &WebDavSurface::Mkcol, prefixed);
  route("MOVE", &WebDavSurface::Move, prefixed);
  route("DELETE", &WebDavSurface::Delete, prefixed);
  RouteOptions upload = prefixed;
  upload.mode = BodyMode::kStoreBounded;
  upload.on_head = [this](const HttpRequest& head) { return PutHead(head); };
  route("PUT", &WebDavSurface::Put, upload);
}

bool WebDavSurface::Resolve(const std::string& request_path, Target* out) const {
  // 1. Below the prefix: "/webdavDocs" is not "/webdav/Docs".
  std::string rest = request_path.substr(std::min(options_.prefix.size(), request_path.size()));
  if (request_path.compare(0, options_.prefix.size(), options_.prefix) != 0 ||
      (!rest.empty() && rest[0] != '/')) {
    return false;
  }
  rest = DecodePath(rest);
  out->href_base = options_.prefix;
  // 2. An alias of the root stands in front of the account's path.
  for (const std::string& alias : options_.root_aliases) {
    if (rest.compare(0, alias.size(), alias) == 0 &&
        (rest.size() == alias.size() || rest[alias.size()] == '/')) {
      rest = rest.substr(alias.size());
      out->href_base += alias;
      break;
    }
  }
  // 3. The path without empty segments.
  return CleanPath(rest, &out->path);
}

std::string WebDavSurface::Href(const Target& target, const std::string& path, bool folder) const {
  std::string href = target.href_base + "/" + EncodePath(path);
  if (folder && href.back() != '/')
    href += '/';
  return href;
}

HttpResponse WebDavSurface::Propfind(const HttpRequest& request) {
  // 1. The resource and the depth.
  Target target;
  std::optional<Item> item;
  if (!Resolve(request.path, &target) || !(item = router_.account().FindByPath(target.path)))
    return Text(404, "Not Found");
  std::string depth = request.Header("Depth");
  if (depth != "0" && depth != "1")
    return Text(403, "Depth must be 0 or 1 (propfind-finite-depth)");
  // 2. What is asked.
  DavBody asked;
  std::string error;
  if (!ParseDavBody(request.body, &asked, &error) || asked.root == DavBody::Root::kPropertyUpdate)
    return Text(400, error.empty() ? "a propfind body is needed" : error);
  // 3. The item, then its children.
  std::vector<Item> items{*item};
  if (depth == "1" && item->IsFolder()) {
    std::vector<Item> children = router_.account().Children(item->id);
    items.insert(items.end(), children.begin(), children.end());
  }
  Multistatus answer;
  for (const Item& each : items) {
    std::vector<DavProperty> found, missing;
    Properties(each, asked, &found, &missing);
    std::string path = &each == &items.front() ? target.path : JoinPath(target.path, each.name);
    answer.Add(Href(target, path, each.IsFolder()), found, missing);
  }
  HttpResponse response = HttpResponse::Status(207, answer.Finish());
  response.headers = {{"Content-Type", "application/xml; charset=utf-8"}};
  return response;
}

void WebDavSurface::Properties(const Item& item, const DavBody& asked,
                               std::vector<DavProperty>* found,
                               std::vector<DavProperty>* missing) const {
  std::vector<DavProperty> wanted = asked.props;
  if (asked.all) {
    for (const char* name : kAllProp)
      wanted.push_back(DavProperty{kDav, name, std::string()});
    for (const auto& property : item.properties) {
      std::size_t close = property.first.find('}');
      if (property.first[0] != '{' || close == std::string::npos)
        continue;  // not a DAV property: another service's
      wanted.push_back(DavProperty{property.first.substr(1, close - 1),
                                   property.first.substr(close + 1), std::string()});
    }
  }
  for (DavProperty prop : wanted) {
    std::optional<std::string> value = Property(item, prop);
    if (!value) {
      if (!asked.all)
        missing->push_back(std::move(prop));
      continue;
    }
    prop.value = std::move(*value);
    found->push_back(std::move(prop));
  }
}

std::optional<std::string> WebDavSurface::Property(const Item& item,
                                                   const DavProperty& asked) const {
  if (asked.ns == kDav)
    return StandardProperty(item, asked.name, router_.account());
  std::string value;
  if (options_.live_property && options_.live_property(item, asked, &value))
    return value;
  auto dead = item.properties.find(DeadKey(asked));
  if (dead == item.properties.end())
    return std::nullopt;
  return XmlEscape(dead->second);
}

HttpResponse WebDavSurface::Proppatch(const HttpRequest& request) {
  // 1. The resource and the changes.
  Target target;
  std::optional<Item> item;
  if (!Resolve(request.path, &target) || !(item = router_.account().FindByPath(target.path)))
    return Text(404, "Not Found");
  DavBody patch;
  std::string error;
  if (!ParseDavBody(request.body, &patch, &error) || patch.root != DavBody::Root::kPropertyUpdate) {
    return Text(400, error.empty() ? "a propertyupdate body is needed" : error);
  }
  // 2. Each change: the service's own, or a dead property kept on the item.
  std::vector<DavProperty> done, refused;
  auto apply = [&](DavProperty prop, bool set) {
    std::string value = set ? prop.value : std::string();
    int status = options_.patch_property ? options_.patch_property(*item, prop, set, &value) : 0;
    if (status == 0) {
      status = router_.account().SetProperty(item->id, DeadKey(prop), value, nullptr) ==
                       AccountError::kNone
                   ? 200
                   : 409;
      value.clear();
    }
    prop.value = value;
    (status == 200 ? done : refused).push_back(std::move(prop));
  };
  for (const DavProperty& prop : patch.props)
    apply(prop, true);
  for (const DavProperty& prop : patch.removed)
    apply(prop, false);
  // 3. One propstat per status, as RFC 4918 has it.
  Multistatus answer;
  answer.Add(Href(target, target.path, item->IsFolder()), done, {}, refused);
  HttpResponse response = HttpResponse::Status(207, answer.Finish());
  response.headers = {{"Content-Type", "application/xml; charset=utf-8"}};
  return response;
}

HttpResponse WebDavSurface::Get(const HttpRequest& request) {
  Target target;
  std::optional<Item> item;
  if (!Resolve(request.path, &target) || !(item = router_.account().FindByPath(target.path)))
    return Text(404, "Not Found");
  if (item->IsFolder()) {
    return options_.folder_get ? options_.folder_get(request, *item, target.path)
                               : Text(403, "Forbidden");
  }
  HttpResponse response = ContentResponse(*item, request.Header("Range"));
  if (response.status == 200 || response.status == 206)
    response.headers.emplace_back("ETag", item->digests.md5);
  return response;
}

int WebDavSurface::PlanPut(const HttpRequest& request, std::string* parent_id,
                           std::optional<Item>* existing) const {
  Target target;
  if (!Resolve(request.path, &target) || target.path.empty())
    return 400;
  const CloudAccount& account = router_.account();
  std::optional<Item> parent = account.FindByPath(ParentPath(target.path));
  if (!parent || !parent->IsFolder())
    return 409;
  *parent_id = parent->id;
  *existing = account.ChildByName(parent->id, LeafName(target.path));
  if (*existing && (*existing)->IsFolder())
    return 405;
  // The conditions of RFC 7232 on the file there.
  if (request.Header("If-None-Match") == "*" && *existing)
    return 412;
  std::string if_match = request.Header("If-Match");
  if (!if_match.empty() &&
      (!*existing || (if_match != "*" && if_match != (*existing)->digests.md5)))
    return 412;
  std::uint64_t size = std::strtoull(request.Header("Content-Length").c_str(), nullptr, 10);
  if (options_.max_file_size > 0 && size > options_.max_file_size)
    return 413;
  std::uint64_t freed = *existing ? (*existing)->size : 0;
  if (account.UsedSpace() - freed + size > account.TotalSpace())
    return 507;
  return 0;
}

HttpResponse WebDavSurface::PutHead(const HttpRequest& head) {
  // 1. A refusal goes out before the body.
  std::string parent_id;
  std::optional<Item> existing;
  if (int status = PlanPut(head, &parent_id, &existing))
    return Text(status, "Refused");
  // 2. Known content is taken from what the account holds, and no byte need come.
  std::string md5 = head.Header("Etag");
  std::string sha256 = head.Header("Sha256");
  if (!options_.hash_headers || md5.empty() || sha256.empty())
    return HttpResponse::Status(0);
  std::uint64_t size = std::strtoull(head.Header("Content-Length").c_str(), nullptr, 10);
  std::optional<Item> known = FindKnownContent(router_.account(), md5, sha256, size);
  if (!known)
    return HttpResponse::Status(0);
  AccountError error = PutKnownContent(router_.account(), parent_id,
                                       LeafName(DecodePath(head.path)), existing, *known);
  return Text(error == AccountError::kNone ? 201 : 409, "Created");
}

HttpResponse WebDavSurface::Put(const HttpRequest& request) {
  // 1. The same plan as on the head: the account may have moved on meanwhile.
  std::string parent_id;
  std::optional<Item> existing;
  if (int status = PlanPut(request, &parent_id, &existing))
    return Text(status, "Refused");
  // 2. The announced digests must be those of the bytes that came.
  if (options_.hash_headers) {
    const ContentDigests& digests = request.body_digests;
    std::string md5 = request.Header("Etag");
    std::string sha256 = request.Header("Sha256");
    if ((!md5.empty() && md5 != digests.md5) || (!sha256.empty() && sha256 != digests.sha256))
      return Text(400, "The content does not match its Etag or Sha256");
  }
  // 3. The file.
  AccountError error = PutUploadedBytes(router_.account(), request, parent_id,
                                        LeafName(DecodePath(request.path)), existing);
  if (error == AccountError::kNoSpace)
    return Text(507, "Insufficient Storage");
  return Text(error == AccountError::kNone ? 201 : 409, "Created");
}

HttpResponse WebDavSurface::Mkcol(const HttpRequest& request) {
  Target target;
  if (!Resolve(request.path, &target))
    return Text(404, "Not Found");
  if (request.body_size > 0)
    return Text(415, "Unsupported Media Type");
  CloudAccount& account = router_.account();
  if (target.path.empty() || account.FindByPath(target.path))
    return Text(405, "Method Not Allowed");
  std::optional<Item> parent = account.FindByPath(ParentPath(target.path));
  if (!parent || !parent->IsFolder())
    return Text(409, "Conflict");
  AccountError error = account.CreateFolder(parent->id, LeafName(target.path), nullptr);
  return Text(error == AccountError::kNone ? 201 : 409, "Created");
}

HttpResponse WebDavSurface::Move(const HttpRequest& request) {
  // 1. Source and destination.
  Target source, destination;
  CloudAccount& account = router_.account();
  std::optional<Item> item;
  if (!Resolve(request.path, &source) || !(item = account.FindByPath(source.path)) ||
      source.path.empty()) {
    return Text(404, "Not Found");
  }
  std::string header = request.Header("Destination");
  if (header.empty() || !Resolve(UrlPath(header), &destination) || destination.path.empty())
    return Text(400, "Bad Destination");
  std::optional<Item> parent = account.FindByPath(ParentPath(destination.path));
  if (!parent || !parent->IsFolder())
    return Text(409, "Conflict");
  // 2. What stands at the destination goes only with "Overwrite: T" (the default).
  std::optional<Item> there = account.ChildByName(parent->id, LeafName(destination.path));
  if (there && there->id == item->id)
    return Text(403, "Source and destination are the same");
  if (there && request.Header("Overwrite") == "F")
    return Text(412, "Precondition Failed");
  if (there)
    account.Trash(there->id, nullptr);
  // 3. The move.
  AccountError error = account.Move(item->id, {parent->id}, LeafName(destination.path), nullptr);
  if (error == AccountError::kCycle)
    return Text(403, "Forbidden");
  if (error != AccountError::kNone)
    return Text(409, AccountErrorName(error));
  return Text(there ? 204 : 201, there ? "" : "Created");
}

HttpResponse WebDavSurface::Delete(const HttpRequest& request) {
  Target target;
  std::optional<Item> item;
  CloudAccount& account = router_.account();
  if (!Resolve(request.path, &target) || !(item = account.FindByPath(target.path)))
    return Text(404, "Not Found");
  if (target.path.empty())
    return Text(403, "Forbidden");
  std::string if_match = request.Header("If-Match");
  if (!if_match.empty() && if_match != "*" && if_match != item->digests.md5)
    return Text(412, "Precondition Failed");
  account.Trash(item->id, nullptr);
  return HttpResponse::Status(204);
}

std::optional<Item> FindKnownContent(const CloudAccount& account, const std::string& md5,
                                     const std::string& sha256, std::uint64_t size) {
  for (const Item& item : account.AllItems()) {
    if (!item.IsFolder() && (item.content || item.generated) && item.size == size &&
        item.digests.md5 == md5 && item.digests.sha256 == sha256) {
      return item;
    }
  }
  return std::nullopt;
}

AccountError PutKnownContent(CloudAccount& account, const std::string& parent_id,
                             const std::string& name, const std::optional<Item>& existing,
                             const Item& known) {
  // Generated bytes are made again where they are read, so a new file of them costs nothing.
  if (existing && known.generated) {
    AccountError error = account.Delete(existing->id);
    if (error != AccountError::kNone)
      return error;
  }
  if (known.generated)
    return account.CreateGeneratedFile(parent_id, name, known.size, nullptr);
  if (existing)
    return account.ReplaceContent(existing->id, *known.content, 0, nullptr);
  return account.CreateFile(parent_id, name, *known.content, 0, nullptr);
}

AccountError PutUploadedBytes(CloudAccount& account, const HttpRequest& upload,
                              const std::string& parent_id, const std::string& name,
                              const std::optional<Item>& existing) {
  if (upload.body.size() == upload.body_size) {
    return existing ? account.ReplaceContent(existing->id, upload.body, 0, nullptr)
                    : account.CreateFile(parent_id, name, upload.body, 0, nullptr);
  }
  return existing ? account.ReplaceByDigests(existing->id, upload.body_size, upload.body_digests, 0,
                                             nullptr)
                  : account.CreateFileByDigests(parent_id, name, upload.body_size,
                                                upload.body_digests, 0, nullptr);
}

bool CleanPath(const std::string& raw, std::string* path) {
  path->clear();
  std::size_t start = 0;
  while (start < raw.size()) {
    std::size_t slash = raw.find('/', start);
    std::size_t end = slash == std::string::npos ? raw.size() : slash;
    std::string name = raw.substr(start, end - start);
    if (name == "." || name == "..")
      return false;
    if (!name.empty())
      *path = JoinPath(*path, name);
    start = end + 1;
  }
  return true;
}

std::string ParentPath(const std::string& path) {
  std::size_t slash = path.rfind('/');
  return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

std::string LeafName(const std::string& path) {
  return path.substr(path.rfind('/') + 1);
}

std::string DecodePath(const std::string& encoded) {
  std::string protected_plus;
  for (char c : encoded)
    protected_plus += c == '+' ? std::string("%2B") : std::string(1, c);
  return PercentDecode(protected_plus);
}

std::string EncodePath(const std::string& path) {
  static const char kHex[] = "0123456789ABCDEF";
  std::string encoded;
  for (unsigned char c : path) {
    bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                 c == '-' || c == '_' || c == '.' || c == '~' || c == '/';
    if (plain) {
      encoded += static_cast<char>(c);
    } else {
      encoded += '%';
      encoded += kHex[c >> 4];
      encoded += kHex[c & 15];
    }
  }
  return encoded;
}

std::string HttpDate(std::int64_t ms) {
  return QLocale::c()
      .toString(QDateTime::fromMSecsSinceEpoch(ms, Qt::UTC), "ddd, dd MMM yyyy HH:mm:ss 'GMT'")
      .toStdString();
}

}  // namespace emulators
