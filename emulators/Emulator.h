// Emulator: one service's dialect served over the shared account model on loopback, with fault
// instructions and a control path for processes.
//
//   std::string error;
//   auto emulator = emulators::Emulator::Start("huawei", 0, &error);
//   for (const auto& [name, url] : emulator->Endpoints()) Endpoints::Override(name, url);
//   emulator->account().CreateFile(emulator->account().RootId(), "a.txt", "hello", 0, nullptr);
//   emulator->faults().Add(rule);
//
// Every request but the control path's needs "Authorization: SCHEME TOKEN" with a non-empty
// token (also on an upload's head that is answered before its body); kRejectedToken gets the
// service's own 401. The control path (kControlPath, no token):
//   POST   /_emulator/faults   a fault rule as JSON (see Faults.h)     DELETE it: no more faults
//   POST   /_emulator/seed     {"dir": LOCAL_FOLDER, "path": FOLDER_IN_ACCOUNT}
//   POST   /_emulator/change   a foreign change: {"op":"rename","path":"a/b","to":"c"}
//   GET    /_emulator/dump     the account as JSON
//   GET    /_emulator/requests the requests served so far (verb, path, query, body size and
//                             any "Content-Range"), oldest first
#pragma once

#include <memory>
#include <string>

#include "emulators/CloudAccount.h"
#include "emulators/Dialect.h"
#include "emulators/Faults.h"
#include "emulators/HttpServer.h"

namespace emulators {

class Emulator : private Router {
 public:
  static constexpr const char* kRejectedToken = "rejected-token";
  static constexpr const char* kControlPath = "/_emulator/";

  // Null with `*error` set for a service without a dialect or a port that can't be had.
  static std::unique_ptr<Emulator> Start(const std::string& service, int port, std::string* error);
  static std::unique_ptr<Emulator> Start(std::unique_ptr<Dialect> dialect, int port,
                                         std::string* error);
  ~Emulator() override;

  CloudAccount& account() override { return *account_; }
  FaultBook& faults() { return faults_; }
  HttpServer& server() { return *server_; }
  const Dialect& dialect() const { return *dialect_; }
  std::string BaseUrl() const override { return server_->BaseUrl(); }
  // Each library endpoint name with the URL that stands for it here.
  HostList Endpoints() const;

 private:
  Emulator(std::unique_ptr<Dialect> dialect, std::unique_ptr<HttpServer> server);

  void Handle(const std::string& verb, const std::string& path, Handler handler,
              RouteOptions options) override;
  HttpResponse Serve(const Handler& handler, bool needs_auth, const HttpRequest& request);
  bool Authorized(const HttpRequest& request) const;
  void InstallControl();

  std::unique_ptr<Dialect> dialect_;
  std::unique_ptr<HttpServer> server_;
  std::unique_ptr<CloudAccount> account_;
  FaultBook faults_;
};

// The account as JSON: {"root":ID,"sequence":N,"total":N,"used":N,"items":[{...}]}, parents
// before children.
std::string DumpAccount(const CloudAccount& account);

}  // namespace emulators
