#include "emulators/Dialect.h"

#include <QDateTime>
#include <QJsonDocument>

#include <cstdlib>

#include "emulators/BoxDialect.h"
#include "emulators/DropboxDialect.h"
#include "emulators/GoogleDialect.h"
#include "emulators/HuaweiDialect.h"
#include "emulators/OneDriveDialect.h"
#include "emulators/YandexDialect.h"

namespace emulators {

namespace {

// One row per service; a dialect joins the emulators with its line here.
struct DialectRow {
  const char* service;
  std::unique_ptr<Dialect> (*make)();
};

const DialectRow kDialects[] = {
    {"huawei", MakeHuaweiDialect},     {"box", MakeBoxDialect},
    {"onedrive", MakeOneDriveDialect}, {"dropbox", MakeDropboxDialect},
    {"google", MakeGoogleDialect},     {"yandex", MakeYandexDialect},
};

int HexValue(char c) {
  if (c >= '0' && c <= '9')
    return c - '0';
  if (c >= 'a' && c <= 'f')
    return c - 'a' + 10;
  if (c >= 'A' && c <= 'F')
    return c - 'A' + 10;
  return -1;
}

}  // namespace

std::unique_ptr<CloudAccount> Dialect::MakeAccount() const {
  return std::make_unique<CloudAccount>();
}

std::unique_ptr<Dialect> MakeDialect(const std::string& service) {
  for (const DialectRow& row : kDialects) {
    if (row.make && service == row.service)
      return row.make();
  }
  return nullptr;
}

std::vector<std::string> DialectNames() {
  std::vector<std::string> names;
  for (const DialectRow& row : kDialects) {
    if (row.make)
      names.push_back(row.service);
  }
  return names;
}

HttpResponse JsonResponse(int status, const QJsonObject& body) {
  HttpResponse response;
  response.status = status;
  response.headers = {{"Content-Type", "application/json; charset=UTF-8"}};
  response.body = QJsonDocument(body).toJson(QJsonDocument::Compact).toStdString();
  return response;
}

HttpResponse ContentResponse(const Item& item, const std::string& range_header) {
  if (!item.content && !item.generated) {
    return HttpResponse::Status(404);
  }
  // 1. The range asked for, if any.
  std::uint64_t first = 0;
  std::uint64_t last = item.size == 0 ? 0 : item.size - 1;
  bool ranged = range_header.compare(0, 6, "bytes=") == 0;
  if (ranged) {
    std::string spec = range_header.substr(6);
    std::size_t dash = spec.find('-');
    std::string from = spec.substr(0, dash);
    std::string to = dash == std::string::npos ? std::string() : spec.substr(dash + 1);
    if (dash == std::string::npos || (from.empty() && to.empty())) {
      ranged = false;
    } else if (from.empty()) {
      std::uint64_t suffix = std::strtoull(to.c_str(), nullptr, 10);
      first = suffix >= item.size ? 0 : item.size - suffix;
    } else {
      first = std::strtoull(from.c_str(), nullptr, 10);
      if (!to.empty())
        last = std::min<std::uint64_t>(last, std::strtoull(to.c_str(), nullptr, 10));
    }
    if (ranged && (first >= item.size || first > last)) {
      HttpResponse refused = HttpResponse::Status(416);
      refused.headers = {{"Content-Range", "bytes */" + std::to_string(item.size)}};
      return refused;
    }
  }
  // 2. The bytes.
  HttpResponse response;
  response.status = ranged ? 206 : 200;
  response.headers = {{"Content-Type", "application/octet-stream"}};
  if (ranged) {
    response.headers.emplace_back("Content-Range", "bytes " + std::to_string(first) + "-" +
                                                       std::to_string(last) + "/" +
                                                       std::to_string(item.size));
  }
  std::uint64_t length = item.size == 0 ? 0 : last - first + 1;
  if (item.generated) {
    response.generated_size = length;
    response.generated_offset = first;
    if (length == 0)
      response.headers.emplace_back("Content-Length", "0");
  } else {
    response.body =
        item.content->substr(static_cast<std::size_t>(first), static_cast<std::size_t>(length));
  }
  return response;
}

std::string PercentDecode(const std::string& text) {
  std::string decoded;
  decoded.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size() && HexValue(text[i + 1]) >= 0 &&
        HexValue(text[i + 2]) >= 0) {
      decoded += static_cast<char>(HexValue(text[i + 1]) * 16 + HexValue(text[i + 2]));
      i += 2;
    } else {
      decoded += text[i] == '+' ? ' ' : text[i];
    }
  }
  return decoded;
}

namespace {

bool FindQueryParam(const std::string& query, const std::string& key, std::string* value) {
  bool found = false;
  ForEachQueryPair(query, [&](const std::string& pair) {
    std::size_t equals = pair.find('=');
    if (PercentDecode(pair.substr(0, equals)) != key)
      return true;
    *value = equals == std::string::npos ? std::string() : PercentDecode(pair.substr(equals + 1));
    found = true;
    return false;
  });
  return found;
}

}  // namespace

std::string QueryParam(const std::string& query, const std::string& key) {
  std::string value;
  FindQueryParam(query, key, &value);
  return value;
}

bool HasQueryParam(const std::string& query, const std::string& key) {
  std::string value;
  return FindQueryParam(query, key, &value);
}

void ForEachQueryPair(const std::string& query,
                      const std::function<bool(const std::string& pair)>& visit) {
  std::size_t start = 0;
  while (start <= query.size()) {
    std::size_t end = query.find('&', start);
    if (end == std::string::npos)
      end = query.size();
    if (!visit(query.substr(start, end - start)))
      return;
    start = end + 1;
  }
}

std::string IsoTime(std::int64_t ms) {
  return QDateTime::fromMSecsSinceEpoch(ms, Qt::UTC)
      .toString("yyyy-MM-ddTHH:mm:ss.zzzZ")
      .toStdString();
}

}  // namespace emulators
