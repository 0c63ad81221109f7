// URLProcessor: the HTTP client of one adapter thread. One request at a time; Stop() and Start()
// from any thread.
//
// A request with a body in memory:
//
//   URLProcessor::Request request;
//   request.verb = "PROPFIND";
//   request.url = folder_url;
//   request.headers = {"Depth: 1"};
//   if (processor->Send(request)) {
//     int code = processor->GetResponseCode();       // the head is in; the body is not read yet
//     processor->GetInputStream()->ReadAllTo(&body, 4096);
//   }
//   URLProcessor::Result result = processor->Finish();
//
// A streamed upload: BeginUpload(request, length), then GetOutputStream()->Write(block) for each
// block from the caller's thread, then Finish(). A server that answers before the body is all sent
// makes Write fail; GetResponseCode() then holds its code.
//
// No thread lives behind a processor: the network work runs on the calling thread.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include <boost/optional.hpp>
#include <boost/property_tree/ptree_fwd.hpp>

#include "core/DispatcherUrl.h"
#include "core/InputStream.h"
#include "core/Stoppable.h"
#include "core/URLProcessorResult.h"

namespace core {
namespace cookie {
class Cookie;
}
}  // namespace core

namespace utils {
namespace json {
// A parsed JSON document; core/Json.h has the operations on it.
using json_tree = boost::property_tree::ptree;
}  // namespace json
}  // namespace utils

class URLProcessor : public virtual Stoppable {
 public:
  using Result = URLProcessorResult;

  // Bytes `first` to `last`, both included; no `last` reads to the end.
  struct Range {
    std::uint64_t first = 0;
    boost::optional<std::uint64_t> last;
  };

  // The HTTP version setting: 0 lets the transport choose, 2 forces HTTP/1.1, 4 asks for HTTP/2
  // over TLS (HTTP/1.1 in clear text).
  enum HttpVersion : int { kHttpDefault = 0, kHttp11 = 2, kHttp2Tls = 4 };

  struct Request {
    std::string verb =
        "GET";  // GET, HEAD, POST, PUT, PATCH, DELETE, PROPFIND, PROPPATCH, MKCOL, ...
    DispatcherUrl url;
    std::vector<std::string> headers;  // whole header lines, "Name: value"
    std::string body;
    std::string content_type;  // sent as "Content-Type:" when not empty
    boost::optional<Range> range;
    bool authorize = true;  // attach the account's credentials
  };

  // --- connection -------------------------------------------------------------------------
  // `response_headers`, when not null, receives the raw head of every answer.
  virtual bool Open(std::string* response_headers) = 0;
  virtual Result Close() = 0;
  // The head of answers is not kept (saves a copy per request on hot paths).
  virtual void SetNoResponseHeadersBuffer() = 0;

  // --- settings ---------------------------------------------------------------------------
  virtual void SetTimeoutSec(int seconds) = 0;  // no progress for this long fails the request
  virtual void SetHttpVersion(int setting) = 0;
  virtual void SetCompression(bool gzip) = 0;  // ask for gzip and decode it
  virtual void SetUserAgent(const std::string& agent) = 0;
  virtual std::string GetUserAgent() const = 0;

  // --- requests ---------------------------------------------------------------------------
  // Sends the request with its whole body and waits for the head of the answer. False: no answer
  // came (network failure or stop); Finish() tells which.
  virtual bool Send(const Request& request) = 0;
  // Starts a streamed upload of `length` bytes; the body is pushed through GetOutputStream().
  virtual bool BeginUpload(const Request& request, std::uint64_t length) = 0;
  virtual OutputStream* GetOutputStream() = 0;
  // The body of the answer, once Send() or the upload has brought the head.
  virtual InputStream* GetInputStream() = 0;
  // Ends the request: waits for the answer of an upload, drops what is left of a body, and
  // answers how the request ended. Also kept for GetLastResult().
  virtual Result Finish() = 0;

  // --- the answer -------------------------------------------------------------------------
  virtual int GetResponseCode() const = 0;  // 0 before an answer
  virtual const std::string& GetResponseHeaders() const = 0;
  virtual Result GetLastResult() const = 0;
  virtual std::string GetUrl() const = 0;  // the URL of the running or last request
  // The credentials this processor applies; null when it has none.
  virtual std::shared_ptr<const core::cookie::Cookie> GetAuthorization() const = 0;

  // A GET whose answer is JSON. The tree is null when the body was not JSON.
  std::tuple<std::unique_ptr<utils::json::json_tree>, Result> GetJSONAndResult(
      const DispatcherUrl& url, const std::vector<std::string>& headers);

  // --- helpers ----------------------------------------------------------------------------
  static bool IsSuccessHttpCode(int code) { return code >= 200 && code < 300; }
  static bool IsNotSuccessHttpCode(int code) { return code != 0 && !IsSuccessHttpCode(code); }
  static bool IsNetworkError(Result result) { return IsNetworkErrorResult(result); }
  // True when the head's "Content-Range" starts at `first` and, where given, ends at `last` and
  // announces `total`.
  static bool CheckRangeInResponseHeaders(const std::string& headers, std::uint64_t first,
                                          boost::optional<std::uint64_t> last,
                                          boost::optional<std::uint64_t> total);
};

class URLProcessorFactory {
 public:
  virtual ~URLProcessorFactory() = default;
  // A new processor carrying the account's credentials. Null when none can be made.
  virtual std::shared_ptr<URLProcessor> Create() = 0;
};

// Helpers that read the raw head of an answer.
// The value of the header `name` (compared without regard to case); with `last`, of its last
// occurrence (after redirects or a 100 Continue, the final answer's).
std::string GetValueFromHTTPHeaders(const std::string& headers, const std::string& name, bool last);
// The total size behind "Content-Range: bytes a-b/total", else "Content-Length"; empty if neither.
std::string GetTotalPayloadSizeFromHTTPHeaders(const std::string& headers);
