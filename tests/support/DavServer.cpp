#include "support/DavServer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <pwd.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <thread>
#include <vector>

#include <openssl/evp.h>

namespace test {
namespace {

constexpr auto kStartTimeout = std::chrono::seconds(15);

int FreeLoopbackPort() {
  int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof(address);
  ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address));
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
  ::close(fd);
  return ntohs(address.sin_port);
}

bool Accepts(int port) {
  int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  bool connected = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
  ::close(fd);
  return connected;
}

// "{SHA}" + base64(sha1(password)): a password line that apache2 and lighttpd both read.
std::string ShaPasswordLine(const std::string& user, const std::string& password) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  EVP_Digest(password.data(), password.size(), digest, &length, EVP_sha1(), nullptr);
  unsigned char encoded[64];
  int size = EVP_EncodeBlock(encoded, digest, static_cast<int>(length));
  return user + ":{SHA}" + std::string(reinterpret_cast<char*>(encoded), size) + "\n";
}

std::string ReadFile(const std::filesystem::path& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

}  // namespace

DavServer::DavServer(DavServerKind kind, std::string user, std::string password)
    : kind_(kind), user_(std::move(user)), password_(std::move(password)) {}

DavServer::~DavServer() {
  Stop();
  if (!dir_.empty()) {
    std::error_code ignored;
    std::filesystem::remove_all(dir_, ignored);
  }
}

const char* DavServer::Name(DavServerKind kind) {
  switch (kind) {
    case DavServerKind::kApache:
      return "apache2";
    case DavServerKind::kLighttpd:
      return "lighttpd";
    case DavServerKind::kRclone:
      return "rclone";
  }
  return "?";
}

std::string DavServer::BaseUrl() const {
  return "http://127.0.0.1:" + std::to_string(port_);
}

bool DavServer::Start() {
  char pattern[] = "/tmp/corvane-dav-XXXXXX";
  if (dir_.empty()) {
    if (!::mkdtemp(pattern)) {
      error_ = "mkdtemp failed";
      return false;
    }
    dir_ = pattern;
    root_ = dir_ / "root";
    std::filesystem::create_directories(root_);
  }
  // A port can be taken between the probe and the server's bind: try a few.
  for (int attempt = 0; attempt < 3; ++attempt) {
    port_ = FreeLoopbackPort();
    if (WriteConfig() && Launch() && WaitUntilServing()) {
      return true;
    }
    Stop();
  }
  return false;
}

bool DavServer::WriteConfig() {
  std::ofstream config(dir_ / "server.conf");
  std::string root = root_.string();
  std::string dir = dir_.string();
  bool auth = !user_.empty();
  if (auth) {
    std::ofstream(dir_ / "users") << ShaPasswordLine(user_, password_);
  }
  switch (kind_) {
    case DavServerKind::kLighttpd:
      config << "server.document-root = \"" << root << "\"\n"
             << "server.bind = \"127.0.0.1\"\nserver.port = " << port_ << "\n"
             << "server.modules = (\"mod_webdav\", \"mod_auth\", \"mod_authn_file\")\n"
             << "webdav.activate = \"enable\"\nwebdav.is-readonly = \"disable\"\n"
             << "webdav.sqlite-db-name = \"" << dir << "/locks.db\"\n"
             << "server.upload-dirs = (\"" << dir << "\")\n"
             << "server.errorlog = \"" << dir << "/error.log\"\n";
      if (auth) {
        config << "auth.backend = \"htpasswd\"\nauth.backend.htpasswd.userfile = \"" << dir
               << "/users\"\nauth.require = (\"/\" => (\"method\" => \"basic\", \"realm\" => "
                  "\"dav\", \"require\" => \"valid-user\"))\n";
      }
      return static_cast<bool>(config);
    case DavServerKind::kApache: {
      const std::string modules = "/usr/lib/apache2/modules/";
      config << "ServerName 127.0.0.1\nListen 127.0.0.1:" << port_ << "\n"
             << "PidFile " << dir << "/httpd.pid\nErrorLog " << dir << "/error.log\n"
             << "LoadModule mpm_event_module " << modules << "mod_mpm_event.so\n"
             << "LoadModule authz_core_module " << modules << "mod_authz_core.so\n"
             << "LoadModule authn_core_module " << modules << "mod_authn_core.so\n"
             << "LoadModule authn_file_module " << modules << "mod_authn_file.so\n"
             << "LoadModule authz_user_module " << modules << "mod_authz_user.so\n"
             << "LoadModule auth_basic_module " << modules << "mod_auth_basic.so\n"
             << "LoadModule dav_module " << modules << "mod_dav.so\n"
             << "LoadModule dav_fs_module " << modules << "mod_dav_fs.so\n"
             << "DAVLockDB " << dir << "/davlock\nDocumentRoot \"" << root << "\"\n"
             << "<Directory \"" << root << "\">\n  Dav On\n";
      if (auth) {
        config << "  AuthType Basic\n  AuthName dav\n  AuthUserFile " << dir
               << "/users\n  Require valid-user\n";
      } else {
        config << "  Require all granted\n";
      }
      config << "</Directory>\n";
      // Apache refuses to serve as root: its workers run as www-data, which must own the folders.
      if (::geteuid() == 0) {
        config << "User www-data\nGroup www-data\n";
        if (passwd* user = ::getpwnam("www-data")) {
          for (const auto& path : {dir_, root_}) {
            ::chown(path.c_str(), user->pw_uid, user->pw_gid);
          }
        }
      }
      return static_cast<bool>(config);
    }
    case DavServerKind::kRclone:
      return true;
  }
  return false;
}

bool DavServer::Launch() {
  std::string config = (dir_ / "server.conf").string();
  std::string address = "127.0.0.1:" + std::to_string(port_);
  std::vector<std::string> args;
  switch (kind_) {
    case DavServerKind::kLighttpd:
      args = {"/usr/sbin/lighttpd", "-D", "-f", config};
      break;
    case DavServerKind::kApache:
      args = {"/usr/sbin/apache2", "-DFOREGROUND", "-f", config};
      break;
    case DavServerKind::kRclone:
      // Tests write the served folder directly: no listing may come from a cache.
      args = {"rclone",           "serve", "webdav",      "--addr", address,
              "--dir-cache-time", "0s",    root_.string()};
      if (!user_.empty()) {
        args.insert(args.end(), {"--user", user_, "--pass", password_});
      }
      break;
  }
  std::string log = (dir_ / "output.log").string();
  pid_ = ::fork();
  if (pid_ == 0) {
    int out = ::open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    ::dup2(out, 1);
    ::dup2(out, 2);
    std::vector<char*> argv;
    for (std::string& arg : args) {
      argv.push_back(arg.data());
    }
    argv.push_back(nullptr);
    ::execvp(argv[0], argv.data());
    ::_exit(127);
  }
  if (pid_ < 0) {
    error_ = "fork failed";
    return false;
  }
  return true;
}

bool DavServer::WaitUntilServing() {
  auto deadline = std::chrono::steady_clock::now() + kStartTimeout;
  while (std::chrono::steady_clock::now() < deadline) {
    if (Accepts(port_)) {
      return true;
    }
    int status = 0;
    if (::waitpid(pid_, &status, WNOHANG) == pid_) {
      pid_ = -1;
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  error_ = std::string(Name(kind_)) + " did not start: " + ReadFile(dir_ / "output.log") +
           ReadFile(dir_ / "error.log");
  return false;
}

void DavServer::Stop() {
  if (pid_ > 0) {
    ::kill(pid_, SIGTERM);
    int status = 0;
    ::waitpid(pid_, &status, 0);
    pid_ = -1;
  }
}

}  // namespace test
