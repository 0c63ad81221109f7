// The WebDAV family's rows: the generic adapter on Apache mod_dav_fs and on "rclone serve webdav",
// judged through the servers' folders on disk.
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "contract/ContractTarget.h"
#include "core/Cookie.h"
#include "core/CurlURLProcessorFactory.h"
#include "services/RemoteFSFactoryConstructor.h"
#include "support/DavServer.h"
#include "support/Processes.h"

namespace contract {
namespace {

namespace fs = std::filesystem;

constexpr char kUser[] = "contract";
constexpr char kPassword[] = "pass word";
constexpr char kMounted[] = "mounted";

class DavTarget : public ContractTarget {
 public:
  explicit DavTarget(test::DavServerKind kind) : kind_(kind), server_(kind, kUser, kPassword) {}

  bool Start(std::string* error) override {
    if (!server_.Start()) {
      *error = server_.Error();
      return false;
    }
    fs::create_directories(Root());
    HandToServer();
    return true;
  }

  RemoteTree Remote() override {
    RemoteTree tree;
    for (const auto& entry : fs::recursive_directory_iterator(Root())) {
      struct stat info {};
      ::stat(entry.path().c_str(), &info);
      RemoteItem item;
      item.folder = entry.is_directory();
      item.size = item.folder ? 0 : static_cast<std::uint64_t>(info.st_size);
      item.time = static_cast<std::uint64_t>(info.st_mtime);
      tree[fs::relative(entry.path(), Root()).string()] = item;
    }
    return tree;
  }

  void PutFile(const std::string& path, const std::string& content) override {
    test::WriteAll(Root() / path, content);
    // An hour of age: a file changed within the last second has a weak ETag on Apache, which no
    // If-Match accepts, and a user leaves more time than that between two commands.
    fs::last_write_time(Root() / path, fs::file_time_type::clock::now() - std::chrono::hours(1));
    HandToServer();
  }

  std::string ReadRemote(const std::string& path) override { return test::ReadAll(Root() / path); }

  bool ChecksOverwriteControl() const override { return kind_ != test::DavServerKind::kRclone; }

 protected:
  std::unique_ptr<RemoteFileSystemFactory> MakeFactory() override {
    return std::unique_ptr<RemoteFileSystemFactory>(
        H6BA54F7D00(CloudServiceId::WEBDAV, std::string("/") + kMounted));
  }
  std::shared_ptr<const core::cookie::Cookie> Credentials() override {
    return std::make_shared<core::cookie::CookieWebDAVBase>(server_.BaseUrl(), kUser, kPassword);
  }

 private:
  fs::path Root() const { return server_.Root() / kMounted; }

  // Apache's workers run as www-data when the tests run as root.
  void HandToServer() {
    passwd* user = ::getuid() == 0 ? ::getpwnam("www-data") : nullptr;
    if (!user)
      return;
    for (const auto& entry : fs::recursive_directory_iterator(server_.Root())) {
      ::chown(entry.path().c_str(), user->pw_uid, user->pw_gid);
    }
    ::chown(server_.Root().c_str(), user->pw_uid, user->pw_gid);
  }

  test::DavServerKind kind_;
  test::DavServer server_;
};

const Registration kApache("apache", [] {
  return std::make_unique<DavTarget>(test::DavServerKind::kApache);
});
const Registration kRclone("rclone", [] {
  return std::make_unique<DavTarget>(test::DavServerKind::kRclone);
});

}  // namespace
}  // namespace contract
