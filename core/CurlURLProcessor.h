// CurlURLProcessor: URLProcessor over libcurl's multi interface, driven on the calling thread.
//
// The body of an answer is pulled by InputStream::Read and the body of an upload pushed by
// OutputStream::Write; between calls the transfer is paused, so at most kMaxBufferedBytes of an
// answer wait in memory however large the body. Stop() wakes the running call at once, whatever
// the poll round, and the call answers STOPPED.
//
//   auto http = std::make_shared<CurlURLProcessor>(cookie);
//   std::string head;
//   http->Open(&head);
//   URLProcessor::Request request;
//   request.url = DispatcherUrl::FromString("https://api.box.com/2.0/folders/0");
//   if (http->Send(request)) { http->GetInputStream()->ReadAllTo(&body, 4096); }
//   URLProcessor::Result result = http->Finish();
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "core/URLProcessor.h"

typedef void CURL;
typedef void CURLM;
struct curl_slist;

class CurlURLProcessor : public URLProcessor {
 public:
  static constexpr std::size_t kMaxBufferedBytes = 256 * 1024;
  static constexpr int kPollIntervalMs = 50;
  // Uploads from this size on ask "Expect: 100-continue", so that a refusal costs no body.
  static constexpr std::uint64_t kExpectContinueFrom = 1024 * 1024;
  static constexpr int kDefaultTimeoutSec = 60;
  // Enough for a download link that points at a storage host; a loop ends here.
  static constexpr long kMaxRedirects = 5;

  // `verify_tls` false accepts any certificate: only for a loopback test server.
  explicit CurlURLProcessor(std::shared_ptr<const core::cookie::Cookie> cookie = nullptr,
                            bool verify_tls = true);
  ~CurlURLProcessor() override;
  CurlURLProcessor(const CurlURLProcessor&) = delete;
  CurlURLProcessor& operator=(const CurlURLProcessor&) = delete;

  void Start() override;
  void Stop() override;

  bool Open(std::string* response_headers) override;
  Result Close() override;
  void SetNoResponseHeadersBuffer() override;

  void SetTimeoutSec(int seconds) override;
  // The longest wait for the socket between two looks at the time-out (kPollIntervalMs unless
  // set). Stop() and the socket end a wait early, so a test that lengthens it learns whether a
  // stop really woke the call.
  void SetPollIntervalMs(int ms) { poll_interval_ms_ = ms; }
  void SetHttpVersion(int setting) override;
  void SetCompression(bool gzip) override;
  void SetUserAgent(const std::string& agent) override;
  std::string GetUserAgent() const override;

  bool Send(const Request& request) override;
  bool BeginUpload(const Request& request, std::uint64_t length) override;
  OutputStream* GetOutputStream() override;
  InputStream* GetInputStream() override;
  Result Finish() override;

  int GetResponseCode() const override { return code_; }
  const std::string& GetResponseHeaders() const override;
  Result GetLastResult() const override { return last_result_; }
  std::string GetUrl() const override { return url_; }
  std::shared_ptr<const core::cookie::Cookie> GetAuthorization() const override { return cookie_; }

 private:
  class Body;
  class Upload;
  enum class Drive { kReady, kDone, kStopped };

  bool Begin(const Request& request, bool upload, std::uint64_t length);
  void Configure(const Request& request, bool upload, std::uint64_t length);
  curl_slist* BuildHeaderList(const Request& request, bool upload, std::uint64_t length);
  template <typename Ready>
  Drive DriveUntil(Ready ready);
  void CollectDone();
  void Detach();
  void Unpause();
  void Abort(bool stopped);
  Result Outcome() const;
  bool EarlyAnswerRead() const;
  bool EarlySuccess() const;
  bool AcceptsEncoding(std::string_view line) const;
  void EndOfHead();

  InputStream::Result ReadBody(std::uint8_t* buffer, std::uint32_t size, std::uint32_t* done);
  OutputStream::Result WriteBody(const std::uint8_t* data, std::uint32_t size);

  static std::size_t OnHeader(char* data, std::size_t size, std::size_t count, void* self);
  static std::size_t OnBody(char* data, std::size_t size, std::size_t count, void* self);
  static std::size_t OnUpload(char* buffer, std::size_t size, std::size_t count, void* self);

  const std::shared_ptr<const core::cookie::Cookie> cookie_;
  const bool verify_tls_;
  CURL* easy_ = nullptr;
  CURLM* multi_ = nullptr;
  curl_slist* header_list_ = nullptr;
  std::unique_ptr<Body> body_;
  std::unique_ptr<Upload> upload_;
  std::atomic<bool> stopped_{false};

  // Settings.
  int timeout_sec_ = kDefaultTimeoutSec;
  int poll_interval_ms_ = kPollIntervalMs;
  int http_version_ = kHttpDefault;
  bool gzip_ = false;
  std::string user_agent_;
  bool keep_headers_ = true;
  std::string* external_headers_ = nullptr;

  // The running request.
  std::string url_;
  std::string own_headers_;
  std::string request_body_;
  bool attached_ = false;
  bool in_request_ = false;
  bool transfer_done_ = false;
  bool aborted_by_stop_ = false;
  bool abandoned_ = false;   // the caller finished before the body was all read
  bool upload_cut_ = false;  // the caller finished before the body was all sent
  int curl_result_ = 0;
  int code_ = 0;
  bool head_done_ = false;
  bool head_redirects_ = false;
  bool follow_redirects_ = false;
  bool encoding_pending_ = false;  // the head being read names an encoding not asked for
  bool refused_encoding_ = false;  // the answer came in an encoding the request did not accept
  std::uint64_t tx_on_wire_at_head_ = 0;  // upload bytes written when the final head came
  std::chrono::steady_clock::time_point last_progress_;
  Result last_result_ = Result::OK;

  // The body of the answer: rx_[rx_pos_..] is waiting for Read.
  std::string rx_;
  std::size_t rx_pos_ = 0;
  bool rx_paused_ = false;
  bool discard_body_ = false;
  std::size_t drained_ = 0;     // bytes Finish() dropped
  std::uint64_t received_ = 0;  // bytes of the answer's body taken in

  // The upload: the block of the running Write.
  bool uploading_ = false;
  const std::uint8_t* tx_data_ = nullptr;
  std::size_t tx_left_ = 0;
  std::uint64_t tx_total_ = 0;
  std::uint64_t tx_sent_ = 0;
  bool tx_paused_ = false;

  char error_[256] = {};
};
