#include "emulators/YandexDialect.h"

#include "emulators/WebDavSurface.h"
#include "emulators/YandexRestApi.h"
#include "emulators/YandexSnapshot.h"

namespace emulators {

namespace {

struct ErrorRow {
  int status;
  const char* error;
  const char* message;
};

// The usual error of each status, with Yandex's English texts.
const ErrorRow kErrors[] = {
    {400, "FieldValidationError", "Error validating field."},
    {401, "UnauthorizedError", "Unauthorized"},
    {403, "ForbiddenError", "Forbidden."},
    {404, "DiskNotFoundError", "Resource not found."},
    {409, "DiskResourceAlreadyExistsError", "Resource already exists."},
    {410, "DiskRevisionTooOldError", "The revision is too old."},
    {413, "FileTooBigError", "File too big."},
    {423, "DiskResourceLockedError", "Resource is locked."},
    {429, "TooManyRequestsError", "Too many requests."},
    {503, "DiskServiceUnavailableError", "Service temporarily unavailable."},
    {507, "DiskInsufficientStorageError", "Insufficient storage."},
};

}  // namespace

// The WebDAV host: the shared surface with Yandex's properties and its binary snapshot.
class YandexDialect::Dav {
 public:
  Dav(const YandexOptions& options, Router& router) : options_(options), router_(router) {
    WebDavOptions dav;
    dav.prefix = "/webdav";
    dav.root_aliases = {"/disk"};
    dav.hash_headers = true;
    dav.max_file_size = options.max_file_size;
    dav.live_property = [this](const Item& item, const DavProperty& asked, std::string* value) {
      return LiveProperty(item, asked, value);
    };
    dav.patch_property = [this](const Item& item, const DavProperty& prop, bool set,
                                std::string* value) {
      return PatchProperty(item, prop, set, value);
    };
    dav.folder_get = [this](const HttpRequest& request, const Item& folder,
                            const std::string& path) { return FolderGet(request, folder, path); };
    surface_ = std::make_unique<WebDavSurface>(router, std::move(dav));
  }
  void Install() { surface_->Install(); }

 private:
  bool LiveProperty(const Item& item, const DavProperty& asked, std::string* value) const {
    if (asked.ns != kMetaNamespace)
      return false;
    const CloudAccount& account = router_.account();
    if (asked.name == "sha256" && !item.IsFolder())
      *value = item.digests.sha256;
    else if (asked.name == "public_url" && !item.public_link.empty())
      *value = XmlEscape(item.public_link);
    else if (asked.name == "max-file-size")
      *value = std::to_string(options_.max_file_size);
    else if (asked.name == "trash-used-bytes")
      *value = std::to_string(YandexTrashSize(account));
    else
      return false;
    return true;
  }

  // "public_url" true publishes, anything else closes the link; other properties are dead ones.
  int PatchProperty(const Item& item, const DavProperty& prop, bool set, std::string* value) {
    if (!prop.Is(kMetaNamespace, "public_url"))
      return 0;
    bool publish = set && prop.value == "true";
    std::string link = publish ? YandexPublicLink(item) : std::string();
    router_.account().SetPublicLink(item.id, link, nullptr);
    *value = XmlEscape(link);
    return 200;
  }

  HttpResponse FolderGet(const HttpRequest& request, const Item& folder, const std::string& path) {
    if (request.query != kSnapshotQuery)
      return HttpResponse::Status(400, "Bad Request\n");
    std::uint64_t count = 0;
    std::string body = BinarySnapshot(router_.account(), folder, path, &count);
    if (options_.edit_snapshot)
      options_.edit_snapshot(&body);
    HttpResponse response = HttpResponse::Status(200, std::move(body));
    response.headers = {{"Content-Type", "application/octet-stream"}};
    std::string said = options_.item_count ? *options_.item_count : std::to_string(count);
    if (!said.empty())
      response.headers.emplace_back("Item-Count", said);
    return response;
  }

  const YandexOptions& options_;
  Router& router_;
  std::unique_ptr<WebDavSurface> surface_;
};

YandexDialect::YandexDialect(YandexOptions options) : options_(std::move(options)) {}

YandexDialect::~YandexDialect() = default;

HttpResponse YandexDialect::Error(int status, const std::string& code) const {
  const ErrorRow* row = nullptr;
  for (const ErrorRow& each : kErrors) {
    if (each.status == status)
      row = &each;
  }
  std::string error = !code.empty() ? code : row ? row->error : "UnknownError";
  std::string message = row ? row->message : "Error.";
  QJsonObject body{{"message", QString::fromStdString(message)},
                   {"description", QString::fromStdString(message)},
                   {"error", QString::fromStdString(error)}};
  return JsonResponse(status, body);
}

void YandexDialect::Install(Router& router) {
  rest_ = std::make_unique<YandexRestApi>(*this, options_, router);
  dav_ = std::make_unique<Dav>(options_, router);
  rest_->Install();
  dav_->Install();
}

std::unique_ptr<Dialect> MakeYandexDialect() {
  return std::make_unique<YandexDialect>();
}

std::unique_ptr<Dialect> MakeYandexDialect(const YandexOptions& options) {
  return std::make_unique<YandexDialect>(options);
}

}  // namespace emulators
