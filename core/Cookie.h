// Credentials of one account, carried by every URLProcessor that a factory makes.
//
// The library never stores nor logs them: an adapter reaches only what it needs to build URLs
// (the WebDAV server address). The transport applies them to each authorizing request.
#pragma once

#include <string>

namespace core {
namespace cookie {

class Cookie {
 public:
  virtual ~Cookie() = default;
};

// An OAuth 2 access token, sent as "Authorization: SCHEME TOKEN": "Bearer" for most services,
// "OAuth" for Yandex Disk.
class CookieOAuth : public Cookie {
 public:
  static constexpr const char* kBearer = "Bearer";
  static constexpr const char* kYandexScheme = "OAuth";

  explicit CookieOAuth(std::string token, std::string scheme = kBearer)
      : token_(std::move(token)), scheme_(std::move(scheme)) {}
  const std::string& GetToken() const { return token_; }
  const std::string& GetScheme() const { return scheme_; }

 private:
  std::string token_;
  std::string scheme_;
};

// A WebDAV account: the server's base URL and the user's name and password (HTTP Basic or Digest).
class CookieWebDAVBase : public Cookie {
 public:
  CookieWebDAVBase(std::string server, std::string user, std::string password)
      : server_(std::move(server)), user_(std::move(user)), password_(std::move(password)) {}
  const std::string& GetServer() const { return server_; }
  const std::string& GetUser() const { return user_; }
  const std::string& GetPassword() const { return password_; }

 private:
  std::string server_;
  std::string user_;
  std::string password_;
};

}  // namespace cookie
}  // namespace core
