#include "emulators/HttpServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/evp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace emulators {
namespace {

constexpr std::size_t kIoBlock = 256 * 1024;
constexpr int kDrainAfterEarlyAnswerMs = 5000;

bool IEquals(std::string_view a, std::string_view b) {
  return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

std::string_view Trim(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) {
    text.remove_prefix(1);
  }
  while (!text.empty() && (text.back() == ' ' || text.back() == '\r' || text.back() == '\t')) {
    text.remove_suffix(1);
  }
  return text;
}

const char* Reason(int status) {
  switch (status) {
    case 100:
      return "Continue";
    case 200:
      return "OK";
    case 201:
      return "Created";
    case 204:
      return "No Content";
    case 206:
      return "Partial Content";
    case 207:
      return "Multi-Status";
    case 308:
      return "Resume Incomplete";
    case 400:
      return "Bad Request";
    case 401:
      return "Unauthorized";
    case 403:
      return "Forbidden";
    case 404:
      return "Not Found";
    case 411:
      return "Length Required";
    case 413:
      return "Payload Too Large";
    case 429:
      return "Too Many Requests";
    case 500:
      return "Internal Server Error";
    case 503:
      return "Service Unavailable";
    default:
      return "Status";
  }
}

bool SendAll(int fd, const void* data, std::size_t size) {
  const char* p = static_cast<const char*>(data);
  while (size > 0) {
    ssize_t n = ::send(fd, p, size, MSG_NOSIGNAL);
    if (n <= 0) {
      return false;
    }
    p += n;
    size -= static_cast<std::size_t>(n);
  }
  return true;
}

bool HeaderListHas(const HeaderList& headers, std::string_view name) {
  return std::any_of(headers.begin(), headers.end(),
                     [&](const auto& header) { return IEquals(header.first, name); });
}

}  // namespace

std::uint8_t PatternByte(std::uint64_t offset) {
  std::uint64_t x = offset * 0x9E3779B97F4A7C15ULL;
  return static_cast<std::uint8_t>((x >> 56) ^ (offset >> 9));
}

void PatternBytes(std::uint64_t offset, std::uint8_t* out, std::size_t size) {
  for (std::size_t i = 0; i < size; ++i) {
    out[i] = PatternByte(offset + i);
  }
}

std::string PatternString(std::uint64_t offset, std::size_t size) {
  std::string out(size, '\0');
  PatternBytes(offset, reinterpret_cast<std::uint8_t*>(out.data()), size);
  return out;
}

Sha256::Sha256() : context_(EVP_MD_CTX_new()) {
  EVP_DigestInit_ex(static_cast<EVP_MD_CTX*>(context_), EVP_sha256(), nullptr);
}

Sha256::~Sha256() {
  EVP_MD_CTX_free(static_cast<EVP_MD_CTX*>(context_));
}

void Sha256::Update(const void* data, std::size_t size) {
  EVP_DigestUpdate(static_cast<EVP_MD_CTX*>(context_), data, size);
}

std::string Sha256::HexDigest() {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  EVP_DigestFinal_ex(static_cast<EVP_MD_CTX*>(context_), digest, &length);
  static const char kHex[] = "0123456789abcdef";
  std::string hex;
  for (unsigned int i = 0; i < length; ++i) {
    hex.push_back(kHex[digest[i] >> 4]);
    hex.push_back(kHex[digest[i] & 15]);
  }
  return hex;
}

std::string Sha256::Of(std::string_view data) {
  Sha256 hash;
  hash.Update(data.data(), data.size());
  return hash.HexDigest();
}

std::string HttpRequest::Header(std::string_view name) const {
  for (const auto& header : headers) {
    if (IEquals(header.first, name)) {
      return header.second;
    }
  }
  return std::string();
}

bool HttpRequest::HasHeader(std::string_view name) const {
  return HeaderListHas(headers, name);
}

HttpResponse HttpResponse::Status(int status, std::string body) {
  HttpResponse response;
  response.status = status;
  response.body = std::move(body);
  return response;
}

HttpResponse HttpResponse::Trickling(int interval_ms) {
  HttpResponse response;
  response.generated_size = 1 << 20;
  response.trickle_bytes = 10;
  response.trickle_interval_ms = interval_ms;
  return response;
}

HttpResponse HttpResponse::Gzipped(int status, const std::string& plain) {
  z_stream stream{};
  // 15 + 16: a gzip wrapper rather than zlib's.
  deflateInit2(&stream, Z_BEST_SPEED, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY);
  std::string packed(deflateBound(&stream, plain.size()), '\0');
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(plain.data()));
  stream.avail_in = static_cast<uInt>(plain.size());
  stream.next_out = reinterpret_cast<Bytef*>(packed.data());
  stream.avail_out = static_cast<uInt>(packed.size());
  deflate(&stream, Z_FINISH);
  packed.resize(stream.total_out);
  deflateEnd(&stream);
  HttpResponse response = Status(status, std::move(packed));
  response.headers.emplace_back("Content-Encoding", "gzip");
  return response;
}

// One client connection: buffered reading of heads and bodies.
class HttpServer::Connection {
 public:
  explicit Connection(int fd) : fd_(fd) {}

  // A line without its "\r\n"; false at the end of the connection.
  bool ReadLine(std::string* line) {
    line->clear();
    for (;;) {
      std::size_t end = buffer_.find('\n', position_);
      if (end != std::string::npos) {
        line->assign(buffer_, position_, end - position_);
        position_ = end + 1;
        if (!line->empty() && line->back() == '\r') {
          line->pop_back();
        }
        return true;
      }
      if (buffer_.size() - position_ > 64 * 1024 || !Fill()) {
        return false;
      }
    }
  }

  // Hands `size` bytes to `sink` piece by piece.
  template <typename Sink>
  bool ReadBody(std::uint64_t size, Sink sink) {
    while (size > 0) {
      if (position_ == buffer_.size() && !Fill()) {
        return false;
      }
      std::size_t n =
          static_cast<std::size_t>(std::min<std::uint64_t>(size, buffer_.size() - position_));
      sink(buffer_.data() + position_, n);
      position_ += n;
      size -= n;
    }
    return true;
  }

  int fd() const { return fd_; }

 private:
  bool Fill() {
    if (position_ == buffer_.size()) {
      buffer_.clear();
      position_ = 0;
    }
    char block[kIoBlock];
    ssize_t n = ::recv(fd_, block, sizeof(block), 0);
    if (n <= 0) {
      return false;
    }
    buffer_.append(block, static_cast<std::size_t>(n));
    return true;
  }

  int fd_;
  std::string buffer_;
  std::size_t position_ = 0;
};

HttpServer::HttpServer(int port) {
  listen_fd_ = ::socket(AF_INET, SOCK_STREAM, 0);
  int on = 1;
  ::setsockopt(listen_fd_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  socklen_t length = sizeof(address);
  if (::bind(listen_fd_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
      ::listen(listen_fd_, 64) != 0 ||
      ::getsockname(listen_fd_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    ::close(listen_fd_);
    throw std::runtime_error("cannot listen on 127.0.0.1:" + std::to_string(port) + ": " +
                             std::strerror(errno));
  }
  port_ = ntohs(address.sin_port);
  acceptor_ = std::thread([this] { AcceptLoop(); });
}

HttpServer::~HttpServer() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    closing_ = true;
    for (int fd : open_fds_) {
      ::shutdown(fd, SHUT_RDWR);
    }
  }
  wake_.notify_all();
  ::shutdown(listen_fd_, SHUT_RDWR);
  acceptor_.join();
  ::close(listen_fd_);
  for (std::thread& worker : workers_) {
    worker.join();
  }
}

std::string HttpServer::BaseUrl() const {
  return "http://127.0.0.1:" + std::to_string(port_);
}

void HttpServer::Handle(const std::string& verb, const std::string& path, Handler handler,
                        Match match, BodyMode mode, HeadHandler on_head) {
  std::lock_guard<std::mutex> lock(mutex_);
  routes_.erase(std::remove_if(routes_.begin(), routes_.end(),
                               [&](const Route& route) {
                                 return route.verb == verb && route.path == path &&
                                        route.match == match;
                               }),
                routes_.end());
  routes_.push_back(Route{verb, path, match, mode, std::move(handler), std::move(on_head)});
}

std::vector<HttpRequest> HttpServer::Requests() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return requests_;
}

int HttpServer::OpenConnectionCount() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return static_cast<int>(open_fds_.size());
}

void HttpServer::ClearRequests() {
  std::lock_guard<std::mutex> lock(mutex_);
  requests_.clear();
}

bool HttpServer::FindRoute(const std::string& verb, const std::string& path, Route* found) const {
  std::lock_guard<std::mutex> lock(mutex_);
  const Route* best = nullptr;
  for (const Route& route : routes_) {
    if (route.verb != "*" && route.verb != verb) {
      continue;
    }
    if (route.match == Match::kExact && route.path == path) {
      best = &route;
      break;
    }
    if (route.match == Match::kPrefix && path.compare(0, route.path.size(), route.path) == 0 &&
        (!best || route.path.size() > best->path.size())) {
      best = &route;
    }
  }
  if (best) {
    *found = *best;
  }
  return best != nullptr;
}

bool HttpServer::SleepMs(int ms) {
  std::unique_lock<std::mutex> lock(mutex_);
  return !wake_.wait_for(lock, std::chrono::milliseconds(ms), [this] { return closing_.load(); });
}

void HttpServer::Log(HttpRequest request) {
  std::lock_guard<std::mutex> lock(mutex_);
  requests_.push_back(std::move(request));
}

void HttpServer::AcceptLoop() {
  for (;;) {
    int fd = ::accept(listen_fd_, nullptr, nullptr);
    if (fd < 0) {
      return;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    if (closing_) {
      ::close(fd);
      return;
    }
    ++connections_;
    int on = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    open_fds_.insert(fd);
    workers_.emplace_back([this, fd] { Serve(fd); });
  }
}

namespace {

// Reads the request line and head into `request`; false at the end of the connection.
template <typename Connection>
bool ReadHead(Connection* connection, HttpRequest* request) {
  std::string line;
  do {
    if (!connection->ReadLine(&line)) {
      return false;
    }
  } while (line.empty());
  std::size_t first = line.find(' ');
  std::size_t second = line.find(' ', first + 1);
  if (first == std::string::npos || second == std::string::npos) {
    return false;
  }
  request->verb = line.substr(0, first);
  std::string target = line.substr(first + 1, second - first - 1);
  std::size_t question = target.find('?');
  request->path = target.substr(0, question);
  request->query = question == std::string::npos ? std::string() : target.substr(question + 1);
  while (connection->ReadLine(&line) && !line.empty()) {
    std::size_t colon = line.find(':');
    if (colon != std::string::npos) {
      request->headers.emplace_back(std::string(Trim(std::string_view(line).substr(0, colon))),
                                    std::string(Trim(std::string_view(line).substr(colon + 1))));
    }
  }
  return true;
}

}  // namespace

bool HttpServer::ReadRequestBody(Connection* connection, std::uint64_t length, BodyMode mode,
                                 HttpRequest* request) {
  Sha256 hash;
  ContentHasher digests(ContentHasher::kMd5 | ContentHasher::kSha1 | ContentHasher::kSha256);
  bool digested = mode == BodyMode::kDigestOnly || mode == BodyMode::kStoreBounded;
  bool kept = mode == BodyMode::kStore || mode == BodyMode::kStoreUnlogged ||
              (mode == BodyMode::kStoreBounded && length <= body_keep_limit_);
  if (kept) {
    // Room for the announced length at once: grown by appends, a body of a hundred MiB is copied
    // over and over. A length beyond any test's upload is left to grow, whatever it claims.
    request->body.reserve(static_cast<std::size_t>(std::min<std::uint64_t>(length, 1ull << 30)));
  }
  bool complete = connection->ReadBody(length, [&](const char* data, std::size_t size) {
    if (digested) {
      digests.Update(data, size);
    } else {
      hash.Update(data, size);
    }
    if (kept) {
      request->body.append(data, size);
    }
    request->body_size += size;
  });
  if (digested) {
    request->body_digests = digests.Finish();
    request->body_sha256 = request->body_digests.sha256;
  } else {
    request->body_sha256 = hash.HexDigest();
  }
  return complete;
}

void HttpServer::Serve(int fd) {
  Connection connection(fd);
  for (;;) {
    // 1. The head, and the route that answers it.
    HttpRequest request;
    if (closing_ || !ReadHead(&connection, &request)) {
      break;
    }
    Route route;
    bool routed = FindRoute(request.verb, request.path, &route);
    BodyMode mode = routed ? route.mode : BodyMode::kStore;
    std::uint64_t length = 0;
    std::string length_text = request.Header("Content-Length");
    if (!length_text.empty()) {
      length = std::stoull(length_text);
    }
    if (!request.Header("Transfer-Encoding").empty()) {
      SendAll(fd, "HTTP/1.1 411 Length Required\r\nContent-Length: 0\r\n\r\n", 51);
      break;
    }

    // 2. The body, unless the answer goes first.
    HttpResponse response;
    if (routed && route.on_head) {
      response = route.on_head(request);
      if (response.status > 0) {
        mode = BodyMode::kAnswerFirst;
      }
    }
    if (mode != BodyMode::kAnswerFirst) {
      if (IEquals(request.Header("Expect"), "100-continue")) {
        SendAll(fd, "HTTP/1.1 100 Continue\r\n\r\n", 25);
      }
      if (!ReadRequestBody(&connection, length, mode, &request)) {
        Log(std::move(request));
        break;
      }
      response = routed ? route.handler(request) : HttpResponse::Status(404);
    } else if (!route.on_head || response.status == 0) {
      response = route.handler(request);
    }

    // 3. The answer with its faults.
    bool head_only = request.verb == "HEAD" || response.status == 204 || response.status == 304;
    bool close = response.close || mode == BodyMode::kAnswerFirst ||
                 IEquals(request.Header("Connection"), "close");
    if (mode == BodyMode::kStoreUnlogged || mode == BodyMode::kStoreBounded) {
      std::string().swap(request.body);
    }
    Log(std::move(request));
    if (response.delay_ms > 0 && !SleepMs(response.delay_ms)) {
      break;
    }
    if (response.reset && response.cut_after == UINT64_MAX) {
      linger hard{1, 0};
      ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &hard, sizeof(hard));
      break;
    }
    std::uint64_t body_size =
        response.generated_size > 0 ? response.generated_size : response.body.size();
    std::string head =
        "HTTP/1.1 " + std::to_string(response.status) + " " + Reason(response.status) + "\r\n";
    for (const auto& header : response.headers) {
      head += header.first + ": " + header.second + "\r\n";
    }
    if (!HeaderListHas(response.headers, "Content-Length") && response.status != 204 &&
        response.status != 304) {
      head += "Content-Length: " + std::to_string(body_size) + "\r\n";
    }
    if (close) {
      head += "Connection: close\r\n";
    }
    head += "\r\n";
    if (!SendAll(fd, head.data(), head.size())) {
      break;
    }
    if (!head_only) {
      std::uint64_t to_send = std::min(body_size, response.cut_after);
      std::size_t piece = response.trickle_bytes > 0 ? response.trickle_bytes : kIoBlock;
      std::vector<std::uint8_t> block(std::min<std::size_t>(piece, kIoBlock));
      std::uint64_t sent = 0;
      bool ok = true;
      while (ok && sent < to_send) {
        std::size_t n =
            static_cast<std::size_t>(std::min<std::uint64_t>(block.size(), to_send - sent));
        if (response.generated_size > 0) {
          PatternBytes(response.generated_offset + sent, block.data(), n);
        } else {
          std::memcpy(block.data(), response.body.data() + sent, n);
        }
        ok = SendAll(fd, block.data(), n);
        sent += n;
        if (ok && response.trickle_interval_ms > 0 && sent < to_send) {
          ok = SleepMs(response.trickle_interval_ms);
        }
      }
      if (!ok || sent < body_size) {
        if (response.reset) {
          linger hard{1, 0};
          ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &hard, sizeof(hard));
        }
        break;
      }
    }
    if (close) {
      // Read what the client still sends, so that the answer is not lost to a reset.
      ::shutdown(fd, SHUT_WR);
      pollfd wait{fd, POLLIN, 0};
      char sink[kIoBlock];
      while (!closing_ && ::poll(&wait, 1, kDrainAfterEarlyAnswerMs) > 0 &&
             ::recv(fd, sink, sizeof(sink), 0) > 0) {
      }
      break;
    }
  }
  std::lock_guard<std::mutex> lock(mutex_);
  open_fds_.erase(fd);
  ::close(fd);
}

}  // namespace emulators
