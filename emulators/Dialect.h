// Dialect: one service's wire form over the shared account model. A dialect registers the
// service's routes on a Router, answers failures with the service's own error bodies and names
// the hosts it stands for, so that the library's endpoints can be pointed at it.
//
//   class HuaweiDialect : public emulators::Dialect {
//     const char* Service() const override { return "huawei"; }
//     HostList Hosts() const override { return {{"huawei.drive", ""}}; }
//     emulators::HttpResponse Error(int status, const std::string& code) const override;
//     void Install(emulators::Router& router) override {
//       router.Handle("GET", "/drive/v1/about", [&router](const emulators::HttpRequest&) {...});
//     }
//   };
//
// Each dialect is built from its service's public API documentation alone.
#pragma once

#include <QJsonObject>

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "emulators/CloudAccount.h"
#include "emulators/HttpServer.h"

namespace emulators {

struct RouteOptions {
  Match match = Match::kExact;
  BodyMode mode = BodyMode::kStore;
  HeadHandler on_head;
  // Upload URLs that the service pre-authorizes are reached without the token.
  bool needs_auth = true;
};

// What a dialect installs its routes on: the emulator checks the token and applies the faults
// around every handler.
class Router {
 public:
  virtual ~Router() = default;
  virtual void Handle(const std::string& verb, const std::string& path, Handler handler,
                      RouteOptions options = RouteOptions()) = 0;
  virtual CloudAccount& account() = 0;
  // "http://127.0.0.1:PORT", for the URLs an answer carries (upload sessions, links, Location).
  virtual std::string BaseUrl() const = 0;
};

// Pairs of a library endpoint name (core/Endpoints.h) and the path below the emulator's base URL
// that stands for that host.
using HostList = std::vector<std::pair<std::string, std::string>>;

class Dialect {
 public:
  virtual ~Dialect() = default;
  virtual const char* Service() const = 0;
  virtual HostList Hosts() const = 0;
  // The scheme of the "Authorization" header: "Bearer", or Yandex's "OAuth".
  virtual std::string AuthScheme() const { return "Bearer"; }
  // The service's answer to a failure of this status; `code` is the error as the service names it,
  // empty for the status's usual one.
  virtual HttpResponse Error(int status, const std::string& code) const = 0;
  // The account as the service shapes it (root id, id form, same names in a folder).
  virtual std::unique_ptr<CloudAccount> MakeAccount() const;
  virtual void Install(Router& router) = 0;
  // Called before the server closes: a handler that holds a request (a long poll) lets it go.
  virtual void Shutdown() {}
};

// The dialect of a service name of the command line ("huawei", "box", ...); null when none.
std::unique_ptr<Dialect> MakeDialect(const std::string& service);
std::vector<std::string> DialectNames();

// Helpers every dialect needs.
HttpResponse JsonResponse(int status, const QJsonObject& body);
// 200 with the item's bytes, or 206 for a satisfiable "Range" (bytes=a-b, a-, -n), 416 for one
// that isn't; 404 for a file whose bytes were not kept.
HttpResponse ContentResponse(const Item& item, const std::string& range_header);
// The query parameter's value, percent-decoded; empty when missing.
std::string QueryParam(const std::string& query, const std::string& key);
bool HasQueryParam(const std::string& query, const std::string& key);
// Each "key=value" pair of a query, escapes left as they came, till `visit` answers false.
void ForEachQueryPair(const std::string& query,
                      const std::function<bool(const std::string& pair)>& visit);
std::string PercentDecode(const std::string& text);
// RFC 3339 in UTC with milliseconds: "2024-05-01T10:20:30.123Z".
std::string IsoTime(std::int64_t ms);

}  // namespace emulators
