// DavServer: a real WebDAV server from the system's packages, started on a free loopback port
// over a fresh temporary folder, for tests of the transport and of the WebDAV adapters.
//
//   test::DavServer dav(test::DavServerKind::kLighttpd, "user", "secret");
//   ASSERT_TRUE(dav.Start()) << dav.Error();
//   ... requests to dav.BaseUrl() + "/folder/" ...
//   EXPECT_TRUE(std::filesystem::exists(dav.Root() / "folder"));
//
// kApache runs apache2 with mod_dav_fs (as www-data when started by root), kLighttpd runs
// lighttpd with mod_webdav, kRclone runs "rclone serve webdav". With a user name the server asks
// for HTTP Basic authentication. The destructor stops the server and removes the folder.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <string>

namespace test {

enum class DavServerKind { kApache, kLighttpd, kRclone };

class DavServer {
 public:
  explicit DavServer(DavServerKind kind, std::string user = std::string(),
                     std::string password = std::string());
  ~DavServer();
  DavServer(const DavServer&) = delete;
  DavServer& operator=(const DavServer&) = delete;

  // Starts the server and waits until it answers; false with Error() when it does not.
  bool Start();
  void Stop();

  std::string BaseUrl() const;  // "http://127.0.0.1:PORT", the root of the share
  const std::filesystem::path& Root() const { return root_; }
  const std::string& Error() const { return error_; }
  static const char* Name(DavServerKind kind);

 private:
  bool WriteConfig();
  bool Launch();
  bool WaitUntilServing();

  DavServerKind kind_;
  std::string user_;
  std::string password_;
  std::filesystem::path dir_;   // config, logs, lock database
  std::filesystem::path root_;  // the served folder
  int port_ = 0;
  pid_t pid_ = -1;
  std::string error_;
};

}  // namespace test
