// TestHttpServer: an HTTP/1.1 server on an ephemeral loopback port, in process, for tests and
// service emulators. Each connection runs on its own thread; handlers answer per verb and path,
// every request is logged, and an answer can carry faults (delay, cut body, reset, trickle, early
// answer before the upload body).
//
//   test::TestHttpServer server;
//   server.Handle("GET", "/files/", [](const test::HttpRequest& request) {
//     test::HttpResponse response;
//     response.headers = {{"Content-Type", "application/json"}};
//     response.body = R"({"name":")" + request.path.substr(7) + R"("})";
//     return response;
//   }, test::Match::kPrefix);
//   server.Handle("PUT", "/upload", [](const test::HttpRequest& request) {
//     return test::HttpResponse::Status(request.body_size == 5 ? 201 : 400);
//   }, test::Match::kExact, test::BodyMode::kHashOnly);
//   ... point the client at server.BaseUrl() ...
//   EXPECT_EQ(server.Requests().back().Header("Depth"), "1");
//
// Handlers run on the connections' threads, possibly at once: they guard their own state.
// Large bodies never sit in memory: an answer may be generated (HttpResponse::generated_size,
// the bytes of test::PatternBytes), and an upload in BodyMode::kHashOnly is counted and hashed
// as it arrives. Request bodies must have a Content-Length; "Expect: 100-continue" is honoured.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace test {

using HeaderList = std::vector<std::pair<std::string, std::string>>;

struct HttpRequest {
  std::string verb;
  std::string path;   // as sent, still percent-encoded
  std::string query;  // after "?", empty if none
  HeaderList headers;
  std::string body;  // empty in BodyMode::kHashOnly and kAnswerFirst
  std::uint64_t body_size = 0;
  std::string body_sha256;  // hex, of the bytes received

  // The first value of the header (name without regard to case); empty when missing.
  std::string Header(std::string_view name) const;
  bool HasHeader(std::string_view name) const;
};

struct HttpResponse {
  int status = 200;
  HeaderList headers;  // "Content-Length" is added unless given
  std::string body;
  // A body of this many bytes of PatternBytes, made while it is sent, in place of `body`.
  std::uint64_t generated_size = 0;
  std::uint64_t generated_offset = 0;  // the pattern starts at this offset (for ranges)

  // Faults.
  int delay_ms = 0;                      // wait before the head
  std::uint64_t cut_after = UINT64_MAX;  // close the connection after this many body bytes
  bool reset = false;                    // send a TCP reset instead of an answer
  std::size_t trickle_bytes = 0;         // send the body this many bytes at a time...
  int trickle_interval_ms = 0;           // ...with this pause between pieces
  bool close = false;                    // close the connection after the answer

  static HttpResponse Status(int status, std::string body = std::string());
  // The body compressed with gzip and "Content-Encoding: gzip".
  static HttpResponse Gzipped(int status, const std::string& plain);
};

enum class Match { kExact, kPrefix };

enum class BodyMode {
  kStore,        // the body is read and kept in HttpRequest::body
  kHashOnly,     // counted and hashed, not kept
  kAnswerFirst,  // answered after the head, before any body byte is read; the connection closes
};

using Handler = std::function<HttpResponse(const HttpRequest&)>;

// Byte `offset` of the generated test content: cheap, and no two nearby offsets repeat a
// window, so a shifted or cut range shows in a hash.
std::uint8_t PatternByte(std::uint64_t offset);
void PatternBytes(std::uint64_t offset, std::uint8_t* out, std::size_t size);
std::string PatternString(std::uint64_t offset, std::size_t size);

// SHA-256 over pieces.
class Sha256 {
 public:
  Sha256();
  ~Sha256();
  Sha256(const Sha256&) = delete;
  Sha256& operator=(const Sha256&) = delete;
  void Update(const void* data, std::size_t size);
  std::string HexDigest();  // ends the hash
  static std::string Of(std::string_view data);

 private:
  void* context_;
};

class TestHttpServer {
 public:
  TestHttpServer();
  ~TestHttpServer();
  TestHttpServer(const TestHttpServer&) = delete;
  TestHttpServer& operator=(const TestHttpServer&) = delete;

  int Port() const { return port_; }
  std::string BaseUrl() const;  // "http://127.0.0.1:PORT"

  // `verb` "*" takes every verb. A later registration of the same verb and path replaces the
  // earlier; among prefixes the longest wins, an exact path beats any prefix. Unmatched: 404.
  void Handle(const std::string& verb, const std::string& path, Handler handler,
              Match match = Match::kExact, BodyMode mode = BodyMode::kStore);

  std::vector<HttpRequest> Requests() const;
  void ClearRequests();
  // Connections accepted so far: tells whether a client reused its connection.
  int ConnectionCount() const { return connections_; }
  // Connections not yet closed, each with its thread: what the server adds to a thread count.
  int OpenConnectionCount() const;

 private:
  struct Route {
    std::string verb;
    std::string path;
    Match match;
    BodyMode mode;
    Handler handler;
  };
  class Connection;

  void AcceptLoop();
  void Serve(int fd);
  bool FindRoute(const std::string& verb, const std::string& path, Route* route) const;
  bool SleepMs(int ms);  // false when the server is closing
  void Log(HttpRequest request);

  int listen_fd_ = -1;
  int port_ = 0;
  std::atomic<bool> closing_{false};
  std::atomic<int> connections_{0};
  std::thread acceptor_;
  mutable std::mutex mutex_;
  std::condition_variable wake_;
  std::vector<Route> routes_;
  std::vector<HttpRequest> requests_;
  std::vector<std::thread> workers_;
  std::set<int> open_fds_;
};

}  // namespace test
